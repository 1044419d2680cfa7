#include "ImageProbe.h"

#include <QApplication>
#include <QPalette>
#include <QWidget>
#include <cmath>

namespace corvi::test {

QImage rendered(QWidget& w) {
    QImage img(w.size(), QImage::Format_ARGB32_Premultiplied);
    img.fill(Qt::transparent);
    w.render(&img, QPoint(), QRegion(), QWidget::DrawChildren);
    return img;
}

double columnCoverage(const QImage& img, int x) {
    return areaCoverage(img, QRect(x, 0, 1, img.height()));
}

double columnCentre(const QImage& img, int x) {
    double sum = 0, weighted = 0;
    for (int y = 0; y < img.height(); ++y) {
        const double a = qAlpha(img.pixel(x, y)) / 255.0;
        sum += a;
        weighted += a * (y + 0.5);
    }
    return sum > 0 ? weighted / sum : -1;
}

double areaCoverage(const QImage& img, const QRect& r) {
    double sum = 0;
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x) sum += qAlpha(img.pixel(x, y)) / 255.0;
    return sum;
}

QRect coveredBox(const QImage& img, const QRect& r) {
    QRect box;
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x)
            if (qAlpha(img.pixel(x, y)) > 0) box |= QRect(x, y, 1, 1);
    return box;
}

QColor straightColor(const QImage& img, int x, int y) {
    return QColor::fromRgba(
        qUnpremultiply(img.convertToFormat(QImage::Format_ARGB32_Premultiplied).pixel(x, y)));
}

QColor mostOpaque(const QImage& img, const QRect& r) {
    const QImage pm = img.convertToFormat(QImage::Format_ARGB32_Premultiplied);
    QRgb best = 0;
    for (int y = r.top(); y <= r.bottom(); ++y)
        for (int x = r.left(); x <= r.right(); ++x)
            if (qAlpha(pm.pixel(x, y)) > qAlpha(best)) best = pm.pixel(x, y);
    return QColor::fromRgba(qUnpremultiply(best));
}

QString describe(const QColor& c) {
    return c.name(QColor::HexRgb) + " a" + QString::number(c.alpha());
}

bool sameRgb(const QColor& a, const QColor& b, int tolerance) {
    return std::abs(a.red() - b.red()) <= tolerance && std::abs(a.green() - b.green()) <= tolerance &&
           std::abs(a.blue() - b.blue()) <= tolerance;
}

void usePalette(const QColor& window, const QColor& text) {
    QPalette p = QApplication::palette();
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    QApplication::setPalette(p);
}

void usePalette(bool dark) {
    usePalette(dark ? QColor(0x20, 0x20, 0x22) : QColor(0xef, 0xef, 0xef),
               dark ? QColor(0xf0, 0xf0, 0xf0) : QColor(0x10, 0x10, 0x10));
}

}  // namespace corvi::test
