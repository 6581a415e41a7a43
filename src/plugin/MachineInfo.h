#pragma once

#include "aiutils/DeviceInfo.h"

#include <QString>
#include <QVariantList>
#include <QVariantMap>

#include <map>
#include <string>
#include <vector>

// The arithmetic and the texts behind KUtils' machine services, apart from
// the machine they describe, so that any machine can be tried.
namespace machineinfo {

// Parallel render processes for `ramGiB` of memory and a GPU of `vramGiB`:
// min(round(log2(R) - 0.2) - 2, round(log2(V) - 0.2) - 1), at least 1.
// Memory that is unknown (0, negative or NaN) gives 1.
int maxProcesses(float ramGiB, float vramGiB);

// The GPU memory that `maxProcesses` works with: that of the GPU at `device`,
// or 2 GiB when the index points at no GPU (the CPU is -1).
float deviceMemory(const std::vector<aiutils::DeviceInfo> &gpus, int device);

// "OS: <name> v<version>\nCPU: <name>  <mem> GB" and a "\nGPU: <name>  <mem> GB" per GPU.
QString systemInfoText(const QString &osName, float osVersion, const QString &cpuName, double cpuMemory,
                       const std::vector<aiutils::DeviceInfo> &gpus);

// The CPU first, then each distinct GPU name once.
QVariantList deviceList(const QString &cpuName, double cpuMemory, const std::vector<aiutils::DeviceInfo> &gpus);

// Model short name to its last record, with `versions` listing every version
// seen. A key without "-" has the version ""; a record that is no JSON object
// is logged and skipped.
QVariantMap modelsInfo(const std::map<std::string, std::string> &texts);

// The payload of a JSON web token as indented JSON, unchecked; or
// "Invalid JWT format" / "Invalid JSON payload".
QString jwtDecode(const QString &jwt);

// 1 when `available` bytes are at or below `thresholdGb` GiB, else 0. The
// threshold is taken in 64 bits and a negative one counts as 0.
int diskSpaceLow(quint64 available, qint64 thresholdGb);

// "<user>'s <host>", the host without a trailing ".local". The user is the
// first non-empty of `user`, `userName` and `account`.
QString friendlyName(const QString &user, const QString &userName, const QString &account, const QString &host);

} // namespace machineinfo
