#pragma once

#include <QDBusConnection>
#include <QString>
#include <chrono>
#include <cstdint>
#include <optional>

namespace corvi {

// Our GNOME Shell extension as seen from the session bus: it owns kBusName while enabled and
// answers Get with the focused window. Asked afresh at each call, so a disabled extension or
// a Shell that went away is noticed at the next tick, with nothing held from an earlier one. A
// Shell that does not answer in time (hung, stopped) is left alone for a while, so it costs one
// timeout every other tick rather than one per question.
class GnomeShellExtension {
  public:
    static constexpr const char* kUuid = "corviagent@corvimetry.stonefold.tech";
    static constexpr const char* kBusName = "tech.stonefold.corvimetry.GnomeShell";
    static constexpr const char* kObjectPath = "/tech/stonefold/corvimetry/FocusedWindow";
    static constexpr const char* kInterface = "tech.stonefold.corvimetry.FocusedWindow";
    static constexpr int kCallTimeoutMs = 250;
    static constexpr std::chrono::seconds kQuietAfterTimeout{4};

    struct Focus {
        bool focused = false;  // false: no window has the focus, and the rest is empty
        QString appId;         // the desktop entry's ID, else what the window calls itself
        QString title;
        std::int32_t pid = 0;
    };

    explicit GnomeShellExtension(QDBusConnection bus) : bus_(std::move(bus)) {}

    // None when the extension does not answer (not enabled, no Shell, a malformed reply).
    std::optional<Focus> focus();

  private:
    std::optional<Focus> ask();

    QDBusConnection bus_;
    std::chrono::steady_clock::time_point quietUntil_{};
};

}  // namespace corvi
