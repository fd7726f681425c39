// The module's four exports and its load-time entry.
#include "frame/class_factory.h"

VX_EXPORT HRESULT STDAPICALLTYPE DllRegisterServer() {
  return vx::frame::RegisterServer();
}
VX_EXPORT HRESULT STDAPICALLTYPE DllUnregisterServer() {
  return vx::frame::UnregisterServer();
}
VX_EXPORT HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv) {
  return vx::frame::GetClassObject(clsid, riid, ppv);
}
VX_EXPORT HRESULT STDAPICALLTYPE DllCanUnloadNow() {
  return vx::frame::CanUnloadNow();
}

#ifdef _WIN32

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID /*reserved*/) {
  if (reason == DLL_PROCESS_ATTACH) vx::frame::ProcessAttach(instance);
  return TRUE;
}

#else

namespace {
// Any address inside the module identifies it: the SDK turns it into the module's path.
const char kModuleAnchor = 0;

__attribute__((constructor)) void ModuleAttach() {
  vx::frame::ProcessAttach(const_cast<char*>(&kModuleAnchor));
}
}  // namespace

#endif
