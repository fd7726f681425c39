// Placeholder until the component frame lands.
#include "vx/com.h"

VX_EXPORT HRESULT STDAPICALLTYPE DllRegisterServer() { return E_NOTIMPL; }
VX_EXPORT HRESULT STDAPICALLTYPE DllUnregisterServer() { return E_NOTIMPL; }
VX_EXPORT HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID, REFIID, void** ppv) {
  if (ppv) *ppv = nullptr;
  return CLASS_E_CLASSNOTAVAILABLE;
}
VX_EXPORT HRESULT STDAPICALLTYPE DllCanUnloadNow() { return S_OK; }
