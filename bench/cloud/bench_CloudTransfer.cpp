// Upload and download speed of the cloud client beside curl, against the
// service's stand-in in its own process, in one run; and the client's peak
// memory over what it held before each transfer.
//
//   ninja -C build bench_CloudTransfer && build/bench/cloud/bench_CloudTransfer [MiB] [chunk MiB] [rounds]
//
// Defaults: 1024 MiB in 64 MiB chunks, 3 rounds. Needs curl and about eight
// times the size free in the temporary folder (TMPDIR).

#include "cloud/CloudPipeline.h"
#include "plugin/HttpClientFactory.h"

#include "../../tests/cloud/CloudStandIn.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include <unistd.h>

namespace {

// Resets the peak to the present (writing 5 to clear_refs) and gives the present resident size.
qint64 resetPeak()
{
    std::ofstream("/proc/self/clear_refs") << "5";
    QFile status("/proc/self/status");
    status.open(QIODevice::ReadOnly);
    const QString text = QString::fromLatin1(status.readAll());
    return QRegularExpression(R"(VmRSS:\s+(\d+))").match(text).captured(1).toLongLong() * 1024;
}

qint64 peak()
{
    QFile status("/proc/self/status");
    status.open(QIODevice::ReadOnly);
    const QString text = QString::fromLatin1(status.readAll());
    return QRegularExpression(R"(VmHWM:\s+(\d+))").match(text).captured(1).toLongLong() * 1024;
}

// A download starts with the file system's dirty pages written back, so that
// it pays less for the earlier transfers' writeback.
void settle()
{
    ::sync();
}

double seconds(const std::function<bool()> &work, bool &ok)
{
    QElapsedTimer clock;
    clock.start();
    ok = work() && ok;
    return clock.nsecsElapsed() / 1e9;
}

bool curl(const QStringList &arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start("curl", QStringList{"-s", "-S", "-f"} + arguments);
    return process.waitForFinished(-1) && process.exitCode() == 0;
}

QString spread(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return QString::asprintf("%.2f (%.2f-%.2f)", values[values.size() / 2], values.front(), values.back());
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const qint64 mib = argc > 1 ? QString(argv[1]).toLongLong() : 1024;
    const qint64 chunkMib = argc > 2 ? QString(argv[2]).toLongLong() : 64;
    const int rounds = argc > 3 ? QString(argv[3]).toInt() : 3;
    const qint64 size = mib << 20;
    HttpClientFactory::shieldThreadFromPipeSignal();

    CloudStandIn service({"--chunk-size", QString::number(chunkMib << 20), "--polls", "0"});
    if (!service.isReady()) {
        std::fprintf(stderr, "the stand-in did not start\n");
        return 1;
    }
    QTemporaryDir work;
    const QString input = work.filePath("input.bin");
    {
        QFile file(input);
        file.open(QIODevice::WriteOnly);
        QByteArray block(1 << 20, Qt::Uninitialized);
        for (qint64 i = 0; i < mib; ++i) {
            for (int j = 0; j < block.size(); j += 8)
                *reinterpret_cast<quint64 *>(block.data() + j) = (i << 32 | j) * 0x9E3779B97F4A7C15ull;
            file.write(block);
        }
    }
    const QString caBundle = service.ready["caBundle"].toString();
    const QVariantMap data{{"filtersStr", "[]"}, {"outputExtension", "bin"}};
    std::vector<double> upRatio, downRatio, upClient, downClient, upPeak, downPeak;
    bool ok = true;
    for (int round = 0; round < rounds && ok; ++round) {
        CloudPipeline job(1, {}, input, service.token(), data, work.filePath("result.bin"), {}, "bench", false, nullptr);
        ok = job.create() && job.accept();
        // curl sends the whole file as one part of a job of its own, to the same storage.
        CloudPipeline other(2, {}, input, service.token(), data, {}, {}, "bench", false, nullptr);
        ok = ok && other.create() && other.accept();
        const QString curlUploadUrl = service.ready["storage"].toString() + "/upload/"
                                      + QString::fromStdString(other.getRequestId()) + "/1";
        const double curlUp = seconds([&] { return curl({"--cacert", caBundle, "-o", "/dev/null", "-T", input, curlUploadUrl}); }, ok);
        const qint64 beforeUpload = resetPeak();
        const double clientUp = seconds([&] { job.upload(); return true; }, ok);
        upPeak.push_back((peak() - beforeUpload) / 1048576.0);

        std::string status;
        job.getStatus(status);
        for (int poll = 0; poll < 200 && status != "download"; ++poll) {
            QThread::msleep(100);
            job.getStatus(status);
        }
        ok = ok && status == "download";
        const QString resultUrl = service.ready["storage"].toString() + "/result/"
                                  + QString::fromStdString(job.getRequestId()) + "/input.bin";
        // Both write the result to the same folder, and take turns at going
        // first: whichever follows inherits the other's page cache and writeback.
        const QString curlResult = work.filePath("curl-result.bin");
        QObject::connect(&job, &CloudPipeline::errorHit, [&](uint, QString message) {
            std::fprintf(stderr, "download failed: %s\n", qPrintable(message));
            ok = false;
        });
        double curlDown = 0, clientDown = 0;
        const auto curlDownload = [&] {
            settle();
            curlDown = seconds([&] { return curl({"--cacert", caBundle, "-o", curlResult, resultUrl}); }, ok);
            QFile::remove(curlResult);
        };
        const auto clientDownload = [&] {
            settle();
            const qint64 beforeDownload = resetPeak();
            clientDown = seconds([&] { job.download(); return true; }, ok);
            downPeak.push_back((peak() - beforeDownload) / 1048576.0);
            ok = ok && QFileInfo(work.filePath("result.bin")).size() == size;
        };
        if (round % 2 == 0) {
            curlDownload();
            clientDownload();
        } else {
            clientDownload();
            curlDownload();
        }
        QFile::remove(work.filePath("result.bin"));

        const double total = size / 1048576.0;
        upClient.push_back(total / clientUp);
        downClient.push_back(total / clientDown);
        upRatio.push_back(curlUp / clientUp);
        downRatio.push_back(curlDown / clientDown);
        std::printf("round %d: upload client %.0f MiB/s, curl %.0f MiB/s; download client %.0f MiB/s, curl %.0f MiB/s\n",
                    round + 1, total / clientUp, total / curlUp, total / clientDown, total / curlDown);
    }
    if (!ok) {
        std::fprintf(stderr, "a transfer failed\n");
        return 1;
    }
    std::printf("%lld MiB, %lld MiB chunks, %d rounds; median (min-max)\n", mib, chunkMib, rounds);
    std::printf("upload:   client %s MiB/s, %s x curl -T; peak over the start %s MiB (one chunk is %lld)\n",
                qPrintable(spread(upClient)), qPrintable(spread(upRatio)), qPrintable(spread(upPeak)), chunkMib);
    std::printf("download: client %s MiB/s, %s x curl -o; peak over the start %s MiB\n", qPrintable(spread(downClient)),
                qPrintable(spread(downRatio)), qPrintable(spread(downPeak)));
    return 0;
}
