#pragma once

#include <QObject>

namespace videoplayer {

// Stands between the live-render readers and the player.
class InstantReaderWatcher : public QObject
{
    Q_OBJECT

public:
    explicit InstantReaderWatcher(QObject *parent = nullptr);
};

} // namespace videoplayer
