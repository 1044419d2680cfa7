#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QMutex>
#include <QThread>
#include <functional>

namespace corvi::test {

class BusStandInObject;

// A stand-in service on a test bus: `answer` handles every call to `path` on the stand-in's own
// thread, so a blocking call from the test's thread gets its answer. An answer that sends no
// reply leaves the caller waiting. The service name is owned between claim() and release().
// With `subtree`, the objects below `path` are answered too (services that hand out objects).
// `introspection` is the <interface> elements the object describes itself with, for callers
// that introspect before they call.
class BusStandIn {
  public:
    using Answer = std::function<void(const QDBusMessage& call, QDBusConnection& bus)>;

    BusStandIn(const QString& busAddress, const QString& path, Answer answer, bool subtree = false,
               QString introspection = {});
    ~BusStandIn();
    BusStandIn(const BusStandIn&) = delete;
    BusStandIn& operator=(const BusStandIn&) = delete;

    bool claim(const QString& service);
    void release();
    // Sends a message (a signal) from the stand-in's connection.
    void send(const QDBusMessage& message) { bus_.send(message); }
    // The calls handled so far, oldest first.
    QList<QDBusMessage> received() const;

  private:
    friend class BusStandInObject;
    QString connectionName_;
    QDBusConnection bus_;
    QString service_;
    Answer answer_;
    QString introspection_;
    mutable QMutex mutex_;
    QList<QDBusMessage> received_;
    QThread thread_;
    BusStandInObject* object_;
};

}  // namespace corvi::test
