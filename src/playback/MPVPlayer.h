#pragma once

#include "timeline/ConsoleLogger.h"

#include <QRect>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

struct mpv_handle;

// One mpv context and the commands and properties the panes need. Every call is
// safe from any thread (libmpv's client API is), and nothing on the command
// path waits for mpv: commands go out asynchronously and their results are not
// looked at.
class MPVPlayer
{
public:
    MPVPlayer();
    ~MPVPlayer();
    MPVPlayer(const MPVPlayer &) = delete;
    MPVPlayer &operator=(const MPVPlayer &) = delete;

    mpv_handle *handle() const;
    bool isValid() const;
    // Ends the mpv context now instead of at destruction.
    void terminate();

    void setMPVID(int id);
    int getMPVID() const;

    // Draws into the native window `wid` and starts the core. Throws
    // std::runtime_error("could not initialize mpv context") when mpv refuses.
    void initialize(qint64 wid);

    void play();
    void pause();
    void seek(qint64 milliseconds);
    void stepForward();
    void stepBackward();
    void load(const std::string &filepath, qint64 seekPosAfterLoaded, bool isImageSequence);
    void movePan(double x, double y);
    void setZoom(double zoom);
    void setCrop(int x, int y, int w, int h);
    void clearCrop();
    QRect crop() const;
    void applyFilter(const std::string &filterComplex);
    void setMute(bool mute);
    bool isMuted() const;
    // The "speed" property, set without a command and without waiting: the
    // frame lock's trims, which must not look like the player's own commands.
    void setSpeedProperty(double speed);
    void setVolume(int volume);
    void setFramerate(float framerate);
    float getFramerate() const;
    // Sets "target-colorspace-hint" when the answer differs from the cached one.
    void applyHDRStatus(bool hdr);

    std::string getCurrentPlayingVideoPath() const;
    qint64 getLoadSeekPosition() const;

    // Seeks asked for while a load is in flight would reach a core that has no
    // file yet and be lost, and the load's own start would win. They are held,
    // the newest replacing the older, and sent once the core reports that the
    // file of the latest load has loaded. These follow mpv's events for that.
    void loadReplied(quint64 replyId, qint64 playlistEntryId);
    void fileStarted(qint64 playlistEntryId);
    // True when the file just loaded is the latest one asked for.
    bool fileLoaded();
    void fileEnded(qint64 playlistEntryId, bool failed);
    bool isLoading() const;
    std::optional<qint64> heldSeek() const;

    // Split at every blank, empty parts kept; no quoting.
    void executeCommand(const QString &command, bool async);

    double getPropertyDouble(const QString &name);
    std::string getPropertyString(const QString &name);
    double getPropertyInt(const QString &name);

    // Sees every command this player sends, as the argument list. Tests use it
    // to tell which commands went out; production leaves it empty.
    using CommandObserver = std::function<void(const QStringList &)>;
    void setCommandObserver(CommandObserver observer);

    // Whether the running libmpv takes the playlist index in "loadfile".
    static bool loadfileTakesIndex();

private:
    void command(const std::vector<std::string> &args, bool async = true, quint64 replyId = 0);
    void sendSeek(qint64 milliseconds);
    void setOption(const char *name, const char *value);
    void setFlagOption(const char *name, int value);

    struct HandleDeleter
    {
        void operator()(mpv_handle *handle) const;
    };

    int mpvID = -1;
    std::unique_ptr<mpv_handle, HandleDeleter> mpv;
    mutable std::mutex stateMutex; // path and crop: written by the worker, read by the event thread
    std::string filepath;
    qint64 loadSeekPosition = 0;
    QRect currentCrop;
    // The latest load: its reply id, the playlist entry mpv gave it (-1 until
    // the reply), the entry mpv is loading now, and the seek held for it.
    bool running = false;
    bool loadInFlight = false;
    quint64 latestLoadReply = 0;
    qint64 latestLoadEntry = -1;
    qint64 startedEntry = -1;
    std::optional<qint64> pendingSeek;
    std::atomic<bool> seekByFrame{false};
    std::atomic<bool> hdrHint{false};
    std::atomic<bool> muted{false};
    std::atomic<float> framerate{0.0f};
    std::atomic<qint64> lastSeekFrame{0};
    CommandObserver observer;
    ConsoleLogger log;
};
