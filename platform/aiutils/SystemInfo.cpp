#include "aiutils/SystemInfo.h"

#include "aiutils/Logger.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSysInfo>

#include <algorithm>
#include <limits>

#include <dlfcn.h>

namespace aiutils {

namespace {

constexpr double bytesPerGiB = 1024.0 * 1024.0 * 1024.0;

QByteArray readSmallFile(const QString &path)
{
    QFile file(path);
    // sysfs files claim a size of 4096 whatever they hold: read, do not trust size().
    return file.open(QIODevice::ReadOnly) ? file.read(1 << 20) : QByteArray();
}

// The value of the first "key : value" line whose key is one of `keys`.
QString fieldOf(const QByteArray &text, std::initializer_list<const char *> keys)
{
    const QList<QByteArray> lines = text.split('\n');
    for (const char *key : keys) {
        for (const QByteArray &line : lines) {
            const qsizetype colon = line.indexOf(':');
            if (colon > 0 && line.left(colon).trimmed() == key) {
                const QString value = QString::fromUtf8(line.mid(colon + 1)).simplified();
                if (!value.isEmpty())
                    return value;
            }
        }
    }
    return {};
}

// The lowest limit of the cgroup v2 and v1 files under `root`; 0 for none.
quint64 cgroupLimit(const QString &root)
{
    quint64 limit = 0;
    for (const char *file : {"/sys/fs/cgroup/memory.max", "/sys/fs/cgroup/memory/memory.limit_in_bytes"}) {
        const quint64 found = SystemInfo::parseMemoryLimit(readSmallFile(root + QLatin1String(file)));
        if (found > 0 && (limit == 0 || found < limit))
            limit = found;
    }
    return limit;
}

QString vendorName(const QByteArray &vendorId)
{
    if (vendorId == "0x10de")
        return QStringLiteral("NVIDIA");
    if (vendorId == "0x1002")
        return QStringLiteral("AMD");
    if (vendorId == "0x8086")
        return QStringLiteral("Intel");
    return QStringLiteral("GPU");
}

// The management library's C interface, declared here because the library is
// opened at run time and its header is not installed on most machines.
class Nvml
{
public:
    Nvml()
    {
        m_lib = dlopen("libnvidia-ml.so.1", RTLD_NOW | RTLD_LOCAL);
        if (!m_lib)
            return;
        init = reinterpret_cast<decltype(init)>(dlsym(m_lib, "nvmlInit_v2"));
        shutdown = reinterpret_cast<decltype(shutdown)>(dlsym(m_lib, "nvmlShutdown"));
        count = reinterpret_cast<decltype(count)>(dlsym(m_lib, "nvmlDeviceGetCount_v2"));
        handle = reinterpret_cast<decltype(handle)>(dlsym(m_lib, "nvmlDeviceGetHandleByIndex_v2"));
        name = reinterpret_cast<decltype(name)>(dlsym(m_lib, "nvmlDeviceGetName"));
        memory = reinterpret_cast<decltype(memory)>(dlsym(m_lib, "nvmlDeviceGetMemoryInfo"));
        capability = reinterpret_cast<decltype(capability)>(dlsym(m_lib, "nvmlDeviceGetCudaComputeCapability"));
        m_ready = init && shutdown && count && handle && name && memory && capability && init() == 0;
    }
    ~Nvml()
    {
        if (m_ready)
            shutdown();
        if (m_lib)
            dlclose(m_lib);
    }
    Nvml(const Nvml &) = delete;
    Nvml &operator=(const Nvml &) = delete;

    std::vector<DeviceInfo> devices() const
    {
        std::vector<DeviceInfo> found;
        unsigned int n = 0;
        if (!m_ready || count(&n) != 0)
            return found;
        for (unsigned int i = 0; i < n; ++i) {
            void *device = nullptr;
            char text[96] = {};
            MemoryInfo mem{};
            int major = 0, minor = 0;
            if (handle(i, &device) != 0 || name(device, text, sizeof text) != 0)
                continue;
            const bool hasMemory = memory(device, &mem) == 0;
            const bool hasCapability = capability(device, &major, &minor) == 0;
            found.push_back({QString::fromUtf8(text), hasMemory ? double(mem.total) / bytesPerGiB : 0.0,
                             int(i), hasCapability ? major * 10 + minor : 0});
        }
        return found;
    }

private:
    struct MemoryInfo
    {
        unsigned long long total, free, used;
    };
    void *m_lib = nullptr;
    bool m_ready = false;
    int (*init)() = nullptr;
    int (*shutdown)() = nullptr;
    int (*count)(unsigned int *) = nullptr;
    int (*handle)(unsigned int, void **) = nullptr;
    int (*name)(void *, char *, unsigned int) = nullptr;
    int (*memory)(void *, MemoryInfo *) = nullptr;
    int (*capability)(void *, int *, int *) = nullptr;
};

} // namespace

const SystemInfo &SystemInfo::GetInstance()
{
    static const SystemInfo facts(QStringLiteral("/"));
    return facts;
}

SystemInfo::SystemInfo(const QString &root)
{
    bool ok = false;
    const float version = QSysInfo::productVersion().toFloat(&ok);
    osVersion = ok ? version : 0.0f;

    const QString base = root.endsWith(QLatin1Char('/')) ? root.chopped(1) : root;
    m_cpuName = parseCpuName(readSmallFile(base + QStringLiteral("/proc/cpuinfo")));
    m_memory = parseMemInfo(readSmallFile(base + QStringLiteral("/proc/meminfo")));
    if (const quint64 limit = cgroupLimit(base)) {
        const double capped = double(limit) / bytesPerGiB;
        m_memory = {std::min(m_memory.first, capped), std::min(m_memory.second, capped)};
    }
    // A fake tree must not see the GPUs of the machine the tests run on.
    if (base.isEmpty())
        m_gpus = Nvml().devices();
    if (m_gpus.empty())
        m_gpus = drmDevices(base);
}

bool SystemInfo::isWindows() const
{
#ifdef Q_OS_WIN
    return true;
#else
    return false;
#endif
}

bool SystemInfo::isMac() const
{
#ifdef Q_OS_MACOS
    return true;
#else
    return false;
#endif
}

bool SystemInfo::isApple() const
{
#ifdef Q_OS_DARWIN
    return true;
#else
    return false;
#endif
}

QString SystemInfo::getMachineId() const
{
    return QString::fromLatin1(QSysInfo::machineUniqueId());
}

QString SystemInfo::cpuName() const
{
    return m_cpuName;
}

std::pair<double, double> SystemInfo::cpuMemory() const
{
    return m_memory;
}

const std::vector<DeviceInfo> &SystemInfo::getGPUList() const
{
    return m_gpus;
}

QString SystemInfo::parseCpuName(const QByteArray &cpuinfo)
{
    // x86 says "model name"; ARM and others use one of the later keys, or none.
    const QString name = fieldOf(cpuinfo, {"model name", "Model", "Hardware", "cpu model", "cpu", "Processor"});
    return name.isEmpty() ? QSysInfo::currentCpuArchitecture() : name;
}

std::pair<double, double> SystemInfo::parseMemInfo(const QByteArray &meminfo)
{
    const auto kib = [&](const char *key) {
        const QString value = fieldOf(meminfo, {key});
        return value.section(QLatin1Char(' '), 0, 0).toDouble() * 1024.0 / bytesPerGiB;
    };
    const double total = kib("MemTotal");
    double available = kib("MemAvailable");
    if (available <= 0.0)
        available = kib("MemFree");
    return {total, available};
}

quint64 SystemInfo::parseMemoryLimit(const QByteArray &text)
{
    bool ok = false;
    const quint64 limit = text.trimmed().toULongLong(&ok);
    // cgroup v1 writes a page-rounded 2^63 for "no limit".
    return ok && limit < (quint64(1) << 62) ? limit : 0;
}

std::vector<DeviceInfo> SystemInfo::drmDevices(const QString &root)
{
    static const QRegularExpression cardName(QStringLiteral("^card(\\d+)$"));
    QDir drm(root + QStringLiteral("/sys/class/drm"));
    std::vector<std::pair<int, DeviceInfo>> cards;
    // Connectors ("card0-DP-1") and render nodes ("renderD128") are the same card again.
    for (const QString &entry : drm.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System)) {
        const auto match = cardName.match(entry);
        if (!match.hasMatch())
            continue;
        const QString device = drm.filePath(entry) + QStringLiteral("/device/");
        const QByteArray vendor = readSmallFile(device + QStringLiteral("vendor")).trimmed();
        if (vendor.isEmpty())
            continue; // a firmware framebuffer, no GPU behind it
        const QByteArray model = readSmallFile(device + QStringLiteral("device")).trimmed();
        QString name = QString::fromUtf8(readSmallFile(device + QStringLiteral("product_name"))).simplified();
        if (name.isEmpty())
            name = vendorName(vendor) + QStringLiteral(" GPU ") + QString::fromLatin1(vendor.mid(2)) + QLatin1Char(':')
                + QString::fromLatin1(model.mid(2));
        const double vram = readSmallFile(device + QStringLiteral("mem_info_vram_total")).trimmed().toDouble();
        cards.push_back({match.captured(1).toInt(), DeviceInfo{name, vram / bytesPerGiB, -1, 0}});
    }
    std::sort(cards.begin(), cards.end(), [](const auto &a, const auto &b) { return a.first < b.first; });
    std::vector<DeviceInfo> devices;
    for (auto &card : cards)
        devices.push_back(std::move(card.second));
    return devices;
}

} // namespace aiutils
