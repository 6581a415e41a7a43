#pragma once

#include "playback/MPVPlayer.h"
#include "timeline/ConsoleLogger.h"

#include <QPointF>
#include <QQuickItem>
#include <QVariantMap>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class PaneSlot;

namespace os {
class NativeSurface;
}

// One mpv pane in the scene: mpv draws by itself into a native child window
// that follows this item, and its events come back as Qt signals. Pane 1 (the
// right one) applies the split zoom and pan factors.
class MPVObject : public QQuickItem
{
    Q_OBJECT

public:
    explicit MPVObject(QQuickItem *parent = nullptr);
    ~MPVObject() override;

    // For tests and tools: the player behind the pane and its native window.
    MPVPlayer &player();
    os::NativeSurface *surface() const;
    bool isInitialized() const;

    // Players that drive this pane from their own threads hold it through a
    // slot, which the pane releases before its teardown begins.
    // When mpv queued the report being delivered now, in milliseconds of the
    // steady clock; 0 before any, and for a report whose time is not known.
    // The frame lock dates positions by it.
    double reportTime() const;

    void addOwner(PaneSlot *slot);
    void removeOwner(PaneSlot *slot);

signals:
    void eventsAvailable();
    void timePosFullChanged(int mpvID, qlonglong pos, bool isEOF = false);
    void fileLoaded(int mpvID);
    void paused(int mpvID);
    void seekingChanged(int mpvID, bool value);
    void relativeTimeChanged(double);
    void endOfFile();
    void resumed();

public slots:
    void setMPVID(int id);
    void play();
    void pause();
    void updateHDRStatus();
    void seek(qlonglong position);
    void stepForward();
    void stepBackward();
    void load(const QString &filepath, qlonglong seekPosAfterLoaded = 0);
    void load(const std::string &filepath, qlonglong seekPosAfterLoaded = 0);
    void movePan(QPointF pos);
    void setZoom(double zoom);
    void setCrop(int x, int y, int w, int h);
    void clearCrop();
    void applyFilter(std::string filter_complex);
    void setMute(bool mute);
    void setVolume(int volume);
    void setFramerate(float framerate);
    void setResizeMode(int mode);
    void setSplitZoomFactor(float factor);
    void setSplitPanXFactor(double splitPanX);
    std::string getCurrentPlayingVideoPath();
    void executeCommand(QString command, bool async = false);
    double getPropertyDouble(QString propertyName);
    std::string getPropertyString(QString propertyName);
    double getPropertyInt(QString propertyName);

protected:
    void geometryChange(const QRectF &newGeometry, const QRectF &oldGeometry) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private slots:
    void setup(QQuickWindow *window);
    void checkEvents();

private:
    void createSurface();
    void applyGeometry();
    static void onWakeup(void *context);

    MPVPlayer mpvPlayer;
    std::unique_ptr<os::NativeSurface> container;
    int mpvID = -1;
    QVariantMap properties;
    int resizeMode = 0;
    float splitZoomFactor = 1.0f;
    double splitPanXFactor = 0.0;
    bool initialized = false;
    ConsoleLogger log;
    std::atomic<qint64> wakeupNs{0};
    double currentReportMs = 0;
    std::mutex ownersMutex;
    std::vector<PaneSlot *> owners;
};
