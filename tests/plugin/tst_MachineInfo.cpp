#include "plugin/MachineInfo.h"

#include <QTest>

#include <limits>

class tst_MachineInfo : public QObject
{
    Q_OBJECT

private slots:
    void maxProcesses_data()
    {
        QTest::addColumn<float>("ram");
        QTest::addColumn<float>("vram");
        QTest::addColumn<int>("expected");
        QTest::newRow("64 GiB, 24 GiB GPU") << 64.0f << 24.0f << 3;
        // The reading round(log2(R - 0.2)) would give 3 here.
        QTest::newRow("24 GiB, 24 GiB GPU") << 24.0f << 24.0f << 2;
        QTest::newRow("4 GiB: at least one") << 4.0f << 8.0f << 1;
        QTest::newRow("no GPU found: 2 GiB") << 128.0f << 2.0f << 1;
        QTest::newRow("GPU memory unknown") << 64.0f << 0.0f << 1;
        QTest::newRow("GPU memory NaN") << 64.0f << std::numeric_limits<float>::quiet_NaN() << 1;
        QTest::newRow("memory infinite") << std::numeric_limits<float>::infinity() << 8.0f << 1;
    }

    void maxProcesses()
    {
        QFETCH(float, ram);
        QFETCH(float, vram);
        QFETCH(int, expected);
        QCOMPARE(machineinfo::maxProcesses(ram, vram), expected);
    }

    void jwtDecode_data()
    {
        QTest::addColumn<QString>("jwt");
        QTest::addColumn<QString>("expected");
        const auto token = [](const QByteArray &payload, QByteArray::Base64Options options) {
            return "h." + QString::fromLatin1(payload.toBase64(options)) + ".s";
        };
        QTest::newRow("two parts") << "a.b" << "Invalid JWT format";
        QTest::newRow("unpadded, keys sorted") << token(R"({"sub":"ann","a":1})", QByteArray::OmitTrailingEquals)
                                               << "{\n    \"a\": 1,\n    \"sub\": \"ann\"\n}\n";
        // U+FFFF encodes to "77-_" in the URL-safe alphabet.
        QTest::newRow("url-safe") << token("{\"k\":\"\xef\xbf\xbf\"}",
                                           QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals)
                                  << "{\n    \"k\": \"\xef\xbf\xbf\"\n}\n";
        QTest::newRow("multiple of four, no padding") << token(R"({"a":1})", QByteArray::Base64Encoding)
                                                      << "{\n    \"a\": 1\n}\n";
        QTest::newRow("array") << token("[1,2]", QByteArray::Base64Encoding) << "Invalid JSON payload";
        QTest::newRow("empty payload") << "h..s" << "Invalid JSON payload";
    }

    void jwtDecode()
    {
        QFETCH(QString, jwt);
        QFETCH(QString, expected);
        QCOMPARE(machineinfo::jwtDecode(jwt), expected);
    }

    void diskSpaceLow_data()
    {
        QTest::addColumn<quint64>("available");
        QTest::addColumn<qint64>("threshold");
        QTest::addColumn<int>("expected");
        const quint64 GiB = quint64(1) << 30;
        QTest::newRow("exactly 10 GiB") << 10 * GiB << qint64(10) << 1;
        QTest::newRow("one byte more") << 10 * GiB + 1 << qint64(10) << 0;
        QTest::newRow("3 GiB threshold, beyond int") << 3 * GiB - 1 << qint64(3) << 1;
        QTest::newRow("negative threshold") << quint64(1) << qint64(-5) << 0;
        QTest::newRow("huge threshold") << ~quint64(0) - 1 << std::numeric_limits<qint64>::max() << 1;
    }

    void diskSpaceLow()
    {
        QFETCH(quint64, available);
        QFETCH(qint64, threshold);
        QFETCH(int, expected);
        QCOMPARE(machineinfo::diskSpaceLow(available, threshold), expected);
    }

    void systemInfoTextHasALinePerGpu()
    {
        QCOMPARE(machineinfo::systemInfoText("Linux", 22.04f, "Ryzen", 31.25, {}),
                 "OS: Linux v22.04\nCPU: Ryzen  31.25 GB");
        QCOMPARE(machineinfo::systemInfoText("Linux", 12, "Ryzen", 31.25, {{"RTX", 24.0, 0, 89}, {"Arc", 0.0, -1, 0}}),
                 "OS: Linux v12\nCPU: Ryzen  31.25 GB\nGPU: RTX  24 GB\nGPU: Arc  0 GB");
    }

    void deviceListHasTheCpuFirstAndEachGpuNameOnce()
    {
        const QVariantList devices = machineinfo::deviceList(
            "AMD Ryzen", 32.0, {{"RTX", 24.0, 0, 89}, {"RTX", 24.0, 1, 89}, {"Arc", 8.0, -1, 0}});
        const QVariantList expected{
            QVariantMap{{"name", "amd ryzen"}, {"memory", 32.0}, {"type", "cpu"}},
            QVariantMap{{"name", "RTX"}, {"memory", 24.0}, {"type", "gpu"}},
            QVariantMap{{"name", "Arc"}, {"memory", 8.0}, {"type", "gpu"}},
        };
        QCOMPARE(devices, expected);
    }

    void modelsInfoKeepsTheLastRecordAndEveryVersion()
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Model record array-1 is not a JSON object"));
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^Model record broken-1 is not a JSON object"));
        const QVariantMap models = machineinfo::modelsInfo({{"upscale-2", R"({"gui":{"name":"Two"}})"},
                                                           {"upscale-3", R"({"gui":{"name":"Three"}})"},
                                                           {"broken-1", "{"},
                                                           {"plain", R"({"a":1})"},
                                                           {"array-1", "[1]"}});
        QCOMPARE(models.size(), 2);
        const QVariantMap upscale = models.value("upscale").toMap();
        QCOMPARE(upscale.value("gui").toMap().value("name"), QVariant("Three"));
        QCOMPARE(upscale.value("versions").toList(), (QVariantList{"2", "3"}));
        QCOMPARE(models.value("plain").toMap().value("versions").toList(), QVariantList{""});
    }

    void friendlyNameTakesTheFirstUserNameAndDropsLocal()
    {
        QCOMPARE(machineinfo::friendlyName("ann", "bob", "carl", "mac.local"), "ann's mac");
        QCOMPARE(machineinfo::friendlyName("", "bob", "carl", "pc"), "bob's pc");
        QCOMPARE(machineinfo::friendlyName("", "", "carl", "vm.local.lan"), "carl's vm.local.lan");
    }
};

QTEST_GUILESS_MAIN(tst_MachineInfo)
#include "tst_MachineInfo.moc"
