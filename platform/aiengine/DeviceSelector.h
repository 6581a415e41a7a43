#pragma once

#include "aiutils/DeviceInfo.h"

#include <set>
#include <string>
#include <vector>

namespace aiengine {

// Which device runs a model, and with which backend (docs/models.md). Devices
// are the indices of `SystemInfo::getGPUList()`; -1 is the CPU.
class DeviceSelector
{
public:
    // The selector over this machine's GPUs. `announce` logs them the first time.
    static const DeviceSelector &GetInstance(bool announce = false);

    DeviceSelector(std::vector<aiutils::DeviceInfo> gpus, bool apple, float osVersion);

    // The CUDA GPU with the most memory, else any GPU with the most memory
    // (first of equals), else -1.
    int preferredDevice() const;
    int deviceCount() const;
    // Compute capability of a CUDA device (major * 10 + minor); 0 for anything else.
    int deviceCapability(int device) const;
    // The backend code for `device` among the offered `backends` names; 0 when
    // none fits or the device does not exist. `minVersion` is the lowest system
    // version the Apple backend runs on.
    int preferredBackend(int device, const std::set<std::string> &backends, float minVersion) const;

private:
    bool exists(int device) const;

    std::vector<aiutils::DeviceInfo> m_gpus;
    bool m_apple;
    float m_osVersion;
};

} // namespace aiengine
