#include "ui/CorviShape.h"

namespace corvi {

QPainterPath CorviShape::path(const QRectF& r) {
    const auto map = [&r](const QPointF& p) {
        return QPointF(r.left() + p.x() / 24.0 * r.width(), r.top() + p.y() / 24.0 * r.height());
    };
    QPainterPath path(map(points.front()));
    for (std::size_t i = 1; i < points.size(); ++i) path.lineTo(map(points[i]));
    return path;
}

}  // namespace corvi
