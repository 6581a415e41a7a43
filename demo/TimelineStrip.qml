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
    property string startLabel: ""
    property string endLabel: ""

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

    // The in/out stretch, the previews' stretches and the marks.
    Canvas {
        id: marks
        anchors.fill: parent
        onPaint: {
            const ctx = getContext("2d")
            ctx.reset()
            const top = track.y
            const height = track.height
            if (strip.inMark >= 0 && strip.outMark >= strip.inMark) {
                ctx.fillStyle = strip.loopInOut ? "#3d5a80" : "#2f4052"
                ctx.fillRect(strip.xOf(strip.inMark), top, Math.max(2, strip.xOf(strip.outMark) - strip.xOf(strip.inMark)),
                             height)
            }
            ctx.fillStyle = "#e0913a"
            for (const range of strip.ranges)
                ctx.fillRect(strip.xOf(range.x), top + 5, Math.max(3, strip.xOf(range.y) - strip.xOf(range.x)), height - 10)
            ctx.fillStyle = "#8ecae6"
            ctx.font = "11px sans-serif"
            ctx.textAlign = "center"
            for (const mark of [[strip.inMark, "IN"], [strip.outMark, "OUT"]]) {
                if (mark[0] < 0)
                    continue
                const x = strip.xOf(mark[0])
                ctx.fillRect(x - 1, top - 4, 2, height + 8)
                ctx.fillText(mark[1], x, top - 6)
            }
        }
    }
    onDurationChanged: marks.requestPaint()
    onInMarkChanged: marks.requestPaint()
    onOutMarkChanged: marks.requestPaint()
    onLoopInOutChanged: marks.requestPaint()
    onRangesChanged: marks.requestPaint()
    onWidthChanged: marks.requestPaint()

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
        text: strip.startLabel
        color: "#9aa3ad"
        font.pixelSize: 11
    }
    Text {
        x: strip.width - width
        y: track.y + track.height + 3
        text: strip.endLabel
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
