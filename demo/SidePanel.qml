import QtQuick
import QtQuick.Layouts

// What the open input is: its thumbnail and information map, where the
// playhead stands as a timecode, the marks, the previews and the last news.
Rectangle {
    id: panel

    property string fileName: ""
    property var info: ({})
    property string codecName: ""
    property string timecode: "--:--:--:--"
    property int frameNumber: 0
    property string inText: "-"
    property string outText: "-"
    property var previews: []
    property string status: ""
    property bool playing: false
    property alias telemetry: telemetryPanel
    property var demo: null
    readonly property alias sequencePanel: sequencePanel
    property alias machine: machinePanel
    property alias cloud: cloudPanel
    property alias models: modelsPanel
    property alias live: livePanel

    color: "#23272d"
    implicitWidth: 300

    function sizeText(info) {
        if (info.width > 0 && info.height > 0)
            return info.width + " x " + info.height
        return info.size !== undefined ? String(info.size) : "-"
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 12
        spacing: 8

        Rectangle {
            Layout.fillWidth: true
            Layout.preferredHeight: width * 9 / 16
            color: "#15181b"
            Image {
                anchors.fill: parent
                anchors.margins: 2
                fillMode: Image.PreserveAspectFit
                source: panel.info.thumbnail !== undefined ? panel.info.thumbnail : ""
                asynchronous: true
                cache: false
            }
        }

        Text {
            Layout.fillWidth: true
            text: panel.fileName || "no input"
            color: "white"
            font.pixelSize: 15
            font.bold: true
            elide: Text.ElideMiddle
        }

        Text {
            text: panel.timecode
            color: panel.playing ? "#a7e07a" : "white"
            font.family: "monospace"
            font.pixelSize: 30
        }
        Text {
            text: "frame " + panel.frameNumber
            color: "#9aa3ad"
            font.pixelSize: 13
        }

        Column {
            Layout.fillWidth: true
            spacing: 3
            Repeater {
                model: [
                    ["Size", panel.sizeText(panel.info)],
                    ["Frame rate", panel.info.fps !== undefined ? Number(panel.info.fps).toFixed(3) + " fps" : "-"],
                    ["Duration", panel.info.duration !== undefined ? (panel.info.duration / 1000).toFixed(3) + " s" : "-"],
                    ["Aspect (SAR)", panel.info.sar !== undefined ? Number(panel.info.sar).toFixed(3) : "-"],
                    ["Rotation code", panel.info.rotation !== undefined ? String(panel.info.rotation) : "-"],
                    ["Codec", panel.codecName || "-"],
                    ["In", panel.inText],
                    ["Out", panel.outText]
                ]
                delegate: Row {
                    required property var modelData
                    spacing: 8
                    Text { width: 100; text: parent.modelData[0]; color: "#9aa3ad"; font.pixelSize: 12 }
                    Text { text: parent.modelData[1]; color: "white"; font.pixelSize: 12 }
                }
            }
        }

        MachinePanel { id: machinePanel; Layout.fillWidth: true }
        CloudPanel { id: cloudPanel; Layout.fillWidth: true }
        ModelsPanel { id: modelsPanel; Layout.fillWidth: true }
        LivePanel { id: livePanel; Layout.fillWidth: true }

        Text {
            text: "Previews"
            color: "#e0913a"
            font.pixelSize: 13
            font.bold: true
        }
        ListView {
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            model: panel.previews
            delegate: Text {
                required property var modelData
                width: ListView.view.width
                text: modelData.label
                color: "#e6c9a8"
                font.pixelSize: 12
                elide: Text.ElideRight
            }
        }

        TelemetryPanel { id: telemetryPanel; Layout.fillWidth: true }
        ImageSequencePanel { id: sequencePanel; Layout.fillWidth: true; demo: panel.demo }

        Text {
            Layout.fillWidth: true
            text: panel.status
            color: "#c9d1d9"
            font.pixelSize: 12
            wrapMode: Text.Wrap
        }
    }
}
