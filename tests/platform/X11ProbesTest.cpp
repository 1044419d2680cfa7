#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <functional>

#include "platform/linux/X11Accessibility.h"
#include "platform/linux/X11ActiveWindow.h"
#include "platform/linux/X11IdleMonitor.h"
#include "support/XClient.h"
#include "support/XServer.h"

namespace corvi {
namespace {

using test::XClient;
using test::XServer;
using namespace std::chrono_literals;

void writeFile(const QString& path, const QByteArray& text) {
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly)) << path.toStdString();
    f.write(text);
}

QString ownProcessName() {
    QFile f(QStringLiteral("/proc/self/comm"));
    return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll().trimmed()) : QString();
}

// One display with openbox, a client making windows and desktop entries in a temp folder.
class X11ProbesTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        server_ = new XServer();
        client_ = new XClient(server_->display());
        entries_ = new QTemporaryDir();
        writeFile(entries_->filePath(QStringLiteral("applications/org.example.Editor.desktop")),
                  "[Desktop Entry]\nType=Application\nName[pt]=Editor de Exemplo\nName=Example Editor\n"
                  "StartupWMClass=ExEdit\n\n[Desktop Action new]\nName=New Window\n");
        writeFile(entries_->filePath(QStringLiteral("applications/org.gnome.TextEditor.desktop")),
                  "[Desktop Entry]\nName=Text Editor\n");
    }
    static void TearDownTestSuite() {
        delete client_;
        delete server_;
        delete entries_;
    }

    void SetUp() override {
        ASSERT_TRUE(server_->ok());
        ASSERT_TRUE(client_->ok());
        session_ = std::make_shared<X11Session>(server_->display().toLocal8Bit(), 0ms);
        probe_ = std::make_unique<X11ActiveWindow>(
            session_, std::make_unique<DesktopEntries>(
                          QStringList{entries_->filePath(QStringLiteral("applications"))}));
    }

    static XServer* server_;
    static XClient* client_;
    static QTemporaryDir* entries_;
    std::shared_ptr<X11Session> session_;
    std::unique_ptr<X11ActiveWindow> probe_;
};
XServer* X11ProbesTest::server_ = nullptr;
XClient* X11ProbesTest::client_ = nullptr;
QTemporaryDir* X11ProbesTest::entries_ = nullptr;

TEST_F(X11ProbesTest, ActiveWindowIsDescribedByItsProperties) {
    const QByteArray oneMiB =
        QByteArray(X11ActiveWindow::kTitleBytes - 1, 'a') + "\xc3\xa9" + QByteArray(1024 * 1024, 'b');
    struct Case {
        const char* row;
        std::function<void(XClient&, XClient::Window)> setup;
        QString bundleID;
        QString appName;
        QString title;
    };
    const Case cases[] = {
        {"UTF-8 _NET_WM_NAME and a class",
         [](XClient& x, XClient::Window w) {
             x.setText(w, "_NET_WM_NAME", "UTF8_STRING",
                       "Relat\xc3\xb3rio \xe2\x80\x94 caf\xc3\xa9 \xe2\x9c\x93");
             x.setText(w, "WM_NAME", "STRING", "ignored");
             x.setClass(w, "gimp", "Gimp-2.10");
         },
         "Gimp-2.10", "Gimp-2.10",
         QString::fromUtf8("Relat\xc3\xb3rio \xe2\x80\x94 caf\xc3\xa9 \xe2\x9c\x93")},
        {"Latin-1 WM_NAME",
         [](XClient& x, XClient::Window w) {
             x.setText(w, "WM_NAME", "STRING", "caf\xe9");
             x.setClass(w, "xterm", "XTerm");
         },
         "XTerm", "XTerm", QString::fromUtf8("caf\xc3\xa9")},
        {"COMPOUND_TEXT WM_NAME with Latin-1 and Greek",
         [](XClient& x, XClient::Window w) {
             x.setText(w, "WM_NAME", "COMPOUND_TEXT", "caf\xe9 \x1b\x2d\x46\xe1");
             x.setClass(w, "old", "OldApp");
         },
         "OldApp", "OldApp", QString::fromUtf8("caf\xc3\xa9 \xce\xb1")},
        {"_NET_WM_NAME of a wrong type hides WM_NAME",
         [](XClient& x, XClient::Window w) {
             x.setProperty(w, "_NET_WM_NAME", "CARDINAL", 32, QByteArray(8, '\x01'));
             x.setText(w, "WM_NAME", "STRING", "fallback");
             x.setClass(w, "a", "Wrong");
         },
         "Wrong", "Wrong", ""},
        {"invalid UTF-8 title",
         [](XClient& x, XClient::Window w) {
             x.setText(w, "_NET_WM_NAME", "UTF8_STRING", "ok \xff\xfe then bad");
             x.setClass(w, "a", "Bad");
         },
         "Bad", "Bad", ""},
        {"1 MiB title is cut at 64 KiB on a character boundary",
         [&oneMiB](XClient& x, XClient::Window w) {
             x.setText(w, "_NET_WM_NAME", "UTF8_STRING", oneMiB);
             x.setClass(w, "a", "Huge");
         },
         "Huge", "Huge", QString(X11ActiveWindow::kTitleBytes - 1, u'a')},
        {"GTK application ID wins over the class and names the entry",
         [](XClient& x, XClient::Window w) {
             x.setText(w, "_GTK_APPLICATION_ID", "UTF8_STRING", "org.gnome.TextEditor");
             x.setClass(w, "gnome-text-editor", "Gnome-text-editor");
         },
         "org.gnome.TextEditor", "Text Editor", ""},
        {"KDE desktop file without an entry is named by the class",
         [](XClient& x, XClient::Window w) {
             x.setText(w, "_KDE_NET_WM_DESKTOP_FILE", "UTF8_STRING", "org.kde.kate");
             x.setClass(w, "kate", "kate");
         },
         "org.kde.kate", "kate", ""},
        {"StartupWMClass maps the class to the entry and its plain Name",
         [](XClient& x, XClient::Window w) { x.setClass(w, "exedit", "ExEdit"); }, "org.example.Editor",
         "Example Editor", ""},
        {"no properties: unknown, named after the process", [](XClient&, XClient::Window) {}, "unknown",
         ownProcessName(), ""},
        {"class without the instance separator is ignored",
         [](XClient& x, XClient::Window w) { x.setText(w, "WM_CLASS", "STRING", QByteArray("lonely")); },
         "unknown", ownProcessName(), ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        const XClient::Window w = client_->createWindow();
        c.setup(*client_, w);
        ASSERT_TRUE(client_->activate(w));
        const auto info = probe_->current();
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->bundleID, c.bundleID);
        EXPECT_EQ(info->appName, c.appName);
        EXPECT_EQ(info->pid, getpid()) << "the X client's own pid, from X-Resource";
        EXPECT_EQ(info->windowTitle, c.title);
        client_->destroyWindow(w);
    }
}

TEST_F(X11ProbesTest, FocusedTitleBelongsOnlyToTheActiveWindowsProcess) {
    const XClient::Window w = client_->createWindow();
    client_->setText(w, "_NET_WM_NAME", "UTF8_STRING", "Mine");
    client_->setCardinal(w, "_NET_WM_PID", 1);  // a lie; X-Resource knows better
    ASSERT_TRUE(client_->activate(w));
    EXPECT_EQ(probe_->focusedWindowTitle(getpid()), QStringLiteral("Mine"));
    EXPECT_EQ(probe_->focusedWindowTitle(1), QString());
    client_->destroyWindow(w);
}

TEST_F(X11ProbesTest, RoundCostsThreeRoundTripsAfterTheFirst) {
    const XClient::Window w = client_->createWindow();
    client_->setText(w, "_NET_WM_NAME", "UTF8_STRING", "Counted");
    ASSERT_TRUE(client_->activate(w));
    X11IdleMonitor idle(session_, nullptr);
    probe_->current();
    idle.idleSeconds();
    const auto before = session_->roundTrips();
    ASSERT_TRUE(probe_->current().has_value());
    idle.idleSeconds();
    EXPECT_EQ(session_->roundTrips() - before, 3u);
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

// A bare display: no window manager, no X-Resource, no screen-saver extension. The active
// window is written to the root by hand.
TEST(X11BareDisplayTest, MissingPiecesGiveNeutralValues) {
    XServer server(false, 640, 480,
                   {QStringLiteral("-extension"), QStringLiteral("X-Resource"), QStringLiteral("-extension"),
                    QStringLiteral("MIT-SCREEN-SAVER")});
    ASSERT_TRUE(server.ok());
    XClient client(server.display());
    auto session = std::make_shared<X11Session>(server.display().toLocal8Bit(), 0ms);
    X11ActiveWindow probe(session, std::make_unique<DesktopEntries>(QStringList{}));

    QProcess sleeper;
    sleeper.start(QStringLiteral("sleep"), {QStringLiteral("30")});
    ASSERT_TRUE(sleeper.waitForStarted());
    QProcess gone;
    gone.start(QStringLiteral("true"), {});
    ASSERT_TRUE(gone.waitForFinished());

    struct Case {
        const char* row;
        std::int32_t netWmPid;  // 0: none
        std::int32_t pid;
        QString bundleID;
        QString appName;
    };
    const Case cases[] = {
        {"_NET_WM_PID of a live process, named after it", static_cast<std::int32_t>(sleeper.processId()),
         static_cast<std::int32_t>(sleeper.processId()), "unknown", "sleep"},
        {"_NET_WM_PID of a process that is gone", static_cast<std::int32_t>(gone.processId()), 0, "unknown",
         "unknown"},
        {"nothing at all", 0, 0, "unknown", "unknown"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        const XClient::Window w = client.createWindow();
        if (c.netWmPid) client.setCardinal(w, "_NET_WM_PID", static_cast<std::uint32_t>(c.netWmPid));
        client.setActiveWindow(w);
        const auto info = probe.current();
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->pid, c.pid);
        EXPECT_EQ(info->bundleID, c.bundleID);
        EXPECT_EQ(info->appName, c.appName);
        EXPECT_EQ(info->windowTitle, QString());
        client.destroyWindow(w);
    }
    sleeper.kill();
    sleeper.waitForFinished();

    const XClient::Window destroyed = client.createWindow();
    client.destroyWindow(destroyed);
    struct Active {
        const char* row;
        std::function<void()> set;
    };
    const Active noWindow[] = {
        {"active window destroyed", [&] { client.setActiveWindow(destroyed); }},
        {"active window 0", [&] { client.setActiveWindow(0); }},
        {"no active window property", [&] { client.deleteProperty(client.root(), "_NET_ACTIVE_WINDOW"); }},
        {"active window of the wrong type",
         [&] {
             client.setProperty(client.root(), "_NET_ACTIVE_WINDOW", "CARDINAL", 32, QByteArray(4, '\x07'));
         }},
    };
    for (const Active& a : noWindow) {
        SCOPED_TRACE(a.row);
        a.set();
        EXPECT_FALSE(probe.current().has_value());
    }

    X11IdleMonitor idle(session, nullptr);
    EXPECT_EQ(idle.idleSeconds(), 0.0) << "no screen-saver extension";
    EXPECT_FALSE(X11Accessibility(session).trusted()) << "no window manager";
}

// A process whose root holds a .flatpak-info is a sandboxed app; needs the right to chroot.
TEST(X11BareDisplayTest, FlatpakSandboxGivesTheAppId) {
    XServer server(false, 640, 480, {QStringLiteral("-extension"), QStringLiteral("X-Resource")});
    ASSERT_TRUE(server.ok());
    QTemporaryDir root;
    writeFile(root.filePath(QStringLiteral(".flatpak-info")),
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
    XClient client(server.display());
    auto session = std::make_shared<X11Session>(server.display().toLocal8Bit(), 0ms);
    X11ActiveWindow probe(session, std::make_unique<DesktopEntries>(QStringList{}));
    const XClient::Window w = client.createWindow();
    client.setCardinal(w, "_NET_WM_PID", static_cast<std::uint32_t>(child));
    client.setText(w, "_GTK_APPLICATION_ID", "UTF8_STRING", "org.example.Outside");
    client.setActiveWindow(w);
    const auto info = probe.current();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    if (!sandboxed) GTEST_SKIP() << "no permission to chroot";
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->bundleID, QStringLiteral("org.example.Sandboxed")) << "the sandbox's ID wins";
    EXPECT_EQ(info->pid, child);
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
        const auto info = probe.current();
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->windowTitle, QStringLiteral("before"));
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
    const auto info = probe.current();
    ASSERT_TRUE(info.has_value());
    EXPECT_EQ(info->windowTitle, QStringLiteral("Back"));
}

TEST(X11SessionTest, ReconnectIsThrottled) {
    XServer server(false);
    ASSERT_TRUE(server.ok());
    X11Session session(":999", 1h);  // nothing listens there
    EXPECT_EQ(session.connection(), nullptr);
    // Within the interval no attempt is made, so the real display given later is not reached.
    X11Session later(QByteArray(), 1h);
    qputenv("DISPLAY", ":999");
    EXPECT_EQ(later.connection(), nullptr);
    qputenv("DISPLAY", server.display().toLocal8Bit());
    EXPECT_EQ(later.connection(), nullptr);
    X11Session fresh(QByteArray(), 1h);
    EXPECT_NE(fresh.connection(), nullptr);
}

}  // namespace
}  // namespace corvi
