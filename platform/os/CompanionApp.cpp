#include "os/CompanionApp.h"

#include <QDir>
#include <QProcess>
#include <QStandardPaths>

namespace os {

namespace {
const QString appName = QStringLiteral("Korvel Video");
} // namespace

QString CompanionApp::executablePath(const QString &applicationDir)
{
    QDir folder(applicationDir);
    if (!folder.cdUp() || !folder.cd(appName))
        return {};
    return QStandardPaths::findExecutable(appName, {folder.absolutePath()});
}

bool CompanionApp::start(const QString &applicationDir)
{
    const QString program = executablePath(applicationDir);
    if (program.isEmpty())
        return false;
    return QProcess::startDetached(program, {}, QString());
}

} // namespace os
