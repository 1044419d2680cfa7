#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <memory>

#include "capture/Sampler.h"
#include "platform/Clock.h"
#include "platform/CpuTimeSource.h"
#include "platform/Probes.h"
#include "store/Store.h"
#include "support/DBusDaemon.h"
#include "support/EventLoop.h"
#include "support/TestFiles.h"
#include "support/XClient.h"
#include "support/XServer.h"

namespace corvi {
namespace {

// A real application in a process group of its own, so that its helpers end with it.
class App {
  public:
    App(const QString& program, const QStringList& args, const QProcessEnvironment& env) {
        process_.setProcessEnvironment(env);
        process_.setProcessChannelMode(QProcess::MergedChannels);
        process_.setStandardOutputFile(QProcess::nullDevice());  // warnings of a desktop without services
        process_.setChildProcessModifier([] { setsid(); });
        process_.start(program, args);
        process_.waitForStarted(5000);
    }
    ~App() {
        // Its profile is thrown away: nothing to save, no reason to wait for it.
        if (process_.state() != QProcess::NotRunning) kill(-group(), SIGKILL);
        process_.waitForFinished(3000);
    }
    App(const App&) = delete;
    App& operator=(const App&) = delete;

    pid_t group() const { return static_cast<pid_t>(process_.processId()); }

  private:
    QProcess process_;
};

// The newest window the manager manages for a process of `group`; 0 while there is none.
test::XClient::Window windowOf(test::XClient& x, pid_t group) {
    const auto windows = x.items32(x.root(), "_NET_CLIENT_LIST");
    for (auto w = windows.rbegin(); w != windows.rend(); ++w) {
        const auto pid = x.items32(*w, "_NET_WM_PID");
        if (!pid.empty() && getpgid(static_cast<pid_t>(pid[0])) == group) return *w;
    }
    return 0;
}

// Installed applications as the agent meets them: started as from the menu, their windows
// activated, and what the real X11 probes and the sampler make of them.
TEST(RealApplications, SamplesNameAndClassifyWhatTheyReallySend) {
    struct Case {
        const char* program;
        QStringList args;
        QString bundleID, appName;
        AppCategory category;
        ActivityState state;
    };
    QTemporaryDir home;
    const Case cases[] = {
        {"inkscape", {}, "org.inkscape.Inkscape", "Inkscape", AppCategory::work, ActivityState::working},
        {"epiphany",
         {"--private-instance", "about:blank"},
         "org.gnome.Epiphany",
         "Web",
         AppCategory::browser,
         ActivityState::offtask},
        {"thunderbird",
         {"--no-remote", "--profile", home.filePath("thunderbird")},
         "thunderbird",
         "Cliente de E-mail Thunderbird",
         AppCategory::communication,
         ActivityState::communication},
    };
    for (const Case& c : cases)
        if (QStandardPaths::findExecutable(c.program).isEmpty())
            GTEST_SKIP() << c.program << " is not installed (scripts/setup installs it)";

    test::XServer x;
    test::DBusDaemon bus;
    ASSERT_TRUE(x.ok() && bus.ok());
    test::XClient client(x.display());
    ASSERT_TRUE(client.ok());
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DISPLAY", x.display());
    env.insert("DBUS_SESSION_BUS_ADDRESS", bus.address());
    env.insert("HOME", home.path());
    env.insert("XDG_RUNTIME_DIR", home.path());
    env.insert("NO_AT_BRIDGE", "1");  // no accessibility bus left behind
    env.insert("GSETTINGS_BACKEND", "memory");
    QDir(home.path()).mkpath("thunderbird");

    std::vector<std::unique_ptr<App>> apps;
    for (const Case& c : cases) apps.push_back(std::make_unique<App>(c.program, c.args, env));

    qputenv("DISPLAY", x.display().toLocal8Bit());
    const test::ScopedEnv language("LANGUAGE", "pt_BR:pt"), locale("LC_ALL", "pt_BR.UTF-8");
    QTemporaryDir dir;
    Store store(dir.filePath("corvi.sqlite"));
    Probes probes = makeProbes();
    auto& window = probes.window;
    auto& idle = probes.idle;
    SystemClock clock;
    Sampler sampler(store, 0.05, *window, *idle, clock, makeCpuTimeSource());
    std::optional<Sample> last;
    sampler.onUpdate = [&](const Sample& s) { last = s; };
    sampler.start();

    QElapsedTimer started;
    started.start();
    ASSERT_TRUE(test::waitFor(
        [&] {
            return std::all_of(apps.begin(), apps.end(),
                               [&](const auto& a) { return windowOf(client, a->group()); });
        },
        60000))
        << "an application showed no window";
    // A sample taken while `w` was active, before and after it; a splash screen that goes or a
    // window that takes the focus makes the caller try again.
    const auto sampledWhileActive = [&](test::XClient::Window w) {
        if (!w || !client.activate(w, 500)) return false;
        last.reset();
        return test::waitFor([&] { return last.has_value(); }, 500) &&
               client.items32(client.root(), "_NET_ACTIVE_WINDOW") == std::vector<std::uint32_t>{w};
    };
    for (std::size_t i = 0; i < apps.size(); ++i) {
        const Case& c = cases[i];
        SCOPED_TRACE(c.program);
        ASSERT_TRUE(
            test::waitFor([&] { return sampledWhileActive(windowOf(client, apps[i]->group())); }, 20000));
        EXPECT_EQ(last->bundleID, c.bundleID);
        EXPECT_EQ(last->appName, c.appName);
        EXPECT_EQ(rawValue(last->category), rawValue(c.category));
        EXPECT_EQ(rawValue(last->state), rawValue(c.state));
    }
    std::printf("applications up and sampled in %.1f s\n", static_cast<double>(started.elapsed()) / 1000);
}

}  // namespace
}  // namespace corvi
