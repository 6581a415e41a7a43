#include "plugin/TDarkWindow.h"

#include "os/DarkTitleBar.h"

#include <QScreen>
#include <QWindow>

TDarkWindow::TDarkWindow(QObject *parent)
    : QObject(parent)
{
}

void TDarkWindow::setDarkWindow(QWindow *parent)
{
    if (!parent)
        qFatal("ERROR WIDGET NOT FOUND FOR DARK MODE");
    os::applyDarkTitleBar(parent->winId());
}

void TDarkWindow::showMaximize(QWindow *parent)
{
    if (!parent || !parent->screen())
        return;
    parent->setGeometry(parent->screen()->availableGeometry());
}
