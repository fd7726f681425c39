// The process-wide block cache behind cached chunk files.
#pragma once

#include "vx/sdk.h"

namespace vx::fileio {

// The module's single cache manager (no reference added). The class factory hands this out for
// the cache manager's class id.
IVxGeneric* CacheManagerInstance();

}  // namespace vx::fileio
