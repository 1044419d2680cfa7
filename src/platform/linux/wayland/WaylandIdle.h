#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/IdleMonitor.h"
#include "platform/linux/freedesktop/ScreenLockProbe.h"
#include "platform/linux/wayland/WaylandSession.h"

struct ext_idle_notifier_v1;
struct ext_idle_notification_v1;
struct org_kde_kwin_idle;
struct org_kde_kwin_idle_timeout;

namespace corvi {

// Idle time from the compositor's idle timers: ext-idle-notify-v1 where offered, else KDE's
// org_kde_kwin_idle (wlroots 0.15 has only that one). Both only say "idle" once input has
// stopped for a timeout we choose and "resumed" at the next input, so the seconds are the
// timeout plus the time since the idle event, 0 after resuming. Compositors that honour idle
// inhibitors (a playing video) hold the event back while one is active. The lock state comes
// from the screen lockers on D-Bus.
class WaylandIdle : public IdleMonitor, private WaylandSession::Client {
  public:
    static constexpr std::chrono::milliseconds kTimeout{1000};

    WaylandIdle(std::shared_ptr<WaylandSession> session, std::unique_ptr<ScreenLockProbe> lock);
    ~WaylandIdle() override;

    double idleSeconds() override;
    bool screenLocked() override;

    // Whether a compositor idle timer is running, for the permission and tests.
    bool watching() const { return extNotification_ || kdeTimeout_; }

    // The timer's events, from its listener.
    void idled();
    void resumed();

  private:
    void global(wl_registry* registry, std::uint32_t name, const char* interface,
                std::uint32_t version) override;
    void globalRemoved(std::uint32_t name) override;
    void disconnected() override;
    void arm();
    void disarm();

    std::shared_ptr<WaylandSession> session_;
    std::unique_ptr<ScreenLockProbe> lock_;
    ext_idle_notifier_v1* extNotifier_ = nullptr;
    org_kde_kwin_idle* kdeIdle_ = nullptr;
    ext_idle_notification_v1* extNotification_ = nullptr;
    org_kde_kwin_idle_timeout* kdeTimeout_ = nullptr;
    std::optional<std::chrono::steady_clock::time_point> idleSince_;
};

}  // namespace corvi
