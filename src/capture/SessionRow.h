#pragma once

#include <QString>
#include <cstdint>

#include "capture/Vocabulary.h"

namespace corvi {

// The session being accumulated. Only endTS, sumCPU, maxCPU, samples and idleAtEnd change
// after it is opened.
struct SessionRow {
    double startTS = 0;
    double endTS = 0;
    QString bundleID;
    QString appName;
    QString windowTitle;
    AppCategory category = AppCategory::other;
    ActivityState state = ActivityState::offtask;
    double sumCPU = 0;
    double maxCPU = 0;
    std::int64_t samples = 1;
    double idleAtEnd = 0;

    // bundle id | state | title, as Sample::key forms it.
    QString key() const;
};

// The key both types share.
QString sessionKey(const QString& bundleID, ActivityState state, const QString& windowTitle);

}  // namespace corvi
