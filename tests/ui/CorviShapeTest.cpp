#include <gtest/gtest.h>

#include <vector>

#include "ImageProbe.h"
#include "ui/CorviLogo.h"
#include "ui/CorviShape.h"
#include "ui/Theme.h"

namespace corvi {
namespace {

using namespace corvi::test;

TEST(CorviShape, StretchesTheOpenTraceOverAnyRectangle) {
    struct Case {
        const char* name;
        QRectF rect;
        std::vector<QPointF> through;
    };
    const Case cases[] = {
        {"48 square at the origin",
         {0, 0, 48, 48},
         {{6, 24}, {14, 24}, {20, 40}, {28, 8}, {34, 24}, {42, 24}}},
        {"offset square", {10, 20, 24, 24}, {{13, 32}, {17, 32}, {20, 40}, {24, 24}, {27, 32}, {31, 32}}},
        {"wide: x follows the width",
         {0, 0, 96, 24},
         {{12, 12}, {28, 12}, {40, 20}, {56, 4}, {68, 12}, {84, 12}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const QPainterPath path = CorviShape::path(c.rect);
        // Six corners and nothing after: a closed path would end with a line back to the start.
        ASSERT_EQ(path.elementCount(), 6);
        EXPECT_TRUE(path.elementAt(0).isMoveTo());
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(QPointF(path.elementAt(i)), c.through[i]) << "point " << i;
            if (i > 0) {
                EXPECT_TRUE(path.elementAt(i).isLineTo()) << "point " << i;
            }
        }
        EXPECT_NE(path.currentPosition(), QPointF(path.elementAt(0)));
    }
}

TEST(CorviLogo, StrokesATenthOfItsSizeInItsColour) {
    struct Case {
        const char* name;
        qreal size;
        QColor color;
        double width;
    };
    const Case cases[] = {
        {"sign-in header", 26, QColor(0x2F, 0x70, 0xD1), 2.6},
        {"size 48", 48, QColor(200, 30, 30), 4.8},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CorviLogo logo(c.size, c.color);
        ASSERT_EQ(logo.size(), QSize(c.size, c.size));
        const QImage img = rendered(logo);
        // Across the first flat run (grid x 3 to 7), centred on the baseline (grid y 12).
        const int col = int(5.0 / 24 * c.size);
        EXPECT_NEAR(columnCoverage(img, col), c.width, 0.1);
        EXPECT_NEAR(columnCentre(img, col), c.size / 2, 0.1);
        EXPECT_TRUE(sameRgb(mostOpaque(img, img.rect()), c.color, 2))
            << describe(mostOpaque(img, img.rect())).toStdString();
        // Round caps stay inside the square: the first column is empty, the trace starts at x 3.
        EXPECT_EQ(coveredBox(img, img.rect()).left(), int(3.0 / 24 * c.size - c.width / 2));
    }
}

TEST(CorviLogo, ThemeColourFollowsTheAppearance) {
    CorviLogo logo(30, &Theme::accent);
    for (const auto& [dark, accent] :
         {std::pair{true, QColor(0x39, 0x87, 0xE5)}, {false, QColor(0x2F, 0x70, 0xD1)}}) {
        usePalette(dark);
        EXPECT_TRUE(sameRgb(mostOpaque(rendered(logo), logo.rect()), accent, 2)) << dark;
    }
}

}  // namespace
}  // namespace corvi
