#include "server/HttpClient.h"

#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>

namespace corvi {
namespace {

// Network-layer and proxy failures, and a broken HTTP exchange; the other codes only restate
// an HTTP status (Qt maps 400 to a "protocol" code, for one).
bool isTransportFailure(QNetworkReply::NetworkError e) {
    const int code = int(e);
    return (code >= 1 && code < 200) || e == QNetworkReply::ProtocolFailure;
}

}  // namespace

std::optional<QJsonObject> HttpResult::jsonObjectIf200() const {
    if (status != 200 || body.isEmpty()) return std::nullopt;
    QJsonParseError error;
    const QJsonDocument doc = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError || !doc.isObject()) return std::nullopt;
    return doc.object();
}

HttpClient::HttpClient(QObject* parent) : QObject(parent), manager_(new QNetworkAccessManager(this)) {}

HttpClient::~HttpClient() = default;

HttpClient& HttpClient::shared() {
    static HttpClient* client = new HttpClient;
    return *client;
}

void HttpClient::send(QNetworkRequest request, const QByteArray& method, const QByteArray& body,
                      int timeoutMs, QObject* context, Done done) {
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setTransferTimeout(timeoutMs);
    QNetworkReply* reply = body.isNull() && method == "GET"
                               ? manager_->get(request)
                               : manager_->sendCustomRequest(request, method, body);

    auto tooLarge = std::make_shared<bool>(false);
    auto guard = [reply, tooLarge](qint64 size) {
        if (size > maxBody && !*tooLarge) {
            *tooLarge = true;
            reply->abort();
        }
    };
    connect(reply, &QNetworkReply::metaDataChanged, reply,
            [reply, guard] { guard(reply->header(QNetworkRequest::ContentLengthHeader).toLongLong()); });
    connect(reply, &QNetworkReply::downloadProgress, reply,
            [guard](qint64 received, qint64) { guard(received); });

    QPointer<QObject> owner(context);
    connect(reply, &QNetworkReply::finished, this, [reply, owner, tooLarge, done = std::move(done)] {
        reply->deleteLater();
        if (!owner) return;
        HttpResult result;
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (*tooLarge) {
            result.transportError = QStringLiteral("response larger than 1 MiB");
        } else if (isTransportFailure(reply->error()) || !status.isValid()) {
            result.transportError = reply->errorString();
        } else {
            result.status = status.toInt();
            result.body = reply->readAll();
        }
        done(result);
    });
}

void setAgentHeaders(QNetworkRequest& request, const QString& apiKey, const QString& agentVersion) {
    request.setRawHeader("Authorization", "Bearer " + apiKey.toUtf8());
    request.setRawHeader("X-Agent-Version", agentVersion.toUtf8());
    request.setRawHeader("X-Agent-Platform", agentPlatform);
}

}  // namespace corvi
