#pragma once

// Test media made on the spot by the ffmpeg command-line tool.

#include <QDir>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace videoio::testing {

// The pattern source shows a running frame counter, so no two frames of a
// clip are alike and a wrong frame can't pass for the right one.
inline QStringList patternInput(const QString &size, int frames, int rate = 30)
{
    return {QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
            QStringLiteral("testsrc2=size=%1:rate=%2").arg(size).arg(rate),
            QStringLiteral("-frames:v"), QString::number(frames)};
}

// Runs ffmpeg with `args` writing `out`; returns ffmpeg's output on failure,
// an empty string on success.
inline QString makeMedia(const QStringList &args, const QString &out)
{
    QProcess ffmpeg;
    ffmpeg.setProcessChannelMode(QProcess::MergedChannels);
    ffmpeg.start(QStringLiteral("ffmpeg"),
                 QStringList{QStringLiteral("-hide_banner"), QStringLiteral("-loglevel"), QStringLiteral("error"),
                             QStringLiteral("-y")} + args + QStringList{out});
    if (!ffmpeg.waitForFinished(120000) || ffmpeg.exitCode() != 0)
        return QStringLiteral("ffmpeg failed for %1: %2").arg(out, QString::fromLocal8Bit(ffmpeg.readAll()));
    return {};
}

// A plain H.264 clip of 320x240 at 30 fps, `frames` long.
inline QString makeH264(const QString &out, int frames, const QStringList &extra = {})
{
    return makeMedia(patternInput(QStringLiteral("320x240"), frames)
                         + QStringList{QStringLiteral("-c:v"), QStringLiteral("libx264"), QStringLiteral("-pix_fmt"),
                                       QStringLiteral("yuv420p"), QStringLiteral("-preset"), QStringLiteral("veryfast")}
                         + extra,
                     out);
}

} // namespace videoio::testing
