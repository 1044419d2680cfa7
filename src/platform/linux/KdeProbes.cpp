#include "platform/linux/DesktopSession.h"

namespace corvi {

Probes makeKdeProbes(const DesktopSession& session) {
    logUnsupportedSession(session);
    return makeNeutralProbes();
}

}  // namespace corvi
