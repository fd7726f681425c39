// Reference counting and QueryInterface shared by the SDK's single-interface host objects.
#pragma once

#include <atomic>

#include "vx/com.h"

namespace vx::sdk {

// Born with one reference (the creator's); deleted by the last Release.
template <class Interface, const IID& kInterfaceId>
class ComObject : public Interface {
 public:
  ComObject() = default;
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == kInterfaceId) {
      AddRef();
      *ppv = static_cast<Interface*>(this);
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG n = --refs_;
    if (n == 0) delete this;
    return n;
  }

 protected:
  virtual ~ComObject() = default;

 private:
  std::atomic<ULONG> refs_{1};
};

}  // namespace vx::sdk
