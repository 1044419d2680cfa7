// One full GNOME probe round (focused window through our Shell extension, its name, idle time
// from Mutter, the lock, the permission), as the sampler makes it each tick, against a private
// headless GNOME Shell with a foot window in front.
#include <QCoreApplication>

#include "bench/BenchUtil.h"
#include "bench/probes/ProbeRound.h"
#include "platform/linux/freedesktop/ScreenLockProbe.h"
#include "platform/linux/gnome/GnomeAccessibility.h"
#include "platform/linux/gnome/GnomeActiveWindow.h"
#include "platform/linux/gnome/GnomeIdleMonitor.h"
#include "support/EventLoop.h"
#include "support/GnomeShell.h"

using namespace corvi;

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    test::GnomeShell shell(CORVI_GNOME_EXTENSION_DATA);
    if (!shell.ok() || !shell.setExtensionEnabled(true))
        return bench::fail("could not start gnome-shell with the extension:\n", shell.log());
    const test::ClientWindow terminal =
        shell.open(test::ClientWindow::Foot, QStringLiteral("org.gnome.TextEditor"),
                   QString::fromUtf8("Relat\xc3\xb3rio final \xe2\x80\x94 Layout.indd @ 100%"));
    const QDBusConnection bus = shell.bus();
    auto extension = std::make_shared<GnomeShellExtension>(bus);
    GnomeActiveWindow window(extension);  // the installed desktop entries, as in the agent
    GnomeIdleMonitor idle(bus, std::make_unique<ScreenLockProbe>(bus, bus), extension);
    GnomeAccessibility access(extension, bus);
    const auto inFront = [&] {
        const auto info = window.current();
        return info && info->pid == terminal.pid();
    };
    if (!test::waitFor(inFront, 10000)) {
        const auto info = window.current();
        return bench::fail("the foot window never had the focus: ",
                           info ? QStringLiteral("%1 %2").arg(info->bundleID).arg(info->pid) : "none");
    }

    int sink = 0;
    auto round = [&] { sink += bench::probeRound(window, idle) + (access.trusted() ? 1 : 0); };
    round();  // reads the desktop entries, finds the locker
    // A Shell just started can be too busy to answer in time, and is then left alone for a
    // while; measure the steady state after that.
    test::settle(int(std::chrono::milliseconds(GnomeShellExtension::kQuietAfterTimeout).count()) + 500);
    round();

    constexpr int kRounds = 1000;
    bench::report("GNOME probe round (the idle and lock calls), median",
                  bench::medianNanos(kRounds, round) / 1000.0, "us", "< 2000 us");
    bench::report("focused window (kept from the extension's signals), median",
                  bench::medianNanos(kRounds, [&] { sink += extension->focus() ? 1 : 0; }) / 1000.0, "us");
    bench::report("Mutter GetIdletime, median",
                  bench::medianNanos(kRounds, [&] { sink += static_cast<int>(idle.idleSeconds()); }) / 1000.0,
                  "us");
    return sink < 0 ? 1 : 0;
}
