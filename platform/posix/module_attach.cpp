#include "vx/platform.h"

namespace vx::os {

// Shared objects need no start-up work from the component.
void ModuleProcessAttach(void*) {}

}  // namespace vx::os
