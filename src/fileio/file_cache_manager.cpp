// Minimal stand-in until the block cache lands: a process-wide object with the reference-count
// and module-count behaviour of the real one.
#include "fileio/file_cache_manager.h"

#include "frame/module.h"
#include "vx/platform.h"

namespace vx::fileio {
namespace {

class StubCacheManager final : public IVxGeneric {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IVxGeneric) {
      *ppv = static_cast<IVxGeneric*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override {
    std::int32_t n = os::AtomicIncrement(&refs_);
    if (n == 1) module::AddObject();
    return static_cast<ULONG>(n);
  }
  ULONG STDMETHODCALLTYPE Release() override {
    std::int32_t n = os::AtomicDecrement(&refs_);
    if (n == 0) module::RemoveObject();
    return static_cast<ULONG>(n);
  }
  HRESULT STDMETHODCALLTYPE Start() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE Stop() override { return S_OK; }

 private:
  volatile std::int32_t refs_ = 0;
};

}  // namespace

IVxGeneric* CacheManagerInstance() {
  static StubCacheManager instance;
  return &instance;
}

}  // namespace vx::fileio
