#include <stdio.h>

#include "win.h"
// Video for Windows: the AVI parser's file library is started once for the process.
#include <vfw.h>

namespace vx::os {

void ModuleProcessAttach(void* instance) {
  if (instance) ::DisableThreadLibraryCalls(static_cast<HMODULE>(instance));
  ::AVIFileInit();
  // Long image sequences keep many stdio streams open at once.
  if (::_getmaxstdio() < 2048) ::_setmaxstdio(2048);
}

}  // namespace vx::os
