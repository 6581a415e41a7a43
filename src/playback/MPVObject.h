#pragma once

#include <QQuickItem>

// One mpv pane: a native child window in the scene that mpv draws into.
class MPVObject : public QQuickItem
{
    Q_OBJECT

public:
    explicit MPVObject(QQuickItem *parent = nullptr);
};
