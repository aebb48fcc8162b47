#pragma once

#include_next <time.h>

#ifdef __cplusplus
enum { CLOCK_UPTIME_RAW = 8 };  // CLOCK_MONOTONIC_RAW has the number that it has there

extern "C" unsigned long clock_gettime_nsec_np(clockid_t clock);
#endif
