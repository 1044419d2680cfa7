#pragma once

#include <QString>

#include "capture/Vocabulary.h"

namespace corvi {

// One observation of the foreground; never changed after it is built.
struct Sample {
    double timestamp = 0;  // seconds since 1970
    QString bundleID;      // "locked" when nothing is in front
    QString appName;       // "—" when nothing is in front
    QString windowTitle;   // cleaned
    AppCategory category = AppCategory::other;
    double idleSeconds = 0;
    double cpuPercent = 0;
    bool screenLocked = false;
    ActivityState state = ActivityState::offtask;

    // bundle id | state | title
    QString key() const;
};

}  // namespace corvi
