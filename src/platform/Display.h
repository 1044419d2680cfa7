#pragma once

#include <QString>

namespace corvi {

// Whether the Wayland display named by WAYLAND_DISPLAY, or else the X display named by
// DISPLAY, accepts a connection. When neither does, `why` says so in a sentence for the
// person who started the agent.
bool displayReachable(QString* why);

}  // namespace corvi
