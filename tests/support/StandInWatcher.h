#pragma once

#include <QDBusMessage>
#include <QDBusVariant>
#include <QStringList>
#include <atomic>

#include "support/BusStandIn.h"

namespace corvi::test {

// A panel's StatusNotifierWatcher: it takes items and says whether its host is up, described
// the way Qt reads it (introspection, then the property).
class StandInWatcher {
  public:
    // On the bus of DBUS_SESSION_BUS_ADDRESS, or the one given.
    explicit StandInWatcher(bool hostUp,
                            const QString& busAddress = qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"))
        : hostUp_(hostUp),
          standIn_(
              busAddress, "/StatusNotifierWatcher",
              [this](const QDBusMessage& call, QDBusConnection& bus) { answer(call, bus); }, false,
              kIntrospection) {}
    bool start() { return standIn_.claim("org.kde.StatusNotifierWatcher"); }
    void hostComes() {
        hostUp_ = true;
        standIn_.send(QDBusMessage::createSignal("/StatusNotifierWatcher", "org.kde.StatusNotifierWatcher",
                                                 "StatusNotifierHostRegistered"));
    }
    // The services that registered an item, in order.
    QStringList items() const {
        QStringList out;
        for (const QDBusMessage& m : standIn_.received())
            if (m.member() == "RegisterStatusNotifierItem") out << m.arguments().value(0).toString();
        return out;
    }

  private:
    void answer(const QDBusMessage& call, QDBusConnection& bus) {
        if (call.member() != "Get") return void(bus.send(call.createReply()));
        const QVariant value =
            call.arguments().value(1) == "ProtocolVersion" ? QVariant(0) : QVariant(hostUp_.load());
        bus.send(call.createReply(QVariant::fromValue(QDBusVariant(value))));
    }

    static constexpr char kIntrospection[] = R"(<interface name="org.kde.StatusNotifierWatcher">
                                   <method name="RegisterStatusNotifierItem"><arg type="s" direction="in"/></method>
                                   <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
                                   <property name="ProtocolVersion" type="i" access="read"/>
                                   <signal name="StatusNotifierHostRegistered"/>
                                 </interface>)";
    std::atomic<bool> hostUp_;
    BusStandIn standIn_;
};

}  // namespace corvi::test
