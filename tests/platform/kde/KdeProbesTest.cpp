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
using test::DesktopProbesTest;
using test::KWinCompositor;
using test::waitFor;
using namespace std::chrono_literals;

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

// One KWin on one private bus, which is the process's session bus too.
class KWinDesktop : public test::ProbeDesktop {
  public:
    KWinDesktop() {
        bus.becomeSessionBus();
        kwin = std::make_unique<KWinCompositor>(bus.address());
    }
    std::string failure() const override {
        return !bus.ok() ? "no bus" : kwin->ok() ? "" : kwin->error().toStdString();
    }
    std::shared_ptr<KdeProbes> kdeProbes(std::function<void()> unsupported = {},
                                         std::chrono::milliseconds giveUpAfter = 60s) {
        return std::make_shared<KdeProbes>(bus.address(), kwin->socketPath(), test::exampleEntries(),
                                           std::move(unsupported), giveUpAfter);
    }
    test::ProbeSet probes() override { return test::probeSet(kdeProbes()); }
    // No app ID: an X client.
    std::unique_ptr<test::DesktopWindow> open(const QString& appId, const QString& title) override {
        return std::make_unique<ClientWindow>(appId.isEmpty() ? kwin->openXTerm(title)
                                                              : kwin->open(ClientWindow::Qt, appId, title));
    }
    std::vector<test::WindowCase> ownCases() const override {
        // KWin 5 lowers an X client's class; KWin 6 gives it as the client set it, as X11 has it.
        const QString xClass = kwin->majorVersion() >= 6 ? "NoEntryTerm" : "noentryterm";
        return {
            {"X client without a desktop file: the class, as KWin gives it", "", "Terminal", xClass, xClass}};
    }
    bool fakeInput() override { return kwin->fakeInput(); }
    std::vector<std::pair<const char*, QByteArray>> sessionEnvironment() const override {
        return {{"XDG_SESSION_TYPE", "wayland"},
                {"XDG_CURRENT_DESKTOP", "KDE"},
                {"WAYLAND_DISPLAY", kwin->socketPath().toLocal8Bit()}};
    }

    test::DBusDaemon bus;
    std::unique_ptr<KWinCompositor> kwin;
};

INSTANTIATE_TEST_SUITE_P(KWin, DesktopProbesTest, ::testing::Values(&test::sharedProbeDesktop<KWinDesktop>));

class KdeProbesTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(d.failure(), ""); }
    KWinDesktop& d = test::sharedDesktop<KWinDesktop>();
};

// An earlier agent's copy of the script is still loaded, with another script after it: ours
// replaces the copy, and runs although KWin numbers it like the other script. KWin numbers a
// second window with the same caption, and only KWin's own connection speaks for the windows.
TEST_F(KdeProbesTest, OurScriptReplacesAStaleCopyAndAloneReports) {
    QTemporaryDir dir;
    const QString stale = dir.filePath("stale.js"), other = dir.filePath("other.js");
    ASSERT_TRUE(test::writeFile(stale, "// an earlier agent's copy, calling a name that is gone\n"));
    ASSERT_TRUE(test::writeFile(other, "// another script\n"));
    ASSERT_GE(d.kwin->loadScript(stale, KWinScript::kPluginName), 0);
    ASSERT_GE(d.kwin->loadScript(other, "org.example.other"), 0);
    const auto p = d.kdeProbes();
    ASSERT_TRUE(p->ready()) << "the script never reported";
    d.kwin->unloadScript("org.example.other");

    const QString title = "Same";
    const auto first = d.open("org.example.NoEntry", title);
    ASSERT_TRUE(test::showsWindow(p->window, first->pid(), title));
    const auto second = d.open("org.example.NoEntry", title);
    EXPECT_TRUE(test::showsWindow(p->window, second->pid(), title)) << "same title, second window";

    QDBusConnection impostor = QDBusConnection::connectToBus(d.bus.address(), "impostor");
    auto fake = QDBusMessage::createMethodCall(p->bus.baseService(), KWinScript::kObjectPath,
                                               KWinScript::kInterface, "Active");
    fake << QString("org.example.Fake") << QString("Fake") << QString("Fake") << 1.0;
    QDBusPendingCall answer = impostor.asyncCall(fake, 2000);
    ASSERT_TRUE(waitFor([&] { return answer.isFinished(); }));
    EXPECT_EQ(answer.error().type(), QDBusError::AccessDenied);
    QDBusConnection::disconnectFromBus(impostor.name());
    EXPECT_EQ(p->window.current()->bundleID, "org.example.NoEntry");
}

// KWin dies under the probes, then a new one comes up on the same bus.
TEST_F(KdeProbesTest, KWinGoneThenBack) {
    int unsupported = 0;
    const auto probes = d.kdeProbes([&] { ++unsupported; }, 1s);
    KdeProbes& p = *probes;
    ASSERT_TRUE(p.ready());
    const auto before = d.open("org.example.Editor", "Before");
    ASSERT_TRUE(test::showsWindow(p.window, before->pid(), "Before"));

    d.kwin->kill();
    EXPECT_TRUE(waitFor([&] { return !p.window.current() && !p.access.trusted(); }))
        << "the last report is forgotten";
    test::expectNeutral(p.window, p.idle, p.access);

    ASSERT_TRUE(d.kwin->start()) << qPrintable(d.kwin->error());
    ASSERT_TRUE(p.ready()) << "the script is loaded into the new KWin";
    const auto after = d.open("org.example.Editor", "After");
    EXPECT_TRUE(test::showsWindow(p.window, after->pid(), "After"));
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
        bus.address(), "/nonexistent/wayland-0", QString(), [&] { ++unsupported; }, 300ms);

    test::settle(500);
    test::expectNeutral(p.window, p.idle, p.access);
    EXPECT_EQ(unsupported, 1);
}

}  // namespace
}  // namespace corvi
