#pragma once

// What the live-render benchmarks share: ffmpeg runs, the clip they render
// and the load they ran under.

#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>

namespace liverenderbench {

inline bool ffmpeg(const QStringList &args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.start(QStringLiteral("ffmpeg"), QStringList{"-hide_banner", "-loglevel", "error", "-y"} + args);
    return process.waitForFinished(600000) && process.exitCode() == 0;
}

// The given input, or else 10 s of 1080p H.264 at 25 fps with B-frames, a
// moving pattern, made in `dir`; empty when ffmpeg failed.
inline QString inputOrClip(const QString &given, const QTemporaryDir &dir)
{
    if (!given.isEmpty())
        return given;
    const QString path = dir.filePath(QStringLiteral("bench1080.mp4"));
    std::printf("making %s ...\n", qPrintable(path));
    if (ffmpeg({"-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=25", "-frames:v", "250", "-c:v", "libx264",
                "-preset", "veryfast", "-bf", "3", "-g", "50", "-pix_fmt", "yuv420p", path}))
        return path;
    std::fprintf(stderr, "ffmpeg failed\n");
    return {};
}

inline double loadAverage()
{
    double load[1] = {0};
    return getloadavg(load, 1) == 1 ? load[0] : -1;
}

} // namespace liverenderbench
