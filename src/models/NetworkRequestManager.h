#pragma once

#include <QObject>

// Fetches large files over HTTPS, in ranges when asked.
class NetworkRequestManager : public QObject
{
    Q_OBJECT

public:
    explicit NetworkRequestManager(QObject *parent = nullptr);
};
