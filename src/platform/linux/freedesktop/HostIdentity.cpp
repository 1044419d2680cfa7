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

QString prettyHostnameIn(const QString& machineInfoFile) {
    QFile file(machineInfoFile);
    if (file.size() > 64 * 1024 || !file.open(QIODevice::ReadOnly)) return {};
    QString value;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.startsWith(QLatin1String("PRETTY_HOSTNAME="))) value = line.mid(16);
    }
    // One quoted word, as hostnamed writes it; inside double quotes a backslash escapes.
    if (value.size() >= 2 && value.front() == value.back() &&
        (value.front() == u'"' || value.front() == u'\'')) {
        const bool single = value.front() == u'\'';
        const QString inner = value.mid(1, value.size() - 2);
        if (single) return inner;
        QString out;
        for (qsizetype i = 0; i < inner.size(); ++i) {
            if (inner[i] == u'\\' && i + 1 < inner.size()) ++i;
            out += inner[i];
        }
        return out;
    }
    return value;
}

QString machineName() {
    // A plain call rather than QDBusInterface, which would introspect first and could block long.
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.hostname1"), QStringLiteral("/org/freedesktop/hostname1"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    call << QStringLiteral("org.freedesktop.hostname1") << QStringLiteral("PrettyHostname");
    // hostnamed runs on demand: a sign-in does not start it. Not running, its file tells the same.
    call.setAutoStartService(false);
    const QDBusMessage reply = QDBusConnection::systemBus().call(call, QDBus::Block, 500);
    if (reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty()) {
        const QString pretty = reply.arguments().first().value<QDBusVariant>().variant().toString();
        if (!pretty.isEmpty()) return pretty;
    } else if (const QString pretty = prettyHostnameIn(QStringLiteral("/etc/machine-info"));
               !pretty.isEmpty()) {
        return pretty;
    }
    return QSysInfo::machineHostName();
}

}  // namespace corvi
