#include "VerdoDriverCore/System/ThreadName.h"

#include <pthread.h>

namespace verdo {

void setThreadName(const std::string& name) { ::pthread_setname_np(name.c_str()); }

}  // namespace verdo
