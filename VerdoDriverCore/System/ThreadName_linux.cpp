#include "VerdoDriverCore/System/ThreadName.h"

#include <pthread.h>

namespace verdo {

void setThreadName(const std::string& name) {
  constexpr std::size_t kLimit = 15;  // the kernel's TASK_COMM_LEN less the final zero
  ::pthread_setname_np(::pthread_self(), name.substr(0, kLimit).c_str());
}

}  // namespace verdo
