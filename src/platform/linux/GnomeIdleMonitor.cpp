#include "platform/linux/GnomeIdleMonitor.h"

#include <QDBusMessage>

#include "platform/linux/ScreenLockProbe.h"

namespace corvi {

GnomeIdleMonitor::GnomeIdleMonitor(QDBusConnection bus, std::unique_ptr<ScreenLockProbe> lock)
    : bus_(std::move(bus)), lock_(std::move(lock)) {}

GnomeIdleMonitor::~GnomeIdleMonitor() = default;

double GnomeIdleMonitor::idleSeconds() {
    if (!bus_.isConnected()) return 0;
    const QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.gnome.Mutter.IdleMonitor"), QStringLiteral("/org/gnome/Mutter/IdleMonitor/Core"),
        QStringLiteral("org.gnome.Mutter.IdleMonitor"), QStringLiteral("GetIdletime"));
    const QDBusMessage reply = bus_.call(call, QDBus::Block, kCallTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != QLatin1String("t")) return 0;
    return double(reply.arguments().constFirst().toULongLong()) / 1000.0;
}

bool GnomeIdleMonitor::screenLocked() {
    return lock_ && lock_->locked();
}

}  // namespace corvi
