#include "aiengine/ModelBackendFactory.h"

#include <array>
#include <utility>

namespace aiengine {

namespace {
constexpr std::array<std::pair<int, const char *>, 4> backendNames{{
    {ModelBackendFactory::Cpu, "cpu"},
    {ModelBackendFactory::CoreMl, "coreml"},
    {ModelBackendFactory::Vulkan, "vulkan"},
    {ModelBackendFactory::Cuda, "cuda"},
}};
} // namespace

std::string ModelBackendFactory::MBNameFor(int backend)
{
    for (const auto &[code, name] : backendNames) {
        if (code == backend)
            return name;
    }
    return "none";
}

int ModelBackendFactory::MBCodeFor(const std::string &name)
{
    for (const auto &[code, known] : backendNames) {
        if (name == known)
            return code;
    }
    return None;
}

} // namespace aiengine
