#include "os/Terminal.h"

#include "os/OsLogging.h"

#include <QProcess>
#include <QStandardPaths>

namespace os {

QStringList Terminal::candidates(const QProcessEnvironment &environment)
{
#ifdef Q_OS_WIN
    Q_UNUSED(environment);
    return {QStringLiteral("cmd.exe")};
#else
    QStringList programs;
    const QString chosen = environment.value(QStringLiteral("TERMINAL"));
    if (!chosen.isEmpty())
        programs << chosen;
    programs << QStringLiteral("x-terminal-emulator") << QStringLiteral("xdg-terminal-exec")
             << QStringLiteral("gnome-terminal") << QStringLiteral("konsole") << QStringLiteral("xfce4-terminal")
             << QStringLiteral("mate-terminal") << QStringLiteral("tilix") << QStringLiteral("alacritty")
             << QStringLiteral("kitty") << QStringLiteral("foot") << QStringLiteral("xterm");
    return programs;
#endif
}

QString Terminal::open(const QString &folder, const QProcessEnvironment &environment)
{
    const QStringList programs = candidates(environment);
    const QStringList searchPath =
        environment.value(QStringLiteral("PATH")).split(QLatin1Char(':'), Qt::SkipEmptyParts);
    for (const QString &program : programs) {
        const QString found = program.contains(QLatin1Char('/')) ? program
                                                                 : QStandardPaths::findExecutable(program, searchPath);
        if (found.isEmpty())
            continue;
        QProcess process;
        process.setProgram(found);
#ifdef Q_OS_WIN
        process.setArguments({QStringLiteral("/K")});
#endif
        process.setWorkingDirectory(folder);
        process.setProcessEnvironment(environment);
        qCInfo(lcOs).noquote() << "Trying to run" << found << "in" << folder;
        qint64 pid = 0;
        if (process.startDetached(&pid)) {
            qCInfo(lcOs).noquote() << "Running cmd:" << found << "pid" << pid;
            return found;
        }
    }
    qCWarning(lcOs).noquote() << "No terminal could be started; tried:" << programs.join(QStringLiteral(", "));
    return {};
}

} // namespace os
