#pragma once

#include <QList>
#include <QPair>
#include <QString>

// Every service host, key, salt and credential of the plugin, plus options for
// the machines it runs on. Values start from the build-time defaults (the
// KUTILS_* CMake cache variables, empty in the repository) and are then
// overridden, key by key, by the JSON file named in the environment variable
// KUTILS_CONFIG_FILE. docs/configuration.md says which key feeds what.
struct Configuration
{
    // Cloud rendering (video API and account API, production and staging).
    QString videoApiProduction;
    QString videoApiStaging;
    QString accountApiProduction;
    QString accountApiStaging;
    QString cloudUnusedKey;
    QString cloudApiKeyProduction;
    QString cloudApiKeyStaging;

    // Model files.
    QString modelHost;
    QString modelPassword;
    // The HTTPS address whose system proxy the proxy detection asks for.
    QString downloadHost;

    // Usage events.
    QString eventCollectorUrl;
    QString segmentWriteKeyProduction;
    QString segmentWriteKeyDevelopment;

    // Analytics: three services and their credentials.
    QString amplitudeVardataUrl;
    QString amplitudeProfileUrl;
    QString amplitudeIdentifyUrl;
    QString amplitudeProjectKey;
    QString amplitudeSecret;

    // Application-state (update) service.
    QString appStateProduction;
    QString appStateStaging;
    QString appStateApiKey;
    QString emailMacSalt;

    // Password of the encrypted archives the plugin writes.
    QString archivePassword;

    // Extra certificate authorities (PEM file) that HTTPS clients trust besides
    // the system's; empty for the system store alone.
    QString caBundle;

    // mpv options applied after the player's own, in order (name, value).
    QList<QPair<QString, QString>> mpvExtraOptions;

    // How long a Qt network transfer may go without progress before it is
    // aborted, in milliseconds.
    int transferTimeoutMs = 30000;

    // The configuration in force. Loaded on first use; thread-safe.
    static const Configuration &instance();

    // Builds a configuration from the build-time defaults and the override file
    // named by KUTILS_CONFIG_FILE (if any). A missing or malformed file is
    // logged and ignored, keeping the defaults.
    static Configuration load();

    // Re-reads the environment and the override file. For tests and tools that
    // set KUTILS_CONFIG_FILE after start; not to be called while other threads
    // hold references from instance().
    static void reload();
};
