import QtQuick

// The input's time axis under the panes: the stretches that rendered previews
// cover, the in/out marks, the playhead. Pressing or dragging on it seeks.
Item {
    id: strip

    property int duration: 0
    property int position: 0
    property int inMark: -1
    property int outMark: -1
    property bool loopInOut: false
    // [{x: first ms, y: last ms}, ...] as the player reports them.
    property var ranges: []
    property var timecodeOf: ms => (ms / 1000).toFixed(2) + " s"

    signal seekRequested(int ms)

    implicitHeight: 64

    function xOf(ms) {
        return duration > 0 ? track.x + track.width * Math.max(0, Math.min(ms, duration)) / duration : track.x
    }

    function msAt(x) {
        return Math.round(Math.max(0, Math.min(1, (x - track.x) / track.width)) * duration)
    }

    Rectangle {
        id: track
        x: 0
        y: 18
        width: strip.width
        height: 26
        radius: 3
        color: "#2c3137"
        border.color: "#444b53"
    }

    // The in/out stretch.
    Rectangle {
        visible: strip.inMark >= 0 && strip.outMark >= strip.inMark
        x: strip.xOf(strip.inMark)
        y: track.y
        width: Math.max(2, strip.xOf(strip.outMark) - x)
        height: track.height
        color: strip.loopInOut ? "#3d5a80" : "#2f4052"
    }

    Repeater {
        model: strip.ranges
        delegate: Rectangle {
            required property var modelData
            x: strip.xOf(modelData.x)
            y: track.y + 5
            width: Math.max(3, strip.xOf(modelData.y) - x)
            height: track.height - 10
            radius: 2
            color: "#e0913a"
        }
    }

    Repeater {
        model: [{ms: strip.inMark, label: "IN"}, {ms: strip.outMark, label: "OUT"}]
        delegate: Item {
            required property var modelData
            visible: modelData.ms >= 0
            x: strip.xOf(modelData.ms)
            Rectangle { x: -1; y: track.y - 4; width: 2; height: track.height + 8; color: "#8ecae6" }
            Text {
                x: -width / 2
                y: 0
                text: parent.modelData.label
                color: "#8ecae6"
                font.pixelSize: 11
            }
        }
    }

    Rectangle {
        id: playhead
        x: strip.xOf(strip.position) - 1
        y: track.y - 6
        width: 2
        height: track.height + 12
        color: "white"
    }

    Text {
        x: 0
        y: track.y + track.height + 3
        text: strip.timecodeOf(0)
        color: "#9aa3ad"
        font.pixelSize: 11
    }
    Text {
        x: strip.width - width
        y: track.y + track.height + 3
        text: strip.timecodeOf(strip.duration)
        color: "#9aa3ad"
        font.pixelSize: 11
    }

    MouseArea {
        anchors.fill: parent
        enabled: strip.duration > 0
        property int lastSent: -1
        // A drag asks for many positions: the player queues each one, so a
        // new seek goes out only when the pointer moved by a few pixels.
        function send(x) {
            const ms = strip.msAt(x)
            if (Math.abs(ms - lastSent) < strip.duration * 3 / Math.max(1, track.width) && lastSent >= 0)
                return
            lastSent = ms
            strip.seekRequested(ms)
        }
        onPressed: mouse => { lastSent = -1; send(mouse.x) }
        onPositionChanged: mouse => send(mouse.x)
    }
}
