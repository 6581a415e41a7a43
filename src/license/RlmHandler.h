#pragma once

#include <QObject>

// Floating-licence heartbeat and licence queries.
class RlmHandler : public QObject
{
    Q_OBJECT

public:
    explicit RlmHandler(QObject *parent = nullptr);
};
