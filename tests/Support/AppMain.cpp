#include "VerdoDriver/Model/MainThread.h"
#include "tests/Support/MainLoop.h"
#include "tests/Support/Misbehaviour.h"

#include <QApplication>
#include <cstdlib>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <signal.h>

int main(int argc, char** argv) {
  if (argc > 2 && std::string(argv[1]) == "--misbehave") {
    return verdo::test::misbehave(std::vector<std::string>(argv + 2, argv + argc));
  }
  ::signal(SIGPIPE, SIG_IGN);
  testing::InitGoogleMock(&argc, argv);
  verdo::MainThread::post([] { verdo::test::earlyPostRan = true; });
  ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
  const QApplication application(argc, argv);
  return RUN_ALL_TESTS();
}
