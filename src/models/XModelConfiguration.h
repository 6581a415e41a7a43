#pragma once

#include "models/XModelDownloader.h"

#include <QObject>
#include <QStringList>
#include <QVariantMap>

#include <nlohmann/json.hpp>

#include <optional>

namespace aiengine {
class DeviceSelector;
class ModelManager;
}

// Selects the model files a device needs, lists and removes those on disk, and
// fetches batches of them. Every folder operation uses the data folder of the
// model manager (`getLocalDirPath()`), where the downloads go.
class XModelConfiguration : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int totalDownloadTaskCount READ totalDownloadTaskCount NOTIFY totalDownloadTaskCountChanged)
    Q_PROPERTY(int completedDownloadTaskCount READ completedDownloadTaskCount NOTIFY completedDownloadTaskCountChanged)

public:
    explicit XModelConfiguration(QObject *parent = nullptr);
    ~XModelConfiguration() override;

    int totalDownloadTaskCount() const { return m_totalDownloadTaskCount; }
    int completedDownloadTaskCount() const { return m_completedDownloadTaskCount; }

    static QString categoryOf(int modelType);
    // The sorted file names one record needs on `device`; nothing when no
    // backend of the record runs there. Throws what a malformed record makes
    // the JSON library or the number parsing throw.
    static std::optional<QStringList> supportedFilesOf(const nlohmann::json &record, const aiengine::ModelManager &manager,
                                        const aiengine::DeviceSelector &selector, int device, float systemVersion);

public slots:
    QVariantMap getStandaloneModelIdToBasicInfoMap();
    QVariantMap getSupportedModelIdToFilesNameListMap(int deviceId);
    QStringList getExistingFilesNameList();
    bool removeModelFiles(QStringList modelFilesNameList);
    void downloadModelFiles(QVariantMap modelIdToFilesNameListMap);
    void removeUnsupportedModelFiles();
    void stopDownloading();

signals:
    void totalDownloadTaskCountChanged();
    void completedDownloadTaskCountChanged();
    void downloadExited(bool succeeded, QString errorMessage);

private:
    // As the slot; `complete` is cleared when the catalogue is empty or a
    // record could not be read.
    QVariantMap supportedFiles(int deviceId, bool *complete);
    void taskDone(bool success, const QString &message);
    void setCounts(int total, int completed);

    int m_totalDownloadTaskCount = 0;
    int m_completedDownloadTaskCount = 0;
    XModelDownloader downloader;
};
