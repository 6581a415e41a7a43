#include "playback/MPVPlayer.h"

#include "playback/SyncMath.h"
#include "plugin/Configuration.h"

#include "os/DecodeDevices.h"

#include <mpv/client.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <regex>
#include <stdexcept>

namespace {

const std::regex &sequencePattern()
{
    static const std::regex pattern(R"(%(\d{1,3})?d)", std::regex::ECMAScript);
    return pattern;
}

std::string formatDouble(double value)
{
    char text[64];
    std::snprintf(text, sizeof(text), "%f", value);
    return text;
}

} // namespace

void MPVPlayer::HandleDeleter::operator()(mpv_handle *handle) const
{
    mpv_terminate_destroy(handle);
}

MPVPlayer::MPVPlayer()
{
    log.prefix = QStringLiteral("MPVPlayer ===---");
    // libmpv refuses to create a context unless numbers are formatted the C way
    // (it parses and prints option values with the C library). The application
    // object sets the user's locale when it starts, so this must happen here,
    // after it, and before every mpv_create.
    std::setlocale(LC_NUMERIC, "C");
    mpv.reset(mpv_create());
    if (!mpv) {
        log.log(QStringLiteral("could not create mpv context"), ConsoleLogger::Critical);
        return;
    }
    setOption("terminal", "yes");
    // Hardware-decoder probing reports every API the machine lacks (CUDA,
    // VA-API) as an error at each load; those modules go quiet, while the
    // decoders' and demuxers' own errors still show.
    setOption("msg-level", "all=error,ffmpeg=fatal,ffmpeg/video=error,ffmpeg/audio=error,ffmpeg/demuxer=error,"
                           "vaapi=fatal,vdpau=fatal,cuda=fatal");
    setOption("hwdec", "auto-safe");
    // Some probes bypass mpv's log: the CUDA loader and libvdpau write to
    // stderr themselves, and FFmpeg's lines lose mpv's filter once the first
    // mpv context of the process is gone. On a machine with no decoding
    // device every probe can only fail, so none is made: with no codec listed
    // for hardware decoding, mpv decodes in software at once. The decoder
    // setting stays as it is and takes over wherever a device exists.
    if (!os::DecodeDevices::present())
        setOption("hwdec-codecs", "");
    setOption("osd-level", "0");
    setOption("framedrop", "decoder");
    // Older libmpv knows the colour as "background", newer as "background-color".
    if (mpv_set_option_string(mpv.get(), "background-color", "#171717") == MPV_ERROR_OPTION_NOT_FOUND)
        setOption("background", "#171717");
    setOption("sid", "no");
    setFlagOption("target-colorspace-hint", 0);
    setFlagOption("keep-open", 1);
    setFlagOption("pause", 1);
    for (const auto &[name, value] : Configuration::instance().mpvExtraOptions)
        setOption(name.toUtf8().constData(), value.toUtf8().constData());
}

MPVPlayer::~MPVPlayer() = default;

mpv_handle *MPVPlayer::handle() const
{
    return mpv.get();
}

bool MPVPlayer::isValid() const
{
    return mpv != nullptr;
}

void MPVPlayer::terminate()
{
    mpv.reset();
}

void MPVPlayer::setOption(const char *name, const char *value)
{
    const int result = mpv_set_option_string(mpv.get(), name, value);
    if (result < 0)
        log.log(QStringLiteral("option %1=%2 refused: %3")
                    .arg(QLatin1String(name), QString::fromUtf8(value), QLatin1String(mpv_error_string(result))),
                ConsoleLogger::Warn);
}

void MPVPlayer::setFlagOption(const char *name, int value)
{
    const int result = mpv_set_option(mpv.get(), name, MPV_FORMAT_FLAG, &value);
    if (result < 0)
        log.log(QStringLiteral("option %1 refused: %2").arg(QLatin1String(name), QLatin1String(mpv_error_string(result))),
                ConsoleLogger::Warn);
}

void MPVPlayer::setMPVID(int id)
{
    mpvID = id;
}

int MPVPlayer::getMPVID() const
{
    return mpvID;
}

void MPVPlayer::initialize(qint64 wid)
{
    if (!mpv)
        throw std::runtime_error("could not initialize mpv context");
    int64_t window = wid;
    mpv_set_option(mpv.get(), "wid", MPV_FORMAT_INT64, &window);
    setOption("vo", "gpu-next");
    if (mpv_initialize(mpv.get()) < 0)
        throw std::runtime_error("could not initialize mpv context");
    const std::lock_guard lock(stateMutex);
    running = true;
}

bool MPVPlayer::loadfileTakesIndex()
{
    // The playlist index argument came with client API 2.3; before it the
    // options text stands third and an extra argument fails the whole command.
    return mpv_client_api_version() >= MPV_MAKE_VERSION(2, 3);
}

void MPVPlayer::command(const std::vector<std::string> &args, bool async, quint64 replyId)
{
    if (observer) {
        QStringList words;
        for (const std::string &arg : args)
            words.append(QString::fromStdString(arg));
        observer(words);
    }
    if (!mpv)
        return;
    std::vector<const char *> argv;
    argv.reserve(args.size() + 1);
    for (const std::string &arg : args)
        argv.push_back(arg.c_str());
    argv.push_back(nullptr);
    if (async)
        mpv_command_async(mpv.get(), replyId, argv.data());
    else
        mpv_command(mpv.get(), argv.data());
}

void MPVPlayer::play()
{
    command({"set", "pause", "no"});
}

void MPVPlayer::pause()
{
    command({"set", "pause", "yes"});
}

void MPVPlayer::seek(qint64 milliseconds)
{
    {
        const std::lock_guard lock(stateMutex);
        if (loadInFlight) {
            pendingSeek = milliseconds;
            return;
        }
    }
    sendSeek(milliseconds);
}

void MPVPlayer::sendSeek(qint64 milliseconds)
{
    if (seekByFrame) {
        const qint64 frame = syncmath::seekFrame(milliseconds, framerate);
        lastSeekFrame = frame;
        command({"seek", std::to_string(frame), "absolute+exact"});
        return;
    }
    command({"seek", formatDouble(syncmath::seekSeconds(milliseconds)), "absolute+exact"});
}

void MPVPlayer::stepForward()
{
    command({"frame-step"});
}

void MPVPlayer::stepBackward()
{
    command({"frame-back-step"});
}

void MPVPlayer::load(const std::string &path, qint64 seekPosAfterLoaded, bool isImageSequence)
{
    const std::string start = "start=+" + formatDouble(syncmath::loadSeconds(seekPosAfterLoaded));
    quint64 replyId = 0;
    {
        const std::lock_guard lock(stateMutex);
        loadSeekPosition = seekPosAfterLoaded;
        filepath = path;
        // A core that is not running loads nothing, so nothing is held for it.
        if (running) {
            loadInFlight = true;
            replyId = ++latestLoadReply;
            latestLoadEntry = -1;
            pendingSeek.reset();
        }
    }
    std::string target = path;
    if (isImageSequence) {
        if (std::regex_search(path, sequencePattern())) {
            target = "mf://" + std::regex_replace(path, sequencePattern(), "*");
            log.log(QStringLiteral("Updated loading file to : ") + QString::fromStdString(target));
        } else {
            log.log(QStringLiteral("No match found in loading file Path."));
        }
    }
    if (loadfileTakesIndex())
        command({"loadfile", target, "replace", "-1", start}, true, replyId);
    else
        command({"loadfile", target, "replace", start}, true, replyId);
}

void MPVPlayer::loadReplied(quint64 replyId, qint64 playlistEntryId)
{
    const std::lock_guard lock(stateMutex);
    if (replyId == latestLoadReply)
        latestLoadEntry = playlistEntryId;
}

void MPVPlayer::fileStarted(qint64 playlistEntryId)
{
    const std::lock_guard lock(stateMutex);
    startedEntry = playlistEntryId;
}

bool MPVPlayer::fileLoaded()
{
    std::optional<qint64> target;
    {
        const std::lock_guard lock(stateMutex);
        // A load that a later one superseded may still finish first; its file
        // must not take the held seek. Without an entry id from mpv the load
        // counts as the latest.
        if (!loadInFlight || (latestLoadEntry >= 0 && startedEntry != latestLoadEntry))
            return !loadInFlight;
        loadInFlight = false;
        // The load already started where the held seek points.
        if (pendingSeek && *pendingSeek != loadSeekPosition)
            target = pendingSeek;
        pendingSeek.reset();
    }
    if (target)
        sendSeek(*target);
    return true;
}

void MPVPlayer::fileEnded(qint64 playlistEntryId, bool failed)
{
    const std::lock_guard lock(stateMutex);
    if (!failed || !loadInFlight || playlistEntryId != latestLoadEntry)
        return;
    // The latest load failed: nothing will load, so seeks go out as they come.
    loadInFlight = false;
    pendingSeek.reset();
    log.log(QStringLiteral("load failed; a held seek is dropped"), ConsoleLogger::Warn);
}

bool MPVPlayer::isLoading() const
{
    const std::lock_guard lock(stateMutex);
    return loadInFlight;
}

std::optional<qint64> MPVPlayer::heldSeek() const
{
    const std::lock_guard lock(stateMutex);
    return pendingSeek;
}

void MPVPlayer::movePan(double x, double y)
{
    command({"set", "video-pan-x", formatDouble(x)});
    command({"set", "video-pan-y", formatDouble(y)});
}

void MPVPlayer::setZoom(double zoom)
{
    command({"set", "video-zoom", formatDouble(syncmath::zoomExponent(zoom))});
}

void MPVPlayer::setCrop(int x, int y, int w, int h)
{
    const QRect wanted(x, y, w, h);
    {
        const std::lock_guard lock(stateMutex);
        if (currentCrop == wanted)
            return;
        currentCrop = wanted;
    }
    command({"set", "video-crop",
             std::to_string(w) + "x" + std::to_string(h) + "+" + std::to_string(x) + "+" + std::to_string(y)});
}

void MPVPlayer::clearCrop()
{
    command({"set", "video-crop", ""});
    const std::lock_guard lock(stateMutex);
    currentCrop = QRect(0, 0, 0, 0);
}

QRect MPVPlayer::crop() const
{
    const std::lock_guard lock(stateMutex);
    return currentCrop;
}

void MPVPlayer::applyFilter(const std::string &filterComplex)
{
    command({"vf", "toggle", filterComplex});
}

void MPVPlayer::setMute(bool mute)
{
    if (mpv && mpv_set_property_string(mpv.get(), "mute", mute ? "yes" : "no") >= 0)
        muted = mute;
}

bool MPVPlayer::isMuted() const
{
    return muted;
}

void MPVPlayer::setSpeedProperty(double speed)
{
    if (mpv)
        mpv_set_property_async(mpv.get(), 0, "speed", MPV_FORMAT_DOUBLE, &speed);
}

void MPVPlayer::setVolume(int volume)
{
    if (mpv)
        mpv_set_property_string(mpv.get(), "volume", std::to_string(volume).c_str());
}

void MPVPlayer::setFramerate(float value)
{
    framerate = value;
}

float MPVPlayer::getFramerate() const
{
    return framerate;
}

void MPVPlayer::applyHDRStatus(bool hdr)
{
    if (hdrHint == hdr)
        return;
    int flag = hdr ? 1 : 0;
    if (mpv)
        mpv_set_property(mpv.get(), "target-colorspace-hint", MPV_FORMAT_FLAG, &flag);
    hdrHint = hdr;
}

std::string MPVPlayer::getCurrentPlayingVideoPath() const
{
    const std::lock_guard lock(stateMutex);
    return filepath;
}

qint64 MPVPlayer::getLoadSeekPosition() const
{
    const std::lock_guard lock(stateMutex);
    return loadSeekPosition;
}

void MPVPlayer::executeCommand(const QString &text, bool async)
{
    std::vector<std::string> args;
    for (const QString &part : text.split(QLatin1Char(' ')))
        args.push_back(part.toStdString());
    command(args, async);
}

double MPVPlayer::getPropertyDouble(const QString &name)
{
    double value = 0.0;
    const int result = mpv ? mpv_get_property(mpv.get(), name.toUtf8().constData(), MPV_FORMAT_DOUBLE, &value)
                           : MPV_ERROR_UNINITIALIZED;
    if (result < 0) {
        log.log(QStringLiteral("get_double_property failed %1").arg(result), ConsoleLogger::Warn);
        return 0.0;
    }
    return value;
}

std::string MPVPlayer::getPropertyString(const QString &name)
{
    char *value = nullptr;
    const int result = mpv ? mpv_get_property(mpv.get(), name.toUtf8().constData(), MPV_FORMAT_STRING, &value)
                           : MPV_ERROR_UNINITIALIZED;
    if (result < 0 || !value) {
        log.log(QStringLiteral("get_string_property failed %1").arg(result), ConsoleLogger::Warn);
        return {};
    }
    std::string text(value);
    mpv_free(value);
    return text;
}

double MPVPlayer::getPropertyInt(const QString &name)
{
    int64_t value = 0;
    const int result = mpv ? mpv_get_property(mpv.get(), name.toUtf8().constData(), MPV_FORMAT_INT64, &value)
                           : MPV_ERROR_UNINITIALIZED;
    if (result < 0) {
        log.log(QStringLiteral("get_int_property failed"), ConsoleLogger::Warn);
        return 0.0;
    }
    return static_cast<double>(static_cast<int32_t>(value));
}

void MPVPlayer::setCommandObserver(CommandObserver newObserver)
{
    observer = std::move(newObserver);
}
