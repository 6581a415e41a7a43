#pragma once

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QObject>
#include <QProcess>
#include <QRandomGenerator>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <QVariant>

// Points every standard location, the settings store and the data folders of
// the test into a temporary folder, so that no test writes into the real
// system or home folders. Build it before anything touches QSettings.
class IsolatedHome
{
public:
    IsolatedHome()
    {
        home = m_dir.path() + QStringLiteral("/home");
        machineData = m_dir.path() + QStringLiteral("/machine-share");
        QDir().mkpath(home);
        QDir().mkpath(machineData);
        qputenv("HOME", QFile::encodeName(home));
        qputenv("XDG_DATA_HOME", QFile::encodeName(home + QStringLiteral("/.local/share")));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(home + QStringLiteral("/.config")));
        qputenv("XDG_CACHE_HOME", QFile::encodeName(home + QStringLiteral("/.cache")));
        // The first entry stands for the user's own folder, the second for the machine-wide one.
        qputenv("XDG_DATA_DIRS", QFile::encodeName(machineData + QStringLiteral(":/nonexistent/share")));
        QCoreApplication::setOrganizationName(QStringLiteral("KutilsTests"));
    }

    QString userData() const { return home + QStringLiteral("/.local/share"); }
    QString path() const { return m_dir.path(); }

    QString home;
    QString machineData;

private:
    QTemporaryDir m_dir;
};

// Records the Qt log lines of every thread while it lives.
class LogCapture
{
public:
    LogCapture()
    {
        s_active = this;
        m_previous = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture()
    {
        qInstallMessageHandler(m_previous);
        s_active = nullptr;
    }

    int count(const QString &text) const
    {
        const QMutexLocker lock(&m_mutex);
        int found = 0;
        for (const QString &line : m_lines)
            found += line.contains(text) ? 1 : 0;
        return found;
    }
    bool contains(const QString &text) const { return count(text) > 0; }
    QStringList lines() const
    {
        const QMutexLocker lock(&m_mutex);
        return m_lines;
    }

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        if (LogCapture *self = s_active) {
            const QMutexLocker lock(&self->m_mutex);
            self->m_lines << message;
        }
        if (type == QtFatalMsg)
            qt_message_output(type, context, message);
    }

    static inline LogCapture *s_active = nullptr;
    QtMessageHandler m_previous = nullptr;
    mutable QMutex m_mutex;
    QStringList m_lines;
};

// Runs a command-line tool to its end; false when it could not run or failed.
inline bool runTool(const QString &program, const QStringList &arguments, const QString &workingDir = QString())
{
    QProcess process;
    process.setWorkingDirectory(workingDir);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);
    return process.waitForFinished(120000) && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0;
}

inline bool writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

inline QByteArray readFileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Incompressible bytes, the same for the same seed.
inline QByteArray randomBytes(int size, quint32 seed = 1)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator(seed).fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    return bytes;
}

// The signals of an object that emits them on a worker, as the test's thread
// receives them: queued, in the order they came. (A QSignalSpy records them on
// the worker, racing the test's reads.)
class QueuedSignals : public QObject
{
public:
    template<typename Sender, typename... Args>
    QueuedSignals &watch(Sender *sender, void (Sender::*signal)(Args...), const QString &name)
    {
        connect(sender, signal, this, [this, name](Args... arguments) {
            names << name;
            m_arguments << QVariantList{QVariant::fromValue(arguments)...};
        });
        return *this;
    }
    // The arguments of each `name` signal so far, oldest first.
    QList<QVariantList> of(const QString &name) const
    {
        QList<QVariantList> found;
        for (qsizetype i = 0; i < names.size(); ++i)
            if (names[i] == name)
                found << m_arguments[i];
        return found;
    }
    // The first argument of each, as ids are.
    QVariantList firstOf(const QString &name) const
    {
        QVariantList firsts;
        for (const QVariantList &arguments : of(name))
            firsts << arguments.value(0);
        return firsts;
    }
    // Waits until there are `count` of them; false when more or fewer came.
    bool wait(const QString &name, int count, int timeoutMs)
    {
        return QTest::qWaitFor([&] { return of(name).size() >= count; }, timeoutMs) && of(name).size() == count;
    }

    QStringList names;

private:
    QList<QVariantList> m_arguments;
};
