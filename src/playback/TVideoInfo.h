#pragma once

#include <QObject>

// Reads a video's information map and thumbnail away from the UI thread.
class TVideoInfo : public QObject
{
    Q_OBJECT

public:
    explicit TVideoInfo(QObject *parent = nullptr);
};
