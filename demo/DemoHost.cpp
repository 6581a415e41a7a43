#include "DemoHost.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QPixmap>
#include <QQuickWindow>
#include <QScreen>
#include <QTimer>

#include <cstdio>
#include <utility>

DemoHost::DemoHost(DemoOptions options, QObject *parent)
    : QObject(parent)
    , m_options(std::move(options))
{
}

bool DemoHost::grabWindow(QQuickWindow *window, const QString &file)
{
    if (!window || !window->screen() || file.isEmpty())
        return false;
    const QPixmap shot = window->screen()->grabWindow(window->winId());
    QDir().mkpath(QFileInfo(file).absolutePath());
    return !shot.isNull() && shot.save(file);
}

void DemoHost::report(const QString &line)
{
    // Scripts and the screenshot test read these lines; they go out at once.
    std::fprintf(stdout, "kutils-demo: %s\n", qUtf8Printable(line));
    std::fflush(stdout);
}

void DemoHost::quit(int code)
{
    // Leaving from inside a QML handler would tear the scene down under it.
    QTimer::singleShot(0, qApp, [code] { QCoreApplication::exit(code); });
}
