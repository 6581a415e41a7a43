#include "plugin/KUtils.h"

#include "aiengine/DeviceSelector.h"
#include "aiengine/ModelManager.h"
#include "aiutils/Logger.h"
#include "aiutils/SystemInfo.h"
#include "files/TFileManager.h"
#include "os/SleepInhibitor.h"
#include "os/Terminal.h"
#include "plugin/MachineInfo.h"
#include "plugin/Timecode.h"
#include <QUrl>
#include <QNetworkProxyQuery>
#include <QNetworkProxyFactory>
#include "plugin/Configuration.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QOperatingSystemVersion>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QSettings>
#include <QStorageInfo>
#include <QSysInfo>
#include <QThread>
#include <QValidator>

#include <exception>

#ifdef Q_OS_UNIX
#include <pwd.h>
#include <unistd.h>
#endif

Q_LOGGING_CATEGORY(lcUtils, "kutils.utils")

namespace {

const aiutils::SystemInfo &facts()
{
    return aiutils::SystemInfo::GetInstance();
}

QString accountName()
{
#ifdef Q_OS_UNIX
    if (const passwd *entry = getpwuid(geteuid()))
        return QString::fromLocal8Bit(entry->pw_name);
#endif
    return {};
}

} // namespace

KUtils::KUtils(QObject *parent)
    : QObject(parent)
{
    const int device = aiengine::DeviceSelector::GetInstance(true).preferredDevice();
    qCInfo(lcUtils) << "Prefered device" << device;
    m_maxProcesses = machineinfo::maxProcesses(float(facts().cpuMemory().first),
                                               machineinfo::deviceMemory(facts().getGPUList(), device));

    // QML creates this object: nothing may leave the constructor.
    try {
        aiutils::Logger::Disable();
        TFileManager::initModelManager();
        m_modelsInfo = machineinfo::modelsInfo(aiengine::ModelManager::GetInstance().getModelInfo());
    } catch (const std::exception &error) {
        qCWarning(lcUtils) << "Model Mapping failed:" << error.what();
    }
}

int KUtils::maxProcesses() const
{
    return m_maxProcesses;
}

QVariantMap KUtils::modelsInfo() const
{
    return m_modelsInfo;
}

QString KUtils::convertMsecToSmpte(int millisecond, double frameRate)
{
    return timecode::msecToSmpte(millisecond, frameRate);
}

int KUtils::convertSmpteTomsec(QString timecode, double frameRate)
{
    return timecode::smpteToMsec(timecode, frameRate);
}

int KUtils::convertMsecToFrameCount(int millisecond, double frameRate)
{
    return timecode::msecToFrameCount(millisecond, frameRate);
}

int KUtils::convertFrameCountToMsec(int frameCount, double frameRate)
{
    return timecode::frameCountToMsec(frameCount, frameRate);
}

int KUtils::convertMsToFrameMs(int millisecond, double frameRate)
{
    return timecode::msToFrameMs(millisecond, frameRate);
}

bool KUtils::isValidSmpteTimecode(QString timecode)
{
    return timecode::isValidSmpte(timecode);
}

QSize KUtils::imageSize(QImage qimage)
{
    return qimage.size();
}

bool KUtils::isEmpty(QImage qimage)
{
    return qimage.isNull();
}

bool KUtils::isEmpty(QRect rect)
{
    return rect.isEmpty();
}

int KUtils::callValidate(const QValidator *validator, QString text, int pos)
{
    if (!validator)
        return QValidator::Invalid;
    return validator->validate(text, pos);
}

void KUtils::setEnv(QString name, QString value)
{
    qputenv(name.toLocal8Bit().constData(), value.toLocal8Bit());
}

QString KUtils::getEnv(QString name)
{
    return QString::fromLocal8Bit(qgetenv(name.toLocal8Bit().constData()));
}

void KUtils::setDiskSpaceThreshold(int gbValue)
{
    diskSpaceThresholdGb = gbValue;
}

void KUtils::setDiskSpaceThreshold()
{
    setDiskSpaceThreshold(10);
}

void KUtils::processEvents()
{
    QCoreApplication::processEvents();
}

QString KUtils::fetchMachineId()
{
    return facts().getMachineId();
}

QVariantList KUtils::fetchDeviceList()
{
    return machineinfo::deviceList(facts().cpuName(), facts().cpuMemory().first, facts().getGPUList());
}

QString KUtils::getFriendlyName()
{
    return machineinfo::friendlyName(qEnvironmentVariable("USER"), qEnvironmentVariable("USERNAME"), accountName(),
                                     QSysInfo::machineHostName());
}

float KUtils::osVersion()
{
    return facts().osVersion;
}

QString KUtils::osVersionString()
{
#ifdef Q_OS_LINUX
    // Qt knows no version of Linux itself; the kernel's stands in ("6.1.0-18-amd64" gives "6.1.0").
    static const QRegularExpression numbers(QStringLiteral("^(\\d+)\\.(\\d+)(?:\\.(\\d+))?"));
    const auto match = numbers.match(QSysInfo::kernelVersion());
    if (match.hasMatch())
        return match.captured(1) + QLatin1Char('.') + match.captured(2) + QLatin1Char('.')
            + (match.captured(3).isEmpty() ? QStringLiteral("0") : match.captured(3));
#endif
    const QOperatingSystemVersion version = QOperatingSystemVersion::current();
    return QStringLiteral("%1.%2.%3")
        .arg(version.majorVersion())
        .arg(version.minorVersion())
        .arg(version.microVersion());
}

void KUtils::enableSleep()
{
    os::SleepInhibitor::release();
}

void KUtils::disableSleep()
{
    os::SleepInhibitor::hold();
}

void KUtils::openTerminal()
{
    TFileManager files;
    const QString folder = QFileInfo(files.ffmpeg()).absolutePath();
    const QString dataDir = files.getModelFolderPath();
    const QString modelDir = files.defaultModelFolderPath();
    // The environment of the process is not thread-safe to change: only the UI
    // thread does, and the console gets the two variables either way.
    if (QThread::currentThread() == QCoreApplication::instance()->thread()) {
        qputenv("KVID_MODEL_DATA_DIR", dataDir.toLocal8Bit());
        qputenv("KVID_MODEL_DIR", modelDir.toLocal8Bit());
    }
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("KVID_MODEL_DATA_DIR"), dataDir);
    environment.insert(QStringLiteral("KVID_MODEL_DIR"), modelDir);
    os::Terminal::open(folder, environment);
}

void KUtils::restartApp()
{
    QCoreApplication::quit();
    // An AppImage runs from a mount that ends with the process: start the image again.
    QString program = qEnvironmentVariable("APPIMAGE");
    if (program.isEmpty())
        program = QCoreApplication::applicationFilePath();
    const QStringList arguments = QCoreApplication::arguments().mid(1);
    if (!QProcess::startDetached(program, arguments, QString()))
        qCWarning(lcUtils).noquote() << "Could not restart" << program;
}

bool KUtils::accessLibraryMacOS()
{
    const QString path = QDir::homePath() + QStringLiteral("/Library/Weather/weather-data.db");
    const QFileInfo info(path);
    if (!info.exists()) {
        qCInfo(lcUtils) << "File does not exist.";
        return true;
    }
    // A FIFO or a device would block the UI thread for ever on open or read.
    if (!info.isFile()) {
        qCWarning(lcUtils) << "Error opening file:" << "not a regular file";
        return true;
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qCWarning(lcUtils) << "Error opening file:" << file.errorString();
        return true;
    }
    char byte = 0;
    file.read(&byte, 1);
    return true;
}

void KUtils::clearSettings()
{
    QSettings().clear();
}

QString KUtils::systemInfo()
{
    const QString os = isWindows() ? QStringLiteral("Windows")
        : isMac()                  ? QStringLiteral("Mac")
                                   : QStringLiteral("Linux");
    return machineinfo::systemInfoText(os, facts().osVersion, facts().cpuName(), facts().cpuMemory().first,
                                       facts().getGPUList());
}

bool KUtils::isWindows()
{
    return facts().isWindows();
}

bool KUtils::isMac()
{
    return facts().isMac();
}

bool KUtils::isApple()
{
    return facts().isApple();
}

QString KUtils::getCpuName()
{
    return facts().cpuName();
}

double KUtils::getCpuSize()
{
    return facts().cpuMemory().first;
}

QVariantList KUtils::getGpuNames()
{
    QVariantList names;
    for (const auto &gpu : facts().getGPUList())
        names.append(gpu.name);
    return names;
}

QVariantList KUtils::getGpuSizes()
{
    QVariantList sizes;
    for (const auto &gpu : facts().getGPUList())
        sizes.append(gpu.memory);
    return sizes;
}

QVariantList KUtils::getGpuCudaIds()
{
    QVariantList ids;
    for (const auto &gpu : facts().getGPUList())
        ids.append(gpu.cudaId);
    return ids;
}

int KUtils::checkDiskSpace(QString path)
{
    return machineinfo::diskSpaceLow(getDiskSpace(path), diskSpaceThresholdGb);
}

quint64 KUtils::getDiskSpace(QString path)
{
    return availableBytes(path);
}

quint64 KUtils::availableBytes(const QString &path)
{
    // A folder about to be made lies on the volume of its nearest existing parent.
    QFileInfo info(path);
    while (!info.exists() && !info.absolutePath().isEmpty() && info.absoluteFilePath() != info.absolutePath())
        info = QFileInfo(info.absolutePath());
    const qint64 available = QStorageInfo(info.absoluteFilePath()).bytesAvailable();
    return available > 0 ? quint64(available) : 0;
}

QString KUtils::jwtDecode(QString jwt)
{
    return machineinfo::jwtDecode(jwt);
}

QVariantMap KUtils::detectProxyInfo()
{
    const QNetworkProxyQuery query(QUrl(Configuration::instance().downloadHost), QNetworkProxyQuery::UrlRequest);
    const QList<QNetworkProxy> proxies = QNetworkProxyFactory::systemProxyForQuery(query);
    if (proxies.isEmpty() || proxies.first().type() == QNetworkProxy::NoProxy)
        return {};
    qInfo() << "A system proxy may be configured.";
    const QNetworkProxy &proxy = proxies.first();
    if (proxy.type() != QNetworkProxy::HttpProxy) {
        qWarning() << "Incompatible proxy will not be used";
        return {};
    }
    QVariantMap info{{"hostname", proxy.hostName()}, {"port", proxy.port()}, {"authentication", !proxy.user().isEmpty()}};
    if (!proxy.user().isEmpty()) {
        info.insert("username", proxy.user());
        info.insert("password", proxy.password());
    }
    qInfo() << "Using system proxy" << proxy.hostName() << proxy.port();
    return info;
}

void KUtils::syncProxyInfo(bool enable)
{
    TFileManager files;
    const QString path = files.defaultModelFolderPath() + QStringLiteral("/proxy.json");
    QVariantMap store = enable ? detectProxyInfo() : files.readJsonObject(path);
    // Turning the proxy off keeps host and credentials for the next time.
    store.insert("enabled", enable && !store.isEmpty());
    files.saveJsonObject(store, path);
}
