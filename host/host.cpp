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
  if (vx::registry::IsCurrent(module.path())) return true;
  // Several hosts starting at once may all get here: each registration is one transaction that
  // puts the same rows in place, so every one of them then reads the whole catalogue.
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

std::string NoParserText(const std::string& file) {
  const std::string ext = ExtensionOf(file);
  if (ext.empty()) return "no extension to choose a parser by";
  return "no parser registered for ." + ext + " files (`vxhost formats` lists them; " +
         "`vxhost register` enters a newer module's parsers)";
}

bool HasFrameField(const VxString& name) {
  for (std::size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '#') return true;
    if (name[i] != '%') continue;
    std::size_t j = i + 1;
    while (j < name.size() && name[j] >= '0' && name[j] <= '9') ++j;
    if (j < name.size() && name[j] == 'd') return true;
  }
  return false;
}

bool ResolveInput(const std::string& name, bool asSequence, Input* out, std::string* error) {
  out->file = name;
  out->wide = vx::FromUtf8(name);
  out->sequence = asSequence || (!vx::os::IsFile(out->wide.c_str()) && HasFrameField(out->wide));
  if (!out->sequence) {
    if (vx::os::IsFile(out->wide.c_str())) return true;
    *error = vx::os::IsDirectory(out->wide.c_str()) ? "cannot open: a folder, not a file"
                                                    : "cannot open: no such file";
    return false;
  }
  ComPtr<IVxFileList> list;
  int count = 0;
  if (SUCCEEDED(VxGetFileListFromPattern(out->wide.c_str(), list.put())) && list)
    list->GetCount(&count);
  for (int i = 0; i < count; ++i) {
    VxChar* entry = nullptr;
    const bool exists = SUCCEEDED(list->GetFileName(i, &entry)) && entry && vx::os::IsFile(entry);
    VxSysFreeString(entry);
    if (exists) return true;
  }
  *error = "cannot open: no file of the sequence exists";
  return false;
}

bool OpenInput(const Module& module, const Input& input, OpenedParser* out, std::string* error) {
  if (!FindParserFor(input.file, &out->entry)) {
    *error = NoParserText(input.file);
    return false;
  }
  if (!(out->entry.capabilities & 1)) {
    *error = "the " + out->entry.name + " parser does not read files";
    return false;
  }
  HRESULT hr = module.Create(out->entry.clsid, IID_IVxMediaFileParser, out->parser.put_void());
  if (hr == E_NOINTERFACE) {
    *error = "no parser built for " + out->entry.name + " files yet";
    return false;
  }
  if (SUCCEEDED(hr)) hr = out->parser->Open(input.wide.c_str(), input.openFlags());
  if (hr == E_NOTIMPL && out->entry.name == "CHYRON") {
    // The row stays registered so hosts get an answer, but no file of it is read: say why
    // rather than blame the file.
    *error = "CHYRON: this format has no published description; not supported (E_NOTIMPL)";
    return false;
  }
  if (FAILED(hr)) {
    *error = ReadFailureText(hr, out->entry);
    return false;
  }
  for (const std::string& option : input.options) {
    if (option.find('=') == std::string::npos) {
      *error = "read option '" + option + "' is not name=value";
      return false;
    }
    const VxString text = vx::FromUtf8(option);
    hr = out->parser->SetOption(const_cast<VxChar*>(text.c_str()), VX_OPTION_TEXT);
    if (hr == S_FALSE || hr == E_NOTIMPL) {
      std::fprintf(stderr, "%s: read option %s is not one of %s's; ignored\n", input.file.c_str(),
                   option.c_str(), out->entry.name.c_str());
    } else if (FAILED(hr)) {
      *error = "read option " + option + ": " + Words(hr);
      return false;
    }
  }
  return true;
}

std::string Words(HRESULT hr) {
  return vx::HresultText(hr);
}

std::string ReadFailureText(HRESULT hr, const vx::registry::Entry& entry) {
  switch (static_cast<std::uint32_t>(hr)) {
    case 0x80004005u:  // E_FAIL
      return "not a readable " + entry.name + " file: malformed header or data (E_FAIL)";
    case 0x80070002u:
    case 0x80070003u:
      return "cannot open: no such file";
    case 0x80070005u:
      return "cannot open: access denied (E_ACCESSDENIED)";
    case 0x80004001u:
      return "a kind of " + entry.name + " file this build does not read (E_NOTIMPL)";
    case 0x8000FFFFu:
      return "impossible values in the " + entry.name + " header (E_UNEXPECTED)";
    case 0x8007000Eu:
      return "out of memory (E_OUTOFMEMORY)";
    default:
      return Words(hr);
  }
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

// ---- Progress -------------------------------------------------------------------------------

Progress::Progress(std::string label, std::size_t total, bool quiet)
    : label_(std::move(label)),
      total_(total),
      show_(!quiet && total > 1),
      terminal_(vx::os::IsTerminal(2)) {}

void Progress::Step(std::size_t done) {
  if (!show_ || total_ == 0) return;
  if (terminal_) {
    constexpr int kWidth = 30;
    const int filled = static_cast<int>(done * kWidth / total_);
    std::fprintf(stderr, "\r%s [%s%s] %zu/%zu", label_.c_str(), std::string(filled, '#').c_str(),
                 std::string(kWidth - filled, '.').c_str(), done, total_);
    open_ = done < total_;
    if (!open_) std::fprintf(stderr, "\n");
  } else {
    const int tenth = static_cast<int>(done * 10 / total_);
    if (tenth == lastTenth_) return;
    lastTenth_ = tenth;
    std::fprintf(stderr, "%s: %zu/%zu (%d%%)\n", label_.c_str(), done, total_, tenth * 10);
  }
  std::fflush(stderr);
}

void Progress::Abort() {
  if (open_) std::fprintf(stderr, "\n");
  open_ = false;
}

// ---- Output ---------------------------------------------------------------------------------

std::string CleanText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  auto escape = [&out](unsigned char c) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "\\x%02X", c);
    out += buf;
  };
  for (std::size_t i = 0; i < text.size();) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      if (c < 0x20 && c != '\t') {
        escape(c);
      } else if (c == 0x7F) {
        escape(c);
      } else {
        out += static_cast<char>(c);
      }
      ++i;
      continue;
    }
    // Length and lowest code point of a well-formed sequence starting with c.
    const int n = c >= 0xF0 && c <= 0xF4 ? 4 : c >= 0xE0 ? 3 : c >= 0xC2 && c <= 0xDF ? 2 : 0;
    bool ok = n > 0 && i + n <= text.size();
    std::uint32_t cp = n == 4 ? c & 0x07u : n == 3 ? c & 0x0Fu : c & 0x1Fu;
    for (int k = 1; ok && k < n; ++k) {
      const auto cc = static_cast<unsigned char>(text[i + k]);
      ok = (cc & 0xC0) == 0x80;
      cp = (cp << 6) | (cc & 0x3Fu);
    }
    ok = ok && !(n == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) &&
         !(n == 4 && (cp < 0x10000 || cp > 0x10FFFF));
    if (!ok) {
      escape(c);
      ++i;
      continue;
    }
    out.append(text.substr(i, n));
    i += n;
  }
  return out;
}

std::string DumpJson(const Json& value) {
  return value.dump(2, ' ', false, Json::error_handler_t::replace);
}

namespace {

std::string Scalar(const Json& v) {
  if (v.is_string()) return CleanText(v.get<std::string>());
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
