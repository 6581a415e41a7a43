#pragma once

// Media for the player tests, made by ffmpeg at test time. Every frame of the
// input is one flat grey whose level is its frame number (16 + 2 * n), so a
// grab of a pane tells which input frame it shows; previews keep that level
// and change only the colour, as a render of the same frames would.
#include "playback/MPVObject.h"

#include <QColor>
#include <QImage>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <map>
#include <mutex>

namespace playermedia {

inline bool ffmpeg(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral("ffmpeg"), QStringList{QStringLiteral("-v"), QStringLiteral("error"),
                                                        QStringLiteral("-y")}
                                                + arguments);
    return process.waitForFinished(60000) && process.exitCode() == 0;
}

// 4 s at 25 fps, all frames key frames so that every seek is exact.
inline bool makeInput(const QString &path)
{
    return ffmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
                   QStringLiteral("color=c=black:s=160x120:r=25:d=4"), QStringLiteral("-vf"),
                   QStringLiteral("geq=lum='16+2*N':cb=128:cr=128"), QStringLiteral("-c:v"), QStringLiteral("libx264"),
                   QStringLiteral("-qp"), QStringLiteral("0"), QStringLiteral("-g"), QStringLiteral("1"),
                   QStringLiteral("-pix_fmt"), QStringLiteral("yuv420p"), path});
}

// The stretch [startMs, startMs + durationMs) of the input, tinted, at `slowmotion`
// and `fps` (50 repeats each input frame, as an interpolating render would add one).
inline bool makePreview(const QString &input, const QString &path, int startMs, int durationMs, int slowmotion,
                        int fps = 25)
{
    const QString filter = QStringLiteral("geq=lum='lum(X,Y)':cb=96:cr=160,setpts=%1*PTS").arg(slowmotion);
    return ffmpeg({QStringLiteral("-ss"), QString::number(startMs / 1000.0, 'f', 3), QStringLiteral("-t"),
                   QString::number(durationMs / 1000.0, 'f', 3), QStringLiteral("-i"), input, QStringLiteral("-vf"),
                   filter, QStringLiteral("-r"), QString::number(fps), QStringLiteral("-c:v"), QStringLiteral("libx264"),
                   QStringLiteral("-qp"), QStringLiteral("0"), QStringLiteral("-g"), QStringLiteral("1"),
                   QStringLiteral("-pix_fmt"), QStringLiteral("yuv420p"), path});
}

// The input frame a region of a grab shows: its mean luma back through 16 + 2n.
inline double frameShown(const QImage &image, const QRect &region)
{
    double sum = 0;
    int count = 0;
    for (int y = region.top(); y <= region.bottom(); y += 4) {
        for (int x = region.left(); x <= region.right(); x += 4) {
            const QColor c = image.pixelColor(x, y);
            // mpv shows small pictures with the BT.601 matrix; undo it, then the
            // limited range the file holds.
            const double luma = 0.299 * c.red() + 0.587 * c.green() + 0.114 * c.blue();
            sum += luma * 219.0 / 255.0 + 16.0;
            ++count;
        }
    }
    return count ? (sum / count - 16.0) / 2.0 : -1;
}

// Every mpv command that watched panes send, or would send with their core
// never started, as one text per command ("set speed 1.000000"), by view.
class PaneCommands
{
public:
    void watch(MPVObject &pane, int view = 0)
    {
        pane.player().setCommandObserver([this, view](const QStringList &words) {
            const std::lock_guard lock(m_mutex);
            m_lines[view].append(words.join(QLatin1Char(' ')));
        });
    }
    QStringList of(int view = 0, const QString &head = {}) const
    {
        const std::lock_guard lock(m_mutex);
        QStringList found;
        if (const auto lines = m_lines.find(view); lines != m_lines.end())
            for (const QString &line : lines->second)
                if (line.startsWith(head))
                    found.append(line);
        return found;
    }
    void clear()
    {
        const std::lock_guard lock(m_mutex);
        m_lines.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::map<int, QStringList> m_lines;
};

} // namespace playermedia
