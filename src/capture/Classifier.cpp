#include "capture/Classifier.h"

#include <QStringView>

namespace corvi {
namespace {

// The macOS bundle IDs first, then the Linux IDs (desktop-file, Flatpak and window-class
// names) of the same kind of application.
constexpr QStringView workPrefixes[]{
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
    u"org.gimp.gimp",
    u"gimp",
    u"org.kde.krita",
    u"krita",
    u"org.inkscape.inkscape",
    u"inkscape",
    u"org.darktable.darktable",
    u"darktable",
    u"com.rawtherapee.rawtherapee",
    u"rawtherapee",
    u"net.scribus.scribus",
    u"scribus",
    u"org.kde.digikam",
    u"digikam",
    u"org.entangle_photo.manager",
    u"entangle",
};

constexpr QStringView browserPrefixes[]{
    u"com.apple.safari",
    u"com.google.chrome",
    u"org.mozilla.firefox",
    u"com.microsoft.edgemac",
    u"company.thebrowser.browser",
    u"com.brave.browser",
    u"com.operasoftware.opera",
    u"firefox",
    u"org.mozilla.firefox",
    u"chromium",
    u"org.chromium.chromium",
    u"google-chrome",
    u"brave-browser",
    u"microsoft-edge",
    u"com.microsoft.edge",
    u"opera",
    u"vivaldi",
    u"com.vivaldi.vivaldi",
    u"org.gnome.epiphany",
    u"epiphany",
    u"org.kde.falkon",
    u"falkon",
    u"librewolf",
    u"io.gitlab.librewolf-community",
};

constexpr QStringView communicationPrefixes[]{
    u"com.apple.mail",
    u"com.tinyspeck.slackmacgap",
    u"com.microsoft.teams",
    u"net.whatsapp.whatsapp",
    u"com.apple.messages",
    u"ru.keepcoder.telegram",
    u"org.mozilla.thunderbird",
    u"thunderbird",
    u"org.gnome.evolution",
    u"evolution",
    u"org.kde.kmail",
    u"kmail",
    u"com.slack.slack",
    u"slack",
    u"teams-for-linux",
    u"com.github.ismaelmartinez.teams_for_linux",
    u"org.telegram.desktop",
    u"telegram",
    u"org.signal.signal",
    u"signal",
    u"com.discordapp.discord",
    u"discord",
    u"us.zoom.zoom",
    u"zoom",
};

template <std::size_t N>
bool anyPrefix(const QStringView (&prefixes)[N], const QString& id) {
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
