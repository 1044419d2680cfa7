// The real agent program on each desktop it runs on (X11 with openbox and a tray, a headless
// sway, KWin and GNOME Shell), with real client windows, signed in to the real reference server
// on loopback and driven as a person would drive it. Each desktop's session bus has the other
// desktops' services installed and none running: the agent must make it start none of them.
// And what the program says before it needs a desktop.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <functional>
#include <map>
#include <memory>

#include "BuildConfig.h"
#include "support/DBusDaemon.h"
#include "support/Desktop.h"
#include "support/EventLoop.h"
#include "support/GnomeShell.h"
#include "support/KWinCompositor.h"
#include "support/ServerProcess.h"
#include "support/SqliteQuery.h"
#include "support/StandInWatcher.h"
#include "support/SwayCompositor.h"
#include "support/TestFiles.h"
#include "support/XClient.h"

namespace corvi {
namespace {

using test::query;
using test::settle;
using test::waitFor;

// One run of the agent, its standard error collected.
struct Agent {
    explicit Agent(const QProcessEnvironment& env, const QStringList& args = {}) {
        p.setProcessEnvironment(env);
        p.start(CORVI_AGENT_BIN, args);
    }
    ~Agent() {
        p.kill();
        p.waitForFinished();
    }
    QString said() { return text += QString::fromUtf8(p.readAllStandardError()); }
    std::string log() { return said().toStdString(); }
    bool waitForLog(const QString& line) {
        return waitFor([&] { return said().contains(line); }, 10000);
    }
    bool exited(int ms = 10000) {
        return waitFor([&] { return p.state() == QProcess::NotRunning; }, ms);
    }
    QProcess p;
    QString text;
};

constexpr char passcode[] = "4321";
const QString columns = "start_ts, end_ts, bundle_id, window_title, category, samples";

// Size and modification time, to the nanosecond.
QString fileState(const QString& path) {
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0) return "missing";
    return QString("%1 bytes at %2.%3").arg(st.st_size).arg(st.st_mtim.tv_sec).arg(st.st_mtim.tv_nsec);
}

// One desktop as the scenario sees it.
struct Session {
    Session() = default;
    Session(std::shared_ptr<void> keep, const QProcessEnvironment& env, const test::DBusDaemon* bus)
        : keep(std::move(keep)), env(env), bus(bus) {}

    std::shared_ptr<void> keep;  // the desktop, its buses and windows; goes last
    QProcessEnvironment env;
    const test::DBusDaemon* bus = nullptr;
    QString error;  // empty when the desktop runs
    // Opens a window of an application ID with a title; retitle renames the application's
    // window. Either brings it to the front.
    std::function<bool(const QString&, const QString&)> open, retitle;
    const test::Desktop* x11 = nullptr;  // on X11, where xdotool reaches the agent's windows
    // Whether the agent shows a window with this title; unset where the test cannot see.
    std::function<bool(const QString& title)> agentShows;
};

Session x11() {
    struct Parts {
        test::Desktop desktop{test::desktopServiceNames()};
        test::XClient client{desktop.display()};
        std::map<QString, test::XClient::Window> windows;
    };
    auto p = std::make_shared<Parts>();
    Session s{p, p->desktop.environment(), &p->desktop.bus()};
    if (!p->desktop.ok() || !p->client.ok()) s.error = "no Xvfb with openbox, or no dbus-daemon";
    p->desktop.startTray();
    s.retitle = [p](const QString& appId, const QString& title) {
        p->client.setText(p->windows[appId], "_NET_WM_NAME", "UTF8_STRING", title.toUtf8());
        return p->client.activate(p->windows[appId]);
    };
    s.open = [p, retitle = s.retitle](const QString& appId, const QString& title) {
        p->client.setText(p->windows[appId] = p->client.createWindow(), "_GTK_APPLICATION_ID", "UTF8_STRING",
                          appId.toUtf8());
        return retitle(appId, title);
    };
    s.x11 = &p->desktop;
    return s;
}

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

// Windows of `kind` as clients of `compositor`, kept in `windows`.
void openOn(Session& s, const test::WaylandDesktop& compositor, test::ClientWindow::Kind kind,
            std::map<QString, test::ClientWindow>& windows) {
    s.open = [&compositor, &windows, kind](const QString& appId, const QString& title) {
        return (windows[appId] = compositor.open(kind, appId, title)).ok();
    };
    s.retitle = [&windows](const QString& appId, const QString& title) {
        return windows[appId].setTitle(title);
    };
}

Session sway() {
    struct Parts {
        test::DBusDaemon bus{test::desktopServiceNames()};
        test::SwayCompositor sway;
        std::map<QString, test::ClientWindow> windows;
    };
    auto p = std::make_shared<Parts>();
    Session s{p, waylandEnv(p->sway.socket(), "sway", p->bus.address()), &p->bus};
    if (!p->bus.ok() || !p->sway.ok()) s.error = "no headless sway or dbus-daemon";
    s.env.insert("SWAYSOCK", p->sway.ipcSocket());
    openOn(s, p->sway, test::ClientWindow::Foot, p->windows);
    s.agentShows = [p](const QString& title) {
        return p->sway.waitForWindow("tech.stonefold.corvimetry.agent", title, false);
    };
    return s;
}

Session kwin() {
    struct Parts {
        // All but the names KWin itself asks for while it comes up: its own, which the fixture
        // waits for, and from KWin 6 on the freedesktop screen saver (in a Plasma session its
        // own locker; the agent's lock search is watched on the other desktops).
        test::DBusDaemon bus{[] {
            QStringList names = test::desktopServiceNames();
            names.removeAll("org.kde.KWin");
            names.removeAll("org.freedesktop.ScreenSaver");
            return names;
        }()};
        test::KWinCompositor kwin{bus.address()};
        std::map<QString, test::ClientWindow> windows;
    };
    auto p = std::make_shared<Parts>();
    Session s{p, waylandEnv(p->kwin.socketPath(), "KDE", p->bus.address()), &p->bus};
    if (!p->bus.ok() || !p->kwin.ok()) s.error = "no kwin_wayland or dbus-daemon: " + p->kwin.error();
    openOn(s, p->kwin, test::ClientWindow::Qt, p->windows);
    return s;
}

Session gnome() {
    struct Parts {
        test::GnomeShell shell{CORVI_GNOME_EXTENSION_DATA, {}, test::desktopServiceNames()};
        std::map<QString, test::ClientWindow> windows;
    };
    auto p = std::make_shared<Parts>();
    Session s{p, p->shell.clientEnvironment(), &p->shell.sessionBus()};
    s.env.insert("QT_QPA_PLATFORM", "wayland");
    if (!p->shell.ok() || !p->shell.setExtensionEnabled(true))
        s.error = "no headless GNOME Shell with our extension: " + p->shell.log().right(2000);
    openOn(s, p->shell, test::ClientWindow::Foot, p->windows);
    return s;
}

class AgentOnDesktops : public ::testing::TestWithParam<std::pair<const char*, Session (*)()>> {
  protected:
    // The desktop, and the agent's environment there: never enrolled, in Portuguese.
    void SetUp() override {
        ASSERT_TRUE(server.ok()) << "the reference server did not start";
        session = GetParam().second();
        ASSERT_TRUE(session.error.isEmpty()) << session.error.toStdString();
        ASSERT_TRUE(
            test::writeFile(data + "/config.json", R"({"language": "pt", "launch_at_login": false})"));
        // LC_ALL so that only the configured language can make it Portuguese.
        for (const QString& set :
             QStringList{"CORVI_LOG_STDERR=1", "LC_ALL=C.UTF-8", "XDG_DATA_HOME=" + dir.filePath("data"),
                         "XDG_CONFIG_HOME=" + dir.filePath("config")})
            session.env.insert(set.section('=', 0, 0), set.section('=', 1));
        session.env.remove("LANGUAGE");
        if (!session.env.contains("XDG_RUNTIME_DIR")) {
            QDir().mkdir(dir.filePath("runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
            session.env.insert("XDG_RUNTIME_DIR", dir.filePath("runtime"));
        }
    }

    // The lock search asks again only when a locker's name gets an owner, never on a timer, so
    // the agent's first ticks have asked all it will.
    void TearDown() override {
        if (session.bus) {
            EXPECT_EQ(session.bus->started(), QStringList())
                << "the agent made the bus start another desktop's service";
        }
    }

    QList<QStringList> sessions(const QString& where) {
        return query(db, "SELECT id, " + columns + " FROM sessions WHERE " + where + " ORDER BY id");
    }
    bool seen(const QString& where) {
        return waitFor([&] { return !sessions(where).isEmpty(); }, 15000);
    }

    // X11: the sign-in form shows by itself; closed, a second start shows it again through the
    // running agent.
    void secondStartShowsTheSettings() {
        const test::Desktop& x = *session.x11;
        ASSERT_TRUE(waitFor([&] { return !x.shownWindow("Corvimetry").isEmpty(); }, 5000))
            << "no sign-in form on the first run";
        // Closed as a person closes it, through the window manager; again if the key came
        // before the focus, as on a loaded machine.
        ASSERT_TRUE(waitFor(
            [&] {
                const QString form = x.shownWindow("Corvimetry");
                if (form.isEmpty()) return true;
                x.xdotool({"windowactivate", "--sync", form});
                x.xdotool({"key", "alt+F4"});
                return waitFor([&] { return x.shownWindow("Corvimetry").isEmpty(); }, 1500);
            },
            10000));
        Agent second(session.env);
        ASSERT_TRUE(second.exited(8000));
        EXPECT_EQ(second.p.exitCode(), 0) << second.log();
        EXPECT_TRUE(waitFor([&] { return !x.shownWindow("Corvimetry").isEmpty(); }, 5000))
            << "the running agent did not show its settings";
    }

    QTemporaryDir dir;
    test::ServerProcess server{dir.path(), {"--passcode", passcode}};
    Session session;
    QString data = dir.filePath("data/CorviAgent"), db = data + "/corvi.sqlite";

    // A panel comes up after the agent, and its icon is clicked. A Wayland client cannot place a
    // menu at the icon, so the click opens the settings, which ask for the passcode first.
    void clickTheTrayIcon(Agent& agent) {
        const QString bus = session.env.value("DBUS_SESSION_BUS_ADDRESS");
        test::StandInWatcher panel(true, bus);
        ASSERT_TRUE(panel.start());
        ASSERT_TRUE(waitFor([&] { return !panel.items().isEmpty(); }, 10000)) << "no tray item came";
        QDBusMessage click = QDBusMessage::createMethodCall(panel.items().first(), "/StatusNotifierItem",
                                                            "org.kde.StatusNotifierItem", "Activate");
        click << 10 << 10;
        QDBusConnection::connectToBus(bus, "panel").call(click);
        EXPECT_TRUE(session.agentShows("Senha do Corvimetry")) << agent.log();
    }

    // A wrong passcode, then Cancelar on the second prompt: the agent goes on. The right one ends
    // it with status 0, the open session written.
    void quitWithThePasscode(Agent& agent) {
        const test::Desktop& x = *session.x11;
        const QString title = "Senha do Corvimetry";
        ::kill(agent.p.processId(), SIGTERM);
        const QString first = x.answer(title, "1111", {"Return"});
        ASSERT_FALSE(first.isEmpty()) << "no passcode prompt in front";
        // From the field past OK to Cancelar.
        ASSERT_FALSE(x.answer(title, "9999", {"Tab", "Tab", "space"}, first).isEmpty()) << "no second prompt";
        EXPECT_TRUE(waitFor([&] { return x.shownWindow(title).isEmpty(); }, 3000))
            << "a prompt is still shown";
        settle(500);
        ASSERT_EQ(agent.p.state(), QProcess::Running) << "a cancelled quit ended the agent";
        ASSERT_TRUE(session.retitle("firefox-esr", "Previsão de amanhã"));
        EXPECT_TRUE(seen("window_title = 'Previsão de amanhã' AND samples >= 3"))
            << "the agent stopped sampling";

        ::kill(agent.p.processId(), SIGTERM);
        ASSERT_FALSE(x.answer(title, passcode, {"Return"}).isEmpty()) << "no passcode prompt in front";
        const double quitAt = QDateTime::currentMSecsSinceEpoch() / 1000.0;
        ASSERT_TRUE(agent.exited());
        EXPECT_EQ(agent.p.exitStatus() == QProcess::NormalExit ? agent.p.exitCode() : -1, 0) << agent.log();
        const auto rows = sessions("1");
        ASSERT_FALSE(rows.isEmpty());
        const QStringList& last = rows.last();  // id, start, end, bundle, title, category, samples
        const double start = last[1].toDouble(), end = last[2].toDouble();
        // The renamed window's session, or the prompt's if a tick fell while it was in front.
        EXPECT_TRUE(last[4] == "Previsão de amanhã" || last[4] == title) << last[4].toStdString();
        EXPECT_GT(end, quitAt - 4.5) << "the last session's end was not written";
        EXPECT_NEAR(last[6].toDouble(), (end - start) / 3 + 1, 0.75) << "samples and span disagree";
    }
};

TEST_P(AgentOnDesktops, SignsInRecordsUploadsAndHandsEverythingOver) {
    // A spinner and a size suffix in the raw title: the stored one is cleaned.
    ASSERT_TRUE(session.open("org.inkscape.Inkscape", "◐ Cartaz final.svg — 1920 × 1080"));
    QString lastOfFirstRun;
    {
        Agent agent(session.env);
        // The whole line, as the system log copies it to standard error.
        const QString started =
            QString("CorviAgent[%1]: CorviAgent iniciado. DB: %2").arg(agent.p.processId()).arg(db);
        ASSERT_TRUE(waitFor([&] { return agent.said().split(u'\n').contains(started); }, 10000))
            << agent.log();
        if (session.x11) {
            ASSERT_NO_FATAL_FAILURE(secondStartShowsTheSettings());
        }

        // The command-line sign-in is done by the running agent, which then uploads with its key.
        Agent signIn(session.env, {"--sign-in", server.base(), "ana@studio.example"});
        signIn.p.write("s3cret\n");
        signIn.p.closeWriteChannel();
        ASSERT_TRUE(signIn.exited(20000));
        EXPECT_EQ(signIn.p.exitCode(), 0) << signIn.log();
        EXPECT_EQ(QString::fromUtf8(signIn.p.readAllStandardOutput()).trimmed(),
                  "Enrolled with " + server.base() + ".");
        EXPECT_TRUE(agent.waitForLog(" sessões enviadas")) << agent.log();
        if (session.x11) {
            EXPECT_TRUE(waitFor([&] { return session.x11->shownWindow("Corvimetry").isEmpty(); }, 3000))
                << "the sign-in form stayed open";
        }
        // The form had the focus on some desktops: it goes back to the window once it closes.
        EXPECT_TRUE(
            seen("bundle_id = 'org.inkscape.Inkscape' AND window_title = 'Cartaz final.svg' AND "
                 "category = 'work'"))
            << agent.log();
        EXPECT_TRUE(
            waitFor([&] { return test::readFile(data + "/config.json").contains("\"passcode\""); }, 10000))
            << "the passcode was not fetched";
        ASSERT_TRUE(session.open("firefox-esr", "Notícias do dia"));
        EXPECT_TRUE(
            seen("bundle_id = 'firefox-esr' AND window_title = 'Notícias do dia' AND category = 'browser'"))
            << agent.log();
        ASSERT_TRUE(session.retitle("firefox-esr", "Previsão do tempo"));
        EXPECT_TRUE(seen("bundle_id = 'firefox-esr' AND window_title = 'Previsão do tempo'")) << agent.log();
        EXPECT_FALSE(agent.said().contains("sem suporte")) << agent.log();
        if (session.agentShows) {
            ASSERT_NO_FATAL_FAILURE(clickTheTrayIcon(agent));
        }
        if (session.x11) {
            ASSERT_NO_FATAL_FAILURE(quitWithThePasscode(agent));
        } else {
            ::kill(agent.p.processId(), SIGKILL);  // nothing stored may be lost
            ASSERT_TRUE(agent.exited());
        }
        const auto rows = sessions("1");
        ASSERT_FALSE(rows.isEmpty());
        lastOfFirstRun = rows.last()[0];
    }

    // The next start uploads everything left over, and its own first session.
    const qsizetype unsynced = sessions("synced = 0").size();
    ASSERT_GT(unsynced, 0);
    Agent again(session.env);
    EXPECT_TRUE(again.waitForLog(QString("CorviAgent sync: %1 sessões enviadas").arg(unsynced + 1)))
        << again.log();

    // A second instance, while the first stands still, leaves at once and touches nothing.
    ::kill(again.p.processId(), SIGSTOP);
    settle(200);
    const auto files = [&] { return fileState(db) + ", " + fileState(db + "-wal"); };
    const QString before = files();
    {
        Agent second(session.env);
        ASSERT_TRUE(second.exited(5000));
        EXPECT_EQ(second.p.exitCode(), 1);
        EXPECT_TRUE(
            second.waitForLog(QString("already running for this user (pid %1)").arg(again.p.processId())))
            << second.log();
    }
    EXPECT_EQ(files(), before) << "a second instance touched the database";
    ::kill(again.p.processId(), SIGCONT);

    // The server holds exactly what the agent stored for the first run.
    const auto mine = sessions("id <= " + lastOfFirstRun);
    const auto theirs =
        query(server.db(), "SELECT client_id, " + columns +
                               " FROM sessions WHERE client_id <= " + lastOfFirstRun + " ORDER BY client_id");
    ASSERT_EQ(mine.size(), lastOfFirstRun.toLongLong());
    EXPECT_GE(mine.size(), 3);
    EXPECT_EQ(mine, theirs);
}

INSTANTIATE_TEST_SUITE_P(Desktops, AgentOnDesktops,
                         ::testing::Values(std::make_pair("X11", &x11), std::make_pair("sway", &sway),
                                           std::make_pair("KWin", &kwin), std::make_pair("GNOME", &gnome)),
                         [](const auto& info) { return std::string(info.param.first); });

TEST(CommandLine, AnswersWithoutADisplayAndSaysWhenItNeedsOne) {
    struct Case {
        const char* name;
        QStringList args;
        int status;
        QByteArray says;            // on standard output for status 0, else on standard error
        const char* dataHome = "";  // under the test's folder; its CorviAgent folder refuses writes
        QByteArray alsoSays = {};
    };
    QTemporaryDir dir;
    const QString locked = dir.filePath("locked");
    const Case cases[] = {
        {"version", {"--version"}, 0, QByteArray("CorviAgent ") + build::version},
        {"help", {"--help"}, 0, "Usage: corviagent"},
        {"unknown option", {"--frobnicate"}, 2, "unknown option --frobnicate"},
        {"no display", {}, 1, "no display: neither WAYLAND_DISPLAY nor DISPLAY"},
        // Refused before the event loop runs: it must still end.
        {"sign-in to an address that does not parse",
         {"--sign-in", "not a server", "ana@studio.example"},
         1,
         "Invalid address."},
        // A lock file that cannot be made is no sign of another agent: it goes on.
        {"data folder that refuses writes",
         {},
         1,
         "no display",
         "locked",
         "não é possível usar a trava " + QFile::encodeName(locked) +
             "/CorviAgent/corviagent.lock: Operation not permitted"},
    };
    ASSERT_TRUE(QDir().mkpath(locked + "/CorviAgent"));
    const test::ReadOnly readOnly(locked + "/CorviAgent");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        if (*c.dataHome && !readOnly.immutable()) {
            std::printf("[  SKIPPED ] %s: cannot be arranged here\n", c.name);
            continue;
        }
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.remove("DISPLAY");
        env.remove("WAYLAND_DISPLAY");
        env.insert("XDG_DATA_HOME", *c.dataHome ? dir.filePath(c.dataHome) : dir.path());
        env.insert("LC_ALL", "C.UTF-8");
        env.insert("CORVI_LOG_STDERR", "1");  // the system log copied there: still each line once
        env.remove("LANGUAGE");
        Agent agent(env, c.args);
        agent.p.write("password\n");
        agent.p.closeWriteChannel();
        ASSERT_TRUE(agent.exited());
        EXPECT_EQ(agent.p.exitCode(), c.status);
        const QByteArray said =
            c.status == 0 ? agent.p.readAllStandardOutput() : agent.p.readAllStandardError();
        EXPECT_TRUE(said.contains(c.says) && said.contains(c.alsoSays)) << said.constData();
        if (!c.alsoSays.isEmpty()) {
            EXPECT_EQ(said.count(c.alsoSays), 1) << said.constData();
        }
    }
}

}  // namespace
}  // namespace corvi
