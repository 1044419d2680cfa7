#pragma once

#include <QString>
#include <QUrl>
#include <QWidget>
#include <functional>

namespace corvi {

class AppModel;
class CapsuleButton;
class PillField;
class SettingsTabs;
class ThemedLabel;

// What the settings reach outside the model. Empty functions do nothing.
struct SettingsHooks {
    QString defaultServer;  // where the form signs in while the model holds no server
    QString webAddress;     // the service's web pages; the sign-up page is <web>/app
    std::function<void()> grant;  // the Status page's Grant button
    // True where a machine-wide autostart entry starts the agent: no start-at-login switch then.
    std::function<bool()> machineWideAutostart;
    std::function<void(const QUrl&)> openUrl;
};

// The settings' content, 380 wide with the height of what it shows: the sign-in form while
// the settings are locked, the tabs once they are unlocked. The form keeps what was typed for
// the life of the view.
class SettingsView : public QWidget {
    Q_OBJECT
  public:
    static constexpr int width = 380;

    SettingsView(AppModel& model, SettingsHooks hooks, QWidget* parent = nullptr);

    // The form's parts, and the tabs (null while locked).
    QWidget* gate() const { return gate_; }
    PillField* emailField() const { return email_; }
    PillField* passwordField() const { return password_; }
    CapsuleButton* signInButton() const { return signIn_; }
    CapsuleButton* signUpLink() const { return signUp_; }
    ThemedLabel* errorLine() const { return error_; }
    SettingsTabs* tabs() const { return tabs_; }
    bool gateBusy() const { return busy_; }

    // The sign-in action of the form (Return in a field, or the button). Does nothing while
    // the button is disabled.
    void unlock();

    static QString signUpPath() { return QStringLiteral("/app"); }

  protected:
    bool event(QEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;

  private:
    void buildGate();
    void refresh();
    void fit();

    AppModel& model_;
    SettingsHooks hooks_;
    QWidget* gate_ = nullptr;
    ThemedLabel* intro_ = nullptr;
    PillField* email_ = nullptr;
    PillField* password_ = nullptr;
    ThemedLabel* error_ = nullptr;
    CapsuleButton* signIn_ = nullptr;
    CapsuleButton* signUp_ = nullptr;
    SettingsTabs* tabs_ = nullptr;
    QString gateError_;
    bool busy_ = false;
};

}  // namespace corvi
