#pragma once

#include <memory>

#include "platform/Accessibility.h"
#include "platform/linux/x11/X11Session.h"

namespace corvi {

// Trusted when a live EWMH window manager lists _NET_ACTIVE_WINDOW in _NET_SUPPORTED. The
// supporting-WM check window must exist and name itself, so the properties a dead window
// manager left on the root window do not count. Asked at every tick, it is read again only
// when X tells of a change (the root's EWMH properties, the check window destroyed).
class X11Accessibility : public Accessibility {
  public:
    explicit X11Accessibility(std::shared_ptr<X11Session> session);

    bool trusted() override;
    bool trustedWithPrompt() override { return trusted(); }

  private:
    bool read(xcb_connection_t* c);

    std::shared_ptr<X11Session> session_;
    bool known_ = false;
    std::uint64_t generation_ = 0;
    bool trusted_ = false;
};

}  // namespace corvi
