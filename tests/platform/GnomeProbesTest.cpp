// The GNOME probes against a real headless GNOME Shell running our extension as the build
// staged it, with foot terminals as the windows.
#include <gtest/gtest.h>
#include <signal.h>

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QObject>
#include <QThread>

#include "platform/linux/GnomeAccessibility.h"
#include "platform/linux/GnomeActiveWindow.h"
#include "platform/linux/GnomeIdleMonitor.h"
#include "platform/linux/ScreenLockProbe.h"
#include "support/EventLoop.h"
#include "support/GnomeShell.h"

namespace corvi {
namespace {

using test::GnomeShell;
using test::waitFor;
using Terminal = GnomeShell::Terminal;

const QString kUuid = QString::fromLatin1(GnomeShellExtension::kUuid);
const QString kBusName = QString::fromLatin1(GnomeShellExtension::kBusName);

// Records the extension's change signals.
class ChangeRecorder : public QObject {
    Q_OBJECT
  public:
    explicit ChangeRecorder(QDBusConnection bus) {
        bus.connect(kBusName, QString::fromLatin1(GnomeShellExtension::kObjectPath),
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
          idle(shell.bus(), std::make_unique<ScreenLockProbe>(shell.bus(), shell.bus())),
          access(extension, shell.bus()) {}

    // Waits until the window of `pid` is reported in front.
    bool showsPid(std::int32_t pid, int ms = 10000) {
        return waitFor(
            [&] {
                const auto info = window.current();
                return info && info->pid == pid;
            },
            ms);
    }

    std::shared_ptr<GnomeShellExtension> extension;
    GnomeActiveWindow window;
    GnomeIdleMonitor idle;
    GnomeAccessibility access;
};

class GnomeProbesTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        shell_ = new GnomeShell(CORVI_GNOME_EXTENSION_DATA, kEntries);
        enabled_ = shell_->ok() && shell_->setExtensionEnabled(kUuid, true, kBusName);
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
    struct Case {
        const char* row;
        QString appId, title, bundleID, appName;
    };
    const Case cases[] = {
        {"entry named after the app ID", "org.example.Editor",
         QString::fromUtf8("Relat\xc3\xb3rio \xe2\x80\x94 caf\xc3\xa9 \xe2\x9c\x93"), "org.example.Editor",
         "Example Editor"},
        {"entry found through StartupWMClass", "exedit", "  spaced  ", "org.example.Mapped", "Mapped Editor"},
        {"no entry: the app ID names itself", "no.entry.App", "x", "no.entry.App", "no.entry.App"},
    };
    std::vector<std::unique_ptr<Terminal>> open;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.row);
        open.push_back(std::make_unique<Terminal>(*shell_, c.appId, c.title));
        const std::int32_t pid = open.back()->pid();
        ASSERT_TRUE(probes_->showsPid(pid)) << "the new window never had the focus";
        const auto info = window.current();
        ASSERT_TRUE(info.has_value());
        EXPECT_EQ(info->bundleID, c.bundleID);
        EXPECT_EQ(info->appName, c.appName);
        EXPECT_EQ(info->windowTitle, c.title) << "the title as the window set it";
        EXPECT_EQ(window.focusedWindowTitle(pid), c.title);
        EXPECT_EQ(window.focusedWindowTitle(1), QString()) << "not the focused window's process";
    }

    // A title change is there by the next tick, and the extension announces it.
    ChangeRecorder changes(shell_->bus());
    open.back()->setTitle(QStringLiteral("Second title"));
    EXPECT_TRUE(waitFor(
        [&] { return window.focusedWindowTitle(open.back()->pid()) == QStringLiteral("Second title"); },
        3000));
    EXPECT_TRUE(waitFor([&] { return changes.titles.contains(QStringLiteral("Second title")); }, 3000));

    // Closing the front window gives the focus back to the one under it; with none left there
    // is no front application, and the permission still holds.
    open.back()->close();
    EXPECT_TRUE(probes_->showsPid(open[1]->pid()));
    for (auto& t : open) t->close();
    EXPECT_TRUE(waitFor([&] { return !window.current(); }));
    EXPECT_EQ(window.focusedWindowTitle(0), QString());
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
    EXPECT_TRUE(access.trustedWithPrompt());

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

    ASSERT_TRUE(shell_->setExtensionEnabled(kUuid, false, kBusName));
    EXPECT_FALSE(access.trusted());
    EXPECT_FALSE(access.trustedWithPrompt());
    EXPECT_FALSE(probes_->window.current().has_value());
    EXPECT_GT(probes_->idle.idleSeconds() + 1.0, 1.0) << "the idle time does not need the extension";

    ASSERT_TRUE(shell_->setExtensionEnabled(kUuid, true, kBusName));
    EXPECT_TRUE(access.trusted());
}

// A Shell that stops answering, then one that is gone: every probe is neutral, and each call
// returns.
TEST(GnomeLostShellTest, HungThenKilledShellGivesNeutralValues) {
    GnomeShell shell(CORVI_GNOME_EXTENSION_DATA, kEntries);
    ASSERT_TRUE(shell.ok()) << shell.log().toStdString();
    ASSERT_TRUE(shell.setExtensionEnabled(kUuid, true, kBusName));
    GnomeProbes probes(shell);
    Terminal t(shell, QStringLiteral("org.example.Editor"), QStringLiteral("before"));
    ASSERT_TRUE(probes.showsPid(t.pid()));

    const auto neutral = [&](const char* row) {
        SCOPED_TRACE(row);
        EXPECT_FALSE(probes.window.current().has_value());
        EXPECT_EQ(probes.window.focusedWindowTitle(t.pid()), QString());
        EXPECT_EQ(probes.idle.idleSeconds(), 0.0);
        EXPECT_FALSE(probes.access.trusted());
    };
    shell.pause(true);
    neutral("paused");
    shell.pause(false);
    EXPECT_TRUE(waitFor([&] { return probes.access.trusted(); })) << "a resumed Shell answers again";

    shell.kill();
    neutral("killed");
    EXPECT_FALSE(probes.idle.screenLocked());
}

}  // namespace
}  // namespace corvi

#include "GnomeProbesTest.moc"
