#include "model/AppModel.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>

#include "model/ConfigFile.h"
#include "platform/Log.h"
#include "platform/LoginItem.h"
#include "platform/Paths.h"

namespace corvi {
namespace {

QString stringOr(const QJsonObject& o, QLatin1StringView key, const QString& fallback) {
    const QJsonValue v = o.value(key);
    return v.isString() ? v.toString() : fallback;
}

bool boolOr(const QJsonObject& o, QLatin1StringView key, bool fallback) {
    const QJsonValue v = o.value(key);
    return v.isBool() ? v.toBool() : fallback;
}

// A JSON number counts as an integer when it is whole and fits in 64 bits, as Qt reads it:
// 4096 and 4096.0 do, 1.5 and 1e30 do not.
std::optional<qint64> integer(const QJsonValue& v) {
    if (!v.isDouble()) return std::nullopt;
    const qint64 a = v.toInteger(0), b = v.toInteger(1);
    if (a != b) return std::nullopt;
    return a;
}

std::optional<Passcode> passcodeFrom(const QJsonValue& v) {
    if (!v.isObject()) return std::nullopt;
    const QJsonObject o = v.toObject();
    const QJsonValue salt = o.value(QLatin1StringView("salt"));
    const QJsonValue hash = o.value(QLatin1StringView("hash"));
    const std::optional<qint64> iterations = integer(o.value(QLatin1StringView("iterations")));
    if (!salt.isString() || !hash.isString() || !iterations) return std::nullopt;
    return Passcode{salt.toString(), hash.toString(), *iterations};
}

QStringList systemLanguages() {
    return QLocale::system().uiLanguages();
}

}  // namespace

AppModel::AppModel(const QString& configPath, QObject* parent)
    : QObject(parent),
      configURL_(configPath.isEmpty() ? dataFolder() + QStringLiteral("/config.json") : configPath),
      languageSource_(systemLanguages),
      loginItem_(&platformLoginItem()) {
    QDir().mkpath(QFileInfo(configURL_).absolutePath());
}

template <typename T>
bool AppModel::assign(Field field, T& slot, const T& value) {
    emit aboutToChange(field);
    const bool changed = !(slot == value);
    slot = value;
    return changed;
}

void AppModel::setServerURL(const QString& value) {
    assign(Field::serverURL, serverURL_, value);
}
void AppModel::setApiKey(const QString& value) {
    assign(Field::apiKey, apiKey_, value);
}

void AppModel::setPaused(bool value) {
    if (assign(Field::paused, paused_, value) && !loading_) save();
}

void AppModel::setLanguage(const QString& value) {
    if (assign(Field::language, language_, value) && !loading_) save();
}

void AppModel::setLaunchAtLogin(bool value) {
    if (!assign(Field::launchAtLogin, launchAtLogin_, value)) return;
    if (!loading_) save();
    applyLaunchAtLogin();
}

void AppModel::setAccessibilityOK(bool value) {
    assign(Field::accessibilityOK, accessibilityOK_, value);
}
void AppModel::setPending(qint64 value) {
    assign(Field::pending, pending_, value);
}
void AppModel::setLastSync(std::optional<double> value) {
    assign(Field::lastSync, lastSync_, value);
}
void AppModel::setLastSyncOK(bool value) {
    assign(Field::lastSyncOK, lastSyncOK_, value);
}
void AppModel::setServerReachable(bool value) {
    assign(Field::serverReachable, serverReachable_, value);
}
void AppModel::setConnectedAs(const QString& value) {
    assign(Field::connectedAs, connectedAs_, value);
}
void AppModel::setCurrentStateLabel(const QString& value) {
    assign(Field::currentStateLabel, currentStateLabel_, value);
}
void AppModel::setSettingsUnlocked(bool value) {
    assign(Field::settingsUnlocked, settingsUnlocked_, value);
}
void AppModel::setPasscode(const std::optional<Passcode>& value) {
    assign(Field::passcode, passcode_, value);
}

QString AppModel::lang() const {
    if (language_ == u"pt") return QStringLiteral("pt");
    if (language_ == u"en") return QStringLiteral("en");
    const QStringList preferred = languageSource_ ? languageSource_() : QStringList();
    if (!preferred.isEmpty() && preferred.first().toLower().startsWith(u"pt")) return QStringLiteral("pt");
    return QStringLiteral("en");
}

AppModel::IconState AppModel::iconState() const {
    if (paused_) return IconState::paused;
    return accessibilityOK_ ? IconState::tracking : IconState::noPermission;
}

void AppModel::load() {
    const std::optional<QByteArray> bytes = configfile::read(configURL_);
    // An empty file holds nothing to lose, like a missing one.
    const bool empty = bytes ? bytes->isEmpty() : !QFileInfo::exists(configURL_);
    const QJsonDocument doc = bytes ? QJsonDocument::fromJson(*bytes) : QJsonDocument();
    configUnread_ = !empty && !doc.isObject();
    if (configUnread_)
        Log::line(QStringLiteral("CorviAgent: config.json ilegível, mantido sem alterações: ") + configURL_);
    if (!doc.isObject()) return;
    const QJsonObject o = doc.object();

    loading_ = true;
    setServerURL(stringOr(o, QLatin1StringView("server_url"), QString()));
    setApiKey(stringOr(o, QLatin1StringView("api_key"), QString()));
    setPaused(boolOr(o, QLatin1StringView("paused"), false));
    setLanguage(stringOr(o, QLatin1StringView("language"), QStringLiteral("system")));
    if (const std::optional<Passcode> p = passcodeFrom(o.value(QLatin1StringView("passcode"))))
        setPasscode(p);
    setLaunchAtLogin(boolOr(o, QLatin1StringView("launch_at_login"), true));
    loading_ = false;
}

bool AppModel::save() {
    // The unread file may hold the only copy of the API key, so it is never replaced, not even
    // by a fresh enrollment (which then reports failure); saving resumes once it is removed, or
    // repaired and loaded at the next start.
    if (configUnread_) {
        if (QFileInfo::exists(configURL_)) return false;
        configUnread_ = false;
    }
    QJsonObject o{
        {QStringLiteral("server_url"), serverURL_},
        {QStringLiteral("api_key"), apiKey_},
        {QStringLiteral("paused"), paused_},
        {QStringLiteral("language"), language_},
        {QStringLiteral("launch_at_login"), launchAtLogin_},
    };
    if (passcode_)
        o.insert(QStringLiteral("passcode"),
                 QJsonObject{{QStringLiteral("salt"), passcode_->salt},
                             {QStringLiteral("hash"), passcode_->hash},
                             {QStringLiteral("iterations"), passcode_->iterations}});
    const QByteArray text = QJsonDocument(o).toJson(QJsonDocument::Indented);
    // What load would refuse is not written: it would be lost at the next start.
    return text.size() <= configfile::maxBytes && configfile::replaceAtomically(configURL_, text);
}

void AppModel::applyLaunchAtLogin() {
    if (!loginItem_) return;
    LoginItem& item = *loginItem_;
    if (!item.installedProgram()) return;
    QString error;
    if (!item.upgradeItem(error))
        Log::line(QStringLiteral("CorviAgent: iniciar com o sistema falhou: ") + error);
    if (item.systemWideEntryPresent()) return;
    const bool enabled = item.status() == LoginItem::Status::enabled;
    if (launchAtLogin_ == enabled) return;
    const bool ok = launchAtLogin_ ? item.registerItem(error) : item.unregisterItem(error);
    if (!ok) Log::line(QStringLiteral("CorviAgent: iniciar com o sistema falhou: ") + error);
}

}  // namespace corvi
