// The model's server-identity operations: sign-in and enrollment, identity refresh,
// disconnect, and the platform values they send.
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkRequest>
#include <QPointer>
#include <cmath>

#include "BuildConfig.h"
#include "model/AppModel.h"
#include "platform/HostIdentity.h"
#include "platform/Log.h"
#include "server/HttpClient.h"
#include "server/ServerAddress.h"
#include "server/ServerTimeouts.h"

namespace corvi {
namespace {

using Done = std::function<void(bool, std::optional<QString>)>;

QString say(const AppModel& model, const char* pt, const char* en) {
    return QString::fromUtf8(model.lang() == u"pt" ? pt : en);
}
QString invalidAddress(const AppModel& m) {
    return say(m, "Endereço inválido.", "Invalid address.");
}
QString wrongCredentials(const AppModel& m) {
    return say(m, "E-mail ou senha incorretos.", "Incorrect e-mail or password.");
}
QString enrollFailed(const AppModel& m) {
    return say(m, "Falha ao cadastrar este computador.", "Failed to enroll this computer.");
}

QNetworkRequest jsonPost(const QUrl& url) {
    QNetworkRequest request(url);
    request.setRawHeader("Content-Type", "application/json");
    return request;
}

QByteArray jsonBody(const QJsonObject& o) {
    return QJsonDocument(o).toJson(QJsonDocument::Compact);
}

// An integral JSON number; Qt keeps "3" and "3.0" alike, so both count.
std::optional<qint64> integer(const QJsonValue& v) {
    if (!v.isDouble()) return std::nullopt;
    const double d = v.toDouble();
    if (!std::isfinite(d) || d != std::floor(d) || std::fabs(d) > 9007199254740992.0) return std::nullopt;
    return v.toInteger(qint64(d));
}

// `key` of a 200 answer's JSON object; undefined for any other answer.
QJsonValue answerField(const HttpResult& result, const char* key) {
    const auto answer = result.jsonObjectIf200();
    return answer ? answer->value(QLatin1String(key)) : QJsonValue(QJsonValue::Undefined);
}

std::optional<Passcode> passcodeFrom(const QJsonValue& value) {
    if (!value.isObject()) return std::nullopt;
    const QJsonObject o = value.toObject();
    const QJsonValue salt = o.value(QLatin1String("salt"));
    const QJsonValue hash = o.value(QLatin1String("hash"));
    const auto iterations = integer(o.value(QLatin1String("iterations")));
    if (!salt.isString() || !hash.isString() || !iterations) return std::nullopt;
    return Passcode{salt.toString(), hash.toString(), *iterations};
}

void enroll(QPointer<AppModel> model, const QString& base, const QString& token, const Done& done) {
    const auto url = endpointUrl(base, QStringLiteral("/v1/enroll-self"));
    if (!url) {
        done(false, invalidAddress(*model));
        return;
    }
    QNetworkRequest request = jsonPost(*url);
    request.setRawHeader("X-Auth-Token", token.toUtf8());
    const QByteArray body = jsonBody({{QStringLiteral("machine_uid"), AppModel::hardwareUID()},
                                      {QStringLiteral("machine_name"), machineName()}});
    HttpClient::shared().send(request, "POST", body, serverTimeouts().signInMs, model,
                              [model, base, done](const HttpResult& result) {
                                  const QJsonValue key = answerField(result, "api_key");
                                  if (!key.isString() || !isHeaderSafe(key.toString())) {
                                      done(false, enrollFailed(*model));
                                      return;
                                  }
                                  const QString oldBase = model->serverURL(), oldKey = model->apiKey();
                                  model->setServerURL(base);
                                  model->setApiKey(key.toString());
                                  if (!model->save()) {
                                      // A key kept only in memory is gone at the next start.
                                      model->setServerURL(oldBase);
                                      model->setApiKey(oldKey);
                                      done(false, enrollFailed(*model));
                                      return;
                                  }
                                  model->refreshIdentity();
                                  done(true, std::nullopt);
                              });
}

}  // namespace

ServerTimeouts& serverTimeouts() {
    static ServerTimeouts timeouts;
    return timeouts;
}

QString AppModel::base() const {
    return normalizedBase(serverURL_);
}

std::optional<QUrl> AppModel::endpoint(const QString& path) {
    const QString address = base();
    AddressFault fault{};
    const auto url = endpointUrl(address, path, &fault);
    if (url || address == refusedAddressSaid_) return url;
    refusedAddressSaid_ = address;
    Log::line(QStringLiteral("CorviAgent: nada é enviado a ") + address +
              (fault == AddressFault::cleartext
                   ? QStringLiteral(": http só vale para este computador; use https")
                   : QStringLiteral(": endereço inválido")));
    return url;
}

void AppModel::loginAndEnroll(const QString& server, const QString& email, const QString& password,
                              Done done) {
    const QString base = normalizedBase(server);
    const auto url = endpointUrl(base, QStringLiteral("/auth/login"));
    if (!url) {
        done(false, invalidAddress(*this));
        return;
    }
    const QByteArray body =
        jsonBody({{QStringLiteral("email"), email}, {QStringLiteral("password"), password}});
    QPointer<AppModel> self(this);
    HttpClient::shared().send(jsonPost(*url), "POST", body, serverTimeouts().signInMs, this,
                              [self, base, done = std::move(done)](const HttpResult& result) {
                                  const QJsonValue token = answerField(result, "token");
                                  if (!token.isString() || !isHeaderSafe(token.toString())) {
                                      done(false, wrongCredentials(*self));
                                      return;
                                  }
                                  enroll(self, base, token.toString(), done);
                              });
}

void AppModel::refreshIdentity() {
    // A key no header can carry is never sent: as good as none.
    if (!configured() || !isHeaderSafe(apiKey_)) {
        setServerReachable(false);
        return;
    }
    const auto url = endpoint(QStringLiteral("/v1/me"));
    if (!url) {
        setServerReachable(false);
        return;
    }
    QNetworkRequest request(*url);
    setAgentHeaders(request, apiKey_, versaoAgente());
    QPointer<AppModel> self(this);
    HttpClient::shared().send(
        request, "GET", QByteArray(), serverTimeouts().identityMs, this, [self](const HttpResult& result) {
            const auto answer = result.jsonObjectIf200();
            self->setServerReachable(answer.has_value());
            if (!answer) return;
            const QJsonValue employee = answer->value(QLatin1String("employee_name"));
            const QJsonValue machine = answer->value(QLatin1String("machine_name"));
            self->setConnectedAs((employee.isString() ? employee.toString() : QString()) +
                                 QStringLiteral(" \u00b7 ") +
                                 (machine.isString() ? machine.toString() : QString()));
            const auto passcode = passcodeFrom(answer->value(QLatin1String("passcode")));
            if (passcode == self->passcode()) return;
            self->setPasscode(passcode);
            self->save();
        });
}

void AppModel::disconnect() {
    setApiKey(QString());
    setServerURL(QString());
    setConnectedAs(QString());
    setServerReachable(false);
    setSettingsUnlocked(false);
    save();
}

QString AppModel::hardwareUID() {
    return machineUID();
}

QString AppModel::versaoAgente() {
    const QString version = QString::fromUtf8(build::version);
    return version.isEmpty() ? QStringLiteral("dev") : version;
}

QString AppModel::versaoCompleta() {
    const QString version = QString::fromUtf8(build::version);
    if (version.isEmpty()) return QStringLiteral("dev");
    const QString number = QString::fromUtf8(build::buildNumber);
    return number.isEmpty() ? version : version + QStringLiteral(" (") + number + QStringLiteral(")");
}

}  // namespace corvi
