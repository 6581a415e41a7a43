#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

// Checks the application-state service for updates and installs them.
class TUpdateChecker : public QObject
{
    Q_OBJECT
    QML_ELEMENT

public:
    explicit TUpdateChecker(QObject *parent = nullptr);
};
