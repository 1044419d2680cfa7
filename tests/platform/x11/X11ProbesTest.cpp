#include <gtest/gtest.h>
#include <unistd.h>

#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <functional>

#include "platform/linux/x11/X11Accessibility.h"
#include "platform/linux/x11/X11ActiveWindow.h"
#include "platform/linux/x11/X11IdleMonitor.h"
#include "support/ChildProcess.h"
#include "support/ProbeChecks.h"
#include "support/QtPrinters.h"
#include "support/TestFiles.h"
#include "support/XClient.h"
#include "support/XServer.h"

namespace corvi {
namespace {

using test::DesktopProbesTest;
using test::XClient;
using test::XServer;
using namespace std::chrono_literals;

QString ownProcessName() {
    return QString::fromUtf8(test::readFile("/proc/self/comm").trimmed());
}

// One property as a window sets it.
struct Prop {
    QByteArray name;
    const char* type;
    QByteArray value;
    int format = 8;
};
Prop windowClass(const QByteArray& instance, const QByteArray& cls) {
    return {"WM_CLASS", "STRING", instance + '\0' + cls + '\0'};
}

struct X11Probes {
    explicit X11Probes(const QString& display, const QStringList& entries = {})
        : session(std::make_shared<X11Session>(display.toLocal8Bit(), 0ms)),
          window(session, std::make_unique<DesktopEntries>(entries)),
          idle(session, nullptr),
          access(session) {}
    std::shared_ptr<X11Session> session;
    X11ActiveWindow window;
    X11IdleMonitor idle;
    X11Accessibility access;
};

// One display with openbox, and a client making windows.
class X11Desktop : public test::ProbeDesktop {
  public:
    std::string failure() const override {
        return server.ok() && client.ok() ? "" : "no display with openbox";
    }
    std::shared_ptr<X11Probes> x11Probes() {
        return std::make_shared<X11Probes>(server.display(), QStringList{test::exampleEntries()});
    }
    test::ProbeSet probes() override { return test::probeSet(x11Probes()); }
    // A new window with these properties, made active.
    XClient::Window activeWindow(const std::vector<Prop>& props) {
        const XClient::Window w = client.createWindow();
        for (const Prop& p : props) client.setProperty(w, p.name.constData(), p.type, p.format, p.value);
        EXPECT_TRUE(client.activate(w));
        return w;
    }
    std::unique_ptr<test::DesktopWindow> open(const QString& appId, const QString& title) override {
        struct Window : test::DesktopWindow {
            Window(XClient& c, XClient::Window w) : client(c), id(w) {}
            ~Window() override { client.destroyWindow(id); }
            std::int32_t pid() const override { return getpid(); }
            bool setTitle(const QString& title) override {
                client.setText(id, "_NET_WM_NAME", "UTF8_STRING", title.toUtf8());
                return true;
            }
            XClient& client;
            XClient::Window id;
        };
        // As GTK sets them.
        const QByteArray id = appId.toUtf8();
        return std::make_unique<Window>(client,
                                        activeWindow({{"_GTK_APPLICATION_ID", "UTF8_STRING", id},
                                                      windowClass(id, id),
                                                      {"_NET_WM_NAME", "UTF8_STRING", title.toUtf8()}}));
    }
    bool fakeInput() override { return client.fakeInput(); }
    std::vector<std::pair<const char*, QByteArray>> sessionEnvironment() const override {
        return {{"XDG_SESSION_TYPE", "x11"},
                {"WAYLAND_DISPLAY", ""},
                {"DISPLAY", server.display().toLocal8Bit()}};
    }

    XServer server;
    XClient client{server.display()};
};

INSTANTIATE_TEST_SUITE_P(X11, DesktopProbesTest, ::testing::Values(&test::sharedProbeDesktop<X11Desktop>));

class X11ProbesTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(d.failure(), ""); }
    X11Desktop& d = test::sharedDesktop<X11Desktop>();
    std::shared_ptr<X11Probes> p = d.x11Probes();
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
        {"UTF-8 in both names as STRING, as xdotool and xterm in a C locale write them",
         {{net, "STRING", utf8}, {wm, "STRING", utf8}}, "unknown", self, QString::fromUtf8(utf8)},
        {"UTF-8 in a STRING WM_NAME alone, as xprop writes it", {{wm, "STRING", utf8}}, "unknown", self, QString::fromUtf8(utf8)},
        {"COMPOUND_TEXT WM_NAME, Latin-1 and Greek", {{wm, "COMPOUND_TEXT", "caf\xe9 \x1b\x2d\x46\xe1"}}, "unknown", self, "café α"},
        {"_NET_WM_NAME of a wrong type gives way to WM_NAME", {{net, "CARDINAL", QByteArray(8, 1), 32}, {wm, "STRING", "yes"}}, "unknown", self, "yes"},
        {"STRING _NET_WM_NAME that is not UTF-8 gives way to a Latin-1 WM_NAME", {{net, "STRING", "caf\xe9"}, {wm, "STRING", "caf\xe9"}}, "unknown", self, "café"},
        {"leading U+FEFF kept", {{net, "UTF8_STRING", "\xef\xbb\xbfT\xc3\xadtulo"}}, "unknown", self, u'\ufeff' + QStringLiteral("Título")},
        {"invalid UTF-8 title", {{net, "UTF8_STRING", "ok \xff\xfe then bad"}}, "unknown", self, ""},
        {"1 MiB title cut at 64 KiB on a character boundary", {{net, "UTF8_STRING", oneMiB}}, "unknown", self,
         QString(X11ActiveWindow::kTitleBytes - 1, u'a')},
        {"a _NET_WM_PID that lies: X-Resource names the process",
         {{net, "UTF8_STRING", "Mine"}, {"_NET_WM_PID", "CARDINAL", QByteArray("\1\0\0\0", 4), 32}}, "unknown", self, "Mine"},
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
        const XClient::Window w = d.activeWindow(c.props);
        // The X client's own pid, from X-Resource; the title is only its process's.
        test::expectDescribes(p->window, {c.row, {}, c.title, c.bundleID, c.appName}, getpid());
        d.client.destroyWindow(w);
    }
}

// A steady tick asks X for the active window, its title and the idle time; what else the
// window and the window manager say is read again when X tells of a change, by the next tick.
TEST_F(X11ProbesTest, SteadyTickAsksLittleAndSeesEveryChange) {
    const auto tick = [&] {
        EXPECT_TRUE(p->access.trusted());
        p->idle.idleSeconds();
        return p->window.current();
    };
    XClient& client = d.client;
    const XClient::Window w =
        d.activeWindow({{"_NET_WM_NAME", "UTF8_STRING", "one"}, windowClass("exedit", "ExEdit")});
    ASSERT_TRUE(tick().has_value());
    const std::uint64_t before = p->session->requests();
    ASSERT_TRUE(tick().has_value());
    EXPECT_LE(p->session->requests() - before, 4u) << "requests in a steady tick";
    XClient::Window other = 0;
    struct Change {
        const char* row;
        std::function<void()> change;
        QString bundleID, title;
    };
    const Change changes[] = {
        {"a new title", [&] { client.setText(w, "_NET_WM_NAME", "UTF8_STRING", "two"); },
         "org.example.Editor", "two"},
        {"a new class", [&] { client.setClass(w, "te", "Te"); }, "Te", "two"},
        {"an application ID",
         [&] { client.setText(w, "_GTK_APPLICATION_ID", "UTF8_STRING", "org.gnome.TextEditor"); },
         "org.gnome.TextEditor", "two"},
        {"another window in front",
         [&] {
             other = d.activeWindow({{"_NET_WM_NAME", "UTF8_STRING", "three"}});
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
    client.destroyWindow(other);
    client.destroyWindow(w);
}

// No window manager, no X-Resource, no screen-saver extension; the active window is written
// to the root by hand.
TEST(X11BareDisplayTest, MissingPiecesGiveNeutralValuesAndThePidNamesTheApp) {
    XServer server(false, {"-extension", "X-Resource", "-extension", "MIT-SCREEN-SAVER"});
    ASSERT_TRUE(server.ok());
    XClient client(server.display());
    X11Probes p(server.display());
    QProcess sleeper, gone;
    sleeper.start("sleep", {"30"});
    gone.start("true", {});
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
        const XClient::Window w = client.createWindow();
        if (c.netWmPid) client.setCardinal(w, "_NET_WM_PID", static_cast<std::uint32_t>(c.netWmPid));
        client.setActiveWindow(w);
        test::expectDescribes(p.window, {c.row, {}, QString(), "unknown", c.appName}, c.pid);
        client.destroyWindow(w);
    }
    sleeper.kill();
    sleeper.waitForFinished();

    const XClient::Window destroyed = client.createWindow();
    client.destroyWindow(destroyed);
    const std::pair<const char*, std::function<void()>> noWindow[] = {
        {"active window destroyed", [&] { client.setActiveWindow(destroyed); }},
        {"active window 0", [&] { client.setActiveWindow(0); }},
        {"no active window property", [&] { client.deleteProperty(client.root(), "_NET_ACTIVE_WINDOW"); }},
        {"active window of the wrong type",
         [&] { client.setCardinal(client.root(), "_NET_ACTIVE_WINDOW", 7); }},
    };
    for (const auto& [row, set] : noWindow) {
        set();
        EXPECT_FALSE(p.window.current().has_value()) << row;
    }
    EXPECT_EQ(p.idle.idleSeconds(), 0.0) << "no screen-saver extension";
    EXPECT_FALSE(p.access.trusted()) << "no window manager";

    // A process whose root holds a .flatpak-info is a sandboxed app; needs the right to chroot.
    QTemporaryDir root;
    test::writeFile(
        root.filePath(".flatpak-info"),
        "[Instance]\nname=not.this\n\n[Application]\nruntime=runtime/x\nname=org.example.Sandboxed\n");
    const QByteArray rootPath = QFile::encodeName(root.path());
    test::ChildProcess child([&] {
        if (chroot(rootPath.constData()) == 0) pause();
    });
    ASSERT_GT(child.pid(), 0);
    QThread::msleep(100);
    const bool sandboxed =
        QFileInfo(QStringLiteral("/proc/%1/root").arg(child.pid())).symLinkTarget() == root.path();
    const XClient::Window w = client.createWindow();
    client.setCardinal(w, "_NET_WM_PID", static_cast<std::uint32_t>(child.pid()));
    client.setText(w, "_GTK_APPLICATION_ID", "UTF8_STRING", "org.example.Outside");
    client.setActiveWindow(w);
    const auto info = p.window.current();
    // Read once per process, not at every tick: the same window's next tick does not ask.
    QFile::rename(root.filePath(".flatpak-info"), root.filePath("gone"));
    const auto later = p.window.current();
    if (!sandboxed) GTEST_SKIP() << "no permission to chroot";
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->bundleID, "org.example.Sandboxed") << "the sandbox's ID wins";
    EXPECT_EQ(info->pid, child.pid());
    ASSERT_TRUE(later.has_value());
    EXPECT_EQ(later->bundleID, info->bundleID) << "read again for the same process";
}

// The window manager goes, then the display; a new display under the same $DISPLAY brings
// the probes back, at their next retry.
TEST(X11LostDisplayTest, ProbesGoNeutralAndRecover) {
    auto first = std::make_unique<XServer>();
    ASSERT_TRUE(first->ok());
    qputenv("DISPLAY", first->display().toLocal8Bit());
    X11Probes p{QString()};
    EXPECT_TRUE(p.access.trusted());
    EXPECT_TRUE(p.access.trustedWithPrompt());
    {
        XClient client(first->display());
        const XClient::Window w = client.createWindow();
        // Opens the Xlib display too, which must not end the process when the server goes.
        client.setText(w, "WM_NAME", "COMPOUND_TEXT", "before");
        ASSERT_TRUE(client.activate(w));
        ASSERT_TRUE(p.window.current().has_value());
        EXPECT_EQ(p.window.current()->windowTitle, "before");
    }
    first->stopWindowManager();
    EXPECT_FALSE(p.access.trusted()) << "window manager gone";

    first->stopServer();
    test::expectNeutral(p.window, p.idle, p.access, getpid());
    // Within the retry interval nothing is tried, so a display that appears later waits for it.
    X11Session later(QByteArray(), 1h);
    EXPECT_EQ(later.connection(), nullptr);

    XServer second;
    ASSERT_TRUE(second.ok());
    qputenv("DISPLAY", second.display().toLocal8Bit());
    EXPECT_EQ(later.connection(), nullptr);
    EXPECT_NE(X11Session(QByteArray(), 1h).connection(), nullptr);
    EXPECT_TRUE(p.access.trusted());
    XClient client(second.display());
    const XClient::Window w = client.createWindow();
    client.setText(w, "_NET_WM_NAME", "UTF8_STRING", "Back");
    ASSERT_TRUE(client.activate(w));
    ASSERT_TRUE(p.window.current().has_value());
    EXPECT_EQ(p.window.current()->windowTitle, "Back");
}

}  // namespace
}  // namespace corvi
