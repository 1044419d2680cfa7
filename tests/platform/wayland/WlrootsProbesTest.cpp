#include <gtest/gtest.h>

#include <QRegularExpression>
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

// One sway with two foot windows and a Qt window on it.
class WlrootsProbesTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        sway_ = new SwayCompositor();
        if (!sway_->ok()) return;
        for (const test::WindowCase& c : kCases)
            windows_.push_back(sway_->open(
                c.appId == kQtTool || c.appId.trimmed().isEmpty() ? ClientWindow::Qt : ClientWindow::Foot,
                c.appId, c.title));
        // All mapped before the first test, so none steals the focus later.
        ready_ = true;
        for (const test::WindowCase& c : kCases)
            ready_ = ready_ && sway_->waitForWindow(c.appId, c.title, false);
    }
    static void TearDownTestSuite() {
        windows_.clear();
        delete sway_;
    }
    void SetUp() override {
        ASSERT_TRUE(ready_);
        probes_ = std::make_unique<WlrProbes>(sway_->socket(), QStringList{test::exampleEntries()},
                                              sway_->ipcSocket());
    }
    // Focuses the window with this title and waits until sway says so; then one short turn of
    // the event loop, as between two ticks.
    void focus(const QString& appId, const QString& title) {
        const QString criteria = QStringLiteral("[title=\"^%1$\"]").arg(QRegularExpression::escape(title));
        ASSERT_TRUE(test::waitFor([&] {
            return sway_->run(QStringLiteral("swaymsg"), {criteria, QStringLiteral("focus")});
        }));
        ASSERT_TRUE(sway_->waitForWindow(appId, title));
        test::settle(100);
    }

    static inline SwayCompositor* sway_ = nullptr;
    static inline bool ready_ = false;
    static inline const QString kEditor = QStringLiteral("org.example.Editor");
    static inline const QString kQtTool = QStringLiteral("org.example.QtTool");
    static inline const test::WindowCase kCases[] = {
        {"foot, named by its desktop entry, UTF-8 title", kEditor,
         QString::fromUtf8("Relat\xc3\xb3rio \xe2\x80\x94 caf\xc3\xa9"), kEditor, "Example Editor"},
        {"Qt window without an entry: the ID names it", kQtTool, QString::fromUtf8("Qt \xe2\x98\x85 janela"),
         kQtTool, kQtTool},
        // foot 1.21 refuses an empty app ID (it sends "foot"); Qt sends the blank one it is given.
        {"a blank app ID", " ", "no app id", "unknown", "unknown"},
    };
    static inline std::vector<ClientWindow> windows_;  // one per case
    std::unique_ptr<WlrProbes> probes_;
};

TEST_F(WlrootsProbesTest, FocusedWindowAsTheCompositorListsIt) {
    EXPECT_TRUE(probes_->access.trusted());
    for (size_t i = 0; i < std::size(kCases); ++i) {
        SCOPED_TRACE(kCases[i].row);
        focus(kCases[i].appId, kCases[i].title);
        test::expectDescribes(probes_->window, kCases[i], windows_[i].pid());
    }

    // Title changes from inside each client (foot's shell, Qt), seen by the next tick.
    const QString retitled[] = {QString::fromUtf8("vim \xe2\x80\x94 notas.txt \xf0\x9f\x93\x9d"),
                                QStringLiteral("  spaces kept  ")};
    for (size_t i = 0; i < std::size(retitled); ++i) {
        SCOPED_TRACE(kCases[i].row);
        focus(kCases[i].appId, kCases[i].title);
        ASSERT_TRUE(windows_[i].setTitle(retitled[i]));
        ASSERT_TRUE(sway_->waitForWindow(kCases[i].appId, retitled[i]));
        test::settle(100);
        EXPECT_EQ(probes_->window.current().value_or(ActiveWindow::Info{}).windowTitle, retitled[i]);
    }

    // An empty workspace has no focused window.
    ASSERT_TRUE(sway_->run(QStringLiteral("swaymsg"), {QStringLiteral("workspace"), QStringLiteral("9")}));
    ASSERT_TRUE(sway_->waitForWindow(QString(), QStringLiteral("9")));
    test::settle(100);
    EXPECT_FALSE(probes_->window.current().has_value());
    EXPECT_EQ(probes_->window.focusedWindowTitle(windows_[1].pid()), QString());
    EXPECT_TRUE(probes_->access.trusted()) << "the permission does not depend on a focused window";
    ASSERT_TRUE(sway_->run(QStringLiteral("swaymsg"), {QStringLiteral("workspace"), QStringLiteral("1")}));
}

TEST_F(WlrootsProbesTest, IdleGrowsWithoutInputAndDropsAfterInput) {
    ASSERT_TRUE(probes_->session->refresh());
    EXPECT_TRUE(probes_->idle.watching()) << "sway 1.7 offers the KDE idle protocol";
    EXPECT_TRUE(test::waitFor([&] { return probes_->idle.idleSeconds() >= 2.0; }, 6000));
    EXPECT_LT(probes_->idle.idleSeconds(), 30.0);
    ASSERT_TRUE(sway_->run(QStringLiteral("wtype"), {QStringLiteral("-k"), QStringLiteral("Shift_L")}));
    EXPECT_TRUE(test::waitFor([&] { return probes_->idle.idleSeconds() < 1.0; }, 2000));
    EXPECT_FALSE(probes_->idle.screenLocked()) << "no lock probe: not locked";
}

// The agent's own way in: a sway session's environment. What it then records is the agent
// test's to check.
TEST_F(WlrootsProbesTest, MadeForASwaySession) {
    const test::ScopedEnv type("XDG_SESSION_TYPE", "wayland"), desktop("XDG_CURRENT_DESKTOP", "sway"),
        display("WAYLAND_DISPLAY", sway_->socket().toLocal8Bit()),
        ipc("SWAYSOCK", sway_->ipcSocket().toLocal8Bit());
    ASSERT_TRUE(windows_[1].setTitle(QStringLiteral("sampled")));
    focus(kQtTool, QStringLiteral("sampled"));
    test::RecordingLog log;
    Probes probes = makeProbes();
    EXPECT_TRUE(probes.accessibility->trusted());
    EXPECT_EQ(probes.window->current().value_or(ActiveWindow::Info{}).pid, windows_[1].pid())
        << "from SWAYSOCK";
    EXPECT_TRUE(log.systemLines.isEmpty()) << "a supported session logs nothing";
}

// sway dies mid-run: neutral answers, then a new sway under $WAYLAND_DISPLAY is picked up.
TEST(WlrootsLostCompositorTest, ProbesGoNeutralAndRecover) {
    auto first = std::make_unique<SwayCompositor>();
    ASSERT_TRUE(first->ok());
    test::ScopedEnv display("WAYLAND_DISPLAY", first->socket().toLocal8Bit());
    WlrProbes p{QString()};
    ClientWindow firstWindow =
        first->open(ClientWindow::Foot, QStringLiteral("org.example.First"), QStringLiteral("first"));
    ASSERT_TRUE(first->waitForWindow(QStringLiteral("org.example.First"), QStringLiteral("first")));
    ASSERT_TRUE(test::waitFor([&] { return p.window.current().has_value(); }));
    EXPECT_TRUE(p.access.trusted());

    first->kill();
    test::expectNeutral(p.window, p.idle, p.access);

    SwayCompositor second;
    ASSERT_TRUE(second.ok());
    qputenv("WAYLAND_DISPLAY", second.socket().toLocal8Bit());
    ClientWindow secondWindow =
        second.open(ClientWindow::Foot, QStringLiteral("org.example.Second"), QStringLiteral("second"));
    ASSERT_TRUE(second.waitForWindow(QStringLiteral("org.example.Second"), QStringLiteral("second")));
    ASSERT_TRUE(test::waitFor([&] { return p.window.current().has_value(); }));
    EXPECT_EQ(p.window.current()->bundleID, QStringLiteral("org.example.Second"));
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
    env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime.path());
    env.insert(QStringLiteral("HOME"), runtime.path());
    ClientWindow weston(QStringLiteral("weston"),
                        {QStringLiteral("--backend=headless-backend.so"),
                         QStringLiteral("--socket=wayland-w"), QStringLiteral("--no-config")},
                        env);
    const QString westonSocket = runtime.filePath(QStringLiteral("wayland-w"));
    ASSERT_TRUE(test::waitFor([&] { return QFileInfo::exists(westonSocket); }, 10000));

    const QString nowhere = QStringLiteral("/nonexistent/wayland-9");
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
    EXPECT_TRUE(log.systemLines.first().contains(QStringLiteral("weston")));
}

}  // namespace
}  // namespace corvi
