#pragma once

#include <memory>

#include "platform/IdleMonitor.h"
#include "platform/linux/freedesktop/ScreenLockProbe.h"
#include "platform/linux/x11/X11Session.h"

namespace corvi {

// Idle time from the MIT-SCREEN-SAVER extension (one X round trip); lock state from the
// screen lockers on D-Bus.
class X11IdleMonitor : public IdleMonitor {
  public:
    X11IdleMonitor(std::shared_ptr<X11Session> session, std::unique_ptr<ScreenLockProbe> lock);

    double idleSeconds() override;
    bool screenLocked() override;

  private:
    std::shared_ptr<X11Session> session_;
    std::unique_ptr<ScreenLockProbe> lock_;
};

}  // namespace corvi
