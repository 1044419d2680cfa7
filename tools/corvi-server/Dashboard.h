#pragma once

#include <QString>

namespace corvi::refserver {

class RefDatabase;

// The page at "/": the enrolled machines, and per day the hours spent in each state and
// category, drawn as plain bars. No script, no external resources.
QString renderDashboard(RefDatabase& db, double now);

}  // namespace corvi::refserver
