#include <gtest/gtest.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QTemporaryDir>

#include "platform/Probes.h"
#include "platform/linux/kde/KWinScript.h"
#include "platform/linux/kde/KdeAccessibility.h"
#include "platform/linux/kde/KdeActiveWindow.h"
#include "platform/linux/kde/KdeIdleMonitor.h"
#include "support/DBusDaemon.h"
#include "support/EventLoop.h"
#include "support/KWinCompositor.h"
#include "support/ProbeChecks.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using test::ClientWindow;
using test::KWinCompositor;
using test::waitFor;
using namespace std::chrono_literals;

constexpr int kTickMs = 3000;

// The probes on their own connection to a private bus, as the agent has them on its session bus.
struct KdeProbes {
    KdeProbes(const QString& busAddress, const QString& waylandSocket, const QString& entries,
              std::function<void()> unsupported = {}, std::chrono::milliseconds giveUpAfter = 60s)
        : bus(QDBusConnection::connectToBus(busAddress, QStringLiteral("probes-%1").arg(++count))),
          script(std::make_shared<KWinScript>(bus, std::move(unsupported), giveUpAfter)),
          window(script, std::make_unique<DesktopEntries>(QStringList{entries})),
          idle(std::make_shared<WaylandSession>(waylandSocket.toLocal8Bit(), 100ms), bus, nullptr),
          access(script) {}
    ~KdeProbes() {
        script.reset();
        QDBusConnection::disconnectFromBus(bus.name());
    }
    // The script's first report, or false after KWin's time to load it.
    bool ready() {
        return waitFor([&] { return access.trusted(); }, 10000);
    }
    static inline int count = 0;
    QDBusConnection bus;
    std::shared_ptr<KWinScript> script;
    KdeActiveWindow window;
    KdeIdleMonitor idle;
    KdeAccessibility access;
};

// One KWin on one private bus for the suite.
class KdeProbesTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        bus_ = new test::DBusDaemon();
        bus_->becomeSessionBus();
        kwin_ = new KWinCompositor(bus_->address());
    }
    static void TearDownTestSuite() {
        delete kwin_;
        delete bus_;
    }
    void SetUp() override {
        ASSERT_TRUE(bus_->ok());
        ASSERT_TRUE(kwin_->ok()) << qPrintable(kwin_->error());
    }
    static ClientWindow open(const QString& appId, const QString& title) {
        return kwin_->open(ClientWindow::Qt, appId, title);
    }

    static inline test::DBusDaemon* bus_ = nullptr;
    static inline KWinCompositor* kwin_ = nullptr;
};

TEST_F(KdeProbesTest, ActiveWindowIsWhatKWinReports) {
    KdeProbes p(bus_->address(), kwin_->socketPath(), test::exampleEntries());
    ASSERT_TRUE(p.ready()) << "the script never reported";

    const QString hostile =
        QString::fromUtf8("Relat\xc3\xb3rio \xe2\x80\x94 \"caf\xc3\xa9\" \\ ' `$(x)` \xe2\x9c\x93");
    // KWin 5 lowers an X client's class; KWin 6 gives it as the client set it, as X11 has it.
    const QString xClass =
        kwin_->majorVersion() >= 6 ? QStringLiteral("NoEntryTerm") : QStringLiteral("noentryterm");
    const test::WindowCase cases[] = {
        // no app ID: an X client
        {"X client without a desktop file: the class, as KWin gives it", "", "Terminal", xClass, xClass},
        {"entry names the app", "org.example.Editor", "Plain", "org.example.Editor", "Example Editor"},
        {"no entry: the ID is the name", "org.example.NoEntry", hostile, "org.example.NoEntry",
         "org.example.NoEntry"},
    };
    std::vector<ClientWindow> open;
    for (const test::WindowCase& c : cases) {
        SCOPED_TRACE(c.row);
        open.push_back(c.appId.isEmpty() ? kwin_->openXTerm(c.title) : KdeProbesTest::open(c.appId, c.title));
        ASSERT_TRUE(test::showsWindow(p.window, open.back().pid(), c.title))
            << "the new window is activated and reported";
        test::expectDescribes(p.window, c, open.back().pid());
    }

    // KWin numbers a second window with the same caption; the title stays the one it set.
    open.push_back(KdeProbesTest::open(cases[2].appId, hostile));
    EXPECT_TRUE(test::showsWindow(p.window, open.back().pid(), hostile)) << "same title, second window";

    // Only KWin's own connection speaks for the windows.
    QDBusConnection impostor = QDBusConnection::connectToBus(bus_->address(), QStringLiteral("impostor"));
    auto fake = QDBusMessage::createMethodCall(p.bus.baseService(), KWinScript::kObjectPath,
                                               KWinScript::kInterface, QStringLiteral("Active"));
    fake << QString("org.example.Fake") << QString("Fake") << QString("Fake") << 1.0;
    QDBusPendingCall answer = impostor.asyncCall(fake, 2000);
    ASSERT_TRUE(waitFor([&] { return answer.isFinished(); }));
    EXPECT_EQ(answer.error().type(), QDBusError::AccessDenied);
    QDBusConnection::disconnectFromBus(impostor.name());
    EXPECT_EQ(p.window.current()->bundleID, cases[2].bundleID);

    const QString renamed = QString::fromUtf8("Renamed \xe2\x80\x94 2");
    open.back().setTitle(renamed);
    EXPECT_TRUE(test::showsWindow(p.window, open.back().pid(), renamed, kTickMs))
        << "a title change is seen within one tick";

    for (auto& w : open) w.close();
    EXPECT_TRUE(waitFor([&] { return !p.window.current().has_value(); })) << "no window: none";
    EXPECT_TRUE(p.access.trusted());
}

TEST_F(KdeProbesTest, IdleTimeFromKWinsTimer) {
    KdeProbes p(bus_->address(), kwin_->socketPath(), test::exampleEntries());
    EXPECT_TRUE(waitFor([&] { return p.idle.idleSeconds() >= 2.0; })) << "idle time grows without input";
    ASSERT_TRUE(kwin_->fakeInput()) << "KWin offers fake input to the program its entry names";
    EXPECT_TRUE(waitFor([&] { return p.idle.idleSeconds() < 1.0; }, 2000)) << "input resets it";
    EXPECT_FALSE(p.idle.screenLocked()) << "no lock probe: not locked";
}

// The agent's own way in: a Plasma Wayland session's environment, the session bus.
TEST_F(KdeProbesTest, MadeForAPlasmaSession) {
    test::ScopedEnv type("XDG_SESSION_TYPE", "wayland"), desktop("XDG_CURRENT_DESKTOP", "KDE"),
        display("WAYLAND_DISPLAY", kwin_->socketPath().toLocal8Bit());
    Probes probes = makeProbes();
    EXPECT_TRUE(waitFor([&] { return probes.accessibility->trusted(); }));
    ClientWindow w = open(QStringLiteral("org.example.Editor"), QStringLiteral("Made"));
    EXPECT_TRUE(test::showsWindow(*probes.window, w.pid(), QStringLiteral("Made")));
    EXPECT_TRUE(waitFor([&] { return probes.idle->idleSeconds() >= 1.0; }));
}

// An earlier agent's copy of the script is still loaded, with another script after it. Ours
// replaces the copy, and runs although KWin numbers it like the other script.
TEST_F(KdeProbesTest, StaleCopyIsReplaced) {
    QTemporaryDir dir;
    const QString stale = dir.filePath(QStringLiteral("stale.js")),
                  other = dir.filePath(QStringLiteral("other.js"));
    ASSERT_TRUE(test::writeFile(stale, "// an earlier agent's copy, calling a name that is gone\n"));
    ASSERT_TRUE(test::writeFile(other, "// another script\n"));
    ASSERT_GE(kwin_->loadScript(stale, KWinScript::kPluginName), 0);
    ASSERT_GE(kwin_->loadScript(other, QStringLiteral("org.example.other")), 0);

    KdeProbes p(bus_->address(), kwin_->socketPath(), test::exampleEntries());
    EXPECT_TRUE(p.ready());
    kwin_->unloadScript(QStringLiteral("org.example.other"));
}

// KWin dies under the probes, then a new one comes up on the same bus.
TEST_F(KdeProbesTest, KWinGoneThenBack) {
    int unsupported = 0;
    KdeProbes p(
        bus_->address(), kwin_->socketPath(), test::exampleEntries(), [&] { ++unsupported; }, 1s);
    ASSERT_TRUE(p.ready());
    ClientWindow before = open(QStringLiteral("org.example.Editor"), QStringLiteral("Before"));
    ASSERT_TRUE(test::showsWindow(p.window, before.pid(), QStringLiteral("Before")));

    kwin_->kill();
    EXPECT_TRUE(waitFor([&] { return !p.window.current() && !p.access.trusted(); }))
        << "the last report is forgotten";
    test::expectNeutral(p.window, p.idle, p.access);

    ASSERT_TRUE(kwin_->start()) << qPrintable(kwin_->error());
    ASSERT_TRUE(p.ready()) << "the script is loaded into the new KWin";
    ClientWindow after = open(QStringLiteral("org.example.Editor"), QStringLiteral("After"));
    EXPECT_TRUE(test::showsWindow(p.window, after.pid(), QStringLiteral("After")));
    EXPECT_TRUE(waitFor([&] { return p.idle.idleSeconds() >= 1.0; })) << "the new KWin's idle timer";
    test::settle(1100);
    p.window.current();
    EXPECT_EQ(unsupported, 0) << "a KWin that went away and came back is no unsupported desktop";
}

// A bus with no KWin on it: neutral values at once, and one report that the desktop cannot be
// seen.
TEST(KdeWithoutKWinTest, NeutralAndReportedOnce) {
    test::DBusDaemon bus;
    ASSERT_TRUE(bus.ok());
    int unsupported = 0;
    KdeProbes p(
        bus.address(), QStringLiteral("/nonexistent/wayland-0"), QString(), [&] { ++unsupported; }, 300ms);

    test::settle(500);
    test::expectNeutral(p.window, p.idle, p.access);
    EXPECT_EQ(unsupported, 1);
}

}  // namespace
}  // namespace corvi
