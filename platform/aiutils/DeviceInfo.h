#pragma once

#include <QString>

namespace aiutils {

// One GPU of `SystemInfo::getGPUList()`.
struct DeviceInfo
{
    QString name;
    double memory = 0.0; // GiB; 0 when the driver does not tell (most integrated GPUs)
    int cudaId = -1;     // -1 for any GPU that CUDA cannot drive
    int capability = 0;  // compute capability as major * 10 + minor; 0 when not CUDA

    bool operator==(const DeviceInfo &) const = default;
};

} // namespace aiutils
