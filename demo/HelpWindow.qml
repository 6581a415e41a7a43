import QtQuick
import QtQuick.Window

// The keyboard shortcuts. A window of its own rather than an item over the
// scene: the mpv panes are native windows, and an item would be drawn under them.
Window {
    id: help

    // [{keys: ["Space"], text: "Play / pause"}, ...]
    property var shortcuts: []

    signal closeRequested()

    title: "kutils demo - keys"
    flags: Qt.Tool | Qt.FramelessWindowHint
    color: "#e6202428"
    width: 460
    height: list.implicitHeight + 70

    Text {
        id: heading
        x: 20
        y: 14
        text: "Keyboard shortcuts"
        color: "white"
        font.pixelSize: 18
        font.bold: true
    }

    Column {
        id: list
        x: 20
        y: heading.y + heading.height + 10
        spacing: 4
        Repeater {
            model: help.shortcuts
            delegate: Row {
                required property var modelData
                spacing: 12
                Text {
                    width: 150
                    text: parent.modelData.keys.join(", ")
                    color: "#8ecae6"
                    font.family: "monospace"
                    font.pixelSize: 13
                }
                Text {
                    text: parent.modelData.text
                    color: "white"
                    font.pixelSize: 13
                }
            }
        }
    }

    Text {
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        anchors.margins: 10
        text: "F1 or Esc closes"
        color: "#9aa3ad"
        font.pixelSize: 11
    }

    Shortcut {
        sequences: ["F1", "Esc", "?"]
        onActivated: help.closeRequested()
    }
}
