// The GNOME probes against a real headless GNOME Shell running our extension as the build
// staged it, with foot terminals as the windows.
#include <gtest/gtest.h>
#include <signal.h>

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QObject>

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
using test::DesktopProbesTest;
using test::GnomeShell;
using test::waitFor;

// Records the extension's change signals.
class ChangeRecorder : public QObject {
    Q_OBJECT
  public:
    explicit ChangeRecorder(QDBusConnection bus) {
        bus.connect(QString::fromLatin1(GnomeShellExtension::kBusName),
                    QString::fromLatin1(GnomeShellExtension::kObjectPath),
                    QString::fromLatin1(GnomeShellExtension::kInterface), "Changed", this,
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

// One Shell with the extension enabled; foot windows.
class GnomeDesktop : public test::ProbeDesktop {
  public:
    std::string failure() const override {
        if (!shell.ok()) return "gnome-shell did not start:\n" + shell.log().toStdString();
        return enabled ? "" : "the extension was not enabled:\n" + shell.log().toStdString();
    }
    std::shared_ptr<GnomeProbes> gnomeProbes() { return std::make_shared<GnomeProbes>(shell); }
    test::ProbeSet probes() override { return test::probeSet(gnomeProbes()); }
    std::unique_ptr<test::DesktopWindow> open(const QString& appId, const QString& title) override {
        return std::make_unique<ClientWindow>(shell.open(ClientWindow::Foot, appId, title));
    }
    std::vector<test::WindowCase> ownCases() const override {
        return {{"entry found through StartupWMClass", "exedit", "  spaced  ", "org.example.Mapped",
                 "Mapped Editor"}};
    }
    // Through Mutter's remote desktop interface, as a remote desktop client sends it.
    bool fakeInput() override {
        QDBusConnection bus = shell.bus();
        const QString rd = "org.gnome.Mutter.RemoteDesktop";
        const QDBusMessage created = bus.call(
            QDBusMessage::createMethodCall(rd, "/org/gnome/Mutter/RemoteDesktop", rd, "CreateSession"));
        const QString session = created.arguments().value(0).value<QDBusObjectPath>().path();
        const auto sessionCall = [&](const char* method, const QVariantList& args = {}) {
            QDBusMessage m =
                QDBusMessage::createMethodCall(rd, session, rd + ".Session", QString::fromLatin1(method));
            m.setArguments(args);
            return bus.call(m).type() == QDBusMessage::ReplyMessage;
        };
        const bool moved = sessionCall("Start") && sessionCall("NotifyPointerMotionRelative", {10.0, 10.0});
        sessionCall("Stop");
        return moved;
    }
    std::vector<std::pair<const char*, QByteArray>> sessionEnvironment() const override {
        const QProcessEnvironment env = shell.clientEnvironment();
        return {{"XDG_SESSION_TYPE", "wayland"},
                {"XDG_CURRENT_DESKTOP", "GNOME"},
                {"WAYLAND_DISPLAY", env.value("WAYLAND_DISPLAY").toLocal8Bit()},
                {"DBUS_SESSION_BUS_ADDRESS", env.value("DBUS_SESSION_BUS_ADDRESS").toLocal8Bit()}};
    }

    GnomeShell shell{CORVI_GNOME_EXTENSION_DATA, kEntries};
    bool enabled = shell.ok() && shell.setExtensionEnabled(true);
};

INSTANTIATE_TEST_SUITE_P(Gnome, DesktopProbesTest,
                         ::testing::Values(&test::sharedProbeDesktop<GnomeDesktop>));

// The extension announces a title change; it opens the Extensions app, where the person
// enables it, and disabling it revokes the permission.
TEST(GnomeProbesTest, TheExtensionAnnouncesChangesAndDisablingRevokes) {
    GnomeDesktop& d = test::sharedDesktop<GnomeDesktop>();
    ASSERT_EQ(d.failure(), "");
    const auto probes = d.gnomeProbes();
    GnomeAccessibility& access = probes->access;
    EXPECT_TRUE(access.trusted());

    ChangeRecorder changes(d.shell.bus());
    const auto w = d.open("org.example.Editor", "First title");
    ASSERT_TRUE(test::showsWindow(probes->window, w->pid(), "First title"));
    ASSERT_TRUE(w->setTitle("Second title"));
    EXPECT_TRUE(waitFor([&] { return changes.titles.contains("Second title"); }, 3000));

    ASSERT_TRUE(access.openGrantPlace());
    EXPECT_TRUE(waitFor(
        [&] {
            const auto info = probes->window.current();
            return info && info->bundleID == "org.gnome.Extensions";
        },
        20000))
        << "the Extensions app never came to the front";
    if (const auto info = probes->window.current(); info && info->pid > 0) {
        EXPECT_EQ(info->appName, "Extensions");
        ::kill(info->pid, SIGTERM);
    }

    ASSERT_TRUE(d.shell.setExtensionEnabled(false));
    EXPECT_TRUE(waitFor([&] { return !access.trusted(); })) << "the bus says the extension is gone";
    EXPECT_FALSE(probes->window.current().has_value());
    EXPECT_GT(probes->idle.idleSeconds() + 1.0, 1.0) << "the idle time does not need the extension";

    ASSERT_TRUE(d.shell.setExtensionEnabled(true));
    EXPECT_TRUE(waitFor([&] { return access.trusted(); }));
}

// A Shell that stops answering, then one that is gone: every probe is neutral, and each call
// returns.
TEST(GnomeLostShellTest, HungThenKilledShellGivesNeutralValues) {
    test::sharedDesktopSlot<GnomeDesktop>().reset();  // two Shells do not run side by side
    GnomeShell shell(CORVI_GNOME_EXTENSION_DATA, kEntries);
    ASSERT_TRUE(shell.ok()) << shell.log().toStdString();
    ASSERT_TRUE(shell.setExtensionEnabled(true));
    GnomeProbes probes(shell);
    ClientWindow t = shell.open(ClientWindow::Foot, "org.example.Editor", "before");
    ASSERT_TRUE(test::showsWindow(probes.window, t.pid(), "before"));

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
