#include <dlfcn.h>
#include <link.h>
#include <limits.h>
#include <stdlib.h>

#include <cstdint>
#include <string>

#include "posix_util.h"
#include "vx/platform.h"

namespace vx::os {

namespace {
thread_local std::string g_lastModuleError;

void RememberError(const char* fallback) {
  const char* e = ::dlerror();
  g_lastModuleError = e ? e : fallback;
}
}  // namespace

ModuleHandle LoadModule(const VxChar* path) {
  if (!path || !*path) {
    g_lastModuleError = "empty module path";
    return nullptr;
  }
  ::dlerror();
  void* m = ::dlopen(detail::Native(path).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!m) RememberError("module could not be loaded");
  return m;
}

std::string LastModuleError() {
  return g_lastModuleError;
}

void* ModuleSymbol(ModuleHandle m, const char* name) {
  if (!m || !name) return nullptr;
  ::dlerror();
  void* s = ::dlsym(m, name);
  if (!s) RememberError("symbol not found");
  return s;
}

void FreeModule(ModuleHandle m) {
  if (m) ::dlclose(m);
}

namespace {
struct Lookup {
  std::uintptr_t address = 0;
  bool found = false;
  std::string name;
};

int FindObject(dl_phdr_info* info, std::size_t, void* data) {
  auto* q = static_cast<Lookup*>(data);
  for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD) continue;
    const std::uintptr_t start = info->dlpi_addr + ph.p_vaddr;
    if (q->address >= start && q->address - start < ph.p_memsz) {
      q->found = true;
      q->name = info->dlpi_name ? info->dlpi_name : "";
      return 1;
    }
  }
  return 0;
}
}  // namespace

VxString ModulePathOf(const void* address) {
  if (!address) return VxString();
  Lookup q;
  q.address = reinterpret_cast<std::uintptr_t>(address);
  ::dl_iterate_phdr(FindObject, &q);
  if (!q.found) return VxString();
  // The main program carries no name in the loader's list.
  if (q.name.empty()) return ExecutablePath();
  char resolved[PATH_MAX];
  if (::realpath(q.name.c_str(), resolved)) return FromUtf8(resolved);
  return FromUtf8(q.name);
}

const char* ModuleSuffix() {
  return ".so";
}

}  // namespace vx::os
