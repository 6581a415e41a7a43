import QtQuick
import QtQuick.Window
import QtQuick.Controls
import QtQuick.Layouts
import kutils 1.0

// A cloud render of the whole input through CloudAPI: register, estimate,
// upload in chunks, poll, download, and the result laid over the whole input
// on the right pane's preview set. The service is the one that
// `scripts/run-demo.sh --cloud` starts; its ready line (endpoints and token)
// lies in the media folder.
ColumnLayout {
    id: cloudPanel

    // The demo's window: its input, media folder and preview bookkeeping.
    readonly property var app: Window.window
    readonly property string serviceFile: app ? app.mediaDir + "/cloud-standin.json" : ""
    property string token: ""
    property int jobUid: 0
    property string phase: "idle"
    property int chunksDone: 0
    property int chunkCount: 0
    property string outputPath: ""
    property string message: ""

    spacing: 4

    function service() {
        const ready = files.fileExists(serviceFile) ? files.readJsonObject(serviceFile) : ({})
        token = ready.token !== undefined ? ready.token : ""
        if (token === "")
            message = "No cloud service: start the demo with scripts/run-demo.sh --cloud"
        return token !== ""
    }

    function description() {
        const info = app.inputInfo
        return {duration: info.duration, frameCount: Math.round(info.duration * app.fps / 1000),
                fps: app.fps, inputWidth: info.width, inputHeight: info.height, outputWidth: info.width,
                outputHeight: info.height, outputFps: app.fps, outputExtension: "mp4", audioBitrate: "",
                audioCodec: "", audioMode: "", videoEncoder: "libx264", videoProfile: "high", videoBitrate: "8M",
                dynamicBitrateOn: false, cropToFit: false, filtersStr: "[{\"model\":\"demo-1\"}]"}
    }

    function estimate() {
        if (!service() || app.inputPath === "")
            return
        const values = cloud.getEstimates(token, app.inputPath, description())
        message = "Estimate: " + values[0] + " credits, about " + values[1] + " s"
    }

    // Registers a new job for the whole input and sends it; false when there is no service or input.
    function start() {
        if (!service() || app.inputPath === "" || app.duration <= 0)
            return false
        cloud.setAuth(token, false)
        jobUid = app.nextPreviewUid++
        outputPath = app.mediaDir + "/previews/cloud-" + jobUid + ".mp4"
        files.mkdir(app.mediaDir + "/previews")
        chunksDone = 0
        chunkCount = 0
        phase = "upload"
        cloud.registerExport(jobUid, "", app.inputPath, token, description(), outputPath, "")
        cloud.runAndAccept(app.inputPath, description(), jobUid)
        return true
    }

    // The result goes onto the preview set as a finished render of the whole input does.
    function finished(output) {
        phase = "done"
        app.pendingRender = {uid: jobUid, path: output, start: 0, end: app.duration, duration: app.duration - 1,
                             slowMotion: 1, filter: "cloud render"}
        app.renderFinished(true)
    }

    TFileManager { id: files }

    CloudAPI {
        id: cloud
        appVersion: "demo"
        onStatusAvailable: (status, progress, text, uid) => {
            if (uid !== cloudPanel.jobUid)
                return
            cloudPanel.message = text
            const chunk = /^Uploaded chunk (\d+) \/ (\d+)$/.exec(text)
            if (chunk) {
                cloudPanel.chunksDone = Number(chunk[1])
                cloudPanel.chunkCount = Number(chunk[2])
            }
            if (status === "processing" && cloudPanel.phase === "upload")
                cloudPanel.phase = "render"
        }
        onDownloadAvailable: (url, uid) => {
            if (uid === cloudPanel.jobUid && cloudPanel.phase === "render") {
                cloudPanel.phase = "download"
                cloud.download(uid)
            }
        }
        onDownloadDone: (uid, output) => {
            if (uid === cloudPanel.jobUid)
                cloudPanel.finished(output)
        }
        onErrorHit: (uid, title, details) => {
            if (uid === cloudPanel.jobUid)
                app.fail("cloud: " + title + " " + details)
        }
        onPreRequestErrorHit: (title, details) => app.fail("cloud: " + title + " " + details)
    }

    // The polling interval is the front end's.
    Timer {
        interval: 500
        repeat: true
        running: cloudPanel.phase === "render"
        onTriggered: cloud.getStatus(cloudPanel.jobUid)
    }

    Text {
        text: "Cloud render"
        color: "#7ab8e0"
        font.pixelSize: 13
        font.bold: true
    }
    RowLayout {
        Button { text: "Estimate"; onClicked: cloudPanel.estimate() }
        Button { text: "Render all"; enabled: cloudPanel.phase === "idle" || cloudPanel.phase === "done"; onClicked: cloudPanel.start() }
    }
    ProgressBar {
        Layout.fillWidth: true
        from: 0
        to: Math.max(1, cloudPanel.chunkCount)
        value: cloudPanel.chunksDone
    }
    Text {
        Layout.fillWidth: true
        text: cloudPanel.phase + (cloudPanel.message !== "" ? ": " + cloudPanel.message : "")
        color: "#c9d1d9"
        font.pixelSize: 12
        wrapMode: Text.Wrap
    }
}
