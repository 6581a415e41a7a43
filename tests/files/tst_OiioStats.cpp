#include "files/OiioStats.h"

#include <QTest>

// What the converter reads from oiiotool's printed statistics.
class tst_OiioStats : public QObject
{
    Q_OBJECT

private slots:
    void readsFloatMaximaOnly_data()
    {
        QTest::addColumn<QString>("output");
        QTest::addColumn<double>("sequenceMax");
        QTest::addColumn<double>("firstWide");
        QTest::addColumn<qint64>("nans");
        QTest::newRow("several channels") << "    Stats Max: 0.5 1.25 3.5 (float)\n" << 3.5 << 1.25 << 0LL;
        QTest::newRow("exactly one is not wide, Min ignored")
            << "Stats Max: 1.000000 1.0 0.5 (float)\nStats Min: 2 2 2 (float)\n" << 1.0 << -1.0 << 0LL;
        QTest::newRow("integer files are ignored") << "Stats Max: 255 128 3 (of 255)\n" << 1.0 << -1.0 << 0LL;
        QTest::newRow("two images, nan counted")
            << "Stats Max: 0.1 0.2 (float)\nStats NanCount: 3 0 \nStats Max: 7.5 0.2 (float)\nStats NanCount: 0 2 \n"
            << 7.5 << 7.5 << 5LL;
        QTest::newRow("unreadable part skipped") << "Stats Max: x 2.5 (float)\n" << 2.5 << 2.5 << 0LL;
    }

    void readsFloatMaximaOnly()
    {
        QFETCH(QString, output);
        QFETCH(double, sequenceMax);
        QFETCH(double, firstWide);
        QFETCH(qint64, nans);
        QCOMPARE(oiiostats::sequenceMax(output), sequenceMax);
        QCOMPARE(oiiostats::firstWideValue(output), firstWide);
        QCOMPARE(oiiostats::nonFiniteCount(output, QStringLiteral("Stats NanCount:")), nans);
    }

    void givesEachStatsBlockToTheFileReadBeforeIt()
    {
        const QString output = QStringLiteral("Reading a/f_01.exr\n   8 x 8, 5 channel, half openexr\n"
                                              "    channel list: R, G, B, A, Z\n    channel list: R, G, B\n"
                                              "    Stats Max: 0.5 2 0.1 (float)\n"
                                              "Reading a/f_02.exr\n    Stats Max: 4 0.5 0.1 (float)\n");
        const QList<oiiostats::FileBlock> blocks = oiiostats::splitByReadingLines(output);
        QCOMPARE(blocks.size(), 2);
        QCOMPARE(blocks.at(1).file, QStringLiteral("a/f_02.exr"));
        QCOMPARE(oiiostats::sequenceMax(blocks.at(0).text), 2.0);
        QCOMPARE(oiiostats::sequenceMax(blocks.at(1).text), 4.0);
        // The image as read, before any channel selection.
        QCOMPARE(oiiostats::channelList(blocks.at(0).text), QStringList({"R", "G", "B", "A", "Z"}));
    }
};

QTEST_APPLESS_MAIN(tst_OiioStats)
#include "tst_OiioStats.moc"
