#include <QGuiApplication>
#include <cstdlib>

#include <gmock/gmock.h>

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
  const QGuiApplication application(argc, argv);
  return RUN_ALL_TESTS();
}
