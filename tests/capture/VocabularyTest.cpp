#include <gtest/gtest.h>

#include "capture/Vocabulary.h"

namespace corvi {
namespace {

// The raw strings are what the database and the server hold: each one exact, nothing else parses.
TEST(Vocabulary, RawStringsAreExactAndNothingElseParses) {
    using C = AppCategory;
    using S = ActivityState;
    const std::pair<C, const char*> categories[] = {
        {C::work, "work"}, {C::communication, "communication"}, {C::browser, "browser"}, {C::other, "other"}};
    const std::pair<S, const char*> states[] = {
        {S::working, "working"}, {S::rendering, "rendering"}, {S::communication, "communication"},
        {S::offtask, "offtask"}, {S::idle, "idle"},           {S::locked, "locked"}};
    for (const auto& [c, raw] : categories) {
        EXPECT_EQ(rawValue(c), QString::fromUtf8(raw));
        EXPECT_EQ(appCategoryFromRaw(QString::fromUtf8(raw)), c) << raw;
    }
    for (const auto& [s, raw] : states) {
        EXPECT_EQ(rawValue(s), QString::fromUtf8(raw));
        EXPECT_EQ(activityStateFromRaw(QString::fromUtf8(raw)), s) << raw;
    }
    for (const char* bad : {"Working", "off-task", "", "idle ", "WORK"}) {
        EXPECT_FALSE(activityStateFromRaw(QString::fromUtf8(bad))) << bad;
        EXPECT_FALSE(appCategoryFromRaw(QString::fromUtf8(bad))) << bad;
    }
}

}  // namespace
}  // namespace corvi
