#pragma once

#include <QString>

namespace corvi {

// The agent's data folder, where config.json and corvi.sqlite live. Created (with missing
// parents, mode 0700), or brought back to 0700, on every call; without a home it can be made
// in, a folder in /tmp. A folder that cannot be made or written is said once, in the log and
// on standard error, with the system's reason.
QString dataFolder();

// The fallback folder under `tmp` ("/tmp"): the first of "CorviAgent-<uid>",
// "CorviAgent-<uid>-1", "-2" … that is this user's own private folder (made when absent).
// dataFolder logs the folder it falls back to.
QString tmpDataFolder(const QString& tmp);

}  // namespace corvi
