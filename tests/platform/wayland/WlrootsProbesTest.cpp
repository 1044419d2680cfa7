#include <gtest/gtest.h>

#include <QTemporaryDir>

#include "platform/linux/DesktopSession.h"
#include "platform/linux/wayland/WaylandIdle.h"
#include "platform/linux/wayland/WlrAccessibility.h"
#include "platform/linux/wayland/WlrActiveWindow.h"
#include "support/EventLoop.h"
#include "support/ProbeChecks.h"
#include "support/RecordingLog.h"
#include "support/SwayCompositor.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

using test::ClientWindow;
using test::DesktopProbesTest;
using test::SwayCompositor;
using namespace std::chrono_literals;

// The probes of one connection to `socket` (empty: $WAYLAND_DISPLAY), retrying at once, and
// of sway's IPC where given.
struct WlrProbes {
    explicit WlrProbes(const QString& socket, const QStringList& entryFolders = {},
                       const QString& swayIpc = {})
        : session(std::make_shared<WaylandSession>(socket.toLocal8Bit(), 0ms)),
          toplevels(std::make_shared<WlrToplevels>(session)),
          window(toplevels, std::make_unique<DesktopEntries>(entryFolders),
                 swayIpc.isEmpty() ? nullptr : std::make_unique<SwayIpc>(swayIpc.toLocal8Bit())),
          idle(session, nullptr),
          access(toplevels) {}
    std::shared_ptr<WaylandSession> session;
    std::shared_ptr<WlrToplevels> toplevels;
    WlrActiveWindow window;
    WaylandIdle idle;
    WlrAccessibility access;
};

// One sway; foot windows, and Qt windows for the Qt tool and a blank app ID.
class SwayDesktop : public test::ProbeDesktop {
  public:
    std::string failure() const override { return sway.ok() ? "" : "sway did not start"; }
    test::ProbeSet probes() override {
        return test::probeSet(std::make_shared<WlrProbes>(sway.socket(), QStringList{test::exampleEntries()},
                                                          sway.ipcSocket()));
    }
    std::unique_ptr<test::DesktopWindow> open(const QString& appId, const QString& title) override {
        const bool qt = appId == kQtTool || appId.trimmed().isEmpty();
        auto w = std::make_unique<ClientWindow>(
            sway.open(qt ? ClientWindow::Qt : ClientWindow::Foot, appId, title));
        // sway gives a new window the focus; one that maps late would take it from the next.
        EXPECT_TRUE(sway.waitForWindow(appId, title));
        return w;
    }
    std::vector<test::WindowCase> ownCases() const override {
        return {
            {"Qt window without an entry: the ID names it", kQtTool,
             QString::fromUtf8("  Qt \xe2\x98\x85 janela, spaces kept  "), kQtTool, kQtTool},
            // foot 1.21 refuses an empty app ID (it sends "foot"); Qt sends the blank one it is given.
            {"a blank app ID", " ", "no app id", "unknown", "unknown"},
        };
    }
    bool fakeInput() override { return sway.run("wtype", {"-k", "Shift_L"}); }
    // SWAYSOCK gives the pid.
    std::vector<std::pair<const char*, QByteArray>> sessionEnvironment() const override {
        return {{"XDG_SESSION_TYPE", "wayland"},
                {"XDG_CURRENT_DESKTOP", "sway"},
                {"WAYLAND_DISPLAY", sway.socket().toLocal8Bit()},
                {"SWAYSOCK", sway.ipcSocket().toLocal8Bit()}};
    }

    static inline const QString kQtTool = "org.example.QtTool";
    SwayCompositor sway;
};

INSTANTIATE_TEST_SUITE_P(Sway, DesktopProbesTest, ::testing::Values(&test::sharedProbeDesktop<SwayDesktop>));

// An empty workspace has no focused window, though the other one's windows are still there.
TEST(WlrootsProbesTest, AnEmptyWorkspaceHasNoFocusedWindow) {
    SwayDesktop& d = test::sharedDesktop<SwayDesktop>();
    ASSERT_EQ(d.failure(), "");
    const auto w = d.open("org.example.Editor", "elsewhere");
    WlrProbes p(d.sway.socket(), {}, d.sway.ipcSocket());
    ASSERT_TRUE(test::showsWindow(p.window, w->pid(), "elsewhere"));
    ASSERT_TRUE(d.sway.run("swaymsg", {"workspace", "9"}));
    ASSERT_TRUE(d.sway.waitForWindow(QString(), "9"));
    EXPECT_TRUE(test::waitFor([&] { return !p.window.current(); }));
    EXPECT_EQ(p.window.focusedWindowTitle(w->pid()), QString());
    EXPECT_TRUE(p.access.trusted()) << "the permission does not depend on a focused window";
    ASSERT_TRUE(d.sway.run("swaymsg", {"workspace", "1"}));
}

// sway dies mid-run: neutral answers, then a new sway under $WAYLAND_DISPLAY is picked up.
TEST(WlrootsLostCompositorTest, ProbesGoNeutralAndRecover) {
    auto first = std::make_unique<SwayCompositor>();
    ASSERT_TRUE(first->ok());
    test::ScopedEnv display("WAYLAND_DISPLAY", first->socket().toLocal8Bit());
    WlrProbes p{QString()};
    ClientWindow firstWindow = first->open(ClientWindow::Foot, "org.example.First", "first");
    ASSERT_TRUE(first->waitForWindow("org.example.First", "first"));
    ASSERT_TRUE(test::waitFor([&] { return p.window.current().has_value(); }));
    EXPECT_TRUE(p.access.trusted());

    first->kill();
    test::expectNeutral(p.window, p.idle, p.access);

    SwayCompositor second;
    ASSERT_TRUE(second.ok());
    qputenv("WAYLAND_DISPLAY", second.socket().toLocal8Bit());
    ClientWindow secondWindow = second.open(ClientWindow::Foot, "org.example.Second", "second");
    ASSERT_TRUE(second.waitForWindow("org.example.Second", "second"));
    ASSERT_TRUE(test::waitFor([&] { return p.window.current().has_value(); }));
    EXPECT_EQ(p.window.current()->bundleID, "org.example.Second");
    EXPECT_TRUE(p.access.trusted());
    EXPECT_TRUE(p.idle.watching());
    EXPECT_EQ(p.session->connections(), 2);

    // Within the retry interval nothing is tried, so a socket that appears later waits for it.
    WaylandSession later(QByteArray(), 1h);
    qputenv("WAYLAND_DISPLAY", "/nonexistent/wayland-9");
    EXPECT_FALSE(later.refresh());
    qputenv("WAYLAND_DISPLAY", second.socket().toLocal8Bit());
    EXPECT_FALSE(later.refresh());
    EXPECT_TRUE(WaylandSession(QByteArray(), 1h).refresh());
}

// Where no window can be seen: no compositor at all, and weston, which offers neither the
// toplevel manager nor an idle protocol. The factory logs that once per process.
TEST(WlrootsUnsupportedTest, NeutralProbesAndOneLogLine) {
    QTemporaryDir runtime;
    QProcessEnvironment env;
    env.insert("PATH", qEnvironmentVariable("PATH"));
    env.insert("XDG_RUNTIME_DIR", runtime.path());
    env.insert("HOME", runtime.path());
    ClientWindow weston("weston", {"--backend=headless-backend.so", "--socket=wayland-w", "--no-config"},
                        env);
    const QString westonSocket = runtime.filePath("wayland-w");
    ASSERT_TRUE(test::waitFor([&] { return QFileInfo::exists(westonSocket); }, 10000));

    const QString nowhere = "/nonexistent/wayland-9";
    test::RecordingLog log;
    for (const QString& socket : {nowhere, westonSocket}) {
        SCOPED_TRACE(socket.toStdString());
        WlrProbes p{socket};
        test::expectNeutral(p.window, p.idle, p.access);
        EXPECT_EQ(p.session->connected(), socket == westonSocket);
        EXPECT_FALSE(p.idle.watching());

        const test::ScopedEnv type("XDG_SESSION_TYPE", "wayland"), desktop("XDG_CURRENT_DESKTOP", "weston"),
            display("WAYLAND_DISPLAY", socket.toLocal8Bit());
        Probes probes = makeProbes();
        test::expectNeutral(*probes.window, *probes.idle, *probes.accessibility);
    }
    ASSERT_EQ(log.systemLines.size(), 1);
    EXPECT_TRUE(log.systemLines.first().contains("weston"));
}

}  // namespace
}  // namespace corvi
