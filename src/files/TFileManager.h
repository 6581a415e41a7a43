#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

// The front end's window on folders, files, archives and external programs.
//
// Every instance owns one unzip worker, started here and joined at
// destruction, so archives unpack one at a time, in the order asked, away from
// the QML thread. Everything else runs on the caller's thread, except `concat`
// and `logAllFreeSpaces`, which each run one task on a detached thread.
class TFileManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString ffmpeg READ ffmpeg CONSTANT)
    Q_PROPERTY(QString oiiotool READ oiiotool CONSTANT)
    Q_PROPERTY(QString pyrunner READ pyrunner CONSTANT)

public:
    struct UnzipRequest
    {
        QString inPath;
        QString outPath;
        int reqId = 0;
    };

    explicit TFileManager(QObject *parent = nullptr);
    ~TFileManager() override;

    // Sets up the model manager with the model host and our folders, unless
    // someone already did.
    static void initModelManager();

    QString ffmpeg() const;
    QString oiiotool() const;
    QString pyrunner();

    // Locations.
    Q_INVOKABLE QString applicationDir();
    Q_INVOKABLE QString defaultFolderPath(QString name);
    Q_INVOKABLE QString defaultModelFolderPath();
    Q_INVOKABLE QString getModelFolderPath();

    // Path text.
    Q_INVOKABLE QString fixFolderSeparator(QString path);
    Q_INVOKABLE QString getFileBaseName(QString fullPath);
    Q_INVOKABLE QString getFileCanonicalPath(QString path);
    Q_INVOKABLE QString getFileExtension(QString inFileName);
    Q_INVOKABLE QString getFileFolder(QString fullPath);
    Q_INVOKABLE QString getFileName(QString fullPath);
    Q_INVOKABLE bool pathEndsWith(QString path, QString extension);
    Q_INVOKABLE QString findApp(QString appName);

    // Frame names.
    Q_INVOKABLE QString makeFormatString(QString path);
    Q_INVOKABLE QString getPaddedFrameNumber(int padding, int frameNumber);
    Q_INVOKABLE bool isImageSequence(QString path);

    // File actions.
    Q_INVOKABLE bool fileExists(QString localFilePath);
    Q_INVOKABLE qlonglong fileSize(QString localFilePath);
    Q_INVOKABLE void fileCopy(QString fromLocalFilePath, QString toLocalFilePath);
    Q_INVOKABLE bool fileDelete(QString localFilePath);
    Q_INVOKABLE QString readFile(QString localFilePath);
    Q_INVOKABLE bool saveToFile(QString localFilePath, QString stringToSave);

    // Folder actions.
    Q_INVOKABLE bool dirExists(QString dirPath);
    Q_INVOKABLE bool dirRename(QString dirOriginal, QString dirNew);
    Q_INVOKABLE bool dirRemove(QString dir);
    Q_INVOKABLE bool isDir(QString path);
    Q_INVOKABLE bool mkdir(QString path);
    Q_INVOKABLE QString getAnyFileInDir(QString pathToDir);
    Q_INVOKABLE QStringList listFolder(QString folder, QString wildcard);
    Q_INVOKABLE QStringList listFolder(QString folder);

    // Storage.
    Q_INVOKABLE QStringList allFreeSpaces();
    Q_INVOKABLE qlonglong availableFreeSpace(QString localFilePath);
    Q_INVOKABLE void logAllFreeSpaces();

    // JSON stores.
    Q_INVOKABLE QVariantMap loadJsonFolder(QString path, QString key);
    Q_INVOKABLE QString readAllBenchmarkCommands();
    Q_INVOKABLE QString readAllEncoders();
    Q_INVOKABLE QString readAudioCodecs();
    Q_INVOKABLE QString readModelRecommendationRules();
    Q_INVOKABLE bool saveJsonObject(QVariantMap object, QString localFilePath);
    Q_INVOKABLE QVariantMap readJsonObject(QString localFilePath);

    Q_INVOKABLE void removeAuthFile();

    // Archives.
    Q_INVOKABLE int queueUnzipRequest(QString inPath, QString outPath);
    Q_INVOKABLE void zipFilesAndShow(QVariantMap pathPatterns, QString zipPath, bool openNativeFileExplorer);

    // Deletion and open videos.
    Q_INVOKABLE bool deletePath(QString path);
    Q_INVOKABLE void deletePathDelayed(QString path);
    Q_INVOKABLE void closeAllVideos();
    Q_INVOKABLE void closeVideoFile(QString path, QString uid, bool remove);
    Q_INVOKABLE void resetThumbnails();
    Q_INVOKABLE void updateVideoInfo(QString path, QVariantMap info);
    Q_INVOKABLE int64_t getDuration(QString path);
    Q_INVOKABLE size_t countFrames(QString path, int64_t seekPts);
    Q_INVOKABLE void concat(QString out, QString former, QString latter, size_t frame, double uid, int code,
                            int status);

    // Other applications.
    Q_INVOKABLE bool studioApplicationExists();
    Q_INVOKABLE void runStudioApp();
    Q_INVOKABLE bool installAEPlugin();
    Q_INVOKABLE bool installOFXPlugin();
    Q_INVOKABLE void openNativeFileExplorer(QString path);
    Q_INVOKABLE void openFileExternally(QString path);

signals:
    void closeAndDelete(QString path, int uid = -1);
    void unzipFinished(int reqId, QString inPath, QString outPath, bool status);
    void unzipProgress(int reqId, QString inPath, QString outPath, int completed, int total);
    void concatFinished(double uid, QString out, bool ok, int code, int status, int outputFileDuration = 0);

public slots:
    void closeAndDeletePath(QString path, int uid = -1);

private:
    // What a detached thread may still reach after the instance is gone: it
    // emits only while `owner` is set, under `mutex`, and the destructor clears
    // `owner` under the same mutex.
    struct DetachedLink
    {
        std::mutex mutex;
        TFileManager *owner = nullptr;
    };

    void unzipLoop();
    void decompress(const UnzipRequest &request);
    QString readCachedJson(QString &member, const QString &fileName, const char *readingMessage,
                           const char *errorMessage);

    QString benchmarkCommands;
    QString videoEncoders;
    QString audioCodecs;
    QString modelRecommendationRules;

    std::shared_ptr<std::atomic<bool>> storageLogRunning = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<DetachedLink> detachedLink = std::make_shared<DetachedLink>();

    std::deque<UnzipRequest> unzipQueue;
    std::mutex unzipMutex;
    std::condition_variable unzipCondition;
    std::atomic<bool> unzipRunning{true};
    std::atomic<int> nextUnzipRequestId{0};
    // Declared last: it starts in the constructor once every member it reads exists.
    std::thread unzipThread;
};
