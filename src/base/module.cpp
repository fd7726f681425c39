#include "base/module.h"

#include "vx/platform.h"

namespace vx::module {
namespace {
volatile std::int32_t g_objects = 0;
HINSTANCE g_instance = nullptr;
}  // namespace

void AddObject() {
  os::AtomicIncrement(&g_objects);
}
void RemoveObject() {
  os::AtomicDecrement(&g_objects);
}
std::int32_t ObjectCount() {
  return os::AtomicLoad(&g_objects);
}
HINSTANCE Instance() {
  return g_instance;
}
void SetInstance(HINSTANCE h) {
  g_instance = h;
}

}  // namespace vx::module
