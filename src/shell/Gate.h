#pragma once

#include <QString>

namespace corvi {

class AppModel;
class AdminAuth;
class PasscodePrompt;

enum class GuardedAction { pause, quit, settings };

// Decides who may pause, quit or open the settings: whoever knows the organisation's passcode
// when the model holds one, else an administrator. Keeps nothing between calls.
class Gate {
  public:
    Gate(AppModel& model, PasscodePrompt& passcodePrompt, AdminAuth& adminAuth)
        : model_(model), passcodePrompt_(passcodePrompt), adminAuth_(adminAuth) {}

    bool autoriza(GuardedAction action);

    // The reason shown for `action`, Portuguese exactly when `lang` is "pt".
    static QString reason(GuardedAction action, const QString& lang);
    // The system action whose own message carries the reason to the administrator prompt.
    static QString actionId(GuardedAction action);
    static QString title(const QString& lang);
    static QString wrongPasscode(const QString& lang);

  private:
    AppModel& model_;
    PasscodePrompt& passcodePrompt_;
    AdminAuth& adminAuth_;
};

}  // namespace corvi
