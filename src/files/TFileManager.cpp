#include "files/TFileManager.h"

#include "aiengine/ModelManager.h"
#include "aiutils/kzutils.h"
#include "files/FileManagerLogging.h"
#include "files/ZipExtractor.h"
#include "os/AppRegistry.h"
#include "os/CompanionApp.h"
#include "os/Shell.h"
#include "videoio/DelayedDeleter.h"
#include "videoio/FFReaderUtils.h"
#include "videoio/Reader.h"
#include "videoio/ThumbnailStore.h"
#include "videoio/VideoManager.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSettings>
#include <QStandardPaths>
#include <QStorageInfo>
#include <QTextStream>

#include <limits>
#include <set>

namespace {

const QString dataFolderKey = QStringLiteral("kveaDataFolder");

QString appFolderPath(const QString &base, const QString &name)
{
    return base + QLatin1Char('/') + QCoreApplication::organizationName() + QLatin1Char('/')
        + QCoreApplication::applicationName() + QLatin1Char('/') + name;
}

// The base of the application's shared data: the second GenericDataLocation
// entry, which on Windows is the machine-wide folder. On other systems that
// entry (/usr/local/share on most) is rarely writable for a user, and a data
// folder nobody can write to is useless, so there the user's own data folder
// stands in, and the log says so once.
QString dataFolderBase(const QString &name)
{
    const QStringList locations = QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation);
    const QString machineWide = locations.value(1);
#ifdef Q_OS_WIN
    return machineWide;
#else
    if (!machineWide.isEmpty()) {
        const QString path = appFolderPath(machineWide, name);
        if (QFileInfo(path).isWritable() || (QDir().mkpath(path) && QFileInfo(path).isWritable()))
            return machineWide;
    }
    const QString userOwn = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    static std::once_flag told;
    std::call_once(told, [&] {
        qCInfo(lcFileManager).noquote() << "Machine-wide data folder" << (machineWide.isEmpty() ? "(none)" : machineWide)
                                        << "is not writable; using the user's data folder" << userOwn;
    });
    return userOwn;
#endif
}

// The report of allFreeSpaces, kept free of the instance so that the detached
// thread of logAllFreeSpaces never touches a TFileManager.
QStringList storageReport()
{
    QStringList report;
    const auto gib = [](qint64 bytes) {
        return QString::number(float(double(bytes) / 1024.0 / 1024.0 / 1024.0), 'f', 3);
    };
    for (const QStorageInfo &volume : QStorageInfo::mountedVolumes()) {
        if (!volume.isValid() || !volume.isReady())
            continue;
        report << volume.rootPath() << gib(volume.bytesAvailable()) << gib(volume.bytesTotal());
        qCInfo(lcFileManager).noquote() << "STORAGE:" << volume.rootPath() << gib(volume.bytesAvailable()) << "/"
                                        << gib(volume.bytesTotal()) << "readOnly:" << volume.isReadOnly()
                                        << "blockSize:" << volume.blockSize();
    }
    return report;
}

// The model manager, asked before anyone set it up, takes our folders: the
// catalogue and "proxy.json" live in the default model folder, downloads go to
// the data folder.
void installModelFolders()
{
    aiengine::ModelManager::setFolderSource([] {
        TFileManager files;
        return aiengine::ModelManager::Folders{files.defaultModelFolderPath(), files.getModelFolderPath()};
    });
}
Q_CONSTRUCTOR_FUNCTION(installModelFolders)

} // namespace

TFileManager::TFileManager(QObject *parent)
    : QObject(parent)
{
    detachedLink->owner = this;
    // Queued, so that any thread may ask for a deletion and it runs here.
    connect(this, &TFileManager::closeAndDelete, this, &TFileManager::closeAndDeletePath, Qt::QueuedConnection);
    unzipThread = std::thread([this] { unzipLoop(); });
}

TFileManager::~TFileManager()
{
    {
        const std::lock_guard lock(unzipMutex);
        unzipRunning = false;
    }
    unzipCondition.notify_all();
    // A decompression under way runs to its end first.
    unzipThread.join();

    const std::lock_guard lock(detachedLink->mutex);
    detachedLink->owner = nullptr;
}

QString TFileManager::ffmpeg() const
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/ffmpeg");
}

QString TFileManager::oiiotool() const
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/oiiotool");
}

QString TFileManager::pyrunner()
{
    return getModelFolderPath() + QStringLiteral("/runner.exe");
}

// ---- Locations -------------------------------------------------------------

QString TFileManager::applicationDir()
{
    return QCoreApplication::applicationDirPath();
}

QString TFileManager::defaultFolderPath(QString name)
{
    const QString path = appFolderPath(dataFolderBase(name), name);
    if (!QFileInfo(path).isWritable())
        QDir().mkpath(path);
    return fixFolderSeparator(path);
}

QString TFileManager::defaultModelFolderPath()
{
    return defaultFolderPath(QStringLiteral("models"));
}

QString TFileManager::getModelFolderPath()
{
    QSettings settings;
    const QString stored = settings.value(dataFolderKey).toString();
    if (!stored.isEmpty()) {
        if (QDir(stored).exists())
            return fixFolderSeparator(stored);
        const QFileInfo info(stored);
        if (info.isWritable() && QDir().mkpath(stored)) {
            qCInfo(lcFileManager).noquote() << "Reset data folder path to:" << stored << info.isWritable();
            return fixFolderSeparator(stored);
        }
    }
    // Unset, or on a drive that has gone: the default replaces it for good.
    const QString fallback = defaultModelFolderPath();
    settings.setValue(dataFolderKey, fallback);
    settings.sync();
    return fallback;
}

// ---- Path text ---------------------------------------------------------------

QString TFileManager::fixFolderSeparator(QString path)
{
    return QDir::toNativeSeparators(path);
}

QString TFileManager::getFileBaseName(QString fullPath)
{
    return QFileInfo(fullPath).completeBaseName();
}

QString TFileManager::getFileCanonicalPath(QString path)
{
    return QFileInfo(path).canonicalFilePath();
}

QString TFileManager::getFileExtension(QString inFileName)
{
    return QFileInfo(inFileName).suffix();
}

QString TFileManager::getFileFolder(QString fullPath)
{
    const QString scheme = QStringLiteral("file:");
    const bool isUrl = fullPath.startsWith(scheme);
    if (isUrl)
        fullPath.remove(scheme, Qt::CaseSensitive);
    const QFileInfo info(fullPath);
    const QString folder = info.isDir() ? info.dir().absolutePath() : info.absolutePath();
    return isUrl ? scheme + folder : folder;
}

QString TFileManager::getFileName(QString fullPath)
{
    return QFileInfo(fullPath).fileName();
}

bool TFileManager::pathEndsWith(QString path, QString extension)
{
    return path.endsWith(extension, Qt::CaseSensitive);
}

QString TFileManager::findApp(QString appName)
{
    return QStandardPaths::findExecutable(appName);
}

// ---- Frame names ---------------------------------------------------------------

QString TFileManager::makeFormatString(QString path)
{
    static const QRegularExpression digits(QStringLiteral("[0-9]+"));
    QRegularExpressionMatch last;
    for (auto it = digits.globalMatch(path); it.hasNext();)
        last = it.next();
    if (!last.hasMatch())
        return path;
    const QString number = last.captured();
    // Only a leading zero tells a padded number: "1200" could be either.
    const QString pattern = number.startsWith(QLatin1Char('0'))
        ? QLatin1String("%0") + QString::number(number.size()) + QLatin1Char('d')
        : QStringLiteral("%d");
    return path.replace(last.capturedStart(), last.capturedLength(), pattern);
}

QString TFileManager::getPaddedFrameNumber(int padding, int frameNumber)
{
    int digitCount = 1;
    for (qint64 limit = 10; frameNumber >= limit; limit *= 10)
        ++digitCount;
    const QString number = QString::number(frameNumber);
    if (digitCount < padding)
        return (QString(padding - digitCount, QLatin1Char('0')) + number).left(padding);
    return number;
}

bool TFileManager::isImageSequence(QString path)
{
    return videoio::Reader::IsImageSequence(path);
}

// ---- File actions --------------------------------------------------------------

bool TFileManager::fileExists(QString localFilePath)
{
    return QFile::exists(localFilePath);
}

qlonglong TFileManager::fileSize(QString localFilePath)
{
    return QFileInfo(localFilePath).size();
}

void TFileManager::fileCopy(QString fromLocalFilePath, QString toLocalFilePath)
{
    QFile::copy(fromLocalFilePath, toLocalFilePath);
}

bool TFileManager::fileDelete(QString localFilePath)
{
    return QFile::remove(localFilePath);
}

QString TFileManager::readFile(QString localFilePath)
{
    QFile file(localFilePath);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qCWarning(lcFileManager).noquote() << "Failed to open file to read at"
                                           << QFileInfo(localFilePath).absoluteFilePath();
        return {};
    }
    QTextStream stream(&file);
    return stream.readAll();
}

bool TFileManager::saveToFile(QString localFilePath, QString stringToSave)
{
    qCDebug(lcFileManager).noquote().nospace() << "Writing to " << localFilePath;
    QFile file(localFilePath);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) {
        qCWarning(lcFileManager).noquote().nospace() << "Failed to  write " << localFilePath;
        return false;
    }
    QTextStream stream(&file);
    stream << stringToSave;
    stream.flush();
    file.close();
    qCDebug(lcFileManager).noquote().nospace() << "Got to write " << localFilePath;
    return true;
}

// ---- Folder actions --------------------------------------------------------------

bool TFileManager::dirExists(QString dirPath)
{
    return QDir(dirPath).exists();
}

bool TFileManager::dirRename(QString dirOriginal, QString dirNew)
{
    return QDir().rename(dirOriginal, dirNew);
}

bool TFileManager::dirRemove(QString dir)
{
    return QDir(dir).removeRecursively();
}

bool TFileManager::isDir(QString path)
{
    // True for an existing plain file too: callers only ask whether something is there.
    return !path.isEmpty() && QDir().exists(path);
}

bool TFileManager::mkdir(QString path)
{
    const QString nativePath = fixFolderSeparator(path);
    return QDir().exists(nativePath) || QDir().mkpath(nativePath);
}

QString TFileManager::getAnyFileInDir(QString pathToDir)
{
    const QDir folder(pathToDir);
    if (!folder.exists())
        return {};
    return folder.entryList(QDir::Files, QDir::Unsorted).value(0);
}

QStringList TFileManager::listFolder(QString folder, QString wildcard)
{
    return QDir(folder).entryList({wildcard}, QDir::Files | QDir::Readable, QDir::Unsorted);
}

QStringList TFileManager::listFolder(QString folder)
{
    return listFolder(folder, QStringLiteral("*.kvid"));
}

// ---- Storage -------------------------------------------------------------------

QStringList TFileManager::allFreeSpaces()
{
    return storageReport();
}

qlonglong TFileManager::availableFreeSpace(QString localFilePath)
{
    const QStorageInfo storage(localFilePath);
    return storage.isValid() && storage.isReady() ? storage.bytesAvailable() : 0;
}

void TFileManager::logAllFreeSpaces()
{
    std::thread([running = storageLogRunning] {
        *running = true;
        qCInfo(lcFileManager).noquote() << "------------Start Storage Information-----------";
        storageReport();
        qCInfo(lcFileManager).noquote() << "------------End Storage Information-----------";
        *running = false;
    }).detach();
}

// ---- JSON stores ---------------------------------------------------------------

QVariantMap TFileManager::loadJsonFolder(QString path, QString key)
{
    QVariantMap catalogue;
    const QFileInfoList files =
        QDir(path).entryInfoList({QStringLiteral("*.json")}, QDir::Files, QDir::Unsorted);
    for (const QFileInfo &info : files) {
        const QString filePath = info.absoluteFilePath();
        QFile file(filePath);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
            qCWarning(lcFileManager).noquote().nospace() << "JSON loader: Unable to open file: " << filePath;
            continue;
        }
        const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
        if (!document.isObject()) {
            qCWarning(lcFileManager).noquote().nospace() << "JSON loader: Unable to parse json file: " << filePath;
            continue;
        }
        const QJsonObject object = document.object();
        if (!object.value(QStringLiteral("enabled")).toBool() || !object.contains(key)) {
            qCWarning(lcFileManager).noquote().nospace() << "JSON loader: Ignoring file: " << filePath;
            continue;
        }
        QVariantMap entry = object.toVariantMap();
        entry.insert(QStringLiteral("path"), filePath);
        catalogue.insert(entry.value(key).toString(), entry);
    }
    return catalogue;
}

QString TFileManager::readCachedJson(QString &member, const QString &fileName, const char *readingMessage,
                                     const char *errorMessage)
{
    // Read once in the life of the instance; an empty file stays unread, so it is tried again.
    if (!member.isEmpty())
        return member;
    const QString path = defaultModelFolderPath() + fileName;
    qCInfo(lcFileManager).noquote() << readingMessage << path;
    member = readFile(path);
    if (member.isEmpty())
        qCCritical(lcFileManager).noquote() << errorMessage << path;
    return member;
}

QString TFileManager::readAllBenchmarkCommands()
{
    return readCachedJson(benchmarkCommands, QStringLiteral("/benchmarks.json"),
                          "Reading benchmark commands from file", "Error loading benchmark commands file");
}

QString TFileManager::readAllEncoders()
{
    return readCachedJson(videoEncoders, QStringLiteral("/video-encoders.json"), "Reading encoders from file",
                          "Error loading encoders file");
}

QString TFileManager::readAudioCodecs()
{
    return readCachedJson(audioCodecs, QStringLiteral("/audio-codecs.json"), "Reading audio codecs from file",
                          "Error loading audio codecs file");
}

QString TFileManager::readModelRecommendationRules()
{
    return readCachedJson(modelRecommendationRules, QStringLiteral("/model-recommendation-rules.json"),
                          "Reading model recommendation rules from ", "Error loading model recommendation rules ");
}

bool TFileManager::saveJsonObject(QVariantMap object, QString localFilePath)
{
    const QJsonDocument document(QJsonObject::fromVariantMap(object));
    return saveToFile(localFilePath, QString::fromUtf8(document.toJson(QJsonDocument::Indented)));
}

QVariantMap TFileManager::readJsonObject(QString localFilePath)
{
    return QJsonDocument::fromJson(readFile(localFilePath).toUtf8()).object().toVariantMap();
}

void TFileManager::removeAuthFile()
{
    QFile::remove(defaultModelFolderPath() + QStringLiteral("/auth.kvz"));
}

// ---- Archives ------------------------------------------------------------------

int TFileManager::queueUnzipRequest(QString inPath, QString outPath)
{
    int reqId = 0;
    {
        const std::lock_guard lock(unzipMutex);
        reqId = ++nextUnzipRequestId;
        unzipQueue.push_back({inPath, outPath, reqId});
    }
    unzipCondition.notify_one();
    return reqId;
}

void TFileManager::unzipLoop()
{
    while (unzipRunning) {
        std::unique_lock lock(unzipMutex);
        unzipCondition.wait(lock, [this] { return !unzipQueue.empty() || !unzipRunning; });
        if (!unzipRunning)
            return; // Requests still queued are dropped with the instance.
        const UnzipRequest request = unzipQueue.front();
        unzipQueue.pop_front();
        lock.unlock();
        decompress(request);
    }
}

void TFileManager::decompress(const UnzipRequest &request)
{
    ZipExtractor::Callbacks callbacks;
    callbacks.progress = [this, &request](int completed, int total) {
        emit unzipProgress(request.reqId, request.inPath, request.outPath, completed, total);
    };
    callbacks.finished = [this, &request] {
        emit unzipFinished(request.reqId, request.inPath, request.outPath, true);
    };
    // An archive that cannot be opened ends with a log line only: callers hear
    // nothing, and that silence is kept on purpose.
    ZipExtractor::extract(request.inPath, request.outPath, callbacks);
}

void TFileManager::zipFilesAndShow(QVariantMap pathPatterns, QString zipPath, bool openNativeFileExplorer)
{
    std::set<QString> paths;
    for (auto it = pathPatterns.cbegin(); it != pathPatterns.cend(); ++it) {
        const QStringList patterns = it.value().toStringList();
        if (patterns.isEmpty()) {
            paths.insert(it.key());
            continue;
        }
        QDirIterator files(it.key(), patterns, QDir::Files);
        while (files.hasNext())
            paths.insert(files.next());
    }

    QMap<QString, QByteArray> contents;
    for (const QString &path : paths) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            qCWarning(lcFileManager).noquote() << "Unable to read file" << path;
            continue;
        }
        contents.insert(QFileInfo(path).fileName(), file.readAll());
    }
    qCInfo(lcFileManager).noquote() << "Logging files:" << contents.keys();

    if (!kzutils::saveEncryptedFile(contents, zipPath)) {
        qCCritical(lcFileManager).noquote() << "Unable to zip files";
        return;
    }
    if (openNativeFileExplorer)
        this->openNativeFileExplorer(zipPath);
}

// ---- Deletion and open videos ----------------------------------------------------

bool TFileManager::deletePath(QString path)
{
    qCDebug(lcFileManager).noquote() << "deletePath::" << path;
    return videoio::DelayedDeleter::DeleteNow(path);
}

void TFileManager::deletePathDelayed(QString path)
{
    qCDebug(lcFileManager).noquote() << "deletePath::" << path;
    videoio::DelayedDeleter::DeleteLater(path, 5);
}

void TFileManager::closeAllVideos()
{
    videoio::ThumbnailStore::GetInstance().removeAll();
    videoio::VideoManager::GetInstance().removeAll();
}

void TFileManager::closeVideoFile(QString path, QString uid, bool remove)
{
    if (!uid.isEmpty())
        videoio::ThumbnailStore::GetInstance().remove(uid);
    videoio::VideoManager::GetInstance().remove(path, remove);
}

void TFileManager::closeAndDeletePath(QString path, int uid)
{
    if (path.isEmpty())
        return;
    // Unsigned, so that -1 (no video) is the one value that names no thumbnail.
    const bool hasUid = static_cast<unsigned>(uid) < std::numeric_limits<unsigned>::max();
    closeVideoFile(path, hasUid ? QString::number(uid) : QString(), true);
    videoio::DelayedDeleter::DeleteLater(path, 1);
    qCDebug(lcFileManager).noquote() << "Close and delete path" << path;
}

void TFileManager::resetThumbnails()
{
    videoio::ThumbnailStore::GetInstance().removeAll();
}

void TFileManager::updateVideoInfo(QString path, QVariantMap info)
{
    videoio::VideoManager::GetInstance().updateVideoInfo(path, info);
}

int64_t TFileManager::getDuration(QString path)
{
    return videoio::FFReaderUtils::getDuration(path);
}

size_t TFileManager::countFrames(QString path, int64_t seekPts)
{
    return videoio::FFReaderUtils::countFrames(path, seekPts);
}

void TFileManager::concat(QString out, QString former, QString latter, size_t frame, double uid, int code,
                          int status)
{
    std::thread([link = detachedLink, out, former, latter, frame, uid, code, status] {
        const bool ok = videoio::FFReaderUtils::concat(out, former, latter, frame);
        const int64_t duration = videoio::FFReaderUtils::getDuration(out);
        const std::lock_guard lock(link->mutex);
        if (link->owner)
            emit link->owner->concatFinished(uid, out, ok, code, status, int(duration));
    }).detach();
}

// ---- Other applications -----------------------------------------------------------

bool TFileManager::studioApplicationExists()
{
    return !os::CompanionApp::executablePath(applicationDir()).isEmpty();
}

void TFileManager::runStudioApp()
{
    os::CompanionApp::start(applicationDir());
}

bool TFileManager::installAEPlugin()
{
    return os::AppRegistry::installPlugin(QStringLiteral("/AfterEffects"));
}

bool TFileManager::installOFXPlugin()
{
    return os::AppRegistry::installPlugin(QStringLiteral("/OpenFX"));
}

void TFileManager::openNativeFileExplorer(QString path)
{
    qCInfo(lcFileManager).noquote().nospace() << "Showing in graphical shell: " << path;
    if (QFileInfo(path).isFile())
        os::Shell::revealInFileManager(path);
}

void TFileManager::openFileExternally(QString path)
{
    qCInfo(lcFileManager).noquote().nospace() << "Opening file externally: " << path;
    os::Shell::openExternally(path);
}
