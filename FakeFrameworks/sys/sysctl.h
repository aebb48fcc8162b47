#pragma once

#include <cstddef>

#include <sys/time.h>
#include <sys/types.h>

enum { CTL_KERN = 1, KERN_PROC = 14 };
enum { KERN_PROC_PID = 1, KERN_PROC_PGRP = 2 };
enum { SRUN = 2, SZOMB = 5 };

struct extern_proc {
  timeval p_starttime;
  char p_stat;
  pid_t p_pid;
};
struct eproc {
  pid_t e_pgid;
};
struct kinfo_proc {
  extern_proc kp_proc;
  eproc kp_eproc;
};

extern "C" {
int sysctl(int* name, unsigned int count, void* old, std::size_t* oldSize, void* set,
           std::size_t setSize);
int sysctlbyname(const char* name, void* old, std::size_t* oldSize, void* set, std::size_t setSize);
}
