#pragma once

#include <QObject>

// The cloud rendering service: job table, worker and transfers.
class CloudAPI : public QObject
{
    Q_OBJECT

public:
    explicit CloudAPI(QObject *parent = nullptr);
};
