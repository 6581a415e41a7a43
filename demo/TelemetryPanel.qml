import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import kutils

// Usage events, feature flags, identity repair and the update check against
// the services the configuration names; tools/telemetry-standin stands in for
// them on this machine (docs/demo.md). Each action reports through `hooks`:
// {report(text), done(), fail(text)}, the script's or the buttons' own.
ColumnLayout {
    id: telemetry

    readonly property string machineId: "demo-machine"
    readonly property string deviceId: "demo-device"
    readonly property string email: "demo+user@example.com"
    property string status: "Services: nothing asked yet"
    property string eventId: ""
    property var pending: null

    spacing: 4

    function buttonHooks() {
        return {report: text => telemetry.status = text, done: () => {}, fail: text => telemetry.status = text}
    }

    function say(hooks, text) {
        status = text
        hooks.report(text)
    }

    function sendEvent(name, hooks) {
        pending = hooks
        eventId = tracker.track(name || "demo-event", {source: "demo", screen: "side panel"})
        if (eventId === "")
            hooks.fail("event not sent: no collector key, or tracking off")
    }

    function readFlags(hooks) {
        // Fetched before the emission returns.
        tracker.getFeatures(machineId)
        const names = Object.keys(tracker.features).sort()
        say(hooks, "Flags: " + (names.length ? names.map(n => n + "=" + tracker.features[n].key).join(", ") : "none"))
        hooks.done()
    }

    function repairIdentity(hooks) {
        if (!amplitude.repairUserIdentity(machineId, email, deviceId))
            return hooks.fail("identity not repaired")
        say(hooks, "Identity repaired: " + deviceId + " belongs to its user")
        hooks.done()
    }

    function checkForUpdates(hooks) {
        pending = hooks
        updater.checkForUpdates(true)
    }

    function settle(ok, text) {
        const hooks = pending
        pending = null
        if (!hooks)
            return
        if (ok) {
            say(hooks, text)
            hooks.done()
        } else {
            status = text
            hooks.fail(text)
        }
    }

    TFileManager { id: fileCheck }
    AmplitudeApi { id: amplitude }

    TEventTracker {
        id: tracker
        enabled: true
        uniqueId: telemetry.deviceId
        onRequestFinished: id => {
            if (id === telemetry.eventId)
                telemetry.settle(true, "Event delivered to the collector")
        }
    }

    TUpdateChecker {
        id: updater
        userEmail: telemetry.email
        onCheckFailed: telemetry.settle(false, "update check failed")
        onNoUpdateAvailable: telemetry.settle(true, "No update offered")
        onUpdateAvailable: {
            const offer = updater.latestOwnedUpdate
            telemetry.say(telemetry.pending || telemetry.buttonHooks(),
                          "Update " + offer.app_version + " offered; downloading its installer")
            updater.startUpdate(offer)
        }
        onUpdateDownloadProgressChanged: (read, total) => telemetry.status = "Installer: " + read + " of " + total + " MiB"
        onUpdateDownloadFinished: {
            const path = updater.getInstallerPath()
            if (fileCheck.fileExists(path))
                telemetry.settle(true, "Installer saved as " + path)
            else
                telemetry.settle(false, "installer download failed")
        }
    }

    Text {
        text: "Services"
        color: "#e0913a"
        font.pixelSize: 13
        font.bold: true
    }
    Flow {
        Layout.fillWidth: true
        spacing: 4
        Button { text: "Event"; onClicked: telemetry.sendEvent("demo-button", telemetry.buttonHooks()) }
        Button { text: "Flags"; onClicked: telemetry.readFlags(telemetry.buttonHooks()) }
        Button { text: "Identity"; onClicked: telemetry.repairIdentity(telemetry.buttonHooks()) }
        Button { text: "Update"; onClicked: telemetry.checkForUpdates(telemetry.buttonHooks()) }
    }
    Text {
        Layout.fillWidth: true
        text: telemetry.status
        color: "#c9d1d9"
        font.pixelSize: 12
        wrapMode: Text.Wrap
    }
}
