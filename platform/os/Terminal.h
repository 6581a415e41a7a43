#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

namespace os {

// A console window for the command-line use of the bundled tools.
class Terminal
{
public:
    // The programs tried, in order: $TERMINAL, the system's chosen emulator,
    // then the common ones.
    static QStringList candidates(const QProcessEnvironment &environment);

    // Starts the first candidate that runs, detached, in `folder` with
    // `environment`. The folder is a working folder, never part of a command
    // line, so no character in it can run anything. Returns the program
    // started, or an empty text (and a log line naming what was tried).
    static QString open(const QString &folder, const QProcessEnvironment &environment);
};

} // namespace os
