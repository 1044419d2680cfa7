#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QScopeGuard>
#include <QSettings>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include "BuildConfig.h"
#include "StandIns.h"
#include "capture/Sampler.h"
#include "model/RecordingLoginItem.h"
#include "platform/Paths.h"
#include "shell/AppDelegate.h"
#include "shell/PermissionWindowController.h"
#include "shell/SettingsPopoverController.h"
#include "shell/StatusMenu.h"
#include "store/Store.h"
#include "support/Desktop.h"
#include "support/EventLoop.h"
#include "support/FakeDesktop.h"
#include "support/RecordingLog.h"
#include "support/TestFiles.h"
#include "ui/PermissionView.h"
#include "ui/ThemedWidgets.h"

namespace corvi {
namespace {

using test::settle;
using test::waitFor;

class AppDelegateTest : public ::testing::Test {
  protected:
    inline static QTemporaryDir home;  // one XDG home for the whole program
    static void SetUpTestSuite() {
        ASSERT_TRUE(home.isValid());
        qputenv("XDG_DATA_HOME", home.filePath("data").toLocal8Bit());
        qputenv("XDG_CONFIG_HOME", home.filePath("config").toLocal8Bit());
    }

    void SetUp() override {
        QDir(dataFolder()).removeRecursively();
        ASSERT_TRUE(test::writeFile(dataFolder() + "/config.json",
                                    R"({"language": "en", "launch_at_login": false})"));
    }

    static bool pausedInConfig() {
        return QJsonDocument::fromJson(test::readFile(dataFolder() + "/config.json"))["paused"].toBool();
    }
    static std::vector<Unsynced> storedSessions() {
        return Store(dataFolder() + "/corvi.sqlite").fetchUnsynced(1000);
    }

    void tick(AppDelegate& delegate) {
        clock->time += 3;
        delegate.sampler()->tick();
    }

    std::unique_ptr<AppDelegate> makeDelegate(double sampleInterval = 3600, double reminder = 3600) {
        AgentServices s;
        s.window = std::unique_ptr<ActiveWindow>(window = new test::FakeDesktop);
        s.idle = std::unique_ptr<IdleMonitor>(idle = new test::FakeDesktop);
        s.accessibility = std::unique_ptr<Accessibility>(access = new test::StandInAccessibility);
        s.cpu = std::unique_ptr<CpuTimeSource>(cpu = new test::FakeCpu);
        s.adminAuth = std::unique_ptr<AdminAuth>(admin = new test::ScriptedAdminAuth);
        s.passcodePrompt = std::make_unique<test::ScriptedPrompt>();
        s.clock = std::unique_ptr<Clock>(clock = new test::HandClock);
        s.openUrl = [this](const QUrl& url) { opened << url.toString(); };
        return std::make_unique<AppDelegate>(std::move(s), AgentTiming{sampleInterval, 3600, reminder, 0.3});
    }

    test::RecordingLog log;
    test::FakeDesktop* window = nullptr;  // its idle and lock are unread
    test::FakeDesktop* idle = nullptr;    // its window is unread
    test::StandInAccessibility* access = nullptr;
    test::FakeCpu* cpu = nullptr;
    test::ScriptedAdminAuth* admin = nullptr;
    test::HandClock* clock = nullptr;
    QStringList opened;
};

TEST_F(AppDelegateTest, LaunchLoadsTheConfigBeforeTheLoginItemAndTheFirstSample) {
    test::writeFile(dataFolder() + "/config.json",
                    R"({"paused": true, "language": "en", "launch_at_login": false})");
    auto delegate = makeDelegate();
    test::RecordingLoginItem loginItem;
    loginItem.current = LoginItem::Status::enabled;
    QList<bool> seen;  // paused, launch at login, sampler made, menu made: when the item is told
    loginItem.onChange = [&] {
        seen = {delegate->model().paused(), delegate->model().launchAtLogin(), delegate->sampler() != nullptr,
                delegate->statusMenu() != nullptr};
    };
    delegate->model().setLoginItem(&loginItem);
    delegate->applicationDidFinishLaunching();

    EXPECT_EQ(loginItem.calls, QStringList{"unregister"});
    EXPECT_EQ(seen, (QList<bool>{true, false, false, false}));
    // The first tick ran at once and was already paused: nothing probed, nothing stored.
    EXPECT_EQ(window->reads, 0);
    EXPECT_TRUE(storedSessions().empty());
    EXPECT_EQ(delegate->model().currentStateLabel(), "\u2014");
    settle(50);
    EXPECT_EQ(delegate->statusMenu()->pauseItem()->text(), "Resume tracking");
}

TEST_F(AppDelegateTest, EverySampleSetsLabelPendingAndPermissionUntilAGrantedPause) {
    auto delegate = makeDelegate();
    // Each row is a new state, so each opens a session of its own and adds one pending.
    const struct {
        const char* bundleID;
        double idle;
        std::uint64_t cpuNanosPerTick;
        bool locked, permission;
        const char* label;
    } cases[] = {
        {"com.adobe.photoshop", 0, 0, false, true, "Trabalhando"},
        {"com.adobe.photoshop", 400, 3'000'000'000, false, false, "Exportando"},
        {"com.tinyspeck.slackmacgap", 0, 0, false, true, "Comunicação"},
        {"org.example.game", 0, 0, false, false, "Disperso"},
        {"org.example.game", 400, 0, false, true, "Ausente"},
        {"org.example.game", 0, 0, true, true, "Bloqueado"},
    };
    window->front->windowTitle = "splash";
    delegate->applicationDidFinishLaunching();  // its first tick is the first session
    window->front->windowTitle = "poster.psd";
    std::uint64_t total = 0;
    qint64 pending = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        window->front->bundleID = c.bundleID;
        idle->idle = c.idle;
        idle->locked = c.locked;
        access->granted = c.permission;
        cpu->totals[42] = total += c.cpuNanosPerTick;
        tick(*delegate);
        EXPECT_EQ(delegate->model().currentStateLabel(), QString::fromUtf8(c.label));
        EXPECT_EQ(delegate->model().pending(), ++pending);
        EXPECT_EQ(delegate->model().accessibilityOK(), c.permission);
    }

    // Pausing asks the gate, resuming never. A quit asked for while the pause prompt is open
    // is refused, not stacked on top of it.
    idle->locked = false;  // unlocked, the window is read at every tick
    admin->onAsk = [&] {
        admin->onAsk = nullptr;
        delegate->requestTermination();
    };
    admin->answers = {false, true};
    delegate->togglePause();
    EXPECT_FALSE(delegate->model().paused() || pausedInConfig()) << "a refused pause was applied";
    delegate->togglePause();
    EXPECT_EQ(admin->asked, QStringList(2, "tech.stonefold.corvimetry.pause"));
    EXPECT_FALSE(delegate->quitAuthorized());
    EXPECT_TRUE(delegate->model().paused() && pausedInConfig());
    settle(50);
    EXPECT_EQ(delegate->statusMenu()->pauseItem()->text(), "Resume tracking");

    // The sampler learns of it at its next tick: it closes the session and reads nothing.
    const int reads = window->reads;
    tick(*delegate);
    EXPECT_EQ(window->reads, reads);
    EXPECT_FALSE(delegate->sampler()->current().has_value());

    delegate->togglePause();
    EXPECT_EQ(admin->asked.size(), 2) << "resuming asked for authorization";
    EXPECT_FALSE(delegate->model().paused() || pausedInConfig());
    tick(*delegate);
    EXPECT_TRUE(delegate->sampler()->current().has_value());
    EXPECT_EQ(storedSessions().size(), size_t(pending + 1));
}

TEST_F(AppDelegateTest, ALogoutGrantLastsOnlyForThatLogoutAndAGrantedQuitFlushesTheOpenSession) {
    // The open session as the application began to quit; connected before the delegate's flush.
    std::unique_ptr<AppDelegate> delegate;
    std::optional<SessionRow> atQuit;
    const auto snapshot = QObject::connect(qApp, &QCoreApplication::aboutToQuit, qApp, [&] {
        if (delegate && delegate->sampler()) atQuit = delegate->sampler()->current();
    });
    const auto cleanup = qScopeGuard([&] { QObject::disconnect(snapshot); });
    delegate = makeDelegate(0.02);
    delegate->applicationDidFinishLaunching();
    const auto samples = [&] {
        return delegate->sampler()->current() ? delegate->sampler()->current()->samples : 0;
    };
    ASSERT_TRUE(waitFor([&] { return samples() >= 2; }));

    // A logout that another program cancels must not leave every later quit granted.
    admin->answers = {false, true, true};
    EXPECT_FALSE(delegate->logoutShouldTerminate(false)) << "granted without asking";
    EXPECT_FALSE(delegate->logoutShouldTerminate(true));
    EXPECT_TRUE(delegate->logoutShouldTerminate(true));
    EXPECT_TRUE(delegate->logoutShouldTerminate(false)) << "the logout's own SIGTERM asked again";
    EXPECT_TRUE(waitFor([&] { return !delegate->quitAuthorized(); }, 2000))
        << "the grant outlived the logout";

    // A refused quit is the agent end-to-end test's: it sees the agent go on sampling.
    const auto quitNow = [&] {
        QTimer::singleShot(0, delegate.get(), &AppDelegate::requestTermination);
        QTimer::singleShot(5000, qApp, [] { QCoreApplication::exit(7); });
        return QApplication::exec();
    };
    ASSERT_EQ(quitNow(), 0);
    EXPECT_TRUE(delegate->quitAuthorized());
    ASSERT_TRUE(atQuit.has_value());
    EXPECT_FALSE(delegate->sampler()->current().has_value()) << "the open session was not flushed";
    const auto rows = storedSessions();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].end, atQuit->endTS);
    EXPECT_EQ(rows[0].samples, atQuit->samples);
    EXPECT_EQ(quitNow(), 0) << "a granted quit is not granted for good";
    EXPECT_EQ(admin->asked, QStringList(3, "tech.stonefold.corvimetry.quit"));
}

TEST_F(AppDelegateTest, MissingPermissionShowsItsWindowAgainAndANewInstallItsSignInForm) {
    auto delegate = makeDelegate(3600, 0.2);
    access->granted = false;
    delegate->applicationDidFinishLaunching();
    PermissionWindowController* permission = delegate->permission();
    SettingsPopoverController* settings = delegate->settings();
    ASSERT_TRUE(settings->isShown()) << "no sign-in form";
    EXPECT_FALSE(settings->popover()->windowFlags().testFlag(Qt::Popup)) << "a first-run popup";
    EXPECT_TRUE(admin->asked.isEmpty());
    ASSERT_TRUE(permission->isOnScreen());
    permission->window()->close();
    EXPECT_TRUE(waitFor([&] { return permission->isOnScreen(); }, 1000)) << "the reminder did not show it";

    // The menu's entry closes the shown settings; the window's step 1 opens the desktop's own
    // place to grant it, else the help page.
    delegate->statusMenu()->ajustesItem()->trigger();
    EXPECT_TRUE(waitFor([&] { return !settings->isShown(); }, 1000));
    EXPECT_EQ(access->grantPlaceOpened, 0) << "opened at launch, before anyone asked";
    QTest::mouseClick(permission->view()->openSettingsButton(), Qt::LeftButton);
    EXPECT_EQ(opened, QStringList{QString(build::webAddress) + "/help/linux-permission"});
    access->hasGrantPlace = true;
    QTest::mouseClick(permission->view()->openSettingsButton(), Qt::LeftButton);
    EXPECT_EQ(access->grantPlaceOpened, 2);
    EXPECT_EQ(opened.size(), 1) << "the help page as well as the desktop's place";

    // Granted: the window closes, and the reminder leaves it closed.
    access->granted = true;
    ASSERT_TRUE(
        waitFor([&] { return !permission->isOnScreen(); }, PermissionWindowController::pollMs + 1000));
    settle(500);
    EXPECT_FALSE(permission->isOnScreen()) << "reminded with the permission granted";
}

// A desktop that answers a moment after start: no window until it has, none once it granted.
TEST_F(AppDelegateTest, AConfiguredAgentWaitsForTheDesktopsAnswer) {
    test::writeFile(dataFolder() + "/config.json",
                    R"({"server_url": "http://127.0.0.1:1", "api_key": "k", "language": "en"})");
    auto delegate = makeDelegate();
    access->granted = false;
    access->stillSettling = true;
    delegate->applicationDidFinishLaunching();
    EXPECT_FALSE(delegate->settings()->isShown()) << "the sign-in form for an enrolled agent";
    settle(300);
    EXPECT_FALSE(delegate->permission()->window()) << "shown before the desktop answered";
    access->granted = true;
    access->stillSettling = false;
    EXPECT_TRUE(waitFor([&] { return delegate->model().accessibilityOK(); }, 1000));
    settle(200);
    EXPECT_FALSE(delegate->permission()->window());
    EXPECT_TRUE(admin->asked.isEmpty());
}

// Launched with no tray host, with one, and with one that comes a second after the menu.
TEST_F(AppDelegateTest, TrayPositionIsWrittenOnceAndAHiddenIconLoggedOnlyWithoutAHost) {
    const QString settings = home.filePath("config/CorviAgent/CorviAgent.conf");
    const QString key = "NSStatusItem Preferred Position Corvimetry";
    const QString line = "CorviAgent: ícone da barra de menus está oculto (barra cheia/notch)";
    QSettings(settings, QSettings::IniFormat).remove(key);
    const struct {
        const char* name;
        int trayerAt;  // ms after the launch; -1 never
    } cases[] = {{"no tray host", -1}, {"trayer running", 0}, {"trayer a second late", 1000}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        test::Desktop& desktop = *test::Desktop::entered();
        if (c.trayerAt == 0) desktop.startTray();
        ASSERT_TRUE(waitFor([&] { return StatusMenu::trayHostPresent() == (c.trayerAt == 0); }, 5000));
        log.systemLines.clear();
        auto delegate = makeDelegate();
        delegate->applicationDidFinishLaunching();
        EXPECT_EQ(QSettings(settings, QSettings::IniFormat).value(key).toInt(), &c == cases ? 220 : 512);
        QSettings(settings, QSettings::IniFormat).setValue(key, 512);  // where the person dragged it
        if (c.trayerAt > 0) {
            settle(c.trayerAt);
            desktop.startTray();
        }
        settle(2500 - qMax(c.trayerAt, 0));
        EXPECT_FALSE(log.systemLines.contains(line)) << "logged before 3 seconds";
        settle(1000);
        EXPECT_EQ(log.systemLines.contains(line), c.trayerAt < 0);
        // Docked: the tray gave the icon a place.
        const QSystemTrayIcon* item = delegate->statusMenu()->statusItem();
        EXPECT_EQ(item && !item->geometry().isEmpty(), c.trayerAt >= 0);
        delegate.reset();
        desktop.stopTray();
    }
}

}  // namespace
}  // namespace corvi
