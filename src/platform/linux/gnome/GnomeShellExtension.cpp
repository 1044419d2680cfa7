#include "platform/linux/gnome/GnomeShellExtension.h"

#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <limits>

namespace corvi {

namespace {

// Get's answer and Changed's arguments are the same four values.
GnomeShellExtension::Focus focusOf(bool focused, const QString& appId, const QString& title,
                                   std::uint32_t pid) {
    GnomeShellExtension::Focus f;
    f.focused = focused;
    if (!focused) return f;
    f.appId = appId.trimmed();
    f.title = title;
    f.pid = pid <= std::uint32_t(std::numeric_limits<std::int32_t>::max()) ? std::int32_t(pid) : 0;
    return f;
}

}  // namespace

GnomeShellExtension::GnomeShellExtension(QDBusConnection bus) : bus_(std::move(bus)) {
    if (!bus_.isConnected()) return;
    const QString name = QString::fromLatin1(kBusName);
    auto* watcher = new QDBusServiceWatcher(name, bus_, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher, &QDBusServiceWatcher::serviceOwnerChanged, this,
            [this](const QString&, const QString&, const QString& owner) {
                known_.reset();
                mayHaveOwner_ = !owner.isEmpty();
                quietUntil_ = {};
            });
    // Bound to the name: the bus hands us only what its owner of the moment says.
    bus_.connect(name, QString::fromLatin1(kObjectPath), QString::fromLatin1(kInterface),
                 QStringLiteral("Changed"), this, SLOT(changed(bool, QString, QString, uint)));
}

GnomeShellExtension::~GnomeShellExtension() = default;

std::optional<GnomeShellExtension::Focus> GnomeShellExtension::focus() {
    if (known_ || !mayHaveOwner_) return known_;
    const auto now = std::chrono::steady_clock::now();
    if (now < quietUntil_) return std::nullopt;
    known_ = ask();
    const auto answeredAt = std::chrono::steady_clock::now();
    if (!known_ && answeredAt - now >= std::chrono::milliseconds(kCallTimeoutMs))
        quietUntil_ = answeredAt + kQuietAfterTimeout;
    return known_;
}

void GnomeShellExtension::notAnswering() {
    known_.reset();
    quietUntil_ = std::chrono::steady_clock::now() + kQuietAfterTimeout;
}

void GnomeShellExtension::changed(bool focused, const QString& appId, const QString& title, uint pid) {
    known_ = focusOf(focused, appId, title, pid);
    mayHaveOwner_ = true;
}

std::optional<GnomeShellExtension::Focus> GnomeShellExtension::ask() {
    if (!bus_.isConnected()) return std::nullopt;
    QDBusMessage call =
        QDBusMessage::createMethodCall(QString::fromLatin1(kBusName), QString::fromLatin1(kObjectPath),
                                       QString::fromLatin1(kInterface), QStringLiteral("Get"));
    call.setAutoStartService(false);
    const QDBusMessage reply = bus_.call(call, QDBus::Block, kCallTimeoutMs);
    // Nobody to ask until the bus says the name has an owner again.
    if (reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
        reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner"))
        mayHaveOwner_ = false;
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != QLatin1String("bssu"))
        return std::nullopt;
    const QList<QVariant> args = reply.arguments();
    return focusOf(args[0].toBool(), args[1].toString(), args[2].toString(), args[3].toUInt());
}

}  // namespace corvi
