#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QUuid>

#include "platform/linux/ScreenLockProbe.h"
#include "support/DBusDaemon.h"
#include "support/LockService.h"

namespace corvi {
namespace {

using test::DBusDaemon;
using test::LockService;
using namespace std::chrono_literals;

QDBusConnection connect(const DBusDaemon& daemon) {
    return QDBusConnection::connectToBus(daemon.address(), QUuid::createUuid().toString());
}

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
    struct Case {
        const char* row;
        const char* service;
        LockService::Kind kind;
        bool onSystemBus;
    };
    const Case cases[] = {
        {"freedesktop screen saver", "org.freedesktop.ScreenSaver", LockService::Kind::ScreenSaver, false},
        {"GNOME screen saver", "org.gnome.ScreenSaver", LockService::Kind::ScreenSaver, false},
        {"Cinnamon screen saver", "org.cinnamon.ScreenSaver", LockService::Kind::ScreenSaver, false},
        {"logind session hint", "org.freedesktop.login1", LockService::Kind::LoginSession, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        LockService locker((c.onSystemBus ? system_ : session_).address(), c.service, c.kind);
        ASSERT_TRUE(locker.ok());
        ScreenLockProbe p = probe();
        locker.setLocked(true);
        EXPECT_TRUE(p.locked());
        locker.setLocked(false);
        EXPECT_FALSE(p.locked());
        locker.setLocked(true);
        EXPECT_TRUE(p.locked());
    }
}

TEST_F(ScreenLockProbeTest, EarlierLockerInOrderWinsAndIsRemembered) {
    LockService gnome(session_.address(), "org.gnome.ScreenSaver");
    LockService logind(system_.address(), "org.freedesktop.login1", LockService::Kind::LoginSession);
    ASSERT_TRUE(gnome.ok() && logind.ok());
    gnome.setLocked(true);
    logind.setLocked(false);
    ScreenLockProbe p = probe(1h);
    EXPECT_TRUE(p.locked());
    EXPECT_TRUE(p.locked());
    EXPECT_EQ(gnome.calls(), 2);
    EXPECT_EQ(logind.calls(), 0) << "the remembered locker is the only one asked";
}

TEST_F(ScreenLockProbeTest, NoLockerMeansUnlockedAndSearchIsThrottled) {
    ScreenLockProbe p = probe(1h);
    EXPECT_FALSE(p.locked());
    LockService late(session_.address(), "org.freedesktop.ScreenSaver");
    ASSERT_TRUE(late.ok());
    late.setLocked(true);
    EXPECT_FALSE(p.locked()) << "not searched again before the interval";
    EXPECT_EQ(late.calls(), 0);
}

TEST_F(ScreenLockProbeTest, LockerThatGoesAwayIsForgotten) {
    ScreenLockProbe p = probe(0ms);
    {
        LockService locker(session_.address(), "org.mate.ScreenSaver");
        ASSERT_TRUE(locker.ok());
        locker.setLocked(true);
        EXPECT_TRUE(p.locked());
    }
    EXPECT_FALSE(p.locked());
    LockService other(system_.address(), "org.freedesktop.login1", LockService::Kind::LoginSession);
    ASSERT_TRUE(other.ok());
    other.setLocked(true);
    EXPECT_TRUE(p.locked());
}

TEST_F(ScreenLockProbeTest, SilentLockerDoesNotHangTheTick) {
    LockService silent(session_.address(), "org.freedesktop.ScreenSaver");
    LockService gnome(session_.address(), "org.gnome.ScreenSaver");
    ASSERT_TRUE(silent.ok() && gnome.ok());
    silent.setSilent(true);
    gnome.setLocked(true);
    ScreenLockProbe p = probe(1h);
    EXPECT_FALSE(p.locked()) << "a bus that timed out is not asked again in the same search";
    EXPECT_FALSE(p.locked());
    EXPECT_EQ(silent.calls(), 1);
    EXPECT_EQ(gnome.calls(), 0);
}

TEST(ScreenLockProbeNoBusTest, DisconnectedBusesMeanUnlocked) {
    ScreenLockProbe p(QDBusConnection(QStringLiteral("none-a")), QDBusConnection(QStringLiteral("none-b")),
                      0ms);
    EXPECT_FALSE(p.locked());
}

}  // namespace
}  // namespace corvi
