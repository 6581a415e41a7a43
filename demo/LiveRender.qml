import QtQuick
import kutils 1.0

// Live render of the right pane: the filter's chain goes to the watcher, a
// filter change re-renders the window at the playhead, every chunk is laid on
// the preview set as it comes, and playing on renders the stretch ahead.
Item {
    id: live

    required property var player
    property string inputPath: ""
    property int inputUid: 0
    property int previewSet: 1
    property real fps: 25
    property real sar: 1
    readonly property int view: 1
    property bool enabled: false
    property string vf: ""
    // Live previews on the pane: {uid, start, end, file, chain}
    property var laid: []
    property string lastError: ""
    property int nextUid: 50000
    property alias watcher: watcher

    signal chunkLaid(int start, int end)
    signal failed(string message)

    InstantReaderWatcher {
        id: watcher
        onPreviewReadyToInject: (filename, range, view, processInfo) => live.lay(filename, range, view, processInfo)
        onRenderFailed: (view, message) => {
            live.lastError = message
            live.player.setIRInitStatus(view, false)
            live.failed(message)
        }
    }

    Connections {
        target: live.player
        function onStartIR(viewID, IRInitMode, startTS, endTS) { live.startIR(viewID, IRInitMode, startTS, endTS) }
        function onStopIR(viewID) { live.stopIR(viewID) }
    }

    function startIR(viewID, mode, startTS, endTS) {
        if (!enabled || viewID !== view || inputPath === "")
            return
        // -1 means the playhead, which only the player knows; an open end is
        // the end of the input stretch the render starts in.
        const start = startTS < 0 ? player.inputTimestamp : startTS
        const end = endTS < 0 ? stretchEnd(start) : endTS
        watcher.startRender(viewID, inputPath, start, end)
    }

    function stopIR(viewID) {
        if (viewID === view)
            watcher.stopRender(viewID)
    }

    function stretchEnd(from) {
        const ranges = player.getPreviewRanges(previewSet)
        let end = -1
        for (let i = 0; i < ranges.length; ++i) {
            if (ranges[i].x > from && (end < 0 || ranges[i].x - 1 < end))
                end = ranges[i].x - 1
        }
        return end
    }

    function chainFor(filter) {
        // A render command as the application makes one: the chain feeds a
        // split whose outputs the encoders take.
        return {video: {procInfo: {}},
                output: {commands: [{ffmpeg: ["-i", inputPath, "-filter_complex",
                                              "[0:v]" + filter + ",split=2[o1][o2]", "-map", "[o1]", "-c:v", "ffv1",
                                              "out.mkv"]}]}}
    }

    // Turning live render on realigns the panes, which stops any render of
    // the pane: the first filter change comes once they have settled.
    function setEnabled(on) {
        enabled = on
        player.toggleIR(on)
        player.setFilterEnabledStatus(view, on)
        if (!on)
            clear()
    }

    // A filter change: the window at the playhead is rendered again with it.
    function setFilter(filter) {
        vf = filter
        if (!enabled || filter === "")
            return
        watcher.setProcessInfo(chainFor(filter), view)
        player.restartIROnFilterChanged(view)
    }

    function clear() {
        for (let i = 0; i < laid.length; ++i)
            player.closePreview(laid[i].uid)
        laid = []
    }

    function lay(filename, range, viewID, processInfo) {
        const chain = processInfo.filterComplex
        // The first preview at a start wins on a timeline: the chunks of an
        // earlier chain must go before the new chain's are laid.
        const kept = []
        for (let i = 0; i < laid.length; ++i) {
            if (laid[i].chain !== chain)
                player.closePreview(laid[i].uid)
            else
                kept.push(laid[i])
        }
        const uid = nextUid++
        const slowMotion = processInfo.slowMoFactor > 0 ? processInfo.slowMoFactor : 1
        player.addPreview(previewSet, uid, viewID, inputUid, filename, range.x, range.y - range.x, fps, slowMotion,
                          sar, {isLiveRender: true}, false, true)
        kept.push({uid: uid, start: range.x, end: range.y, file: filename, chain: chain, slowMotion: slowMotion})
        laid = kept
        chunkLaid(range.x, range.y)
    }
}
