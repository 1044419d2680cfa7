#include "ui/CorviIcon.h"

#include <QPainter>
#include <QPen>
#include <QPixmap>
#include <QtMath>

#include "ui/Theme.h"

namespace corvi::CorviIcon {
namespace {

constexpr qreal haloWidth = 1.0;  // logical pixels on each side of the stroke
constexpr qreal haloOpacity = 0.7;

}  // namespace

QImage statusImage(const QColor& dot, qreal devicePixelRatio) {
    constexpr qreal h = height;
    constexpr qreal s = h / 24;
    QImage image(qCeil(width * devicePixelRatio), qCeil(height * devicePixelRatio),
                 QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(devicePixelRatio);
    image.fill(Qt::transparent);

    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setBrush(Qt::NoBrush);
    // Each point × s is the trace stretched over the h × h glyph square.
    const QPainterPath trace = CorviShape::path(QRectF(0, 0, h, h));
    // The panel need not follow the appearance (a dark panel under a light theme): a thin
    // halo of the opposite lightness keeps the trace legible on any panel, and all but
    // vanishes on the panels it already suits.
    const QColor ink = Theme::tx();
    QColor halo = ink.lightnessF() < 0.5 ? Qt::white : Qt::black;
    halo.setAlphaF(haloOpacity);
    p.setPen(QPen(halo, 3 * s + 2 * haloWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPath(trace);
    p.setPen(QPen(ink, 3 * s, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.drawPath(trace);

    p.setPen(Qt::NoPen);
    p.setBrush(dot);
    p.drawEllipse(QRectF(h + 9, (h - 8) / 2, 8, 8));
    return image;
}

QIcon statusIcon(const QColor& dot) {
    QIcon icon;
    for (qreal ratio : {1.0, 2.0}) icon.addPixmap(QPixmap::fromImage(statusImage(dot, ratio)));
    return icon;
}

}  // namespace corvi::CorviIcon
