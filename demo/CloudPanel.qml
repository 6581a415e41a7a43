import QtQuick
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

    readonly property string serviceFile: root.mediaDir + "/cloud-standin.json"
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
        const info = root.inputInfo
        return {duration: info.duration, frameCount: utils.convertMsecToFrameCount(info.duration, root.fps),
                fps: root.fps, inputWidth: info.width, inputHeight: info.height, outputWidth: info.width,
                outputHeight: info.height, outputFps: root.fps, outputExtension: "mp4", audioBitrate: "",
                audioCodec: "", audioMode: "", videoEncoder: "libx264", videoProfile: "high", videoBitrate: "8M",
                dynamicBitrateOn: false, cropToFit: false, filtersStr: "[{\"model\":\"demo-1\"}]"}
    }

    function estimate() {
        if (!service() || root.inputPath === "")
            return
        const values = cloud.getEstimates(token, root.inputPath, description())
        message = "Estimate: " + values[0] + " credits, about " + values[1] + " s"
    }

    // Registers a new job for the whole input and sends it; false when there is no service or input.
    function start() {
        if (!service() || root.inputPath === "" || root.duration <= 0)
            return false
        cloud.setAuth(token, false)
        jobUid = root.nextPreviewUid++
        outputPath = root.mediaDir + "/previews/cloud-" + jobUid + ".mp4"
        files.mkdir(root.mediaDir + "/previews")
        chunksDone = 0
        chunkCount = 0
        phase = "upload"
        cloud.registerExport(jobUid, "", root.inputPath, token, description(), outputPath, "")
        cloud.runAndAccept(root.inputPath, description(), jobUid)
        return true
    }

    function finished(output) {
        phase = "done"
        const wasPlaying = player.isPlaying
        const done = {uid: jobUid, path: output, start: 0, end: root.duration, duration: root.duration - 1,
                      slowMotion: 1, filter: "cloud"}
        player.addPreview(root.previewSet, done.uid, 1, root.inputUid, output, 0, done.duration, root.fps, 1,
                          root.inputInfo.sar > 0 ? root.inputInfo.sar : 1, {isTerminated: true})
        done.label = "#" + done.uid + "  the whole input, rendered in the cloud"
        root.previews = root.previews.concat([done])
        root.setStatus("Cloud result laid over the whole input: " + output)
        rangeWatch.expectMore(root.previewRanges.length, wasPlaying)
    }

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
                root.fail("cloud: " + title + " " + details)
        }
        onPreRequestErrorHit: (title, details) => root.fail("cloud: " + title + " " + details)
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
