// The player's request queue: every coalescing case as a table, its blocking
// behaviour, and a randomized producer and consumer (run it under ThreadSanitizer).
#include "playback/VPReqQueue.h"

#include <QRandomGenerator>
#include <QTest>

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
    void coalescing_data()
    {
        QTest::addColumn<QVariantList>("script");
        QTest::addColumn<QList<QVariantMap>>("expected");

        QTest::newRow("seeks collapse to the newest time with the first flags")
            << QVariantList{seek(100, true, true), seek(200, false, false), seek(300, false, false)}
            << QList<QVariantMap>{seek(300, true, true)};
        QTest::newRow("a seek keeps its place among other requests")
            << QVariantList{seek(100), request(Play), seek(200)}
            << QList<QVariantMap>{seek(200), request(Play)};
        QTest::newRow("a missing firstLoad counts as a switch")
            << QVariantList{addInput(1), addInput(2)} << QList<QVariantMap>{addInput(2)};
        QTest::newRow("two first loads are never merged")
            << QVariantList{addInput(1, true), addInput(2, true)}
            << QList<QVariantMap>{addInput(1, true), addInput(2, true)};
        // The same path again in one view is dropped, in the other view or once popped it is taken.
        QTest::newRow("open for preview")
            << QVariantList{openForPreview(0, "/p.mp4"), openForPreview(0, "/p.mp4"), openForPreview(1, "/p.mp4"), popOne,
                            openForPreview(0, "/p.mp4")}
            << QList<QVariantMap>{openForPreview(1, "/p.mp4"), openForPreview(0, "/p.mp4")};
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
        // The reload slot remembers index 2, past the end after two pops: the
        // reload is kept (with a warning) and the next one, of another uid, merges into it.
        QTest::newRow("stale index past the end appends")
            << QVariantList{request(Play), request(Play), reload(1), popOne, popOne, reload(2), reload(3)}
            << QList<QVariantMap>{reload(1), reload(3)};
    }

    void coalescing()
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

    void randomProducerAndConsumer_data()
    {
        QTest::addColumn<bool>("seeksOnly");
        QTest::newRow("mixed requests") << false;
        QTest::newRow("scrubbing") << true;
    }

    void randomProducerAndConsumer()
    {
        QFETCH(bool, seeksOnly);
        constexpr int pushes = 20000;
        const quint32 seed = QRandomGenerator::global()->generate();
        qInfo() << "seed" << seed;
        VPReqQueue queue;
        QList<QVariantMap> received;
        std::thread consumer([&] {
            QVariantMap next;
            while (queue.pop(next) && next.value(QStringLiteral("type")).toInt() != Close)
                received.append(next);
        });
        QRandomGenerator random(seed);
        for (int i = 0; i < pushes; ++i) {
            switch (seeksOnly ? 0 : random.bounded(6)) {
            case 0: queue.push(seek(i)); break;
            case 1: queue.push(reload(i)); break;
            case 2: queue.push(addInput(i, random.bounded(2) == 0)); break;
            case 3: queue.push(openForPreview(int(random.bounded(2)), QStringLiteral("/p%1").arg(random.bounded(4)))); break;
            default: queue.push(request(Play, {{"seq", i}})); break;
            }
        }
        queue.push(request(Close));
        consumer.join();
        // When scrubbing no index goes stale: times only grow and the newest
        // one always arrives. Among mixed requests the plain ones that survive
        // keep their order.
        const QString key = seeksOnly ? QStringLiteral("timestamp") : QStringLiteral("seq");
        qint64 last = -1;
        for (const QVariantMap &r : std::as_const(received)) {
            if (!r.contains(key))
                continue;
            QVERIFY(r.value(key).toLongLong() > last);
            last = r.value(key).toLongLong();
        }
        if (seeksOnly)
            QCOMPARE(last, qint64(pushes - 1));
    }

    void aRequestInHandIsNotIdle()
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
};

QTEST_GUILESS_MAIN(tst_VPReqQueue)
#include "tst_VPReqQueue.moc"
