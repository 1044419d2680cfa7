#include "server/HttpClient.h"

#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <algorithm>
#include <cstring>

namespace corvi {
namespace {

// Network-layer and proxy failures, and a broken HTTP exchange; the other codes only restate
// an HTTP status (Qt maps 400 to a "protocol" code, for one).
bool isTransportFailure(QNetworkReply::NetworkError e) {
    const int code = int(e);
    return (code >= 1 && code < 200) || e == QNetworkReply::ProtocolFailure;
}

// A request body that can be read once and never rewound. Qt's HTTP/1 layer sends a request
// again when its connection closes before an answer, rewinding the body first; with this
// body that resend fails instead, so every request goes out once. GET carries an empty one.
class OnceBody : public QIODevice {
  public:
    OnceBody(const QByteArray& data, QObject* parent) : QIODevice(parent), data_(data) {
        open(QIODevice::ReadOnly | QIODevice::Unbuffered);
    }
    bool isSequential() const override { return false; }
    qint64 size() const override { return data_.size(); }
    bool reset() override { return false; }
    bool seek(qint64 pos) override { return pos == read_ && QIODevice::seek(pos); }

  protected:
    qint64 readData(char* out, qint64 max) override {
        const qint64 n = std::min(max, qint64(data_.size()) - read_);
        if (n <= 0) return n == 0 ? 0 : -1;
        std::memcpy(out, data_.constData() + read_, size_t(n));
        read_ += n;
        return n;
    }
    qint64 writeData(const char*, qint64) override { return -1; }

  private:
    const QByteArray data_;
    qint64 read_ = 0;
};

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
    start(std::move(request), method, body, timeoutMs, maxBody, nullptr, context, std::move(done));
}

void HttpClient::get(QNetworkRequest request, int timeoutMs, qint64 maxBytes, QIODevice* sink,
                     QObject* context, Done done) {
    start(std::move(request), "GET", {}, timeoutMs, maxBytes, sink, context, std::move(done));
}

void HttpClient::start(QNetworkRequest request, const QByteArray& method, const QByteArray& body,
                       int timeoutMs, qint64 maxBytes, QIODevice* sink, QObject* context, Done done) {
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    request.setTransferTimeout(timeoutMs);
    // A fresh connection for each request, so none is written to one the server is closing.
    request.setRawHeader("Connection", "close");
    auto* once = new OnceBody(body, nullptr);
    QNetworkReply* reply = manager_->sendCustomRequest(request, method, once);
    once->setParent(reply);

    auto tooLarge = std::make_shared<bool>(false);
    auto guard = [reply, tooLarge, maxBytes](qint64 size) {
        if (size > maxBytes && !*tooLarge) {
            *tooLarge = true;
            reply->abort();
        }
    };
    connect(reply, &QNetworkReply::metaDataChanged, reply,
            [reply, guard] { guard(reply->header(QNetworkRequest::ContentLengthHeader).toLongLong()); });
    connect(reply, &QNetworkReply::downloadProgress, reply,
            [guard](qint64 received, qint64) { guard(received); });
    auto sinkFailed = std::make_shared<bool>(false);
    if (sink)
        connect(reply, &QNetworkReply::readyRead, reply, [reply, sink, sinkFailed, tooLarge, maxBytes] {
            // Only a 200 answer is the thing asked for; an error page is not written out.
            if (*tooLarge || *sinkFailed ||
                reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() != 200)
                return;
            const QByteArray chunk = reply->readAll();
            if (sink->pos() + chunk.size() > maxBytes) {
                *tooLarge = true;
                reply->abort();
            } else if (sink->write(chunk) != chunk.size()) {
                *sinkFailed = true;
                reply->abort();
            }
        });

    QPointer<QObject> owner(context);
    connect(
        reply, &QNetworkReply::finished, this,
        [reply, owner, tooLarge, sink, sinkFailed, maxBytes, done = std::move(done)] {
            reply->deleteLater();
            if (!owner) return;
            HttpResult result;
            const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
            if (*tooLarge) {
                result.tooLarge = true;
                result.transportError = maxBytes == maxBody
                                            ? QStringLiteral("response larger than 1 MiB")
                                            : QStringLiteral("response larger than %1 bytes").arg(maxBytes);
            } else if (*sinkFailed) {
                result.transportError = QStringLiteral("cannot write the answer: ") + sink->errorString();
            } else if (reply->error() == QNetworkReply::ContentReSendError) {
                // Qt gave up a resend the body refused: the connection closed unanswered.
                result.transportError = QStringLiteral("connection closed before the answer");
            } else if (isTransportFailure(reply->error()) || !status.isValid()) {
                result.transportError = reply->errorString();
                // Nothing else here cancels a request: the transfer timeout did.
                result.timedOut = reply->error() == QNetworkReply::OperationCanceledError;
            } else {
                result.status = status.toInt();
                if (sink && result.status == 200) {
                    const QByteArray rest = reply->readAll();
                    if (sink->pos() + rest.size() > maxBytes)
                        result = {-1,
                                  {},
                                  QStringLiteral("response larger than %1 bytes").arg(maxBytes),
                                  false,
                                  true};
                    else if (sink->write(rest) != rest.size())
                        result = {
                            -1, {}, QStringLiteral("cannot write the answer: ") + sink->errorString(), false};
                } else {
                    result.body = reply->readAll();
                }
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
