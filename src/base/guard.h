// The exception boundary. C++ below an interface method may throw (allocation, the standard
// library, a codec library's error path); nothing may cross into the host, so every method the
// exports reach runs its body through Guarded.
#pragma once

#include <exception>
#include <new>
#include <utility>

#include "vx/com.h"

namespace vx {

// Runs `body` (returning HRESULT) and maps anything it throws: bad_alloc → E_OUTOFMEMORY, anything
// else → E_FAIL.
template <class Body>
HRESULT Guarded(Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  } catch (...) {
    return E_FAIL;
  }
}

// For the few slots that answer a plain value (AddRef-like counts, sizes): `fallback` on a throw.
template <class T, class Body>
T GuardedValue(T fallback, Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    return fallback;
  }
}

}  // namespace vx
