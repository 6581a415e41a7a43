import QtQuick
import QtQuick.Window
import QtQuick.Controls
import QtQuick.Layouts
import QtQuick.Dialogs
import QtMultimedia
import kutils 1.0

// The road of one input and one preview: open a video, read its information,
// show it in two mpv panes on one clock, render a preview of a stretch with
// ffmpeg, lay it on the right pane's preview set and play across it.
ApplicationWindow {
    id: root

    // The command line, the screen grab and the exit (DemoHost).
    required property var host

    width: 1280
    height: 800
    visible: true
    color: "#1b1e22"
    title: "kutils demo" + (inputPath ? " - " + files.getFileName(inputPath) : "")

    // ---- state ------------------------------------------------------------
    readonly property int previewSet: 1
    property int inputUid: 0
    property string inputPath: ""
    property var inputInfo: ({})
    readonly property real fps: inputInfo.fps > 0 ? inputInfo.fps : 25
    readonly property int duration: inputInfo.duration > 0 ? inputInfo.duration : 0
    readonly property real frameMs: 1000 / fps
    readonly property int position: player.inputTimestamp
    property string mediaDir: ""
    property string ffmpeg: "ffmpeg"

    property int inMark: -1
    property int outMark: -1
    property bool loopInOut: false
    property bool slowMotion: host.slowMotion
    property bool loopPreview: false
    property int filterIndex: 0
    property bool muted: true
    property int volume: 80
    property real zoom: 1
    property point pan: Qt.point(0, 0)
    property int cropMode: 0
    property bool helpShown: false

    property int nextPreviewUid: 100
    // {uid, path, start, end, duration, slowMotion, filter, label}
    property var previews: []
    property var previewRanges: []
    property var pendingRender: null
    property string status: ""
    // For the panels of the side panel that drive the player.
    readonly property var videoPlayer: player

    readonly property var filters: [
        {name: "Warm tint", vf: "colorchannelmixer=rr=1:gg=0.55:bb=0.2"},
        {name: "Negative", vf: "negate"},
        {name: "Edges", vf: "edgedetect=mode=colormix"},
        {name: "Mirror", vf: "hflip"}
    ]
    readonly property var cropModes: ["No crop", "Centre half", "Left half"]

    // One table for the keys and for the help window.
    readonly property var shortcuts: [
        {keys: ["Space"], action: "playPause", text: "Play / pause"},
        {keys: ["Right", "."], action: "stepForward", text: "Next frame"},
        {keys: ["Left", ","], action: "stepBackward", text: "Previous frame"},
        {keys: ["Shift+Right"], action: "forward", text: "One second later"},
        {keys: ["Shift+Left"], action: "back", text: "One second earlier"},
        {keys: ["Home"], action: "start", text: "To the start"},
        {keys: ["I"], action: "markIn", text: "Set the in mark here"},
        {keys: ["O"], action: "markOut", text: "Set the out mark here"},
        {keys: ["L"], action: "loopInOut", text: "Loop between in and out"},
        {keys: ["R"], action: "render", text: "Render a preview of in..out"},
        {keys: ["S"], action: "slowMotion", text: "Slow motion 2 for the next render"},
        {keys: ["F"], action: "filter", text: "Next preview filter"},
        {keys: ["P"], action: "loopPreview", text: "Loop the last preview"},
        {keys: ["V"], action: "live", text: "Live render of the right pane on / off"},
        {keys: ["M"], action: "mute", text: "Mute / unmute"},
        {keys: ["Up", "Down"], action: "volume", text: "Volume up / down"},
        {keys: ["+", "-"], action: "zoom", text: "Zoom in / out"},
        {keys: ["Alt+Arrows"], action: "pan", text: "Pan the zoomed picture"},
        {keys: ["0"], action: "resetView", text: "No zoom, no pan"},
        {keys: ["C"], action: "crop", text: "Next crop"},
        {keys: ["Ctrl+O"], action: "open", text: "Open a video"},
        {keys: ["F1", "?"], action: "help", text: "This help"},
        {keys: ["Ctrl+Q"], action: "quit", text: "Quit"}
    ]

    // ---- the plugin's types -------------------------------------------------
    KUtils { id: utils }
    TFileManager { id: files }

    TVideoInfo {
        id: videoInfo
        onVideoInfoAvailable: (path, info) => {
            if (path !== root.inputPath)
                return
            root.inputInfo = info
            root.setStatus("Opened " + files.getFileName(path) + " (" + info.duration + " ms at "
                           + Number(info.fps).toFixed(3) + " fps)")
            player.addInput(root.inputUid, 0, path, info.duration, info.fps, info.sar > 0 ? info.sar : 1, true, info)
            frameView.reload(path, 0)
        }
        onReaderError: (path, message) => root.fail(message)
    }

    VideoPlayer {
        id: player
        m_mpvs: [leftPane, rightPane]
        onOpenedInput: (uid, firstLoad) => {
            if (uid !== root.inputUid)
                return
            // The right pane shows the preview set: previews where rendered,
            // the input elsewhere.
            player.setPreviewSet(1, root.previewSet)
            root.applyView()
            root.refreshRanges()
            script.begin()
        }
    }

    // The frame-by-frame view follows the player whenever it stands still.
    TVideoView {
        id: frameView
        videoSink: frameOutput.videoSink
        looping: false
    }

    TProcess {
        id: renderer
        property string purpose: ""
        property bool crashed: false
        // A crash reports an error and then finishes; a program that never
        // started only reports the error.
        onFinished: exitCode => root.renderFinished(exitCode === 0 && !crashed)
        onErrorOccurred: error => {
            if (error === 1)
                crashed = true
            else if (error === 0 && purpose !== "")
                root.renderFinished(false)
        }
    }

    FileDialog {
        id: openDialog
        title: "Open a video"
        nameFilters: ["Videos (*.mp4 *.mov *.mkv *.avi *.webm *.mxf *.ts)", "All files (*)"]
        onAccepted: root.openInput(decodeURIComponent(String(selectedFile).replace(/^file:\/\//, "")))
    }

    HelpWindow {
        id: helpWindow
        shortcuts: root.shortcuts
        transientParent: root
        visible: root.helpShown
        x: root.x + (root.width - width) / 2
        y: root.y + (root.height - height) / 2
        onCloseRequested: root.helpShown = false
    }

    function keysOf(action) {
        return shortcuts.find(entry => entry.action === action).keys
    }
    Shortcut { sequences: root.keysOf("playPause"); onActivated: root.act("playPause", 1) }
    Shortcut { sequences: root.keysOf("stepForward"); onActivated: root.act("stepForward", 1) }
    Shortcut { sequences: root.keysOf("stepBackward"); onActivated: root.act("stepBackward", 1) }
    Shortcut { sequences: root.keysOf("forward"); onActivated: root.act("forward", 1) }
    Shortcut { sequences: root.keysOf("back"); onActivated: root.act("back", 1) }
    Shortcut { sequences: root.keysOf("start"); onActivated: root.act("start", 1) }
    Shortcut { sequences: root.keysOf("markIn"); onActivated: root.act("markIn", 1) }
    Shortcut { sequences: root.keysOf("markOut"); onActivated: root.act("markOut", 1) }
    Shortcut { sequences: root.keysOf("loopInOut"); onActivated: root.act("loopInOut", 1) }
    Shortcut { sequences: root.keysOf("render"); onActivated: root.act("render", 1) }
    Shortcut { sequences: root.keysOf("live"); onActivated: root.act("live", 1) }
    Shortcut { sequences: root.keysOf("slowMotion"); onActivated: root.act("slowMotion", 1) }
    Shortcut { sequences: root.keysOf("filter"); onActivated: root.act("filter", 1) }
    Shortcut { sequences: root.keysOf("loopPreview"); onActivated: root.act("loopPreview", 1) }
    Shortcut { sequences: root.keysOf("mute"); onActivated: root.act("mute", 1) }
    Shortcut { sequences: root.keysOf("resetView"); onActivated: root.act("resetView", 1) }
    Shortcut { sequences: root.keysOf("crop"); onActivated: root.act("crop", 1) }
    Shortcut { sequences: root.keysOf("open"); onActivated: root.act("open", 1) }
    Shortcut { sequences: root.keysOf("help"); onActivated: root.act("help", 1) }
    Shortcut { sequences: root.keysOf("quit"); onActivated: root.act("quit", 1) }
    // The keys whose direction matters.
    Shortcut { sequences: ["Up"]; onActivated: root.act("volume", 1) }
    Shortcut { sequences: ["Down"]; onActivated: root.act("volume", -1) }
    Shortcut { sequences: ["+", "="]; onActivated: root.act("zoom", 1) }
    Shortcut { sequences: ["-"]; onActivated: root.act("zoom", -1) }
    Shortcut { sequence: "Alt+Left"; onActivated: root.panBy(-0.05, 0) }
    Shortcut { sequence: "Alt+Right"; onActivated: root.panBy(0.05, 0) }
    Shortcut { sequence: "Alt+Up"; onActivated: root.panBy(0, -0.05) }
    Shortcut { sequence: "Alt+Down"; onActivated: root.panBy(0, 0.05) }

    // ---- start ---------------------------------------------------------------
    property bool started: false
    // mpv gets its native window once the scene is on screen; nothing may be
    // loaded before that, so the road starts at the first frame shown.
    onFrameSwapped: {
        if (started)
            return
        started = true
        mediaDir = host.mediaDir !== "" ? host.mediaDir : files.defaultFolderPath("demo")
        files.mkdir(mediaDir)
        // Previews are made for one session only.
        files.dirRemove(mediaDir + "/previews")
        const bundled = files.ffmpeg
        ffmpeg = files.fileExists(bundled) ? bundled : (files.findApp("ffmpeg") || "ffmpeg")
        if (host.input !== "")
            openInput(host.input)
        else
            openSample()
    }

    function setStatus(text) {
        status = text
        host.report(text)
    }

    function fail(message) {
        setStatus("Error: " + message)
        // A scripted run has nobody to read the message on screen.
        if (host.steps.length > 0)
            script.abort(message)
    }

    // A few seconds of test picture with its frame number and timecode burned
    // in, made once and kept in the media folder.
    function openSample() {
        const sample = mediaDir + "/sample.mp4"
        if (files.fileExists(sample)) {
            openInput(sample)
            return
        }
        const fontFile = "/usr/share/fonts/truetype/dejavu/DejaVuSansMono-Bold.ttf"
        const font = files.fileExists(fontFile) ? "fontfile=" + fontFile : "font=monospace"
        const text = "drawtext=" + font + ":fontsize=56:fontcolor=white:box=1:boxcolor=black@0.6:boxborderw=8:x=32"
        const vf = text + ":y=32:text='frame %{frame_num}'," + text + ":y=110:timecode='00\\:00\\:00\\:00':rate=25"
        setStatus("Making the sample video " + sample + " with ffmpeg")
        renderer.purpose = "sample"
        renderer.start(ffmpeg, ["-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=960x540:rate=25:duration=8",
                                "-vf", vf, "-c:v", "libx264", "-preset", "veryfast", "-crf", "18", "-g", "25",
                                "-pix_fmt", "yuv420p", mediaDir + "/sample.part.mp4"], true, true)
    }

    function openInput(path) {
        if (!path || !files.fileExists(path)) {
            fail("no video at " + path)
            return
        }
        player.pause()
        player.removePreviewSet(previewSet)
        inputUid += 1
        inputPath = path
        inputInfo = ({})
        previews = []
        previewRanges = []
        inMark = -1
        outMark = -1
        setStatus("Reading " + path)
        videoInfo.getVideoInfo(path, "input" + inputUid, mediaDir + "/thumbnails", ({}))
    }

    // ---- previews --------------------------------------------------------------
    function frameStart(ms) {
        const frame = Math.floor(Math.max(0, ms) * fps / 1000 + 1e-6)
        return Math.min(utils.convertFrameCountToMsec(frame, fps), lastFrame())
    }

    function lastFrame() {
        return utils.convertFrameCountToMsec(Math.max(0, utils.convertMsecToFrameCount(duration, fps) - 1), fps)
    }

    // ffmpeg wants the exact rate: 29.97 is 30000/1001, not 29.97.
    function rateText() {
        const ntsc = Math.round(fps * 1.001)
        return Math.abs(ntsc / 1.001 - fps) < 0.001 && Math.abs(Math.round(fps) - fps) > 0.001
                ? ntsc * 1000 + "/1001" : String(fps)
    }

    function renderPreview() {
        if (renderer.purpose !== "") {
            setStatus("A render is running already")
            return false
        }
        if (duration <= 0) {
            fail("no input to render")
            return false
        }
        if (inMark < 0)
            inMark = frameStart(host.inMark >= 0 ? host.inMark : duration / 3)
        if (outMark < inMark)
            outMark = frameStart(host.outMark >= 0 ? Math.max(host.outMark, inMark) : duration * 2 / 3)
        const frames = utils.convertMsecToFrameCount(outMark, fps) - utils.convertMsecToFrameCount(inMark, fps) + 1
        const stretch = utils.convertFrameCountToMsec(frames, fps)
        const factor = slowMotion ? 2 : 1
        const filter = filters[filterIndex]
        const uid = nextPreviewUid++
        const folder = mediaDir + "/previews"
        files.mkdir(folder)
        const out = folder + "/preview-" + inputUid + "-" + uid + ".mp4"
        // A millisecond early: the in mark is its frame's time rounded to the
        // millisecond, perhaps upwards, and ffmpeg drops every frame before the
        // seek point. The frame before lies a whole frame earlier.
        const seekFrom = Math.max(0, inMark - 1) / 1000
        const vf = filter.vf + (factor !== 1 ? ",setpts=" + factor + "*PTS" : "")
        // The player's stretches include both ends: a preview of `stretch` ms
        // from the in mark covers the in mark up to stretch - 1 ms after it, and
        // the input shows again from the next frame on.
        pendingRender = {uid: uid, path: out, start: inMark, end: outMark, duration: stretch - 1,
                         slowMotion: factor, filter: filter.name}
        setStatus("Rendering " + filter.name + (factor !== 1 ? " at slow motion " + factor : "") + " from "
                  + timecode(inMark) + " to " + timecode(outMark))
        renderer.purpose = "preview"
        renderer.start(ffmpeg, ["-v", "error", "-y", "-ss", seekFrom.toFixed(6), "-t", (stretch / 1000).toFixed(6),
                                "-i", inputPath, "-vf", vf, "-an", "-r", rateText(), "-c:v", "libx264",
                                "-preset", "veryfast", "-crf", "16", "-pix_fmt", "yuv420p", out], true, true)
        return true
    }

    function renderFinished(ok) {
        const purpose = renderer.purpose
        renderer.purpose = ""
        renderer.crashed = false
        const output = renderer.readAll()
        if (purpose === "sample") {
            const sample = mediaDir + "/sample.mp4"
            if (!ok || !files.dirRename(mediaDir + "/sample.part.mp4", sample)) {
                fail("ffmpeg could not make the sample: " + output)
                return
            }
            openInput(sample)
            return
        }
        const done = pendingRender
        pendingRender = null
        if (!ok || !done || !files.fileExists(done.path)) {
            fail("the preview render failed: " + output)
            return
        }
        const wasPlaying = player.isPlaying
        player.addPreview(previewSet, done.uid, 1, inputUid, done.path, done.start, done.duration, fps,
                          done.slowMotion, inputInfo.sar > 0 ? inputInfo.sar : 1, {isTerminated: true})
        done.label = "#" + done.uid + "  " + timecode(done.start) + " - " + timecode(done.end) + "  " + done.filter
                + (done.slowMotion !== 1 ? ", slow x" + done.slowMotion : "")
        previews = previews.concat([done])
        setStatus("Preview " + done.uid + " added: " + done.path)
        rangeWatch.expectMore(previewRanges.length, wasPlaying)
        applyLooping()
    }

    // The preview goes onto the timeline on the player's worker: its range
    // shows up a moment after addPreview returns.
    Timer {
        id: rangeWatch
        property int before: 0
        property int tries: 0
        property bool resume: false
        interval: 50
        repeat: true
        function expectMore(count, resumePlay) {
            before = count
            tries = 0
            resume = resumePlay
            start()
        }
        onTriggered: {
            root.refreshRanges()
            if (root.previewRanges.length > before || ++tries > 100) {
                stop()
                if (resume)
                    player.play()
                script.rangesChanged()
            }
        }
    }

    function refreshRanges() {
        const ranges = player.getPreviewRanges(previewSet)
        const list = []
        for (let i = 0; i < ranges.length; ++i)
            list.push({x: ranges[i].x, y: ranges[i].y})
        previewRanges = list
    }

    function previewAt(ms) {
        for (let i = previews.length - 1; i >= 0; --i) {
            if (previews[i].start <= ms && ms <= previews[i].start + previews[i].duration)
                return previews[i]
        }
        return null
    }

    // ---- transport and view -------------------------------------------------------
    function timecode(ms) {
        return utils.convertMsecToSmpte(Math.max(0, ms), fps)
    }

    // Every seek goes to a frame's start: mpv shows the first frame at or
    // after the target, so a target inside a frame would show the next one
    // while the timecode names this one.
    function seekTo(ms) {
        if (duration <= 0)
            return
        player.seek(frameStart(ms))
    }

    function pause() {
        player.pause()
        realign.restart()
    }

    // After a pause the player puts both panes back onto the input's position,
    // which playback leaves anywhere inside a frame: once that is done, the
    // panes go to the start of the frame the timecode shows.
    Timer {
        id: realign
        interval: 300
        onTriggered: {
            if (!player.isPlaying && root.position !== root.frameStart(root.position))
                root.seekTo(root.position)
        }
    }

    function applyLooping() {
        const ok = inMark >= 0 && outMark > inMark
        player.adjustInOutRange(loopInOut && ok, Qt.point(ok ? inMark : -1, ok ? outMark : -1))
        const last = previews.length > 0 ? previews[previews.length - 1].uid : -1
        player.toggleLoopingPreviews(loopPreview && last >= 0, loopPreview ? last : -1)
    }

    function applyView() {
        player.setMute(muted)
        player.setVolume(volume)
        player.setZoom(zoom)
        player.moveMPVPan(pan)
        applyCrop()
    }

    function applyCrop() {
        const w = inputInfo.width > 0 ? inputInfo.width : 0
        const h = inputInfo.height > 0 ? inputInfo.height : 0
        if (cropMode === 0 || w === 0 || h === 0)
            player.clearVideoCrop()
        else if (cropMode === 1)
            player.setVideoCrop(Math.round(w / 4), Math.round(h / 4), Math.round(w / 2), Math.round(h / 2))
        else
            player.setVideoCrop(0, 0, Math.round(w / 2), h)
    }

    function panBy(dx, dy) {
        pan = Qt.point(pan.x + dx, pan.y + dy)
        player.moveMPVPan(pan)
    }

    function followFrameView() {
        if (!player.isPlaying && frameView.isOpen)
            frameView.seek(position)
    }
    readonly property bool playing: player.isPlaying
    onPositionChanged: followFrameView()
    onPlayingChanged: followFrameView()
    onInMarkChanged: applyLooping()
    onOutMarkChanged: applyLooping()
    onLoopInOutChanged: applyLooping()
    onLoopPreviewChanged: applyLooping()
    onMutedChanged: player.setMute(muted)
    onVolumeChanged: player.setVolume(volume)
    onZoomChanged: player.setZoom(zoom)
    onCropModeChanged: applyCrop()
    onFilterIndexChanged: sidePanel.live.filterChanged(filters[filterIndex].vf)

    function act(action, direction) {
        switch (action) {
        case "playPause": player.isPlaying ? pause() : player.play(); break
        case "stepForward": player.next(); break
        case "stepBackward": player.prev(); break
        case "forward": seekTo(position + 1000); break
        case "back": seekTo(position - 1000); break
        case "start": seekTo(0); break
        case "markIn": inMark = frameStart(position); if (outMark >= 0 && outMark < inMark) outMark = -1; break
        case "markOut": outMark = frameStart(position); if (inMark > outMark) inMark = -1; break
        case "loopInOut": loopInOut = !loopInOut; break
        case "render": renderPreview(); break
        case "slowMotion": slowMotion = !slowMotion; break
        case "filter": filterIndex = (filterIndex + 1) % filters.length; break
        case "loopPreview": loopPreview = !loopPreview; break
        case "live": sidePanel.live.toggle(); break
        case "mute": muted = !muted; break
        case "volume": volume = Math.max(0, Math.min(100, volume + 10 * direction)); break
        case "zoom": zoom = Math.max(1, Math.min(8, zoom * (direction > 0 ? 1.25 : 0.8))); break
        case "resetView": zoom = 1; pan = Qt.point(0, 0); player.moveMPVPan(pan); break
        case "crop": cropMode = (cropMode + 1) % cropModes.length; break
        case "open": openDialog.open(); break
        case "help": helpShown = !helpShown; break
        case "quit": Qt.quit(); break
        }
    }

    // ---- script steps ------------------------------------------------------------
    // The command line's steps (--script, --screenshot): each one starts when
    // the one before it is done, so a screenshot shows a settled picture.
    //   in MS | out MS | slowmo on|off | filter N | render | seek MS|middle
    //   play | pause | step N | wait MS | loop on|off | loop-preview on|off
    //   zoom X | crop N | sequence | cloud | shot FILE | quit [CODE]
    //   event NAME | flags | identity | update | live on|off | wait-live
    QtObject {
        id: script
        property var steps: []
        property int index: -1
        property bool running: false
        property string waiting: ""
        property int target: -1
        property bool begun: false

        function begin() {
            if (begun)
                return
            begun = true
            steps = root.host.steps
            if (steps.length === 0)
                return
            running = true
            index = -1
            advance()
        }

        function abort(message) {
            running = false
            stepTimeout.stop()
            root.host.report("script stopped at step " + (index + 1) + ": " + message)
            root.host.quit(3)
        }

        function done() {
            waiting = ""
            stepTimeout.stop()
            // Not from inside the handler that finished the step.
            nextStep.start()
        }

        function advance() {
            if (!running)
                return
            if (++index >= steps.length) {
                running = false
                return
            }
            const step = steps[index]
            const verb = step.split(" ")[0]
            const arg = step.substring(verb.length).trim()
            root.host.report("step " + (index + 1) + ": " + step)
            stepTimeout.restart()
            switch (verb) {
            case "in": root.inMark = root.frameStart(Number(arg)); done(); break
            case "out": root.outMark = root.frameStart(Number(arg)); done(); break
            case "slowmo": root.slowMotion = arg !== "off"; done(); break
            case "filter": root.filterIndex = Math.max(0, Math.min(root.filters.length - 1, Number(arg))); done(); break
            case "loop": root.loopInOut = arg !== "off"; done(); break
            case "loop-preview": root.loopPreview = arg !== "off"; done(); break
            case "zoom": root.zoom = Number(arg) > 0 ? Number(arg) : 1; done(); break
            case "crop": root.cropMode = Number(arg) % root.cropModes.length; done(); break
            case "render":
                waiting = "render"
                if (!root.renderPreview())
                    abort("cannot render")
                break
            case "seek": {
                let ms = Number(arg)
                if (arg === "middle") {
                    const last = root.previews[root.previews.length - 1]
                    ms = last ? (last.start + last.end) / 2 : root.duration / 2
                }
                // The start of the frame that the position falls in: mpv shows
                // the first frame at or after a seek's target, so a target inside
                // a frame would show the next one.
                target = root.frameStart(ms)
                waiting = "seek"
                settle.arm()
                root.seekTo(target)
                break
            }
            case "step": {
                const n = Number(arg) || 1
                for (let i = 0; i < Math.abs(n); ++i)
                    n > 0 ? player.next() : player.prev()
                waiting = "quiet"
                settle.arm()
                break
            }
            case "play": player.play(); done(); break
            case "machine": root.host.report(sidePanel.machine.report()); done(); break
            case "pause":
                // Paused, then realigned on a frame's start (see realign): that
                // is a seek, and the step waits for it as for one.
                player.pause()
                waiting = "pause"
                settle.arm()
                break
            case "wait": waitTimer.interval = Math.max(0, Number(arg)); waitTimer.start(); break
            case "shot": {
                const ok = root.host.grabWindow(root, arg)
                if (!ok) {
                    abort("could not write " + arg)
                    return
                }
                files.saveToFile(arg + ".json", JSON.stringify(root.describe(), null, 1))
                root.host.report("screenshot written to " + arg)
                done()
                break
            }
            case "sequence": sidePanel.sequencePanel.start((ok, text) => ok ? done() : abort(text)); break
            case "cloud": waiting = "render"; if (!sidePanel.cloud.start()) abort("no cloud service"); break
            case "quit": root.host.quit(Number(arg) || 0); running = false; break
            case "event": sidePanel.telemetry.sendEvent(arg, script.hooks()); break
            case "flags": sidePanel.telemetry.readFlags(script.hooks()); break
            case "identity": sidePanel.telemetry.repairIdentity(script.hooks()); break
            case "update": sidePanel.telemetry.checkForUpdates(script.hooks()); break
            case "models": sidePanel.models.start(script.hooks()); break
            case "live": sidePanel.live.setLive(arg !== "off", script.hooks()); break
            case "wait-live": sidePanel.live.waitLive(script.hooks()); break
            default: abort("unknown step \"" + step + "\"")
            }
        }

        // For steps that report, finish or fail from a panel of their own.
        function hooks() {
            return {report: root.setStatus, done: () => script.done(), fail: text => script.abort(text)}
        }

        function rangesChanged() {
            if (waiting === "render")
                done()
        }
    }

    Timer {
        id: nextStep
        interval: 0
        onTriggered: script.advance()
    }

    Timer {
        id: waitTimer
        onTriggered: script.done()
    }

    Timer {
        id: stepTimeout
        interval: 30000
        onTriggered: script.abort("timed out; the input stands at " + root.position + ", the panes report "
                                  + JSON.stringify(panes.time) + ", seeking " + JSON.stringify(panes.seeking))
    }

    // A seek is done when the input stands on the target, both panes have
    // stopped seeking and stand on the frame the target names in their own
    // files, and they have been quiet for a moment (mpv has drawn by then).
    QtObject {
        id: panes
        property var time: [-1, -1]
        property var seeking: [false, false]

        function report(id, pos) {
            const t = time.slice()
            t[id] = pos
            time = t
            settle.poke()
        }
        function setSeeking(id, value) {
            const s = seeking.slice()
            s[id] = value
            seeking = s
            settle.poke()
        }
        // Where a pane's own file should stand for position `t` of the input.
        function expected(id, t) {
            if (id === 1 && player.previewExistsAtTimestampInPS(root.previewSet, t)) {
                const p = root.previewAt(t) || sidePanel.live.previewAt(t)
                if (p)
                    return Math.floor((t - p.start) * p.slowMotion)
            }
            return t
        }
        function standsOn(id, t) {
            const want = expected(id, t)
            // mpv reports the time of the frame it shows; a target rounded to
            // the millisecond may lie a little off it.
            return !seeking[id] && Math.abs(time[id] - want) <= 2
        }
    }

    Connections {
        target: leftPane
        function onTimePosFullChanged(mpvID, pos, isEOF) { panes.report(0, pos) }
        function onSeekingChanged(mpvID, value) { panes.setSeeking(0, value) }
    }
    Connections {
        target: rightPane
        function onTimePosFullChanged(mpvID, pos, isEOF) { panes.report(1, pos) }
        function onSeekingChanged(mpvID, value) { panes.setSeeking(1, value) }
    }

    Timer {
        id: settle
        interval: 400
        function arm() { restart() }
        function poke() { if (running) restart() }
        onTriggered: {
            if (script.waiting === "quiet") {
                script.done()
                return
            }
            if (script.waiting === "pause") {
                script.target = root.frameStart(root.position)
                script.waiting = "seek"
                root.seekTo(script.target)
                restart()
                return
            }
            if (script.waiting !== "seek")
                return
            if (root.position === script.target && panes.standsOn(0, script.target) && panes.standsOn(1, script.target))
                script.done()
            else
                restart()
        }
    }

    // What a screenshot shows, for whoever checks it: where the panes are and
    // what the player says.
    function describe() {
        const dpr = Screen.devicePixelRatio
        const rectOf = item => {
            const p = item.mapToItem(null, 0, 0)
            return [Math.round(p.x * dpr), Math.round(p.y * dpr), Math.round(item.width * dpr),
                    Math.round(item.height * dpr)]
        }
        return {
            position: position,
            fps: fps,
            duration: duration,
            inMark: inMark,
            outMark: outMark,
            leftPane: rectOf(leftPane),
            rightPane: rectOf(rightPane),
            previewRanges: previewRanges,
            previews: previews.map(p => ({uid: p.uid, start: p.start, duration: p.duration,
                                          slowMotion: p.slowMotion, filter: p.filter})),
            paneTimes: panes.time,
            input: inputPath
        }
    }

    // ---- the scene -------------------------------------------------------------------
    header: ToolBar {
        RowLayout {
            anchors.fill: parent
            anchors.leftMargin: 8
            anchors.rightMargin: 8
            spacing: 6
            ToolButton { text: "Open"; onClicked: root.act("open", 1) }
            ToolButton { text: player.isPlaying ? "Pause" : "Play"; onClicked: root.act("playPause", 1) }
            ToolButton { text: "\u25C0|"; onClicked: root.act("stepBackward", 1) }
            ToolButton { text: "|\u25B6"; onClicked: root.act("stepForward", 1) }
            ToolSeparator {}
            ToolButton { text: "In"; onClicked: root.act("markIn", 1) }
            ToolButton { text: "Out"; onClicked: root.act("markOut", 1) }
            CheckBox { text: "Loop in/out"; checked: root.loopInOut; onToggled: root.loopInOut = checked }
            ToolSeparator {}
            ComboBox {
                model: root.filters.map(f => f.name)
                currentIndex: root.filterIndex
                onActivated: index => root.filterIndex = index
            }
            CheckBox { text: "Slow x2"; checked: root.slowMotion; onToggled: root.slowMotion = checked }
            Button {
                text: renderer.purpose === "preview" ? "Rendering..." : "Render preview"
                enabled: renderer.purpose === "" && root.duration > 0
                onClicked: root.act("render", 1)
            }
            CheckBox { text: "Loop preview"; checked: root.loopPreview; onToggled: root.loopPreview = checked }
            ToolSeparator {}
            CheckBox { text: "Mute"; checked: root.muted; onToggled: root.muted = checked }
            Slider {
                Layout.preferredWidth: 80
                from: 0; to: 100; stepSize: 1
                value: root.volume
                onMoved: root.volume = value
            }
            Label { text: "Zoom" }
            Slider {
                Layout.preferredWidth: 80
                from: 1; to: 8
                value: root.zoom
                onMoved: root.zoom = value
            }
            ComboBox {
                model: root.cropModes
                currentIndex: root.cropMode
                onActivated: index => root.cropMode = index
            }
            Item { Layout.fillWidth: true }
            ToolButton { text: "?"; onClicked: root.act("help", 1) }
        }
    }

    RowLayout {
        anchors.fill: parent
        spacing: 0

        ColumnLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.margins: 8
            spacing: 6

            RowLayout {
                Layout.fillWidth: true
                Layout.fillHeight: false
                spacing: 8
                Label {
                    Layout.fillWidth: true
                    Layout.preferredWidth: 1
                    text: "Input"
                    color: "#c9d1d9"
                }
                Label {
                    readonly property var rendered: root.previewAt(root.position)
                    readonly property var shown: rendered || (sidePanel.live ? sidePanel.live.previewAt(root.position) : null)
                    Layout.fillWidth: true
                    Layout.preferredWidth: 1
                    text: "Preview set " + root.previewSet
                          + (rendered ? ": preview #" + rendered.uid : shown ? ": live chunk" : ": input here")
                    color: shown ? "#e0913a" : "#c9d1d9"
                }
            }
            // The panes are native windows that mpv draws into: nothing of the
            // scene may lie over them.
            RowLayout {
                id: paneRow
                Layout.fillWidth: true
                Layout.fillHeight: false
                // 16:9 panes in the width that the side panel leaves.
                Layout.preferredHeight: Math.round((root.width - sidePanel.width - 24) / 2 * 9 / 16)
                spacing: 8
                Rectangle {
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    color: "black"
                    MPVObject { id: leftPane; anchors.fill: parent }
                }
                Rectangle {
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    color: "black"
                    MPVObject { id: rightPane; anchors.fill: parent }
                }
            }

            TimelineStrip {
                Layout.fillWidth: true
                duration: root.duration
                position: root.position
                inMark: root.inMark
                outMark: root.outMark
                loopInOut: root.loopInOut
                ranges: root.previewRanges
                startLabel: root.timecode(0)
                endLabel: root.timecode(root.duration)
                onSeekRequested: ms => root.seekTo(ms)
            }

            RowLayout {
                Layout.fillWidth: true
                Layout.fillHeight: false
                spacing: 10
                Rectangle {
                    Layout.alignment: Qt.AlignTop
                    Layout.preferredHeight: 200
                    Layout.preferredWidth: 356
                    color: "black"
                    VideoOutput {
                        id: frameOutput
                        anchors.fill: parent
                    }
                }
                ColumnLayout {
                    Layout.alignment: Qt.AlignTop
                    Label { text: "Frame by frame (no mpv)"; color: "#c9d1d9"; font.bold: true }
                    Label {
                        text: frameView.isOpen ? root.timecode(frameView.timestamp) + "  frame "
                                                 + utils.convertMsecToFrameCount(frameView.timestamp, root.fps)
                                               : "closed"
                        color: "white"
                        font.family: "monospace"
                    }
                    RowLayout {
                        Button { text: "|<"; onClicked: frameView.first() }
                        Button { text: "<"; onClicked: frameView.stepBackward() }
                        Button { text: ">"; onClicked: frameView.stepForward() }
                        Button { text: ">|"; onClicked: frameView.last() }
                    }
                    Button {
                        text: "Seek players here"
                        enabled: frameView.isOpen
                        onClicked: root.seekTo(frameView.timestamp)
                    }
                }
                Item { Layout.fillWidth: true }
            }
            Item { Layout.fillHeight: true }
        }

        SidePanel {
            id: sidePanel
            Layout.fillHeight: true
            Layout.preferredWidth: 300
            fileName: root.inputPath ? files.getFileName(root.inputPath) : ""
            info: root.inputInfo
            codecName: root.inputInfo.codecId !== undefined ? videoInfo.getCodecName(root.inputInfo.codecId) : ""
            timecode: root.timecode(root.position)
            frameNumber: utils.convertMsecToFrameCount(root.position, root.fps)
            inText: root.inMark >= 0 ? root.timecode(root.inMark) : "-"
            outText: root.outMark >= 0 ? root.timecode(root.outMark) : "-"
            previews: root.previews
            status: root.status
            playing: player.isPlaying
            demo: root
            machine.outputFolder: root.mediaDir + "/previews"
            machine.rendering: renderer.purpose === "preview"
        }
    }
}
