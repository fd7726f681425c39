// Helpers shared by the POSIX sources of the platform layer.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "vx/vxchar.h"

namespace vx::os::detail {

inline std::string Native(const VxChar* path) {
  return path ? ToUtf8(path) : std::string();
}

// Moves a descriptor to 3 or above so 0..2 (and hence a handle of 0) never look like ours.
int LiftFd(int fd);

// Monotonic clock in milliseconds, for deadlines.
std::uint64_t NowMs();

// Absolute CLOCK_MONOTONIC time `ms` from now, for timed condition waits.
timespec DeadlineIn(std::uint32_t ms);

// POSIX object name "/<prefix><name>" with every byte outside [A-Za-z0-9_.-] escaped, so
// distinct names never collide and '/' never reaches the OS.
std::string ObjectName(const char* prefix, const VxChar* name);

}  // namespace vx::os::detail
