// The component loaded the way a host loads it: by path, through its four exports only.
#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "test_util.h"
#include "vx/com.h"
#include "vx/platform.h"

namespace vxtest {

class LoadedModule {
 public:
  using Fn0 = HRESULT(STDAPICALLTYPE*)();
  using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

  LoadedModule() {
#ifdef _WIN32
    path_ = BinDir() / (std::string("vxprsr") + vx::os::ModuleSuffix());
#else
    path_ = BinDir() / (std::string("libvxprsr") + vx::os::ModuleSuffix());
#endif
    handle_ = vx::os::LoadModule(Wide(path_).c_str());
    if (!handle_) {
      error_ = vx::os::LastModuleError();
      return;
    }
    reg = reinterpret_cast<Fn0>(vx::os::ModuleSymbol(handle_, "DllRegisterServer"));
    unreg = reinterpret_cast<Fn0>(vx::os::ModuleSymbol(handle_, "DllUnregisterServer"));
    getClassObject =
        reinterpret_cast<GetClassObjectFn>(vx::os::ModuleSymbol(handle_, "DllGetClassObject"));
    canUnloadNow = reinterpret_cast<Fn0>(vx::os::ModuleSymbol(handle_, "DllCanUnloadNow"));
  }
  // Left loaded, as hosts leave parser modules: the module's process-wide singletons stay
  // reachable until exit.
  ~LoadedModule() = default;
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  bool ok() const { return handle_ && reg && unreg && getClassObject && canUnloadNow; }
  const std::string& error() const { return error_; }
  const std::filesystem::path& path() const { return path_; }

  // A factory for `clsid` (fails the test when none comes back).
  IClassFactory* Factory(const GUID& clsid) {
    void* p = nullptr;
    HRESULT hr = getClassObject(clsid, IID_IClassFactory, &p);
    EXPECT_EQ(hr, S_OK);
    return static_cast<IClassFactory*>(p);
  }

  Fn0 reg = nullptr;
  Fn0 unreg = nullptr;
  GetClassObjectFn getClassObject = nullptr;
  Fn0 canUnloadNow = nullptr;

 private:
  std::filesystem::path path_;
  vx::os::ModuleHandle handle_ = nullptr;
  std::string error_;
};

}  // namespace vxtest
