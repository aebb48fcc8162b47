#pragma once

#include <QPoint>
#include <QRect>
#include <QSize>

namespace verdo {

/// Between the icon and the popover, and between the popover and the edges of its screen, px.
inline constexpr int kPopoverGap = 5;
inline constexpr int kPopoverMargin = 4;

/// Where the popover's top left corner goes, in global coordinates: beside the icon, on the side
/// that faces the middle of the screen (below an icon at the top, above one at the bottom), centred
/// on it, and within `available`, the screen's part that panels leave free. `icon` is empty where
/// the system does not tell it; then the popover goes to `cursor` when that is on the screen, else
/// to the corner where trays usually are. One that is larger than the screen keeps its top left
/// corner in sight.
QPoint popoverPosition(const QRect& icon, const QPoint& cursor, const QRect& screen,
                       const QRect& available, const QSize& size);

}  // namespace verdo
