// A host program as a host developer writes one against the installed SDK: it registers the
// module, finds the DPX parser by extension and creates it through the module's class factory.
#include <dlfcn.h>

#include <cstdio>

#include "vx/com_ptr.h"
#include "vx/parser.h"
#include "vx/sdk.h"

int main() {
  using Register = HRESULT(STDMETHODCALLTYPE*)();
  using GetClassObject = HRESULT(STDMETHODCALLTYPE*)(REFCLSID, REFIID, void**);
  void* module = dlopen(VX_MODULE, RTLD_NOW);
  auto reg = reinterpret_cast<Register>(module ? dlsym(module, "DllRegisterServer") : nullptr);
  auto get =
      reinterpret_cast<GetClassObject>(module ? dlsym(module, "DllGetClassObject") : nullptr);
  vx::registry::Entry dpx;
  vx::ComPtr<IClassFactory> factory;
  vx::ComPtr<IVxMediaFileParser> parser;
  if (!reg || !get || FAILED(reg()) || !vx::registry::FindByExtension("dpx", &dpx) ||
      get(dpx.clsid, IID_IClassFactory, factory.put_void()) != S_OK ||
      factory->CreateInstance(nullptr, IID_IVxMediaFileParser, parser.put_void()) != S_OK) {
    std::fprintf(stderr, "%s: no DPX parser (%s)\n", VX_MODULE, module ? "" : dlerror());
    return 1;
  }
  std::printf("%s: %s from %s\n", VX_MODULE, dpx.name.c_str(), dpx.module.c_str());
  return 0;
}
