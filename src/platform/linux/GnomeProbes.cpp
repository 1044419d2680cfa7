#include <QDBusConnection>

#include "platform/linux/DesktopSession.h"
#include "platform/linux/GnomeAccessibility.h"
#include "platform/linux/GnomeActiveWindow.h"
#include "platform/linux/GnomeIdleMonitor.h"
#include "platform/linux/ScreenLockProbe.h"

namespace corvi {

// Everything comes from the session bus: the focused window from our Shell extension, the
// idle time from Mutter. Without the extension the window probe sees nothing and the
// permission reads as missing until it is enabled; the idle time does not depend on it.
Probes makeGnomeProbes(const DesktopSession&) {
    const QDBusConnection bus = QDBusConnection::sessionBus();
    auto extension = std::make_shared<GnomeShellExtension>(bus);
    return {std::make_unique<GnomeActiveWindow>(extension),
            std::make_unique<GnomeIdleMonitor>(bus, makeScreenLockProbe()),
            std::make_unique<GnomeAccessibility>(extension, bus)};
}

}  // namespace corvi
