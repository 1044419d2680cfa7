#pragma once

#include <QDBusConnection>
#include <chrono>
#include <memory>

#include "platform/IdleMonitor.h"
#include "platform/linux/freedesktop/ScreenLockProbe.h"
#include "platform/linux/wayland/WaylandIdle.h"

namespace corvi {

// Idle time on KWin: its idle timer on our own Wayland connection, else the screen saver
// service on the session bus (Plasma's session manager answers GetSessionIdleTime; KWin alone
// does not), which is asked again only every `reprobeInterval` while it does not answer. Lock
// state from the shared lock probe.
class KdeIdleMonitor : public IdleMonitor {
  public:
    static constexpr int kCallTimeoutMs = 250;

    KdeIdleMonitor(std::shared_ptr<WaylandSession> wayland, QDBusConnection sessionBus,
                   std::unique_ptr<ScreenLockProbe> lock,
                   std::chrono::milliseconds reprobeInterval = std::chrono::seconds(60));

    double idleSeconds() override;
    bool screenLocked() override;

  private:
    double screenSaverIdleSeconds();

    WaylandIdle wayland_;
    QDBusConnection bus_;
    std::unique_ptr<ScreenLockProbe> lock_;
    std::chrono::milliseconds reprobeInterval_;
    bool silent_ = false;
    std::chrono::steady_clock::time_point silentSince_{};
};

}  // namespace corvi
