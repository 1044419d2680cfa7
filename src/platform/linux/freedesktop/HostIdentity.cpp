#include "platform/HostIdentity.h"

#include <cctype>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QFile>
#include <QMessageAuthenticationCode>
#include <QSysInfo>
#include <QUuid>

namespace corvi {
namespace {

const QStringList defaultMachineIdFiles = {QStringLiteral("/etc/machine-id"),
                                           QStringLiteral("/var/lib/dbus/machine-id")};

// A machine id is 32 hexadecimal digits and a line feed; anything else counts as absent.
QByteArray readMachineId(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return {};
    const QByteArray text = file.read(64).trimmed();
    if (text.size() != 32) return {};
    for (char c : text)
        if (!std::isxdigit(static_cast<unsigned char>(c))) return {};
    return QByteArray::fromHex(text);
}

}  // namespace

QString machineUIDFrom(const QStringList& machineIdFiles) {
    for (const QString& path : machineIdFiles) {
        const QByteArray id = readMachineId(path);
        if (id.size() != 16) continue;
        QByteArray bytes = QMessageAuthenticationCode::hash(QByteArrayLiteral("tech.stonefold.corvimetry"),
                                                            id, QCryptographicHash::Sha256)
                               .left(16);
        bytes[6] = char((bytes[6] & 0x0F) | 0x40);
        bytes[8] = char((bytes[8] & 0x3F) | 0x80);
        return QUuid::fromRfc4122(bytes).toString(QUuid::WithoutBraces).toUpper();
    }
    return QStringLiteral("unknown-mac");
}

QString machineUID() {
    return machineUIDFrom(defaultMachineIdFiles);
}

QString machineName() {
    // A plain call rather than QDBusInterface, which would introspect first and could block long.
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.hostname1"), QStringLiteral("/org/freedesktop/hostname1"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << QStringLiteral("org.freedesktop.hostname1") << QStringLiteral("PrettyHostname");
    const QDBusMessage reply = QDBusConnection::systemBus().call(call, QDBus::Block, 500);
    if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
        const QString pretty = reply.arguments().first().value<QDBusVariant>().variant().toString();
        if (!pretty.isEmpty()) return pretty;
    }
    return QSysInfo::machineHostName();
}

}  // namespace corvi
