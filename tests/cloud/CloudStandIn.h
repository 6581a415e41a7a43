#pragma once

#include "plugin/Configuration.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <httplib.h>

#include <cstdio>
#include <unistd.h>

// The rendering service's stand-in in its own process, and the client
// configuration that points at it: endpoints, keys and its throwaway CA.
class CloudStandIn
{
public:
    // `extraConfig` adds keys to the client configuration (modelPassword, ...).
    explicit CloudStandIn(const QStringList &arguments = {}, const QJsonObject &extraConfig = {})
    {
        m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_process.start(QStringLiteral(KUTILS_CLOUD_STANDIN), QStringList{"--dir", m_dir.path() + "/service"} + arguments);
        if (!m_process.waitForStarted(10000))
            return;
        while (!m_process.canReadLine() && m_process.waitForReadyRead(10000)) {
        }
        ready = QJsonDocument::fromJson(m_process.readLine()).object();
        if (ready.isEmpty())
            return;
        QJsonObject config{{"videoApiProduction", ready["video"]}, {"videoApiStaging", ready["videoStaging"]},
                                 {"accountApiProduction", ready["account"]}, {"accountApiStaging", ready["accountStaging"]},
                                 {"cloudApiKeyProduction", ready["apiKeyProduction"]},
                                 {"cloudApiKeyStaging", ready["apiKeyStaging"]}, {"caBundle", ready["caBundle"]},
                                 // Only asked for its system proxy, never called.
                                 {"downloadHost", "https://127.0.0.1:9/"}};
        if (ready.contains("files"))
            config["modelHost"] = ready["files"];
        for (auto it = extraConfig.begin(); it != extraConfig.end(); ++it)
            config[it.key()] = it.value();
        QFile file(m_dir.path() + "/config.json");
        if (file.open(QIODevice::WriteOnly))
            file.write(QJsonDocument(config).toJson());
        file.close();
        qputenv("KUTILS_CONFIG_FILE", QFile::encodeName(file.fileName()));
        Configuration::reload();
        m_control = std::make_unique<httplib::Client>(ready["control"].toString().toStdString());
    }

    ~CloudStandIn()
    {
        release();
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(5000))
            m_process.kill();
        m_process.waitForFinished();
    }

    bool isReady() const { return m_control != nullptr; }
    QString token() const { return ready["token"].toString(); }
    QString folder() const { return m_dir.path(); }

    // One fault, or an array of them: {"call", "kind", "occurrence", "job", "status", "body", "delayMs"}.
    bool fault(const QJsonValue &spec)
    {
        return post("/fault", (spec.isArray() ? QJsonDocument(spec.toArray()) : QJsonDocument(spec.toObject())).toJson());
    }
    bool release() { return post("/release", "{}"); }
    bool reset() { return post("/reset", "{}"); }
    bool setJob(const QString &job, const QJsonObject &state) { return post("/job/" + job, QJsonDocument(state).toJson()); }
    int held()
    {
        const auto result = m_control ? m_control->Get("/held") : httplib::Result(nullptr, httplib::Error::Connection);
        return result ? QJsonDocument::fromJson(QByteArray::fromStdString(result->body)).object()["held"].toInt() : -1;
    }
    // The requests served so far, oldest first.
    QJsonArray log()
    {
        const auto result = m_control ? m_control->Get("/log") : httplib::Result(nullptr, httplib::Error::Connection);
        return result ? QJsonDocument::fromJson(QByteArray::fromStdString(result->body)).array() : QJsonArray();
    }
    // "METHOD path" of each logged call of the given names (all when empty).
    QStringList calls(const QStringList &names = {})
    {
        QStringList found;
        for (const QJsonValue &entry : log())
            if (names.isEmpty() || names.contains(entry["call"].toString()))
                found << entry["method"].toString() + " " + entry["path"].toString();
        return found;
    }

    QJsonObject ready;

private:
    bool post(const QString &path, const QByteArray &body)
    {
        const auto result = m_control ? m_control->Post(path.toStdString(), body.toStdString(), "application/json")
                                      : httplib::Result(nullptr, httplib::Error::Connection);
        return result && result->status == 200;
    }

    QTemporaryDir m_dir;
    QProcess m_process;
    std::unique_ptr<httplib::Client> m_control;
};

// Collects what is written to standard output while it lives: the cloud
// client logs through the engine's plain text log.
class StdoutCapture
{
public:
    StdoutCapture()
    {
        std::fflush(stdout);
        m_saved = ::dup(1);
        m_file = std::tmpfile();
        ::dup2(::fileno(m_file), 1);
    }
    ~StdoutCapture()
    {
        std::fflush(stdout);
        ::dup2(m_saved, 1);
        ::close(m_saved);
        std::fclose(m_file);
    }
    QString text() const
    {
        std::fflush(stdout);
        QFile file;
        file.open(::dup(::fileno(m_file)), QIODevice::ReadOnly, QFile::AutoCloseHandle);
        file.seek(0);
        return QString::fromUtf8(file.readAll());
    }

private:
    int m_saved = -1;
    std::FILE *m_file = nullptr;
};
