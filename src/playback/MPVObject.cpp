#include "playback/MPVObject.h"

#include "os/NativeSurface.h"
#include "playback/PaneSlot.h"

#include <QQuickWindow>

#include <mpv/client.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <stdexcept>
#include <utility>

namespace {

// How late a position may be read and still be dated by its wakeup: half a
// frame of the pane's file, so no later frame can have come in between; 10 ms
// (half a frame at 50 fps) while the rate is not known.
double datedWithinMs(float framerate)
{
    return framerate > 0 ? std::max(10.0, 500.0 / framerate) : 10.0;
}

double steadyMs()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The playlist entry that a "loadfile" reply names, -1 when it names none.
qint64 playlistEntryOf(const mpv_event *event)
{
    if (event->error < 0)
        return -1;
    const mpv_node &result = static_cast<const mpv_event_command *>(event->data)->result;
    if (result.format != MPV_FORMAT_NODE_MAP)
        return -1;
    const mpv_node_list *map = result.u.list;
    for (int i = 0; i < map->num; ++i) {
        if (std::string_view(map->keys[i]) == "playlist_entry_id" && map->values[i].format == MPV_FORMAT_INT64)
            return map->values[i].u.int64;
    }
    return -1;
}

bool isImageSequencePath(const std::string &path)
{
    static const std::regex pattern(R"(%(\d{1,3})?d)", std::regex::ECMAScript);
    return std::regex_search(path, pattern);
}

} // namespace

MPVObject::MPVObject(QQuickItem *parent)
    : QQuickItem(parent)
{
    log.prefix = QStringLiteral("MPVObject <>===---");
    connect(this, &QQuickItem::windowChanged, this, &MPVObject::setup);
    connect(this, &MPVObject::eventsAvailable, this, &MPVObject::checkEvents, Qt::QueuedConnection);
    // An item made with a parent already in a scene has its window before the
    // connection above exists.
    if (window())
        setup(window());
}

MPVObject::~MPVObject()
{
    // First of all: no player may reach the pane once its teardown has begun.
    // Each slot's lock waits for a call under way to end.
    {
        const std::lock_guard lock(ownersMutex);
        for (PaneSlot *slot : owners)
            slot->release();
        owners.clear();
    }
    // QQuickItem's own destructor still reports the window going away; by then
    // this object is no longer an MPVObject.
    disconnect(this, &QQuickItem::windowChanged, this, &MPVObject::setup);
    // mpv may wake us from its own thread until the callback is gone.
    if (mpvPlayer.handle())
        mpv_set_wakeup_callback(mpvPlayer.handle(), nullptr, nullptr);
    if (window())
        window()->removeEventFilter(this);
#ifndef Q_OS_WIN
    // mpv keeps a window of its own inside ours. On X11, destroying ours first
    // makes mpv's teardown unmap a window that is gone, and the X library's
    // default error handler, which mpv restores while it shuts down, ends the
    // process. So mpv lets go of its window before ours goes.
    mpvPlayer.terminate();
#endif
    // The window goes first, then the members, and the mpv context last (it is
    // the first member, so it is destroyed after all the others).
    container.reset();
}

double MPVObject::reportTime() const
{
    return currentReportMs;
}

void MPVObject::addOwner(PaneSlot *slot)
{
    const std::lock_guard lock(ownersMutex);
    owners.push_back(slot);
}

void MPVObject::removeOwner(PaneSlot *slot)
{
    const std::lock_guard lock(ownersMutex);
    std::erase(owners, slot);
}

MPVPlayer &MPVObject::player()
{
    return mpvPlayer;
}

os::NativeSurface *MPVObject::surface() const
{
    return container.get();
}

bool MPVObject::isInitialized() const
{
    return initialized;
}

void MPVObject::onWakeup(void *context)
{
    // Stamped on mpv's thread: the event loop may deliver much later.
    static_cast<MPVObject *>(context)->wakeupNs.store(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
    emit static_cast<MPVObject *>(context)->eventsAvailable();
}

void MPVObject::setup(QQuickWindow *window)
{
    if (!window || initialized || !mpvPlayer.isValid())
        return;
    mpv_handle *handle = mpvPlayer.handle();
    mpvPlayer.setMute(true);
    mpv_set_wakeup_callback(handle, &MPVObject::onWakeup, this);
    mpv_observe_property(handle, 0, "time-pos/full", MPV_FORMAT_DOUBLE);
    mpv_observe_property(handle, 0, "eof-reached", MPV_FORMAT_FLAG);
    mpv_observe_property(handle, 0, "seeking", MPV_FORMAT_FLAG);
    mpv_observe_property(handle, 0, "pause", MPV_FORMAT_FLAG);
    initialized = true;
    // A native child made before the scene window is on screen stays black:
    // mpv's window never gets its first expose. So the surface waits for it.
    if (window->isExposed())
        createSurface();
    else
        window->installEventFilter(this);
}

bool MPVObject::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::Expose && watched == window() && window()->isExposed() && !container) {
        window()->removeEventFilter(this);
        QMetaObject::invokeMethod(this, &MPVObject::createSurface, Qt::QueuedConnection);
    }
    return QQuickItem::eventFilter(watched, event);
}

void MPVObject::createSurface()
{
    QQuickWindow *quickWindow = window();
    if (container || !quickWindow)
        return;
    container = std::make_unique<os::NativeSurface>(quickWindow->winId());
    if (!container->isValid())
        log.log(QStringLiteral("no native child window on this platform; mpv gets no wid"), ConsoleLogger::Warn);
    applyGeometry();
    try {
        mpvPlayer.initialize(static_cast<qint64>(container->handle()));
    } catch (const std::runtime_error &error) {
        // Thrown through the event loop it would end the application.
        log.log(QString::fromUtf8(error.what()), ConsoleLogger::Critical);
        return;
    }
    updateHDRStatus();
}

void MPVObject::geometryChange(const QRectF &newGeometry, const QRectF &oldGeometry)
{
    QQuickItem::geometryChange(newGeometry, oldGeometry);
    applyGeometry();
}

void MPVObject::applyGeometry()
{
    if (!container || !window())
        return;
    // The native window is a child of the scene's window, not of the parent
    // item, so the item's rectangle is taken in scene coordinates.
    const QRectF scene = mapRectToScene(QRectF(0, 0, width(), height()));
    const QRect rect(static_cast<int>(scene.x()), static_cast<int>(scene.y()), static_cast<int>(scene.width()),
                     static_cast<int>(scene.height()));
    container->setGeometry(rect, window()->devicePixelRatio(), resizeMode);
}

void MPVObject::checkEvents()
{
    mpv_handle *handle = mpvPlayer.handle();
    if (!handle)
        return;
    // mpv wakes its client once, for the first event after the queue was
    // last read, and a position read later is the newest one, not the one of
    // that moment. On a busy machine this loop runs tens or hundreds of
    // milliseconds late, and the stamp would date a position frames too early.
    // So a report is dated only when it is the pass's first event and the pass
    // runs well within a frame of the stamp.
    const double stamp = static_cast<double>(wakeupNs.load()) / 1e6;
    currentReportMs = steadyMs() - stamp <= datedWithinMs(mpvPlayer.getFramerate()) ? stamp : 0;
    bool first = true;
    while (true) {
        const mpv_event *event = mpv_wait_event(handle, 0);
        if (event->event_id == MPV_EVENT_NONE)
            break;
        if (!std::exchange(first, false))
            currentReportMs = 0;
        switch (event->event_id) {
        case MPV_EVENT_COMMAND_REPLY:
            if (event->reply_userdata != 0)
                mpvPlayer.loadReplied(event->reply_userdata, playlistEntryOf(event));
            continue;
        case MPV_EVENT_START_FILE:
            mpvPlayer.fileStarted(static_cast<const mpv_event_start_file *>(event->data)->playlist_entry_id);
            continue;
        case MPV_EVENT_END_FILE: {
            const auto *ended = static_cast<const mpv_event_end_file *>(event->data);
            mpvPlayer.fileEnded(ended->playlist_entry_id, ended->reason == MPV_END_FILE_REASON_ERROR);
            continue;
        }
        case MPV_EVENT_FILE_LOADED:
            log.log(QStringLiteral("File Loaded successfully:")
                    + QString::fromStdString(mpvPlayer.getPropertyString(QStringLiteral("path"))));
            // A seek held during the load goes out before anyone hears of it.
            mpvPlayer.fileLoaded();
            emit fileLoaded(mpvID);
            continue;
        default:
            break;
        }
        if (event->event_id != MPV_EVENT_PROPERTY_CHANGE)
            continue;
        const auto *property = static_cast<const mpv_event_property *>(event->data);
        const std::string_view name(property->name);
        if (name == "time-pos/full" && property->format == MPV_FORMAT_DOUBLE) {
            const double seconds = *static_cast<const double *>(property->data);
            emit timePosFullChanged(mpvID, static_cast<qlonglong>(seconds * 1000.0), false);
        } else if (name == "eof-reached" && property->format == MPV_FORMAT_FLAG) {
            if (*static_cast<const int *>(property->data)) {
                double seconds = 0.0;
                const int result = mpv_get_property(handle, "time-pos/full", MPV_FORMAT_DOUBLE, &seconds);
                if (result < 0)
                    log.log(QStringLiteral("get_double_property failed %1").arg(result), ConsoleLogger::Warn);
                emit timePosFullChanged(mpvID, static_cast<qlonglong>(seconds * 1000.0), true);
            }
        } else if (name == "seeking" && property->format == MPV_FORMAT_FLAG) {
            const bool seeking = *static_cast<const int *>(property->data) != 0;
            emit seekingChanged(mpvID, seeking);
            log.log(QStringLiteral("//**MPV player %1%2").arg(mpvID).arg(seeking ? QStringLiteral(" STARTED seeking")
                                                                                  : QStringLiteral(" STOPPED seeking")));
        } else if (name == "pause" && property->format == MPV_FORMAT_FLAG) {
            if (*static_cast<const int *>(property->data))
                emit paused(mpvID);
        }
    }
}

void MPVObject::setMPVID(int id)
{
    mpvID = id;
    mpvPlayer.setMPVID(id);
}

void MPVObject::play()
{
    mpvPlayer.play();
}

void MPVObject::pause()
{
    mpvPlayer.pause();
}

void MPVObject::updateHDRStatus()
{
    if (container)
        mpvPlayer.applyHDRStatus(os::isHdrActive(container->handle()));
}

void MPVObject::seek(qlonglong position)
{
    mpvPlayer.seek(position);
}

void MPVObject::stepForward()
{
    mpvPlayer.stepForward();
}

void MPVObject::stepBackward()
{
    mpvPlayer.stepBackward();
}

void MPVObject::load(const QString &filepath, qlonglong seekPosAfterLoaded)
{
    load(filepath.toStdString(), seekPosAfterLoaded);
}

void MPVObject::load(const std::string &filepath, qlonglong seekPosAfterLoaded)
{
    std::string path = filepath;
    const std::string::size_type scheme = path.find("file://");
    if (scheme != std::string::npos) {
        // A network URL becomes a UNC path: file:///server/x keeps its third slash.
        path.replace(scheme, 7, "\\\\");
        log.log(QStringLiteral("Loading network path:") + QString::fromStdString(path));
    }
    mpvPlayer.load(path, seekPosAfterLoaded, isImageSequencePath(path));
}

void MPVObject::movePan(QPointF pos)
{
    if (mpvID == 1)
        pos.setX(pos.x() + splitPanXFactor);
    mpvPlayer.movePan(pos.x(), pos.y());
}

void MPVObject::setZoom(double zoom)
{
    if (mpvID == 1)
        zoom *= splitZoomFactor;
    mpvPlayer.setZoom(zoom);
}

void MPVObject::setCrop(int x, int y, int w, int h)
{
    mpvPlayer.setCrop(x, y, w, h);
}

void MPVObject::clearCrop()
{
    mpvPlayer.clearCrop();
}

void MPVObject::applyFilter(std::string filter_complex)
{
    mpvPlayer.applyFilter(filter_complex);
}

void MPVObject::setMute(bool mute)
{
    mpvPlayer.setMute(mute);
}

void MPVObject::setVolume(int volume)
{
    mpvPlayer.setVolume(volume);
}

void MPVObject::setFramerate(float framerate)
{
    mpvPlayer.setFramerate(framerate);
}

void MPVObject::setResizeMode(int mode)
{
    resizeMode = mode;
}

void MPVObject::setSplitZoomFactor(float factor)
{
    splitZoomFactor = factor;
}

void MPVObject::setSplitPanXFactor(double splitPanX)
{
    splitPanXFactor = splitPanX;
}

std::string MPVObject::getCurrentPlayingVideoPath()
{
    return mpvPlayer.getCurrentPlayingVideoPath();
}

void MPVObject::executeCommand(QString command, bool async)
{
    mpvPlayer.executeCommand(command, async);
}

double MPVObject::getPropertyDouble(QString propertyName)
{
    return mpvPlayer.getPropertyDouble(propertyName);
}

std::string MPVObject::getPropertyString(QString propertyName)
{
    return mpvPlayer.getPropertyString(propertyName);
}

double MPVObject::getPropertyInt(QString propertyName)
{
    return mpvPlayer.getPropertyInt(propertyName);
}
