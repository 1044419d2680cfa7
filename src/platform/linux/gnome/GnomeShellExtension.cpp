#include "platform/linux/gnome/GnomeShellExtension.h"

#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <limits>

namespace corvi {

namespace {

std::int32_t pidOf(std::uint32_t pid) {
    return pid <= std::uint32_t(std::numeric_limits<std::int32_t>::max()) ? std::int32_t(pid) : 0;
}

}  // namespace

GnomeShellExtension::GnomeShellExtension(QDBusConnection bus) : bus_(std::move(bus)) {
    if (!bus_.isConnected()) return;
    const QString name = QString::fromLatin1(kBusName);
    watcher_ = new QDBusServiceWatcher(name, bus_, QDBusServiceWatcher::WatchForOwnerChange, this);
    connect(watcher_, &QDBusServiceWatcher::serviceOwnerChanged, this,
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
    Focus f;
    f.focused = focused;
    if (focused) {
        f.appId = appId.trimmed();
        f.title = title;
        f.pid = pidOf(pid);
    }
    known_ = f;
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
    Focus f;
    f.focused = args[0].toBool();
    if (!f.focused) return f;
    f.appId = args[1].toString().trimmed();
    f.title = args[2].toString();
    f.pid = pidOf(args[3].toUInt());
    return f;
}

}  // namespace corvi
