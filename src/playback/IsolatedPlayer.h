#pragma once

#include <QObject>

// Plays one clip by itself in one mpv pane.
class IsolatedPlayer : public QObject
{
    Q_OBJECT

public:
    explicit IsolatedPlayer(QObject *parent = nullptr);
};
