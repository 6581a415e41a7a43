// The player's request queue: every coalescing case as a table, its blocking
// behaviour, and a randomized producer and consumer (run it under ThreadSanitizer).
#include "playback/VPReqQueue.h"
#include "timeline/ConsoleLogger.h"

#include <QRandomGenerator>
#include <QTest>

#include <mutex>
#include <thread>

using namespace videoplayer;

namespace {

QVariantMap request(int type, QVariantMap keys = {})
{
    keys.insert(QStringLiteral("type"), type);
    return keys;
}

QVariantMap seek(qint64 ts, bool interrupt = true, bool initIR = true)
{
    return request(Seek, {{"timestamp", ts}, {"interrupt", interrupt}, {"initIR", initIR}});
}

QVariantMap reload(int uid)
{
    return request(Reload, {{"uid", uid}, {"newRangeX", -1}, {"newRangeY", -1}});
}

QVariantMap addInput(int uid, QVariant firstLoad = {})
{
    QVariantMap keys{{"uid", uid}, {"timestamp", 0}, {"filepath", QStringLiteral("/in%1.mp4").arg(uid)}};
    if (firstLoad.isValid())
        keys.insert(QStringLiteral("firstLoad"), firstLoad);
    return request(AddInput, keys);
}

QVariantMap openForPreview(int view, const QString &path)
{
    return request(OpenVideoForPreview, {{"params", QVariantMap{{"filepath", path}}}, {"viewID", view}});
}

// A step of a script: a request to push, or an invalid variant meaning "pop one".
const QVariant popOne;

QList<QVariantMap> drain(VPReqQueue &queue)
{
    QList<QVariantMap> out;
    QVariantMap next;
    while (!queue.empty() && queue.pop(next))
        out.append(next);
    return out;
}

} // namespace

class tst_VPReqQueue : public QObject
{
    Q_OBJECT

private slots:
    void coalescing_data();
    void coalescing();
    void staleIndexPastTheEndAppendsAndWarns();
    void requestNames_data();
    void requestNames();
    void pendingNamesTraceTheList();
    void devInfoCountsEveryCall();
    void popWaitsForAPush();
    void aRequestInHandIsNotIdle();
    void stopWakesTheWorkerAndLeavesRequestsUnread();
    void randomProducerAndConsumer_data();
    void randomProducerAndConsumer();
};

void tst_VPReqQueue::coalescing_data()
{
    QTest::addColumn<QVariantList>("script");
    QTest::addColumn<QList<QVariantMap>>("expected");

    QTest::newRow("seeks collapse to the newest time with the first flags")
        << QVariantList{seek(100, true, true), seek(200, false, false), seek(300, false, false)}
        << QList<QVariantMap>{seek(300, true, true)};
    QTest::newRow("a seek keeps its place among other requests")
        << QVariantList{seek(100), request(Play), seek(200)}
        << QList<QVariantMap>{seek(200), request(Play)};
    QTest::newRow("a popped seek frees the slot")
        << QVariantList{seek(100), popOne, seek(200)} << QList<QVariantMap>{seek(200)};
    QTest::newRow("first load then a switch stay two")
        << QVariantList{addInput(1, true), addInput(2, false)}
        << QList<QVariantMap>{addInput(1, true), addInput(2, false)};
    QTest::newRow("two switches leave the later")
        << QVariantList{addInput(1, false), addInput(2, false)} << QList<QVariantMap>{addInput(2, false)};
    QTest::newRow("a missing firstLoad counts as a switch")
        << QVariantList{addInput(1), addInput(2)} << QList<QVariantMap>{addInput(2)};
    QTest::newRow("two first loads are never merged")
        << QVariantList{addInput(1, true), addInput(2, true)}
        << QList<QVariantMap>{addInput(1, true), addInput(2, true)};
    QTest::newRow("reloads merge whatever the uid")
        << QVariantList{reload(1), reload(2)} << QList<QVariantMap>{reload(2)};
    QTest::newRow("open for preview: same path in one view is dropped")
        << QVariantList{openForPreview(0, "/p.mp4"), openForPreview(0, "/p.mp4")}
        << QList<QVariantMap>{openForPreview(0, "/p.mp4")};
    QTest::newRow("open for preview: the other view is accepted")
        << QVariantList{openForPreview(0, "/p.mp4"), openForPreview(1, "/p.mp4")}
        << QList<QVariantMap>{openForPreview(0, "/p.mp4"), openForPreview(1, "/p.mp4")};
    QTest::newRow("open for preview: accepted again once popped")
        << QVariantList{openForPreview(0, "/p.mp4"), popOne, openForPreview(0, "/p.mp4")}
        << QList<QVariantMap>{openForPreview(0, "/p.mp4")};
    QTest::newRow("other types never merge")
        << QVariantList{request(Play), request(Play), request(Refresh), request(ShowBlack)}
        << QList<QVariantMap>{request(Play), request(Play), request(Refresh), request(ShowBlack)};
    // Indexes are not rebased when the head leaves: a later seek writes its time
    // into whatever now stands at the old position.
    QTest::newRow("stale seek index writes into the next request")
        << QVariantList{request(Play), seek(100), reload(1), popOne, seek(200)}
        << QList<QVariantMap>{seek(100), [] {
                                  QVariantMap r = reload(1);
                                  r.insert("timestamp", 200);
                                  return r;
                              }()};
    QTest::newRow("stale reload index replaces another request whole")
        << QVariantList{request(Play), reload(1), seek(100), popOne, reload(2)}
        << QList<QVariantMap>{reload(1), reload(2)};
    QTest::newRow("a popped first load leaves the switch slot pending")
        << QVariantList{addInput(1, true), addInput(2, false), addInput(3, true), popOne, addInput(4, false)}
        << QList<QVariantMap>{addInput(2, false), addInput(4, false)};
}

void tst_VPReqQueue::coalescing()
{
    QFETCH(QVariantList, script);
    QFETCH(QList<QVariantMap>, expected);
    VPReqQueue queue;
    for (const QVariant &step : script) {
        if (step.isValid()) {
            queue.push(step.toMap());
        } else {
            QVariantMap popped;
            QVERIFY(queue.pop(popped));
        }
    }
    QCOMPARE(drain(queue), expected);
}

void tst_VPReqQueue::staleIndexPastTheEndAppendsAndWarns()
{
    std::mutex mutex;
    QStringList warnings;
    ConsoleLogger::setCaptureSink([&](const ConsoleLogger::Record &record) {
        const std::lock_guard lock(mutex);
        if (record.level == ConsoleLogger::Warn)
            warnings << record.message;
    });
    VPReqQueue queue;
    QVariantMap popped;
    // The reload slot remembers index 2; after two pops the list holds one request.
    queue.push(request(Play));
    queue.push(request(Play));
    queue.push(reload(1));
    QVERIFY(queue.pop(popped));
    QVERIFY(queue.pop(popped));
    queue.push(reload(2));
    queue.push(reload(3));
    ConsoleLogger::setCaptureSink({});
    // reload(2) had no request to replace and was kept; reload(3) then merged into it.
    QCOMPARE(drain(queue), (QList<QVariantMap>{reload(1), reload(3)}));
    QCOMPARE(warnings.size(), 1);
    QVERIFY(warnings.first().contains(QStringLiteral("past the end")));
}

void tst_VPReqQueue::requestNames_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("name");
    const char *named[] = {"AddInput", "Seek", "Prev", "Next", "Play", "Pause", "Reload", "Move", "UpdateInfo",
                           "ShowBlack", "AddPreview", "OpenVideoForPreview"};
    for (int type = 0; type <= 11; ++type)
        QTest::addRow("%d", type) << type << named[type];
    QTest::newRow("13") << 13 << "ClosePreview";
    QTest::newRow("15") << 15 << "ResetView";
    QTest::newRow("16") << 16 << "UpdateThumbnail";
    QTest::newRow("17") << 17 << "SetPreviewSet";
    QTest::newRow("18") << 18 << "Close";
    QTest::newRow("19") << 19 << "Refresh";
    for (int type : {12, 14, 20, 21, 22, 23, -1})
        QTest::addRow("unnamed %d", type) << type << "Invalid request";
}

void tst_VPReqQueue::requestNames()
{
    QFETCH(int, type);
    QFETCH(QString, name);
    QCOMPARE(requestName(type), name);
}

void tst_VPReqQueue::pendingNamesTraceTheList()
{
    VPReqQueue queue;
    QCOMPARE(queue.pendingNames(), QString());
    queue.push(seek(1));
    queue.push(request(Play));
    queue.push(request(ClosePreviewByUID));
    QCOMPARE(queue.pendingNames(), QStringLiteral("Seek, Play, Invalid request"));
}

void tst_VPReqQueue::devInfoCountsEveryCall()
{
    VPReqQueue queue;
    queue.push(request(Play));
    const qint64 first = queue.devInfo().value(QStringLiteral("numRequests")).toLongLong();
    const qint64 second = queue.devInfo().value(QStringLiteral("numRequests")).toLongLong();
    QCOMPARE(second, first + 1);
    queue.push(request(Play));
    QCOMPARE(queue.devInfo().value(QStringLiteral("numRequests")).toLongLong(), second + 2);
}

void tst_VPReqQueue::popWaitsForAPush()
{
    VPReqQueue queue;
    QVariantMap popped;
    std::thread worker([&] { queue.pop(popped); });
    queue.push(seek(42));
    worker.join();
    QCOMPARE(popped, seek(42));
    QVERIFY(queue.empty());
}

void tst_VPReqQueue::stopWakesTheWorkerAndLeavesRequestsUnread()
{
    VPReqQueue queue;
    bool answer = true;
    std::thread worker([&] {
        QVariantMap popped;
        answer = queue.pop(popped);
    });
    queue.stop();
    worker.join();
    QVERIFY(!answer);
    queue.push(request(Play));
    QVariantMap popped;
    QVERIFY(!queue.pop(popped));
    QCOMPARE(queue.size(), 1);
}

void tst_VPReqQueue::randomProducerAndConsumer_data()
{
    QTest::addColumn<bool>("seeksOnly");
    QTest::newRow("mixed requests") << false;
    QTest::newRow("scrubbing") << true;
}

void tst_VPReqQueue::randomProducerAndConsumer()
{
    QFETCH(bool, seeksOnly);
    constexpr int pushes = 20000;
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo() << "seed" << seed;
    VPReqQueue queue;
    QList<QVariantMap> received;
    std::thread consumer([&] {
        QVariantMap next;
        while (queue.pop(next)) {
            received.append(next);
            if (next.value(QStringLiteral("type")).toInt() == Close)
                break;
        }
    });
    std::thread producer([&] {
        QRandomGenerator random(seed);
        for (int i = 0; i < pushes; ++i) {
            if (seeksOnly) {
                queue.push(seek(i));
                continue;
            }
            switch (random.bounded(6)) {
            case 0: queue.push(seek(i)); break;
            case 1: queue.push(reload(i)); break;
            case 2: queue.push(addInput(i, random.bounded(2) == 0)); break;
            case 3: queue.push(openForPreview(int(random.bounded(2)), QStringLiteral("/p%1").arg(random.bounded(4)))); break;
            default: queue.push(request(Play, {{"seq", i}})); break;
            }
        }
        queue.push(request(Close));
    });
    producer.join();
    consumer.join();

    QVERIFY(!received.isEmpty());
    QCOMPARE(received.last().value(QStringLiteral("type")).toInt(), int(Close));
    QVERIFY(received.size() <= pushes + 1);
    if (seeksOnly) {
        // With a single kind of request no index goes stale: times only grow
        // and the newest one always arrives.
        qint64 last = -1;
        for (int i = 0; i + 1 < received.size(); ++i) {
            const qint64 ts = received[i].value(QStringLiteral("timestamp")).toLongLong();
            QVERIFY(ts > last);
            last = ts;
        }
        QCOMPARE(last, qint64(pushes - 1));
    } else {
        // Plain requests that survive keep their order.
        int lastSeq = -1;
        for (const QVariantMap &r : std::as_const(received)) {
            if (!r.contains(QStringLiteral("seq")))
                continue;
            const int seq = r.value(QStringLiteral("seq")).toInt();
            QVERIFY(seq > lastSeq);
            lastSeq = seq;
        }
    }
}

void tst_VPReqQueue::aRequestInHandIsNotIdle()
{
    VPReqQueue queue;
    QVERIFY(queue.idle());
    queue.push(request(Play));
    QVERIFY(!queue.idle());
    QVariantMap out;
    QVERIFY(queue.pop(out));
    // Empty, but the worker has not done it yet.
    QVERIFY(queue.empty());
    QVERIFY(!queue.idle());
    queue.finished();
    QVERIFY(queue.idle());
}

QTEST_GUILESS_MAIN(tst_VPReqQueue)
#include "tst_VPReqQueue.moc"
