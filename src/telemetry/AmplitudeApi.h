#pragma once

#include <QObject>
#include <QtQml/qqmlregistration.h>

// Feature flags and user identity with the analytics services.
class AmplitudeApi : public QObject
{
    Q_OBJECT
    QML_ELEMENT

public:
    explicit AmplitudeApi(QObject *parent = nullptr);
};
