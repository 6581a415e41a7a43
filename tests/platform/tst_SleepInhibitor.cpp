#include "os/SleepInhibitor.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusUnixFileDescriptor>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <poll.h>
#include <unistd.h>

namespace {

int openDescriptors()
{
    return int(QDir("/proc/self/fd").entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot).size());
}

} // namespace

// A login manager that hands out one pipe per inhibitor and keeps its write
// end: the read end closing, in whoever holds it, is the release.
class FakeLoginManager : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    ~FakeLoginManager() override { closeWriteEnds(); }

    int calls = 0;
    QStringList lastCall; // what, who, why, mode

    bool allReleased() const
    {
        for (int fd : m_writeEnds) {
            pollfd check{fd, 0, 0};
            if (poll(&check, 1, 0) != 1 || !(check.revents & POLLERR))
                return false;
        }
        return true;
    }
    void closeWriteEnds()
    {
        for (int fd : std::exchange(m_writeEnds, {}))
            close(fd);
    }

public slots:
    QDBusUnixFileDescriptor Inhibit(const QString &what, const QString &who, const QString &why, const QString &mode)
    {
        ++calls;
        lastCall = {what, who, why, mode};
        int ends[2];
        if (pipe(ends) != 0)
            return {};
        m_writeEnds.append(ends[1]);
        QDBusUnixFileDescriptor readEnd(ends[0]); // keeps a copy of its own
        close(ends[0]);
        return readEnd;
    }

private:
    QList<int> m_writeEnds;
};

class tst_SleepInhibitor : public QObject
{
    Q_OBJECT

    bool m_noBus = qEnvironmentVariableIsSet("KUTILS_NO_SYSTEM_BUS");
    QTemporaryDir m_dir;
    QProcess m_daemon;
    FakeLoginManager m_manager;

private slots:
    void initTestCase()
    {
        if (m_noBus) {
            qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + QFile::encodeName(m_dir.filePath("no-bus")));
            return;
        }
        m_daemon.start("dbus-daemon",
                       {"--session", "--nofork", "--print-address=1", "--address=unix:dir=" + m_dir.path()});
        QVERIFY2(m_daemon.waitForStarted(), "dbus-daemon is missing (package dbus)");
        QTRY_VERIFY_WITH_TIMEOUT(m_daemon.canReadLine(), 10000);
        const QString address = QString::fromUtf8(m_daemon.readLine()).trimmed();
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.toUtf8());
        QDBusConnection fake = QDBusConnection::connectToBus(address, "fake-login");
        QVERIFY(fake.registerService("org.freedesktop.login1"));
        QVERIFY(fake.registerObject("/org/freedesktop/login1", &m_manager, QDBusConnection::ExportAllSlots));
        QVERIFY(QDBusConnection::systemBus().isConnected());
    }

    void cleanupTestCase()
    {
        QDBusConnection::disconnectFromBus("fake-login");
        m_daemon.terminate();
        m_daemon.waitForFinished();
    }

    void withoutSystemBusReturnsAtOnce()
    {
        if (!m_noBus)
            QSKIP("runs as tst_SleepInhibitorNoBus");
        // A wait for a bus that is not there would hold the caller; the test's timeout catches it.
        os::SleepInhibitor::hold();
        QVERIFY(!os::SleepInhibitor::holding());
        os::SleepInhibitor::release();
    }

    void oneInhibitorHeldAndReleased()
    {
        if (m_noBus)
            QSKIP("needs the private bus");
        const int before = openDescriptors();
        os::SleepInhibitor::hold();
        os::SleepInhibitor::hold(); // the answer is still on its way: nothing more is asked
        QTRY_VERIFY(os::SleepInhibitor::holding());
        os::SleepInhibitor::hold(); // held: nothing more either
        QCOMPARE(m_manager.lastCall.value(0), "sleep");
        QCOMPARE(m_manager.lastCall.value(3), "block");
        os::SleepInhibitor::release();
        QVERIFY(!os::SleepInhibitor::holding());
        QTRY_VERIFY(m_manager.allReleased());
        // Released before the answer comes: the descriptor closes on arrival. The
        // bus keeps order, so a stray call from above would be counted by now.
        os::SleepInhibitor::hold();
        os::SleepInhibitor::release();
        QTRY_VERIFY(m_manager.calls == 2 && m_manager.allReleased());
        QVERIFY(!os::SleepInhibitor::holding());
        m_manager.closeWriteEnds();
        QTRY_COMPARE(openDescriptors(), before);
    }
};

QTEST_GUILESS_MAIN(tst_SleepInhibitor)
#include "tst_SleepInhibitor.moc"
