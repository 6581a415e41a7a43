import QtQuick
import QtQuick.Window
import QtQuick.Controls
import QtQuick.Layouts

// Live render of the right pane (V): every filter change renders the window
// at the playhead again through InstantReaderWatcher, the chunks appear on
// the strip as they are laid, and playing on renders the stretch ahead.
ColumnLayout {
    id: livePanel

    // The demo's window: its input, filters and preview bookkeeping.
    readonly property var app: Window.window
    readonly property var videoPlayer: app ? app.videoPlayer : null
    readonly property bool on: render.enabled
    property int chunks: 0
    property string message: "Off"
    // Steps waiting for the panel: {done, fail}
    property var enabling: null
    property var waiting: null
    property bool resumeWhenLaid: false

    spacing: 4

    LiveRender {
        id: render
        player: livePanel.videoPlayer
        inputPath: livePanel.app ? livePanel.app.inputPath : ""
        inputUid: livePanel.app ? livePanel.app.inputUid : 0
        previewSet: livePanel.app ? livePanel.app.previewSet : 1
        fps: livePanel.app ? livePanel.app.fps : 25
        onChunkLaid: (start, end) => {
            livePanel.chunks++
            livePanel.message = "Laid " + livePanel.chunks + " chunks, the last " + start + " - " + end + " ms"
            strip.restart()
            if (livePanel.resumeWhenLaid) {
                livePanel.resumeWhenLaid = false
                livePanel.videoPlayer.play()
            }
        }
        onFailed: text => {
            livePanel.message = "Failed: " + text
            if (livePanel.waiting)
                livePanel.waiting.fail(text)
            livePanel.waiting = null
        }
    }

    // The chunks reach the timeline on the player's worker a moment after
    // they were laid; then the strip and a waiting step learn of them.
    Timer {
        id: strip
        interval: 300
        onTriggered: {
            livePanel.app.refreshRanges()
            if (livePanel.waiting && livePanel.covered(livePanel.app.position)) {
                livePanel.waiting.done()
                livePanel.waiting = null
            }
        }
    }

    Connections {
        target: livePanel.videoPlayer
        // Turning live render on realigns the panes and stops the pane's
        // render on the way: the filter goes out once that has happened.
        function onStopIR(viewID) {
            if (viewID !== render.view || !livePanel.enabling)
                return
            const hooks = livePanel.enabling
            livePanel.enabling = null
            // After every receiver of this stop, or it would stop the new render too.
            Qt.callLater(() => {
                render.setFilter(livePanel.currentFilter())
                hooks.done()
            })
        }
        // Playback reached a stretch the render hasn't laid yet and waits.
        function onIsInitiatingIRChanged(viewID, value, mode) {
            if (viewID === render.view && value && mode === 0 && render.enabled)
                livePanel.resumeWhenLaid = true
        }
    }

    function currentFilter() {
        return app.filters[app.filterIndex].vf
    }

    // The live chunk laid over `ms`: {start, end, slowMotion, ...}, or null.
    function previewAt(ms) {
        for (let i = 0; i < render.laid.length; ++i) {
            if (render.laid[i].start <= ms && ms <= render.laid[i].end)
                return render.laid[i]
        }
        return null
    }

    function covered(ms) {
        return previewAt(ms) !== null
    }

    // hooks: {done, fail}, for a script step; null from the switch or key.
    function setLive(value, hooks) {
        if (value === render.enabled) {
            if (hooks)
                hooks.done()
            return
        }
        chunks = 0
        message = value ? "Waiting for a filter change" : "Off"
        enabling = value ? (hooks ? hooks : {done: () => {}, fail: () => {}}) : null
        render.setEnabled(value)
        if (!value) {
            strip.restart()
            if (hooks)
                hooks.done()
        }
    }

    function toggle() {
        setLive(!render.enabled, null)
    }

    function filterChanged(vf) {
        if (render.enabled && !enabling)
            render.setFilter(vf)
    }

    // Done once a chunk covering the playhead is on the timeline.
    function waitLive(hooks) {
        if (!render.enabled) {
            hooks.fail("live render is off")
            return
        }
        waiting = hooks
        strip.restart()
    }

    RowLayout {
        Text {
            text: "Live render"
            color: "#e0913a"
            font.pixelSize: 13
            font.bold: true
            Layout.fillWidth: true
        }
        Switch {
            checked: render.enabled
            onToggled: livePanel.setLive(checked, null)
        }
    }
    Text {
        Layout.fillWidth: true
        text: livePanel.message
        color: "#c9d1d9"
        font.pixelSize: 12
        wrapMode: Text.Wrap
    }
}
