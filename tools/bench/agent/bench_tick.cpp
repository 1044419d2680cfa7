// What one steady tick of the real agent costs the desktop around it, on each desktop that
// runs here (Xvfb with openbox, a headless sway, KWin and GNOME Shell), with one window in
// front the whole time:
//  - CPU per tick (every thread's time on a CPU, from /proc/<pid>/task/*/schedstat);
//  - X requests per tick, over every X connection of the agent (through a counting display);
//  - bus calls per tick, on the session and system buses (a monitor on each);
//  - files opened and fsyncs per tick (strace, in a stretch of its own: it slows the agent);
//  - services the session bus started for it (every other desktop's service is installed on
//    the bench's buses as a recording stand-in, and a stand-in screen locker runs; GNOME's
//    fixture has a bus of its own with the Shell's locker, so not there). --no-locker leaves the
//    stand-in locker out, as under a bare window manager.
// The agent is signed in to a server that is never there (a refused connection a minute).
// Several programs can be compared side by side (an earlier build, say), each run in turn
// against the same desktop.
// Usage: bench_tick [--ticks N] [--no-locker] [--agent LABEL=PATH]... [x11] [sway] [kwin] [gnome]
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>

#include "BenchUtil.h"
#include "XRequestCounter.h"
#include "support/BusStandIn.h"
#include "support/DBusDaemon.h"
#include "support/EventLoop.h"
#include "support/GnomeShell.h"
#include "support/KWinCompositor.h"
#include "support/SwayCompositor.h"
#include "support/XClient.h"
#include "support/XServer.h"

using namespace corvi;

namespace {

constexpr int kTickMs = 3000;

// A desktop as the agent finds it, and the parts that keep it running.
struct Desktop {
    QString error;
    QProcessEnvironment env;
    std::shared_ptr<void> keep;
    std::function<long()> xRequests;       // unset where there is no X
    std::function<QStringList()> started;  // unset where the bus is not the bench's
};

QProcessEnvironment baseEnv(const QString& session, const QString& system) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "SWAYSOCK", "XDG_CURRENT_DESKTOP"})
        env.remove(name);
    env.insert("DBUS_SESSION_BUS_ADDRESS", session);
    env.insert("DBUS_SYSTEM_BUS_ADDRESS", system);
    return env;
}

QProcessEnvironment waylandEnv(const QString& socket, const QString& desktop, const QString& session,
                               const QString& system) {
    QProcessEnvironment env = baseEnv(session, system);
    env.insert("WAYLAND_DISPLAY", socket);
    env.insert("XDG_SESSION_TYPE", "wayland");
    env.insert("XDG_CURRENT_DESKTOP", desktop);
    env.insert("QT_QPA_PLATFORM", "wayland");
    return env;
}

bool withLocker = true;

// Every other desktop's services installed, none running but a screen locker, as on most
// desktops (--no-locker: none at all, as under a bare window manager).
struct Buses {
    Buses() {
        if (withLocker) locker.claim(QStringLiteral("org.freedesktop.ScreenSaver"));
    }
    test::DBusDaemon session{test::desktopServiceNames()};
    test::DBusDaemon system;
    test::BusStandIn locker{
        session.address(), QStringLiteral("/org/freedesktop/ScreenSaver"),
        [](const QDBusMessage& call, QDBusConnection& bus) { bus.send(call.createReply(QVariant(false))); }};
};

const QString kTitle = QString::fromUtf8("Relat\xc3\xb3rio final \xe2\x80\x94 Layout.indd @ 100%");

Desktop x11() {
    struct Parts : Buses {
        test::XServer server;
        std::unique_ptr<test::XClient> client;
        std::unique_ptr<bench::XRequestCounter> counter;
    };
    auto parts = std::make_shared<Parts>();
    Desktop d{{}, baseEnv(parts->session.address(), parts->system.address()), parts, {}, {}};
    if (!parts->server.ok() || !parts->session.ok() || !parts->system.ok()) {
        d.error = "no Xvfb, openbox or dbus-daemon";
        return d;
    }
    parts->client = std::make_unique<test::XClient>(parts->server.display());
    const auto w = parts->client->createWindow();
    parts->client->setText(w, "_NET_WM_NAME", "UTF8_STRING", kTitle.toUtf8());
    parts->client->setClass(w, "gimp-2.10", "Gimp-2.10");
    parts->client->setCardinal(w, "_NET_WM_PID", static_cast<std::uint32_t>(getpid()));
    parts->counter = std::make_unique<bench::XRequestCounter>(parts->server.display());
    if (!parts->client->activate(w) || !parts->counter->ok())
        d.error = "no window in front, or no counting display";
    d.env.insert("DISPLAY", parts->counter->display());
    d.env.insert("XDG_SESSION_TYPE", "x11");
    d.env.insert("QT_QPA_PLATFORM", "xcb");
    d.xRequests = [c = parts->counter.get()] { return c->requests(); };
    d.started = [b = &parts->session] { return b->started(); };
    return d;
}

Desktop sway() {
    struct Parts : Buses {
        test::SwayCompositor sway;
        test::ClientWindow window;
    };
    auto parts = std::make_shared<Parts>();
    Desktop d{{},
              waylandEnv(parts->sway.socket(), "sway", parts->session.address(), parts->system.address()),
              parts,
              {},
              [b = &parts->session] { return b->started(); }};
    d.env.insert("SWAYSOCK", parts->sway.ipcSocket());
    parts->window = parts->sway.open(test::ClientWindow::Foot, "org.inkscape.Inkscape", kTitle);
    if (!parts->sway.ok() || !parts->session.ok() || !parts->window.ok() ||
        !parts->sway.waitForWindow("org.inkscape.Inkscape", kTitle))
        d.error = "no headless sway with a window";
    return d;
}

Desktop kwin() {
    struct Parts : Buses {
        test::KWinCompositor kwin{session.address()};
        test::ClientWindow window;
    };
    auto parts = std::make_shared<Parts>();
    Desktop d{{},
              waylandEnv(parts->kwin.socketPath(), "KDE", parts->session.address(), parts->system.address()),
              parts,
              {},
              [b = &parts->session] { return b->started(); }};
    if (!parts->kwin.ok() || !parts->session.ok()) {
        d.error = "no kwin_wayland: " + parts->kwin.error();
        return d;
    }
    parts->window = parts->kwin.open(test::ClientWindow::Qt, "org.inkscape.Inkscape", kTitle);
    if (!parts->window.ok()) d.error = "no window on KWin";
    return d;
}

#ifdef CORVI_GNOME_EXTENSION_DATA
Desktop gnome() {
    struct Parts {
        test::GnomeShell shell{CORVI_GNOME_EXTENSION_DATA};
        test::ClientWindow window;
    };
    auto parts = std::make_shared<Parts>();
    Desktop d{{}, parts->shell.clientEnvironment(), parts, {}, {}};
    d.env.insert("QT_QPA_PLATFORM", "wayland");
    if (!parts->shell.ok() || !parts->shell.setExtensionEnabled(true)) {
        d.error = "no headless GNOME Shell with our extension";
        return d;
    }
    parts->window = parts->shell.open(test::ClientWindow::Foot, "org.inkscape.Inkscape", kTitle);
    if (!parts->window.ok()) d.error = "no window on GNOME Shell";
    return d;
}
#else
Desktop gnome() {
    return {"built without GNOME Shell", {}, {}, {}, {}};
}
#endif

// Nanoseconds every thread of `pid` has run.
double cpuNanos(qint64 pid) {
    double total = 0;
    for (const QString& task :
         QDir(QStringLiteral("/proc/%1/task").arg(pid)).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile f(QStringLiteral("/proc/%1/task/%2/schedstat").arg(pid).arg(task));
        if (f.open(QIODevice::ReadOnly)) total += f.readAll().split(' ').value(0).toDouble();
    }
    return total;
}

// Method calls sent from `pid`'s connections to the bus at `address` while it runs.
class BusCalls {
  public:
    explicit BusCalls(const QString& address) : address_(address) {
        monitor_.start("dbus-monitor", {"--address", address, "--profile", "type='method_call'"});
        monitor_.waitForStarted();
        test::settle(300);
    }
    long stop(qint64 pid) {
        ::kill(static_cast<pid_t>(monitor_.processId()), SIGINT);
        monitor_.waitForFinished(3000);
        std::map<QString, long> bySender;
        for (const QByteArray& line : monitor_.readAllStandardOutput().split('\n')) {
            const QList<QByteArray> f = line.split('\t');
            if (f.size() > 4 && f[0] == "mc") ++bySender[QString::fromUtf8(f[3])];
        }
        QDBusConnection bus = QDBusConnection::connectToBus(address_, QStringLiteral("bench-%1").arg(pid));
        long calls = 0;
        for (const auto& [sender, n] : bySender)
            if (bus.interface()->servicePid(sender).value() == uint(pid)) calls += n;
        QDBusConnection::disconnectFromBus(QStringLiteral("bench-%1").arg(pid));
        return calls;
    }

  private:
    QString address_;
    QProcess monitor_;
};

void measure(const QString& desktopName, Desktop& desktop, const QString& label, const QString& program,
             int ticks) {
    QTemporaryDir dir;
    QProcessEnvironment env = desktop.env;
    env.insert("XDG_DATA_HOME", dir.filePath("data"));
    env.insert("XDG_CONFIG_HOME", dir.filePath("config"));
    env.insert("HOME", dir.path());
    env.insert("LC_ALL", "C.UTF-8");
    env.insert("CORVI_LOG_STDERR", "1");
    if (!env.contains("XDG_RUNTIME_DIR")) {
        QDir().mkdir(dir.filePath("runtime"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        env.insert("XDG_RUNTIME_DIR", dir.filePath("runtime"));
    }
    // Signed in, as the agent samples only then; the server is never there, so the minute's
    // upload is one refused connection.
    QDir().mkpath(dir.filePath("data/CorviAgent"));
    QFile config(dir.filePath("data/CorviAgent/config.json"));
    if (!config.open(QIODevice::WriteOnly) ||
        !config.write(R"({"server_url": "http://127.0.0.1:9", "api_key": "bench", "language": "pt",)"
                      R"( "launch_at_login": false})"))
        std::printf("could not write %s\n", qPrintable(config.fileName()));
    config.close();
    const QStringList startedBefore = desktop.started ? desktop.started() : QStringList();
    QProcess agent;
    agent.setProcessEnvironment(env);
    agent.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    agent.start(program);
    if (!agent.waitForStarted()) {
        std::printf("%s, %s: %s did not start\n", qPrintable(desktopName), qPrintable(label),
                    qPrintable(program));
        return;
    }
    const qint64 pid = agent.processId();
    test::settle(3 * kTickMs);  // start-up and the first ticks are not steady ones

    BusCalls session(env.value("DBUS_SESSION_BUS_ADDRESS")), system(env.value("DBUS_SYSTEM_BUS_ADDRESS"));
    const long x0 = desktop.xRequests ? desktop.xRequests() : 0;
    const double cpu0 = cpuNanos(pid);
    test::settle(ticks * kTickMs);
    const double cpu = cpuNanos(pid) - cpu0;
    const long x = desktop.xRequests ? desktop.xRequests() - x0 : 0;
    const long calls = session.stop(pid) + system.stop(pid);

    const QString trace = dir.filePath("strace");
    QProcess strace;
    strace.start("strace", {"-f", "-qq", "-o", trace, "-e", "trace=open,openat,openat2,fsync,fdatasync", "-p",
                            QString::number(pid)});
    test::settle(1000);  // attached
    test::settle(ticks * kTickMs);
    ::kill(static_cast<pid_t>(strace.processId()), SIGINT);
    strace.waitForFinished(5000);
    QFile f(trace);
    f.open(QIODevice::ReadOnly);
    const QByteArray calls2 = f.readAll();
    const double opened = calls2.count("open(") + calls2.count("openat(") + calls2.count("openat2(");
    const double synced = calls2.count("fsync(") + calls2.count("fdatasync(");

    const auto name = [&](const char* what) { return (desktopName + ", " + label + ": " + what).toUtf8(); };
    bench::report(name("CPU per tick").constData(), cpu / ticks / 1e6, "ms");
    if (desktop.xRequests) bench::report(name("X requests per tick").constData(), double(x) / ticks, "");
    bench::report(name("bus calls per tick").constData(), double(calls) / ticks, "");
    bench::report(name("files opened per tick").constData(), opened / ticks, "");
    bench::report(name("fsyncs per tick").constData(), synced / ticks, "");
    if (desktop.started) {
        QStringList started = desktop.started();
        for (const QString& s : startedBefore) started.removeOne(s);
        bench::report(name("services the bus started").constData(), double(started.size()),
                      started.join(' ').toUtf8().constData());
    }
    agent.kill();
    agent.waitForFinished();
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    int ticks = 20;
    std::vector<std::pair<QString, QString>> agents;
    QStringList chosen;
    const QStringList args = app.arguments().mid(1);
    for (int i = 0; i < args.size(); ++i) {
        if (args[i] == "--ticks" && i + 1 < args.size()) {
            ticks = std::max(1, args[++i].toInt());
        } else if (args[i] == "--no-locker") {
            withLocker = false;
        } else if (args[i] == "--agent" && i + 1 < args.size()) {
            const QString a = args[++i];
            agents.emplace_back(a.section('=', 0, 0), a.section('=', 1));
        } else {
            chosen << args[i];
        }
    }
    if (agents.empty()) agents.emplace_back("this build", CORVI_AGENT_BIN);
    if (chosen.isEmpty()) chosen = {"x11", "sway", "kwin", "gnome"};
    const std::map<QString, Desktop (*)()> desktops{
        {"x11", &x11}, {"sway", &sway}, {"kwin", &kwin}, {"gnome", &gnome}};
    for (const QString& which : chosen) {
        const auto found = desktops.find(which);
        if (found == desktops.end()) {
            std::printf("unknown desktop %s\n", qPrintable(which));
            return 2;
        }
        Desktop desktop = found->second();
        if (!desktop.error.isEmpty()) {
            std::printf("%s: not measured (%s)\n", qPrintable(which), qPrintable(desktop.error.left(300)));
            continue;
        }
        for (const auto& [label, program] : agents) measure(which, desktop, label, program, ticks);
    }
    return 0;
}
