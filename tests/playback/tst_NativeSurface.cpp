// The native surface under a device pixel ratio of 2 (QT_SCALE_FACTOR=2 in the
// test's environment): the window system must hold the item's rectangle times two.
#include "os/NativeSurface.h"
#include "playback/MPVObject.h"

#include <QQuickView>
#include <QTest>

class tst_NativeSurface : public QObject
{
    Q_OBJECT

private slots:
    void scaledRectTruncatesEachSide()
    {
        QCOMPARE(os::scaledRect(QRect(3, 5, 7, 9), 1.25), QRect(3, 6, 8, 11));
        QCOMPARE(os::scaledRect(QRect(1, 1, 101, 33), 1.5), QRect(1, 1, 151, 49));
    }

    void surfaceFollowsTheItemInPhysicalPixels()
    {
        QQuickView view;
        view.resize(400, 300);
        MPVObject pane(view.contentItem());
        pane.setResizeMode(1);
        pane.setPosition(QPointF(10, 20));
        pane.setSize(QSizeF(160, 120));
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        QCOMPARE(view.devicePixelRatio(), 2.0);
        QTRY_VERIFY(pane.surface());
        QTRY_COMPARE(pane.surface()->nativeGeometry(), QRect(20, 40, 320, 240));
        pane.setSize(QSizeF(100.9, 50));
        QTRY_COMPARE(pane.surface()->nativeGeometry(), QRect(20, 40, 200, 100));
    }

    void surfaceOfAMissingParentStaysInvalid()
    {
        const os::NativeSurface surface(0x7fffff0);
        QVERIFY(!surface.isValid());
        QCOMPARE(surface.handle(), WId(0));
        QCOMPARE(surface.nativeGeometry(), QRect());
    }
};

QTEST_MAIN(tst_NativeSurface)
#include "tst_NativeSurface.moc"
