// Module-wide state: the instance handle and the count of live objects and server locks that
// decides DllCanUnloadNow.
#pragma once

#include <cstdint>

#include "vx/com.h"

namespace vx::module {

// Raised by every live COM object of the component and by LockServer(TRUE); interlocked.
void AddObject();
void RemoveObject();
std::int32_t ObjectCount();

// The handle passed to every registration call. On Windows the DLL's HINSTANCE; elsewhere an
// address inside the module, which the SDK resolves to the module's path.
HINSTANCE Instance();
void SetInstance(HINSTANCE h);

}  // namespace vx::module
