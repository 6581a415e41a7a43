#include "playback/MPVObject.h"

MPVObject::MPVObject(QQuickItem *parent)
    : QQuickItem(parent)
{
}
