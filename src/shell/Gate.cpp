#include "shell/Gate.h"

#include "model/AppModel.h"
#include "platform/AdminAuth.h"
#include "shell/PasscodePrompt.h"

namespace corvi {

bool Gate::autoriza(GuardedAction action) {
    const QString lang = model_.lang();
    if (const std::optional<Passcode> passcode = model_.passcode())
        return passcodePrompt_.pede(reason(action, lang), *passcode, title(lang), wrongPasscode(lang));
    return adminAuth_.authenticate(actionId(action));
}

QString Gate::reason(GuardedAction action, const QString& lang) {
    const bool pt = lang == u"pt";
    switch (action) {
        case GuardedAction::pause:
            return pt ? QStringLiteral("Pausar a coleta do Corvimetry exige autorização.")
                      : QStringLiteral("Pausing Corvimetry tracking requires authorization.");
        case GuardedAction::quit:
            return pt ? QStringLiteral("Fechar o Corvimetry exige autorização.")
                      : QStringLiteral("Quitting Corvimetry requires authorization.");
        case GuardedAction::settings:
            return pt ? QStringLiteral("Abrir os Ajustes do Corvimetry exige autorização.")
                      : QStringLiteral("Opening Corvimetry Settings requires authorization.");
    }
    return {};
}

QString Gate::actionId(GuardedAction action) {
    switch (action) {
        case GuardedAction::pause:
            return QStringLiteral("tech.stonefold.corvimetry.pause");
        case GuardedAction::quit:
            return QStringLiteral("tech.stonefold.corvimetry.quit");
        case GuardedAction::settings:
            return QStringLiteral("tech.stonefold.corvimetry.settings");
    }
    return {};
}

QString Gate::title(const QString& lang) {
    return lang == u"pt" ? QStringLiteral("Senha do Corvimetry") : QStringLiteral("Corvimetry password");
}

QString Gate::wrongPasscode(const QString& lang) {
    return lang == u"pt" ? QStringLiteral("Senha incorreta. Tente de novo.")
                         : QStringLiteral("Wrong password. Try again.");
}

}  // namespace corvi
