#include "host.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <vector>

namespace vxhost {

// ---- Commands -------------------------------------------------------------------------------

namespace {

struct CommandSlot {
  int order;
  CommandSetup setup;
};

std::vector<CommandSlot>& Commands() {
  static std::vector<CommandSlot> commands;
  return commands;
}

int g_exitCode = 0;

}  // namespace

CommandRegistration::CommandRegistration(int order, CommandSetup setup) {
  Commands().push_back({order, setup});
}

void AddRegisteredCommands(CLI::App& app, Options& options) {
  auto commands = Commands();
  std::stable_sort(commands.begin(), commands.end(),
                   [](const CommandSlot& a, const CommandSlot& b) { return a.order < b.order; });
  for (const CommandSlot& c : commands) c.setup(app, options);
}

void SetExitCode(int code) {
  g_exitCode = std::max(g_exitCode, code);
}
int ExitCode() {
  return g_exitCode;
}

// ---- The component --------------------------------------------------------------------------

std::unique_ptr<Module> Module::Load(const std::string& path, std::string* error) {
  std::unique_ptr<Module> m(new Module);
  m->path_ = path;
  m->handle_ = vx::os::LoadModule(vx::FromUtf8(path).c_str());
  if (!m->handle_) {
    *error = vx::os::LastModuleError();
    return nullptr;
  }
  auto symbol = [&](const char* name) { return vx::os::ModuleSymbol(m->handle_, name); };
  m->register_ = reinterpret_cast<Fn0>(symbol("DllRegisterServer"));
  m->unregister_ = reinterpret_cast<Fn0>(symbol("DllUnregisterServer"));
  m->canUnloadNow_ = reinterpret_cast<Fn0>(symbol("DllCanUnloadNow"));
  m->getClassObject_ = reinterpret_cast<GetClassObjectFn>(symbol("DllGetClassObject"));
  if (!m->register_ || !m->unregister_ || !m->canUnloadNow_ || !m->getClassObject_) {
    *error = "not a parser module (an entry point is missing)";
    return nullptr;
  }
  return m;
}

Module::~Module() {
  // Generic objects the SDK created live in this module: stop them while it is there. The
  // module itself stays loaded until exit, keeping its process-wide singletons reachable.
  VxReleaseGenericObjects();
}

HRESULT Module::Create(REFCLSID clsid, REFIID iid, void** out) const {
  *out = nullptr;
  ComPtr<IClassFactory> factory;
  HRESULT hr = GetClassObject(clsid, IID_IClassFactory, factory.put_void());
  if (FAILED(hr)) return hr;
  return factory->CreateInstance(nullptr, iid, out);
}

std::unique_ptr<Module> LoadModule(const Options& options) {
  std::string path = options.modulePath;
  if (path.empty()) {
#ifdef _WIN32
    const std::string file = std::string("vxprsr") + vx::os::ModuleSuffix();
#else
    const std::string file = std::string("libvxprsr") + vx::os::ModuleSuffix();
#endif
    std::filesystem::path exe(vx::ToUtf8(vx::os::ExecutablePath()));
    path = (exe.parent_path() / file).string();
  }
  std::string error;
  auto module = Module::Load(path, &error);
  if (!module)
    std::fprintf(stderr, "%s: cannot load the parser module: %s\n", path.c_str(), error.c_str());
  return module;
}

bool EnsureRegistered(const Module& module) {
  for (const auto& e : vx::registry::List()) {
    if (e.kind == vx::registry::Kind::FileParser) return true;
  }
  HRESULT hr = module.Register();
  if (FAILED(hr)) {
    std::fprintf(stderr, "%s: registration failed: %s\n", module.path().c_str(), Words(hr).c_str());
    return false;
  }
  return true;
}

// ---- Files ----------------------------------------------------------------------------------

std::string ExtensionOf(const std::string& file) {
  std::string ext = std::filesystem::path(file).extension().string();
  if (!ext.empty() && ext[0] == '.') ext.erase(0, 1);
  for (char& c : ext) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return ext;
}

bool FindParserFor(const std::string& file, vx::registry::Entry* entry) {
  std::string ext = ExtensionOf(file);
  return !ext.empty() && vx::registry::FindByExtension(ext, entry);
}

std::string Words(HRESULT hr) {
  return vx::HresultText(hr);
}

void FileError(const std::string& file, const std::string& text) {
  std::fprintf(stderr, "%s: %s\n", file.c_str(), text.c_str());
}

std::string MediaKindName(std::uint32_t kind) {
  switch (kind) {
    case 1:
      return "still";
    case 2:
      return "audio";
    case 3:
      return "movie";
    default:
      return std::to_string(kind);
  }
}

// ---- Output ---------------------------------------------------------------------------------

namespace {

std::string Scalar(const Json& v) {
  if (v.is_string()) return v.get<std::string>();
  if (v.is_null()) return "-";
  return v.dump();
}

bool AllScalars(const Json& array) {
  return std::all_of(array.begin(), array.end(),
                     [](const Json& v) { return !v.is_object() && !v.is_array(); });
}

}  // namespace

void PrintText(const Json& value, int indent) {
  const std::string pad(static_cast<std::size_t>(indent) * 2, ' ');
  if (value.is_object()) {
    for (const auto& [key, v] : value.items()) {
      if (v.is_object()) {
        std::printf("%s%s:\n", pad.c_str(), key.c_str());
        PrintText(v, indent + 1);
      } else if (v.is_array() && !AllScalars(v)) {
        std::printf("%s%s:\n", pad.c_str(), key.c_str());
        PrintText(v, indent + 1);
      } else if (v.is_array()) {
        std::string line;
        for (const auto& e : v) line += (line.empty() ? "" : ", ") + Scalar(e);
        std::printf("%s%s: %s\n", pad.c_str(), key.c_str(), line.c_str());
      } else {
        std::printf("%s%s: %s\n", pad.c_str(), key.c_str(), Scalar(v).c_str());
      }
    }
  } else if (value.is_array()) {
    for (const auto& v : value) {
      if (v.is_object() || v.is_array()) {
        PrintText(v, indent);
      } else {
        std::printf("%s%s\n", pad.c_str(), Scalar(v).c_str());
      }
    }
  } else {
    std::printf("%s%s\n", pad.c_str(), Scalar(value).c_str());
  }
}

}  // namespace vxhost
