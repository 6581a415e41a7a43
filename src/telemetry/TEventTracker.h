#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

// Usage events for the event collector, and feature flags.
class TEventTracker : public QObject
{
    Q_OBJECT
    QML_ELEMENT

public:
    explicit TEventTracker(QObject *parent = nullptr);
};
