#pragma once

#include "../support/StandInProcess.h"

#include <QTemporaryDir>

#include <cstdio>
#include <unistd.h>

// The rendering service's stand-in, and the client configuration that points
// at it: endpoints, keys and its throwaway CA.
class CloudStandIn : private QTemporaryDir, public StandInProcess
{
public:
    // `extraConfig` adds keys to the client configuration (modelPassword, ...).
    explicit CloudStandIn(const QStringList &arguments = {}, const QJsonObject &extraConfig = {})
        : StandInProcess(QStringLiteral(KUTILS_CLOUD_STANDIN),
                         QStringList{"--dir", path() + "/service", "--config-out", path() + "/standin.json"} + arguments)
    {
        configure(extraConfig);
    }
    ~CloudStandIn() { release(); }

    // Points the client configuration at the stand-in, with `extra` keys over the ones it wrote.
    void configure(const QJsonObject &extra)
    {
        QFile written(path() + "/standin.json");
        if (!isReady() || !written.open(QIODevice::ReadOnly))
            return;
        QJsonObject config = QJsonDocument::fromJson(written.readAll()).object();
        // Only asked for its system proxy, never called.
        config["downloadHost"] = "https://127.0.0.1:9/";
        for (auto it = extra.begin(); it != extra.end(); ++it)
            config[it.key()] = it.value();
        useConfiguration(path(), config);
    }

    QString token() const { return ready["token"].toString(); }

    // Sets a job's "status" and "message". (Faults here may also name a "job".)
    bool setJob(const QString &job, const QJsonObject &state) { return post("/job/" + job, QJsonDocument(state).toJson()); }
    // "METHOD path" of each logged call of the given names (all when empty).
    QStringList calls(const QStringList &names = {})
    {
        QStringList found;
        for (const QJsonValue &entry : log())
            if (names.isEmpty() || names.contains(entry["call"].toString()))
                found << entry["method"].toString() + " " + entry["path"].toString();
        return found;
    }
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
