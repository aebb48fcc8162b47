#include "VerdoDriver/Model/Background.h"

#include "VerdoDriverCore/System/ThreadName.h"

#include <thread>

namespace verdo {

void runInBackground(const std::string& name, std::function<void()> work) {
  std::thread([name, work = std::move(work)] {
    setThreadName(name);
    work();
  }).detach();
}

}  // namespace verdo
