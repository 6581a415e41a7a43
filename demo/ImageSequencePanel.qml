import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import kutils 1.0

// A short stretch at the playhead as an image sequence: ffmpeg exports it as
// PNG frames, oiiotool converts them to half-float EXR at 2.5 times their
// brightness while the bar follows the frames on disk, then the EXR range is
// tested, squeezed into 0..1 and stretched back in place.
ColumnLayout {
    id: sequencePanel

    // The demo window: input, playhead, media folder, ffmpeg.
    property var demo: null
    property int frameCount: 8
    property string stage: ""
    property var log: []
    property int completed: 0
    property int spawned: 0
    property string convertKey: ""
    property string normalizeKey: ""
    property real scannedMax: 1
    // Called with true or false and a text when a run ends (the script step).
    property var endCallback: null

    readonly property string folder: demo ? demo.mediaDir + "/sequence" : ""
    readonly property string pngFirst: folder + "/png/frame_000001.png"
    readonly property string exrFirst: folder + "/exr/frame_000001.exr"
    readonly property string normalizedFirst: folder + "/normalized/frame_000001.exr"

    spacing: 4

    function note(text) {
        log = log.concat([text])
        if (demo)
            demo.setStatus("Image sequence: " + text)
    }

    function finish(ok, text) {
        note(text)
        // Cleared first: closing a running key reports a forced close.
        stage = ""
        for (const key of [convertKey, normalizeKey])
            converter.closeKey(key)
        convertKey = ""
        normalizeKey = ""
        const ended = endCallback
        endCallback = null
        if (ended)
            ended(ok, text)
    }

    function start(whenEnded) {
        if (stage !== "") {
            if (whenEnded)
                whenEnded(false, "a run is in progress")
            return
        }
        endCallback = whenEnded || null
        log = []
        completed = 0
        spawned = 0
        if (!demo || demo.inputPath === "") {
            finish(false, "no input open")
            return
        }
        seqFiles.dirRemove(folder)
        for (const sub of ["/png", "/exr", "/normalized"])
            seqFiles.mkdir(folder + sub)
        stage = "export"
        const seconds = (demo.position / 1000).toFixed(3)
        note("exporting " + frameCount + " frames from " + seconds + " s")
        exporter.start(demo.ffmpeg, ["-v", "error", "-y", "-ss", seconds, "-i", demo.inputPath, "-frames:v",
                                     String(frameCount), "-vf", "scale=320:-2", "-start_number", "1",
                                     folder + "/png/frame_%06d.png"], true, false)
    }

    function exported(ok) {
        if (stage !== "export")
            return
        if (!ok) {
            finish(false, "ffmpeg could not export the frames")
            return
        }
        stage = "convert"
        convertKey = seqFiles.makeFormatString(pngFirst)
        note("converting to EXR")
        // Brighter than white, so that the EXR frames are wide range.
        converter.convert(false, pngFirst, exrFirst, "", "--mulc 2.5 -d half -o", "")
    }

    function progressed() {
        const key = stage === "convert" ? convertKey : stage === "normalize" ? normalizeKey : ""
        if (key === "")
            return
        completed = converter.getCompleted(key)
        spawned = converter.getSpawned(key)
        // oiiotool writes each frame under a temporary name and renames it,
        // so a frame on disk is whole. The key stays open until the run ends:
        // closing it would stop a tool that is only exiting.
        if (spawned < 1 || completed < spawned)
            return
        if (stage === "convert") {
            stage = "range"
            note(spawned + " EXR frames written; testing the range")
            converter.exrIsWideRange(exrFirst)
        } else {
            scannedMax = converter.getScannedMax(key)
            stage = "stretch"
            note("normalised by " + scannedMax.toFixed(4) + "; stretching back")
            stretcher.stretchExr(normalizedFirst, 0, scannedMax)
            stretchWatch.start()
        }
    }

    function rangeTested(wide) {
        if (stage !== "range")
            return
        note(wide ? "wide range: values above 1.0" : "not wide range")
        stage = "normalize"
        normalizeKey = seqFiles.makeFormatString(exrFirst)
        completed = 0
        converter.normalizeExr(exrFirst, normalizedFirst)
    }

    TFileManager { id: seqFiles }

    TProcess {
        id: exporter
        onFinished: exitCode => sequencePanel.exported(exitCode === 0)
        onErrorOccurred: error => {
            if (error === 0)
                sequencePanel.exported(false)
        }
    }

    ImageSequenceConverter {
        id: converter
        onSubprocessCompleted: sequencePanel.progressed()
        onProcessForcedClose: {
            if (sequencePanel.stage !== "")
                sequencePanel.finish(false, "oiiotool stopped at the " + sequencePanel.stage + " stage")
        }
        onExrRangeCheckCompleted: status => sequencePanel.rangeTested(status)
    }

    // A converter of its own, whose signals cannot be the late ones of a
    // conversion: a stretch reports only its failure.
    ImageSequenceConverter {
        id: stretcher
        onSubprocessCompleted: {
            if (sequencePanel.stage === "stretch")
                sequencePanel.finish(false, "the stretch failed; the normalised frames are kept")
        }
        onProcessForcedClose: {
            if (sequencePanel.stage !== "")
                sequencePanel.finish(false, "oiiotool stopped at the " + sequencePanel.stage + " stage")
        }
        onExrRangeCheckCompleted: wide => {
            if (sequencePanel.stage === "verify")
                sequencePanel.finish(wide, wide ? "round trip done: the stretched frames are wide range again"
                                                : "the stretched frames stayed in 0..1")
        }
    }

    // A stretch is done once its temporary folder has gone.
    Timer {
        id: stretchWatch
        interval: 200
        repeat: true
        onTriggered: {
            if (sequencePanel.stage !== "stretch") {
                stop()
                return
            }
            if (seqFiles.dirExists(sequencePanel.folder + "/normalized/tmp_stretch"))
                return
            stop()
            sequencePanel.stage = "verify"
            stretcher.exrIsWideRange(sequencePanel.normalizedFirst)
        }
    }

    Text {
        text: "Image sequence"
        color: "#e0913a"
        font.pixelSize: 13
        font.bold: true
    }
    Button {
        Layout.fillWidth: true
        text: sequencePanel.stage === "" ? "Export " + sequencePanel.frameCount + " frames and round-trip"
                                         : "Working: " + sequencePanel.stage
        enabled: sequencePanel.stage === "" && sequencePanel.demo !== null && sequencePanel.demo.inputPath !== ""
        onClicked: sequencePanel.start(null)
    }
    ProgressBar {
        Layout.fillWidth: true
        from: 0
        to: Math.max(1, sequencePanel.spawned)
        value: sequencePanel.completed
    }
    Text {
        Layout.fillWidth: true
        text: sequencePanel.log.slice(-4).join("\n")
        color: "#c9d1d9"
        font.pixelSize: 11
        wrapMode: Text.Wrap
    }
}
