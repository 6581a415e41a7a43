#include "playback/VideoPlayer.h"

namespace videoplayer {

VideoPlayer::VideoPlayer(QObject *parent)
    : QObject(parent)
{
}

} // namespace videoplayer
