#pragma once

#include <QString>

namespace corvi {

// Whether the X display named by DISPLAY accepts a connection. When it does not, `why`
// says so in a sentence for the person who started the agent.
bool displayReachable(QString* why);

}  // namespace corvi
