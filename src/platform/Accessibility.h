#pragma once

#include <memory>

namespace corvi {

// Whether the agent may read window titles. On X11 there is nothing to grant: titles are
// readable when the display is open and its window manager publishes the active window. On
// Wayland the desktop's own way in (a protocol, a Shell extension, a compositor script) must
// answer.
class Accessibility {
  public:
    virtual ~Accessibility() = default;
    virtual bool trusted() = 0;
    // Registers the agent and shows the system's prompt where a platform has one; answers
    // the same as trusted().
    virtual bool trustedWithPrompt() = 0;
    // Opens the desktop's own place where the permission is granted (a settings page, an
    // app); false when the desktop has none, and the caller shows its help page instead.
    virtual bool openGrantPlace() { return false; }
    // True while the answer is still on its way (a compositor that runs our script answers a
    // moment after start); trusted() may then change without anything being granted.
    virtual bool settling() { return false; }
};

}  // namespace corvi
