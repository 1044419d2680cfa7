#include "shell/AgentBus.h"

#include <unistd.h>

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>
#include <QElapsedTimer>
#include <QPointer>
#include <QThread>

namespace corvi {
namespace {

// Answers, with the person's answer to a prompt included, can take minutes.
constexpr int signInCallMs = 6 * 60 * 1000;

// A running agent that is still starting has the lock before it has the name.
bool waitForAgent(int waitMs) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return false;
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        if (bus.interface()->isServiceRegistered(QLatin1String(AgentBus::service))) return true;
        if (clock.elapsed() >= waitMs) return false;
        QThread::msleep(100);
    }
}

QDBusMessage call(const char* method, const QVariantList& args) {
    QDBusMessage m = QDBusMessage::createMethodCall(QLatin1String(AgentBus::service), QLatin1String(AgentBus::path),
                                                    QLatin1String(AgentBus::interface), QLatin1String(method));
    m.setArguments(args);
    return m;
}

}  // namespace

AgentBus::AgentBus(QObject* parent) : QObject(parent) {}

AgentBus::~AgentBus() {
    if (!published_) return;
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.unregisterObject(QLatin1String(path));
    bus.unregisterService(QLatin1String(service));
}

bool AgentBus::publish() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) return false;
    if (!bus.registerObject(QLatin1String(path), this, QDBusConnection::ExportScriptableSlots)) return false;
    if (!bus.registerService(QLatin1String(service))) {
        bus.unregisterObject(QLatin1String(path));
        return false;
    }
    published_ = true;
    return true;
}

bool AgentBus::callerIsThisUser() {
    const QDBusReply<uint> uid = connection().interface()->serviceUid(message().service());
    if (uid.isValid() && uid.value() == ::getuid()) return true;
    sendErrorReply(QDBusError::AccessDenied, QStringLiteral("not this user's agent"));
    return false;
}

void AgentBus::OpenSettings() {
    if (!callerIsThisUser()) return;
    // After the answer: the caller need not wait for the gate's prompt.
    QPointer<AgentBus> self(this);
    QMetaObject::invokeMethod(
        this,
        [self] {
            if (self && self->onOpenSettings) self->onOpenSettings();
        },
        Qt::QueuedConnection);
}

bool AgentBus::SignIn(const QString& server, const QString& email, const QString& password, QString& message) {
    if (!callerIsThisUser()) return false;
    if (!onSignIn) {
        message = QStringLiteral("the agent cannot sign in now");
        return false;
    }
    setDelayedReply(true);
    const QDBusMessage request = QDBusContext::message();
    QDBusConnection bus = connection();
    // Queued, so a prompt the sign-in may open does not run inside the bus dispatch.
    QPointer<AgentBus> self(this);
    QMetaObject::invokeMethod(
        this,
        [self, server, email, password, request, bus]() mutable {
            if (!self || !self->onSignIn) {
                bus.send(request.createErrorReply(QDBusError::Failed, QStringLiteral("the agent is gone")));
                return;
            }
            self->onSignIn(server, email, password, [request, bus](bool ok, const QString& text) mutable {
                bus.send(request.createReply(QVariantList{ok, text}));
            });
        },
        Qt::QueuedConnection);
    return false;
}

bool AgentBus::askOpenSettings(int waitMs) {
    if (!waitForAgent(waitMs)) return false;
    // It answers before it acts; an agent that does not answer at once is hung.
    return QDBusConnection::sessionBus().call(call("OpenSettings", {}), QDBus::Block, 2000).type() ==
           QDBusMessage::ReplyMessage;
}

std::optional<std::pair<bool, QString>> AgentBus::askSignIn(const QString& server, const QString& email,
                                                            const QString& password, int waitMs) {
    if (!waitForAgent(waitMs)) return std::nullopt;
    const QDBusMessage reply =
        QDBusConnection::sessionBus().call(call("SignIn", {server, email, password}), QDBus::Block, signInCallMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2) {
        if (reply.type() == QDBusMessage::ErrorMessage && reply.errorName() != QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown"))
            return std::pair{false, reply.errorMessage()};
        return std::nullopt;
    }
    return std::pair{reply.arguments().at(0).toBool(), reply.arguments().at(1).toString()};
}

}  // namespace corvi
