// Unpacking speed of TFileManager's unzip worker beside the unzip command, on
// the same archive in one run.
//
//   ninja -C build bench_Unzip && build/bench/files/bench_Unzip [MiB] [files]
//
// Defaults: about 300 MiB in 200 files, half incompressible random bytes, half
// text. Needs the zip and unzip commands and about three times the size free
// in the temporary folder (TMPDIR). Each way runs twice, the best time counts,
// and the outputs are compared byte for byte.

#include "files/TFileManager.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <cstdio>

namespace {

bool run(const QString &program, const QStringList &arguments, const QString &workingDir = QString())
{
    QProcess process;
    process.setWorkingDirectory(workingDir);
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(program, arguments);
    return process.waitForFinished(-1) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

QByteArray textBlock(qsizetype size, QRandomGenerator &random)
{
    static const char *const words[] = {"frame", "render", "model", "upscale", "denoise", "timeline", "preview",
                                        "export", "codec", "pixel", "motion", "grain", "sharpen", "colour"};
    QByteArray text;
    text.reserve(size + 16);
    while (text.size() < size) {
        text += words[random.bounded(int(std::size(words)))];
        text += random.bounded(12) == 0 ? '\n' : ' ';
    }
    text.truncate(size);
    return text;
}

QByteArray digestOfTree(const QString &root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next().mid(root.size());
    files.sort();
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (const QString &file : files) {
        QFile input(root + file);
        if (!input.open(QIODevice::ReadOnly))
            return {};
        hash.addData(file.toUtf8());
        hash.addData(&input);
    }
    return hash.result().toHex();
}

qint64 timeFileManager(TFileManager &manager, const QString &archive, const QString &out, int &progressReports)
{
    QEventLoop loop;
    progressReports = 0;
    const auto progress = QObject::connect(&manager, &TFileManager::unzipProgress, &loop,
                                           [&progressReports] { ++progressReports; });
    const auto finished = QObject::connect(&manager, &TFileManager::unzipFinished, &loop, &QEventLoop::quit);
    QElapsedTimer clock;
    clock.start();
    manager.queueUnzipRequest(archive, out);
    loop.exec();
    const qint64 elapsed = clock.elapsed();
    QObject::disconnect(progress);
    QObject::disconnect(finished);
    return elapsed;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const qint64 totalMiB = args.size() > 1 ? args[1].toLongLong() : 300;
    const int fileCount = args.size() > 2 ? args[2].toInt() : 200;
    const qint64 fileSize = totalMiB * 1024 * 1024 / fileCount;

    QTemporaryDir work;
    const QString source = work.filePath(QStringLiteral("source"));
    QDir().mkpath(source);
    QRandomGenerator random(2024);
    for (int i = 0; i < fileCount; ++i) {
        QByteArray bytes;
        if (i % 2 == 0) {
            bytes.resize(fileSize);
            random.fillRange(reinterpret_cast<quint32 *>(bytes.data()), fileSize / 4);
        } else {
            bytes = textBlock(fileSize, random);
        }
        const QString folder = source + QStringLiteral("/group%1").arg(i % 8);
        QDir().mkpath(folder);
        QFile file(folder + QStringLiteral("/file%1.%2").arg(i).arg(i % 2 == 0 ? "bin" : "txt"));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) {
            std::fprintf(stderr, "cannot write the source files\n");
            return 1;
        }
    }
    const QString archive = work.filePath(QStringLiteral("bench.zip"));
    std::printf("packing %d files, %lld MiB, with zip...\n", fileCount, totalMiB);
    if (!run(QStringLiteral("zip"), {QStringLiteral("-q"), QStringLiteral("-r"), archive, QStringLiteral(".")},
             source)) {
        std::fprintf(stderr, "zip failed\n");
        return 1;
    }
    const QByteArray expected = digestOfTree(source);
    QDir(source).removeRecursively();
    std::printf("archive: %.1f MiB\n\n", double(QFileInfo(archive).size()) / 1048576.0);

    TFileManager manager;
    qint64 bestManager = -1;
    qint64 bestUnzip = -1;
    int reports = 0;
    bool sameContent = true;
    for (int round = 0; round < 2; ++round) {
        const QString managerOut = work.filePath(QStringLiteral("out-manager"));
        const qint64 managerMs = timeFileManager(manager, archive, managerOut, reports);
        sameContent = sameContent && digestOfTree(managerOut) == expected;
        QDir(managerOut).removeRecursively();

        const QString unzipOut = work.filePath(QStringLiteral("out-unzip"));
        QElapsedTimer clock;
        clock.start();
        if (!run(QStringLiteral("unzip"), {QStringLiteral("-q"), QStringLiteral("-o"), archive, QStringLiteral("-d"),
                                           unzipOut})) {
            std::fprintf(stderr, "unzip failed\n");
            return 1;
        }
        const qint64 unzipMs = clock.elapsed();
        sameContent = sameContent && digestOfTree(unzipOut) == expected;
        QDir(unzipOut).removeRecursively();

        bestManager = bestManager < 0 ? managerMs : qMin(bestManager, managerMs);
        bestUnzip = bestUnzip < 0 ? unzipMs : qMin(bestUnzip, unzipMs);
        std::printf("round %d: TFileManager %6lld ms   unzip %6lld ms\n", round + 1, managerMs, unzipMs);
    }

    const auto rate = [totalMiB](qint64 ms) { return ms > 0 ? double(totalMiB) * 1000.0 / double(ms) : 0.0; };
    std::printf("\n%-14s %10s %10s\n", "", "best ms", "MiB/s");
    std::printf("%-14s %10lld %10.1f\n", "TFileManager", bestManager, rate(bestManager));
    std::printf("%-14s %10lld %10.1f\n", "unzip", bestUnzip, rate(bestUnzip));
    std::printf("ratio TFileManager/unzip: %.2f; progress reports in the last run: %d; content %s\n",
                bestUnzip > 0 ? double(bestManager) / double(bestUnzip) : 0.0, reports,
                sameContent ? "identical" : "DIFFERS");
    return sameContent ? 0 : 1;
}
