#pragma once

#include <memory>

#include "platform/Accessibility.h"
#include "platform/linux/x11/X11Session.h"

namespace corvi {

// Trusted when a live EWMH window manager lists _NET_ACTIVE_WINDOW in _NET_SUPPORTED. The
// supporting-WM check window must exist and name itself, so the properties a dead window
// manager left on the root window do not count.
class X11Accessibility : public Accessibility {
  public:
    explicit X11Accessibility(std::shared_ptr<X11Session> session);

    bool trusted() override;
    bool trustedWithPrompt() override { return trusted(); }

  private:
    std::shared_ptr<X11Session> session_;
};

}  // namespace corvi
