#include "files/TProcess.h"

#include "aiutils/SystemInfo.h"
#include "files/FileManagerLogging.h"
#include "files/TFileManager.h"

#include <QStringList>

TProcess::TProcess(QObject *parent)
    : QProcess(parent)
    , environment(QProcessEnvironment::systemEnvironment())
{
    {
        TFileManager fileManager;
        environment.insert(QStringLiteral("KVID_MODEL_DIR"), fileManager.defaultModelFolderPath());
        environment.insert(QStringLiteral("KVID_MODEL_DATA_DIR"), fileManager.getModelFolderPath());
    }
    environment.insert(QStringLiteral("KORVEL_AIE_MESSAGES"), QStringLiteral("1"));
    environment.insert(QStringLiteral("KVID_ALWAYS_LOG"), QStringLiteral("1"));
    if (aiutils::SystemInfo::GetInstance().isApple())
        environment.insert(QStringLiteral("OPENCV_ENABLE_MEMALIGN"), QStringLiteral("0"));
}

TProcess::~TProcess()
{
    kill();
    // Reaps the killed child, so the base class does not complain about
    // destroying a running process.
    QProcess::waitForFinished(1000);
    qCInfo(lcFileManager).noquote() << "~TProcess(): destroyed";
}

void TProcess::start(QString program, QVariantList arguments, bool mergeStds, bool log)
{
    QStringList argumentTexts;
    argumentTexts.reserve(arguments.size());
    for (const QVariant &argument : arguments)
        argumentTexts << argument.toString();

    if (log)
        qCInfo(lcFileManager).noquote() << "start:" << program << argumentTexts << "mergeStds:" << mergeStds;
    if (mergeStds)
        setProcessChannelMode(QProcess::MergedChannels);
    setProcessEnvironment(environment);
    QProcess::start(program, argumentTexts, QIODevice::ReadWrite);

    if (log)
        qCInfo(lcFileManager).noquote().nospace() << "started process with program: " << program << " ,agrs: "
                                                  << argumentTexts << " working dir: " << workingDirectory();
    else
        qCInfo(lcFileManager).noquote().nospace() << "started process with program: " << program;
}

QString TProcess::readAllStandardOutput()
{
    return QString::fromUtf8(QProcess::readAllStandardOutput());
}

QString TProcess::readAllStandardError()
{
    return QString::fromUtf8(QProcess::readAllStandardError());
}

QString TProcess::readAll()
{
    return QString::fromUtf8(QProcess::readAll());
}

void TProcess::addEnvironmentVariable(QString variableName, QString value)
{
    environment.insert(variableName, value);
}

void TProcess::addToPath(QString path)
{
    // ";" on every system: the render programs that read this variable expect
    // that separator wherever they run.
    environment.insert(QStringLiteral("PATH"),
                       path + QLatin1Char(';') + environment.value(QStringLiteral("PATH")));
}

void TProcess::waitForFinished(int msecs)
{
    QProcess::waitForFinished(msecs);
}

void TProcess::setWorkingDirectory(QString path)
{
    QProcess::setWorkingDirectory(path);
}
