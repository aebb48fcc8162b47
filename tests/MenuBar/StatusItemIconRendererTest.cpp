#include "VerdoDriver/MenuBar/StatusItemIconRenderer.h"

#include <QImage>
#include <set>

#include <gtest/gtest.h>

namespace verdo::test {
namespace {

/// How many pixels have some of the shape; what they look like goes into `looks`.
int drawnPixels(Connection connection, int size, std::set<QByteArray>& looks) {
  const QImage image = StatusItemIconRenderer::pixmap(connection, false, size, 1)
                           .toImage()
                           .convertToFormat(QImage::Format_ARGB32);
  int drawn = 0;
  QByteArray alpha;
  for (int i = 0; i < size * size; ++i) {
    const int opacity = qAlpha(image.pixel(i % size, i / size));
    alpha.append(static_cast<char>(opacity));
    drawn += opacity > 128 ? 1 : 0;
  }
  looks.insert(alpha);
  return drawn;
}

TEST(StatusItemIconRenderer, AShapeThatIsMissingOrLooksLikeAnotherWithoutColour) {
  for (const int size : {16, 64}) {
    std::set<QByteArray> looks;
    for (const auto connection : kConnections) {
      EXPECT_GT(drawnPixels(connection, size, looks), size * size / 8)
          << nameOf(connection) << " at " << size;
    }
    EXPECT_EQ(looks.size(), std::size(kConnections)) << size;
  }
}

}  // namespace
}  // namespace verdo::test
