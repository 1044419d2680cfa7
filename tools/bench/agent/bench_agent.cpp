// The whole agent's footprint on a private desktop (Xvfb + openbox, a session bus):
//  - resident memory of the real program after start, and of an in-process delegate after
//    start and after one hour of ticks (real probes, real store file; only the clock is
//    stepped, 3 s per tick, with a 1 ms timer);
//  - CPU time of the real program over a stretch of real 3-second ticking, signed in to the
//    reference server on loopback (so the minute's upload is counted too);
//  - start-up time of the real program to its first stored sample;
//  - the real program's resident, proportional and private memory beside those of a bare Qt
//    tray program (bare_tray) running on the same desktop at the same time.
// Usage: bench_agent [--cpu-seconds N]   (default 600)
#include <signal.h>
#include <sqlite3.h>
#include <unistd.h>

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "BenchUtil.h"
#include "shell/AppDelegate.h"
#include "support/DBusDaemon.h"
#include "support/EventLoop.h"
#include "support/HttpTestClient.h"
#include "support/XClient.h"
#include "support/XServer.h"

using namespace corvi;

namespace {

// Every call is the next tick's time, 3 s after the previous one.
struct SteppingClock final : Clock {
    double now() const override {
        ++calls;
        return start + 3.0 * double(calls);
    }
    double start = 1'800'000'000;
    mutable long calls = 0;
};

double residentMB(qint64 pid) {
    QFile f(QStringLiteral("/proc/%1/status").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return -1;
    for (const QByteArray& line : f.readAll().split('\n'))
        if (line.startsWith("VmRSS:")) return line.mid(6).trimmed().split(' ').first().toDouble() / 1024.0;
    return -1;
}

// A process's memory from /proc/<pid>/smaps_rollup, in MB: resident, proportional (shared
// pages split among their users) and private (its own pages, clean or dirty).
struct Memory {
    double rss = -1, pss = -1, privateMB = -1;
};

Memory memoryOf(qint64 pid) {
    QFile f(QStringLiteral("/proc/%1/smaps_rollup").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return {};
    Memory m{0, 0, 0};
    for (const QByteArray& line : f.readAll().split('\n')) {
        const QList<QByteArray> parts = line.simplified().split(' ');
        if (parts.size() < 2) continue;
        const double mb = parts[1].toDouble() / 1024.0;
        if (parts[0] == "Rss:") m.rss = mb;
        if (parts[0] == "Pss:") m.pss = mb;
        if (parts[0] == "Private_Clean:" || parts[0] == "Private_Dirty:") m.privateMB += mb;
    }
    return m;
}

// The agent's memory against the bare tray's, both measured now.
void memoryBesideBareTray(qint64 agent, qint64 bare) {
    const Memory a = memoryOf(agent), b = memoryOf(bare);
    bench::report("bare tray, resident", b.rss, "MB");
    bench::report("bare tray, proportional (PSS)", b.pss, "MB");
    bench::report("bare tray, private", b.privateMB, "MB");
    bench::report("agent program, resident", a.rss, "MB");
    bench::report("agent program, proportional (PSS)", a.pss, "MB");
    bench::report("agent program, private", a.privateMB, "MB");
    bench::report("agent / bare tray, resident", a.rss / b.rss, "x", "<= 1.2 x");
    bench::report("agent / bare tray, proportional (PSS)", a.pss / b.pss, "x");
    bench::report("agent / bare tray, private", a.privateMB / b.privateMB, "x");
    bench::report("agent private above the bare tray", a.privateMB - b.privateMB, "MB", "<= 2 MB");
}

// User + system CPU seconds of a process so far.
double cpuSeconds(qint64 pid) {
    QFile f(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!f.open(QIODevice::ReadOnly)) return -1;
    const QByteArray text = f.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    if (fields.size() < 13) return -1;
    return (fields[11].toDouble() + fields[12].toDouble()) / double(sysconf(_SC_CLK_TCK));
}

qint64 rowCount(const QString& path) {
    sqlite3* db = nullptr;
    qint64 n = -1;
    if (sqlite3_open_v2(QFile::encodeName(path).constData(), &db, SQLITE_OPEN_READONLY, nullptr) ==
        SQLITE_OK) {
        sqlite3_stmt* st = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT count(*) FROM sessions", -1, &st, nullptr) == SQLITE_OK &&
            sqlite3_step(st) == SQLITE_ROW)
            n = sqlite3_column_int64(st, 0);
        sqlite3_finalize(st);
    }
    sqlite3_close(db);
    return n;
}

QProcessEnvironment agentEnvironment(const QString& home) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_DATA_HOME", home + "/data");
    env.insert("XDG_CONFIG_HOME", home + "/config");
    env.insert("CORVI_LOG_STDERR", "1");
    return env;
}

// The in-process delegate: memory after start and after 1 200 stepped ticks.
void simulatedHour(const QString& home) {
    qputenv("XDG_DATA_HOME", (home + "/data").toLocal8Bit());
    qputenv("XDG_CONFIG_HOME", (home + "/config").toLocal8Bit());
    AgentServices services = AgentServices::system();
    auto* clock = new SteppingClock;
    services.clock.reset(clock);
    AppDelegate delegate(std::move(services), AgentTiming{0.001, 3600});
    delegate.applicationDidFinishLaunching();
    test::settle(300);
    bench::report("in-process delegate, resident after start", residentMB(getpid()), "MB", "< 30 MB");
    QElapsedTimer wall;
    wall.start();
    const double cpuBefore = cpuSeconds(getpid());
    const long ticksBefore = clock->calls;
    {
        // A plain event loop, as in the agent: a polling wait would add its own CPU time.
        QEventLoop loop;
        QTimer check;
        QObject::connect(&check, &QTimer::timeout, &loop, [&] {
            if (clock->calls >= 1200 || wall.elapsed() > 120000) loop.quit();
        });
        check.start(50);
        loop.exec();
    }
    if (clock->calls < 1200) std::fprintf(stderr, "only %ld ticks in two minutes\n", clock->calls);
    const double perTick = (cpuSeconds(getpid()) - cpuBefore) / double(clock->calls - ticksBefore);
    bench::report("in-process delegate, wall time of 1 200 ticks", wall.elapsed() / 1000.0, "s");
    bench::report("in-process delegate, CPU per tick", perTick * 1000.0, "ms", "< 1.5 ms");
    bench::report("in-process delegate, resident after 1 h of ticks", residentMB(getpid()), "MB", "< 30 MB");
}

// The agent's config.json, signed in to the reference server.
bool signIn(const QString& server, const QString& home) {
    const auto login = test::httpCall("POST", server + "/auth/login", {},
                                      R"({"email":"bench@example.com","password":"bench"})");
    const auto enrolled = test::httpCall("POST", server + "/v1/enroll-self",
                                         {{"X-Auth-Token", login.json()["token"].toString().toUtf8()}},
                                         R"({"machine_uid":"BENCH","machine_name":"Bench"})");
    if (enrolled.status != 200) return false;
    QDir().mkpath(home + "/data/CorviAgent");
    QFile f(home + "/data/CorviAgent/config.json");
    if (!f.open(QIODevice::WriteOnly)) return false;
    f.write(QJsonDocument(QJsonObject{{"server_url", server},
                                      {"api_key", enrolled.json()["api_key"].toString()},
                                      {"language", "en"},
                                      {"launch_at_login", false}})
                .toJson());
    return true;
}

void stop(QProcess& p) {
    p.kill();  // a polite SIGTERM would ask for authorization
    p.waitForFinished(5000);
}

// Process start to the first session row, the median of a few starts.
void startUp(const QString& home) {
    const QString db = home + "/data/CorviAgent/corvi.sqlite";
    std::vector<double> toLine, toRow;
    for (int i = 0; i < 5; ++i) {
        const qint64 before = std::max<qint64>(rowCount(db), 0);
        QProcess agent;
        agent.setProcessEnvironment(agentEnvironment(home));
        QString log;
        QElapsedTimer t;
        t.start();
        agent.start(QStringLiteral(CORVI_AGENT_BIN), {});
        double line = -1, row = -1;
        test::waitFor(
            [&] {
                log += QString::fromUtf8(agent.readAllStandardError());
                if (line < 0 && log.contains("CorviAgent iniciado.")) line = t.nsecsElapsed() / 1e6;
                if (row < 0 && rowCount(db) > before) row = t.nsecsElapsed() / 1e6;
                return line >= 0 && row >= 0;
            },
            10000);
        toLine.push_back(line);
        toRow.push_back(row);
        stop(agent);
    }
    std::sort(toLine.begin(), toLine.end());
    std::sort(toRow.begin(), toRow.end());
    bench::report("start to first stored sample, median of 5", toRow[2], "ms", "< 300 ms");
    bench::report("start to the start-up log line, median of 5", toLine[2], "ms");
}

void realTicking(const QString& home, int seconds) {
    QProcess bare;
    bare.start(QStringLiteral(CORVI_BARE_TRAY_BIN), {});
    QProcess agent;
    agent.setProcessEnvironment(agentEnvironment(home));
    agent.start(QStringLiteral(CORVI_AGENT_BIN), {});
    QString log;
    if (!test::waitFor(
            [&] {
                log += QString::fromUtf8(agent.readAllStandardError());
                return log.contains("CorviAgent sync:");
            },
            10000)) {
        std::fprintf(stderr, "the agent did not start or upload:\n%s\n", qPrintable(log));
        stop(agent);
        return;
    }
    test::settle(2000);
    bench::report("agent program, resident after start", residentMB(agent.processId()), "MB", "< 30 MB");
    if (bare.state() == QProcess::Running)
        memoryBesideBareTray(agent.processId(), bare.processId());
    else
        std::fprintf(stderr, "the bare tray program did not start\n");
    const double before = cpuSeconds(agent.processId());
    QElapsedTimer t;
    t.start();
    // Sleep rather than spin, so this process does not compete for the agent's core.
    while (t.elapsed() < qint64(seconds) * 1000) ::usleep(200'000);
    const double used = cpuSeconds(agent.processId()) - before;
    const double share = used / (t.elapsed() / 1000.0) * 100.0;
    bench::report("agent program, resident after the CPU run", residentMB(agent.processId()), "MB",
                  "< 30 MB");
    bench::report("agent program, CPU seconds measured", used, "s");
    bench::report("agent program, CPU seconds per hour", share / 100.0 * 3600, "s", "< 1.8 s");
    bench::report("agent program, share of one core", share, "%", "< 0.05 %");
    stop(agent);
    stop(bare);
}

}  // namespace

int main(int argc, char** argv) {
    int cpuSecondsArg = 600;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--cpu-seconds") == 0 && i + 1 < argc) {
            cpuSecondsArg = std::max(1, std::atoi(argv[++i]));
        } else {
            std::fprintf(stderr, "usage: bench_agent [--cpu-seconds N]\n");
            return 2;
        }
    }
    test::XServer x;
    test::DBusDaemon bus;
    if (!x.ok() || !bus.ok()) {
        std::fprintf(stderr, "could not start Xvfb with openbox, or dbus-daemon\n");
        return 1;
    }
    bus.becomeSessionBus();
    qputenv("DISPLAY", x.display().toLocal8Bit());
    qputenv("QT_QPA_PLATFORM", "xcb");
    QApplication app(argc, argv);
    QTemporaryDir dir;

    // A window in front for every sample.
    // A tray host, so the agent and the bare tray both embed their icons as on a desktop.
    QProcess tray;
    tray.start("trayer", {"--edge", "top", "--SetDockType", "true", "--widthtype", "request"});
    test::settle(500);

    test::XClient client(x.display());
    const auto w = client.createWindow();
    client.setText(w, "_NET_WM_NAME", "UTF8_STRING", "poster.psd");
    client.setText(w, "_GTK_APPLICATION_ID", "UTF8_STRING", "com.adobe.Photoshop");
    client.activate(w);

    simulatedHour(dir.filePath("simulated"));

    QProcess server;
    const QString base = test::startReferenceServer(
        server, QStringLiteral(CORVI_SERVER_BIN),
        {"--db", dir.filePath("server.sqlite"), "--user", "bench@example.com:bench:Bench"});
    if (base.isEmpty()) {
        std::fprintf(stderr, "the reference server did not start\n");
        return 1;
    }
    const QString home = dir.filePath("real");
    if (!signIn(base, home)) {
        std::fprintf(stderr, "could not enroll with the reference server\n");
        return 1;
    }
    startUp(home);
    realTicking(home, cpuSecondsArg);
    stop(server);
    stop(tray);
    return 0;
}
