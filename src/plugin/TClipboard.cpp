#include "plugin/TClipboard.h"

#include <QClipboard>
#include <QGuiApplication>

TClipboard::TClipboard(QObject *parent)
    : QObject(parent)
{
}

void TClipboard::setText(QString from)
{
    QGuiApplication::clipboard()->setText(from, QClipboard::Clipboard);
}

QString TClipboard::text()
{
    return QGuiApplication::clipboard()->text(QClipboard::Clipboard);
}
