// The probes' factory: the backend follows the session the agent was started in.
#include "platform/Probes.h"

#include "platform/linux/DesktopSession.h"
#include "platform/linux/x11/X11Accessibility.h"
#include "platform/linux/x11/X11ActiveWindow.h"
#include "platform/linux/x11/X11IdleMonitor.h"

namespace corvi {

Probes makeX11Probes() {
    auto session = X11Session::shared();
    return {std::make_unique<X11ActiveWindow>(session),
            std::make_unique<X11IdleMonitor>(session, makeScreenLockProbe()),
            std::make_unique<X11Accessibility>(session)};
}

Probes makeProbes() {
    const DesktopSession session = DesktopSession::detect(QProcessEnvironment::systemEnvironment());
    switch (session.kind) {
        case DesktopSession::Kind::wlroots:
            return makeWlrootsProbes(session);
        case DesktopSession::Kind::gnome:
            return makeGnomeProbes(session);
        case DesktopSession::Kind::kde:
            return makeKdeProbes(session);
        case DesktopSession::Kind::x11:
            break;
    }
    return makeX11Probes();
}

}  // namespace corvi
