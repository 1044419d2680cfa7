#include <gtest/gtest.h>

#include "capture/Sample.h"
#include "capture/SessionRow.h"
#include "capture/Vocabulary.h"

namespace corvi {
namespace {

TEST(Vocabulary, RawStringsRoundTripAndNothingElseParses) {
    for (auto c : {AppCategory::work, AppCategory::communication, AppCategory::browser, AppCategory::other})
        EXPECT_EQ(appCategoryFromRaw(rawValue(c)), c) << rawValue(c).toStdString();
    for (auto s : {ActivityState::working, ActivityState::rendering, ActivityState::communication,
                   ActivityState::offtask, ActivityState::idle, ActivityState::locked})
        EXPECT_EQ(activityStateFromRaw(rawValue(s)), s) << rawValue(s).toStdString();
    EXPECT_EQ(rawValue(ActivityState::offtask), u"offtask");
    for (const char* bad : {"Working", "off-task", "", "idle ", "WORK"}) {
        EXPECT_FALSE(activityStateFromRaw(QString::fromUtf8(bad))) << bad;
        EXPECT_FALSE(appCategoryFromRaw(QString::fromUtf8(bad))) << bad;
    }
}

TEST(Vocabulary, SampleAndSessionShareOneKey) {
    Sample s;
    s.bundleID = "com.adobe.photoshop";
    s.state = ActivityState::working;
    s.windowTitle = "Untitled-1";
    SessionRow r;
    r.bundleID = s.bundleID;
    r.state = s.state;
    r.windowTitle = s.windowTitle;
    EXPECT_EQ(s.key(), "com.adobe.photoshop|working|Untitled-1");
    EXPECT_EQ(r.key(), s.key());
}

}  // namespace
}  // namespace corvi
