#include "playback/IsolatedPlayer.h"

IsolatedPlayer::IsolatedPlayer(QObject *parent)
    : QObject(parent)
{
}
