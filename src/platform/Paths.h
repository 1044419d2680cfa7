#pragma once

#include <QString>

namespace corvi {

// The agent's data folder, where config.json and corvi.sqlite live. Created (with missing
// parents, mode 0700) on every call; a failure to create it is left to the open that follows.
QString dataFolder();

}  // namespace corvi
