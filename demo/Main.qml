import QtQuick
import QtQuick.Window
import kutils 1.0

Window {
    id: root
    width: 640
    height: 360
    visible: true
    color: "#202428"
    title: "kutils demo"

    KUtils { id: utils }

    property int position: 0
    property real frameRate: 29.97

    Timer {
        interval: 40; running: true; repeat: true
        onTriggered: root.position += interval
    }

    Column {
        anchors.centerIn: parent
        spacing: 12
        Text {
            color: "white"; font.pixelSize: 42; font.family: "monospace"
            text: utils.convertMsecToSmpte(root.position, root.frameRate)
        }
        Text {
            color: "#a0a8b0"; font.pixelSize: 18
            text: "frame " + utils.convertMsecToFrameCount(root.position, root.frameRate)
                  + " at " + root.frameRate + " fps (drop-frame)"
        }
    }
}
