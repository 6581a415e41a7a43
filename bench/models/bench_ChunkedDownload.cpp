// Throughput and peak memory of a chunked download beside aria2c -x4 and curl,
// from the stand-in's model host in its own process, the file served from disk.
// Rounds take turns (ours, aria2c, curl) with a sync before each download.
//
//   ninja -C build bench_ChunkedDownload && build/bench/models/bench_ChunkedDownload [MiB] [rounds]
//
// Defaults: 2048 MiB, 5 rounds. The file is made once under build/bench-work
// and kept for later runs; it needs about twice its size free there.

#include "models/NetworkRequestManager.h"
#include "models/NetworkRequestTypes.h"

#include "../../tests/cloud/CloudStandIn.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QRandomGenerator>
#include <QRegularExpression>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <vector>

namespace {

constexpr qint64 kMiB = 1 << 20;

qint64 statusField(const char *name)
{
    QFile status("/proc/self/status");
    status.open(QIODevice::ReadOnly);
    const QString text = QString::fromLatin1(status.readAll());
    return QRegularExpression(QString(name) + R"(:\s+(\d+))").match(text).captured(1).toLongLong() * 1024;
}

bool makeSource(const QString &path, qint64 size)
{
    if (QFileInfo(path).size() == size)
        return true;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    // Incompressible, so that no layer on the way gains by compressing.
    QByteArray block(8 * kMiB, Qt::Uninitialized);
    for (qint64 done = 0; done < size; done += block.size()) {
        QRandomGenerator(quint32(done / block.size()))
            .fillRange(reinterpret_cast<quint32 *>(block.data()), block.size() / 4);
        if (file.write(block.constData(), std::min<qint64>(block.size(), size - done)) <= 0)
            return false;
    }
    return true;
}

bool tool(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.start(program, arguments);
    return process.waitForFinished(-1) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool ours(const QVariantMap &params)
{
    NetworkRequestManager manager;
    QEventLoop loop;
    bool finished = false;
    QObject::connect(&manager, &NetworkRequestManager::downloadFinished, &loop, [&] { finished = true; });
    QObject::connect(&manager, &NetworkRequestManager::requestFinished, &loop, &QEventLoop::quit);
    manager.queueRequest(NetworkRequest::ChunkedDownload, params);
    loop.exec();
    return finished;
}

QString spread(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return QString::asprintf("%7.1f (%.1f-%.1f)", values[values.size() / 2], values.front(), values.back());
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const qint64 size = (argc > 1 ? QString(argv[1]).toLongLong() : 2048) * kMiB;
    const int rounds = argc > 2 ? std::max(1, QString(argv[2]).toInt()) : 5;
    const QString work = QStringLiteral(KUTILS_BENCH_WORK);
    const QString served = work + "/served", out = work + "/out";
    QDir().mkpath(served);
    QDir().mkpath(out);
    const QString name = QString("model-%1.bin").arg(size / kMiB);
    if (!makeSource(served + "/" + name, size)) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(served + "/" + name));
        return 1;
    }
    CloudStandIn host({"--files", served});
    if (!host.isReady()) {
        std::fprintf(stderr, "the stand-in did not start\n");
        return 1;
    }
    const QString domain = host.ready["files"].toString();
    const QString url = domain + "/" + name;
    const QString ca = host.ready["caBundle"].toString();
    const QString target = out + "/" + name;

    struct Runner
    {
        const char *label;
        std::function<bool()> run;
        std::vector<double> rates;
    };
    std::vector<Runner> runners{
        {"kutils ChunkedDownload",
         [&] {
             return ours({{"domain", domain}, {"clientResource", "/" + name}, {"downloadPath", target},
                          {"contentLength", size}});
         }, {}},
        {"aria2c -x4",
         [&] {
             return tool("aria2c", {"-q", "-x4", "-s4", "--allow-overwrite=true", "--file-allocation=none",
                                    "--ca-certificate=" + ca, "-d", out, "-o", name, url});
         }, {}},
        {"curl",
         [&] { return tool("curl", {"-s", "-S", "-f", "--cacert", ca, "-o", target, url}); }, {}},
    };
    std::printf("%lld MiB from %s, %d rounds, 2 cores shared by client and server\n", size / kMiB, qPrintable(domain),
                rounds);
    qint64 ourPeak = 0;
    for (int round = 0; round < rounds; ++round) {
        for (Runner &runner : runners) {
            QFile::remove(target);
            ::sync();
            std::ofstream("/proc/self/clear_refs") << "5";
            QElapsedTimer clock;
            clock.start();
            const bool ok = runner.run();
            const double secs = clock.nsecsElapsed() / 1e9;
            if (&runner == &runners.front())
                ourPeak = std::max(ourPeak, statusField("VmHWM"));
            if (!ok || QFileInfo(target).size() != size) {
                std::fprintf(stderr, "%s failed in round %d\n", runner.label, round + 1);
                return 1;
            }
            runner.rates.push_back(double(size) / kMiB / secs);
            std::printf("round %d  %-24s %7.1f MiB/s\n", round + 1, runner.label, runner.rates.back());
            std::fflush(stdout);
        }
    }
    QFile::remove(target);
    rusage children {};
    getrusage(RUSAGE_CHILDREN, &children);
    std::printf("\nmedian (min-max), MiB/s:\n");
    for (const Runner &runner : runners)
        std::printf("  %-24s %s\n", runner.label, qPrintable(spread(runner.rates)));
    std::printf("ratio kutils / aria2c -x4: %.2fx   kutils / curl: %.2fx\n",
                median(runners[0].rates) / median(runners[1].rates), median(runners[0].rates) / median(runners[2].rates));
    std::printf("peak memory: kutils %.2f GiB (VmHWM of this process), tools %.2f GiB (the larger of aria2c and curl)\n",
                double(ourPeak) / (1024.0 * kMiB), double(children.ru_maxrss) * 1024 / (1024.0 * kMiB));
    return 0;
}
