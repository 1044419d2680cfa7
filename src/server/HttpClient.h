#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QObject>
#include <QString>
#include <functional>
#include <optional>

class QIODevice;
class QNetworkAccessManager;

namespace corvi {

// The outcome of one request. Either an HTTP answer (status >= 0) or a transport error.
struct HttpResult {
    int status = -1;         // -1: no HTTP response
    QByteArray body;         // empty when the body was cut off
    QString transportError;  // the error's description; empty when an HTTP response came
    bool timedOut = false;   // the transport error is the request's timeout
    bool tooLarge = false;   // the answer went past the size allowed and was cut off

    // The body as a JSON object when the status is exactly 200 and the body parses as one.
    std::optional<QJsonObject> jsonObjectIf200() const;
};

// The agent's one HTTP client, on the main thread: completions run there, redirects are not
// followed (a 3xx is just a status), TLS peers are verified, and an answer larger than
// maxBody is aborted and reported as a transport error.
class HttpClient : public QObject {
    Q_OBJECT
  public:
    using Done = std::function<void(const HttpResult&)>;
    static constexpr qint64 maxBody = 1024 * 1024;

    explicit HttpClient(QObject* parent = nullptr);
    ~HttpClient() override;

    // Created on first use, on the thread that first asks (the main thread).
    static HttpClient& shared();

    // Sends the request with a per-request transfer timeout. `done` runs later, on this
    // client's thread, only if `context` still exists then.
    void send(QNetworkRequest request, const QByteArray& method, const QByteArray& body, int timeoutMs,
              QObject* context, Done done);
    // A GET whose answer may hold at most `maxBytes`. With a `sink`, the body is written there
    // as it arrives (and the result's body stays empty); the sink must outlive the request.
    void get(QNetworkRequest request, int timeoutMs, qint64 maxBytes, QIODevice* sink, QObject* context,
             Done done);

  private:
    void start(QNetworkRequest request, const QByteArray& method, const QByteArray& body, int timeoutMs,
               qint64 maxBytes, QIODevice* sink, QObject* context, Done done);

    QNetworkAccessManager* manager_;
};

// Headers every agent request to an authenticated endpoint carries, in this order. The API
// key goes only into the request, never into a log line.
void setAgentHeaders(QNetworkRequest& request, const QString& apiKey, const QString& agentVersion);

// What this agent calls its platform in "X-Agent-Platform".
inline constexpr const char* agentPlatform = "linux";

}  // namespace corvi
