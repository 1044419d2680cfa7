#pragma once

#include <QDBusConnection>
#include <QString>
#include <cstdint>
#include <optional>

namespace corvi {

// Our GNOME Shell extension as seen from the session bus: it owns kBusName while enabled and
// answers Get with the focused window. Asked once per call, so a disabled extension or a Shell
// that went away is noticed at the next tick, with nothing held from an earlier one.
class GnomeShellExtension {
  public:
    static constexpr const char* kUuid = "corviagent@corvimetry.stonefold.tech";
    static constexpr const char* kBusName = "tech.stonefold.corvimetry.GnomeShell";
    static constexpr const char* kObjectPath = "/tech/stonefold/corvimetry/FocusedWindow";
    static constexpr const char* kInterface = "tech.stonefold.corvimetry.FocusedWindow";
    static constexpr int kCallTimeoutMs = 250;

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
    QDBusConnection bus_;
};

}  // namespace corvi
