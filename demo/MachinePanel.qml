import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import kutils 1.0

// What the plugin knows of this machine, and a switch that keeps it awake
// while a render runs.
ColumnLayout {
    id: machine

    // Set by the window: where renders write, and whether one runs.
    property string outputFolder: ""
    property bool rendering: false

    property bool keepAwake: true
    property var facts: null
    property string freeText: "-"

    spacing: 3

    TFileManager { id: files }

    // Made after the example catalogue is in place, so its model map has it.
    Loader {
        id: utilsLoader
        active: false
        sourceComponent: KUtils {}
        onLoaded: machine.refresh()
    }

    function utils() {
        return utilsLoader.item
    }

    // The text of the script step `machine`.
    function report() {
        return utils() ? utils().systemInfo() : "machine facts not ready"
    }

    function refresh() {
        const u = utils()
        if (!u)
            return
        const gpus = u.getGpuNames().map((name, i) => name + " (" + Number(u.getGpuSizes()[i]).toFixed(1) + " GiB)")
        facts = {
            cpu: u.getCpuName(),
            memory: u.getCpuSize().toFixed(1) + " GiB",
            gpus: gpus.length > 0 ? gpus.join(", ") : "none",
            processes: String(u.maxProcesses),
            models: Object.keys(u.modelsInfo).join(", ") || "none"
        }
        const folder = outputFolder || files.defaultFolderPath("demo")
        freeText = (u.getDiskSpace(folder) / 1073741824).toFixed(1) + " GiB"
            + (u.checkDiskSpace(folder) ? " (low)" : "")
    }

    function applySleep() {
        const u = utils()
        if (!u)
            return
        if (keepAwake && rendering)
            u.disableSleep()
        else
            u.enableSleep()
    }

    onRenderingChanged: { applySleep(); refresh() }
    onKeepAwakeChanged: applySleep()
    onOutputFolderChanged: refresh()

    Component.onCompleted: {
        const catalogue = files.defaultModelFolderPath() + "/models.json"
        if (!files.fileExists(catalogue))
            files.fileCopy(":/demo/models/models.json", catalogue)
        utilsLoader.active = true
    }

    Text {
        text: "Machine"
        color: "#e0913a"
        font.pixelSize: 13
        font.bold: true
    }
    Repeater {
        model: machine.facts ? [
            ["CPU", machine.facts.cpu],
            ["Memory", machine.facts.memory],
            ["GPUs", machine.facts.gpus],
            ["Processes", machine.facts.processes],
            ["Free at output", machine.freeText],
            ["Models", machine.facts.models]
        ] : []
        delegate: Row {
            required property var modelData
            spacing: 8
            Text { width: 100; text: parent.modelData[0]; color: "#9aa3ad"; font.pixelSize: 12 }
            Text { width: 170; text: parent.modelData[1]; color: "white"; font.pixelSize: 12; elide: Text.ElideRight }
        }
    }
    Row {
        spacing: 6
        Switch {
            id: awake
            checked: machine.keepAwake
            onToggled: machine.keepAwake = checked
        }
        Text {
            anchors.verticalCenter: awake.verticalCenter
            text: "Keep awake while rendering"
            color: "white"
            font.pixelSize: 12
        }
    }
}
