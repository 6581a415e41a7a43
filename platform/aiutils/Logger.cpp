#include "aiutils/Logger.h"

#include <atomic>
#include <cstdio>
#include <mutex>

namespace aiutils {

namespace {
std::atomic<bool> loggingEnabled{true};
// Lines from several threads must not interleave inside one another.
std::mutex outputMutex;
} // namespace

Logger::Line::Line(bool active)
    : m_active(active)
{
}

Logger::Line::Line(Line &&other) noexcept
    : m_active(other.m_active)
    , m_text(std::move(other.m_text))
{
    other.m_active = false;
}

Logger::Line::~Line()
{
    if (!m_active)
        return;
    const std::string text = m_text.str();
    const std::lock_guard lock(outputMutex);
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

Logger::Line &Logger::Line::operator<<(const QString &value)
{
    if (m_active)
        m_text << value.toStdString();
    return *this;
}

Logger::Line &Logger::Line::operator<<(const QByteArray &value)
{
    if (m_active)
        m_text << value.toStdString();
    return *this;
}

Logger::Line &Logger::Line::operator<<(const char *value)
{
    if (m_active && value)
        m_text << value;
    return *this;
}

Logger::Line Logger::Log()
{
    return Line(loggingEnabled.load());
}

void Logger::Disable()
{
    loggingEnabled = false;
}

void Logger::Enable()
{
    loggingEnabled = true;
}

bool Logger::isEnabled()
{
    return loggingEnabled.load();
}

} // namespace aiutils
