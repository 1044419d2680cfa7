#include <gtest/gtest.h>

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
                EXPECT_TRUE(sameRgb(straightColor(img, 31 * r, 9 * r), dot))
                    << describe(straightColor(img, 31 * r, 9 * r)).toStdString();
                EXPECT_EQ(qAlpha(img.pixel(31 * r, 9 * r)), 255);
                const QRect right(17 * r, 0, 18 * r, 18 * r);  // past the trace's end cap
                EXPECT_EQ(coveredBox(img, right), QRect(27 * r, 5 * r, 8 * r, 8 * r));
                // Antialiasing at 1× loses about 2% of the area; a disc one pixel off would lose 23%.
                EXPECT_NEAR(areaCoverage(img, right), M_PI * 16 * r * r, 0.04 * M_PI * 16 * r * r);

                // The stroke: 2.25 wide across both flat runs, centred on the baseline y = 9.
                for (double x : {3.75, 14.25}) {
                    const int col = int(x * r);
                    EXPECT_NEAR(columnCoverage(img, col), 2.25 * r, 0.1 * r) << "at x " << x;
                    EXPECT_NEAR(columnCentre(img, col), 9.0 * r, 0.1 * r) << "at x " << x;
                }
                for (const QPointF& p : pointsOnTrace()) {
                    const QColor c = straightColor(img, int(p.x() * r), int(p.y() * r));
                    EXPECT_GE(c.alpha(), 100) << "at " << p.x() << "," << p.y();
                    EXPECT_TRUE(sameRgb(c, Theme::tx(), 3))
                        << "at " << p.x() << "," << p.y() << ": " << describe(c).toStdString();
                }
                // The trace stays inside its 18-unit glyph square.
                EXPECT_EQ(coveredBox(img, QRect(0, 0, 17 * r, 18 * r)).left(), int(1.125 * r));
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
