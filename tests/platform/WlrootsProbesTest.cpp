#include <gtest/gtest.h>

#include <QRegularExpression>
#include <QTemporaryDir>

#include "capture/Sampler.h"
#include "platform/Clock.h"
#include "platform/CpuTimeSource.h"
#include "platform/linux/DesktopSession.h"
#include "platform/linux/WaylandIdle.h"
#include "platform/linux/WlrAccessibility.h"
#include "platform/linux/WlrActiveWindow.h"
#include "store/Store.h"
#include "support/ChildProcess.h"
#include "support/EventLoop.h"
#include "support/RecordingLog.h"
#include "support/SwayCompositor.h"
#include "support/TestFiles.h"

namespace corvi {
namespace {

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

    bool neutral() {
        return !window.current() && window.focusedWindowTitle(0).isEmpty() && idle.idleSeconds() == 0.0 &&
               !access.trusted();
    }
};

// One sway with a foot and a Qt window on it, and desktop entries in a temp folder.
class WlrootsProbesTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        sway_ = new SwayCompositor();
        entries_ = new QTemporaryDir();
        test::writeFile(entries_->filePath(QStringLiteral("applications/org.example.Editor.desktop")),
                        "[Desktop Entry]\nName=Example Editor\n");
        if (!sway_->ok()) return;
        const bool launched = (editor_ = sway_->launchFoot(kEditor, kEditorTitle)) &&
                              (bare_ = sway_->launchFoot(QString(), kBareTitle)) &&
                              (qt_ = sway_->launchQtWindow(kQtTool, kQtTitle));
        // All mapped before the first test, so none steals the focus later.
        ready_ = launched && sway_->waitForWindow(kEditor, kEditorTitle, false) &&
                 sway_->waitForWindow(QString(), kBareTitle, false) &&
                 sway_->waitForWindow(kQtTool, kQtTitle, false);
    }
    static void TearDownTestSuite() {
        delete sway_;
        delete entries_;
    }
    void SetUp() override {
        ASSERT_TRUE(ready_);
        probes_ = std::make_unique<WlrProbes>(sway_->socket(),
                                              QStringList{entries_->filePath(QStringLiteral("applications"))},
                                              sway_->ipcSocket());
    }
    // Focuses the window with this title and waits until sway says so; then one short turn of
    // the event loop, as between two ticks.
    void focus(const QString& appId, const QString& title) {
        const QString criteria = QStringLiteral("[title=\"^%1$\"]").arg(QRegularExpression::escape(title));
        ASSERT_TRUE(test::waitFor([&] { return sway_->command({criteria, QStringLiteral("focus")}); }));
        ASSERT_TRUE(sway_->waitForWindow(appId, title));
        test::settle(100);
    }

    static inline SwayCompositor* sway_ = nullptr;
    static inline QTemporaryDir* entries_ = nullptr;
    static inline QProcess* editor_ = nullptr;
    static inline QProcess* bare_ = nullptr;
    static inline QProcess* qt_ = nullptr;
    static inline bool ready_ = false;
    static inline const QString kEditor = QStringLiteral("org.example.Editor");
    static inline const QString kEditorTitle = QString::fromUtf8("Relat\xc3\xb3rio \xe2\x80\x94 caf\xc3\xa9");
    static inline const QString kQtTool = QStringLiteral("org.example.QtTool");
    static inline const QString kQtTitle = QString::fromUtf8("Qt \xe2\x98\x85 janela");
    static inline const QString kBareTitle = QStringLiteral("no app id");
    std::unique_ptr<WlrProbes> probes_;
};

TEST_F(WlrootsProbesTest, FocusedWindowAsTheCompositorListsIt) {
    struct Case {
        const char* row;
        QString appId, title, bundleID, appName;
        QProcess* owner;
    };
    const Case cases[] = {
        {"foot, named by its desktop entry, UTF-8 title", kEditor, kEditorTitle, kEditor, "Example Editor",
         editor_},
        {"Qt window without an entry: the ID names it", kQtTool, kQtTitle, kQtTool, kQtTool, qt_},
        {"foot without an app ID", "", kBareTitle, "unknown", "unknown", bare_},
    };
    EXPECT_TRUE(probes_->access.trusted());
    EXPECT_TRUE(probes_->access.trustedWithPrompt());
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        focus(c.appId, c.title);
        const auto info = probes_->window.current();
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->bundleID, c.bundleID);
        EXPECT_EQ(info->appName, c.appName);
        const auto pid = static_cast<std::int32_t>(c.owner->processId());
        EXPECT_EQ(info->pid, pid) << "from sway's IPC";
        EXPECT_EQ(info->windowTitle, c.title);
        EXPECT_EQ(probes_->window.focusedWindowTitle(pid), c.title);
        EXPECT_EQ(probes_->window.focusedWindowTitle(0), QString());
    }

    // Title changes from inside each client, seen by the next tick.
    const QString footTitle = QString::fromUtf8("vim \xe2\x80\x94 notas.txt \xf0\x9f\x93\x9d");
    focus(kEditor, kEditorTitle);
    ASSERT_TRUE(sway_->setFootTitle(kEditor, footTitle));
    ASSERT_TRUE(sway_->waitForWindow(kEditor, footTitle));
    test::settle(100);
    EXPECT_EQ(probes_->window.current().value_or(ActiveWindow::Info{}).windowTitle, footTitle);

    const QString qtTitle = QStringLiteral("  spaces kept  ");
    focus(kQtTool, kQtTitle);
    qt_->write(qtTitle.toUtf8() + '\n');
    ASSERT_TRUE(qt_->waitForBytesWritten());
    ASSERT_TRUE(sway_->waitForWindow(kQtTool, qtTitle));
    test::settle(100);
    EXPECT_EQ(probes_->window.current().value_or(ActiveWindow::Info{}).windowTitle, qtTitle);

    // An empty workspace has no focused window.
    ASSERT_TRUE(sway_->command({QStringLiteral("workspace"), QStringLiteral("9")}));
    ASSERT_TRUE(sway_->waitForWindow(QString(), QStringLiteral("9")));
    test::settle(100);
    EXPECT_FALSE(probes_->window.current().has_value());
    EXPECT_EQ(probes_->window.focusedWindowTitle(static_cast<std::int32_t>(qt_->processId())), QString());
    EXPECT_TRUE(probes_->access.trusted()) << "the permission does not depend on a focused window";
    ASSERT_TRUE(sway_->command({QStringLiteral("workspace"), QStringLiteral("1")}));
}

TEST_F(WlrootsProbesTest, IdleGrowsWithoutInputAndDropsAfterInput) {
    ASSERT_TRUE(probes_->session->refresh());
    EXPECT_TRUE(probes_->idle.watching()) << "sway 1.7 offers the KDE idle protocol";
    EXPECT_TRUE(test::waitFor([&] { return probes_->idle.idleSeconds() >= 2.0; }, 6000));
    EXPECT_LT(probes_->idle.idleSeconds(), 30.0);
    QProcess* key = sway_->launch(QStringLiteral("wtype"), {QStringLiteral("-k"), QStringLiteral("Shift_L")});
    ASSERT_TRUE(key && key->waitForFinished(5000) && key->exitCode() == 0);
    EXPECT_TRUE(test::waitFor([&] { return probes_->idle.idleSeconds() < 1.0; }, 2000));
    EXPECT_FALSE(probes_->idle.screenLocked()) << "no lock probe: not locked";
}

// The real factory and sampler in a sway session.
TEST_F(WlrootsProbesTest, SamplerSeesTheFocusedWindow) {
    qt_->write("sampled\n");
    ASSERT_TRUE(qt_->waitForBytesWritten());
    focus(kQtTool, QStringLiteral("sampled"));
    const test::ScopedEnv type("XDG_SESSION_TYPE", "wayland"), desktop("XDG_CURRENT_DESKTOP", "sway"),
        display("WAYLAND_DISPLAY", sway_->socket().toLocal8Bit()),
        ipc("SWAYSOCK", sway_->ipcSocket().toLocal8Bit());
    test::RecordingLog log;
    Probes probes = makeProbes();
    EXPECT_TRUE(probes.accessibility->trusted());
    EXPECT_EQ(probes.window->current().value_or(ActiveWindow::Info{}).pid, qt_->processId());
    QTemporaryDir dir;
    Store store(dir.filePath(QStringLiteral("corvi.sqlite")));
    SystemClock clock;
    Sampler sampler(store, 0.05, *probes.window, *probes.idle, clock, makeCpuTimeSource());
    std::optional<Sample> last;
    sampler.onUpdate = [&](const Sample& s) { last = s; };
    sampler.start();
    ASSERT_TRUE(test::waitFor([&] { return last.has_value(); }));
    EXPECT_EQ(last->bundleID, kQtTool);
    EXPECT_TRUE(log.systemLines.isEmpty()) << "a supported session logs nothing";
}

// sway dies mid-run: neutral answers, then a new sway under $WAYLAND_DISPLAY is picked up.
TEST(WlrootsLostCompositorTest, ProbesGoNeutralAndRecover) {
    auto first = std::make_unique<SwayCompositor>();
    ASSERT_TRUE(first->ok());
    test::ScopedEnv display("WAYLAND_DISPLAY", first->socket().toLocal8Bit());
    WlrProbes p{QString()};
    ASSERT_TRUE(first->launchFoot(QStringLiteral("org.example.First"), QStringLiteral("first")));
    ASSERT_TRUE(first->waitForWindow(QStringLiteral("org.example.First"), QStringLiteral("first")));
    ASSERT_TRUE(test::waitFor([&] { return p.window.current().has_value(); }));
    EXPECT_TRUE(p.access.trusted());

    first->kill();
    for (int tick = 0; tick < 3; ++tick) {
        SCOPED_TRACE(tick);
        test::settle(50);
        EXPECT_TRUE(p.neutral());
    }

    SwayCompositor second;
    ASSERT_TRUE(second.ok());
    qputenv("WAYLAND_DISPLAY", second.socket().toLocal8Bit());
    ASSERT_TRUE(second.launchFoot(QStringLiteral("org.example.Second"), QStringLiteral("second")));
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
    QProcess weston;
    QProcessEnvironment env;
    env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime.path());
    env.insert(QStringLiteral("HOME"), runtime.path());
    weston.setProcessEnvironment(env);
    weston.setStandardOutputFile(QProcess::nullDevice());
    weston.setStandardErrorFile(QProcess::nullDevice());
    weston.start(QStringLiteral("weston"),
                 {QStringLiteral("--backend=headless-backend.so"), QStringLiteral("--socket=wayland-w"),
                  QStringLiteral("--no-config")});
    const QString westonSocket = runtime.filePath(QStringLiteral("wayland-w"));
    ASSERT_TRUE(test::waitFor([&] { return QFileInfo::exists(westonSocket); }, 10000));

    const QString nowhere = QStringLiteral("/nonexistent/wayland-9");
    test::RecordingLog log;
    for (const QString& socket : {nowhere, westonSocket}) {
        SCOPED_TRACE(socket.toStdString());
        WlrProbes p{socket};
        EXPECT_TRUE(p.neutral());
        EXPECT_EQ(p.session->connected(), socket == westonSocket);
        EXPECT_FALSE(p.idle.watching());

        const test::ScopedEnv type("XDG_SESSION_TYPE", "wayland"), desktop("XDG_CURRENT_DESKTOP", "weston"),
            display("WAYLAND_DISPLAY", socket.toLocal8Bit());
        Probes probes = makeProbes();
        for (int tick = 0; tick < 2; ++tick) {
            EXPECT_FALSE(probes.window->current().has_value());
            EXPECT_EQ(probes.idle->idleSeconds(), 0.0);
            EXPECT_FALSE(probes.accessibility->trusted());
        }
    }
    ASSERT_EQ(log.systemLines.size(), 1);
    EXPECT_TRUE(log.systemLines.first().contains(QStringLiteral("weston")));
    test::stop(weston);
}

}  // namespace
}  // namespace corvi
