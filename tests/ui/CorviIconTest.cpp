#include <gtest/gtest.h>

#include <QPainter>
#include <QPixmap>
#include <cmath>

#include "ImageProbe.h"
#include "ui/CorviIcon.h"
#include "ui/Theme.h"

namespace corvi {
namespace {

using namespace corvi::test;

// Logical points on the trace: each segment's quarter, middle and three-quarter points.
std::vector<QPointF> pointsOnTrace() {
    std::vector<QPointF> out;
    for (std::size_t i = 0; i + 1 < CorviIcon::points.size(); ++i)
        for (double t : {0.25, 0.5, 0.75})
            out.push_back((CorviIcon::points[i] * (1 - t) + CorviIcon::points[i + 1] * t) * 0.75);
    return out;
}

// The icon as a panel of `panel` shows it. Sixteen bits a channel, so that a halo of the
// panel's own colour leaves the panel exactly as it was.
QImage over(const QImage& icon, const QColor& panel) {
    QImage shown(icon.size(), QImage::Format_RGBX64);
    shown.setDevicePixelRatio(icon.devicePixelRatio());
    shown.fill(panel);
    QPainter(&shown).drawImage(QPointF(0, 0), icon);
    return shown;
}

// How much of each pixel of `shown` is `ink` rather than `panel`, as the alpha of an image,
// so the coverage probes measure the ink alone.
QImage inkOf(const QImage& shown, const QColor& panel, const QColor& ink) {
    const double dr = ink.redF() - panel.redF(), dg = ink.greenF() - panel.greenF(),
                 db = ink.blueF() - panel.blueF();
    QImage out(shown.size(), QImage::Format_ARGB32);
    for (int y = 0; y < shown.height(); ++y)
        for (int x = 0; x < shown.width(); ++x) {
            const QColor c = shown.pixelColor(x, y);
            const double share = ((c.redF() - panel.redF()) * dr + (c.greenF() - panel.greenF()) * dg +
                                  (c.blueF() - panel.blueF()) * db) /
                                 (dr * dr + dg * dg + db * db);
            out.setPixel(x, y, qRgba(0, 0, 0, qRound(255 * qBound(0.0, share, 1.0))));
        }
    return out;
}

// The WCAG contrast ratio, 1 (none) to 21 (black on white).
double contrast(const QColor& a, const QColor& b) {
    const auto luminance = [](const QColor& c) {
        const auto linear = [](double v) {
            return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
        };
        return 0.2126 * linear(c.redF()) + 0.7152 * linear(c.greenF()) + 0.0722 * linear(c.blueF());
    };
    const double la = luminance(a), lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

TEST(CorviIcon, DrawsTraceInTextColourAndDotInPlaceForEveryStateAppearanceAndRatio) {
    for (bool dark : {false, true}) {
        usePalette(dark);
        ASSERT_EQ(Theme::isDark(), dark);
        for (const auto& [name, dot] : {std::pair{"tracking", QColor(47, 158, 47)},
                                        {"noPermission", Theme::yellowNS()},
                                        {"paused", Theme::inactiveNS()}}) {
            for (int r : {1, 2}) {
                SCOPED_TRACE(std::string(name) + (dark ? " dark " : " light ") + std::to_string(r) + "x");
                const QImage img = CorviIcon::statusImage(dot, r);
                ASSERT_EQ(img.size(), QSize(35 * r, 18 * r));
                EXPECT_EQ(img.devicePixelRatio(), r);

                // The dot: exact colour at its centre, an 8-wide disc in the square at (27, 5).
                // Nothing of the trace or its halo leaves the 18-unit glyph square.
                EXPECT_TRUE(sameRgb(straightColor(img, 31 * r, 9 * r), dot))
                    << describe(straightColor(img, 31 * r, 9 * r)).toStdString();
                EXPECT_EQ(qAlpha(img.pixel(31 * r, 9 * r)), 255);
                const QRect right(18 * r, 0, 17 * r, 18 * r);
                EXPECT_EQ(coveredBox(img, right), QRect(27 * r, 5 * r, 8 * r, 8 * r));
                // Antialiasing at 1× loses about 2% of the area; a disc one pixel off would lose 23%.
                EXPECT_NEAR(areaCoverage(img, right), M_PI * 16 * r * r, 0.04 * M_PI * 16 * r * r);

                // On the panel the appearance suits, the halo vanishes and the trace is as
                // drawn: 2.25 wide across both flat runs, centred on the baseline y = 9.
                const QImage ink =
                    inkOf(over(img, dark ? Qt::black : Qt::white), dark ? Qt::black : Qt::white, Theme::tx());
                for (double x : {3.75, 14.25}) {
                    const int col = int(x * r);
                    EXPECT_NEAR(columnCoverage(ink, col), 2.25 * r, 0.1 * r) << "at x " << x;
                    EXPECT_NEAR(columnCentre(ink, col), 9.0 * r, 0.1 * r) << "at x " << x;
                }
                for (const QPointF& p : pointsOnTrace()) {
                    const QColor c = straightColor(img, int(p.x() * r), int(p.y() * r));
                    EXPECT_GE(c.alpha(), 100) << "at " << p.x() << "," << p.y();
                    EXPECT_TRUE(sameRgb(c, Theme::tx(), 3))
                        << "at " << p.x() << "," << p.y() << ": " << describe(c).toStdString();
                }
                // Its end cap on the left, inside the glyph square.
                EXPECT_EQ(coveredBox(ink, QRect(0, 0, 17 * r, 18 * r)).left(), int(1.125 * r));
            }
        }
    }
    usePalette(false);
}

// The panel is the desktop's, not the appearance's: a dark panel under a light theme, or the
// reverse. Near every point of the trace something stands out from the panel by at least the
// 3:1 that graphics need.
TEST(CorviIcon, TraceStandsOutOnDarkAndLightPanelsInEitherAppearance) {
    for (bool dark : {false, true}) {
        usePalette(dark);
        for (const QColor& panel : {QColor(Qt::black), QColor(Qt::white)}) {
            for (int r : {1, 2}) {
                SCOPED_TRACE(std::string(dark ? "dark" : "light") + " appearance on " +
                             panel.name().toStdString() + " " + std::to_string(r) + "x");
                const QImage shown = over(CorviIcon::statusImage(Theme::inactiveNS(), r), panel);
                for (const QPointF& p : pointsOnTrace()) {
                    double best = 1;
                    for (int y = int((p.y() - 2) * r); y <= int((p.y() + 2) * r); ++y)
                        for (int x = int((p.x() - 2) * r); x <= int((p.x() + 2) * r); ++x)
                            best = std::max(best, contrast(shown.pixelColor(x, y), panel));
                    EXPECT_GE(best, 3.0) << "near " << p.x() << "," << p.y();
                }
            }
        }
    }
    usePalette(false);
}

TEST(CorviIcon, TrayIconCarriesBothRatios) {
    const QIcon icon = CorviIcon::statusIcon(Theme::yellowNS());
    for (qreal r : {1.0, 2.0}) {
        SCOPED_TRACE(r);
        const QPixmap pm = icon.pixmap(QSize(35, 18), r);
        EXPECT_EQ(pm.size(), QSize(35 * r, 18 * r));
        EXPECT_EQ(pm.toImage().convertToFormat(QImage::Format_ARGB32_Premultiplied),
                  CorviIcon::statusImage(Theme::yellowNS(), r));
    }
}

}  // namespace
}  // namespace corvi
