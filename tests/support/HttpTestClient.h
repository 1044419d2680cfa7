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
#include <QProcess>
#include <QTimer>

#include "support/EventLoop.h"

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

// Starts the reference server program on a free loopback port with `args` and answers its
// base address ("http://127.0.0.1:PORT"); empty when it did not come up.
inline QString startReferenceServer(QProcess& server, const QString& program, const QStringList& args) {
    server.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server.start(program, QStringList{"--port", "0"} + args);
    if (!waitFor([&] { return server.canReadLine(); }, 15000)) return {};
    const QString line = QString::fromUtf8(server.readLine()).trimmed();
    const QString prefix = "listening on ";
    return line.startsWith(prefix) ? line.mid(prefix.size()) : QString();
}

}  // namespace corvi::test
