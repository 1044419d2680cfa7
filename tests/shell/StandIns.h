#pragma once

#include <QList>
#include <QStringList>
#include <functional>

#include "platform/Accessibility.h"
#include "platform/AdminAuth.h"
#include "shell/PasscodePrompt.h"

namespace corvi::test {

struct StandInAccessibility final : Accessibility {
    bool trusted() override { return granted; }
    bool trustedWithPrompt() override { return granted; }
    bool openGrantPlace() override {
        ++grantPlaceOpened;
        return hasGrantPlace;
    }
    bool settling() override { return stillSettling; }
    bool granted = true;
    bool stillSettling = false;
    bool hasGrantPlace = false;  // the desktop has its own place to grant the permission
    int grantPlaceOpened = 0;
};

// Answers from a script (no when it runs out) and records what was asked.
struct ScriptedAdminAuth final : AdminAuth {
    bool authenticate(const QString& actionId) override {
        asked << actionId;
        if (onAsk) onAsk();
        return answers.isEmpty() ? false : answers.takeFirst();
    }
    QList<bool> answers;
    QStringList asked;
    std::function<void()> onAsk;
};

// Records each request as "reason|title|wrong-passcode text".
struct ScriptedPrompt final : PasscodePrompt {
    bool pede(const QString& reason, const Passcode&, const QString& titulo, const QString& erro) override {
        asked << reason + u'|' + titulo + u'|' + erro;
        return answers.isEmpty() ? false : answers.takeFirst();
    }
    QList<bool> answers;
    QStringList asked;
};

}  // namespace corvi::test
