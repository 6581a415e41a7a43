#pragma once

#include <QMap>
#include <QNetworkReply>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QVariantMap>

class QNetworkAccessManager;
class QNetworkRequest;

// Asynchronous HTTP over one process-wide QNetworkAccessManager. Each request
// gets an id, and its finished reply comes back by that id, so one object can
// keep many requests in flight. Replies are not deleted here: the receiver of
// replyRecieved owns each one it is given.
class TNetwork : public QObject
{
    Q_OBJECT

public:
    explicit TNetwork(QObject *parent = nullptr);

    QString get(QUrl url, QVariantMap query, QVariantMap headers);
    QString post(QUrl url, QString body, QVariantMap headers, bool jsonContent);
    // Its reply is stored but never reported.
    QString del(QUrl url, QVariantMap query, QVariantMap headers);

    QNetworkReply *request(QString id);

signals:
    void replyRecieved(QString id, QNetworkReply *reply);
    void downloadProgress(QString id, qlonglong bytesReceived, qlonglong bytesTotal);

public slots:
    void requestFinished(QNetworkReply *reply);

private:
    // The id, or empty when there is no manager; fills `request`.
    QString prepare(QNetworkRequest &request, QUrl url, const QVariantMap &query, const QVariantMap &headers,
                    bool traced);
    QString store(const QString &id, QNetworkReply *reply);

    QMap<QString, QNetworkReply *> requests;

    static QNetworkAccessManager *sharedManager;
};
