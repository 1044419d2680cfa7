#include "platform/linux/kde/KdeIdleMonitor.h"

#include <QDBusMessage>
#include <cmath>

namespace corvi {

KdeIdleMonitor::KdeIdleMonitor(std::shared_ptr<WaylandSession> wayland, QDBusConnection sessionBus,
                               std::unique_ptr<ScreenLockProbe> lock,
                               std::chrono::milliseconds reprobeInterval)
    : wayland_(std::move(wayland), nullptr),
      bus_(std::move(sessionBus)),
      lock_(std::move(lock)),
      reprobeInterval_(reprobeInterval) {}

double KdeIdleMonitor::idleSeconds() {
    const double seconds = wayland_.idleSeconds();
    return wayland_.watching() ? seconds : screenSaverIdleSeconds();
}

double KdeIdleMonitor::screenSaverIdleSeconds() {
    const auto now = std::chrono::steady_clock::now();
    if (!bus_.isConnected() || (silent_ && now - silentSince_ < reprobeInterval_)) return 0;
    auto call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.ScreenSaver"), QStringLiteral("/org/freedesktop/ScreenSaver"),
        QStringLiteral("org.freedesktop.ScreenSaver"), QStringLiteral("GetSessionIdleTime"));
    // Plasma's locker, if it runs: an activatable screen saver of another desktop is not started.
    call.setAutoStartService(false);
    const QDBusMessage reply = bus_.call(call, QDBus::Block, kCallTimeoutMs);
    bool ok = false;
    const double ms =
        reply.type() == QDBusMessage::ReplyMessage ? reply.arguments().value(0).toDouble(&ok) : 0;
    silent_ = !ok;
    if (silent_) silentSince_ = now;
    return ok && std::isfinite(ms) && ms > 0 ? ms / 1000.0 : 0.0;
}

bool KdeIdleMonitor::screenLocked() {
    return lock_ && lock_->locked();
}

}  // namespace corvi
