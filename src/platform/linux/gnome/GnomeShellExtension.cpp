#include "platform/linux/gnome/GnomeShellExtension.h"

#include <QDBusMessage>
#include <limits>

namespace corvi {

std::optional<GnomeShellExtension::Focus> GnomeShellExtension::focus() {
    const auto now = std::chrono::steady_clock::now();
    if (now < quietUntil_) return std::nullopt;
    std::optional<Focus> answer = ask();
    const auto answeredAt = std::chrono::steady_clock::now();
    if (!answer && answeredAt - now >= std::chrono::milliseconds(kCallTimeoutMs))
        quietUntil_ = answeredAt + kQuietAfterTimeout;
    return answer;
}

std::optional<GnomeShellExtension::Focus> GnomeShellExtension::ask() {
    if (!bus_.isConnected()) return std::nullopt;
    QDBusMessage call =
        QDBusMessage::createMethodCall(QString::fromLatin1(kBusName), QString::fromLatin1(kObjectPath),
                                       QString::fromLatin1(kInterface), QStringLiteral("Get"));
    call.setAutoStartService(false);
    const QDBusMessage reply = bus_.call(call, QDBus::Block, kCallTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.signature() != QLatin1String("bssu"))
        return std::nullopt;
    const QList<QVariant> args = reply.arguments();
    Focus f;
    f.focused = args[0].toBool();
    if (!f.focused) return f;
    f.appId = args[1].toString().trimmed();
    f.title = args[2].toString();
    const std::uint32_t pid = args[3].toUInt();
    f.pid = pid <= std::uint32_t(std::numeric_limits<std::int32_t>::max()) ? std::int32_t(pid) : 0;
    return f;
}

}  // namespace corvi
