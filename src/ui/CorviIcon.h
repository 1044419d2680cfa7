#pragma once

#include <QColor>
#include <QIcon>
#include <QImage>

#include "ui/CorviShape.h"

namespace corvi {

// The status icon: the heartbeat trace in the text colour of the current appearance
// (Theme::tx) over a thin halo of the opposite lightness, and a coloured dot to its right,
// 35 × 18 logical pixels. The trace's colour follows the appearance, so the icon is redrawn
// when Appearance announces a change.
namespace CorviIcon {

inline constexpr const std::array<QPointF, 6>& points = CorviShape::points;

inline constexpr int width = 35;
inline constexpr int height = 18;

// The icon painted for one device pixel ratio: (35 × ratio) × (18 × ratio) pixels,
// transparent around the drawing, with that ratio set on the image.
QImage statusImage(const QColor& dot, qreal devicePixelRatio);

// The 1× and 2× images as one icon, for the tray.
QIcon statusIcon(const QColor& dot);

}  // namespace CorviIcon
}  // namespace corvi
