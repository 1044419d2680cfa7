#pragma once

#include <QDBusConnection>
#include <chrono>
#include <memory>

#include "platform/IdleMonitor.h"

namespace corvi {

class GnomeShellExtension;
class ScreenLockProbe;

// Mutter's own idle counter for the whole session (org.gnome.Mutter.IdleMonitor, the core
// monitor), asked once per read with a short timeout; no answer is 0. Mutter is the Shell's
// own process, so its silence also tells the extension's client that the Shell hangs: the
// one call a steady tick makes to it is the one that notices.
class GnomeIdleMonitor : public IdleMonitor {
  public:
    static constexpr int kCallTimeoutMs = 250;

    GnomeIdleMonitor(QDBusConnection bus, std::unique_ptr<ScreenLockProbe> lock,
                     std::shared_ptr<GnomeShellExtension> shell = {});
    ~GnomeIdleMonitor() override;

    double idleSeconds() override;
    bool screenLocked() override;

  private:
    QDBusConnection bus_;
    // After a timeout the Shell is left alone for a while, as the extension's client does.
    std::chrono::steady_clock::time_point quietUntil_{};
    std::unique_ptr<ScreenLockProbe> lock_;
    std::shared_ptr<GnomeShellExtension> shell_;
};

}  // namespace corvi
