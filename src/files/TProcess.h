#pragma once

#include <QProcess>

// A child process that always sees the application's model folders.
class TProcess : public QProcess
{
    Q_OBJECT

public:
    explicit TProcess(QObject *parent = nullptr);
};
