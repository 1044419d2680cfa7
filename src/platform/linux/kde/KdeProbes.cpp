// KWin's probes: a script of ours inside KWin reports the active window; KWin's idle timer
// on our own Wayland connection gives the idle time.
#include <QDBusConnection>

#include "platform/linux/DesktopSession.h"
#include "platform/linux/kde/KWinScript.h"
#include "platform/linux/kde/KdeAccessibility.h"
#include "platform/linux/kde/KdeActiveWindow.h"
#include "platform/linux/kde/KdeIdleMonitor.h"

namespace corvi {

Probes makeKdeProbes(const DesktopSession& session) {
    auto script = std::make_shared<KWinScript>(QDBusConnection::sessionBus(),
                                               [session] { logUnsupportedSession(session); });
    return {std::make_unique<KdeActiveWindow>(script),
            std::make_unique<KdeIdleMonitor>(WaylandSession::shared(), QDBusConnection::sessionBus(),
                                             makeScreenLockProbe()),
            std::make_unique<KdeAccessibility>(script)};
}

}  // namespace corvi
