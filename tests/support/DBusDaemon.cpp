#include "support/DBusDaemon.h"

#include "support/ChildProcess.h"

namespace corvi::test {

DBusDaemon::DBusDaemon()
    : address_(startForFirstLine(daemon_, QStringLiteral("dbus-daemon"),
                                 {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                  QStringLiteral("--nopidfile"), QStringLiteral("--print-address=1")})) {}

DBusDaemon::~DBusDaemon() {
    stop(daemon_);
}

}  // namespace corvi::test
