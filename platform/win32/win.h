// The Windows headers, once, for the Win32 side of the platform layer. Their macros that share a
// name with a vx::os function are removed so both spellings mean the same symbol everywhere.
#pragma once

#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#undef CreateEvent
#undef OpenEvent
#undef FreeModule

#include "vx/platform.h"

namespace vx::os::win {

// FileHandle and the OS handle are the same value; INVALID_HANDLE_VALUE is kNoFile.
inline HANDLE H(FileHandle f) {
  return reinterpret_cast<HANDLE>(f);
}
inline FileHandle F(HANDLE h) {
  return reinterpret_cast<FileHandle>(h);
}

}  // namespace vx::os::win
