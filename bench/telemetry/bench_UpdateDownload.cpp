// Installer download through TUpdateChecker::startUpdate beside curl, from the
// same local TLS server (the telemetry stand-in) in one run.
//
//   ninja -C build bench_UpdateDownload && build/bench/telemetry/bench_UpdateDownload [MiB] [runs]
//
// Defaults: 512 MiB, three runs each way, alternating; the medians count.
// Memory is the peak resident size during our download above the resident
// size before it (the kernel's high-water mark, reset before each run).
// Needs curl and the installer's size free in the temporary folder (TMPDIR).

#include "StandInProcess.h"

#include "telemetry/TUpdateChecker.h"

#include "BenchStats.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

using benchstats::median;

namespace {

// kB from a line of /proc/self/status.
qint64 statusKb(const char *field)
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith(field))
            return line.mid(qstrlen(field)).trimmed().split(' ').first().toLongLong();
    return -1;
}

void resetPeakMemory()
{
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    if (clear.open(QIODevice::WriteOnly))
        clear.write("5");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const qint64 mib = argc > 1 ? QByteArray(argv[1]).toLongLong() : 512;
    const int runs = argc > 2 ? QByteArray(argv[2]).toInt() : 3;
    const size_t size = size_t(mib) << 20;

    QTemporaryDir dir;
    StandInProcess standIn(QStringLiteral(KUTILS_TELEMETRY_STANDIN),
                           {QStringLiteral("--dir"), dir.filePath(QStringLiteral("standin")), QStringLiteral("--installer-mib"),
                            QString::number(mib)});
    QFile written(standIn.ready[QStringLiteral("config")].toString());
    if (!standIn.isReady() || !written.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "the telemetry stand-in did not start\n");
        return 1;
    }
    const QJsonObject config = QJsonDocument::fromJson(written.readAll()).object();
    const QString caBundle = config[QStringLiteral("caBundle")].toString();
    useConfiguration(dir.path(), config);
    qputenv("TMPDIR", dir.path().toUtf8());
    QLoggingCategory::setFilterRules(QStringLiteral("kutils.telemetry.info=false"));
    const QString url = standIn.ready[QStringLiteral("https")].toString() + QStringLiteral("/installers/setup.msi");

    std::vector<double> ours, curl;
    qint64 worstGrowthKb = 0;
    for (int run = 0; run < runs; ++run) {
        QElapsedTimer clock;
        clock.start();
        const int curlExit = QProcess::execute(QStringLiteral("curl"), {QStringLiteral("-sf"), QStringLiteral("--cacert"),
                                                                        caBundle, QStringLiteral("-o"),
                                                                        dir.filePath(QStringLiteral("curl.msi")), url});
        curl.push_back(clock.elapsed() / 1000.0);
        QFile::remove(dir.filePath(QStringLiteral("curl.msi")));
        if (curlExit != 0) {
            std::fprintf(stderr, "curl failed (%d)\n", curlExit);
            return 1;
        }

        TUpdateChecker checker;
        QEventLoop loop;
        QObject::connect(&checker, &TUpdateChecker::updateDownloadFinished, &loop, &QEventLoop::quit);
        const qint64 startKb = statusKb("VmRSS:");
        resetPeakMemory();
        clock.restart();
        checker.startUpdate({{QStringLiteral("inapp_installer_url"), url}});
        loop.exec();
        ours.push_back(clock.elapsed() / 1000.0);
        worstGrowthKb = std::max(worstGrowthKb, statusKb("VmHWM:") - startKb);
        const qint64 written = QFileInfo(checker.getInstallerPath()).size();
        QFile::remove(checker.getInstallerPath());
        if (written != qint64(size)) {
            std::fprintf(stderr, "startUpdate wrote %lld of %zu bytes\n", written, size);
            return 1;
        }
        std::printf("run %d: startUpdate %.2f s, curl %.2f s\n", run + 1, ours.back(), curl.back());
    }
    const double oursMedian = median(ours), curlMedian = median(curl);
    std::printf("%lld MiB over TLS, median of %d: startUpdate %.0f MiB/s, curl %.0f MiB/s, ratio %.2f (range %.2f-%.2f s "
                "vs %.2f-%.2f s)\n",
                mib, runs, mib / oursMedian, mib / curlMedian, curlMedian / oursMedian,
                *std::min_element(ours.begin(), ours.end()), *std::max_element(ours.begin(), ours.end()),
                *std::min_element(curl.begin(), curl.end()), *std::max_element(curl.begin(), curl.end()));
    std::printf("peak memory above the start: %.1f MiB\n", worstGrowthKb / 1024.0);
    return 0;
}
