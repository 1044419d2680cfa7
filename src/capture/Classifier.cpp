#include "capture/Classifier.h"

#include <QStringView>
#include <array>

namespace corvi {
namespace {

constexpr std::array<QStringView, 17> workPrefixes{
    u"com.adobe.lightroomclassic",
    u"com.adobe.lightroom",
    u"com.adobe.photoshop",
    u"com.adobe.bridge",
    u"com.adobe.illustrator",
    u"com.adobe.indesign",
    u"com.adobe.aftereffects",
    u"com.adobe.camera-raw",
    u"com.phaseone.captureone",
    u"com.captureone",
    u"com.camerabits.photomechanic",
    u"com.skylum",
    u"com.pixelmatorteam",
    u"com.pixellu.smartalbums",
    u"com.pixellu",
    u"com.fundy",
    u"tech.stonefold.ferrodock",
};

constexpr std::array<QStringView, 7> browserPrefixes{
    u"com.apple.safari",           u"com.google.chrome", u"org.mozilla.firefox",     u"com.microsoft.edgemac",
    u"company.thebrowser.browser", u"com.brave.browser", u"com.operasoftware.opera",
};

constexpr std::array<QStringView, 6> communicationPrefixes{
    u"com.apple.mail",        u"com.tinyspeck.slackmacgap", u"com.microsoft.teams",
    u"net.whatsapp.whatsapp", u"com.apple.messages",        u"ru.keepcoder.telegram",
};

template <std::size_t N>
bool anyPrefix(const std::array<QStringView, N>& prefixes, const QString& id) {
    for (QStringView p : prefixes)
        if (id.startsWith(p)) return true;
    return false;
}

}  // namespace

AppCategory Classifier::category(const QString& bundleID) {
    const QString id = bundleID.toLower();
    if (anyPrefix(workPrefixes, id)) return AppCategory::work;
    if (anyPrefix(browserPrefixes, id)) return AppCategory::browser;
    if (anyPrefix(communicationPrefixes, id)) return AppCategory::communication;
    return AppCategory::other;
}

ActivityState Classifier::state(bool locked, double idleSeconds, double cpuPercent,
                                AppCategory category) const {
    if (locked) return ActivityState::locked;
    if (idleSeconds >= absentAfterSeconds)
        return cpuPercent >= renderingCPUPercent && category == AppCategory::work ? ActivityState::rendering
                                                                                  : ActivityState::idle;
    switch (category) {
        case AppCategory::work:
            return ActivityState::working;
        case AppCategory::communication:
            return ActivityState::communication;
        case AppCategory::browser:
        case AppCategory::other:
            break;
    }
    return ActivityState::offtask;
}

}  // namespace corvi
