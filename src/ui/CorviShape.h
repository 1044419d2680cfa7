#pragma once

#include <QPainterPath>
#include <QPointF>
#include <QRectF>
#include <array>

namespace corvi {

// The brand's heartbeat trace: an open polyline on a 24 × 24 design grid, y downwards, so
// (10, 20) is the dip below the baseline and (14, 4) the peak above it.
class CorviShape {
  public:
    CorviShape() = delete;

    static constexpr std::array<QPointF, 6> points{{{3, 12}, {7, 12}, {10, 20}, {14, 4}, {17, 12}, {21, 12}}};

    // The trace stretched over r: x scales with its width, y with its height. Never closed.
    static QPainterPath path(const QRectF& r);
};

}  // namespace corvi
