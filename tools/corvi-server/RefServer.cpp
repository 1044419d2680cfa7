#include "RefServer.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHttpServer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QTcpServer>

#include "Dashboard.h"

namespace corvi::refserver {
namespace {

using Status = QHttpServerResponse::StatusCode;

double now() {
    return double(QDateTime::currentMSecsSinceEpoch()) / 1000.0;
}

QHttpServerResponse problem(Status status, const QString& reason) {
    return QHttpServerResponse(QJsonObject{{QStringLiteral("error"), reason}}, status);
}

// The body as a JSON object, or none.
std::optional<QJsonObject> jsonObject(const QHttpServerRequest& request) {
    const QJsonDocument doc = QJsonDocument::fromJson(request.body());
    if (!doc.isObject()) return std::nullopt;
    return doc.object();
}

std::optional<QString> bearer(const QHttpServerRequest& request) {
    const QByteArray value = request.value("Authorization").trimmed();
    static const QByteArray scheme = "bearer ";
    if (value.size() <= scheme.size() || value.left(scheme.size()).toLower() != scheme) return std::nullopt;
    return QString::fromUtf8(value.mid(scheme.size()).trimmed());
}

}  // namespace

RefServer::RefServer(const ServerOptions& options, QObject* parent)
    : QObject(parent), options_(options), db_(options.dbPath), http_(std::make_unique<QHttpServer>()) {
    if (!db_.ok()) {
        error_ = db_.error();
        return;
    }
    setUp();
    if (!ok()) return;

    using Method = QHttpServerRequest::Method;
    http_->route("/auth/login", Method::Post, [this](const QHttpServerRequest& r) { return login(r); });
    http_->route("/v1/enroll-self", Method::Post,
                 [this](const QHttpServerRequest& r) { return enrollSelf(r); });
    http_->route("/v1/me", Method::Get, [this](const QHttpServerRequest& r) { return me(r); });
    http_->route("/v1/ingest", Method::Post, [this](const QHttpServerRequest& r) { return ingest(r); });
    http_->route("/", Method::Get, [this] { return dashboard(); });
    if (!options_.updatesDir.isEmpty())
        http_->route("/updates/<arg>", Method::Get,
                     [this](const QUrl& path) { return updateFile(path.path()); });
}

RefServer::~RefServer() = default;

void RefServer::setUp() {
    for (const UserSpec& u : options_.users) {
        const auto hash = PasswordHash::make(u.password, options_.passwordIterations);
        if (!hash || !db_.upsertUser(u.email.trimmed(), *hash, u.employeeName)) {
            error_ = QStringLiteral("cannot store user %1").arg(u.email);
            return;
        }
    }
    if (options_.passcode) {
        std::optional<PasswordHash> record;
        const auto stored = db_.passcode();
        // Keep the stored record when it still matches, so agents see no change after a restart.
        if (stored && stored->iterations == options_.passcodeIterations && stored->verify(*options_.passcode))
            record = stored;
        else if (!options_.passcode->isEmpty())
            record = PasswordHash::make(*options_.passcode, options_.passcodeIterations);
        if (!db_.setPasscode(record)) error_ = QStringLiteral("cannot store the passcode: ") + db_.error();
    }
    for (auto it = options_.machineNames.begin(); it != options_.machineNames.end(); ++it)
        db_.renameMachine(it.key(), it.value());
}

quint16 RefServer::listen(const QHostAddress& address, quint16 port) {
    if (!ok()) return 0;
    // The server is handed a listening socket server (Qt 6.8 has no other way; 6.4 has this one
    // too), a QSslServer when TLS is asked for.
    std::unique_ptr<QTcpServer> socketServer;
    if (tls()) {
        QFile certFile(options_.tlsCert), keyFile(options_.tlsKey);
        if (!certFile.open(QIODevice::ReadOnly) || !keyFile.open(QIODevice::ReadOnly)) return 0;
        const QSslCertificate cert(&certFile, QSsl::Pem);
        const QByteArray keyPem = keyFile.readAll();
        QSslKey key(keyPem, QSsl::Ec);
        if (key.isNull()) key = QSslKey(keyPem, QSsl::Rsa);
        if (cert.isNull() || key.isNull()) return 0;
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        config.setLocalCertificate(cert);
        config.setPrivateKey(key);
        auto sslServer = std::make_unique<QSslServer>();
        sslServer->setSslConfiguration(config);
        socketServer = std::move(sslServer);
    } else {
        socketServer = std::make_unique<QTcpServer>();
    }
    if (!socketServer->listen(address, port)) return 0;
    port_ = socketServer->serverPort();
    http_->bind(socketServer.release());  // the HTTP server becomes its parent
    return port_;
}

QHttpServerResponse RefServer::login(const QHttpServerRequest& request) {
    const auto body = jsonObject(request);
    if (!body) return problem(Status::BadRequest, QStringLiteral("body must be a JSON object"));
    const QJsonValue email = body->value(QLatin1String("email"));
    const QJsonValue password = body->value(QLatin1String("password"));
    if (!email.isString() || !password.isString())
        return problem(Status::BadRequest, QStringLiteral("email and password must be strings"));

    const auto user = db_.userByEmail(email.toString().trimmed());
    if (!user || !user->password.verify(password.toString()))
        return problem(Status::Unauthorized, QStringLiteral("incorrect e-mail or password"));
    const QString token = randomToken();
    if (!db_.addToken(tokenDigest(token), user->id, now() + options_.tokenLifetimeSeconds))
        return problem(Status::InternalServerError, QStringLiteral("cannot store the token"));
    return QHttpServerResponse(QJsonObject{{QStringLiteral("token"), token}});
}

QHttpServerResponse RefServer::enrollSelf(const QHttpServerRequest& request) {
    const QByteArray token = request.value("X-Auth-Token");
    const auto userId =
        token.isEmpty() ? std::nullopt : db_.userForToken(tokenDigest(QString::fromUtf8(token)), now());
    if (!userId) return problem(Status::Unauthorized, QStringLiteral("missing or expired sign-in token"));
    const auto body = jsonObject(request);
    if (!body) return problem(Status::BadRequest, QStringLiteral("body must be a JSON object"));
    const QJsonValue uid = body->value(QLatin1String("machine_uid"));
    const QJsonValue name = body->value(QLatin1String("machine_name"));
    if (!uid.isString() || uid.toString().trimmed().isEmpty())
        return problem(Status::BadRequest, QStringLiteral("machine_uid must be a non-empty string"));
    if (!name.isString()) return problem(Status::BadRequest, QStringLiteral("machine_name must be a string"));

    const QString machineUid = uid.toString().trimmed();
    const QString machineName = options_.machineNames.value(machineUid, name.toString().trimmed());
    const QString key = randomToken();
    if (db_.enroll(machineUid, machineName, *userId, tokenDigest(key), now()) < 0)
        return problem(Status::InternalServerError, QStringLiteral("cannot enroll the machine"));
    return QHttpServerResponse(QJsonObject{{QStringLiteral("api_key"), key}});
}

std::optional<MachineIdentity> RefServer::machineFor(const QHttpServerRequest& request) {
    const auto key = bearer(request);
    return key ? db_.machineForKey(tokenDigest(*key)) : std::nullopt;
}

QHttpServerResponse RefServer::me(const QHttpServerRequest& request) {
    const auto machine = machineFor(request);
    if (!machine) return problem(Status::Unauthorized, QStringLiteral("unknown API key"));
    QJsonObject answer{{QStringLiteral("employee_name"), machine->employeeName},
                       {QStringLiteral("machine_name"), machine->machineName}};
    if (const auto passcode = db_.passcode())
        answer.insert(QStringLiteral("passcode"),
                      QJsonObject{{QStringLiteral("salt"), QString::fromLatin1(passcode->salt.toBase64())},
                                  {QStringLiteral("hash"), QString::fromLatin1(passcode->hash.toBase64())},
                                  {QStringLiteral("iterations"), passcode->iterations}});
    return QHttpServerResponse(answer);
}

QHttpServerResponse RefServer::ingest(const QHttpServerRequest& request) {
    const auto machine = machineFor(request);
    if (!machine) return problem(Status::Unauthorized, QStringLiteral("unknown API key"));
    const IngestBatch batch = IngestBatch::parse(request.body());
    if (!batch.error.isEmpty()) return problem(Status::BadRequest, batch.error);
    if (!db_.upsertSessions(machine->id, batch.sessions, now()))
        return problem(Status::InternalServerError, QStringLiteral("cannot store the sessions"));
    return QHttpServerResponse(QJsonObject{{QStringLiteral("accepted"), qint64(batch.sessions.size())}});
}

QHttpServerResponse RefServer::updateFile(const QString& name) {
    // A file inside the folder, in sub-folders too (a feed per release, an apt repository):
    // nothing above it, nothing hidden.
    const QDir dir(options_.updatesDir);
    const QFileInfo file(dir.filePath(name));
    const QStringList parts = name.split(u'/');
    const bool plain = std::all_of(parts.begin(), parts.end(), [](const QString& part) {
        return !part.isEmpty() && !part.startsWith(u'.') && !part.contains(u'\\');
    });
    if (!plain || !file.isFile() || !file.canonicalFilePath().startsWith(dir.canonicalPath() + u'/'))
        return QHttpServerResponse(Status::NotFound);
    QFile f(file.filePath());
    if (!f.open(QIODevice::ReadOnly)) return QHttpServerResponse(Status::NotFound);
    const QByteArray type =
        file.fileName() == u"appcast.xml" ? "application/rss+xml" : "application/octet-stream";
    return QHttpServerResponse(type, f.readAll());
}

QHttpServerResponse RefServer::dashboard() {
    return QHttpServerResponse("text/html; charset=utf-8", renderDashboard(db_, now()).toUtf8());
}

}  // namespace corvi::refserver
