#include "ui/CorviLogo.h"

#include <QPainter>
#include <QPen>
#include <QtMath>

#include "ui/CorviShape.h"

namespace corvi {

CorviLogo::CorviLogo(qreal size, QColor (*color)(), QWidget* parent)
    : QWidget(parent), size_(size), color_(color) {
    setFixedSize(qCeil(size), qCeil(size));
    setAttribute(Qt::WA_TranslucentBackground);
}

CorviLogo::CorviLogo(qreal size, const QColor& color, QWidget* parent)
    : QWidget(parent), size_(size), color_([color] { return color; }) {
    setFixedSize(qCeil(size), qCeil(size));
    setAttribute(Qt::WA_TranslucentBackground);
}

void CorviLogo::paintEvent(QPaintEvent*) {
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    QPen pen(color_(), strokeWidth(), Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    pen.setMiterLimit(10);
    p.setPen(pen);
    p.setBrush(Qt::NoBrush);
    // A fractional size sits centred in the whole-pixel widget.
    const QRectF square((width() - size_) / 2, (height() - size_) / 2, size_, size_);
    p.drawPath(CorviShape::path(square));
}

}  // namespace corvi
