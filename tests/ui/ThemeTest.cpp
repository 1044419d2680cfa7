#include <gtest/gtest.h>

#include <QDBusVariant>
#include <QScreen>
#include <QTest>
#include <QWidget>

#include "Palette.h"
#include "support/BusStandIn.h"
#include "ui/Appearance.h"
#include "ui/Theme.h"
#include "ui/ThemedWidgets.h"

namespace corvi {
namespace {

using namespace corvi::test;

const QString kAppearance = QStringLiteral("org.freedesktop.appearance");
const QString kScheme = QStringLiteral("color-scheme");
const QString kPortalPath = QStringLiteral("/org/freedesktop/portal/desktop");

enum class Wrap { VariantInVariant, Variant, NotFound };

// A stand-in desktop portal on this program's session bus; it answers the colour scheme as set.
class StandInPortal {
  public:
    bool start() { return standIn_.claim(QStringLiteral("org.freedesktop.portal.Desktop")); }
    void stop() { standIn_.release(); }
    void answer(const QVariant& value, Wrap wrap) {
        QMutexLocker lock(&mutex_);
        value_ = value;
        wrap_ = wrap;
    }
    int reads() const { return static_cast<int>(standIn_.received().size()); }
    void emitSettingChanged(const QString& ns, const QString& key, const QVariant& value) {
        QDBusMessage signal = QDBusMessage::createSignal(
            kPortalPath, QStringLiteral("org.freedesktop.portal.Settings"), QStringLiteral("SettingChanged"));
        signal << ns << key << QVariant::fromValue(QDBusVariant(value));
        standIn_.send(signal);
    }

  private:
    void read(const QDBusMessage& call, QDBusConnection& bus) {
        QMutexLocker lock(&mutex_);
        if (wrap_ == Wrap::NotFound || call.member() != u"Read" || call.arguments().value(0) != kAppearance ||
            call.arguments().value(1) != kScheme) {
            bus.send(call.createErrorReply(QStringLiteral("org.freedesktop.portal.Error.NotFound"), {}));
            return;
        }
        const QVariant inner = wrap_ == Wrap::Variant ? value_ : QVariant::fromValue(QDBusVariant(value_));
        bus.send(call.createReply(QVariant::fromValue(QDBusVariant(inner))));
    }

    QMutex mutex_;
    QVariant value_;
    Wrap wrap_ = Wrap::NotFound;
    BusStandIn standIn_{qEnvironmentVariable("DBUS_SESSION_BUS_ADDRESS"), kPortalPath,
                        [this](const QDBusMessage& call, QDBusConnection& bus) { read(call, bus); }};
};

// These run in order on one application: the appearance is a process-wide cache.

// A palette change alone is enough without the portal: the shown view's test sees that.
TEST(Theme, PortalAnswerOverridesThePalette) {
    StandInPortal portal;
    ASSERT_TRUE(portal.start());
    struct Case {
        const char* name;
        QVariant value;
        Wrap wrap;
        QColor window, text;  // the palette's
        bool dark;
    };
    const QColor black(0x10, 0x10, 0x10), dim(0x40, 0x40, 0x40), grey(0x80, 0x80, 0x80),
        pale(0xc0, 0xc0, 0xc0), white(0xff, 0xff, 0xff);
    const Case cases[] = {
        {"prefer dark, variant in variant", 1u, Wrap::VariantInVariant, pale, black, true},
        {"prefer dark, single variant", 1u, Wrap::Variant, pale, black, true},
        {"prefer dark as a signed number", 1, Wrap::VariantInVariant, pale, black, true},
        {"no preference beats a dark palette", 0u, Wrap::VariantInVariant, black, white, false},
        {"text instead of a number", "1", Wrap::VariantInVariant, black, white, false},
        // A key unknown to the portal: the palette decides, dark when its text is the lighter.
        {"pale window, white text", QVariant(), Wrap::NotFound, pale, white, true},
        {"dim window, darker text", QVariant(), Wrap::NotFound, dim, black, false},
        {"window as light as text", QVariant(), Wrap::NotFound, grey, grey, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        portal.answer(c.value, c.wrap);
        usePalette(c.window, c.text);
        Appearance::instance()->refresh();
        EXPECT_EQ(Theme::isDark(), c.dark);
    }

    // The answer is cached: drawing reads colours freely without asking the bus.
    const int reads = portal.reads();
    for (int i = 0; i < 1000; ++i) (void)Theme::accent();
    EXPECT_EQ(portal.reads(), reads);
    usePalette(false);
}

// Waits until the middle of `w` on screen shows `c`; names the colour shown when it does not.
::testing::AssertionResult shows(QWidget& w, const QColor& c) {
    const auto shown = [&] {
        return w.screen()->grabWindow(w.winId()).toImage().pixelColor(w.width() / 2, w.height() / 2);
    };
    if (QTest::qWaitFor([&] { return shown() == c; })) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << shown().name(QColor::HexArgb).toStdString();
}

TEST(Theme, ShownViewRepaintsWhenTheDesktopSwitches) {
    usePalette(false);
    StandInPortal portal;
    portal.answer(1u, Wrap::VariantInVariant);
    ASSERT_TRUE(portal.start());
    // The portal appearing after us is read without being asked.
    ASSERT_TRUE(QTest::qWaitFor([] { return Theme::isDark(); }));

    Capsule view(&Theme::surf);  // filled in the theme's surface colour
    view.resize(80, 50);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    const QColor dark = QColor::fromRgb(0x17181B), light = QColor::fromRgb(0xFBFBF8);
    ASSERT_TRUE(shows(view, dark));

    // No preference, dark, prefer light.
    for (const auto& [scheme, colour] : {std::pair{0u, light}, {1u, dark}, {2u, light}}) {
        portal.emitSettingChanged(kAppearance, kScheme, QVariant(scheme));
        EXPECT_TRUE(shows(view, colour)) << scheme;
    }

    // Other settings are not the colour scheme.
    portal.emitSettingChanged(kAppearance, QStringLiteral("accent-color"), QVariant(1u));
    portal.emitSettingChanged(QStringLiteral("org.gnome.desktop.interface"), kScheme, QVariant(1u));
    QTest::qWait(300);
    EXPECT_TRUE(shows(view, light));

    // The portal going away hands the decision back to the palette.
    usePalette(true);
    EXPECT_TRUE(shows(view, light));
    portal.stop();
    EXPECT_TRUE(shows(view, dark));
    usePalette(false);
    EXPECT_TRUE(shows(view, light));
}

}  // namespace
}  // namespace corvi
