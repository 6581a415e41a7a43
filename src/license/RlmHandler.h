#pragma once

#include <QObject>

// Floating-licence heartbeat and licence queries. QML can create it by name;
// it offers no properties or methods of its own, since the licence calls have
// no interface defined for this build.
class RlmHandler : public QObject
{
    Q_OBJECT

public:
    explicit RlmHandler(QObject *parent = nullptr);
};
