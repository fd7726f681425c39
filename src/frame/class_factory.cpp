#include "frame/class_factory.h"

#include <new>

#include "base/guard.h"
#include "base/module.h"
#include "frame/catalogue.h"
#include "vx/platform.h"
#include "vx/sdk.h"

namespace vx::frame {

// ---- Module entry ---------------------------------------------------------------------------

void ProcessAttach(HINSTANCE instance) {
  os::ModuleProcessAttach(instance);
  module::SetInstance(instance);
}

// ---- Registration ---------------------------------------------------------------------------

namespace {

// Runs `body` inside one registry batch: a host reading the registry meanwhile sees the module
// registered wholly or not at all. Only a body that succeeds is saved.
template <class Body>
HRESULT InOneBatch(Body&& body) {
  if (HRESULT hr = VxBeginRegistration(); FAILED(hr)) return hr;
  HRESULT hr;
  try {
    hr = body();
  } catch (...) {
    VxEndRegistration(FALSE);
    throw;
  }
  HRESULT ended = VxEndRegistration(SUCCEEDED(hr) ? TRUE : FALSE);
  return FAILED(hr) ? hr : ended;
}

HRESULT RegisterAll() {
  HINSTANCE module = module::Instance();
  HRESULT hr = S_OK;
  for (const CatalogueRow& row : Catalogue()) {
    hr = VxRegisterFileParser(row.clsid, module, row.name, row.mediaKind, row.capabilities,
                              row.extensions.data(), static_cast<int>(row.extensions.size()));
    if (FAILED(hr)) return hr;
  }
  for (const ModuleObject& object : ModuleObjects()) {
    if (object.kind == ObjectKind::GenericAndCom) {
      hr = VxRegisterGenericObj(object.clsid, object.genericName, object.genericFlag, module);
      if (FAILED(hr)) return hr;
    }
    hr = CBRegisterCOMObject(object.clsid, module, object.comName);
    if (FAILED(hr)) return hr;
  }
  return hr;
}

// Undoes what it can and reports the last failure; the removals that worked are saved.
HRESULT UnregisterAll(HRESULT* last) {
  HINSTANCE module = module::Instance();
  auto note = [last](HRESULT hr) {
    if (FAILED(hr)) *last = hr;
  };
  auto rows = Catalogue();
  for (int number : UnregistrationOrder()) {
    note(VxUnregisterFileParser(rows[static_cast<std::size_t>(number - 1)].clsid, module));
  }
  for (const ModuleObject& object : ModuleObjects()) {
    note(CBUnregisterCOMObject(object.clsid));
    if (object.kind == ObjectKind::GenericAndCom) {
      note(VxUnRegisterGenericObj(object.clsid, module));
    }
  }
  return S_OK;
}

}  // namespace

HRESULT RegisterServer() {
  return Guarded([] { return InOneBatch(RegisterAll); });
}

HRESULT UnregisterServer() {
  return Guarded([] {
    HRESULT last = S_OK;
    if (HRESULT hr = InOneBatch([&] { return UnregisterAll(&last); }); FAILED(hr)) return hr;
    return last;
  });
}

// ---- Class objects --------------------------------------------------------------------------

HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  return Guarded([&] {
    if (!FindRow(clsid) && !FindObject(clsid)) return CLASS_E_CLASSNOTAVAILABLE;
    auto* factory = new CClassFactory(clsid);
    HRESULT hr = factory->QueryInterface(riid, ppv);
    factory->Release();
    return hr;
  });
}

HRESULT CanUnloadNow() {
  return Guarded([] { return module::ObjectCount() > 0 ? S_FALSE : S_OK; });
}

CClassFactory::CClassFactory(const GUID& clsid) : clsid_(clsid) {
  module::AddObject();
}

CClassFactory::~CClassFactory() {
  if (marshaler_) marshaler_->Release();
  module::RemoveObject();
}

HRESULT CClassFactory::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_INVALIDARG;
  return Guarded([&] { return Query(riid, ppv); });
}

HRESULT CClassFactory::Query(REFIID riid, void** ppv) {
  if (riid == IID_IUnknown || riid == IID_IClassFactory) {
    *ppv = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
#ifdef _WIN32
  if (riid == IID_IMarshal) {
    // Lets the host's apartments hand the factory between threads without proxies.
    if (!marshaler_) {
      HRESULT hr = CoCreateFreeThreadedMarshaler(static_cast<IClassFactory*>(this), &marshaler_);
      if (FAILED(hr)) {
        marshaler_ = nullptr;
        *ppv = nullptr;
        return hr;
      }
    }
    return marshaler_->QueryInterface(riid, ppv);
  }
#endif
  *ppv = nullptr;
  return E_NOINTERFACE;
}

ULONG CClassFactory::AddRef() {
  return static_cast<ULONG>(++refs_);
}

ULONG CClassFactory::Release() {
  std::int32_t n = --refs_;
  if (n == 0) delete this;
  return static_cast<ULONG>(n);
}

HRESULT CClassFactory::LockServer(BOOL lock) {
  return Guarded([&] {
    if (lock) {
      module::AddObject();
    } else {
      module::RemoveObject();
    }
    return S_OK;
  });
}

HRESULT CClassFactory::CreateInstance(IUnknown* outer, REFIID riid, void** ppv) {
  if (ppv) *ppv = nullptr;
  if (outer) return CLASS_E_NOAGGREGATION;
  if (!ppv) return E_POINTER;
  return Guarded([&] { return Create(riid, ppv); });
}

HRESULT CClassFactory::Create(REFIID riid, void** ppv) {
  IUnknown* object = nullptr;
  Birth birth = Birth::Unreferenced;
  if (const CatalogueRow* row = FindRow(clsid_)) {
    if (Constructor make = ConstructorFor(row->className)) object = make(row->arg);
  } else if (const ModuleObject* other = FindObject(clsid_)) {
    birth = other->birth;
    if (Constructor make = ConstructorFor(other->className)) object = make(0);
  }
  // Allocation failure is reported like a class that is not built, on purpose.
  if (!object) return E_NOINTERFACE;

  if (birth == Birth::Unreferenced) object->AddRef();
  HRESULT hr = object->QueryInterface(riid, ppv);
  object->Release();  // a refused interface leaves nothing alive
  return hr;
}

}  // namespace vx::frame
