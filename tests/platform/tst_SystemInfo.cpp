#include "../files/FilesTestSupport.h"

#include "aiutils/BlockingQueueTemplate.h"
#include "aiutils/SystemInfo.h"

#include <QSysInfo>
#include <QTemporaryDir>
#include <QTest>

#include <queue>
#include <thread>

using aiutils::DeviceInfo;
using aiutils::SystemInfo;

namespace {

constexpr double GiB = 1024.0 * 1024.0 * 1024.0;

} // namespace

class tst_SystemInfo : public QObject
{
    Q_OBJECT

private slots:
    void cpuName_data()
    {
        QTest::addColumn<QByteArray>("cpuinfo");
        QTest::addColumn<QString>("expected");
        QTest::newRow("x86") << QByteArray("processor\t: 0\nmodel name\t: AMD Ryzen 9 7950X  16-Core\nflags\t: sse\n")
                             << "AMD Ryzen 9 7950X 16-Core";
        QTest::newRow("arm board")
            << QByteArray("processor\t: 0\nBogoMIPS\t: 108.00\n\nModel\t: Raspberry Pi 4 Model B\n")
            << "Raspberry Pi 4 Model B";
        QTest::newRow("nothing known") << QByteArray("processor\t: 0\n") << QSysInfo::currentCpuArchitecture();
    }

    void cpuName()
    {
        QFETCH(QByteArray, cpuinfo);
        QFETCH(QString, expected);
        QCOMPARE(SystemInfo::parseCpuName(cpuinfo), expected);
    }

    void memoryIsCappedByANumericCgroupLimit_data()
    {
        QTest::addColumn<QString>("limitFile");
        QTest::addColumn<QByteArray>("limit");
        QTest::addColumn<double>("total");
        QTest::addColumn<double>("available");
        const QString v2 = "sys/fs/cgroup/memory.max", v1 = "sys/fs/cgroup/memory/memory.limit_in_bytes";
        QTest::newRow("v2 max") << v2 << QByteArray("max\n") << 16.0 << 12.0;
        QTest::newRow("v2 4 GiB") << v2 << QByteArray("4294967296\n") << 4.0 << 4.0;
        QTest::newRow("v2 above available") << v2 << QByteArray("14495514624\n") << 13.5 << 12.0;
        QTest::newRow("v1 unlimited") << v1 << QByteArray("9223372036854771712\n") << 16.0 << 12.0;
    }

    void memoryIsCappedByANumericCgroupLimit()
    {
        QFETCH(QString, limitFile);
        QFETCH(QByteArray, limit);
        QFETCH(double, total);
        QFETCH(double, available);
        QTemporaryDir root;
        QVERIFY(writeFile(root.filePath("proc/meminfo"),
                          "MemTotal:       16777216 kB\nMemFree:  1024 kB\nMemAvailable:   12582912 kB\n"));
        QVERIFY(writeFile(root.filePath(limitFile), limit));
        const SystemInfo facts(root.path());
        QCOMPARE(facts.cpuMemory().first, total);
        QCOMPARE(facts.cpuMemory().second, available);
    }

    void drmCardsWithVendorAndMemoryConnectorsSkipped()
    {
        QTemporaryDir root;
        const QString drm = root.filePath("sys/class/drm/");
        QVERIFY(writeFile(drm + "card1/device/vendor", "0x1002\n"));
        QVERIFY(writeFile(drm + "card1/device/device", "0x73bf\n"));
        QVERIFY(writeFile(drm + "card1/device/mem_info_vram_total", QByteArray::number(qint64(16 * GiB)) + "\n"));
        QVERIFY(writeFile(drm + "card0/device/vendor", "0x8086\n"));
        QVERIFY(writeFile(drm + "card0/device/device", "0x4680\n"));
        QVERIFY(writeFile(drm + "card0-HDMI-A-1/device/vendor", "0x8086\n"));
        QVERIFY(writeFile(drm + "renderD128/device/vendor", "0x8086\n"));
        QVERIFY(writeFile(drm + "card2/device/uevent", "DRIVER=simpledrm\n")); // no vendor: a framebuffer
        QVERIFY(writeFile(drm + "card10/device/vendor", "0x10de\n"));
        QVERIFY(writeFile(drm + "card10/device/product_name", "Some Card\n"));
        const SystemInfo facts(root.path());
        const std::vector<DeviceInfo> expected{{"Intel GPU 8086:4680", 0.0, -1, 0},
                                               {"AMD GPU 1002:73bf", 16.0, -1, 0},
                                               {"Some Card", 0.0, -1, 0}};
        QCOMPARE(facts.getGPUList(), expected);
        QVERIFY(SystemInfo(root.filePath("nothing")).getGPUList().empty());
    }

    void stoppedQueueGivesNothingUntilReset()
    {
        aiutils::BlockingQueueTemplate<std::queue<int>, int> queue;
        int item = 0;
        std::thread waiter([&] { QVERIFY(queue.pop(item)); });
        queue.push(7);
        waiter.join();
        QCOMPARE(item, 7);
        queue.push(8);
        std::thread stopped([&] {
            int front = 0;
            while (queue.front(front)) { } // leaves only when stopped, though an item remains
        });
        queue.stop();
        stopped.join();
        QVERIFY(!queue.pop(item));
        queue.reset();
        QVERIFY(queue.front(item) && queue.pop(item));
        QCOMPARE(item, 8);
    }
};

QTEST_GUILESS_MAIN(tst_SystemInfo)
#include "tst_SystemInfo.moc"
