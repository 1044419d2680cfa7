#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QUuid>
#include <atomic>

#include "platform/linux/freedesktop/ScreenLockProbe.h"
#include "support/BusStandIn.h"
#include "support/DBusDaemon.h"

namespace corvi {
namespace {

using test::DBusDaemon;
using namespace std::chrono_literals;

QDBusConnection connect(const DBusDaemon& daemon) {
    return QDBusConnection::connectToBus(daemon.address(), QUuid::createUuid().toString());
}

const QString kLogind = QStringLiteral("org.freedesktop.login1");

// A stand-in screen locker: a screen saver answering GetActive at the path its name gives, or
// logind's session answering the LockedHint property. It leaves the next `unanswered` calls
// without an answer.
struct LockService {
    LockService(const DBusDaemon& bus, const QString& service)
        : standIn(bus.address(),
                  service == kLogind ? QStringLiteral("/org/freedesktop/login1/session/auto")
                                     : u'/' + QString(service).replace(u'.', u'/'),
                  [this, logind = service == kLogind](const QDBusMessage& call, QDBusConnection& c) {
                      const bool asked = logind ? call.member() == u"Get" &&
                                                      call.arguments().value(1).toString() == u"LockedHint"
                                                : call.member() == u"GetActive";
                      if (!asked)
                          c.send(call.createErrorReply(QDBusError::UnknownMethod, call.member()));
                      else if (unanswered > 0)
                          --unanswered;
                      else
                          c.send(logind ? call.createReply(QVariant::fromValue(QDBusVariant(bool(locked))))
                                        : call.createReply(QVariant(bool(locked))));
                  }),
          ok(standIn.claim(service)) {}
    int calls() const { return static_cast<int>(standIn.received().size()); }

    std::atomic<bool> locked{false};
    std::atomic<int> unanswered{0};
    test::BusStandIn standIn;
    const bool ok;
};

// Private session and system buses, with stand-in lockers placed on them per test.
class ScreenLockProbeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(session_.ok());
        ASSERT_TRUE(system_.ok());
    }
    ScreenLockProbe probe(std::chrono::milliseconds reprobe = 0ms) {
        return ScreenLockProbe(connect(session_), connect(system_), reprobe);
    }

    DBusDaemon session_;
    DBusDaemon system_;
};

TEST_F(ScreenLockProbeTest, FirstAnsweringLockerDecides) {
    for (const QString service : {"org.freedesktop.ScreenSaver", "org.gnome.ScreenSaver",
                                  "org.cinnamon.ScreenSaver", "org.freedesktop.login1"}) {
        SCOPED_TRACE(service.toStdString());
        LockService locker(service == kLogind ? system_ : session_, service);
        ASSERT_TRUE(locker.ok);
        ScreenLockProbe p = probe();
        locker.locked = true;
        EXPECT_TRUE(p.locked());
        locker.locked = false;
        EXPECT_FALSE(p.locked());
    }
}

TEST_F(ScreenLockProbeTest, EarlierLockerInOrderWinsAndIsRemembered) {
    LockService gnome(session_, "org.gnome.ScreenSaver");
    LockService logind(system_, kLogind);
    ASSERT_TRUE(gnome.ok && logind.ok);
    gnome.locked = true;
    logind.locked = false;
    ScreenLockProbe p = probe(1h);
    EXPECT_TRUE(p.locked());
    EXPECT_TRUE(p.locked());
    EXPECT_EQ(gnome.calls(), 2);
    gnome.unanswered = 1;
    EXPECT_TRUE(p.locked()) << "missed once: the same tick searches again, in order";
    EXPECT_TRUE(p.locked());
    EXPECT_EQ(gnome.calls(), 5);
    EXPECT_EQ(logind.calls(), 0) << "the remembered locker is the only one asked";
}

TEST_F(ScreenLockProbeTest, NoLockerMeansUnlockedAndSearchIsThrottled) {
    ScreenLockProbe p = probe(1h);
    EXPECT_FALSE(p.locked());
    LockService late(session_, "org.freedesktop.ScreenSaver");
    ASSERT_TRUE(late.ok);
    late.locked = true;
    EXPECT_FALSE(p.locked()) << "not searched again before the interval";
    EXPECT_EQ(late.calls(), 0);
}

TEST_F(ScreenLockProbeTest, LockerThatGoesAwayIsForgotten) {
    ScreenLockProbe p = probe(0ms);
    {
        LockService locker(session_, "org.mate.ScreenSaver");
        ASSERT_TRUE(locker.ok);
        locker.locked = true;
        EXPECT_TRUE(p.locked());
    }
    EXPECT_FALSE(p.locked());
    LockService other(system_, kLogind);
    ASSERT_TRUE(other.ok);
    other.locked = true;
    EXPECT_TRUE(p.locked());
}

TEST_F(ScreenLockProbeTest, HangingLockerCostsItsTimeoutAndHidesNoLaterOne) {
    LockService hanging(session_, "org.freedesktop.ScreenSaver");
    LockService gnome(session_, "org.gnome.ScreenSaver");
    ASSERT_TRUE(hanging.ok && gnome.ok);
    hanging.unanswered = 1000;
    gnome.locked = true;
    ScreenLockProbe p = probe(1h);
    QElapsedTimer tick;
    tick.start();
    EXPECT_TRUE(p.locked());
    EXPECT_LT(tick.elapsed(), 2 * ScreenLockProbe::kCallTimeoutMs);
    EXPECT_TRUE(p.locked());
    EXPECT_EQ(hanging.calls(), 1);
    EXPECT_EQ(gnome.calls(), 2);
}

TEST(ScreenLockProbeNoBusTest, DisconnectedBusesMeanUnlocked) {
    ScreenLockProbe p(QDBusConnection(QStringLiteral("none-a")), QDBusConnection(QStringLiteral("none-b")),
                      0ms);
    EXPECT_FALSE(p.locked());
}

}  // namespace
}  // namespace corvi
