#include "platform/linux/gnome/GnomeIdleMonitor.h"

#include <QDBusMessage>

#include "platform/linux/freedesktop/ScreenLockProbe.h"
#include "platform/linux/gnome/GnomeShellExtension.h"

namespace corvi {

GnomeIdleMonitor::GnomeIdleMonitor(QDBusConnection bus, std::unique_ptr<ScreenLockProbe> lock,
                                   std::shared_ptr<GnomeShellExtension> shell)
    : bus_(std::move(bus)), lock_(std::move(lock)), shell_(std::move(shell)) {}

GnomeIdleMonitor::~GnomeIdleMonitor() = default;

double GnomeIdleMonitor::idleSeconds() {
    const auto now = std::chrono::steady_clock::now();
    if (!bus_.isConnected() || now < quietUntil_) return 0;
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.gnome.Mutter.IdleMonitor"), QStringLiteral("/org/gnome/Mutter/IdleMonitor/Core"),
        QStringLiteral("org.gnome.Mutter.IdleMonitor"), QStringLiteral("GetIdletime"));
    // Mutter's or nobody's: asking must never make the bus start anything.
    call.setAutoStartService(false);
    const QDBusMessage reply = bus_.call(call, QDBus::Block, kCallTimeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage &&
        reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.NoReply")) {
        quietUntil_ = std::chrono::steady_clock::now() + GnomeShellExtension::kQuietAfterTimeout;
        if (shell_) shell_->notAnswering();
    }
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != QLatin1String("t")) return 0;
    return double(reply.arguments().constFirst().toULongLong()) / 1000.0;
}

bool GnomeIdleMonitor::screenLocked() {
    return lock_ && lock_->locked();
}

}  // namespace corvi
