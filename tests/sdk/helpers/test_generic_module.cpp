// A minimal in-process server with one generic object that counts its life events.
#include <atomic>

#include "vx/sdk.h"

namespace {

// {6E1D0001-0000-4000-8000-00000000AB01}: the object; ...AB02: a class whose factory refuses.
constexpr CLSID kObject = {0x6E1D0001, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0xAB, 0x01}};
constexpr CLSID kRefused = {0x6E1D0001, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0xAB, 0x02}};

std::atomic<int> g_created{0}, g_started{0}, g_stopped{0}, g_live{0};

class Generic final : public IVxGeneric {
 public:
  Generic() {
    ++g_created;
    ++g_live;
  }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IVxGeneric) {
      AddRef();
      *ppv = static_cast<IVxGeneric*>(this);
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG n = --refs_;
    if (n == 0) {
      --g_live;
      delete this;
    }
    return n;
  }
  HRESULT STDMETHODCALLTYPE Start() override {
    ++g_started;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Stop() override {
    ++g_stopped;
    return S_OK;
  }

 private:
  std::atomic<ULONG> refs_{0};
};

class Factory final : public IClassFactory {
 public:
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IClassFactory) {
      AddRef();
      *ppv = static_cast<IClassFactory*>(this);
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
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    auto* g = new Generic;
    g->AddRef();
    const HRESULT hr = g->QueryInterface(riid, ppv);
    g->Release();
    return hr;
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  std::atomic<ULONG> refs_{0};
};

}  // namespace

VX_EXPORT HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (clsid == kRefused) return E_OUTOFMEMORY;
  if (clsid != kObject) return CLASS_E_CLASSNOTAVAILABLE;
  auto* f = new Factory;
  f->AddRef();
  const HRESULT hr = f->QueryInterface(riid, ppv);
  f->Release();
  return hr;
}

// Counters for the tests: objects created, Start and Stop calls, objects alive.
VX_EXPORT void TestGenericCounts(int* created, int* started, int* stopped, int* live) {
  *created = g_created;
  *started = g_started;
  *stopped = g_stopped;
  *live = g_live;
}
