#include "platform/linux/DesktopSession.h"

namespace corvi {

Probes makeWlrootsProbes(const DesktopSession& session) {
    logUnsupportedSession(session);
    return makeNeutralProbes();
}

}  // namespace corvi
