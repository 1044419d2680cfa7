#include "support/LockService.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QThread>
#include <QUuid>

namespace corvi::test {

class LockServiceObject : public QDBusVirtualObject {
  public:
    explicit LockServiceObject(LockService* owner) : owner_(owner) {}

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const bool asked = owner_->kind_ == LockService::Kind::ScreenSaver
                               ? message.member() == QStringLiteral("GetActive")
                               : message.member() == QStringLiteral("Get") &&
                                     message.arguments().size() == 2 &&
                                     message.arguments().at(1).toString() == QStringLiteral("LockedHint");
        if (!asked) return false;
        ++owner_->calls_;
        if (owner_->silent_) return true;  // taken, never answered
        const bool locked = owner_->locked_;
        QDBusConnection(connection)
            .send(owner_->kind_ == LockService::Kind::ScreenSaver
                      ? message.createReply(QVariant(locked))
                      : message.createReply(QVariant::fromValue(QDBusVariant(locked))));
        return true;
    }

  private:
    LockService* owner_;
};

LockService::LockService(const QString& busAddress, const QString& service, Kind kind)
    : connectionName_(QStringLiteral("lock-service-") + QUuid::createUuid().toString(QUuid::WithoutBraces)),
      service_(service),
      kind_(kind),
      thread_(std::make_unique<QThread>()) {
    QDBusConnection bus = QDBusConnection::connectToBus(busAddress, connectionName_);
    if (!bus.isConnected()) return;
    thread_->start();
    object_ = new LockServiceObject(this);
    object_->moveToThread(thread_.get());
    const QString path = kind == Kind::ScreenSaver ? u'/' + QString(service).replace(u'.', u'/')
                                                   : QStringLiteral("/org/freedesktop/login1/session/auto");
    ok_ = bus.registerVirtualObject(path, object_) && bus.registerService(service);
}

LockService::~LockService() {
    {
        QDBusConnection bus(connectionName_);
        bus.unregisterService(service_);
    }
    QDBusConnection::disconnectFromBus(connectionName_);
    thread_->quit();
    thread_->wait();
    delete object_;
}

}  // namespace corvi::test
