#include "platform/linux/gnome/GnomeAccessibility.h"

#include <QDBusMessage>
#include <QDBusReply>
#include <QVariantMap>

namespace corvi {

GnomeAccessibility::GnomeAccessibility(std::shared_ptr<GnomeShellExtension> extension, QDBusConnection bus)
    : extension_(std::move(extension)), bus_(std::move(bus)) {}

bool GnomeAccessibility::trusted() {
    return extension_->focus().has_value();
}

bool GnomeAccessibility::openGrantPlace() {
    if (!bus_.isConnected()) return false;
    const QString app = QString::fromLatin1(kExtensionsApp);
    QDBusMessage ask = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("ListActivatableNames"));
    const QDBusReply<QStringList> activatable =
        bus_.call(ask, QDBus::Block, GnomeShellExtension::kCallTimeoutMs);
    if (!activatable.isValid() || !activatable.value().contains(app)) return false;
    // Starting the app can take longer than the interface may wait; its answer is not awaited.
    QDBusMessage activate = QDBusMessage::createMethodCall(app, QStringLiteral("/org/gnome/Extensions"),
                                                           QStringLiteral("org.freedesktop.Application"),
                                                           QStringLiteral("Activate"));
    activate << QVariantMap();
    return bus_.send(activate);
}

}  // namespace corvi
