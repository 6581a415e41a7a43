#pragma once

#include <QString>

#include <functional>

// The console channel of the timeline and playback classes. Silent until
// `enabled` is set; a test can watch every call through a capture sink.
class ConsoleLogger
{
public:
    enum Level { Info = 0, Debug = 1, Warn = 2, Critical = 3, Fatal = 4 };

    struct Record
    {
        int level;
        QString prefix;
        QString message;
    };
    using Sink = std::function<void(const Record &)>;

    bool enabled = false;
    QString prefix;

    void log(const QString &message, int level = Info) const;
    void toggleTag(const QString &text);

    // The line `log` writes for these values, colours included.
    static QByteArray formatLine(const QString &prefix, const QString &message, int level);

    // Test seam: the sink sees every call, enabled or not, from any thread.
    // Pass an empty function to remove it.
    static void setCaptureSink(Sink sink);
};
