#include "platform/linux/DesktopSession.h"

namespace corvi {

Probes makeGnomeProbes(const DesktopSession& session) {
    logUnsupportedSession(session);
    return makeNeutralProbes();
}

}  // namespace corvi
