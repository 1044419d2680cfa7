#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <functional>
#include <optional>

#include "model/Passcode.h"

namespace corvi {

class LoginItem;

// The agent's one observable state: the configuration kept in config.json and the live state
// the menu and the settings show. Main thread only.
//
// Every assignment of a published field, even of an equal value, emits aboutToChange(field)
// before the value is stored; an observer connected with a queued connection therefore sees
// the new value. Side effects run only when the value differs.
class AppModel : public QObject {
    Q_OBJECT
  public:
    enum class IconState { tracking, noPermission, paused };
    enum class Field {
        serverURL,
        apiKey,
        paused,
        language,
        launchAtLogin,
        accessibilityOK,
        pending,
        lastSync,
        lastSyncOK,
        serverReachable,
        connectedAs,
        currentStateLabel,
        settingsUnlocked,
        passcode
    };
    Q_ENUM(Field)

    // The user's preferred languages, first preferred first (for example "pt-BR", "en-US").
    using LanguageSource = std::function<QStringList()>;

    // An empty path means the agent's data folder + "/config.json". The folder is created.
    explicit AppModel(const QString& configPath = {}, QObject* parent = nullptr);

    QString serverURL() const { return serverURL_; }
    void setServerURL(const QString& value);
    QString apiKey() const { return apiKey_; }
    void setApiKey(const QString& value);
    bool paused() const { return paused_; }
    void setPaused(bool value);
    QString language() const { return language_; }
    void setLanguage(const QString& value);
    bool launchAtLogin() const { return launchAtLogin_; }
    void setLaunchAtLogin(bool value);
    bool accessibilityOK() const { return accessibilityOK_; }
    void setAccessibilityOK(bool value);
    qint64 pending() const { return pending_; }
    void setPending(qint64 value);
    std::optional<double> lastSync() const { return lastSync_; }
    void setLastSync(std::optional<double> value);
    bool lastSyncOK() const { return lastSyncOK_; }
    void setLastSyncOK(bool value);
    bool serverReachable() const { return serverReachable_; }
    void setServerReachable(bool value);
    QString connectedAs() const { return connectedAs_; }
    void setConnectedAs(const QString& value);
    QString currentStateLabel() const { return currentStateLabel_; }
    void setCurrentStateLabel(const QString& value);
    bool settingsUnlocked() const { return settingsUnlocked_; }
    void setSettingsUnlocked(bool value);
    std::optional<Passcode> passcode() const { return passcode_; }
    void setPasscode(const std::optional<Passcode>& value);

    QString configURL() const { return configURL_; }

    bool configured() const { return !serverURL_.isEmpty() && !apiKey_.isEmpty(); }
    // "pt" or "en".
    QString lang() const;
    IconState iconState() const;

    // Never fails visibly (a file it cannot read is logged); never writes the file.
    void load();
    // True when the file was written; it is replaced atomically or left as it was. While a
    // file that load could not read is still there, nothing is written (see configUnread).
    bool save();
    // The last load found a file it could not read (too large, not a regular file, not a JSON
    // object); a save would destroy what it holds.
    bool configUnread() const { return configUnread_; }
    // Makes the user's login item match launchAtLogin; errors go to the log.
    void applyLaunchAtLogin();

    // Seams: where the preferred languages come from (default: the system locale's UI
    // languages, which Qt takes from LANGUAGE, LC_ALL, LC_MESSAGES, LANG), and the login item
    // applyLaunchAtLogin acts on (not owned; default: the platform's).
    void setLanguageSource(LanguageSource source) { languageSource_ = std::move(source); }
    void setLoginItem(LoginItem* item) { loginItem_ = item; }
    LoginItem* loginItem() const { return loginItem_; }

    // Server link (defined with the server code).
    QString base() const;
    // base() + path as the URL to send to; none when the address is refused, which the log
    // hears of once per address rather than at every tick.
    std::optional<QUrl> endpoint(const QString& path);
    void loginAndEnroll(const QString& server, const QString& email, const QString& password,
                        std::function<void(bool ok, std::optional<QString> message)> done);
    void refreshIdentity();
    void disconnect();
    static QString hardwareUID();
    static QString versaoAgente();
    static QString versaoCompleta();

  signals:
    void aboutToChange(AppModel::Field field);

  private:
    // Announces, stores, and answers whether the value changed.
    template <typename T>
    bool assign(Field field, T& slot, const T& value);

    QString serverURL_;
    QString apiKey_;
    bool paused_ = false;
    QString language_ = QStringLiteral("system");
    bool launchAtLogin_ = true;
    bool accessibilityOK_ = false;
    qint64 pending_ = 0;
    std::optional<double> lastSync_;
    bool lastSyncOK_ = false;
    bool serverReachable_ = false;
    QString connectedAs_;
    QString currentStateLabel_ = QStringLiteral("\u2014");
    bool settingsUnlocked_ = false;
    std::optional<Passcode> passcode_;
    QString configURL_;

    bool loading_ = false;
    bool configUnread_ = false;
    QString refusedAddressSaid_;
    LanguageSource languageSource_;
    LoginItem* loginItem_ = nullptr;
};

}  // namespace corvi
