#include "VerdoDriver/MenuBar/PopoverPlacement.h"

#include <algorithm>
#include <array>

namespace verdo {
namespace {

enum class Edge { top, bottom, left, right };

/// The edge of the screen at which a panel with this icon lies: in a corner of the screen, that
/// where the panel leaves nothing free.
Edge edgeOf(const QPoint& place, const QRect& available) {
  const std::array<std::pair<int, Edge>, 4> distances{{
      {place.y() - available.top(), Edge::top},
      {available.bottom() - place.y(), Edge::bottom},
      {place.x() - available.left(), Edge::left},
      {available.right() - place.x(), Edge::right},
  }};
  return std::min_element(distances.begin(), distances.end(),
                          [](const auto& a, const auto& b) { return a.first < b.first; })
      ->second;
}

QPoint beside(const QRect& anchor, Edge edge, const QSize& size) {
  const int x = anchor.center().x() - size.width() / 2;
  const int y = anchor.center().y() - size.height() / 2;
  switch (edge) {
    case Edge::top:
      return {x, anchor.bottom() + 1 + kPopoverGap};
    case Edge::bottom:
      return {x, anchor.top() - kPopoverGap - size.height()};
    case Edge::left:
      return {anchor.right() + 1 + kPopoverGap, y};
    case Edge::right:
      break;
  }
  return {anchor.left() - kPopoverGap - size.width(), y};
}

/// Moves a stretch of this length into the free one; its beginning stays in sight in any case.
int within(int begin, int length, int freeBegin, int freeLength) {
  const int last = freeBegin + freeLength - kPopoverMargin - length;
  return std::max(std::min(begin, last), freeBegin + kPopoverMargin);
}

}  // namespace

QPoint popoverPosition(const QRect& icon, const QPoint& cursor, const QRect& screen,
                       const QRect& available, const QSize& size) {
  QRect anchor = icon;
  if (anchor.isEmpty() || !screen.intersects(anchor)) {
    const QPoint place = screen.contains(cursor) ? cursor : screen.topRight();
    anchor = QRect(place, QSize(1, 1));
  }
  const QPoint wished = beside(anchor, edgeOf(anchor.center(), available), size);
  return {within(wished.x(), size.width(), available.x(), available.width()),
          within(wished.y(), size.height(), available.y(), available.height())};
}

}  // namespace verdo
