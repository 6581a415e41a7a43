#include "os/SleepInhibitor.h"

#include "os/OsLogging.h"

#include <QCoreApplication>

#ifdef Q_OS_WIN
#include <windows.h>
#else
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#endif

namespace os {

#ifdef Q_OS_WIN

namespace {
bool held = false;
}

void SleepInhibitor::hold()
{
    SetThreadExecutionState(ES_CONTINUOUS | ES_SYSTEM_REQUIRED);
    held = true;
}

void SleepInhibitor::release()
{
    SetThreadExecutionState(ES_CONTINUOUS);
    held = false;
}

bool SleepInhibitor::holding()
{
    return held;
}

#else

namespace {

struct State
{
    bool wanted = false;
    bool pending = false;
    QDBusUnixFileDescriptor descriptor;
};

State &state()
{
    static State s;
    return s;
}

void ask()
{
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        qCInfo(lcOs) << "No system bus: the machine may sleep during a render";
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.login1"), QStringLiteral("/org/freedesktop/login1"),
        QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep") << QCoreApplication::applicationName()
         << QStringLiteral("Rendering") << QStringLiteral("block");
    state().pending = true;
    auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), QCoreApplication::instance());
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [](QDBusPendingCallWatcher *done) {
        done->deleteLater();
        State &s = state();
        s.pending = false;
        const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *done;
        if (reply.isError()) {
            qCWarning(lcOs).noquote() << "Sleep inhibitor refused:" << reply.error().message();
            return;
        }
        if (s.wanted)
            s.descriptor = reply.value();
        // Otherwise the reply's descriptor closes with it: a release came first.
    });
}

} // namespace

void SleepInhibitor::hold()
{
    State &s = state();
    s.wanted = true;
    if (s.pending || s.descriptor.isValid())
        return;
    ask();
}

void SleepInhibitor::release()
{
    State &s = state();
    s.wanted = false;
    s.descriptor = QDBusUnixFileDescriptor();
}

bool SleepInhibitor::holding()
{
    return state().descriptor.isValid();
}

#endif

} // namespace os
