#include <gtest/gtest.h>

#include "capture/Classifier.h"
#include "capture/Vocabulary.h"

namespace corvi {
namespace {

TEST(Classifier, CategoryIsAPrefixTestOnTheLowerCasedId) {
    using C = AppCategory;
    struct Case {
        const char* id;
        AppCategory expected;
    };
    const Case cases[] = {
        {"com.adobe.photoshop", C::work},
        {"com.adobe.photoshop.beta", C::work},
        {"com.adobe.photoshopxyz", C::work},  // a prefix needs no dot after it
        {"com.Adobe.Photoshop", C::work},
        {"com.s\u212Aylum.luminar", C::work},  // KELVIN SIGN lower-cases to k
        {"com.apple.safaritechnologypreview", C::browser},
        {"COM.GOOGLE.CHROME", C::browser},
        {"com.apple.safar\u0130", C::browser},  // İ lower-cases to i + combining dot
        {"com.microsoft.teams2", C::communication},
        {"Net.WhatsApp.WhatsApp", C::communication},
        {"com.adobe", C::other},  // only an entry may be the prefix, never the reverse
        {"org.com.adobe.photoshop", C::other},
        {" com.adobe.photoshop", C::other},
        {"com.adobe.photoshoq", C::other},
        {"", C::other},
        {"locked", C::other},
    };
    for (const auto& c : cases) EXPECT_EQ(Classifier::category(QString::fromUtf8(c.id)), c.expected) << c.id;
}

TEST(Classifier, StateRuleWithInclusiveThresholds) {
    using C = AppCategory;
    using S = ActivityState;
    struct Case {
        const char* name;
        bool locked;
        double idle, cpu;
        AppCategory category;
        ActivityState expected;
    };
    const Case cases[] = {
        {"locked beats away and rendering", true, 5000, 400, C::work, S::locked},
        {"work present", false, 0, 0, C::work, S::working},
        {"work just before away", false, 179.9, 90, C::work, S::working},
        {"work away, cpu just below", false, 180, 24.9, C::work, S::idle},
        {"work away, cpu at threshold", false, 180, 25, C::work, S::rendering},
        {"browser away, busy", false, 180, 90, C::browser, S::idle},
        {"communication away, busy", false, 180, 90, C::communication, S::idle},
        {"browser present", false, 10, 0, C::browser, S::offtask},
        {"other present", false, 10, 0, C::other, S::offtask},
        {"communication just before away", false, 179.9, 0, C::communication, S::communication},
    };
    const Classifier classifier;
    for (const auto& c : cases)
        EXPECT_EQ(classifier.state(c.locked, c.idle, c.cpu, c.category), c.expected) << c.name;
}

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
