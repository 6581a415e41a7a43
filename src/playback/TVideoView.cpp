#include "playback/TVideoView.h"

TVideoView::TVideoView(QObject *parent)
    : QObject(parent)
{
}
