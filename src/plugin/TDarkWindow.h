#pragma once

#include <QObject>

class QWindow;

class TDarkWindow : public QObject
{
    Q_OBJECT

public:
    explicit TDarkWindow(QObject *parent = nullptr);

    // Dark title bar on Windows; no effect elsewhere. A null window ends the
    // process on purpose: the caller's scene is broken.
    Q_INVOKABLE void setDarkWindow(QWindow *parent);
    // Fills the screen's available area; the window state stays normal.
    Q_INVOKABLE void showMaximize(QWindow *parent);
};
