#pragma once

#include <QString>

#include "capture/Vocabulary.h"

namespace corvi {

// Names the category of an application and the activity state of a sample.
struct Classifier {
    double absentAfterSeconds = 180;  // from this many idle seconds on the user is away
    double renderingCPUPercent = 25;  // from this CPU use on an away user's work app renders

    // Prefix match of the lower-cased bundle id against the work, browser and communication
    // lists, in that order; no match is other.
    static AppCategory category(const QString& bundleID);

    // Locked first; an away user is rendering or idle; otherwise by category. Both
    // thresholds are inclusive.
    ActivityState state(bool locked, double idleSeconds, double cpuPercent, AppCategory category) const;
};

}  // namespace corvi
