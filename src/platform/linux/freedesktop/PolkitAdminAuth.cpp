#include "platform/linux/freedesktop/PolkitAdminAuth.h"

#include <unistd.h>

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>
#include <QVariantMap>
#include <atomic>

#include "platform/Log.h"
#include "platform/linux/freedesktop/ProcStat.h"

namespace corvi {

PolkitAdminAuth::PolkitAdminAuth(QString busAddress, int timeoutMs)
    : busAddress_(std::move(busAddress)), timeoutMs_(timeoutMs) {}

quint64 PolkitAdminAuth::processStartTime() {
    QFile file(QStringLiteral("/proc/self/stat"));
    if (!file.open(QIODevice::ReadOnly)) return 0;
    const QByteArray text = file.readAll();
    return procStatField(std::string_view(text.constData(), static_cast<std::size_t>(text.size())), 22)
        .value_or(0);
}

bool PolkitAdminAuth::authenticate(const QString& actionId) {
    QDBusConnection bus = QDBusConnection::systemBus();
    QString privateName;
    if (!busAddress_.isEmpty()) {
        static std::atomic<int> counter{0};
        privateName = QStringLiteral("corvi-polkit-%1").arg(counter++);
        bus = QDBusConnection::connectToBus(busAddress_, privateName);
    }

    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.PolicyKit1"), QStringLiteral("/org/freedesktop/PolicyKit1/Authority"),
        QStringLiteral("org.freedesktop.PolicyKit1.Authority"), QStringLiteral("CheckAuthorization"));

    QDBusArgument subject;
    subject.beginStructure();
    subject << QStringLiteral("unix-process");
    subject << QVariantMap{
        {QStringLiteral("pid"), QVariant::fromValue(static_cast<quint32>(::getpid()))},
        {QStringLiteral("start-time"), QVariant::fromValue(processStartTime())},
        {QStringLiteral("uid"), QVariant::fromValue(static_cast<qint32>(::getuid()))},
    };
    subject.endStructure();

    // polkit refuses details from ordinary callers: the reason text lives in the action.
    QDBusArgument details;
    details.beginMap(QMetaType::fromType<QString>(), QMetaType::fromType<QString>());
    details.endMap();

    constexpr quint32 allowUserInteraction = 1;
    call << QVariant::fromValue(subject) << actionId << QVariant::fromValue(details)
         << QVariant::fromValue(allowUserInteraction) << QString();

    bool authorized = false, challenge = false;
    QString unavailable;  // why the person could not be asked
    if (!bus.isConnected()) {
        unavailable = QStringLiteral("barramento do sistema inacessível");
    } else {
        const QDBusMessage reply = bus.call(call, QDBus::Block, timeoutMs_);
        if (reply.type() == QDBusMessage::ErrorMessage) {
            unavailable = QStringLiteral("polkit respondeu ") + reply.errorName();
        } else if (reply.signature() != u"(bba{ss})") {
            unavailable = QStringLiteral("resposta inesperada do polkit (") + reply.signature() + u')';
        } else {
            const QDBusArgument result = reply.arguments().value(0).value<QDBusArgument>();
            result.beginStructure();
            result >> authorized >> challenge;
            // A challenge despite interaction allowed: no authentication agent runs here.
            if (!authorized && challenge)
                unavailable = QStringLiteral("nenhum agente de autenticação do polkit");
        }
    }
    if (!privateName.isEmpty()) QDBusConnection::disconnectFromBus(privateName);
    // A refusal is the person's own answer; a request nobody could answer would look like one.
    if (!unavailable.isEmpty())
        Log::line(QStringLiteral("CorviAgent: autorização de administrador indisponível (") + actionId +
                  QStringLiteral("): ") + unavailable);
    return authorized;
}

std::unique_ptr<AdminAuth> makeAdminAuth() {
    return std::make_unique<PolkitAdminAuth>();
}

}  // namespace corvi
