#include "support/BusStandIn.h"

#include <QDBusVirtualObject>
#include <QUuid>

namespace corvi::test {

class BusStandInObject : public QDBusVirtualObject {
  public:
    explicit BusStandInObject(BusStandIn* owner) : owner_(owner) {}
    QString introspect(const QString&) const override { return owner_->introspection_; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        if (message.type() != QDBusMessage::MethodCallMessage ||
            message.interface() == "org.freedesktop.DBus.Introspectable")
            return false;
        {
            QMutexLocker lock(&owner_->mutex_);
            owner_->received_ << message;
        }
        QDBusConnection bus(connection);
        owner_->answer_(message, bus);
        return true;
    }

  private:
    BusStandIn* owner_;
};

BusStandIn::BusStandIn(const QString& busAddress, const QString& path, Answer answer, bool subtree,
                       QString introspection)
    : connectionName_("stand-in-" + QUuid::createUuid().toString(QUuid::WithoutBraces)),
      bus_(QDBusConnection::connectToBus(busAddress, connectionName_)),
      answer_(std::move(answer)),
      introspection_(std::move(introspection)),
      object_(new BusStandInObject(this)) {
    // Registered before the move: a subtree registration gives the object a child, which must
    // move with it.
    bus_.registerVirtualObject(path, object_,
                               subtree ? QDBusConnection::SubPath : QDBusConnection::SingleNode);
    thread_.start();
    object_->moveToThread(&thread_);
}

BusStandIn::~BusStandIn() {
    release();
    QDBusConnection::disconnectFromBus(connectionName_);
    thread_.quit();
    thread_.wait();
    delete object_;
}

bool BusStandIn::claim(const QString& service) {
    if (!bus_.isConnected() || !bus_.registerService(service)) return false;
    service_ = service;
    return true;
}

void BusStandIn::release() {
    if (!service_.isEmpty()) bus_.unregisterService(service_);
    service_.clear();
}

QList<QDBusMessage> BusStandIn::received() const {
    QMutexLocker lock(&mutex_);
    return received_;
}

}  // namespace corvi::test
