#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QUuid>
#include <atomic>

#include "platform/linux/freedesktop/ScreenLockProbe.h"
#include "support/BusStandIn.h"
#include "support/DBusDaemon.h"
#include "support/EventLoop.h"

namespace corvi {
namespace {

using test::DBusDaemon;

QDBusConnection connect(const DBusDaemon& daemon) {
    return QDBusConnection::connectToBus(daemon.address(), QUuid::createUuid().toString());
}

const QString kLogind = "org.freedesktop.login1";

// A stand-in screen locker: a screen saver answering GetActive at the path its name gives, or
// logind's session answering the LockedHint property. It leaves the next `unanswered` calls
// without an answer.
struct LockService {
    LockService(const DBusDaemon& bus, const QString& service)
        : standIn(bus.address(),
                  service == kLogind ? "/org/freedesktop/login1/session/auto"
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
    std::unique_ptr<ScreenLockProbe> probe() {
        return std::make_unique<ScreenLockProbe>(connect(session_), connect(system_));
    }

    // Every locker of every desktop installed, none running: asking must start none.
    DBusDaemon session_{test::desktopServiceNames()};
    DBusDaemon system_{{kLogind}};
};

TEST_F(ScreenLockProbeTest, FirstAnsweringLockerDecides) {
    for (const QString service : {"org.freedesktop.ScreenSaver", "org.gnome.ScreenSaver",
                                  "org.cinnamon.ScreenSaver", "org.freedesktop.login1"}) {
        SCOPED_TRACE(service.toStdString());
        LockService locker(service == kLogind ? system_ : session_, service);
        ASSERT_TRUE(locker.ok);
        const auto p = probe();
        locker.locked = true;
        EXPECT_TRUE(p->locked());
        locker.locked = false;
        EXPECT_FALSE(p->locked());
    }
}

TEST_F(ScreenLockProbeTest, EarlierLockerInOrderWinsAndIsRemembered) {
    LockService gnome(session_, "org.gnome.ScreenSaver");
    LockService logind(system_, kLogind);
    ASSERT_TRUE(gnome.ok && logind.ok);
    gnome.locked = true;
    logind.locked = false;
    const auto p = probe();
    EXPECT_TRUE(p->locked());
    EXPECT_TRUE(p->locked());
    EXPECT_EQ(gnome.calls(), 2);
    gnome.unanswered = 1;
    EXPECT_TRUE(p->locked()) << "missed once: the same tick searches again, in order";
    EXPECT_TRUE(p->locked());
    EXPECT_EQ(gnome.calls(), 5);
    EXPECT_EQ(logind.calls(), 0) << "the remembered locker is the only one asked";
}

// No locker runs: unlocked, and none is started by the asking. One that comes later, or one
// that takes over from a locker gone, is found at the first tick after the bus says so.
TEST_F(ScreenLockProbeTest, NoLockerIsStartedAndALaterOneIsFound) {
    const auto p = probe();
    for (int tick = 0; tick < 3; ++tick) EXPECT_FALSE(p->locked());
    EXPECT_EQ(session_.started(), QStringList()) << "asking started a locker";
    EXPECT_EQ(system_.started(), QStringList()) << "asking started logind";
    {
        LockService late(session_, "org.mate.ScreenSaver");
        ASSERT_TRUE(late.ok);
        late.locked = true;
        bool seen = false;  // one tick at a time: waitFor asks once more at its end
        EXPECT_TRUE(test::waitFor([&] { return seen || (seen = p->locked()); }, 2000));
        EXPECT_EQ(late.calls(), 1) << "searched before the locker came, or more than once after";
    }
    EXPECT_FALSE(p->locked()) << "a locker gone still answers";
    LockService other(system_, kLogind);
    ASSERT_TRUE(other.ok);
    other.locked = true;
    EXPECT_TRUE(test::waitFor([&] { return p->locked(); }, 2000));
    EXPECT_EQ(session_.started(), QStringList());
}

TEST_F(ScreenLockProbeTest, HangingLockerCostsItsTimeoutAndHidesNoLaterOne) {
    LockService hanging(session_, "org.freedesktop.ScreenSaver");
    LockService gnome(session_, "org.gnome.ScreenSaver");
    ASSERT_TRUE(hanging.ok && gnome.ok);
    hanging.unanswered = 1000;
    gnome.locked = true;
    const auto p = probe();
    QElapsedTimer tick;
    tick.start();
    EXPECT_TRUE(p->locked());
    EXPECT_LT(tick.elapsed(), 2 * ScreenLockProbe::kCallTimeoutMs);
    EXPECT_TRUE(p->locked());
    EXPECT_EQ(hanging.calls(), 1);
    EXPECT_EQ(gnome.calls(), 2);
}

TEST(ScreenLockProbeNoBusTest, DisconnectedBusesMeanUnlocked) {
    ScreenLockProbe p(QDBusConnection("none-a"), QDBusConnection("none-b"));
    EXPECT_FALSE(p.locked());
}

}  // namespace
}  // namespace corvi
