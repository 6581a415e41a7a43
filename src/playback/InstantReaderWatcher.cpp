#include "playback/InstantReaderWatcher.h"

namespace videoplayer {

InstantReaderWatcher::InstantReaderWatcher(QObject *parent)
    : QObject(parent)
{
}

} // namespace videoplayer
