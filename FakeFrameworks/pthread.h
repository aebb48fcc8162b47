#pragma once

#include_next <pthread.h>

#ifdef __cplusplus
/// Names the calling thread.
inline int pthread_setname_np(const char* name) { return pthread_setname_np(pthread_self(), name); }
#endif
