#include "plugin/KUtils.h"

#include "plugin/Timecode.h"

#include "files/TFileManager.h"
#include "plugin/Configuration.h"

#include <QNetworkProxyFactory>
#include <QNetworkProxyQuery>
#include <QUrl>

KUtils::KUtils(QObject *parent)
    : QObject(parent)
{
}

QString KUtils::convertMsecToSmpte(int millisecond, double frameRate)
{
    return timecode::msecToSmpte(millisecond, frameRate);
}

int KUtils::convertSmpteTomsec(QString timecode, double frameRate)
{
    return timecode::smpteToMsec(timecode, frameRate);
}

int KUtils::convertMsecToFrameCount(int millisecond, double frameRate)
{
    return timecode::msecToFrameCount(millisecond, frameRate);
}

int KUtils::convertFrameCountToMsec(int frameCount, double frameRate)
{
    return timecode::frameCountToMsec(frameCount, frameRate);
}

int KUtils::convertMsToFrameMs(int millisecond, double frameRate)
{
    return timecode::msToFrameMs(millisecond, frameRate);
}

bool KUtils::isValidSmpteTimecode(QString timecode)
{
    return timecode::isValidSmpte(timecode);
}

QVariantMap KUtils::detectProxyInfo()
{
    const QNetworkProxyQuery query(QUrl(Configuration::instance().downloadHost), QNetworkProxyQuery::UrlRequest);
    const QList<QNetworkProxy> proxies = QNetworkProxyFactory::systemProxyForQuery(query);
    if (proxies.isEmpty() || proxies.first().type() == QNetworkProxy::NoProxy)
        return {};
    qInfo() << "A system proxy may be configured.";
    const QNetworkProxy &proxy = proxies.first();
    if (proxy.type() != QNetworkProxy::HttpProxy) {
        qWarning() << "Incompatible proxy will not be used";
        return {};
    }
    QVariantMap info{{"hostname", proxy.hostName()}, {"port", proxy.port()}, {"authentication", !proxy.user().isEmpty()}};
    if (!proxy.user().isEmpty()) {
        info.insert("username", proxy.user());
        info.insert("password", proxy.password());
    }
    qInfo() << "Using system proxy" << proxy.hostName() << proxy.port();
    return info;
}

void KUtils::syncProxyInfo(bool enable)
{
    TFileManager files;
    const QString path = files.defaultModelFolderPath() + QStringLiteral("/proxy.json");
    QVariantMap store = enable ? detectProxyInfo() : files.readJsonObject(path);
    // Turning the proxy off keeps host and credentials for the next time.
    store.insert("enabled", enable && !store.isEmpty());
    files.saveJsonObject(store, path);
}
