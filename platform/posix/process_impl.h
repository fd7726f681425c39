// The process handle's insides, shared by the process and event sources.
#pragma once

#include <sys/types.h>

#include "vx/platform.h"

namespace vx::os {

struct ProcessImpl {
  pid_t pid = -1;
  int pidfd = -1;           // -1 when the kernel has no pidfd_open
  bool reaped = false;      // exit status collected
  int status = 0;           // raw waitpid status once reaped
  bool terminated = false;  // killed through TerminateProcess
  int terminateCode = 0;    // what to report for that kill
};

namespace detail {
// Collects the exit status without blocking; true once the process has ended.
bool HasExited(ProcessImpl* p);
}  // namespace detail

}  // namespace vx::os
