#include <gtest/gtest.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QPainter>
#include <QPalette>
#include <QScreen>
#include <QTest>
#include <QWidget>
#include <functional>

#include "ImageProbe.h"
#include "StandInPortal.h"
#include "ui/Appearance.h"
#include "ui/Theme.h"

namespace corvi {
namespace {

using namespace corvi::test;
using Wrap = StandInSettings::Wrap;

const QString kAppearance = QStringLiteral("org.freedesktop.appearance");
const QString kScheme = QStringLiteral("color-scheme");

bool waitFor(const std::function<bool()>& done, int ms = 3000) {
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > ms) return false;
        QTest::qWait(10);
    }
    return true;
}

void usePalette(bool dark) {
    QPalette p = QApplication::palette();
    p.setColor(QPalette::Window, dark ? QColor(0x20, 0x20, 0x22) : QColor(0xef, 0xef, 0xef));
    p.setColor(QPalette::WindowText, dark ? QColor(0xf0, 0xf0, 0xf0) : QColor(0x10, 0x10, 0x10));
    QApplication::setPalette(p);
}

// A few colours stand for the palette: a surface, a text, the one with equal values.
void expectColours(bool dark) {
    EXPECT_EQ(Theme::surf(), QColor::fromRgb(dark ? 0x17181B : 0xFBFBF8));
    EXPECT_EQ(Theme::tx(), QColor::fromRgb(dark ? 0xF0EFEB : 0x17181B));
    EXPECT_EQ(Theme::red(), QColor::fromRgb(0xE34948));
    EXPECT_EQ(Theme::yellowNS(), QColor(237, 161, 0));
}

// These run in order on one application: the appearance is a process-wide cache.

TEST(Theme, WithoutPortalThePaletteDecides) {
    struct Case {
        const char* name;
        QColor window, text;
        bool dark;
    };
    const Case cases[] = {
        {"light palette", QColor(0xef, 0xef, 0xef), QColor(0x10, 0x10, 0x10), false},
        {"dark palette", QColor(0x20, 0x20, 0x22), QColor(0xf0, 0xf0, 0xf0), true},
        {"dim window, darker text", QColor(0x40, 0x40, 0x40), QColor(0x10, 0x10, 0x10), false},
        {"pale window, white text", QColor(0xc0, 0xc0, 0xc0), QColor(0xff, 0xff, 0xff), true},
        {"window as light as text", QColor(0x80, 0x80, 0x80), QColor(0x80, 0x80, 0x80), false},
    };
    const QPalette original = QApplication::palette();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        QPalette p = original;
        p.setColor(QPalette::Window, c.window);
        p.setColor(QPalette::WindowText, c.text);
        QApplication::setPalette(p);  // no explicit refresh: the palette change is enough
        EXPECT_EQ(Theme::isDark(), c.dark);
        expectColours(c.dark);
    }
    QApplication::setPalette(original);
}

TEST(Theme, PortalAnswerOverridesThePalette) {
    StandInPortal portal;
    ASSERT_TRUE(portal.start());
    struct Case {
        const char* name;
        QVariant value;
        Wrap wrap;
        bool darkPalette;
        bool dark;
    };
    const Case cases[] = {
        {"prefer dark, variant in variant", QVariant(1u), Wrap::VariantInVariant, false, true},
        {"prefer dark, single variant", QVariant(1u), Wrap::Variant, false, true},
        {"prefer dark as a signed number", QVariant(1), Wrap::VariantInVariant, false, true},
        {"no preference beats a dark palette", QVariant(0u), Wrap::VariantInVariant, true, false},
        {"prefer light", QVariant(2u), Wrap::VariantInVariant, true, false},
        {"unknown value: no best match", QVariant(7u), Wrap::VariantInVariant, true, false},
        {"text instead of a number", QVariant(QStringLiteral("1")), Wrap::VariantInVariant, true, false},
        {"key unknown to the portal, dark palette", QVariant(), Wrap::NotFound, true, true},
        {"key unknown to the portal, light palette", QVariant(), Wrap::NotFound, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        portal.answer(c.value, c.wrap);
        usePalette(c.darkPalette);
        Appearance::instance()->refresh();
        EXPECT_EQ(Theme::isDark(), c.dark);
        expectColours(c.dark);
    }

    // The answer is cached: drawing reads colours freely without asking the bus.
    const int reads = portal.reads();
    for (int i = 0; i < 1000; ++i) (void)Theme::accent();
    EXPECT_EQ(portal.reads(), reads);
    usePalette(false);
}

// Paints its whole area in the theme's surface colour.
class Surface : public QWidget {
  protected:
    void paintEvent(QPaintEvent*) override { QPainter(this).fillRect(rect(), Theme::surf()); }
};

QColor onScreen(QWidget& w) {
    return w.screen()->grabWindow(w.winId()).toImage().pixelColor(w.width() / 2, w.height() / 2);
}

TEST(Theme, ShownViewRepaintsWhenTheDesktopSwitches) {
    usePalette(false);
    StandInPortal portal;
    portal.answer(1u, Wrap::VariantInVariant);
    ASSERT_TRUE(portal.start());
    // The portal appearing after us is read without being asked.
    ASSERT_TRUE(waitFor([] { return Theme::isDark(); }));

    Surface view;
    view.resize(80, 50);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    const QColor dark = QColor::fromRgb(0x17181B), light = QColor::fromRgb(0xFBFBF8);
    ASSERT_TRUE(waitFor([&] { return onScreen(view) == dark; })) << describe(onScreen(view)).toStdString();

    struct Step {
        const char* name;
        QString ns, key;
        QVariant value;
        QColor shown;
    };
    const Step steps[] = {
        {"switched to no preference", kAppearance, kScheme, QVariant(0u), light},
        {"switched to dark", kAppearance, kScheme, QVariant(1u), dark},
        {"switched to prefer light", kAppearance, kScheme, QVariant(2u), light},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.name);
        portal.emitSettingChanged(s.ns, s.key, s.value);
        EXPECT_TRUE(waitFor([&] { return onScreen(view) == s.shown; }))
            << describe(onScreen(view)).toStdString();
    }

    // Other settings are not the colour scheme.
    portal.emitSettingChanged(kAppearance, QStringLiteral("accent-color"), QVariant(1u));
    portal.emitSettingChanged(QStringLiteral("org.gnome.desktop.interface"), kScheme, QVariant(1u));
    QTest::qWait(300);
    EXPECT_EQ(onScreen(view), light);

    // The portal going away hands the decision back to the palette.
    usePalette(true);
    EXPECT_EQ(onScreen(view), light);
    portal.stop();
    EXPECT_TRUE(waitFor([&] { return onScreen(view) == dark; })) << describe(onScreen(view)).toStdString();
    usePalette(false);
    EXPECT_TRUE(waitFor([&] { return onScreen(view) == light; })) << describe(onScreen(view)).toStdString();
}

}  // namespace
}  // namespace corvi
