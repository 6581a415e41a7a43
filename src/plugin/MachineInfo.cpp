#include "plugin/MachineInfo.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QSet>

#include <cmath>

Q_LOGGING_CATEGORY(lcMachine, "kutils.utils")

namespace machineinfo {

namespace {

// round(log2(x) - 0.2), through logf as the engine computes it.
int roundedLog2(float value)
{
    return int(std::round(std::log(value) / std::log(2.0f) - 0.2f));
}

bool usable(float gib)
{
    // Also keeps infinities and NaN away from the float-to-int conversion.
    return std::isfinite(gib) && gib > 0.0f;
}

} // namespace

int maxProcesses(float ramGiB, float vramGiB)
{
    if (!usable(ramGiB) || !usable(vramGiB))
        return 1;
    const int byMemory = roundedLog2(ramGiB) - 2;
    const int byGpu = roundedLog2(vramGiB) - 1;
    return std::max(1, std::min(byMemory, byGpu));
}

float deviceMemory(const std::vector<aiutils::DeviceInfo> &gpus, int device)
{
    if (device < 0 || size_t(device) >= gpus.size())
        return 2.0f;
    return float(gpus[size_t(device)].memory);
}

QString systemInfoText(const QString &osName, float osVersion, const QString &cpuName, double cpuMemory,
                       const std::vector<aiutils::DeviceInfo> &gpus)
{
    QString text = QStringLiteral("OS: ") + osName + QStringLiteral(" v") + QString::number(osVersion)
        + QStringLiteral("\nCPU: ") + cpuName + QStringLiteral("  ") + QString::number(cpuMemory)
        + QStringLiteral(" GB");
    for (const auto &gpu : gpus)
        text += QStringLiteral("\nGPU: ") + gpu.name + QStringLiteral("  ") + QString::number(gpu.memory)
            + QStringLiteral(" GB");
    return text;
}

QVariantList deviceList(const QString &cpuName, double cpuMemory, const std::vector<aiutils::DeviceInfo> &gpus)
{
    QVariantList devices{QVariantMap{{"name", cpuName.toLower()}, {"memory", cpuMemory}, {"type", "cpu"}}};
    QSet<QString> seen;
    for (const auto &gpu : gpus) {
        if (seen.contains(gpu.name))
            continue;
        seen.insert(gpu.name);
        devices.append(QVariantMap{{"name", gpu.name}, {"memory", gpu.memory}, {"type", "gpu"}});
    }
    return devices;
}

QVariantMap modelsInfo(const std::map<std::string, std::string> &texts)
{
    QVariantMap models;
    for (const auto &[key, text] : texts) {
        const QString id = QString::fromStdString(key);
        const QString shortName = id.section(QLatin1Char('-'), 0, 0);
        const QString version = id.section(QLatin1Char('-'), 1, 1);
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(text), &error);
        if (!document.isObject()) {
            qCWarning(lcMachine).noquote() << "Model record" << id << "is not a JSON object:" << error.errorString();
            continue;
        }
        QVariantList versions = models.value(shortName).toMap().value(QStringLiteral("versions")).toList();
        versions.append(version);
        QVariantMap entry = document.object().toVariantMap();
        entry.insert(QStringLiteral("versions"), versions);
        models.insert(shortName, entry);
    }
    qCInfo(lcMachine).noquote() << "Model Mapping: " << models.size();
    return models;
}

QString jwtDecode(const QString &jwt)
{
    const QStringList parts = jwt.split(QLatin1Char('.'));
    if (parts.size() != 3)
        return QStringLiteral("Invalid JWT format");
    QByteArray payload = parts[1].toLatin1();
    payload.replace('-', '+').replace('_', '/');
    while (payload.size() % 4 != 0)
        payload.append('=');
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromBase64(payload));
    if (!document.isObject())
        return QStringLiteral("Invalid JSON payload");
    return QString::fromUtf8(document.toJson(QJsonDocument::Indented));
}

int diskSpaceLow(quint64 available, qint64 thresholdGb)
{
    if (thresholdGb <= 0)
        return available == 0 ? 1 : 0;
    // From 2^34 GiB on the threshold passes any 64-bit count of bytes.
    if (thresholdGb >= qint64(1) << 34)
        return 1;
    return available <= quint64(thresholdGb) << 30 ? 1 : 0;
}

QString friendlyName(const QString &user, const QString &userName, const QString &account, const QString &host)
{
    QString name = user;
    if (name.isEmpty())
        name = userName;
    if (name.isEmpty())
        name = account;
    QString machine = host;
    if (machine.endsWith(QStringLiteral(".local")))
        machine.chop(6);
    return name + QStringLiteral("'s ") + machine;
}

} // namespace machineinfo
