#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <functional>

#include "platform/linux/x11/X11Accessibility.h"
#include "platform/linux/x11/X11ActiveWindow.h"
#include "platform/linux/x11/X11IdleMonitor.h"
#include "support/QtPrinters.h"
#include "support/TestFiles.h"
#include "support/XClient.h"
#include "support/XServer.h"

namespace corvi {
namespace {

using test::XClient;
using test::XServer;
using namespace std::chrono_literals;

QString ownProcessName() {
    return QString::fromUtf8(test::readFile(QStringLiteral("/proc/self/comm")).trimmed());
}

// One property as a window sets it.
struct Prop {
    QByteArray name;
    const char* type;
    QByteArray value;
    int format = 8;
};
Prop windowClass(const char* instance, const char* cls) {
    return {"WM_CLASS", "STRING", QByteArray(instance) + '\0' + cls + '\0'};
}

// A bare display of its own, with the probes on it and no desktop entries.
struct BareDisplay {
    explicit BareDisplay(const QStringList& withoutExtensions)
        : server(false, 640, 480, [&] {
              QStringList args;
              for (const QString& e : withoutExtensions) args << QStringLiteral("-extension") << e;
              return args;
          }()) {}
    XServer server;
    XClient client{server.display()};
    std::shared_ptr<X11Session> session = std::make_shared<X11Session>(server.display().toLocal8Bit(), 0ms);
    X11ActiveWindow probe{session, std::make_unique<DesktopEntries>(QStringList{})};
};

// One display with openbox, a client making windows and desktop entries in a temp folder.
class X11ProbesTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server_ = new XServer();
        client_ = new XClient(server_->display());
        entries_ = new QTemporaryDir();
        test::writeFile(
            entries_->filePath(QStringLiteral("applications/org.example.Editor.desktop")),
            "[Desktop Entry]\nName[pt]=Editor de Exemplo\nName=Example Editor\nStartupWMClass=ExEdit\n");
        test::writeFile(entries_->filePath(QStringLiteral("applications/org.gnome.TextEditor.desktop")),
                        "[Desktop Entry]\nName=Text Editor\n");
    }
    static void TearDownTestSuite() {
        delete client_;
        delete server_;
        delete entries_;
    }
    void SetUp() override {
        ASSERT_TRUE(server_->ok() && client_->ok());
        session_ = std::make_shared<X11Session>(server_->display().toLocal8Bit(), 0ms);
        probe_ = std::make_unique<X11ActiveWindow>(
            session_, std::make_unique<DesktopEntries>(
                          QStringList{entries_->filePath(QStringLiteral("applications"))}));
    }
    // A new window with these properties, made active.
    XClient::Window activeWindow(const std::vector<Prop>& props) {
        const XClient::Window w = client_->createWindow();
        for (const Prop& p : props) client_->setProperty(w, p.name.constData(), p.type, p.format, p.value);
        EXPECT_TRUE(client_->activate(w));
        return w;
    }

    static inline XServer* server_ = nullptr;
    static inline XClient* client_ = nullptr;
    static inline QTemporaryDir* entries_ = nullptr;
    std::shared_ptr<X11Session> session_;
    std::unique_ptr<X11ActiveWindow> probe_;
};

TEST_F(X11ProbesTest, ActiveWindowIsDescribedByItsProperties) {
    const QByteArray oneMiB =
        QByteArray(X11ActiveWindow::kTitleBytes - 1, 'a') + "\xc3\xa9" + QByteArray(1 << 20, 'b');
    const char* utf8 = "Relat\xc3\xb3rio \xe2\x80\x94 caf\xc3\xa9 \xe2\x9c\x93";
    const QString self = ownProcessName();
    struct Case {
        const char* row;
        std::vector<Prop> props;
        QString bundleID, appName, title;
    };
    const QByteArray net = "_NET_WM_NAME", wm = "WM_NAME";
    // clang-format off
    const Case cases[] = {
        {"UTF-8 _NET_WM_NAME beats WM_NAME", {{net, "UTF8_STRING", utf8}, {wm, "STRING", "no"}, windowClass("gimp", "Gimp-2.10")},
         "Gimp-2.10", "Gimp-2.10", QString::fromUtf8(utf8)},
        {"Latin-1 WM_NAME", {{wm, "STRING", "caf\xe9"}, windowClass("xterm", "XTerm")}, "XTerm", "XTerm", "café"},
        {"COMPOUND_TEXT WM_NAME, Latin-1 and Greek", {{wm, "COMPOUND_TEXT", "caf\xe9 \x1b\x2d\x46\xe1"}}, "unknown", self, "café α"},
        {"_NET_WM_NAME of a wrong type gives way to WM_NAME", {{net, "CARDINAL", QByteArray(8, 1), 32}, {wm, "STRING", "yes"}}, "unknown", self, "yes"},
        {"STRING _NET_WM_NAME that is not UTF-8 gives way to a Latin-1 WM_NAME", {{net, "STRING", "caf\xe9"}, {wm, "STRING", "caf\xe9"}}, "unknown", self, "café"},
        {"leading U+FEFF kept", {{net, "UTF8_STRING", "\xef\xbb\xbfT\xc3\xadtulo"}}, "unknown", self, u'\ufeff' + QStringLiteral("Título")},
        {"invalid UTF-8 title", {{net, "UTF8_STRING", "ok \xff\xfe then bad"}}, "unknown", self, ""},
        {"1 MiB title cut at 64 KiB on a character boundary", {{net, "UTF8_STRING", oneMiB}}, "unknown", self,
         QString(X11ActiveWindow::kTitleBytes - 1, u'a')},
        {"GTK application ID beats the class and names the entry",
         {{"_GTK_APPLICATION_ID", "UTF8_STRING", "org.gnome.TextEditor"}, windowClass("te", "Te")}, "org.gnome.TextEditor", "Text Editor", ""},
        {"KDE desktop file without an entry is named by the class",
         {{"_KDE_NET_WM_DESKTOP_FILE", "UTF8_STRING", "org.kde.kate"}, windowClass("kate", "kate")}, "org.kde.kate", "kate", ""},
        {"StartupWMClass maps the class to the entry's plain Name", {windowClass("exedit", "ExEdit")}, "org.example.Editor", "Example Editor", ""},
        {"the instance is the entry's ID, as GTK sets it", {windowClass("org.gnome.TextEditor", "Org.gnome.TextEditor")},
         "org.gnome.TextEditor", "Text Editor", ""},
        {"class without the instance separator is ignored", {{"WM_CLASS", "STRING", "lonely"}}, "unknown", self, ""},
    };
    // clang-format on
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        const XClient::Window w = activeWindow(c.props);
        const auto info = probe_->current();
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->bundleID, c.bundleID);
        EXPECT_EQ(info->appName, c.appName);
        EXPECT_EQ(info->pid, getpid()) << "the X client's own pid, from X-Resource";
        EXPECT_EQ(info->windowTitle, c.title);
        client_->destroyWindow(w);
    }
}

// A steady tick asks X for the active window, its title and the idle time; what else the
// window and the window manager say is read again when X tells of a change, by the next tick.
TEST_F(X11ProbesTest, SteadyTickAsksLittleAndSeesEveryChange) {
    X11Accessibility access(session_);
    X11IdleMonitor idle(session_, nullptr);
    const auto tick = [&] {
        EXPECT_TRUE(access.trusted());
        idle.idleSeconds();
        return probe_->current();
    };
    const XClient::Window w =
        activeWindow({{"_NET_WM_NAME", "UTF8_STRING", "one"}, windowClass("exedit", "ExEdit")});
    ASSERT_TRUE(tick().has_value());
    const std::uint64_t before = session_->requests();
    ASSERT_TRUE(tick().has_value());
    EXPECT_LE(session_->requests() - before, 4u) << "requests in a steady tick";
    XClient::Window other = 0;
    struct Change {
        const char* row;
        std::function<void()> change;
        QString bundleID, title;
    };
    const Change changes[] = {
        {"a new title", [&] { client_->setText(w, "_NET_WM_NAME", "UTF8_STRING", "two"); },
         "org.example.Editor", "two"},
        {"a new class", [&] { client_->setClass(w, "te", "Te"); }, "Te", "two"},
        {"an application ID",
         [&] { client_->setText(w, "_GTK_APPLICATION_ID", "UTF8_STRING", "org.gnome.TextEditor"); },
         "org.gnome.TextEditor", "two"},
        {"another window in front",
         [&] {
             other = activeWindow({{"_NET_WM_NAME", "UTF8_STRING", "three"}});
         },
         "unknown", "three"},
    };
    for (const Change& c : changes) {
        c.change();
        const auto info = tick();
        ASSERT_TRUE(info.has_value()) << c.row;
        EXPECT_EQ(info->bundleID, c.bundleID) << c.row;
        EXPECT_EQ(info->windowTitle, c.title) << c.row;
    }
    client_->destroyWindow(other);
    client_->destroyWindow(w);
}

TEST_F(X11ProbesTest, TitlesAsRealToolsWriteThem) {
    const QString utf8 = QString::fromUtf8("Relat\xc3\xb3rio \xe2\x9c\x93");
    struct Case {
        const char* row;
        QStringList command;  // "%w": the active window; none: the tool makes its own
        QString title;
    };
    const Case cases[] = {
        {"xdotool writes both names as STRING", {"xdotool", "set_window", "--name", utf8, "%w"}, utf8},
        {"xterm in a C locale puts UTF-8 in a STRING WM_NAME",
         {"xterm", "-T", utf8, "-e", "sleep", "30"},
         utf8},
        {"xprop, UTF-8 in a STRING WM_NAME",
         {"xprop", "-id", "%w", "-f", "WM_NAME", "8s", "-set", "WM_NAME", utf8},
         utf8},
        {"xprop, UTF8_STRING with a leading U+FEFF",
         {"xprop", "-id", "%w", "-f", "_NET_WM_NAME", "8u", "-set", "_NET_WM_NAME", u'\ufeff' + utf8},
         u'\ufeff' + utf8},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        const bool ownWindow = c.command.contains("%w");
        const XClient::Window w = ownWindow ? activeWindow({}) : 0;
        QProcess tool;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("DISPLAY", server_->display());
        env.insert("LC_ALL", "C");
        tool.setProcessEnvironment(env);
        tool.start(c.command.first(), c.command.mid(1).replaceInStrings("%w", QString::number(w)));
        ASSERT_TRUE(tool.waitForStarted());
        if (ownWindow) {
            ASSERT_TRUE(tool.waitForFinished() && tool.exitCode() == 0);
        }
        const auto pid = static_cast<std::int32_t>(ownWindow ? getpid() : tool.processId());
        EXPECT_TRUE(QTest::qWaitFor([&] {
            const auto info = probe_->current();
            return info && info->pid == pid && !info->windowTitle.isEmpty();
        }));
        EXPECT_EQ(probe_->focusedWindowTitle(pid), c.title);
        tool.kill();
        tool.waitForFinished();
        if (ownWindow) client_->destroyWindow(w);
    }
}

TEST_F(X11ProbesTest, FocusedTitleBelongsOnlyToTheActiveWindowsProcess) {
    // _NET_WM_PID lies; X-Resource knows better.
    const XClient::Window w = activeWindow({{"_NET_WM_NAME", "UTF8_STRING", "Mine"},
                                            {"_NET_WM_PID", "CARDINAL", QByteArray("\1\0\0\0", 4), 32}});
    EXPECT_EQ(probe_->focusedWindowTitle(getpid()), QStringLiteral("Mine"));
    EXPECT_EQ(probe_->focusedWindowTitle(1), QString());
    client_->destroyWindow(w);
}

TEST_F(X11ProbesTest, FakeInputResetsIdleTime) {
    X11IdleMonitor idle(session_, nullptr);
    ASSERT_TRUE(client_->fakeInput());
    QThread::msleep(1100);
    EXPECT_GE(idle.idleSeconds(), 1.0);
    ASSERT_TRUE(client_->fakeInput());
    client_->sync();
    EXPECT_LT(idle.idleSeconds(), 1.0);
    EXPECT_FALSE(idle.screenLocked()) << "no lock probe: not locked";
}

// No window manager, no X-Resource, no screen-saver extension; the active window is written
// to the root by hand.
TEST(X11BareDisplayTest, MissingPiecesGiveNeutralValues) {
    BareDisplay d({QStringLiteral("X-Resource"), QStringLiteral("MIT-SCREEN-SAVER")});
    ASSERT_TRUE(d.server.ok());
    QProcess sleeper, gone;
    sleeper.start(QStringLiteral("sleep"), {QStringLiteral("30")});
    gone.start(QStringLiteral("true"), {});
    ASSERT_TRUE(sleeper.waitForStarted() && gone.waitForFinished());
    const auto live = static_cast<std::int32_t>(sleeper.processId());
    struct Case {
        const char* row;
        std::int32_t netWmPid;  // 0: none
        std::int32_t pid;
        QString appName;
    };
    const Case cases[] = {
        {"_NET_WM_PID of a live process, named after it", live, live, "sleep"},
        {"_NET_WM_PID of a process that is gone", static_cast<std::int32_t>(gone.processId()), 0, "unknown"},
        {"nothing at all", 0, 0, "unknown"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        const XClient::Window w = d.client.createWindow();
        if (c.netWmPid) d.client.setCardinal(w, "_NET_WM_PID", static_cast<std::uint32_t>(c.netWmPid));
        d.client.setActiveWindow(w);
        const auto info = d.probe.current();
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->pid, c.pid);
        EXPECT_EQ(info->bundleID, QStringLiteral("unknown"));
        EXPECT_EQ(info->appName, c.appName);
        EXPECT_EQ(info->windowTitle, QString());
        d.client.destroyWindow(w);
    }
    sleeper.kill();
    sleeper.waitForFinished();

    const XClient::Window destroyed = d.client.createWindow();
    d.client.destroyWindow(destroyed);
    const std::pair<const char*, std::function<void()>> noWindow[] = {
        {"active window destroyed", [&] { d.client.setActiveWindow(destroyed); }},
        {"active window 0", [&] { d.client.setActiveWindow(0); }},
        {"no active window property",
         [&] { d.client.deleteProperty(d.client.root(), "_NET_ACTIVE_WINDOW"); }},
        {"active window of the wrong type",
         [&] { d.client.setCardinal(d.client.root(), "_NET_ACTIVE_WINDOW", 7); }},
    };
    for (const auto& [row, set] : noWindow) {
        set();
        EXPECT_FALSE(d.probe.current().has_value()) << row;
    }
    EXPECT_EQ(X11IdleMonitor(d.session, nullptr).idleSeconds(), 0.0) << "no screen-saver extension";
    EXPECT_FALSE(X11Accessibility(d.session).trusted()) << "no window manager";
}

// A process whose root holds a .flatpak-info is a sandboxed app; needs the right to chroot.
TEST(X11BareDisplayTest, FlatpakSandboxGivesTheAppId) {
    BareDisplay d({QStringLiteral("X-Resource")});
    ASSERT_TRUE(d.server.ok());
    QTemporaryDir root;
    test::writeFile(
        root.filePath(QStringLiteral(".flatpak-info")),
        "[Instance]\nname=not.this\n\n[Application]\nruntime=runtime/x\nname=org.example.Sandboxed\n");
    const pid_t child = fork();
    if (child == 0) {
        if (chroot(QFile::encodeName(root.path()).constData()) == 0) pause();
        _exit(1);
    }
    ASSERT_GT(child, 0);
    QThread::msleep(100);
    const bool sandboxed =
        QFileInfo(QStringLiteral("/proc/%1/root").arg(child)).symLinkTarget() == root.path();
    const XClient::Window w = d.client.createWindow();
    d.client.setCardinal(w, "_NET_WM_PID", static_cast<std::uint32_t>(child));
    d.client.setText(w, "_GTK_APPLICATION_ID", "UTF8_STRING", "org.example.Outside");
    d.client.setActiveWindow(w);
    const auto info = d.probe.current();
    // Read once per process, not at every tick: the same window's next tick does not ask.
    QFile::rename(root.filePath(QStringLiteral(".flatpak-info")), root.filePath(QStringLiteral("gone")));
    const auto later = d.probe.current();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    if (!sandboxed) GTEST_SKIP() << "no permission to chroot";
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->bundleID, QStringLiteral("org.example.Sandboxed")) << "the sandbox's ID wins";
    EXPECT_EQ(info->pid, child);
    ASSERT_TRUE(later.has_value());
    EXPECT_EQ(later->bundleID, info->bundleID) << "read again for the same process";
}

// The window manager goes, then the display; a new display under the same $DISPLAY brings
// the probes back.
TEST(X11LostDisplayTest, ProbesGoNeutralAndRecover) {
    auto first = std::make_unique<XServer>();
    ASSERT_TRUE(first->ok());
    qputenv("DISPLAY", first->display().toLocal8Bit());
    auto session = std::make_shared<X11Session>(QByteArray(), 0ms);
    X11ActiveWindow probe(session, std::make_unique<DesktopEntries>(QStringList{}));
    X11IdleMonitor idle(session, nullptr);
    X11Accessibility access(session);
    EXPECT_TRUE(access.trusted());
    EXPECT_TRUE(access.trustedWithPrompt());
    {
        XClient client(first->display());
        const XClient::Window w = client.createWindow();
        // Opens the Xlib display too, which must not end the process when the server goes.
        client.setText(w, "WM_NAME", "COMPOUND_TEXT", "before");
        ASSERT_TRUE(client.activate(w));
        ASSERT_TRUE(probe.current().has_value());
        EXPECT_EQ(probe.current()->windowTitle, QStringLiteral("before"));
    }
    first->stopWindowManager();
    EXPECT_FALSE(access.trusted()) << "window manager gone";

    first->stopServer();
    for (int tick = 0; tick < 3; ++tick) {
        SCOPED_TRACE(tick);
        EXPECT_FALSE(probe.current().has_value());
        EXPECT_EQ(probe.focusedWindowTitle(getpid()), QString());
        EXPECT_EQ(idle.idleSeconds(), 0.0);
        EXPECT_FALSE(access.trusted());
    }

    XServer second;
    ASSERT_TRUE(second.ok());
    qputenv("DISPLAY", second.display().toLocal8Bit());
    EXPECT_TRUE(access.trusted());
    XClient client(second.display());
    const XClient::Window w = client.createWindow();
    client.setText(w, "_NET_WM_NAME", "UTF8_STRING", "Back");
    ASSERT_TRUE(client.activate(w));
    ASSERT_TRUE(probe.current().has_value());
    EXPECT_EQ(probe.current()->windowTitle, QStringLiteral("Back"));
}

TEST(X11SessionTest, ReconnectIsThrottled) {
    XServer server(false);
    ASSERT_TRUE(server.ok());
    // Within the interval no attempt is made, so the real display given later is not reached.
    X11Session later(QByteArray(), 1h);
    qputenv("DISPLAY", ":999");  // nothing listens there
    EXPECT_EQ(later.connection(), nullptr);
    qputenv("DISPLAY", server.display().toLocal8Bit());
    EXPECT_EQ(later.connection(), nullptr);
    EXPECT_NE(X11Session(QByteArray(), 1h).connection(), nullptr);
}

}  // namespace
}  // namespace corvi
