#include "plugin/Configuration.h"

#include "kutils/BuildConfig.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QMutex>

#include <memory>

Q_LOGGING_CATEGORY(lcConfig, "kutils.config")

namespace {

// Name of each key in the override file, bound to its field.
struct StringKey
{
    const char *name;
    QString Configuration::*field;
    const char *buildDefault;
};

const StringKey stringKeys[] = {
    {"videoApiProduction", &Configuration::videoApiProduction, kutils::buildconfig::videoApiProduction},
    {"videoApiStaging", &Configuration::videoApiStaging, kutils::buildconfig::videoApiStaging},
    {"accountApiProduction", &Configuration::accountApiProduction, kutils::buildconfig::accountApiProduction},
    {"accountApiStaging", &Configuration::accountApiStaging, kutils::buildconfig::accountApiStaging},
    {"cloudUnusedKey", &Configuration::cloudUnusedKey, kutils::buildconfig::cloudUnusedKey},
    {"cloudApiKeyProduction", &Configuration::cloudApiKeyProduction, kutils::buildconfig::cloudApiKeyProduction},
    {"cloudApiKeyStaging", &Configuration::cloudApiKeyStaging, kutils::buildconfig::cloudApiKeyStaging},
    {"modelHost", &Configuration::modelHost, kutils::buildconfig::modelHost},
    {"modelPassword", &Configuration::modelPassword, kutils::buildconfig::modelPassword},
    {"downloadHost", &Configuration::downloadHost, kutils::buildconfig::downloadHost},
    {"eventCollectorUrl", &Configuration::eventCollectorUrl, kutils::buildconfig::eventCollectorUrl},
    {"segmentWriteKeyProduction", &Configuration::segmentWriteKeyProduction,
     kutils::buildconfig::segmentWriteKeyProduction},
    {"segmentWriteKeyDevelopment", &Configuration::segmentWriteKeyDevelopment,
     kutils::buildconfig::segmentWriteKeyDevelopment},
    {"amplitudeVardataUrl", &Configuration::amplitudeVardataUrl, kutils::buildconfig::amplitudeVardataUrl},
    {"amplitudeProfileUrl", &Configuration::amplitudeProfileUrl, kutils::buildconfig::amplitudeProfileUrl},
    {"amplitudeIdentifyUrl", &Configuration::amplitudeIdentifyUrl, kutils::buildconfig::amplitudeIdentifyUrl},
    {"amplitudeProjectKey", &Configuration::amplitudeProjectKey, kutils::buildconfig::amplitudeProjectKey},
    {"amplitudeSecret", &Configuration::amplitudeSecret, kutils::buildconfig::amplitudeSecret},
    {"appStateProduction", &Configuration::appStateProduction, kutils::buildconfig::appStateProduction},
    {"appStateStaging", &Configuration::appStateStaging, kutils::buildconfig::appStateStaging},
    {"appStateApiKey", &Configuration::appStateApiKey, kutils::buildconfig::appStateApiKey},
    {"emailMacSalt", &Configuration::emailMacSalt, kutils::buildconfig::emailMacSalt},
    {"archivePassword", &Configuration::archivePassword, kutils::buildconfig::archivePassword},
    {"caBundle", &Configuration::caBundle, kutils::buildconfig::caBundle},
};

// "name=value;name=value" (build-time form) into ordered pairs.
QList<QPair<QString, QString>> parseOptionList(const QString &text)
{
    QList<QPair<QString, QString>> options;
    for (const QString &item : text.split(u';', Qt::SkipEmptyParts)) {
        const qsizetype eq = item.indexOf(u'=');
        if (eq <= 0)
            continue;
        options.append({item.left(eq).trimmed(), item.mid(eq + 1)});
    }
    return options;
}

// A positive whole number of milliseconds, from JSON (number or text) or the build.
void applyTimeout(Configuration &config, const QVariant &value)
{
    bool ok = false;
    const int ms = value.toInt(&ok);
    if (ok && ms > 0)
        config.transferTimeoutMs = ms;
    else
        qCWarning(lcConfig) << "transferTimeoutMs is not a positive number of milliseconds; ignored";
}

void applyOverride(Configuration &config, const QJsonObject &json)
{
    const QJsonValue timeout = json.value(QLatin1String("transferTimeoutMs"));
    if (!timeout.isUndefined())
        applyTimeout(config, timeout.toVariant());
    for (const StringKey &key : stringKeys) {
        const QJsonValue value = json.value(QLatin1String(key.name));
        if (value.isString())
            config.*key.field = value.toString();
        else if (!value.isUndefined())
            qCWarning(lcConfig) << "Configuration key" << key.name << "is not a string; ignored";
    }
    // "mpvExtraOptions": [["gpu-sw", "yes"], ...] or {"gpu-sw": "yes", ...}
    // (an object cannot keep an order, so the array form is the one to use
    // when order matters).
    const QJsonValue mpv = json.value(QLatin1String("mpvExtraOptions"));
    if (mpv.isArray()) {
        config.mpvExtraOptions.clear();
        for (const QJsonValue &pair : mpv.toArray()) {
            const QJsonArray nameValue = pair.toArray();
            if (nameValue.size() == 2 && nameValue[0].isString())
                config.mpvExtraOptions.append({nameValue[0].toString(), nameValue[1].toVariant().toString()});
            else
                qCWarning(lcConfig) << "mpvExtraOptions entry is not a [name, value] pair; ignored";
        }
    } else if (mpv.isObject()) {
        config.mpvExtraOptions.clear();
        const QJsonObject object = mpv.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            config.mpvExtraOptions.append({it.key(), it.value().toVariant().toString()});
    }
}

QMutex instanceMutex;
std::shared_ptr<const Configuration> current;
// Configurations replaced by reload() stay alive, since callers may still hold
// references from instance().
QList<std::shared_ptr<const Configuration>> retired;

} // namespace

Configuration Configuration::load()
{
    Configuration config;
    for (const StringKey &key : stringKeys)
        config.*key.field = QString::fromUtf8(key.buildDefault);
    config.mpvExtraOptions = parseOptionList(QString::fromUtf8(kutils::buildconfig::mpvExtraOptions));
    if (*kutils::buildconfig::transferTimeoutMs)
        applyTimeout(config, QString::fromUtf8(kutils::buildconfig::transferTimeoutMs));

    const QString path = qEnvironmentVariable("KUTILS_CONFIG_FILE");
    if (path.isEmpty())
        return config;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qCWarning(lcConfig) << "Cannot read configuration file" << path << "-" << file.errorString();
        return config;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        qCWarning(lcConfig) << "Configuration file" << path << "is not a JSON object:" << error.errorString();
        return config;
    }
    applyOverride(config, document.object());
    return config;
}

const Configuration &Configuration::instance()
{
    QMutexLocker lock(&instanceMutex);
    if (!current)
        current = std::make_shared<const Configuration>(load());
    return *current;
}

void Configuration::reload()
{
    auto fresh = std::make_shared<const Configuration>(load());
    QMutexLocker lock(&instanceMutex);
    if (current)
        retired.append(current);
    current = std::move(fresh);
}
