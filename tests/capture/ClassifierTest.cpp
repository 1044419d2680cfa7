#include <gtest/gtest.h>

#include <vector>

#include "capture/Classifier.h"

namespace corvi {
namespace {

TEST(Classifier, CategoryIsAPrefixTestOnTheLowerCasedId) {
    struct Group {
        AppCategory expected;
        std::vector<const char*> bundleIDs;
    };
    const Group groups[] = {
        // Every list entry, then prefixes that need no dot, then full Unicode lower-casing
        // (KELVIN SIGN lower-cases to k, İ to i + combining dot).
        {AppCategory::work,
         {"com.adobe.lightroomclassic",
          "com.adobe.lightroom",
          "com.adobe.photoshop",
          "com.adobe.bridge",
          "com.adobe.illustrator",
          "com.adobe.indesign",
          "com.adobe.aftereffects",
          "com.adobe.camera-raw",
          "com.phaseone.captureone",
          "com.captureone",
          "com.camerabits.photomechanic",
          "com.skylum",
          "com.pixelmatorteam",
          "com.pixellu.smartalbums",
          "com.pixellu",
          "com.fundy",
          "tech.stonefold.ferrodock",
          "com.adobe.photoshop.beta",
          "com.adobe.photoshopxyz",
          "com.Adobe.Photoshop",
          "com.s\u212Aylum.luminar"}},
        {AppCategory::browser,
         {"com.apple.safari", "com.google.chrome", "org.mozilla.firefox", "com.microsoft.edgemac",
          "company.thebrowser.browser", "com.brave.browser", "com.operasoftware.opera",
          "com.apple.safaritechnologypreview", "org.mozilla.firefox-esr", "COM.GOOGLE.CHROME",
          "com.apple.safar\u0130"}},
        {AppCategory::communication,
         {"com.apple.mail", "com.tinyspeck.slackmacgap", "com.microsoft.teams", "net.whatsapp.whatsapp",
          "com.apple.messages", "ru.keepcoder.telegram", "com.microsoft.teams2", "Net.WhatsApp.WhatsApp"}},
        // Only an entry may be the prefix, never the reverse or a substring.
        {AppCategory::other,
         {"com.adobe", "com.apple", "org.com.adobe.photoshop", " com.adobe.photoshop", "com.adobe.photoshoq",
          "", "unknown", "locked", "org.gimp.GIMP"}},
    };
    for (const auto& g : groups)
        for (const char* id : g.bundleIDs)
            EXPECT_EQ(Classifier::category(QString::fromUtf8(id)), g.expected) << id;
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

}  // namespace
}  // namespace corvi
