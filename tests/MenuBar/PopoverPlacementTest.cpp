#include "VerdoDriver/MenuBar/PopoverPlacement.h"

#include <gtest/gtest.h>

namespace verdo::test {

TEST(PopoverPlacement, CoversTheIconOrLeavesTheScreen) {
  const QRect first(0, 0, 1920, 1080);
  const QRect second(1920, 0, 1280, 1024);
  const QSize size(340, 400);
  const QPoint nowhere(-1, -1);
  const struct {
    const char* what;
    QRect icon;
    QPoint cursor;
    QRect screen;
    QRect available;
    QSize size;
    QPoint position;
  } table[] = {
      {"in the corner", {1896, 0, 24, 24}, nowhere, first, {0, 24, 1920, 1056}, size, {1576, 29}},
      {"in the corner, panel at the right",
       {1896, 1056, 24, 24},
       nowhere,
       first,
       {0, 0, 1896, 1080},
       size,
       {1551, 676}},
      {"on the second screen",
       {3176, 0, 24, 24},
       nowhere,
       second,
       {1920, 24, 1280, 1000},
       size,
       {2856, 29}},
      {"icon of another screen", {1000, 0, 24, 24}, {2500, 2}, second, second, size, {2330, 8}},
      {"no icon known", {}, {1000, 1078}, first, {0, 0, 1920, 1056}, size, {830, 652}},
      {"nothing known", {}, nowhere, first, {0, 24, 1920, 1056}, size, {1576, 28}},
      {"tiny screen",
       {300, 0, 16, 16},
       nowhere,
       {0, 0, 320, 240},
       {0, 16, 320, 224},
       size,
       {4, 20}},
  };
  for (const auto& row : table) {
    EXPECT_EQ(popoverPosition(row.icon, row.cursor, row.screen, row.available, row.size),
              row.position)
        << row.what;
  }
}

}  // namespace verdo::test
