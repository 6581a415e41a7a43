#pragma once

#include <QObject>
#include <QString>

// The system clipboard for QML.
class TClipboard : public QObject
{
    Q_OBJECT

public:
    explicit TClipboard(QObject *parent = nullptr);

    Q_INVOKABLE void setText(QString from);
    Q_INVOKABLE QString text();
};
