#pragma once

#include <QByteArray>
#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPair>
#include <QTimer>

namespace corvi::test {

struct HttpAnswer {
    int status = -1;  // -1: no HTTP answer
    QByteArray body;
    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
};

// A blocking HTTP call for tests: spins a local event loop until the answer (or 10 s) so an
// in-process server on the same thread keeps serving.
inline HttpAnswer httpCall(const QByteArray& method, const QString& url,
                           const QList<QPair<QByteArray, QByteArray>>& headers = {},
                           const QByteArray& body = {}) {
    static QNetworkAccessManager* manager = new QNetworkAccessManager;
    QNetworkRequest request{QUrl(url)};
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    for (const auto& h : headers) request.setRawHeader(h.first, h.second);
    if (!body.isNull() && !request.hasRawHeader("Content-Type"))
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
    QNetworkReply* reply = manager->sendCustomRequest(request, method, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    QTimer::singleShot(10000, &loop, &QEventLoop::quit);
    loop.exec();
    HttpAnswer answer;
    if (reply->isFinished()) {
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (status.isValid()) answer.status = status.toInt();
        answer.body = reply->readAll();
    } else {
        reply->abort();
    }
    reply->deleteLater();
    return answer;
}

}  // namespace corvi::test
