// One full probe round (active window, pid, ID, name, title, idle, lock) as the sampler makes
// it, with a stand-in locker on a private bus: against a private Xvfb with openbox, then
// against a headless sway with a foot window.
#include <unistd.h>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QTemporaryDir>

#include "bench/BenchUtil.h"
#include "bench/probes/ProbeRound.h"
#include "platform/linux/wayland/WaylandIdle.h"
#include "platform/linux/wayland/WlrActiveWindow.h"
#include "platform/linux/x11/X11Accessibility.h"
#include "platform/linux/x11/X11ActiveWindow.h"
#include "platform/linux/x11/X11IdleMonitor.h"
#include "support/BusStandIn.h"
#include "support/DBusDaemon.h"
#include "support/SwayCompositor.h"
#include "support/XClient.h"
#include "support/XServer.h"

using namespace corvi;

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    test::XServer server;
    test::DBusDaemon session, system;
    if (!server.ok() || !session.ok() || !system.ok())
        return bench::fail("could not start Xvfb, openbox or dbus-daemon");
    test::XClient client(server.display());
    const auto w = client.createWindow();
    client.setText(w, "_NET_WM_NAME", "UTF8_STRING",
                   "Relat\xc3\xb3rio final \xe2\x80\x94 Layout.indd @ 100%");
    client.setClass(w, "indesign", "InDesign");
    client.setCardinal(w, "_NET_WM_PID", static_cast<std::uint32_t>(getpid()));
    if (!client.activate(w)) return bench::fail("could not activate the window");
    test::BusStandIn locker(
        session.address(), QStringLiteral("/org/freedesktop/ScreenSaver"),
        [](const QDBusMessage& call, QDBusConnection& bus) { bus.send(call.createReply(QVariant(false))); });
    locker.claim(QStringLiteral("org.freedesktop.ScreenSaver"));

    auto x = std::make_shared<X11Session>(server.display().toLocal8Bit());
    X11ActiveWindow window(x);  // the installed desktop entries, as in the agent
    X11IdleMonitor idle(x, std::make_unique<ScreenLockProbe>(
                               QDBusConnection::connectToBus(session.address(), QStringLiteral("s")),
                               QDBusConnection::connectToBus(system.address(), QStringLiteral("y"))));

    X11Accessibility access(x);  // asked at every tick too
    int sink = 0;
    auto round = [&] { sink += bench::probeRound(window, idle) + access.trusted(); };
    round();  // connects, interns atoms, reads the desktop entries, finds the locker

    constexpr int kRounds = 2000;
    const auto before = x->roundTrips();
    const auto requestsBefore = x->requests();
    const double nanos = bench::medianNanos(kRounds, round);
    const double trips = static_cast<double>(x->roundTrips() - before) / kRounds;
    const double requests = static_cast<double>(x->requests() - requestsBefore) / kRounds;
    bench::report("probe round, median", nanos / 1000.0, "us", "< 500 us");
    bench::report("X round trips per round", trips, "", "<= 3");
    bench::report("X requests per round", requests, "", "<= 4");

    const double xOnly = bench::medianNanos(kRounds, [&] { sink += bench::probeRound(window, idle, false); });
    bench::report("probe round without the lock call, median", xOnly / 1000.0, "us");

    test::SwayCompositor sway;
    const test::ClientWindow foot = sway.open(test::ClientWindow::Foot, QStringLiteral("org.example.Layout"),
                                              QStringLiteral("Layout.indd @ 100%"));
    if (!sway.ok() ||
        !sway.waitForWindow(QStringLiteral("org.example.Layout"), QStringLiteral("Layout.indd @ 100%")))
        return bench::fail("could not start sway with a foot window");
    auto wayland = std::make_shared<WaylandSession>(sway.socket().toLocal8Bit());
    auto toplevels = std::make_shared<WlrToplevels>(wayland);
    WlrActiveWindow wlrWindow(toplevels, std::make_unique<DesktopEntries>(),
                              std::make_unique<SwayIpc>(sway.ipcSocket().toLocal8Bit()));
    WaylandIdle wlrIdle(wayland, std::make_unique<ScreenLockProbe>(
                                     QDBusConnection::connectToBus(session.address(), QStringLiteral("s2")),
                                     QDBusConnection::connectToBus(system.address(), QStringLiteral("y2"))));
    sink += bench::probeRound(wlrWindow, wlrIdle);
    if (!wlrWindow.current()) return bench::fail("the probes see no focused window on sway");
    sink += bench::reportRounds(QStringLiteral("sway "), wlrWindow, wlrIdle, kRounds);
    const SwayIpc ipc(sway.ipcSocket().toLocal8Bit());
    const double pidNanos = bench::medianNanos(200, [&] {
        sink +=
            ipc.focusedPid(QStringLiteral("org.example.Layout"), QStringLiteral("Layout.indd @ 100%")) > 0;
    });
    bench::report("sway IPC pid query (once per window), median", pidNanos / 1000.0, "us");
    return sink < 0 ? 1 : 0;
}
