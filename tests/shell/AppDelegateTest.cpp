#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QScopeGuard>
#include <QSettings>
#include <QSystemTrayIcon>
#include <QTemporaryDir>
#include <QTimer>

#include "StandIns.h"
#include "capture/Sampler.h"
#include "model/RecordingLoginItem.h"
#include "platform/Paths.h"
#include "server/AgentTestSupport.h"
#include "shell/AppDelegate.h"
#include "shell/StatusMenu.h"
#include "store/Store.h"
#include "support/RecordingLog.h"

namespace corvi {
namespace {

using test::settle;
using test::waitFor;

const QString hiddenIconLine =
    QStringLiteral("CorviAgent: ícone da barra de menus está oculto (barra cheia/notch)");
const QString positionKey = QStringLiteral("NSStatusItem Preferred Position Corvimetry");

// One XDG home for the whole program.
QTemporaryDir& home() {
    static QTemporaryDir dir;
    return dir;
}

QString settingsFile() {
    return home().filePath(QStringLiteral("config/CorviAgent/CorviAgent.conf"));
}

QJsonObject readJson(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly)) return {};
    return QJsonDocument::fromJson(f.readAll()).object();
}

class AppDelegateTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(home().isValid());
        qputenv("XDG_DATA_HOME", home().filePath(QStringLiteral("data")).toLocal8Bit());
        qputenv("XDG_CONFIG_HOME", home().filePath(QStringLiteral("config")).toLocal8Bit());
    }

    void SetUp() override { QDir(dataFolder()).removeRecursively(); }

    // The config.json the next delegate loads.
    void writeConfig(const QJsonObject& config) {
        QFile f(dataFolder() + QStringLiteral("/config.json"));
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(QJsonDocument(config).toJson());
    }

    std::unique_ptr<AppDelegate> makeDelegate(double sampleInterval = 3600) {
        AgentServices s;
        s.window = std::unique_ptr<ActiveWindow>(window = new test::StandInWindow);
        s.idle = std::unique_ptr<IdleMonitor>(idle = new test::StandInIdle);
        s.accessibility = std::unique_ptr<Accessibility>(access = new test::StandInAccessibility);
        s.cpu = std::unique_ptr<CpuTimeSource>(cpu = new test::StandInCpu);
        s.adminAuth = std::unique_ptr<AdminAuth>(admin = new test::ScriptedAdminAuth);
        s.passcodePrompt = std::unique_ptr<PasscodePrompt>(prompt = new test::ScriptedPrompt);
        s.clock = std::unique_ptr<Clock>(clock = new test::StepClock);
        // The uploader never fires on its own here: no server is configured anyway.
        return std::make_unique<AppDelegate>(std::move(s), AgentTiming{sampleInterval, 3600});
    }

    // The sessions in the file, read through a connection of their own.
    static std::vector<Unsynced> storedSessions() {
        Store reader(dataFolder() + QStringLiteral("/corvi.sqlite"));
        return reader.fetchUnsynced(1000);
    }

    test::RecordingLog log;
    test::StandInWindow* window = nullptr;
    test::StandInIdle* idle = nullptr;
    test::StandInAccessibility* access = nullptr;
    test::StandInCpu* cpu = nullptr;
    test::ScriptedAdminAuth* admin = nullptr;
    test::ScriptedPrompt* prompt = nullptr;
    test::StepClock* clock = nullptr;
};

TEST_F(AppDelegateTest, LaunchLoadsTheConfigBeforeTheLoginItemAndTheFirstSample) {
    writeConfig({{"paused", true}, {"language", "en"}, {"launch_at_login", false}});
    auto delegate = makeDelegate();
    test::RecordingLoginItem loginItem;
    loginItem.current = LoginItem::Status::enabled;
    struct Seen {
        bool paused, launchAtLogin, samplerExists, menuExists;
    };
    std::vector<Seen> seen;
    loginItem.onChange = [&] {
        seen.push_back({delegate->model().paused(), delegate->model().launchAtLogin(),
                        delegate->sampler() != nullptr, delegate->statusMenu() != nullptr});
    };
    delegate->model().setLoginItem(&loginItem);

    delegate->applicationDidFinishLaunching();

    ASSERT_EQ(loginItem.calls, QStringList{"unregister"});
    EXPECT_TRUE(seen[0].paused);
    EXPECT_FALSE(seen[0].launchAtLogin);
    EXPECT_FALSE(seen[0].samplerExists);
    EXPECT_FALSE(seen[0].menuExists);
    // The first tick ran at once and was already paused: nothing probed, nothing stored.
    ASSERT_NE(delegate->sampler(), nullptr);
    EXPECT_EQ(window->reads, 0);
    EXPECT_TRUE(storedSessions().empty());
    EXPECT_EQ(delegate->model().currentStateLabel(), QStringLiteral("\u2014"));
    settle(50);
    EXPECT_EQ(delegate->statusMenu()->pauseItem()->text(), QStringLiteral("Resume tracking"));
    EXPECT_EQ(log.systemLines.first(),
              QStringLiteral("CorviAgent iniciado. DB: ") + dataFolder() + QStringLiteral("/corvi.sqlite"));
}

TEST_F(AppDelegateTest, EverySampleSetsLabelPendingAndPermission) {
    writeConfig({{"language", "en"}, {"launch_at_login", false}});
    auto delegate = makeDelegate();
    struct Case {
        const char* name;
        const char* bundleID;
        double idleSeconds;
        bool locked;
        std::uint64_t cpuNanosPerTick;
        bool permission;
        const char* label;
    };
    // Each row is a new state, so each opens a session of its own and adds one pending.
    const Case cases[] = {
        {"work in front", "com.adobe.photoshop", 0, false, 0, true, "Trabalhando"},
        {"away, work app busy", "com.adobe.photoshop", 400, false, 3'000'000'000, false, "Exportando"},
        {"chat in front", "com.tinyspeck.slackmacgap", 0, false, 0, true, "Comunicação"},
        {"something else", "org.example.game", 0, false, 0, false, "Disperso"},
        {"away, in English too", "org.example.game", 400, false, 0, true, "Ausente"},
        {"screen locked", "org.example.game", 0, true, 0, true, "Bloqueado"},
    };
    window->front->windowTitle = QStringLiteral("splash");
    delegate->applicationDidFinishLaunching();  // its first tick is the first session
    window->front->windowTitle = QStringLiteral("poster.psd");
    std::uint64_t total = 0;
    qint64 pending = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        window->front->bundleID = QString::fromUtf8(c.bundleID);
        idle->idle = c.idleSeconds;
        idle->locked = c.locked;
        access->granted = c.permission;
        clock->time += 3;
        total += c.cpuNanosPerTick;
        cpu->totals[42] = total;
        delegate->sampler()->tick();
        EXPECT_EQ(delegate->model().currentStateLabel(), QString::fromUtf8(c.label));
        EXPECT_EQ(delegate->model().pending(), ++pending);
        EXPECT_EQ(delegate->model().accessibilityOK(), c.permission);
    }
    EXPECT_EQ(storedSessions().size(), size_t(pending));
}

TEST_F(AppDelegateTest, RefusedQuitKeepsRunningAndAGrantedOneFlushesAndQuits) {
    writeConfig({{"language", "en"}, {"launch_at_login", false}});
    // What the open session held when the application began to quit. Connected before the
    // delegate connects its flush, so it runs first.
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

    admin->answers = {false};
    delegate->requestTermination();
    EXPECT_EQ(admin->asked, QStringList{"tech.stonefold.corvimetry.quit"});
    EXPECT_FALSE(delegate->quitAuthorized());
    const auto before = samples();
    EXPECT_TRUE(waitFor([&] { return samples() > before + 2; })) << "the sampler stopped after a refusal";

    admin->answers = {true};
    QTimer::singleShot(0, delegate.get(), &AppDelegate::requestTermination);
    QTimer::singleShot(5000, qApp, [] { QCoreApplication::exit(7); });
    ASSERT_EQ(QApplication::exec(), 0);
    EXPECT_EQ(admin->asked.size(), 2);
    EXPECT_TRUE(delegate->quitAuthorized());
    ASSERT_TRUE(atQuit.has_value());
    EXPECT_FALSE(delegate->sampler()->current().has_value()) << "the open session was not flushed";
    const auto rows = storedSessions();
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].end, atQuit->endTS);
    EXPECT_EQ(rows[0].samples, atQuit->samples);

    // Granted once, every later request passes without asking.
    QTimer::singleShot(0, delegate.get(), &AppDelegate::requestTermination);
    QTimer::singleShot(5000, qApp, [] { QCoreApplication::exit(7); });
    EXPECT_EQ(QApplication::exec(), 0);
    EXPECT_EQ(admin->asked.size(), 2);
}

TEST_F(AppDelegateTest, PausingAsksTheGateAndResumingNever) {
    writeConfig({{"language", "en"}, {"launch_at_login", false}});
    auto delegate = makeDelegate();
    delegate->applicationDidFinishLaunching();
    clock->time += 3;
    delegate->sampler()->tick();
    const auto config = [] { return readJson(dataFolder() + QStringLiteral("/config.json")); };

    // A quit asked for while the pause prompt is open is refused, not stacked on top of it.
    admin->onAsk = [&] {
        admin->onAsk = nullptr;
        delegate->requestTermination();
    };
    admin->answers = {false, true};
    delegate->togglePause();
    EXPECT_FALSE(delegate->model().paused()) << "a refused pause was applied";
    EXPECT_FALSE(config().value("paused").toBool());
    delegate->togglePause();
    EXPECT_EQ(admin->asked, QStringList(2, QStringLiteral("tech.stonefold.corvimetry.pause")));
    EXPECT_FALSE(delegate->quitAuthorized());
    EXPECT_TRUE(delegate->model().paused());
    EXPECT_TRUE(config().value("paused").toBool());
    settle(50);
    EXPECT_EQ(delegate->statusMenu()->pauseItem()->text(), QStringLiteral("Resume tracking"));

    // The sampler learns of it at its next tick: it closes the session and reads nothing.
    ASSERT_TRUE(delegate->sampler()->current().has_value());
    const int reads = window->reads;
    clock->time += 3;
    delegate->sampler()->tick();
    EXPECT_EQ(window->reads, reads);
    EXPECT_FALSE(delegate->sampler()->current().has_value());

    delegate->togglePause();
    EXPECT_EQ(admin->asked.size(), 2) << "resuming asked for authorization";
    EXPECT_FALSE(delegate->model().paused());
    EXPECT_FALSE(config().value("paused").toBool());
    clock->time += 3;
    delegate->sampler()->tick();
    EXPECT_TRUE(delegate->sampler()->current().has_value());
    EXPECT_EQ(storedSessions().size(), 2u);
}

TEST_F(AppDelegateTest, TrayPositionIsWrittenOnceAndNeverOverwritten) {
    {
        QSettings defaults(settingsFile(), QSettings::IniFormat);
        defaults.remove(positionKey);
    }
    makeDelegate()->applicationDidFinishLaunching();
    ASSERT_TRUE(QFile::exists(settingsFile()));
    {
        QSettings defaults(settingsFile(), QSettings::IniFormat);
        EXPECT_EQ(defaults.value(positionKey).toInt(), 220);
        defaults.setValue(positionKey, 512);  // where the person dragged it
    }
    makeDelegate()->applicationDidFinishLaunching();
    QSettings defaults(settingsFile(), QSettings::IniFormat);
    EXPECT_EQ(defaults.value(positionKey).toInt(), 512);
}

TEST_F(AppDelegateTest, HiddenIconIsLoggedOnlyWithoutATrayHost) {
    const struct {
        const char* name;
        bool trayHost;
    } cases[] = {{"no tray host", false}, {"trayer running", true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        QProcess trayer;
        if (c.trayHost) {
            trayer.start(QStringLiteral("trayer"), {"--SetDockType", "true", "--edge", "top"});
            ASSERT_TRUE(trayer.waitForStarted(5000));
            ASSERT_TRUE(waitFor([] { return QSystemTrayIcon::isSystemTrayAvailable(); }, 5000));
        } else {
            ASSERT_FALSE(QSystemTrayIcon::isSystemTrayAvailable());
        }
        log.systemLines.clear();
        auto delegate = makeDelegate();
        delegate->applicationDidFinishLaunching();
        settle(2500);
        EXPECT_FALSE(log.systemLines.contains(hiddenIconLine)) << "logged before 3 seconds";
        settle(1000);
        EXPECT_EQ(log.systemLines.contains(hiddenIconLine), !c.trayHost);
        delegate.reset();
        trayer.kill();
        trayer.waitForFinished(5000);
    }
}

}  // namespace
}  // namespace corvi
