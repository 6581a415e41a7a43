#include "aiengine/DeviceSelector.h"

#include "aiengine/ModelBackendFactory.h"
#include "aiutils/Logger.h"
#include "aiutils/SystemInfo.h"

#include <mutex>

namespace aiengine {

const DeviceSelector &DeviceSelector::GetInstance(bool announce)
{
    const auto &facts = aiutils::SystemInfo::GetInstance();
    static const DeviceSelector selector(facts.getGPUList(), facts.isApple(), facts.osVersion);
    static std::once_flag announced;
    if (announce) {
        std::call_once(announced, [] {
            for (int i = 0; i < selector.deviceCount(); ++i) {
                const auto &gpu = selector.m_gpus[size_t(i)];
                aiutils::Logger::Log() << "DeviceSelector:: device " << i << ": " << gpu.name << ", " << gpu.memory
                                       << " GiB, CUDA " << gpu.cudaId;
            }
        });
    }
    return selector;
}

DeviceSelector::DeviceSelector(std::vector<aiutils::DeviceInfo> gpus, bool apple, float osVersion)
    : m_gpus(std::move(gpus))
    , m_apple(apple)
    , m_osVersion(osVersion)
{
}

int DeviceSelector::preferredDevice() const
{
    int best = -1;
    for (int i = 0; i < deviceCount(); ++i) {
        const auto &gpu = m_gpus[size_t(i)];
        if (best < 0) {
            best = i;
            continue;
        }
        const auto &chosen = m_gpus[size_t(best)];
        const bool cuda = gpu.cudaId >= 0, chosenCuda = chosen.cudaId >= 0;
        if ((cuda && !chosenCuda) || (cuda == chosenCuda && gpu.memory > chosen.memory))
            best = i;
    }
    return best;
}

int DeviceSelector::deviceCount() const
{
    return int(m_gpus.size());
}

bool DeviceSelector::exists(int device) const
{
    return device >= -1 && device < deviceCount();
}

int DeviceSelector::deviceCapability(int device) const
{
    if (device < 0 || device >= deviceCount())
        return 0;
    const auto &gpu = m_gpus[size_t(device)];
    return gpu.cudaId >= 0 ? gpu.capability : 0;
}

int DeviceSelector::preferredBackend(int device, const std::set<std::string> &backends, float minVersion) const
{
    if (!exists(device))
        return ModelBackendFactory::None;
    const auto offers = [&](int code) { return backends.count(ModelBackendFactory::MBNameFor(code)) > 0; };
    // On Apple machines the system's own backend drives GPU and neural engine alike.
    if (m_apple && m_osVersion >= minVersion && offers(ModelBackendFactory::CoreMl))
        return ModelBackendFactory::CoreMl;
    if (device >= 0) {
        if (m_gpus[size_t(device)].cudaId >= 0 && offers(ModelBackendFactory::Cuda))
            return ModelBackendFactory::Cuda;
        if (offers(ModelBackendFactory::Vulkan))
            return ModelBackendFactory::Vulkan;
    }
    return offers(ModelBackendFactory::Cpu) ? int(ModelBackendFactory::Cpu) : int(ModelBackendFactory::None);
}

} // namespace aiengine
