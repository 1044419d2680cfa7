#pragma once

#include <QString>

namespace corvi::supervision {

// The package's starter hands the desktop session to the user's service manager and starts
// the user service, which runs the agent with CORVI_SUPERVISED=service and starts it again
// when it ends in anything but a granted quit. Where no manager answers, the starter runs the
// agent with CORVI_SUPERVISED=none. An installed agent started any other way (the menu, a
// terminal, an autostart entry of an earlier version) hands itself to the starter, so every
// start ends up supervised.
enum class Mode { unset, service, none };

// Read once, then removed from the environment: a program the agent opens (the Extensions
// app, a browser) and whatever that one starts must not pass it on to a later agent.
Mode takeMode();

// The exit status of an agent that wants to run again at once: a newer version was
// installed under it.
inline constexpr int restartStatus = 75;

// Replaces this process with the starter. Returns (false) only when there is nothing to hand
// over to: a development build, no starter installed, or an exec that failed.
bool handOver(Mode mode, bool installed);

// After restartStatus: under the service, the status itself (the service starts the new
// version); otherwise this process becomes `program` again, in the same mode. Returns the
// process's exit status when it cannot.
int restart(Mode mode, const QString& program, char** argv);

}  // namespace corvi::supervision
