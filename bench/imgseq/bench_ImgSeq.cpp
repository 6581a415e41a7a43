// Cost of the converter's progress probe beside a listing of the same folder,
// and of the batched maximum scan beside one oiiotool process per file.
//
//   ninja -C build bench_ImgSeq && build/bench/imgseq/bench_ImgSeq [frames] [exr frames]
//
// Defaults: 100000 empty frame files, made once before any timing, and 200
// small EXR frames. Each figure is the median of its runs, with the fastest
// and slowest beside it.

#include "files/FrameRange.h"
#include "files/OiioCommand.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <vector>

namespace {

struct Figure
{
    double median = 0;
    double fastest = 0;
    double slowest = 0;
};

Figure measure(int runs, const std::function<void()> &work)
{
    std::vector<double> times;
    for (int run = 0; run < runs; ++run) {
        QElapsedTimer clock;
        clock.start();
        work();
        times.push_back(double(clock.nsecsElapsed()) / 1e6);
    }
    std::sort(times.begin(), times.end());
    return {times[times.size() / 2], times.front(), times.back()};
}

void print(const char *what, long long count, const char *unit, const Figure &figure, double reference)
{
    std::printf("%-32s %7lld %-10s %10.3f ms  [%.3f .. %.3f]  %8.4fx the listing\n", what, count, unit,
                figure.median, figure.fastest, figure.slowest, figure.median / reference);
}

bool runCommand(const QString &command, QString *output = nullptr)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.startCommand(command);
    const bool ok = process.waitForFinished(-1) && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0;
    if (output)
        *output = QString::fromUtf8(process.readAll());
    return ok;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int frames = args.size() > 1 ? args[1].toInt() : 100000;
    const int exrFrames = args.size() > 2 ? args[2].toInt() : 200;
    const QString tool = QCoreApplication::applicationDirPath() + QStringLiteral("/oiiotool");

    QTemporaryDir work;
    const QString folder = work.filePath(QStringLiteral("frames"));
    QDir().mkpath(folder);
    const FramePattern pattern = FramePattern::fromFormat(folder + QStringLiteral("/frame_%06d.png"), 1);
    for (int frame = 1; frame <= frames; ++frame) {
        QFile file(pattern.frameName(frame));
        if (!file.open(QIODevice::WriteOnly)) {
            std::fprintf(stderr, "cannot make the frame files\n");
            return 1;
        }
    }
    std::printf("%d empty frame files in %s\n", frames, qPrintable(folder));

    long long tests = 0;
    const FileExists counting = [&tests](const QString &path) {
        ++tests;
        return fileExistsOnDisk(path);
    };
    const auto probeFrom = [&](int frame) {
        tests = 0;
        const FrameRange range = findFrameRange(pattern.frameName(frame), counting);
        if (range.count() != frames)
            std::fprintf(stderr, "probe found %d frames\n", range.count());
    };
    qsizetype listed = 0;
    const Figure listing = measure(5, [&] { listed = QDir(folder).entryList(QDir::Files).size(); });
    const Figure fromFirst = measure(21, [&] { probeFrom(1); });
    const long long firstTests = tests;
    const int middle = frames / 2;
    const Figure fromMiddle = measure(5, [&] { probeFrom(middle); });
    print("directory listing", listed, "entries", listing, listing.median);
    print("progress probe from the first", firstTests, "file tests", fromFirst, listing.median);
    print(qPrintable(QStringLiteral("probe from frame %1").arg(middle)), tests, "file tests", fromMiddle,
          listing.median);

    const QString exrFolder = work.filePath(QStringLiteral("exr"));
    QDir().mkpath(exrFolder);
    const FramePattern exr = FramePattern::fromFormat(exrFolder + QStringLiteral("/frame_%06d.exr"), 1);
    if (!runCommand(oiiocommand::quoted(tool)
                    + QStringLiteral(" --pattern noise:type=uniform:min=0:max=3 256x144 4 -d half -o ")
                    + oiiocommand::quoted(exr.frameName(1)))) {
        std::fprintf(stderr, "cannot run %s\n", qPrintable(tool));
        return 1;
    }
    for (int frame = 2; frame <= exrFrames; ++frame)
        QFile::copy(exr.frameName(1), exr.frameName(frame));
    const FrameRange range{1, exrFrames};
    const Figure batched = measure(3, [&] {
        QString output;
        if (!runCommand(oiiocommand::maxScanCommand(tool, range, exr.formatString()), &output))
            std::fprintf(stderr, "batched scan failed\n");
    });
    const Figure perFile = measure(3, [&] {
        for (int frame = 1; frame <= exrFrames; ++frame)
            runCommand(oiiocommand::wideRangeCommand(tool, exr.frameName(frame)));
    });
    std::printf("maximum scan of %d EXR frames: batched %.1f ms [%.1f .. %.1f], one process per file "
                "%.1f ms [%.1f .. %.1f]: %.1fx faster\n",
                exrFrames, batched.median, batched.fastest, batched.slowest, perFile.median, perFile.fastest,
                perFile.slowest, perFile.median / batched.median);
    return 0;
}
