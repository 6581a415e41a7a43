#pragma once

#include <QObject>

// The front end's window on folders, files, archives and external programs.
class TFileManager : public QObject
{
    Q_OBJECT

public:
    explicit TFileManager(QObject *parent = nullptr);
};
