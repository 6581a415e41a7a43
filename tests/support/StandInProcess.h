#pragma once

#include "plugin/Configuration.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <httplib.h>

#include <memory>

// Makes `settings` the configuration in force, through a file in `dir`.
inline void useConfiguration(const QString &dir, const QJsonObject &settings)
{
    QFile file(dir + QStringLiteral("/config.json"));
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        qFatal("cannot write %s", qPrintable(file.fileName()));
    file.write(QJsonDocument(settings).toJson());
    file.close();
    qputenv("KUTILS_CONFIG_FILE", QFile::encodeName(file.fileName()));
    Configuration::reload();
}

// A local stand-in of a remote service in its own process. Its first line on
// standard output is a JSON object (addresses, keys, its CA bundle, its
// "control" address); it ends when its standard input closes.
class StandInProcess
{
public:
    StandInProcess(const QString &program, const QStringList &arguments)
    {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(program, arguments);
        if (!m_process.waitForStarted(10000))
            return;
        while (!m_process.canReadLine() && m_process.waitForReadyRead(10000)) {
        }
        ready = QJsonDocument::fromJson(m_process.readLine()).object();
        if (!ready.isEmpty())
            m_control = std::make_unique<httplib::Client>(ready["control"].toString().toStdString());
    }
    ~StandInProcess()
    {
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(5000))
            m_process.kill();
        m_process.waitForFinished();
    }
    StandInProcess(const StandInProcess &) = delete;
    StandInProcess &operator=(const StandInProcess &) = delete;

    bool isReady() const { return m_control != nullptr; }

    // Calls on the control address; false, or an empty document, when it fails.
    bool post(const QString &path, const QByteArray &body)
    {
        const auto result = m_control ? m_control->Post(path.toStdString(), body.toStdString(), "application/json")
                                      : httplib::Result(nullptr, httplib::Error::Connection);
        return result && result->status == 200;
    }
    QJsonDocument get(const QString &path)
    {
        const auto result = m_control ? m_control->Get(path.toStdString())
                                      : httplib::Result(nullptr, httplib::Error::Connection);
        return result ? QJsonDocument::fromJson(QByteArray::fromStdString(result->body)) : QJsonDocument();
    }

    // The control calls every stand-in answers. A fault is one object or an
    // array of them: {"call", "kind", "occurrence", "status", "body", "delayMs", ...}.
    bool fault(const QJsonValue &spec)
    {
        return post("/fault", (spec.isArray() ? QJsonDocument(spec.toArray()) : QJsonDocument(spec.toObject())).toJson());
    }
    bool release() { return post("/release", "{}"); }
    bool reset() { return post("/reset", "{}"); }
    int held() { return isReady() ? get("/held").object()["held"].toInt() : -1; }
    // The requests served so far, oldest first.
    QJsonArray log() { return get("/log").array(); }

    QJsonObject ready;

private:
    QProcess m_process;
    std::unique_ptr<httplib::Client> m_control;
};
