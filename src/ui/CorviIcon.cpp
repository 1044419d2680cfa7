#include "ui/CorviIcon.h"

#include <QPainter>
#include <QPen>
#include <QPixmap>
#include <QtMath>

#include "ui/Theme.h"

namespace corvi::CorviIcon {

QImage statusImage(const QColor& dot, qreal devicePixelRatio) {
    constexpr qreal h = height;
    constexpr qreal s = h / 24;
    QImage image(qCeil(width * devicePixelRatio), qCeil(height * devicePixelRatio),
                 QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(devicePixelRatio);
    image.fill(Qt::transparent);

    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(Theme::tx(), 3 * s, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.setBrush(Qt::NoBrush);
    // Each point × s is the trace stretched over the h × h glyph square.
    p.drawPath(CorviShape::path(QRectF(0, 0, h, h)));

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
