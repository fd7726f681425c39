// The class factory and the module's entry points behind the four exports.
#pragma once

#include "vx/com.h"

namespace vx::frame {

// One per DllGetClassObject call; builds objects of one class id.
class CClassFactory final : public IClassFactory {
 public:
  explicit CClassFactory(const GUID& clsid);
  CClassFactory(const CClassFactory&) = delete;
  CClassFactory& operator=(const CClassFactory&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override;
  HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override;

 private:
  ~CClassFactory();
  HRESULT Query(REFIID riid, void** ppv);
  HRESULT Create(REFIID riid, void** ppv);

  GUID clsid_;
  IUnknown* marshaler_ = nullptr;  // free-threaded marshaler, made on first request
  std::int32_t refs_ = 1;
};

// The exports' work. The module's DLL entry (or load-time constructor) calls ProcessAttach.
void ProcessAttach(HINSTANCE instance);
HRESULT RegisterServer();
HRESULT UnregisterServer();
HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** ppv);
HRESULT CanUnloadNow();

}  // namespace vx::frame
