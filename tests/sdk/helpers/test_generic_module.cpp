// A minimal in-process server with one generic object that counts its life events.
#include <atomic>

#include "vx/sdk.h"

namespace {

// {6E1D0001-0000-4000-8000-00000000AB01}: the object; ...AB02: a class whose factory refuses.
constexpr CLSID kObject = {0x6E1D0001, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0xAB, 0x01}};
constexpr CLSID kRefused = {0x6E1D0001, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0xAB, 0x02}};

std::atomic<int> g_created{0}, g_started{0}, g_stopped{0}, g_live{0};

// Reference counting and IUnknown for one interface `I`.
template <typename I>
class Unknown : public I {
 public:
  explicit Unknown(REFIID iid) : iid_(iid) {}
  virtual ~Unknown() = default;
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (riid != IID_IUnknown && riid != iid_) return E_NOINTERFACE;
    AddRef();
    *ppv = static_cast<I*>(this);
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG n = --refs_;
    if (n == 0) delete this;
    return n;
  }

 private:
  const IID iid_;
  std::atomic<ULONG> refs_{0};
};

// Answers `riid` from a new object, which dies at once when it has no such interface.
template <typename T>
HRESULT HandOut(T* object, REFIID riid, void** ppv) {
  object->AddRef();
  const HRESULT hr = object->QueryInterface(riid, ppv);
  object->Release();
  return hr;
}

class Generic final : public Unknown<IVxGeneric> {
 public:
  Generic() : Unknown(IID_IVxGeneric) {
    ++g_created;
    ++g_live;
  }
  ~Generic() override { --g_live; }
  HRESULT STDMETHODCALLTYPE Start() override {
    ++g_started;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Stop() override {
    ++g_stopped;
    return S_OK;
  }
};

class Factory final : public Unknown<IClassFactory> {
 public:
  Factory() : Unknown(IID_IClassFactory) {}
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    return HandOut(new Generic, riid, ppv);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};

}  // namespace

VX_EXPORT HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (clsid == kRefused) return E_OUTOFMEMORY;
  if (clsid != kObject) return CLASS_E_CLASSNOTAVAILABLE;
  return HandOut(new Factory, riid, ppv);
}

// Counters for the tests: objects created, Start and Stop calls, objects alive.
VX_EXPORT void TestGenericCounts(int* created, int* started, int* stopped, int* live) {
  *created = g_created;
  *started = g_started;
  *stopped = g_stopped;
  *live = g_live;
}
