#include "timeline/ConsoleLogger.h"

#include <QDateTime>

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <thread>

namespace {

std::mutex &sinkMutex()
{
    static std::mutex mutex;
    return mutex;
}

std::atomic<bool> sinkInstalled{false};

ConsoleLogger::Sink &captureSink()
{
    static ConsoleLogger::Sink sink;
    return sink;
}

const char *levelWord(int level)
{
    switch (level) {
    case 0: return " INFO";
    case 1: return "DEBUG";
    case 2: return " WARN";
    case 3: return " CRIT";
    case 4: return "FATAL";
    default: return "  LOG";
    }
}

const char *levelColour(int level)
{
    switch (level) {
    case 0: return "\033[32m";   // green
    case 1: return "\033[36m";   // cyan
    case 2: return "\033[33m";   // yellow
    case 3: return "\033[31m";   // red
    case 4: return "\033[1;41m"; // white on red
    default: return "\033[37m";
    }
}

// Each thread keeps one colour so interleaved lines of two threads stay apart.
const char *threadColour()
{
    static const char *const colours[] = {"\033[1;31m", "\033[1;32m", "\033[1;33m",
                                          "\033[1;34m", "\033[1;35m", "\033[1;36m"};
    const auto hash = std::hash<std::thread::id>{}(std::this_thread::get_id());
    return colours[hash % (sizeof(colours) / sizeof(colours[0]))];
}

constexpr const char *reset = "\033[0m";

} // namespace

QByteArray ConsoleLogger::formatLine(const QString &prefix, const QString &message, int level)
{
    const QDateTime now = QDateTime::currentDateTime();
    const QByteArray stamp = now.toString(QStringLiteral("yyyy-MM-dd-HH:mm:ss")).toUtf8() + '.'
                             + QByteArray::number(now.time().msec()).rightJustified(3, '0');
    const QByteArray prefixBytes = prefix.toUtf8();
    const QByteArray messageBytes = message.toUtf8();
    const char *thread = threadColour();

    const int size = std::snprintf(nullptr, 0, "%s\n%s: %s%s%s: %s%s%s %s%s\n%s", thread, stamp.constData(),
                                   levelColour(level), levelWord(level), reset, thread, prefixBytes.constData(),
                                   reset, messageBytes.constData(), reset, reset);
    QByteArray line(size, Qt::Uninitialized);
    std::snprintf(line.data(), size_t(size) + 1, "%s\n%s: %s%s%s: %s%s%s %s%s\n%s", thread, stamp.constData(),
                  levelColour(level), levelWord(level), reset, thread, prefixBytes.constData(), reset,
                  messageBytes.constData(), reset, reset);
    return line;
}

void ConsoleLogger::log(const QString &message, int level) const
{
    {
        std::lock_guard lock(sinkMutex());
        if (captureSink())
            captureSink()(Record{level, prefix, message});
    }
    if (!enabled)
        return;
    const QByteArray line = formatLine(prefix, message, level);
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fflush(stdout);
}

bool ConsoleLogger::isListening() const
{
    return enabled || sinkInstalled.load(std::memory_order_relaxed);
}

void ConsoleLogger::toggleTag(const QString &text)
{
    if (prefix.contains(text))
        prefix.remove(prefix.indexOf(text), text.size());
    else
        prefix.append(text);
}

void ConsoleLogger::setCaptureSink(Sink sink)
{
    std::lock_guard lock(sinkMutex());
    sinkInstalled = bool(sink);
    captureSink() = std::move(sink);
}
