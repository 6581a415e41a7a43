#include "models/XModelConfiguration.h"

#include "files/TFileManager.h"

#include "aiengine/DeviceSelector.h"
#include "aiengine/ModelBackendFactory.h"
#include "aiengine/ModelManager.h"
#include "aiutils/Logger.h"
#include "aiutils/SystemInfo.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <set>
#include <system_error>

using aiutils::Logger;
using nlohmann::json;

namespace {

constexpr auto kLogPrefix = "XModelConfiguration:: ";

QString folder()
{
    return aiengine::ModelManager::GetInstance().getLocalDirPath();
}

// Of a scale's `spec` keys (system versions), the largest not above the
// system's; none when all are above it.
const json *specFor(const json &spec, float systemVersion)
{
    std::vector<std::pair<double, std::string>> keys;
    for (const auto &[key, value] : spec.items())
        keys.emplace_back(std::stod(key), key);
    std::sort(keys.begin(), keys.end());
    const json *chosen = nullptr;
    for (const auto &[version, key] : keys) {
        if (version > static_cast<double>(systemVersion) + 1e-6)
            break;
        chosen = &spec.at(key);
    }
    return chosen;
}

} // namespace

XModelConfiguration::XModelConfiguration(QObject *parent)
    : QObject(parent)
{
    TFileManager::initModelManager();
    // Queued: the downloader emits on its workers, and taskDone joins them.
    connect(&downloader, &XModelDownloader::downloadSucceeded, this, [this] { taskDone(true, {}); },
            Qt::QueuedConnection);
    connect(&downloader, &XModelDownloader::downloadFailed, this,
            [this](const QString &message) { taskDone(false, message); }, Qt::QueuedConnection);
}

XModelConfiguration::~XModelConfiguration()
{
    downloader.stop();
}

QString XModelConfiguration::categoryOf(int modelType)
{
    switch (modelType) {
    case 1:
        return QStringLiteral("Enhancement");
    case 2:
        return QStringLiteral("Frame Interpolation");
    case 5:
        return QStringLiteral("Stabilization");
    case 6:
        return QStringLiteral("Motion Deblur");
    default:
        return QStringLiteral("Others");
    }
}

void XModelConfiguration::setCounts(int total, int completed)
{
    if (total != m_totalDownloadTaskCount) {
        m_totalDownloadTaskCount = total;
        emit totalDownloadTaskCountChanged();
    }
    if (completed != m_completedDownloadTaskCount) {
        m_completedDownloadTaskCount = completed;
        emit completedDownloadTaskCountChanged();
    }
}

void XModelConfiguration::taskDone(bool success, const QString &message)
{
    if (success) {
        setCounts(m_totalDownloadTaskCount, m_completedDownloadTaskCount + 1);
        if (m_completedDownloadTaskCount != m_totalDownloadTaskCount)
            return;
    }
    downloader.stop();
    emit downloadExited(success, message);
}

QVariantMap XModelConfiguration::getStandaloneModelIdToBasicInfoMap()
{
    QVariantMap models;
    const json catalogue = aiengine::ModelManager::GetInstance().getModelInfo(aiengine::allModels);
    for (const auto &[id, record] : catalogue.items()) {
        try {
            if (!record.value("standalone", true))
                continue;
            const json gui = record.value("gui", json::object());
            QStringList dependencies;
            for (const json &dependency : record.value("dependencies", json::array()))
                dependencies << QString::fromStdString(dependency.get<std::string>());
            models.insert(QString::fromStdString(id),
                          QVariantMap{{"type", categoryOf(gui.value("modelType", record.at("modelType").get<int>()))},
                                      {"name", QString::fromStdString(gui.value("name", id))},
                                      {"version", QString::fromStdString(gui.value("version", record.at("version").get<std::string>()))},
                                      {"expiryDate", QString::fromStdString(record.value("expiryDate", std::string()))},
                                      {"expired", record.value("expired", false)},
                                      {"dependencies", dependencies}});
        } catch (const std::exception &error) {
            Logger::Log() << kLogPrefix << "__!__ model " << id << " left out: " << error.what();
        }
    }
    return models;
}

std::optional<QStringList> XModelConfiguration::supportedFilesOf(const json &record, const aiengine::ModelManager &manager,
                                                  const aiengine::DeviceSelector &selector, int device,
                                                  float systemVersion)
{
    const float minVersion = record.value("minCMLMacVersion", 10.15f);
    const json &backends = record.at("backends");
    std::set<std::string> names;
    for (const auto &[name, backend] : backends.items())
        names.insert(name);
    const int code = selector.preferredBackend(device, names, minVersion);
    const std::string backendName = aiengine::ModelBackendFactory::MBNameFor(code);
    if (backendName == "none")
        return std::nullopt;
    const json &backend = backends.at(backendName);
    const int capability = code == aiengine::ModelBackendFactory::Cuda ? selector.deviceCapability(device) : 0;
    const std::string shortName = record.at("shortName").get<std::string>();
    const std::string version = record.at("version").get<std::string>();

    std::set<std::string> files;
    for (const auto &[scaleKey, value] : backend.at("scales").items()) {
        const int scale = std::stoi(scaleKey);
        const json *entry = &value;
        if (code == aiengine::ModelBackendFactory::CoreMl && value.contains("spec")) {
            entry = specFor(value.at("spec"), systemVersion);
            if (!entry)
                continue;
            // A version's entry may name nets of its own; else the scale's hold.
            if (!entry->contains("nets"))
                entry = &value;
        }
        for (const json &net : entry->at("nets")) {
            if (net.is_object() && net.contains("blocks")) {
                const json &blocks = net.at("blocks");
                for (size_t i = 0; i + 1 < blocks.size(); i += 2)
                    files.insert(manager.computeFilename(shortName, version, backendName, scale, blocks[i].get<int>(),
                                                         blocks[i + 1].get<int>(), capability, true));
            } else {
                files.insert(manager.computeFilename(shortName, version, backendName, scale, 0, 0, capability, true));
            }
        }
    }
    QStringList list;
    for (const std::string &file : files)
        list << QString::fromStdString(file);
    return list;
}

QVariantMap XModelConfiguration::supportedFiles(int deviceId, bool *complete)
{
    const aiengine::DeviceSelector &selector = aiengine::DeviceSelector::GetInstance(true);
    const int device = deviceId == -2 ? selector.preferredDevice() : deviceId;
    const aiengine::ModelManager &manager = aiengine::ModelManager::GetInstance();
    const float systemVersion = aiutils::SystemInfo::GetInstance().osVersion;
    QVariantMap result;
    const json catalogue = manager.getModelInfo(aiengine::allModels);
    if (complete && catalogue.empty())
        *complete = false;
    for (const auto &[id, record] : catalogue.items()) {
        try {
            if (const auto files = supportedFilesOf(record, manager, selector, device, systemVersion))
                result.insert(QString::fromStdString(id), *files);
        } catch (const std::exception &error) {
            Logger::Log() << kLogPrefix << "__!__ model " << id << " left out: " << error.what();
            if (complete)
                *complete = false;
        }
    }
    return result;
}

QVariantMap XModelConfiguration::getSupportedModelIdToFilesNameListMap(int deviceId)
{
    return supportedFiles(deviceId, nullptr);
}

QStringList XModelConfiguration::getExistingFilesNameList()
{
    return QDir(folder()).entryList({QStringLiteral("*.kz")}, QDir::Files, QDir::Name);
}

bool XModelConfiguration::removeModelFiles(QStringList modelFilesNameList)
{
    const QDir dir(folder());
    for (const QString &name : modelFilesNameList) {
        if (XModelDownloader::isHostileFileName(name)) {
            Logger::Log() << kLogPrefix << "__!__ refused to remove " << name;
            return false;
        }
        const QString path = dir.filePath(name);
        if (QFile::exists(path) && !QFile::remove(path)) {
            Logger::Log() << kLogPrefix << "could not remove " << path;
            return false;
        }
    }
    return true;
}

void XModelConfiguration::removeUnsupportedModelFiles()
{
    bool complete = true;
    std::set<QString> supported;
    const int deviceCount = aiengine::DeviceSelector::GetInstance().deviceCount();
    for (int device = -1; device <= deviceCount; ++device)
        for (const QVariant &files : supportedFiles(device, &complete))
            for (const QString &file : files.toStringList())
                supported.insert(file);
    // An empty or partial union would call good models on disk unsupported.
    if (!complete) {
        Logger::Log() << kLogPrefix << "__!__ the model catalogue is empty or not fully readable; "
                      << "no model files removed";
        return;
    }
    QStringList unsupported;
    for (const QString &file : getExistingFilesNameList())
        if (!supported.contains(file))
            unsupported << file;
    removeModelFiles(unsupported);
}

void XModelConfiguration::downloadModelFiles(QVariantMap modelIdToFilesNameListMap)
{
    // A batch under way ends first: never more than one set of workers.
    downloader.stop();
    int total = 0;
    for (const QVariant &files : modelIdToFilesNameListMap)
        total += static_cast<int>(files.toStringList().size());
    setCounts(total, 0);
    try {
        downloader.start();
    } catch (const std::system_error &error) {
        Logger::Log() << kLogPrefix << "__!__ cannot start the download threads: " << error.what();
        downloader.stop();
        emit downloadExited(false, QString::fromUtf8(error.what()));
        return;
    }
    for (auto it = modelIdToFilesNameListMap.cbegin(); it != modelIdToFilesNameListMap.cend(); ++it)
        for (const QString &file : it.value().toStringList())
            downloader.addTask({it.key(), file});
}

void XModelConfiguration::stopDownloading()
{
    downloader.stop();
}
