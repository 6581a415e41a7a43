#pragma once

#include <QObject>

namespace videoplayer {

// One input beside rendered previews in two mpv panes held on one clock.
class VideoPlayer : public QObject
{
    Q_OBJECT

public:
    explicit VideoPlayer(QObject *parent = nullptr);
};

} // namespace videoplayer
