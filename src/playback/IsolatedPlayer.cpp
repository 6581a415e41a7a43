#include "playback/IsolatedPlayer.h"

#include "playback/MPVObject.h"
#include "playback/SyncMath.h"

#include <algorithm>

namespace {

// The player ids of the two-pane player are 0 and 1; ours stay apart from them.
constexpr int kFirstMPVID = 10;

} // namespace

IsolatedPlayer::IsolatedPlayer(QObject *parent)
    : VideoPlayerContext(parent)
{
    log.prefix = QStringLiteral("IsolatedPlayer ===---");
}

std::vector<MPVObject *> IsolatedPlayer::getMPVObjects() const
{
    if (const MPVObject *held = mpv.held())
        return {const_cast<MPVObject *>(held)};
    return {};
}

qlonglong IsolatedPlayer::getInputTimestamp()
{
    return inputTimestamp;
}

void IsolatedPlayer::setMPVObjects(const std::vector<MPVObject *> &mpvObjects)
{
    int id = kFirstMPVID;
    for (MPVObject *item : mpvObjects) {
        if (!item)
            continue;
        // The scene owns the item; the last one given is the pane.
        mpv.attach(item);
        item->setMPVID(id++);
        connect(item, &MPVObject::timePosFullChanged, this, &IsolatedPlayer::mpvTimelineSync);
    }
}

void IsolatedPlayer::play()
{
    mpv.use([](MPVObject &pane) { pane.play(); });
    isPlaying = true;
    emit isPlayingChanged();
}

void IsolatedPlayer::pause()
{
    mpv.use([](MPVObject &pane) { pane.pause(); });
    isPlaying = false;
    emit isPlayingChanged();
}

void IsolatedPlayer::seek(TSType requestedTimestamp, bool, bool)
{
    // A seek always leaves the clip paused; only the loop at its end resumes.
    pause();
    mpv.use([requestedTimestamp](MPVObject &pane) { pane.seek(requestedTimestamp); });
    inputTimestamp = requestedTimestamp;
    emit inputTimestampChanged();
}

void IsolatedPlayer::seek(TSType requestedTimestamp, bool interrupt)
{
    seek(requestedTimestamp, interrupt, true);
}

void IsolatedPlayer::seek(TSType requestedTimestamp)
{
    seek(requestedTimestamp, true, true);
}

QPoint IsolatedPlayer::frames() const
{
    return video ? video->range() : QPoint(0, 0);
}

void IsolatedPlayer::next()
{
    if (!video)
        return;
    const qint64 step = inputInfo.value(QStringLiteral("timestep")).toLongLong();
    const QPoint range = frames();
    seek(syncmath::stepForward(inputTimestamp, step, {range.x(), range.y()}), true, true);
    if (isPlaying)
        play();
}

void IsolatedPlayer::prev()
{
    if (!video)
        return;
    const qint64 step = inputInfo.value(QStringLiteral("timestep")).toLongLong();
    const QPoint range = frames();
    seek(syncmath::stepBackward(inputTimestamp, step, {range.x(), range.y()}), true, true);
    if (isPlaying)
        play();
}

void IsolatedPlayer::jumpToStart()
{
    seek(inOutRange.x() < 0 ? frames().x() : inOutRange.x());
}

void IsolatedPlayer::jumpToEnd()
{
    seek(inOutRange.y() < 0 ? frames().y() : inOutRange.y());
}

void IsolatedPlayer::adjustInOutRange(bool trim, QPoint range)
{
    trimOn = trim;
    inOutRange = range;
}

void IsolatedPlayer::addInput(UID uid, TSType timestamp, QString filepath, TSType duration, double framerate,
                              double sar, bool, QVariantMap info)
{
    isPlaying = false;
    emit isPlayingChanged();
    if (!video || video->uid != uid) {
        auto made = Video::makeInput(nullptr, uid, filepath.toStdString(), duration, framerate, sar, info);
        if (!made) {
            log.log(QStringLiteral("Could not open input!!"), ConsoleLogger::Warn);
            return;
        }
        video = std::move(made);
        video->isGenerating = false;
        video->framerate = framerate;
        video->sar = sar;
        inputInfo = video->info;
        inOutRange = video->range();
        applyImageSequenceRate(false);
    }
    mpv.use([&filepath](MPVObject &pane) { pane.load(filepath, 0); });
    seek(timestamp, true);
}

void IsolatedPlayer::applyImageSequenceRate(bool reload)
{
    if (!inputInfo.value(QStringLiteral("isImageSequence")).toBool() || !inputInfo.contains(QStringLiteral("fps")))
        return;
    const double fps = inputInfo.value(QStringLiteral("fps")).toDouble();
    const QString command = QStringLiteral("set mf-fps ") + QString::asprintf("%f", fps);
    log.log(QStringLiteral("[isolated player] applied fps to imseq; ") + QString::asprintf("%f", fps));
    mpv.use([&](MPVObject &pane) {
        pane.executeCommand(command, false);
        pane.setFramerate(static_cast<float>(fps));
        if (reload && video)
            pane.load(video->filepath, inputTimestamp);
    });
}

void IsolatedPlayer::mpvTimelineSync(int, qlonglong timePos, bool isEOF)
{
    if (!isPlaying || !video)
        return;
    inputTimestamp = timePos;
    const QPoint range = frames();
    const double frameMs = 1000.0 / video->framerate;
    const qint64 pos = range.x() + timePos;
    const bool trimmed = trimOn && inOutRange.x() >= 0 && inOutRange.y() >= 0;
    if (trimmed && pos <= inOutRange.y() + 1.5 * frameMs
        && pos >= std::min<qint64>(inOutRange.y() - static_cast<qint64>(frameMs), range.y())) {
        log.log(QStringLiteral("[IsolatedPlayer] hit EOF of InOutRange, looping"));
        seek(inOutRange.x(), isEOF);
        play();
        return;
    }
    if (isEOF || pos >= range.y()) {
        log.log(QStringLiteral("[IsolatedPlayer] hit EOF, looping"));
        seek(range.x());
        play();
        return;
    }
    lastPosition = pos;
}

void IsolatedPlayer::closePlayer()
{
    mpv.use([](MPVObject &pane) { pane.load(QString(), 0); });
    isPlaying = false;
    emit isPlayingChanged();
}
