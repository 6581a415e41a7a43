#pragma once

#include "DemoOptions.h"

#include <QObject>
#include <QString>
#include <QStringList>

class QQuickWindow;

// What QML cannot do by itself: know the command line, read back the screen
// (mpv draws into native windows that the scene's own grab never sees), print
// to the terminal and end the application with a code.
class DemoHost : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString input READ input CONSTANT)
    Q_PROPERTY(QString mediaDir READ mediaDir CONSTANT)
    Q_PROPERTY(qlonglong inMark READ inMark CONSTANT)
    Q_PROPERTY(qlonglong outMark READ outMark CONSTANT)
    Q_PROPERTY(bool slowMotion READ slowMotion CONSTANT)
    Q_PROPERTY(QStringList steps READ steps CONSTANT)

public:
    explicit DemoHost(DemoOptions options, QObject *parent = nullptr);

    QString input() const { return m_options.input; }
    QString mediaDir() const { return m_options.mediaDir; }
    qlonglong inMark() const { return m_options.inMark; }
    qlonglong outMark() const { return m_options.outMark; }
    bool slowMotion() const { return m_options.slowMotion; }
    QStringList steps() const { return m_options.steps; }

    // Writes what the screen shows of `window`, native children included.
    Q_INVOKABLE bool grabWindow(QQuickWindow *window, const QString &file);
    Q_INVOKABLE void report(const QString &line);
    Q_INVOKABLE void quit(int code);

private:
    DemoOptions m_options;
};
