#pragma once

#include <QColor>
#include <QImage>
#include <QRect>
#include <QString>

class QWidget;

namespace corvi::test {

// The widget painted alone on a transparent image of its size.
QImage rendered(QWidget& w);

// Measurements on a drawn image, in device pixels.

// Sum of coverage (alpha / 255) in column x: the stroke width across it.
double columnCoverage(const QImage& img, int x);
// The coverage-weighted mean row of column x, as a pixel-centre coordinate.
double columnCentre(const QImage& img, int x);
// Sum of coverage over a rectangle: the drawn area.
double areaCoverage(const QImage& img, const QRect& r);
// The bounding box of pixels with any coverage inside r; empty when none.
QRect coveredBox(const QImage& img, const QRect& r);
// The un-premultiplied colour of a pixel, alpha kept.
QColor straightColor(const QImage& img, int x, int y);
// The most opaque pixel in r, un-premultiplied.
QColor mostOpaque(const QImage& img, const QRect& r);
// "#rrggbb a" for failure messages.
QString describe(const QColor& c);
// Channels within tolerance (alpha ignored).
bool sameRgb(const QColor& a, const QColor& b, int tolerance = 0);

// Sets the application palette's window and text colours; with no desktop portal on the bus,
// they decide the appearance.
void usePalette(const QColor& window, const QColor& text);
void usePalette(bool dark);

}  // namespace corvi::test
