// One probe round on KWin (active window from our script's last report, idle time from KWin's
// idle timer, lock state from a stand-in locker), against kwin_wayland on its virtual backend
// with a Qt client window; and how long a caption change takes to reach the probe.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <algorithm>
#include <vector>

#include "bench/BenchUtil.h"
#include "bench/probes/ProbeRound.h"
#include "platform/linux/kde/KWinScript.h"
#include "platform/linux/kde/KdeAccessibility.h"
#include "platform/linux/kde/KdeActiveWindow.h"
#include "platform/linux/kde/KdeIdleMonitor.h"
#include "support/BusStandIn.h"
#include "support/DBusDaemon.h"
#include "support/EventLoop.h"
#include "support/KWinCompositor.h"

using namespace corvi;

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    test::DBusDaemon session, system;
    if (!session.ok() || !system.ok()) return bench::fail("could not start dbus-daemon");
    test::KWinCompositor kwin(session.address());
    if (!kwin.ok()) return bench::fail("could not start KWin: ", kwin.error());
    test::BusStandIn locker(
        session.address(), QStringLiteral("/org/freedesktop/ScreenSaver"),
        [](const QDBusMessage& call, QDBusConnection& bus) { bus.send(call.createReply(QVariant(false))); });
    locker.claim(QStringLiteral("org.freedesktop.ScreenSaver"));

    QDBusConnection bus = QDBusConnection::connectToBus(session.address(), QStringLiteral("probes"));
    auto script = std::make_shared<KWinScript>(bus);
    KdeActiveWindow window(script);  // the installed desktop entries, as in the agent
    KdeIdleMonitor idle(std::make_shared<WaylandSession>(kwin.socketPath().toLocal8Bit()), bus,
                        std::make_unique<ScreenLockProbe>(
                            bus, QDBusConnection::connectToBus(system.address(), QStringLiteral("y"))));
    KdeAccessibility access(script);
    QElapsedTimer loading;
    loading.start();
    if (!test::waitFor([&] { return access.trusted(); }, 10000))
        return bench::fail("the script never reported");
    bench::report("script loaded until its first report", static_cast<double>(loading.elapsed()), "ms");

    test::ClientWindow client = kwin.open(test::ClientWindow::Qt, QStringLiteral("org.kde.kate"),
                                          QStringLiteral("Relat\xc3\xb3rio final \xe2\x80\x94 Kate"));
    if (!test::waitFor([&] { return window.current() && window.current()->pid == client.pid(); }))
        return bench::fail("the window was never reported");

    const int sink = bench::reportRounds(QString(), window, idle, 2000);

    // The report arrives between ticks, from KWin; its delay is what a tick can miss.
    std::vector<double> delays;
    for (int i = 0; i < 20; ++i) {
        const QString title = QStringLiteral("Caption %1").arg(i);
        QElapsedTimer clock;
        clock.start();
        client.setTitle(title);
        if (!test::waitFor([&] { return window.current() && window.current()->windowTitle == title; }, 3000))
            continue;
        delays.push_back(static_cast<double>(clock.nsecsElapsed()) / 1e6);
    }
    if (delays.empty()) return bench::fail("no caption change was reported");
    std::sort(delays.begin(), delays.end());
    bench::report("caption change to the probe, median", delays[delays.size() / 2], "ms",
                  "< 3000 ms (a tick)");
    return sink < 0 ? 1 : 0;
}
