#include "aiengine/ModelManager.h"

#include "aiutils/Logger.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <memory>

namespace aiengine {

namespace {

std::mutex instanceMutex;
std::unique_ptr<ModelManager> instance;
std::function<ModelManager::Folders()> folderSource;

ModelManager::Folders fallbackFolders()
{
    QString base = QStandardPaths::writableLocation(QStandardPaths::AppLocalDataLocation);
    if (base.isEmpty())
        base = QDir::tempPath();
    const QString models = base + QStringLiteral("/models");
    QDir().mkpath(models);
    aiutils::Logger::Log() << "ModelManager:: no model folders given; using " << models;
    return {models, models};
}

} // namespace

ModelManager::ModelManager(const QString &keyField, bool enciphered, bool checkContent, const QString &separator,
                           const QString &host)
{
    m_state.keyField = keyField;
    m_state.enciphered = enciphered;
    m_state.checkContent = checkContent;
    m_state.separator = separator;
    m_state.host = host;
}

ModelManager::ModelManager(const ModelManager &other)
    : m_state(other.snapshot())
{
}

ModelManager &ModelManager::operator=(const ModelManager &other)
{
    if (this == &other)
        return *this;
    State copy = other.snapshot();
    const std::lock_guard lock(m_mutex);
    m_state = std::move(copy);
    return *this;
}

ModelManager::State ModelManager::snapshot() const
{
    const std::lock_guard lock(m_mutex);
    return m_state;
}

bool ModelManager::IsInitialized()
{
    const std::lock_guard lock(instanceMutex);
    return instance != nullptr;
}

void ModelManager::MakeInstance(const QString &keyField, bool enciphered, bool checkContent,
                                const QString &separator, const QString &host)
{
    const ModelManager made(keyField, enciphered, checkContent, separator, host);
    const std::lock_guard lock(instanceMutex);
    // References handed out earlier stay valid: the instance is updated in place.
    if (instance)
        *instance = made;
    else
        instance = std::make_unique<ModelManager>(made);
}

ModelManager &ModelManager::GetInstance()
{
    std::function<Folders()> source;
    {
        const std::lock_guard lock(instanceMutex);
        if (instance)
            return *instance;
        source = folderSource;
    }
    // The source may itself ask whether the instance exists, so it runs unlocked.
    Folders folders = source ? source() : Folders{};
    if (folders.modelDir.isEmpty() || folders.dataDir.isEmpty())
        folders = fallbackFolders();
    auto made = std::make_unique<ModelManager>(QStringLiteral("shortName"), true, true, QStringLiteral("/"),
                                               QString());
    made->setModelDirPath(folders.modelDir, folders.dataDir);
    const std::lock_guard lock(instanceMutex);
    if (!instance)
        instance = std::move(made);
    return *instance;
}

void ModelManager::setFolderSource(std::function<Folders()> source)
{
    const std::lock_guard lock(instanceMutex);
    folderSource = std::move(source);
}

nlohmann::json ModelManager::readCatalogue(const QString &modelDir)
{
    QFile file(modelDir + QLatin1Char('/') + catalogueName);
    if (!file.open(QIODevice::ReadOnly)) {
        aiutils::Logger::Log() << "ModelManager:: no model catalogue at " << file.fileName();
        return nlohmann::json::object();
    }
    const QByteArray bytes = file.readAll();
    auto parsed = nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, false);
    if (!parsed.is_object()) {
        aiutils::Logger::Log() << "ModelManager:: the model catalogue " << file.fileName()
                               << " is not a JSON object; no models";
        return nlohmann::json::object();
    }
    return parsed;
}

void ModelManager::setModelDirPath(const QString &modelDir, const QString &dataDir)
{
    // Read before locking: a slow disk must not hold up the downloaders' copies.
    nlohmann::json catalogue = readCatalogue(modelDir);
    const std::lock_guard lock(m_mutex);
    m_state.modelDir = modelDir;
    m_state.dataDir = dataDir;
    m_state.catalogue = std::move(catalogue);
}

QString ModelManager::getModelDirPath() const
{
    const std::lock_guard lock(m_mutex);
    return m_state.modelDir;
}

QString ModelManager::getLocalDirPath() const
{
    const std::lock_guard lock(m_mutex);
    return m_state.dataDir;
}

QString ModelManager::fileUrl(const QString &fileName) const
{
    const std::lock_guard lock(m_mutex);
    return m_state.host + m_state.separator + fileName;
}

std::map<std::string, std::string> ModelManager::getModelInfo() const
{
    std::map<std::string, std::string> texts;
    const std::lock_guard lock(m_mutex);
    for (const auto &[id, record] : m_state.catalogue.items())
        texts.emplace(id, record.dump());
    return texts;
}

nlohmann::json ModelManager::getModelInfo(AllModels) const
{
    const std::lock_guard lock(m_mutex);
    return m_state.catalogue;
}

nlohmann::json ModelManager::getModelInfo(const std::string &modelId) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = m_state.catalogue.find(modelId);
    return found == m_state.catalogue.end() ? nlohmann::json() : *found;
}

std::string ModelManager::computeFilename(const std::string &shortName, const std::string &version,
                                          const std::string &backend, int scale, int blockWidth, int blockHeight,
                                          int capability, bool withExtension) const
{
    std::string name = shortName + '-' + version + '-' + backend + "-x" + std::to_string(scale);
    if (blockWidth > 0 && blockHeight > 0)
        name += '-' + std::to_string(blockWidth) + 'x' + std::to_string(blockHeight);
    if (capability > 0)
        name += "-c" + std::to_string(capability);
    if (withExtension) {
        const std::lock_guard lock(m_mutex);
        name += m_state.enciphered ? ".kz" : ".bin";
    }
    return name;
}

bool ModelManager::modelFileExists(const nlohmann::json &record, const std::string &fileName) const
{
    const State state = snapshot();
    const std::string key = state.keyField.toStdString();
    if (!record.is_object() || !record.contains(key) || !record[key].is_string())
        return false;
    // A name of another model, or one that climbs out of the folder, is never "there".
    const std::string prefix = record[key].get<std::string>() + '-';
    if (fileName.rfind(prefix, 0) != 0 || fileName.find('/') != std::string::npos
        || fileName.find('\\') != std::string::npos)
        return false;
    const QString path = state.dataDir + QLatin1Char('/') + QString::fromStdString(fileName);
    const QFileInfo info(path);
    if (!info.isFile() || info.size() == 0)
        return false;
    if (!state.enciphered || !state.checkContent)
        return true;
    // An enciphered model file is a ZIP archive; a cut-off download or an error
    // page saved under the name does not begin like one.
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && file.read(4) == QByteArrayLiteral("PK\x03\x04");
}

} // namespace aiengine
