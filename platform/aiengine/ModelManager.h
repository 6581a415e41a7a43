#pragma once

#include <QString>

#include <nlohmann/json.hpp>

#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace aiengine {

// Asks `getModelInfo` for the whole catalogue as one JSON object.
struct AllModels
{
};
inline constexpr AllModels allModels{};

// The model catalogue and the folders of model files (docs/models.md).
//
// One process-wide instance, which callers may copy: a downloader thread works
// on its own copy while the UI thread moves the folders, so every copy and
// every access takes the instance's mutex and no caller sees half a change.
class ModelManager
{
public:
    struct Folders
    {
        QString modelDir; // holds the catalogue and "proxy.json"
        QString dataDir;  // where downloaded model files go
    };

    // The catalogue file in `getModelDirPath()`.
    static inline const QString catalogueName = QStringLiteral("models.json");

    // `keyField` is the record field that starts file names; `enciphered`
    // gives files the ".kz" extension and, with `checkContent`, makes
    // `modelFileExists` look at the file's first bytes as well as its size;
    // `separator` joins `host` and a file name in `fileUrl`.
    ModelManager(const QString &keyField, bool enciphered, bool checkContent, const QString &separator,
                 const QString &host);
    ModelManager(const ModelManager &other);
    ModelManager &operator=(const ModelManager &other);

    static bool IsInitialized();
    // Makes (or remakes) the instance; its folders stay unset until
    // `setModelDirPath`.
    static void MakeInstance(const QString &keyField, bool enciphered, bool checkContent, const QString &separator,
                             const QString &host);
    // The instance. Asked before `MakeInstance`, it makes one with the folders
    // of the installed source, or with a per-user folder when there is none.
    static ModelManager &GetInstance();
    // Where `GetInstance` takes folders when it has to make the instance itself.
    static void setFolderSource(std::function<Folders()> source);

    // Moves both folders and reads the catalogue from `modelDir`.
    void setModelDirPath(const QString &modelDir, const QString &dataDir);
    QString getModelDirPath() const;
    QString getLocalDirPath() const;
    QString fileUrl(const QString &fileName) const;

    // Model id to the record's compact JSON text.
    std::map<std::string, std::string> getModelInfo() const;
    // The whole catalogue: model id to record.
    nlohmann::json getModelInfo(AllModels) const;
    // One record; null for an unknown id.
    nlohmann::json getModelInfo(const std::string &modelId) const;

    std::string computeFilename(const std::string &shortName, const std::string &version, const std::string &backend,
                                int scale, int blockWidth, int blockHeight, int capability, bool withExtension) const;
    // True when `fileName` belongs to the model of `record` and a usable file
    // of that name is in `getLocalDirPath()`.
    bool modelFileExists(const nlohmann::json &record, const std::string &fileName) const;

private:
    struct State
    {
        QString keyField;
        bool enciphered = true;
        bool checkContent = true;
        QString separator;
        QString host;
        QString modelDir;
        QString dataDir;
        nlohmann::json catalogue = nlohmann::json::object();
    };

    static nlohmann::json readCatalogue(const QString &modelDir);
    State snapshot() const;

    mutable std::mutex m_mutex;
    State m_state;
};

} // namespace aiengine
