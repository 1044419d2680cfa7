// The drawn marks: the tray icon, the trace shape and logo, and the menu's status line,
// measured on their pixels.
#include <gtest/gtest.h>

#include <QPainter>
#include <cmath>
#include <vector>

#include "Palette.h"
#include "ui/CorviIcon.h"
#include "ui/CorviLogo.h"
#include "ui/CorviShape.h"
#include "ui/MenuStatusView.h"
#include "ui/Theme.h"

namespace corvi {
namespace {

using namespace corvi::test;

// Measurements on a drawn image, in device pixels; a pixel's coverage is its alpha / 255.

double areaCoverage(const QImage& img, const QRect& r) {
    double sum = 0;
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x) sum += qAlpha(img.pixel(x, y)) / 255.0;
    return sum;
}
// The stroke width across column x.
double columnCoverage(const QImage& img, int x) {
    return areaCoverage(img, QRect(x, 0, 1, img.height()));
}
// The coverage-weighted mean row of column x, as a pixel-centre coordinate.
double columnCentre(const QImage& img, int x) {
    double sum = 0, weighted = 0;
    for (int y = 0; y < img.height(); ++y) {
        const double a = qAlpha(img.pixel(x, y)) / 255.0;
        sum += a;
        weighted += a * (y + 0.5);
    }
    return sum > 0 ? weighted / sum : -1;
}
// The bounding box of pixels with any coverage inside r; empty when none.
QRect coveredBox(const QImage& img, const QRect& r) {
    QRect box;
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x)
            if (qAlpha(img.pixel(x, y)) > 0) box |= QRect(x, y, 1, 1);
    return box;
}
// The most opaque pixel in r (or the one at its corner), un-premultiplied, alpha kept.
QColor mostOpaque(const QImage& img, const QRect& r) {
    const QImage pm = img.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    QRgb best = pm.pixel(r.topLeft());
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x)
            if (qAlpha(pm.pixel(x, y)) > qAlpha(best)) best = pm.pixel(x, y);
    return QColor::fromRgba(qUnpremultiply(best));
}
QColor straightColor(const QImage& img, int x, int y) {
    return mostOpaque(img, QRect(x, y, 1, 1));
}
// Channels within tolerance (alpha ignored).
bool sameRgb(const QColor& a, const QColor& b, int tolerance = 0) {
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance &&
           std::abs(a.blue() - b.blue()) <= tolerance;
}
std::string describe(const QColor& c) {
    return c.name(QColor::HexArgb).toStdString();
}
// The widget painted alone on a transparent image of its size.
QImage rendered(QWidget& w) {
    QImage img(w.size(), QImage::Format_ARGB32_Premultiplied);
    img.fill(Qt::transparent);
    w.render(&img, QPoint(), QRegion(), QWidget::DrawChildren);
    return img;
}

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

// The panel is the desktop's, not the appearance's: a dark panel under a light theme, or the
// reverse. Near every point of the trace something stands out from either by the 3:1 that
// graphics need.
TEST(CorviIcon, DrawsTraceInTextColourAndDotInPlaceForEveryStateAppearanceAndRatio) {
    const QColor panels[] = {Qt::black, Qt::white};
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
                // The tray's icon carries this very image for each ratio.
                EXPECT_EQ(CorviIcon::statusIcon(dot)
                              .pixmap(QSize(35, 18), r)
                              .toImage()
                              .convertToFormat(QImage::Format_ARGB32_Premultiplied),
                          img);

                // The dot: exact colour at its centre, an 8-wide disc in the square at (27, 5).
                // Nothing of the trace or its halo leaves the 18-unit glyph square.
                EXPECT_TRUE(sameRgb(straightColor(img, 31 * r, 9 * r), dot))
                    << describe(straightColor(img, 31 * r, 9 * r));
                EXPECT_EQ(qAlpha(img.pixel(31 * r, 9 * r)), 255);
                const QRect right(18 * r, 0, 17 * r, 18 * r);
                EXPECT_EQ(coveredBox(img, right), QRect(27 * r, 5 * r, 8 * r, 8 * r));
                // Antialiasing at 1× loses about 2% of the area; a disc one pixel off would lose 23%.
                EXPECT_NEAR(areaCoverage(img, right), M_PI * 16 * r * r, 0.04 * M_PI * 16 * r * r);

                // On the panel the appearance suits, the halo vanishes and the trace is as
                // drawn: 2.25 wide across both flat runs, centred on the baseline y = 9.
                const QImage ink = inkOf(over(img, panels[!dark]), panels[!dark], Theme::tx());
                for (double x : {3.75, 14.25}) {
                    const int col = int(x * r);
                    EXPECT_NEAR(columnCoverage(ink, col), 2.25 * r, 0.1 * r) << "at x " << x;
                    EXPECT_NEAR(columnCentre(ink, col), 9.0 * r, 0.1 * r) << "at x " << x;
                }
                const QImage shown[] = {over(img, panels[0]), over(img, panels[1])};
                for (const QPointF& p : pointsOnTrace()) {
                    const QColor c = straightColor(img, int(p.x() * r), int(p.y() * r));
                    EXPECT_GE(c.alpha(), 100) << "at " << p.x() << "," << p.y();
                    EXPECT_TRUE(sameRgb(c, Theme::tx(), 3))
                        << "at " << p.x() << "," << p.y() << ": " << describe(c);
                    for (int i : {0, 1}) {
                        double best = 1;
                        for (int y = int((p.y() - 2) * r); y <= int((p.y() + 2) * r); ++y)
                            for (int x = int((p.x() - 2) * r); x <= int((p.x() + 2) * r); ++x)
                                best = std::max(best, contrast(shown[i].pixelColor(x, y), panels[i]));
                        EXPECT_GE(best, 3.0)
                            << "on " << describe(panels[i]) << " near " << p.x() << "," << p.y();
                    }
                }
                // Its end cap on the left, inside the glyph square.
                EXPECT_EQ(coveredBox(ink, QRect(0, 0, 17 * r, 18 * r)).left(), int(1.125 * r));
            }
        }
    }
    usePalette(false);
}

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
        {"offset, wide: x follows the width",
         {10, 20, 96, 24},
         {{22, 32}, {38, 32}, {50, 40}, {66, 24}, {78, 32}, {94, 32}}},
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
            << describe(mostOpaque(img, img.rect()));
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

TEST(MenuStatusView, DrawsDotTextAndReachabilityWithoutOverlap) {
    struct Case {
        const char* name;
        QColor dot;
        const char* text;
        bool online;
    };
    const Case cases[] = {
        {"tracking, online", Theme::green(), "Coletando", true},
        {"no permission, offline", Theme::yellow(), "Sem permissão", false},
        {"long text widens the row", Theme::red(), "A status text far longer than the menu", true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        MenuStatusView view;
        view.setState(c.dot, QString::fromUtf8(c.text), c.online);
        view.resize(view.sizeHint());
        const QImage img = rendered(view);
        ASSERT_EQ(img.height(), 28);
        EXPECT_GE(img.width(), 180);

        // The 9-wide dot after 14 of padding, centred on the middle row (9.5 to 18.5), in the status colour.
        EXPECT_EQ(coveredBox(img, QRect(0, 0, 14 + 9 + 4, 28)), QRect(14, 9, 9, 10));
        EXPECT_TRUE(sameRgb(straightColor(img, 18, 14), c.dot));

        // Ink runs from the text at 32 to the reachability word ending near width - 14, with a
        // clear gap of at least 12 + 2 × 9 between the two words.
        std::vector<int> ink;  // columns with any ink
        for (int x = 14 + 9 + 1; x < img.width(); ++x)
            if (columnCoverage(img, x) > 0) ink.push_back(x);
        ASSERT_FALSE(ink.empty());
        EXPECT_GE(ink.front(), 32);
        EXPECT_LE(ink.back(), img.width() - 14);
        EXPECT_GE(ink.back(), img.width() - 16);
        int widest = 0;
        for (std::size_t i = 1; i < ink.size(); ++i) widest = std::max(widest, ink[i] - ink[i - 1] - 1);
        EXPECT_GE(widest, 30);

        // "Online" in the theme's green; "Offline" in the secondary text colour.
        const QColor reach = mostOpaque(img, QRect(img.width() - 30, 0, 16, 28));
        const QColor expected = c.online ? Theme::green() : view.offlineColor();
        EXPECT_TRUE(sameRgb(reach, expected, 3)) << describe(reach);
        const QColor text = mostOpaque(img, QRect(32, 0, 20, 28));
        EXPECT_TRUE(sameRgb(text, view.textColor(), 3)) << describe(text);
    }
}

}  // namespace
}  // namespace corvi
