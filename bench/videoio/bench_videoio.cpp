// Figures of the video I/O layer beside the ffmpeg tools, in one run:
//   1. info map plus thumbnail of a 1080p H.264 file, against ffprobe plus a
//      one-frame ffmpeg extraction of the same file;
//   2. frame-exact seeks per second on that file, against ffmpeg's own
//      accurate seek (-ss before -i) decoding one frame per run.
//
// Run:  build-x/bench/videoio/bench_videoio [file.mp4]
// Without a file it makes a 10 s 1080p H.264 clip (B-frames, 2 s GOP) first.

#include "videoio/FFReader.h"
#include "videoio/ThumbnailStore.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cstdio>

using namespace videoio;

namespace {

bool run(const QString &program, const QStringList &args)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.start(program, args);
    return process.waitForFinished(600000) && process.exitCode() == 0;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QTemporaryDir dir;
    QString file = app.arguments().value(1);
    if (file.isEmpty()) {
        file = dir.filePath("bench1080.mp4");
        std::printf("making %s ...\n", qPrintable(file));
        if (!run("ffmpeg", {"-hide_banner", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                            "testsrc2=size=1920x1080:rate=30", "-frames:v", "300", "-c:v", "libx264", "-preset",
                            "veryfast", "-bf", "3", "-g", "60", "-pix_fmt", "yuv420p", file})) {
            std::fprintf(stderr, "ffmpeg failed\n");
            return 1;
        }
    }

    constexpr int kInfoRuns = 10;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < kInfoRuns; ++i) {
        FFReader reader(file);
        const QVariantMap info = reader.getInfo();
        const auto [ok, path] = ThumbnailStore::GetInstance().add("bench", dir.path(), reader.thumbnail(380.0f, 30, 0));
        if (!reader.isOpen() || info.isEmpty() || !ok)
            return 1;
    }
    const double ours = timer.nsecsElapsed() / 1e6 / kInfoRuns;
    timer.restart();
    for (int i = 0; i < kInfoRuns; ++i) {
        run("ffprobe", {"-v", "error", "-show_format", "-show_streams", file});
        run("ffmpeg", {"-v", "error", "-y", "-i", file, "-frames:v", "1", "-vf", "scale=380:-2",
                       dir.filePath("ref.jpg")});
    }
    const double tools = timer.nsecsElapsed() / 1e6 / kInfoRuns;
    std::printf("info + thumbnail, ms per file:  videoio %8.1f   ffprobe + ffmpeg %8.1f\n", ours, tools);

    FFReader reader(file);
    const qlonglong duration = reader.getInfo()["duration"].toLongLong();
    QRandomGenerator random(7);
    QList<qlonglong> targets;
    for (int i = 0; i < 40; ++i)
        targets << random.bounded(duration);
    timer.restart();
    for (qlonglong ms : std::as_const(targets)) {
        if (!reader.seek(ms, false) || !reader.frame())
            return 1;
    }
    const double oursPerSecond = targets.size() / (timer.nsecsElapsed() / 1e9);
    constexpr int kToolSeeks = 10;
    timer.restart();
    for (int i = 0; i < kToolSeeks; ++i) {
        run("ffmpeg", {"-v", "error", "-ss", QString::number(targets[i] / 1000.0, 'f', 3), "-i", file, "-frames:v",
                       "1", "-f", "null", "-"});
    }
    const double toolsPerSecond = kToolSeeks / (timer.nsecsElapsed() / 1e9);
    std::printf("exact seeks per second (1080p): videoio %8.1f   ffmpeg -ss   %8.1f\n", oursPerSecond,
                toolsPerSecond);
    return 0;
}
