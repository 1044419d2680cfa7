// The GNOME probes against a real headless GNOME Shell running our extension as the build
// staged it, with foot terminals as the windows.
#include <gtest/gtest.h>
#include <signal.h>

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QObject>
#include <QThread>

#include "platform/linux/freedesktop/ScreenLockProbe.h"
#include "platform/linux/gnome/GnomeAccessibility.h"
#include "platform/linux/gnome/GnomeActiveWindow.h"
#include "platform/linux/gnome/GnomeIdleMonitor.h"
#include "support/EventLoop.h"
#include "support/GnomeShell.h"
#include "support/ProbeChecks.h"

namespace corvi {
namespace {

using test::ClientWindow;
using test::GnomeShell;
using test::waitFor;

// Records the extension's change signals.
class ChangeRecorder : public QObject {
    Q_OBJECT
  public:
    explicit ChangeRecorder(QDBusConnection bus) {
        bus.connect(QString::fromLatin1(GnomeShellExtension::kBusName),
                    QString::fromLatin1(GnomeShellExtension::kObjectPath),
                    QString::fromLatin1(GnomeShellExtension::kInterface), QStringLiteral("Changed"), this,
                    SLOT(changed(QDBusMessage)));
    }
    QStringList titles;

  public slots:
    void changed(const QDBusMessage& m) { titles << m.arguments().value(2).toString(); }
};

// Desktop entries: one named after the app ID, one found through StartupWMClass.
const std::map<QString, QByteArray> kEntries{
    {"org.example.Editor", "[Desktop Entry]\nType=Application\nName=Example Editor\nExec=foot\n"},
    {"org.example.Mapped",
     "[Desktop Entry]\nType=Application\nName=Mapped Editor\nExec=foot\nStartupWMClass=exedit\n"},
};

struct GnomeProbes {
    explicit GnomeProbes(const GnomeShell& shell)
        : extension(std::make_shared<GnomeShellExtension>(shell.bus())),
          window(extension, std::make_unique<DesktopEntries>(
                                QStringList{shell.dataHome() + "/applications", "/usr/share/applications"},
                                QStringList{})),
          idle(shell.bus(), std::make_unique<ScreenLockProbe>(shell.bus(), shell.bus()), extension),
          access(extension, shell.bus()) {}

    std::shared_ptr<GnomeShellExtension> extension;
    GnomeActiveWindow window;
    GnomeIdleMonitor idle;
    GnomeAccessibility access;
};

class GnomeProbesTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        shell_ = new GnomeShell(CORVI_GNOME_EXTENSION_DATA, kEntries);
        enabled_ = shell_->ok() && shell_->setExtensionEnabled(true);
    }
    static void TearDownTestSuite() { delete shell_; }
    void SetUp() override {
        ASSERT_TRUE(shell_->ok()) << "gnome-shell did not start:\n" << shell_->log().toStdString();
        ASSERT_TRUE(enabled_) << "the extension was not enabled:\n" << shell_->log().toStdString();
        probes_ = std::make_unique<GnomeProbes>(*shell_);
    }

    static inline GnomeShell* shell_ = nullptr;
    static inline bool enabled_ = false;
    std::unique_ptr<GnomeProbes> probes_;
};

TEST_F(GnomeProbesTest, FocusedWindowIsNamedByItsDesktopEntry) {
    ActiveWindow& window = probes_->window;
    const test::WindowCase cases[] = {
        {"entry named after the app ID", "org.example.Editor",
         QString::fromUtf8("Relat\xc3\xb3rio \xe2\x80\x94 caf\xc3\xa9 \xe2\x9c\x93"), "org.example.Editor",
         "Example Editor"},
        {"entry found through StartupWMClass", "exedit", "  spaced  ", "org.example.Mapped", "Mapped Editor"},
        {"no entry: the app ID names itself", "no.entry.App", "x", "no.entry.App", "no.entry.App"},
    };
    std::vector<ClientWindow> open;
    for (const test::WindowCase& c : cases) {
        SCOPED_TRACE(c.row);
        open.push_back(shell_->open(ClientWindow::Foot, c.appId, c.title));
        ASSERT_TRUE(test::showsWindow(window, open.back().pid(), c.title))
            << "the new window never came to the front with its own title";
        test::expectDescribes(window, c, open.back().pid());
    }

    // A title change is there by the next tick, and the extension announces it.
    ChangeRecorder changes(shell_->bus());
    open.back().setTitle(QStringLiteral("Second title"));
    EXPECT_TRUE(waitFor(
        [&] { return window.focusedWindowTitle(open.back().pid()) == QStringLiteral("Second title"); },
        3000));
    EXPECT_TRUE(waitFor([&] { return changes.titles.contains(QStringLiteral("Second title")); }, 3000));

    // Closing the front window gives the focus back to the one under it; with none left there
    // is no front application, and the permission still holds.
    open.back().close();
    EXPECT_TRUE(test::showsWindow(window, open[1].pid(), cases[1].title));
    open.clear();
    EXPECT_TRUE(waitFor([&] { return !window.current(); }));
    EXPECT_TRUE(probes_->access.trusted());
}

TEST_F(GnomeProbesTest, IdleTimeGrowsWithoutInputAndInputResetsIt) {
    IdleMonitor& idle = probes_->idle;
    const double before = idle.idleSeconds();
    QThread::msleep(1100);
    EXPECT_GE(idle.idleSeconds(), before + 1.0);
    EXPECT_FALSE(idle.screenLocked()) << "the Shell's own screen saver says unlocked";

    // Input through Mutter's remote desktop interface, as a remote desktop client sends it.
    QDBusConnection bus = shell_->bus();
    const QString rd = QStringLiteral("org.gnome.Mutter.RemoteDesktop");
    const QDBusMessage created = bus.call(QDBusMessage::createMethodCall(
        rd, QStringLiteral("/org/gnome/Mutter/RemoteDesktop"), rd, QStringLiteral("CreateSession")));
    ASSERT_EQ(created.type(), QDBusMessage::ReplyMessage) << created.errorMessage().toStdString();
    const QString session = created.arguments().value(0).value<QDBusObjectPath>().path();
    const auto sessionCall = [&](const char* method, const QVariantList& args = {}) {
        QDBusMessage m =
            QDBusMessage::createMethodCall(rd, session, rd + ".Session", QString::fromLatin1(method));
        m.setArguments(args);
        return bus.call(m);
    };
    const QDBusMessage started = sessionCall("Start");
    ASSERT_EQ(started.type(), QDBusMessage::ReplyMessage) << started.errorMessage().toStdString();
    ASSERT_GE(idle.idleSeconds(), 1.0);
    sessionCall("NotifyPointerMotionRelative", {10.0, 10.0});
    EXPECT_TRUE(waitFor([&] { return idle.idleSeconds() < 1.0; }, 2000)) << "pointer motion did not count";
    sessionCall("Stop");
}

TEST_F(GnomeProbesTest, GrantingOpensTheExtensionsAppAndDisablingRevokes) {
    GnomeAccessibility& access = probes_->access;
    EXPECT_TRUE(access.trusted());

    // The Extensions app, started through the bus, is where the person enables the extension.
    ASSERT_TRUE(access.openGrantPlace());
    EXPECT_TRUE(waitFor(
        [&] {
            const auto info = probes_->window.current();
            return info && info->bundleID == QStringLiteral("org.gnome.Extensions");
        },
        20000))
        << "the Extensions app never came to the front";
    if (const auto info = probes_->window.current(); info && info->pid > 0) {
        EXPECT_EQ(info->appName, QStringLiteral("Extensions"));
        ::kill(info->pid, SIGTERM);
    }

    ASSERT_TRUE(shell_->setExtensionEnabled(false));
    EXPECT_TRUE(waitFor([&] { return !access.trusted(); })) << "the bus says the extension is gone";
    EXPECT_FALSE(probes_->window.current().has_value());
    EXPECT_GT(probes_->idle.idleSeconds() + 1.0, 1.0) << "the idle time does not need the extension";

    ASSERT_TRUE(shell_->setExtensionEnabled(true));
    EXPECT_TRUE(waitFor([&] { return access.trusted(); }));
}

// A Shell that stops answering, then one that is gone: every probe is neutral, and each call
// returns.
TEST(GnomeLostShellTest, HungThenKilledShellGivesNeutralValues) {
    GnomeShell shell(CORVI_GNOME_EXTENSION_DATA, kEntries);
    ASSERT_TRUE(shell.ok()) << shell.log().toStdString();
    ASSERT_TRUE(shell.setExtensionEnabled(true));
    GnomeProbes probes(shell);
    ClientWindow t =
        shell.open(ClientWindow::Foot, QStringLiteral("org.example.Editor"), QStringLiteral("before"));
    ASSERT_TRUE(test::showsWindow(probes.window, t.pid(), QStringLiteral("before")));

    shell.pause(true);
    test::expectNeutral(probes.window, probes.idle, probes.access, t.pid());
    shell.pause(false);
    EXPECT_TRUE(waitFor([&] { return probes.access.trusted(); })) << "a resumed Shell answers again";

    shell.kill();
    test::expectNeutral(probes.window, probes.idle, probes.access, t.pid());
    EXPECT_FALSE(probes.idle.screenLocked());
}

}  // namespace
}  // namespace corvi

#include "GnomeProbesTest.moc"
