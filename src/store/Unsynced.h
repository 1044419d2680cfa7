#pragma once

#include <QString>
#include <cstdint>

namespace corvi {

// One stored session read back for upload. category and state stay the raw strings the
// row holds; they are not parsed back into the vocabulary.
struct Unsynced {
    std::int64_t id = 0;
    double start = 0;
    double end = 0;
    QString bundleID;
    QString appName;
    QString windowTitle;
    QString category;
    QString state;
    double avgCPU = 0;
    double maxCPU = 0;
    double idleAtEnd = 0;
    std::int64_t samples = 0;  // stored as a 32-bit count
};

}  // namespace corvi
