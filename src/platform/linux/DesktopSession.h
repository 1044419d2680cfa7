#pragma once

#include <QProcessEnvironment>
#include <QString>

#include "platform/Probes.h"

namespace corvi {

class ScreenLockProbe;

// Which way in the desktop offers to the focused window and the idle time. No Wayland
// protocol tells every client which window has the focus, so each family has its own.
struct DesktopSession {
    enum class Kind {
        x11,      // EWMH through xcb; also where nothing says Wayland
        wlroots,  // any other Wayland compositor: the wlr foreign-toplevel protocol, if offered
        gnome,    // GNOME Shell, through our Shell extension
        kde,      // KWin, through a KWin script of ours
    };

    Kind kind = Kind::x11;
    QString sessionType;  // XDG_SESSION_TYPE as given, for the log
    QString desktop;      // XDG_CURRENT_DESKTOP as given, for the log

    static DesktopSession detect(const QProcessEnvironment& env);
};

// One log line per process for a session whose windows cannot be seen: it names the session
// type and desktop.
void logUnsupportedSession(const DesktopSession& session);

// The lock probe every backend shares: the lockers on the session bus, then logind.
std::unique_ptr<ScreenLockProbe> makeScreenLockProbe();

// Probes that see no window and no input (permission missing, idle 0), the lock still read.
Probes makeNeutralProbes();

// Each backend's probes, in its own file.
Probes makeX11Probes();
Probes makeWlrootsProbes(const DesktopSession& session);
Probes makeGnomeProbes(const DesktopSession& session);
Probes makeKdeProbes(const DesktopSession& session);

}  // namespace corvi
