#pragma once

#include <QByteArray>
#include <QString>

#include <sstream>
#include <string>

namespace aiutils {

// The plain text log of the engine libraries and of the classes that speak
// through them (cloud, model files). One `Log()` expression writes one line to
// standard output when it ends; `Disable()` silences every later line.
class Logger
{
public:
    class Line
    {
    public:
        explicit Line(bool active);
        Line(const Line &) = delete;
        Line &operator=(const Line &) = delete;
        Line(Line &&other) noexcept;
        ~Line();

        template<typename T>
        Line &operator<<(const T &value)
        {
            if (m_active)
                m_text << value;
            return *this;
        }
        Line &operator<<(const QString &value);
        Line &operator<<(const QByteArray &value);
        Line &operator<<(const char *value);

    private:
        bool m_active;
        std::ostringstream m_text;
    };

    static Line Log();
    static void Disable();
    static void Enable();
    static bool isEnabled();
};

} // namespace aiutils
