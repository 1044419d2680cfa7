#include "platform/linux/DesktopSession.h"
#include "platform/linux/wayland/WaylandIdle.h"
#include "platform/linux/wayland/WlrAccessibility.h"
#include "platform/linux/wayland/WlrActiveWindow.h"

namespace corvi {

// Probes that stay on the session's Wayland socket: a compositor started, restarted or
// without the toplevel manager answers neutrally until it offers one.
Probes makeWlrootsProbes(const DesktopSession& session) {
    auto wayland = WaylandSession::shared();
    auto toplevels = std::make_shared<WlrToplevels>(wayland);
    const auto unsupported = [session] { logUnsupportedSession(session); };
    // No socket at all is known now; a missing manager only once a tick has read what the
    // compositor offers, since a compositor busy at login may still be answering.
    if (!toplevels->refresh()) unsupported();
    // sway names its IPC socket in the session's environment.
    const QByteArray swaySocket = qgetenv("SWAYSOCK");
    auto sway = swaySocket.isEmpty() ? nullptr : std::make_unique<SwayIpc>(swaySocket);
    return {std::make_unique<WlrActiveWindow>(toplevels, std::make_unique<DesktopEntries>(), std::move(sway),
                                              unsupported),
            std::make_unique<WaylandIdle>(wayland, makeScreenLockProbe()),
            std::make_unique<WlrAccessibility>(toplevels)};
}

}  // namespace corvi
