#pragma once

#include <string>

namespace aiengine {

// The inference backends a model record may offer, by code (docs/models.md).
class ModelBackendFactory
{
public:
    enum Backend : int {
        None = 0,
        Cpu = 1,
        Vulkan = 32,
        CoreMl = 8,
        Cuda = 256,
    };

    // The backend's name as model records and file names spell it; "none" for
    // a code that is no backend.
    static std::string MBNameFor(int backend);
    // The code of a name; `None` for an unknown one.
    static int MBCodeFor(const std::string &name);
};

} // namespace aiengine
