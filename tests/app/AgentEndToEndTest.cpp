// The real agent program on a private desktop (Xvfb, openbox, a tray host, a session bus),
// signed in to the real reference server on loopback, driven as a person would drive it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QVariant>

#include "server/AgentTestSupport.h"
#include "server/HttpTestClient.h"
#include "support/DBusDaemon.h"
#include "support/XClient.h"
#include "support/XServer.h"

namespace corvi {
namespace {

using test::httpCall;
using test::settle;
using test::waitFor;

constexpr char passcode[] = "4321";

// Every row `sql` answers, each a list of its columns; empty when the file cannot be read.
QList<QVariantList> query(const QString& path, const QString& sql) {
    QList<QVariantList> rows;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(QFile::encodeName(path).constData(), &db, SQLITE_OPEN_READONLY, nullptr) !=
        SQLITE_OK) {
        sqlite3_close(db);
        return rows;
    }
    sqlite3_busy_timeout(db, 2000);
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db, sql.toUtf8().constData(), -1, &st, nullptr) == SQLITE_OK) {
        while (sqlite3_step(st) == SQLITE_ROW) {
            QVariantList row;
            for (int i = 0; i < sqlite3_column_count(st); ++i) {
                switch (sqlite3_column_type(st, i)) {
                    case SQLITE_INTEGER:
                        row << QVariant::fromValue(sqlite3_column_int64(st, i));
                        break;
                    case SQLITE_FLOAT:
                        row << sqlite3_column_double(st, i);
                        break;
                    case SQLITE_NULL:
                        row << QVariant();
                        break;
                    default:
                        row << QString::fromUtf8(reinterpret_cast<const char*>(sqlite3_column_text(st, i)));
                }
            }
            rows << row;
        }
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
    return rows;
}

// A program the test runs to its end (xdotool); its standard output, trimmed.
QString run(const QString& program, const QStringList& args, const QProcessEnvironment& env) {
    QProcess p;
    p.setProcessEnvironment(env);
    p.start(program, args);
    if (!p.waitForFinished(5000)) {
        p.kill();
        p.waitForFinished(1000);
    }
    return QString::fromUtf8(p.readAllStandardOutput()).trimmed();
}

// One run of the agent, its standard error collected.
class Agent {
  public:
    explicit Agent(const QProcessEnvironment& env) {
        p_.setProcessEnvironment(env);
        p_.setProcessChannelMode(QProcess::SeparateChannels);
        p_.start(QStringLiteral(CORVI_AGENT_BIN), {});
    }
    ~Agent() {
        if (p_.state() == QProcess::NotRunning) return;
        ::kill(pid(), SIGCONT);
        p_.kill();
        p_.waitForFinished(5000);
    }
    const QString& log() {
        log_ += QString::fromUtf8(p_.readAllStandardError());
        return log_;
    }
    bool waitForLog(const QString& text, int ms) {
        return waitFor([&] { return log().contains(text); }, ms);
    }
    bool waitForExit(int ms) {
        return waitFor([&] { return p_.state() == QProcess::NotRunning; }, ms);
    }
    bool running() const { return p_.state() == QProcess::Running; }
    int exitCode() const { return p_.exitStatus() == QProcess::NormalExit ? p_.exitCode() : -1; }
    qint64 pid() const { return p_.processId(); }

  private:
    QProcess p_;
    QString log_;
};

class AgentEndToEnd : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        ASSERT_TRUE(x.ok()) << "no Xvfb with openbox";
        ASSERT_TRUE(bus.ok()) << "no dbus-daemon";
        env = QProcessEnvironment::systemEnvironment();
        env.insert("DISPLAY", x.display());
        env.insert("QT_QPA_PLATFORM", "xcb");
        env.insert("DBUS_SESSION_BUS_ADDRESS", bus.address());
        env.insert("XDG_DATA_HOME", dir.filePath("data"));
        env.insert("XDG_CONFIG_HOME", dir.filePath("config"));
        env.insert("XDG_RUNTIME_DIR", dir.filePath("runtime"));
        env.insert("CORVI_LOG_STDERR", "1");
        env.insert("LC_ALL", "C.UTF-8");  // so that only the configured language can make it Portuguese
        env.remove("LANGUAGE");
        QDir().mkpath(dir.filePath("runtime"));
        QFile::setPermissions(dir.filePath("runtime"),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

        tray.setProcessEnvironment(env);
        tray.start("trayer", {"--edge", "top", "--SetDockType", "true", "--widthtype", "request"});
        ASSERT_TRUE(tray.waitForStarted(5000));

        server.start(CORVI_SERVER_BIN, {"--port", "0", "--db", dir.filePath("server.sqlite"), "--user",
                                        "ana@studio.example:s3cret:Ana Souza", "--passcode", passcode});
        ASSERT_TRUE(waitFor([&] { return server.canReadLine(); }, 10000)) << "the server did not start";
        const QString line = QString::fromUtf8(server.readLine()).trimmed();
        ASSERT_TRUE(line.startsWith("listening on ")) << line.toStdString();
        base = line.mid(13);
    }

    void TearDown() override {
        server.kill();
        server.waitForFinished(5000);
        tray.kill();
        tray.waitForFinished(5000);
    }

    // Signs in and enrolls by HTTP, as the settings would, and writes the agent's config.json.
    void enroll() {
        const auto login = httpCall("POST", base + "/auth/login", {},
                                    R"({"email":"ana@studio.example","password":"s3cret"})");
        ASSERT_EQ(login.status, 200) << login.body.toStdString();
        const auto enrolled = httpCall("POST", base + "/v1/enroll-self",
                                       {{"X-Auth-Token", login.json()["token"].toString().toUtf8()}},
                                       R"({"machine_uid":"E2E-MACHINE","machine_name":"Test desktop"})");
        ASSERT_EQ(enrolled.status, 200) << enrolled.body.toStdString();
        QDir().mkpath(dataDir());
        QFile f(configPath());
        ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        f.write(QJsonDocument(QJsonObject{{"server_url", base},
                                          {"api_key", enrolled.json()["api_key"].toString()},
                                          {"paused", false},
                                          {"language", "pt"},
                                          {"launch_at_login", false}})
                    .toJson());
    }

    QString dataDir() const { return dir.filePath("data/CorviAgent"); }
    QString configPath() const { return dataDir() + "/config.json"; }
    QString dbPath() const { return dataDir() + "/corvi.sqlite"; }
    QJsonObject readConfig() const {
        QFile f(configPath());
        return f.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(f.readAll()).object() : QJsonObject();
    }

    QList<QVariantList> sessions(const QString& where = "1") {
        return query(dbPath(),
                     "SELECT id, start_ts, end_ts, window_title, samples, synced FROM sessions WHERE " +
                         where + " ORDER BY id");
    }
    bool waitForSession(const QString& title, int ms = 10000) {
        return waitFor([&] { return !sessions("window_title = '" + title + "'").isEmpty(); }, ms);
    }

    // The passcode dialog on screen (the first if several), or empty.
    QString visiblePrompt() {
        return run("xdotool", {"search", "--onlyvisible", "--name", "^Senha do Corvimetry$"}, env)
            .section('\n', 0, 0);
    }
    // A passcode dialog other than `except`; empty when none shows within the time.
    QString waitForPrompt(const QString& except = {}) {
        QString id;
        waitFor([&] { return !(id = visiblePrompt()).isEmpty() && id != except; }, 10000);
        return id == except ? QString() : id;
    }
    // Types into the prompt as a person would: it must already have the keyboard.
    void typeInto(const QString& window, const QString& text, const QStringList& keys) {
        EXPECT_TRUE(waitFor([&] { return run("xdotool", {"getactivewindow"}, env) == window; }, 3000))
            << "the prompt did not come to the front";
        if (!text.isEmpty()) run("xdotool", {"type", "--delay", "30", text}, env);
        run("xdotool", QStringList{"key"} + keys, env);
    }

    QTemporaryDir dir;
    test::XServer x;
    test::DBusDaemon bus;
    QProcessEnvironment env;
    QProcess tray;
    QProcess server;
    QString base;
};

struct FileState {
    qint64 size = -1;
    qint64 mtimeNs = -1;
    bool operator==(const FileState&) const = default;
};
FileState fileState(const QString& path) {
    struct stat st {};
    if (::stat(QFile::encodeName(path).constData(), &st) != 0) return {};
    return {st.st_size, st.st_mtim.tv_sec * 1'000'000'000LL + st.st_mtim.tv_nsec};
}

TEST_F(AgentEndToEnd, SamplesUploadsAsksForThePasscodeAndHandsEverythingOver) {
    ASSERT_NO_FATAL_FAILURE(enroll());
    test::XClient client(x.display());
    ASSERT_TRUE(client.ok());
    const auto poster = client.createWindow();
    client.setText(poster, "_NET_WM_NAME", "UTF8_STRING", "poster.psd");
    client.setText(poster, "_GTK_APPLICATION_ID", "UTF8_STRING", "com.adobe.Photoshop");
    ASSERT_TRUE(client.activate(poster));

    qint64 lastIdOfFirstRun = 0;
    {
        Agent agent(env);
        ASSERT_TRUE(agent.waitForLog("CorviAgent iniciado. DB: " + dbPath(), 10000))
            << agent.log().toStdString();
        ASSERT_TRUE(waitForSession("poster.psd")) << agent.log().toStdString();
        EXPECT_TRUE(agent.waitForLog(" sessões enviadas", 10000)) << agent.log().toStdString();
        EXPECT_TRUE(waitFor([&] { return readConfig().contains("passcode"); }, 10000))
            << "the passcode was not fetched";

        client.setText(poster, "_NET_WM_NAME", "UTF8_STRING", "poster final.psd");
        EXPECT_TRUE(waitForSession("poster final.psd"));
        const auto notes = client.createWindow();
        client.setText(notes, "_NET_WM_NAME", "UTF8_STRING", "notes.txt");
        client.setClass(notes, "notes", "Notes");
        ASSERT_TRUE(client.activate(notes));
        EXPECT_TRUE(waitForSession("notes.txt"));

        // A wrong passcode, then Cancel on the second prompt: the agent goes on.
        ::kill(agent.pid(), SIGTERM);
        const QString first = waitForPrompt();
        ASSERT_FALSE(first.isEmpty()) << "no passcode prompt after SIGTERM";
        typeInto(first, "1111", {"Return"});
        const QString second = waitForPrompt(first);
        ASSERT_FALSE(second.isEmpty()) << "no second prompt after a wrong passcode";
        typeInto(second, "9999", {"Tab", "Tab", "space"});  // from the field past OK to Cancelar
        EXPECT_TRUE(waitFor([&] { return visiblePrompt().isEmpty(); }, 3000)) << "a prompt is still shown";
        settle(500);
        ASSERT_TRUE(agent.running()) << "a cancelled quit ended the agent";
        ASSERT_TRUE(client.activate(notes));
        client.setText(notes, "_NET_WM_NAME", "UTF8_STRING", "notes v2.txt");
        EXPECT_TRUE(waitFor(
            [&] { return !sessions("window_title = 'notes v2.txt' AND samples >= 3").isEmpty(); }, 15000))
            << "the agent stopped sampling";

        // The right passcode: it writes the open session and ends with status 0.
        ::kill(agent.pid(), SIGTERM);
        const QString prompt = waitForPrompt();
        ASSERT_FALSE(prompt.isEmpty());
        typeInto(prompt, passcode, {"Return"});
        const double quitAt = QDateTime::currentMSecsSinceEpoch() / 1000.0;
        ASSERT_TRUE(agent.waitForExit(10000));
        EXPECT_EQ(agent.exitCode(), 0) << agent.log().toStdString();
        const auto rows = sessions();
        ASSERT_FALSE(rows.isEmpty());
        const auto& last = rows.last();
        const double start = last[1].toDouble(), end = last[2].toDouble();
        // The notes window's session, or the prompt's if a tick fell while it was in front.
        EXPECT_TRUE(last[3].toString() == "notes v2.txt" || last[3].toString() == "Senha do Corvimetry")
            << last[3].toString().toStdString();
        EXPECT_GT(end, quitAt - 4.5) << "the last session's end was not written";
        EXPECT_NEAR(double(last[4].toLongLong()), (end - start) / 3 + 1, 0.75) << "samples and span disagree";
        lastIdOfFirstRun = last[0].toLongLong();
    }

    const qint64 unsynced = sessions("synced = 0").size();
    ASSERT_GT(unsynced, 0);
    Agent again(env);
    ASSERT_TRUE(again.waitForLog("CorviAgent iniciado.", 10000)) << again.log().toStdString();
    // Everything left over, and the new run's first session.
    EXPECT_TRUE(again.waitForLog(QString("CorviAgent sync: %1 sessões enviadas").arg(unsynced + 1), 10000))
        << again.log().toStdString();

    // A second instance, while the first stands still, leaves at once and touches nothing.
    ::kill(again.pid(), SIGSTOP);
    settle(200);
    const FileState db = fileState(dbPath()), wal = fileState(dbPath() + "-wal");
    {
        Agent second(env);
        ASSERT_TRUE(second.waitForExit(5000));
        EXPECT_EQ(second.exitCode(), 1);
        EXPECT_TRUE(second.log().contains(QString("already running for this user (pid %1)").arg(again.pid())))
            << second.log().toStdString();
    }
    EXPECT_TRUE(fileState(dbPath()) == db) << "a second instance touched the database";
    EXPECT_TRUE(fileState(dbPath() + "-wal") == wal) << "a second instance wrote to the journal";
    ::kill(again.pid(), SIGCONT);

    // The server holds exactly what the agent stored for the first run.
    const auto mine =
        query(dbPath(), QString("SELECT id, start_ts, end_ts, window_title, samples, synced FROM sessions "
                                "WHERE id <= %1 ORDER BY id")
                            .arg(lastIdOfFirstRun));
    const auto theirs =
        query(dir.filePath("server.sqlite"),
              QString("SELECT client_id, start_ts, end_ts, window_title, samples, 1 FROM sessions "
                      "WHERE client_id <= %1 ORDER BY client_id")
                  .arg(lastIdOfFirstRun));
    ASSERT_EQ(mine.size(), lastIdOfFirstRun);
    EXPECT_EQ(mine, theirs);
}

}  // namespace
}  // namespace corvi
