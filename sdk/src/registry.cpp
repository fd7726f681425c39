// The host's registry of file parsers, generic objects and COM objects: one pretty-printed JSON
// file that people may read and edit. Writers serialise on a lock file and replace the registry
// atomically, so readers never take a lock and never see half a file.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <nlohmann/json.hpp>

#include "sdk_internal.h"
#include "vx/platform.h"
#include "vx/sdk.h"

namespace vx::registry {
namespace {

using nlohmann::json;

// Far beyond any real registry; a larger file is taken for garbage rather than read whole.
constexpr std::uint64_t kMaxRegistryBytes = 64u << 20;

const char* KindName(Kind k) {
  switch (k) {
    case Kind::FileParser:
      return "fileParser";
    case Kind::GenericObject:
      return "genericObject";
    case Kind::ComObject:
      return "comObject";
  }
  return "fileParser";
}

bool KindFromName(const std::string& s, Kind* k) {
  if (s == "fileParser")
    *k = Kind::FileParser;
  else if (s == "genericObject")
    *k = Kind::GenericObject;
  else if (s == "comObject")
    *k = Kind::ComObject;
  else
    return false;
  return true;
}

std::string NormaliseExtension(std::string_view ext) {
  while (!ext.empty() && ext.front() == '.') ext.remove_prefix(1);
  std::string out(ext);
  for (char& c : out) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return out;
}

json ToJson(const Entry& e) {
  json j = json::object();
  j["kind"] = KindName(e.kind);
  j["clsid"] = GuidToString(e.clsid);
  j["name"] = e.name;
  if (e.kind == Kind::FileParser) {
    j["mediaKind"] = e.mediaKind;
    j["capabilities"] = e.capabilities;
    j["extensions"] = e.extensions;
  }
  if (e.kind == Kind::GenericObject) j["flag"] = e.flag;
  j["module"] = e.module;
  return j;
}

// Fields a person may have left out take their defaults; a wrong type makes the entry unusable.
bool FromJson(const json& j, Entry* e) {
  if (!j.is_object()) return false;
  auto str = [&](const char* key, std::string* out) {
    auto it = j.find(key);
    if (it == j.end()) return true;
    if (!it->is_string()) return false;
    *out = it->get<std::string>();
    return true;
  };
  auto uint = [&](const char* key, std::uint32_t* out) {
    auto it = j.find(key);
    if (it == j.end()) return true;
    if (!it->is_number_unsigned()) return false;
    *out = static_cast<std::uint32_t>(it->get<std::uint64_t>());
    return true;
  };
  std::string kind, clsid;
  if (!str("kind", &kind) || !KindFromName(kind, &e->kind)) return false;
  if (!str("clsid", &clsid) || !GuidFromString(clsid, &e->clsid)) return false;
  if (!str("name", &e->name) || !str("module", &e->module)) return false;
  if (!uint("mediaKind", &e->mediaKind) || !uint("capabilities", &e->capabilities)) return false;
  if (auto it = j.find("flag"); it != j.end()) {
    if (!it->is_number_integer()) return false;
    e->flag = static_cast<int>(it->get<std::int64_t>());
  }
  if (auto it = j.find("extensions"); it != j.end()) {
    if (!it->is_array()) return false;
    for (const json& x : *it) {
      if (!x.is_string()) return false;
      std::string ext = NormaliseExtension(x.get<std::string>());
      if (!ext.empty()) e->extensions.push_back(std::move(ext));
    }
  }
  return true;
}

enum class Loaded { Missing, Ok, Corrupt };

// What a module's last registration left: the module file as it was then, and how many entries
// name it. A host compares both with what it finds to tell a stale registry.
struct Stamp {
  std::uint64_t size = 0;
  std::int64_t modified = 0;  // file time, in the file system clock's ticks
  std::uint32_t entries = 0;
};
using Stamps = std::map<std::string, Stamp>;

struct Contents {
  std::vector<Entry> entries;
  Stamps modules;  // by module path
};

bool StampOf(const std::string& module, Stamp* out) {
  std::error_code ec;
  const std::filesystem::path p = sdk::ToPath(FromUtf8(module));
  const std::uintmax_t size = std::filesystem::file_size(p, ec);
  if (ec) return false;
  const auto time = std::filesystem::last_write_time(p, ec);
  if (ec) return false;
  out->size = size;
  out->modified = static_cast<std::int64_t>(time.time_since_epoch().count());
  return true;
}

bool ReadWhole(const std::string& path, std::string* text) {
  const VxString wide = FromUtf8(path);
  os::FileHandle f = os::OpenRead(wide.c_str());
  if (f == os::kNoFile) return false;
  std::uint64_t size = 0;
  bool ok = os::Size(f, &size) && size <= kMaxRegistryBytes;
  if (ok) {
    text->resize(static_cast<std::size_t>(size));
    std::uint32_t done = 0;
    ok = os::ReadAt(f, 0, text->data(), static_cast<std::uint32_t>(size), &done) && done == size;
  }
  os::Close(f);
  return ok;
}

void LoadStamps(const json& doc, Stamps* out) {
  auto it = doc.find("modules");
  if (it == doc.end() || !it->is_object()) return;
  for (const auto& [module, j] : it->items()) {
    if (!j.is_object()) continue;
    Stamp s;
    const auto size = j.find("size"), modified = j.find("modified"), entries = j.find("entries");
    if (size == j.end() || !size->is_number_unsigned() || modified == j.end() ||
        !modified->is_number_integer() || entries == j.end() || !entries->is_number_unsigned())
      continue;  // a stamp that cannot be read is a stale one
    s.size = size->get<std::uint64_t>();
    s.modified = modified->get<std::int64_t>();
    s.entries = static_cast<std::uint32_t>(entries->get<std::uint64_t>());
    (*out)[module] = s;
  }
}

// `skipped` tells whether some entries could not be used (the file is then worth keeping).
Loaded Load(const std::string& path, Contents* out, bool* skipped = nullptr) {
  *out = Contents();
  if (skipped) *skipped = false;
  const VxString wide = FromUtf8(path);
  if (!os::IsFile(wide.c_str())) return Loaded::Missing;
  std::string text;
  if (!ReadWhole(path, &text)) return Loaded::Corrupt;
  json doc = json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (doc.is_discarded() || !doc.is_object()) return Loaded::Corrupt;
  LoadStamps(doc, &out->modules);
  auto it = doc.find("entries");
  if (it == doc.end()) return Loaded::Ok;
  if (!it->is_array()) return Loaded::Corrupt;
  for (const json& j : *it) {
    Entry e;
    if (FromJson(j, &e))
      out->entries.push_back(std::move(e));
    else if (skipped)
      *skipped = true;
  }
  return Loaded::Ok;
}

bool WriteWhole(const std::string& path, std::string_view bytes) {
  const VxString wide = FromUtf8(path);
  os::FileHandle f = os::Create(wide.c_str());
  if (f == os::kNoFile) return false;
  std::uint32_t done = 0;
  const bool ok =
      os::WriteAt(f, 0, bytes.data(), static_cast<std::uint32_t>(bytes.size()), &done) &&
      done == bytes.size();
  os::Close(f);
  return ok;
}

// The new content goes to a private temporary file first: a crash at any point leaves either
// the old registry or the new one, never a mixture.
bool Save(const std::string& path, const Contents& contents) {
  json doc = json::object();
  doc["version"] = 1;
  json list = json::array();
  for (const Entry& e : contents.entries) list.push_back(ToJson(e));
  doc["entries"] = std::move(list);
  json modules = json::object();
  for (const auto& [module, s] : contents.modules)
    modules[module] = {{"size", s.size}, {"modified", s.modified}, {"entries", s.entries}};
  doc["modules"] = std::move(modules);
  const std::string text = doc.dump(2) + "\n";
  const std::string temp = path + ".tmp" + std::to_string(os::CurrentProcessId());
  const VxString wideTemp = FromUtf8(temp), wide = FromUtf8(path);
  bool ok = WriteWhole(temp, text);
#ifdef _WIN32
  // A reader holding the registry open makes the replace fail for a moment on Windows.
  constexpr int kAttempts = 50;
#else
  constexpr int kAttempts = 1;
#endif
  bool replaced = false;
  for (int i = 0; ok && !replaced && i < kAttempts; ++i) {
    if (i) os::SleepMs(10);
    replaced = os::Replace(wideTemp.c_str(), wide.c_str());
  }
  if (!replaced) os::Remove(wideTemp.c_str());
  return replaced;
}

void KeepBadCopy(const std::string& path) {
  std::string bytes;
  const VxString wide = FromUtf8(path);
  os::FileHandle f = os::OpenRead(wide.c_str());
  if (f == os::kNoFile) return;
  std::uint64_t size = 0;
  if (os::Size(f, &size) && size <= kMaxRegistryBytes) {
    bytes.resize(static_cast<std::size_t>(size));
    std::uint32_t done = 0;
    if (!os::ReadAt(f, 0, bytes.data(), static_cast<std::uint32_t>(size), &done)) done = 0;
    bytes.resize(done);
  }
  os::Close(f);
  WriteWhole(path + ".bad", bytes);
}

// flock excludes other processes; the mutex keeps this process's threads from queueing on it.
std::mutex& WriterMutex() {
  static std::mutex m;
  return m;
}

// One read-modify-write of the registry under its lock. Every change goes through one: a single
// register call makes its own, a registration batch keeps one open from begin to end.
class Transaction {
 public:
  Transaction() = default;
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() { Unlock(); }

  HRESULT Open() {
    path_ = Path();
    std::error_code ec;
    const std::filesystem::path parent = sdk::ToPath(FromUtf8(path_)).parent_path();
    if (!parent.empty()) std::filesystem::create_directories(parent, ec);
    guard_ = std::unique_lock<std::mutex>(WriterMutex());
    const VxString lockPath = FromUtf8(path_ + ".lock");
    lock_ = os::OpenReadWrite(lockPath.c_str());
    if (lock_ == os::kNoFile) lock_ = os::Create(lockPath.c_str());
    if (lock_ == os::kNoFile || !os::LockFile(lock_)) {
      Unlock();
      return E_ACCESSDENIED;
    }
    bool skipped = false;
    if (Load(path_, &contents_, &skipped) == Loaded::Corrupt) {
      KeepBadCopy(path_);
      contents_ = Contents();
    } else if (skipped) {
      KeepBadCopy(path_);
    }
    return S_OK;
  }

  std::vector<Entry>& entries() { return contents_.entries; }
  // The module's stamp is renewed when the transaction is saved.
  void Touch(const std::string& module) {
    if (!module.empty()) touched_.insert(module);
  }

  HRESULT Commit() {
    for (const std::string& module : touched_) {
      const auto count = static_cast<std::uint32_t>(
          std::count_if(contents_.entries.begin(), contents_.entries.end(),
                        [&](const Entry& e) { return e.module == module; }));
      Stamp s;
      if (count > 0 && StampOf(module, &s)) {
        s.entries = count;
        contents_.modules[module] = s;
      } else {
        contents_.modules.erase(module);
      }
    }
    const bool saved = Save(path_, contents_);
    Unlock();
    return saved ? S_OK : E_ACCESSDENIED;
  }

 private:
  void Unlock() {
    if (lock_ != os::kNoFile) {
      os::UnlockFile(lock_);
      os::Close(lock_);
      lock_ = os::kNoFile;
    }
    if (guard_.owns_lock()) guard_.unlock();
  }

  std::string path_;
  std::unique_lock<std::mutex> guard_;
  os::FileHandle lock_ = os::kNoFile;
  Contents contents_;
  std::set<std::string> touched_;
};

// The batch this thread has open, if any.
thread_local Transaction* t_batch = nullptr;

HRESULT Modify(const std::function<HRESULT(Transaction&)>& change) {
  if (t_batch) return change(*t_batch);
  Transaction t;
  if (HRESULT hr = t.Open(); FAILED(hr)) return hr;
  HRESULT hr = change(t);
  if (SUCCEEDED(hr)) {
    if (HRESULT saved = t.Commit(); FAILED(saved)) hr = saved;
  }
  return hr;
}

std::string ModulePath(HINSTANCE module) {
  return module ? ToUtf8(os::ModulePathOf(reinterpret_cast<const void*>(module))) : std::string();
}

// Re-registering a class replaces its entry where it stands, so the order people see is stable.
HRESULT Put(Entry entry) {
  return Modify([&](Transaction& t) {
    t.Touch(entry.module);
    for (Entry& e : t.entries()) {
      if (e.kind == entry.kind && e.clsid == entry.clsid) {
        t.Touch(e.module);
        e = std::move(entry);
        return S_OK;
      }
    }
    t.entries().push_back(std::move(entry));
    return S_OK;
  });
}

HRESULT Drop(const GUID& clsid, Kind kind) {
  return Modify([&](Transaction& t) {
    std::vector<Entry>& entries = t.entries();
    auto it = std::find_if(entries.begin(), entries.end(),
                           [&](const Entry& e) { return e.kind == kind && e.clsid == clsid; });
    if (it == entries.end()) return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    t.Touch(it->module);
    entries.erase(it);
    return S_OK;
  });
}

}  // namespace

std::string Path() {
  std::string value;
  if (os::GetEnv("VXHOST_REGISTRY", &value) && !value.empty()) return value;
#ifdef _WIN32
  if (os::GetEnv("APPDATA", &value) && !value.empty()) return value + "\\vxhost\\registry.json";
  return "vxhost\\registry.json";
#else
  if (os::GetEnv("XDG_CONFIG_HOME", &value) && !value.empty())
    return value + "/vxhost/registry.json";
  if (os::GetEnv("HOME", &value) && !value.empty()) return value + "/.config/vxhost/registry.json";
  return ".config/vxhost/registry.json";
#endif
}

std::vector<Entry> List() {
  Contents contents;
  if (Load(Path(), &contents) != Loaded::Ok) return {};
  return std::move(contents.entries);
}

bool IsCurrent(const std::string& modulePath) {
  Contents contents;
  if (Load(Path(), &contents) != Loaded::Ok) return false;
  // The registry holds the path the module's own handle resolved to; the caller may name the
  // same file another way.
  std::string module = modulePath;
  auto it = contents.modules.find(module);
  if (it == contents.modules.end()) {
    std::error_code ec;
    const auto p = std::filesystem::weakly_canonical(sdk::ToPath(FromUtf8(modulePath)), ec);
    if (ec) return false;
    module = ToUtf8(sdk::FromPath(p));
    it = contents.modules.find(module);
  }
  Stamp now;
  if (it == contents.modules.end() || !StampOf(module, &now)) return false;
  const auto count = std::count_if(contents.entries.begin(), contents.entries.end(),
                                   [&](const Entry& e) { return e.module == module; });
  return it->second.size == now.size && it->second.modified == now.modified &&
         it->second.entries == static_cast<std::uint32_t>(count);
}

bool FindByClsid(const GUID& clsid, Entry* out, Kind kind) {
  for (Entry& e : List()) {
    if (e.kind == kind && e.clsid == clsid) {
      if (out) *out = std::move(e);
      return true;
    }
  }
  return false;
}

bool FindByClsid(const GUID& clsid, Entry* out) {
  std::vector<Entry> entries = List();
  const Entry* any = nullptr;
  for (const Entry& e : entries) {
    if (e.clsid != clsid) continue;
    if (e.kind == Kind::FileParser) {
      any = &e;
      break;
    }
    if (!any) any = &e;
  }
  if (!any) return false;
  if (out) *out = *any;
  return true;
}

bool FindByExtension(std::string_view extension, Entry* out) {
  const std::string want = NormaliseExtension(extension);
  if (want.empty()) return false;
  for (Entry& e : List()) {
    if (e.kind != Kind::FileParser) continue;
    if (std::find(e.extensions.begin(), e.extensions.end(), want) != e.extensions.end()) {
      if (out) *out = std::move(e);
      return true;
    }
  }
  return false;
}

}  // namespace vx::registry

using vx::registry::Entry;

HRESULT VxBeginRegistration() {
  using vx::registry::t_batch;
  if (t_batch) return E_UNEXPECTED;
  auto batch = std::make_unique<vx::registry::Transaction>();
  if (HRESULT hr = batch->Open(); FAILED(hr)) return hr;
  t_batch = batch.release();
  return S_OK;
}

HRESULT VxEndRegistration(BOOL commit) {
  using vx::registry::t_batch;
  if (!t_batch) return E_UNEXPECTED;
  std::unique_ptr<vx::registry::Transaction> batch(t_batch);
  t_batch = nullptr;
  return commit ? batch->Commit() : S_OK;
}
using vx::registry::Kind;

HRESULT VxRegisterFileParser(const GUID& clsid, HINSTANCE module, const VxChar* displayName,
                             DWORD mediaKind, DWORD capabilities, const VxChar* const* extensions,
                             int extensionCount) {
  if (extensionCount < 0) return E_INVALIDARG;
  if (extensionCount > 0 && !extensions) return E_POINTER;
  Entry e;
  e.kind = Kind::FileParser;
  e.clsid = clsid;
  e.name = displayName ? vx::ToUtf8(displayName) : std::string();
  e.mediaKind = mediaKind;
  e.capabilities = capabilities;
  for (int i = 0; i < extensionCount; ++i) {
    if (!extensions[i]) continue;
    std::string ext = vx::registry::NormaliseExtension(vx::ToUtf8(extensions[i]));
    if (!ext.empty() &&
        std::find(e.extensions.begin(), e.extensions.end(), ext) == e.extensions.end())
      e.extensions.push_back(std::move(ext));
  }
  e.module = vx::registry::ModulePath(module);
  return vx::registry::Put(std::move(e));
}

HRESULT VxUnregisterFileParser(const GUID& clsid, HINSTANCE) {
  return vx::registry::Drop(clsid, Kind::FileParser);
}

HRESULT VxRegisterGenericObj(const GUID& clsid, const VxChar* name, int flag, HINSTANCE module) {
  Entry e;
  e.kind = Kind::GenericObject;
  e.clsid = clsid;
  e.name = name ? vx::ToUtf8(name) : std::string();
  e.flag = flag;
  e.module = vx::registry::ModulePath(module);
  return vx::registry::Put(std::move(e));
}

HRESULT VxUnRegisterGenericObj(const GUID& clsid, HINSTANCE) {
  return vx::registry::Drop(clsid, Kind::GenericObject);
}

HRESULT CBRegisterCOMObject(const GUID& clsid, HINSTANCE module, const VxChar* name) {
  Entry e;
  e.kind = Kind::ComObject;
  e.clsid = clsid;
  e.name = name ? vx::ToUtf8(name) : std::string();
  e.module = vx::registry::ModulePath(module);
  return vx::registry::Put(std::move(e));
}

HRESULT CBUnregisterCOMObject(const GUID& clsid) {
  return vx::registry::Drop(clsid, Kind::ComObject);
}
