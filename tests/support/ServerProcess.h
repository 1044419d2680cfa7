#pragma once
// The reference server program as tests run it (CORVI_SERVER_BIN), and a blocking HTTP client.
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
#include <QStringList>
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

// The reference server on a free loopback port, its database in `folder`, with one user (Ana,
// ana@studio.example, password s3cret) and `args` (a passcode, updates, TLS); stopped with the
// object.
class ServerProcess {
  public:
    explicit ServerProcess(const QString& folder, const QStringList& args = {})
        : db_(folder + "/server.sqlite") {
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.start(
            CORVI_SERVER_BIN,
            QStringList{"--port", "0", "--db", db_, "--user", "ana@studio.example:s3cret:Ana Souza"} + args);
        if (!waitFor([&] { return process_.canReadLine(); }, 15000)) return;
        const QString line = QString::fromUtf8(process_.readLine()).trimmed(), said = "listening on ";
        if (line.startsWith(said)) base_ = line.mid(said.size());
    }
    ~ServerProcess() {
        process_.kill();
        process_.waitForFinished();
    }
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    bool ok() const { return !base_.isEmpty(); }
    // "http://127.0.0.1:PORT", or https.
    QString base() const { return base_; }
    QString db() const { return db_; }

  private:
    QString db_;
    QProcess process_;
    QString base_;
};

}  // namespace corvi::test
