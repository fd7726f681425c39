// Process-wide generic objects: created on first request through the registered module's class
// factory, started once, shared by every caller until the host shuts down.
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "vx/platform.h"
#include "vx/sdk.h"

namespace {

using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

struct GuidLess {
  bool operator()(const GUID& a, const GUID& b) const {
    return std::memcmp(&a, &b, sizeof(GUID)) < 0;
  }
};

struct Objects {
  // Recursive: an object's Start may ask for another generic object.
  vx::os::CriticalSection cs;
  std::map<GUID, IVxGeneric*, GuidLess> live;
  std::vector<GUID> order;  // creation order, for stopping in reverse
  std::vector<GUID> starting;
  // Modules stay loaded for the life of the process: objects and their code may be referenced
  // by callers long after the last lookup.
  std::map<std::string, vx::os::ModuleHandle> modules;
};

Objects& State() {
  static Objects* state = new Objects;  // never destroyed: callers may outlive static teardown
  return *state;
}

HRESULT Create(const GUID& clsid, Objects& s, IVxGeneric** out) {
  vx::registry::Entry entry;
  if (!vx::registry::FindByClsid(clsid, &entry, vx::registry::Kind::GenericObject) &&
      !vx::registry::FindByClsid(clsid, &entry, vx::registry::Kind::ComObject))
    return CLASS_E_CLASSNOTAVAILABLE;
  if (entry.module.empty()) return CLASS_E_CLASSNOTAVAILABLE;

  vx::os::ModuleHandle module;
  if (auto it = s.modules.find(entry.module); it != s.modules.end()) {
    module = it->second;
  } else {
    const VxString path = vx::FromUtf8(entry.module);
    module = vx::os::LoadModule(path.c_str());
    if (!module) return CLASS_E_CLASSNOTAVAILABLE;
    s.modules.emplace(entry.module, module);
  }
  auto getClassObject =
      reinterpret_cast<GetClassObjectFn>(vx::os::ModuleSymbol(module, "DllGetClassObject"));
  if (!getClassObject) return CLASS_E_CLASSNOTAVAILABLE;

  IClassFactory* factory = nullptr;
  HRESULT hr = getClassObject(clsid, IID_IClassFactory, reinterpret_cast<void**>(&factory));
  if (FAILED(hr)) return hr;
  if (!factory) return E_UNEXPECTED;
  IVxGeneric* object = nullptr;
  hr = factory->CreateInstance(nullptr, IID_IVxGeneric, reinterpret_cast<void**>(&object));
  factory->Release();
  if (FAILED(hr)) return hr;
  if (!object) return E_UNEXPECTED;

  s.starting.push_back(clsid);
  hr = object->Start();
  s.starting.pop_back();
  if (FAILED(hr)) {
    object->Release();
    return hr;
  }
  *out = object;
  return S_OK;
}

}  // namespace

HRESULT VxQueryGenericObject(REFCLSID clsid, IVxGeneric** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  Objects& s = State();
  vx::os::Lock lock(s.cs);
  if (auto it = s.live.find(clsid); it != s.live.end()) {
    it->second->AddRef();
    *out = it->second;
    return S_OK;
  }
  // Asked for itself while starting: there is no finished instance to hand out yet.
  for (const GUID& g : s.starting)
    if (g == clsid) return E_UNEXPECTED;
  IVxGeneric* object = nullptr;
  const HRESULT hr = Create(clsid, s, &object);
  if (FAILED(hr)) return hr;
  s.live.emplace(clsid, object);
  s.order.push_back(clsid);
  object->AddRef();
  *out = object;
  return S_OK;
}

void VxReleaseGenericObjects() {
  Objects& s = State();
  std::vector<IVxGeneric*> objects;
  {
    vx::os::Lock lock(s.cs);
    for (auto it = s.order.rbegin(); it != s.order.rend(); ++it) {
      auto found = s.live.find(*it);
      if (found != s.live.end()) objects.push_back(found->second);
    }
    s.live.clear();
    s.order.clear();
  }
  // Outside the lock: Stop may wait for helper processes, and other threads may query on.
  for (IVxGeneric* o : objects) {
    o->Stop();
    o->Release();
  }
}
