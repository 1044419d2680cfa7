// The real agent in Wayland sessions (a headless sway, KWin and GNOME Shell, each with real
// client windows), signed in to the reference server: what it stores and uploads names the
// focused window's application and its cleaned title, as on X11.
#include <gtest/gtest.h>
#include <signal.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QTemporaryDir>
#include <functional>
#include <memory>

#include "app/AgentProcess.h"
#include "support/DBusDaemon.h"
#include "support/GnomeShell.h"
#include "support/KWinCompositor.h"
#include "support/StandInWatcher.h"
#include "support/SwayCompositor.h"

namespace corvi {
namespace {

// One desktop as the scenario sees it: the agent's environment, and the compositor its
// windows open on.
struct Desktop {
    QString error;  // empty when the desktop runs
    QProcessEnvironment env;
    const test::WaylandDesktop* compositor = nullptr;
    test::ClientWindow::Kind kind = test::ClientWindow::Foot;
    std::shared_ptr<void> keep;  // the compositor and its buses
    // Whether the agent shows a window with this title; unset where the test cannot see.
    std::function<bool(const QString& title)> agentShows;
    // A session bus where other desktops' services are installed, none running; unset where the
    // desktop's own fixture needs its usual services.
    const test::DBusDaemon* quietBus = nullptr;
};

QProcessEnvironment waylandEnv(const QString& socket, const QString& desktop, const QString& bus) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("DISPLAY");
    env.insert("WAYLAND_DISPLAY", socket);
    env.insert("XDG_SESSION_TYPE", "wayland");
    env.insert("XDG_CURRENT_DESKTOP", desktop);
    env.insert("DBUS_SESSION_BUS_ADDRESS", bus);
    env.insert("QT_QPA_PLATFORM", "wayland");
    return env;
}

Desktop sway() {
    struct Parts {
        test::DBusDaemon bus{test::desktopServiceNames()};
        test::SwayCompositor sway;
    };
    auto parts = std::make_shared<Parts>();
    Desktop d{{},
              waylandEnv(parts->sway.socket(), "sway", parts->bus.address()),
              &parts->sway,
              test::ClientWindow::Foot,
              parts,
              [s = &parts->sway](const QString& title) {
                  return s->waitForWindow("tech.stonefold.corvimetry.agent", title, false);
              },
              &parts->bus};
    if (!parts->bus.ok() || !parts->sway.ok()) d.error = "no headless sway or dbus-daemon";
    d.env.insert("SWAYSOCK", parts->sway.ipcSocket());
    return d;
}

Desktop kwin() {
    struct Parts {
        test::DBusDaemon bus;
        test::KWinCompositor kwin{bus.address()};
    };
    auto parts = std::make_shared<Parts>();
    Desktop d{{},           waylandEnv(parts->kwin.socketPath(), "KDE", parts->bus.address()),
              &parts->kwin, test::ClientWindow::Qt,
              parts,        {}};
    if (!parts->bus.ok() || !parts->kwin.ok())
        d.error = "no kwin_wayland or dbus-daemon: " + parts->kwin.error();
    return d;
}

Desktop gnome() {
    auto shell = std::make_shared<test::GnomeShell>(CORVI_GNOME_EXTENSION_DATA);
    Desktop d{{}, shell->clientEnvironment(), shell.get(), test::ClientWindow::Foot, shell, {}};
    d.env.insert("QT_QPA_PLATFORM", "wayland");
    if (!shell->ok() || !shell->setExtensionEnabled(true))
        d.error = "no headless GNOME Shell with our extension: " + shell->log().right(2000);
    return d;
}

class WaylandSessions : public ::testing::TestWithParam<std::pair<const char*, Desktop (*)()>> {};

TEST_P(WaylandSessions, AgentRecordsAndUploadsTheFocusedApplications) {
    QTemporaryDir dir;
    const QString data = dir.filePath("data/CorviAgent"), db = data + "/corvi.sqlite";
    QProcess server;
    const QString base = serveAndEnroll(server, dir.filePath("server.sqlite"), data);
    ASSERT_FALSE(base.isEmpty()) << "the server did not start or refused the enrollment";
    Desktop desktop = GetParam().second();
    ASSERT_TRUE(desktop.error.isEmpty()) << desktop.error.toStdString();
    for (const QString& set :
         QStringList{"CORVI_LOG_STDERR=1", "LC_ALL=C.UTF-8", "XDG_DATA_HOME=" + dir.filePath("data"),
                     "XDG_CONFIG_HOME=" + dir.filePath("config")})
        desktop.env.insert(set.section('=', 0, 0), set.section('=', 1));
    if (!desktop.env.contains("XDG_RUNTIME_DIR")) {
        QDir().mkdir(dir.filePath("runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        desktop.env.insert("XDG_RUNTIME_DIR", dir.filePath("runtime"));
    }
    const auto sessions = [&](const QString& where) {
        return query(db, "SELECT id, bundle_id, window_title, category FROM sessions WHERE " + where);
    };
    const auto seen = [&](const QString& where) {
        return waitFor([&] { return !sessions(where).isEmpty(); }, 15000);
    };
    std::map<QString, test::ClientWindow> windows;
    const auto open = [&](const QString& appId, const QString& title) {
        return (windows[appId] = desktop.compositor->open(desktop.kind, appId, title)).ok();
    };

    // A spinner and a size suffix in the raw title: the stored one is cleaned.
    ASSERT_TRUE(open("org.inkscape.Inkscape", "◐ Cartaz final.svg — 1920 × 1080"));
    QString lastOfFirstRun;
    {
        Agent agent(desktop.env);
        ASSERT_TRUE(agent.waitForLog("CorviAgent iniciado. DB: " + db)) << agent.log();
        EXPECT_TRUE(
            seen("bundle_id = 'org.inkscape.Inkscape' AND window_title = 'Cartaz final.svg' AND "
                 "category = 'work'"))
            << agent.log();
        ASSERT_TRUE(open("firefox-esr", "Notícias do dia"));
        EXPECT_TRUE(
            seen("bundle_id = 'firefox-esr' AND window_title = 'Notícias do dia' AND category = 'browser'"))
            << agent.log();
        windows["firefox-esr"].setTitle("Previsão do tempo");
        EXPECT_TRUE(seen("bundle_id = 'firefox-esr' AND window_title = 'Previsão do tempo'")) << agent.log();
        EXPECT_FALSE(QString::fromStdString(agent.log()).contains("sem suporte")) << agent.log();
        if (desktop.agentShows) {
            // A panel comes up after the agent, and its icon is clicked. A Wayland client
            // cannot place a menu at the icon, so the click opens the settings, which ask
            // for the passcode first.
            const QString bus = desktop.env.value("DBUS_SESSION_BUS_ADDRESS");
            test::StandInWatcher panel(true, bus);
            ASSERT_TRUE(panel.start());
            ASSERT_TRUE(waitFor([&] { return !panel.items().isEmpty(); }, 10000)) << "no tray item came";
            QDBusMessage click = QDBusMessage::createMethodCall(panel.items().first(), "/StatusNotifierItem",
                                                                "org.kde.StatusNotifierItem", "Activate");
            click << 10 << 10;
            QDBusConnection::connectToBus(bus, "panel").call(click);
            EXPECT_TRUE(desktop.agentShows("Senha do Corvimetry")) << agent.log();
        }
        ::kill(agent.p.processId(), SIGKILL);  // nothing stored may be lost
        ASSERT_TRUE(agent.exited());
        lastOfFirstRun = sessions("1 ORDER BY id DESC LIMIT 1").value(0).value(0);
    }

    // The next start uploads what the first run stored; the server holds the same.
    Agent again(desktop.env);
    EXPECT_TRUE(again.waitForLog(" sessões enviadas")) << again.log();
    const QString mine =
        "SELECT id, bundle_id, window_title, category FROM sessions WHERE id <= " + lastOfFirstRun;
    const QString theirs =
        "SELECT client_id, bundle_id, window_title, category FROM sessions WHERE client_id <= " +
        lastOfFirstRun + " ORDER BY client_id";
    EXPECT_GE(lastOfFirstRun.toInt(), 3);
    EXPECT_EQ(query(db, mine + " ORDER BY id"), query(dir.filePath("server.sqlite"), theirs));
    if (desktop.quietBus) {
        EXPECT_EQ(desktop.quietBus->started(), QStringList())
            << "the agent made the bus start another desktop's service";
    }
    server.kill();
    server.waitForFinished();
}

INSTANTIATE_TEST_SUITE_P(Desktops, WaylandSessions,
                         ::testing::Values(std::make_pair("sway", &sway), std::make_pair("KWin", &kwin),
                                           std::make_pair("GNOME", &gnome)),
                         [](const auto& info) { return std::string(info.param.first); });

}  // namespace
}  // namespace corvi
