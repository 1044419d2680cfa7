#include <gtest/gtest.h>

#include "capture/Classifier.h"

namespace corvi {
namespace {

struct CategoryCase {
    const char* bundleID;
    AppCategory expected;
};

TEST(Classifier, CategoryIsAPrefixTestOnTheLowerCasedId) {
    const CategoryCase cases[] = {
        // Every list entry, as is and with something after it (no dot needed).
        {"com.adobe.lightroomclassic", AppCategory::work},
        {"com.adobe.lightroom", AppCategory::work},
        {"com.adobe.photoshop", AppCategory::work},
        {"com.adobe.bridge", AppCategory::work},
        {"com.adobe.illustrator", AppCategory::work},
        {"com.adobe.indesign", AppCategory::work},
        {"com.adobe.aftereffects", AppCategory::work},
        {"com.adobe.camera-raw", AppCategory::work},
        {"com.phaseone.captureone", AppCategory::work},
        {"com.captureone", AppCategory::work},
        {"com.camerabits.photomechanic", AppCategory::work},
        {"com.skylum", AppCategory::work},
        {"com.pixelmatorteam", AppCategory::work},
        {"com.pixellu.smartalbums", AppCategory::work},
        {"com.pixellu", AppCategory::work},
        {"com.fundy", AppCategory::work},
        {"tech.stonefold.ferrodock", AppCategory::work},
        {"com.apple.safari", AppCategory::browser},
        {"com.google.chrome", AppCategory::browser},
        {"org.mozilla.firefox", AppCategory::browser},
        {"com.microsoft.edgemac", AppCategory::browser},
        {"company.thebrowser.browser", AppCategory::browser},
        {"com.brave.browser", AppCategory::browser},
        {"com.operasoftware.opera", AppCategory::browser},
        {"com.apple.mail", AppCategory::communication},
        {"com.tinyspeck.slackmacgap", AppCategory::communication},
        {"com.microsoft.teams", AppCategory::communication},
        {"net.whatsapp.whatsapp", AppCategory::communication},
        {"com.apple.messages", AppCategory::communication},
        {"ru.keepcoder.telegram", AppCategory::communication},
        {"com.adobe.photoshop.beta", AppCategory::work},
        {"com.adobe.photoshopxyz", AppCategory::work},
        {"com.microsoft.teams2", AppCategory::communication},
        {"com.apple.safaritechnologypreview", AppCategory::browser},
        {"org.mozilla.firefox-esr", AppCategory::browser},
        // Case: full Unicode lower-casing, not ASCII only.
        {"com.Adobe.Photoshop", AppCategory::work},
        {"COM.GOOGLE.CHROME", AppCategory::browser},
        {"com.s\u212Aylum.luminar", AppCategory::work},   // KELVIN SIGN lower-cases to k
        {"com.apple.safar\u0130", AppCategory::browser},  // İ lower-cases to i + combining dot
        // Only an entry may be the prefix, never the reverse; no substring matches.
        {"com.adobe", AppCategory::other},
        {"com.apple", AppCategory::other},
        {"org.com.adobe.photoshop", AppCategory::other},
        {" com.adobe.photoshop", AppCategory::other},
        {"com.adobe.photoshoq", AppCategory::other},
        {"", AppCategory::other},
        {"unknown", AppCategory::other},
        {"locked", AppCategory::other},
        {"org.gimp.GIMP", AppCategory::other},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Classifier::category(QString::fromUtf8(c.bundleID)), c.expected) << c.bundleID;
}

struct StateCase {
    const char* name;
    bool locked;
    double idle;
    double cpu;
    AppCategory category;
    ActivityState expected;
};

TEST(Classifier, StateRuleWithInclusiveThresholds) {
    using C = AppCategory;
    using S = ActivityState;
    const StateCase cases[] = {
        {"locked beats everything", true, 0, 0, C::work, S::locked},
        {"locked and away and rendering", true, 5000, 400, C::work, S::locked},
        {"locked browser", true, 10, 0, C::browser, S::locked},
        {"work present", false, 0, 0, C::work, S::working},
        {"work just before away", false, 179.9, 90, C::work, S::working},
        {"work away, cpu just below", false, 180, 24.9, C::work, S::idle},
        {"work away, cpu at threshold", false, 180, 25, C::work, S::rendering},
        {"work long away, busy", false, 86400, 200, C::work, S::rendering},
        {"browser away, busy", false, 180, 90, C::browser, S::idle},
        {"other away, busy", false, 180, 90, C::other, S::idle},
        {"communication away, busy", false, 180, 90, C::communication, S::idle},
        {"browser present", false, 10, 0, C::browser, S::offtask},
        {"other present", false, 10, 0, C::other, S::offtask},
        {"mail present", false, 10, 0, C::communication, S::communication},
        {"communication just before away", false, 179.9, 0, C::communication, S::communication},
    };
    const Classifier classifier;
    for (const auto& c : cases)
        EXPECT_EQ(classifier.state(c.locked, c.idle, c.cpu, c.category), c.expected) << c.name;
}

TEST(Classifier, ThresholdsComeFromTheFields) {
    Classifier classifier;
    EXPECT_EQ(classifier.absentAfterSeconds, 180);
    EXPECT_EQ(classifier.renderingCPUPercent, 25);
    classifier.absentAfterSeconds = 60;
    classifier.renderingCPUPercent = 50;
    EXPECT_EQ(classifier.state(false, 60, 49, AppCategory::work), ActivityState::idle);
    EXPECT_EQ(classifier.state(false, 60, 50, AppCategory::work), ActivityState::rendering);
    EXPECT_EQ(classifier.state(false, 59, 50, AppCategory::work), ActivityState::working);
}

}  // namespace
}  // namespace corvi
