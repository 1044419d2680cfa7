// The real agent program on a private desktop (Xvfb, openbox, a tray host, a session bus),
// signed in to the real reference server on loopback, driven as a person would drive it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include "app/AgentProcess.h"
#include "support/DBusDaemon.h"
#include "support/EventLoop.h"
#include "support/HttpTestClient.h"
#include "support/ReferenceServer.h"
#include "support/TestFiles.h"
#include "support/XClient.h"
#include "support/XServer.h"

namespace corvi {
namespace {

using test::settle;
using test::waitFor;

const QString columns = "start_ts, end_ts, window_title, samples";

// Size and modification time, to the nanosecond.
QString fileState(const QString& path) {
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0) return "missing";
    return QString("%1 bytes at %2.%3").arg(st.st_size).arg(st.st_mtim.tv_sec).arg(st.st_mtim.tv_nsec);
}

class AgentEndToEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid() && x.ok() && bus.ok()) << "no temporary folder, Xvfb with openbox or dbus";
        // LC_ALL so that only the configured language can make it Portuguese.
        for (const QString& set : QStringList{
                 "DISPLAY=" + x.display(), "QT_QPA_PLATFORM=xcb", "DBUS_SESSION_BUS_ADDRESS=" + bus.address(),
                 "CORVI_LOG_STDERR=1", "XDG_DATA_HOME=" + dir.filePath("data"), "LC_ALL=C.UTF-8",
                 "XDG_CONFIG_HOME=" + dir.filePath("config"), "XDG_RUNTIME_DIR=" + dir.filePath("runtime")})
            env.insert(set.section('=', 0, 0), set.section('=', 1));
        env.remove("LANGUAGE");
        QDir().mkdir(dir.filePath("runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

        tray.setProcessEnvironment(env);
        tray.start("trayer", {"--edge", "top", "--SetDockType", "true", "--widthtype", "request"});
        base = serveAndEnroll(server, dir.filePath("server.sqlite"), data);
        ASSERT_FALSE(base.isEmpty()) << "the server did not start or refused the enrollment";
    }

    void TearDown() override {
        for (QProcess* p : {&server, &tray}) stop(*p);
        EXPECT_EQ(bus.started(), QStringList()) << "the agent made the bus start another desktop's service";
    }

    QList<QStringList> sessions(const QString& where = "1") {
        return query(db, "SELECT id, " + columns + ", synced FROM sessions WHERE " + where + " ORDER BY id");
    }
    bool waitForSession(const QString& where, int ms = 10000) {
        return waitFor([&] { return !sessions(where).isEmpty(); }, ms);
    }

    QString xdotool(const QStringList& args) {
        QProcess p;
        p.setProcessEnvironment(env);
        p.start("xdotool", args);
        p.waitForFinished(5000);
        return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
    }
    // The passcode dialog on screen (the first if several), or empty.
    QString prompt() {
        return xdotool({"search", "--onlyvisible", "--name", "^Senha do Corvimetry$"}).section('\n', 0, 0);
    }
    // Answers the next passcode dialog (one other than `except`) as a person would; its id.
    QString answerPrompt(const QString& text, const QStringList& keys, const QString& except = {}) {
        QString id;
        EXPECT_TRUE(waitFor([&] { return !(id = prompt()).isEmpty() && id != except; }, 10000))
            << "no passcode prompt";
        EXPECT_TRUE(waitFor([&] { return xdotool({"getactivewindow"}) == id; }, 3000))
            << "the prompt did not come to the front";
        if (!text.isEmpty()) xdotool({"type", "--delay", "30", text});
        xdotool(QStringList{"key"} + keys);
        return id;
    }

    QTemporaryDir dir;
    test::XServer x;
    // Where GNOME, MATE, Cinnamon and Plasma are all installed and none runs.
    test::DBusDaemon bus{test::desktopServiceNames()};
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    QProcess tray, server;
    QString base, data = dir.filePath("data/CorviAgent"), db = data + "/corvi.sqlite";
};

TEST_F(AgentEndToEnd, SamplesUploadsAsksForThePasscodeAndHandsEverythingOver) {
    test::XClient client(x.display());
    ASSERT_TRUE(client.ok());
    const auto poster = client.createWindow();
    client.setText(poster, "_NET_WM_NAME", "UTF8_STRING", "poster.psd");
    client.setText(poster, "_GTK_APPLICATION_ID", "UTF8_STRING", "com.adobe.Photoshop");
    ASSERT_TRUE(client.activate(poster));

    QString lastOfFirstRun;
    {
        Agent agent(env);
        ASSERT_TRUE(agent.waitForLog("CorviAgent iniciado. DB: " + db)) << agent.log();
        ASSERT_TRUE(waitForSession("window_title = 'poster.psd'")) << agent.log();
        EXPECT_TRUE(agent.waitForLog(" sessões enviadas")) << agent.log();
        EXPECT_TRUE(
            waitFor([&] { return test::readFile(data + "/config.json").contains("\"passcode\""); }, 10000))
            << "the passcode was not fetched";
        const auto notes = client.createWindow();
        client.setText(notes, "_NET_WM_NAME", "UTF8_STRING", "notes.txt");
        client.setClass(notes, "notes", "Notes");
        ASSERT_TRUE(client.activate(notes));
        EXPECT_TRUE(waitForSession("window_title = 'notes.txt'"));

        // A wrong passcode, then Cancelar on the second prompt: the agent goes on.
        ::kill(agent.p.processId(), SIGTERM);
        const QString first = answerPrompt("1111", {"Return"});
        answerPrompt("9999", {"Tab", "Tab", "space"}, first);  // from the field past OK to Cancelar
        EXPECT_TRUE(waitFor([&] { return prompt().isEmpty(); }, 3000)) << "a prompt is still shown";
        settle(500);
        ASSERT_EQ(agent.p.state(), QProcess::Running) << "a cancelled quit ended the agent";
        ASSERT_TRUE(client.activate(notes));
        client.setText(notes, "_NET_WM_NAME", "UTF8_STRING", "notes v2.txt");
        EXPECT_TRUE(waitForSession("window_title = 'notes v2.txt' AND samples >= 3", 15000))
            << "the agent stopped sampling";

        // The right passcode: it writes the open session and ends with status 0.
        ::kill(agent.p.processId(), SIGTERM);
        answerPrompt(passcode, {"Return"});
        const double quitAt = QDateTime::currentMSecsSinceEpoch() / 1000.0;
        ASSERT_TRUE(agent.exited());
        EXPECT_EQ(agent.p.exitStatus() == QProcess::NormalExit ? agent.p.exitCode() : -1, 0) << agent.log();
        const auto rows = sessions();
        ASSERT_FALSE(rows.isEmpty());
        const QStringList& last = rows.last();  // id, start, end, title, samples, synced
        const double start = last[1].toDouble(), end = last[2].toDouble();
        // The notes window's session, or the prompt's if a tick fell while it was in front.
        EXPECT_TRUE(last[3] == "notes v2.txt" || last[3] == "Senha do Corvimetry") << last[3].toStdString();
        EXPECT_GT(end, quitAt - 4.5) << "the last session's end was not written";
        EXPECT_NEAR(last[4].toDouble(), (end - start) / 3 + 1, 0.75) << "samples and span disagree";
        lastOfFirstRun = last[0];
    }

    const qsizetype unsynced = sessions("synced = 0").size();
    ASSERT_GT(unsynced, 0);
    Agent again(env);
    // Everything left over, and the new run's first session.
    EXPECT_TRUE(again.waitForLog(QString("CorviAgent sync: %1 sessões enviadas").arg(unsynced + 1)))
        << again.log();

    // A second instance, while the first stands still, leaves at once and touches nothing.
    ::kill(again.p.processId(), SIGSTOP);
    settle(200);
    const auto files = [&] { return fileState(db) + ", " + fileState(db + "-wal"); };
    const QString before = files();
    {
        Agent second(env);
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
        query(dir.filePath("server.sqlite"), "SELECT client_id, " + columns +
                                                 ", 1 FROM sessions WHERE client_id <= " + lastOfFirstRun +
                                                 " ORDER BY client_id");
    ASSERT_EQ(mine.size(), lastOfFirstRun.toLongLong());
    EXPECT_EQ(mine, theirs);
}

// Never enrolled: the form shows by itself; a second start shows the settings again, and the
// command-line sign-in is done by the running agent, which then uploads with its new key.
TEST_F(AgentEndToEnd, SecondStartShowsTheSettingsAndSignsInTheRunningAgent) {
    ASSERT_TRUE(test::writeFile(data + "/config.json", R"({"language": "en", "launch_at_login": false})"));
    test::XClient client(x.display());
    ASSERT_TRUE(client.ok());
    const auto poster = client.createWindow();
    client.setText(poster, "_NET_WM_NAME", "UTF8_STRING", "poster.psd");
    ASSERT_TRUE(client.activate(poster));
    Agent agent(env);
    ASSERT_TRUE(agent.waitForLog("CorviAgent iniciado. DB: " + db)) << agent.log();
    const auto settingsShown = [&] {
        return !xdotool({"search", "--onlyvisible", "--name", "^Corvimetry$"}).isEmpty();
    };
    ASSERT_TRUE(waitFor(settingsShown, 5000)) << "no sign-in form on the first run";
    xdotool({"search", "--onlyvisible", "--name", "^Corvimetry$", "windowactivate", "--sync"});
    xdotool({"key", "alt+F4"});  // closed as a person closes it, through the window manager
    ASSERT_TRUE(waitFor([&] { return !settingsShown(); }, 3000));

    {
        Agent second(env);
        ASSERT_TRUE(second.exited(8000));
        EXPECT_EQ(second.p.exitCode(), 0) << second.log();
    }
    EXPECT_TRUE(waitFor(settingsShown, 5000)) << "the running agent did not show its settings";

    Agent signIn(env, {"--sign-in", base, "ana@studio.example"});
    signIn.p.write("s3cret\n");
    signIn.p.closeWriteChannel();
    ASSERT_TRUE(signIn.exited(20000));
    EXPECT_EQ(signIn.p.exitCode(), 0) << signIn.log();
    EXPECT_EQ(QString::fromUtf8(signIn.p.readAllStandardOutput()).trimmed(), "Enrolled with " + base + ".");
    EXPECT_TRUE(agent.waitForLog(" sessões enviadas")) << agent.log();
    EXPECT_TRUE(waitFor([&] { return !settingsShown(); }, 3000)) << "the sign-in form stayed open";
    EXPECT_TRUE(test::readFile(data + "/config.json").contains("\"api_key\""));
    EXPECT_FALSE(query(dir.filePath("server.sqlite"), "SELECT client_id FROM sessions").isEmpty());
}

}  // namespace
}  // namespace corvi
