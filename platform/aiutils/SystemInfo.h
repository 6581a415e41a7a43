#pragma once

#include "aiutils/DeviceInfo.h"

#include <QString>

#include <utility>
#include <vector>

namespace aiutils {

// What the engine knows of the machine: platform, processor, memory and GPUs.
// The facts are read once; on Linux from /proc and /sys under `root`, so tests
// can hand a fake tree. GPUs come from the NVIDIA management library when it
// loads and sees a device (only for the real root), else from the DRM cards.
class SystemInfo
{
public:
    // The facts of this machine, read on first use.
    static const SystemInfo &GetInstance();

    explicit SystemInfo(const QString &root);

    // The system's product version as a number ("12", "22.04"); 0 when it is not one.
    float osVersion = 0.0f;

    bool isWindows() const;
    bool isMac() const;
    bool isApple() const;

    QString getMachineId() const;
    QString cpuName() const;
    // Total and available memory in GiB, both capped by a cgroup limit.
    std::pair<double, double> cpuMemory() const;
    const std::vector<DeviceInfo> &getGPUList() const;

    // The parsers, apart so that odd files can be tried without a tree.
    static QString parseCpuName(const QByteArray &cpuinfo);
    static std::pair<double, double> parseMemInfo(const QByteArray &meminfo);
    // A cgroup memory limit in bytes; 0 for "max" or anything not a number.
    static quint64 parseMemoryLimit(const QByteArray &text);
    static std::vector<DeviceInfo> drmDevices(const QString &root);

private:
    QString m_cpuName;
    std::pair<double, double> m_memory{0.0, 0.0};
    std::vector<DeviceInfo> m_gpus;
};

} // namespace aiutils
