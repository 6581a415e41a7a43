#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QVariantList>

// A child process that always sees the application's model folders. The
// environment is taken once, at construction, so the folders are those of that
// moment; the child is killed when the object goes.
class TProcess : public QProcess
{
    Q_OBJECT

public:
    explicit TProcess(QObject *parent = nullptr);
    ~TProcess() override;

public slots:
    void start(QString program, QVariantList arguments, bool mergeStds = false, bool log = true);
    QString readAllStandardOutput();
    QString readAllStandardError();
    QString readAll();
    void addEnvironmentVariable(QString variableName, QString value);
    void addToPath(QString path);
    void waitForFinished(int msecs = 30000);
    void setWorkingDirectory(QString path);

private:
    QProcessEnvironment environment;
};
