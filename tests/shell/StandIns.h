#pragma once

#include <QList>
#include <QStringList>
#include <functional>
#include <map>

#include "platform/Accessibility.h"
#include "platform/ActiveWindow.h"
#include "platform/AdminAuth.h"
#include "platform/Clock.h"
#include "platform/CpuTimeSource.h"
#include "platform/IdleMonitor.h"
#include "shell/PasscodePrompt.h"

namespace corvi::test {

struct StepClock final : Clock {
    double now() const override { return time; }
    double time = 1'800'000'000;  // a wall-clock time in 2027
};

struct StandInWindow final : ActiveWindow {
    std::optional<Info> current() override {
        ++reads;
        return front;
    }
    QString focusedWindowTitle(std::int32_t) override { return front ? front->windowTitle : QString(); }
    std::optional<Info> front = Info{"com.adobe.photoshop", "Adobe Photoshop", 42, "poster.psd"};
    int reads = 0;
};

struct StandInIdle final : IdleMonitor {
    double idleSeconds() override { return idle; }
    bool screenLocked() override { return locked; }
    double idle = 0;
    bool locked = false;
};

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

struct StandInCpu final : CpuTimeSource {
    std::optional<std::uint64_t> cpuNanos(std::int32_t pid) override {
        const auto it = totals.find(pid);
        return it == totals.end() ? std::nullopt : std::optional(it->second);
    }
    std::map<std::int32_t, std::uint64_t> totals;
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
