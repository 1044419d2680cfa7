// The probes' factories: one shared display connection, the session and system buses.
#include <QDBusConnection>

#include "platform/Accessibility.h"
#include "platform/ActiveWindow.h"
#include "platform/IdleMonitor.h"
#include "platform/linux/X11Accessibility.h"
#include "platform/linux/X11ActiveWindow.h"
#include "platform/linux/X11IdleMonitor.h"

namespace corvi {

std::unique_ptr<ActiveWindow> makeActiveWindow() {
    return std::make_unique<X11ActiveWindow>(X11Session::shared());
}

std::unique_ptr<IdleMonitor> makeIdleMonitor() {
    return std::make_unique<X11IdleMonitor>(
        X11Session::shared(),
        std::make_unique<ScreenLockProbe>(QDBusConnection::sessionBus(), QDBusConnection::systemBus()));
}

std::unique_ptr<Accessibility> makeAccessibility() {
    return std::make_unique<X11Accessibility>(X11Session::shared());
}

}  // namespace corvi
