#pragma once

#include <QString>

#include <functional>
#include <type_traits>

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

    // For messages that cost something to build (listings in loops): the text
    // is made only when someone will read it.
    template<typename MakeMessage, typename = std::enable_if_t<std::is_invocable_r_v<QString, MakeMessage>>>
    void log(MakeMessage &&makeMessage, int level = Info) const
    {
        if (isListening())
            log(QString(makeMessage()), level);
    }

    // Enabled, or watched by a capture sink.
    bool isListening() const;
    void toggleTag(const QString &text);

    // The line `log` writes for these values, colours included.
    static QByteArray formatLine(const QString &prefix, const QString &message, int level);

    // Test seam: the sink sees every call, enabled or not, from any thread.
    // Pass an empty function to remove it.
    static void setCaptureSink(Sink sink);
};
