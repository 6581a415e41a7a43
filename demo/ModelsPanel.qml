import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import kutils 1.0

// The model files the preferred device needs, fetched from the model host that
// scripts/run-demo.sh starts, verified, and counted as they land in the model
// folder.
ColumnLayout {
    id: modelsPanel

    property var hooks: null
    property bool busy: false
    property string message: ""
    property int existing: 0

    spacing: 4

    function refresh() {
        existing = config.getExistingFilesNameList().length
    }

    // Downloads the preferred device's files; `stepHooks` (report, done, fail)
    // hear the end. False when there is nothing to fetch.
    function start(stepHooks) {
        hooks = stepHooks || null
        const wanted = config.getSupportedModelIdToFilesNameListMap(-2)
        let count = 0
        for (const id in wanted)
            count += wanted[id].length
        if (count === 0) {
            finish(false, "the catalogue names no files for this machine")
            return false
        }
        busy = true
        message = "downloading " + count + " files"
        config.downloadModelFiles(wanted)
        return true
    }

    function finish(ok, text) {
        busy = false
        refresh()
        message = ok ? config.completedDownloadTaskCount + " of " + config.totalDownloadTaskCount
                       + " files downloaded and verified" : "failed: " + text
        const h = hooks
        hooks = null
        if (!h)
            return
        h.report("Models: " + message)
        ok ? h.done() : h.fail("models: " + text)
    }

    XModelConfiguration {
        id: config
        onDownloadExited: (succeeded, errorMessage) => modelsPanel.finish(succeeded, errorMessage)
    }

    Component.onCompleted: refresh()

    Text {
        text: "Models"
        color: "#8fd18f"
        font.pixelSize: 13
        font.bold: true
    }
    RowLayout {
        Button { text: "Download"; enabled: !modelsPanel.busy; onClicked: modelsPanel.start(null) }
        Button { text: "Stop"; enabled: modelsPanel.busy; onClicked: { config.stopDownloading(); modelsPanel.busy = false } }
    }
    ProgressBar {
        Layout.fillWidth: true
        from: 0
        to: Math.max(1, config.totalDownloadTaskCount)
        value: config.completedDownloadTaskCount
    }
    Text {
        Layout.fillWidth: true
        text: modelsPanel.existing + " model files on disk" + (modelsPanel.message !== "" ? "; " + modelsPanel.message : "")
        color: "#c9d1d9"
        font.pixelSize: 12
        wrapMode: Text.Wrap
    }
}
