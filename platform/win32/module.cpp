#include <io.h>

#include <string>

#include "win.h"

namespace vx::os {

namespace {

thread_local std::string t_moduleError;

std::string SystemMessage(DWORD code) {
  char* text = nullptr;
  DWORD n = ::FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string out = n && text ? std::string(text, n) : std::string();
  if (text) ::LocalFree(text);
  while (!out.empty() && (out.back() == '\n' || out.back() == '\r' || out.back() == ' '))
    out.pop_back();
  return "error " + std::to_string(code) + (out.empty() ? "" : ": " + out);
}

VxString FileNameOf(HMODULE m) {
  std::wstring buf(MAX_PATH, L'\0');
  for (;;) {
    DWORD n = ::GetModuleFileNameW(m, buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) return {};
    if (n < buf.size()) {
      buf.resize(n);
      return buf;
    }
    buf.resize(buf.size() * 2);
  }
}

bool IsAbsolute(const VxChar* p) {
  return (p[0] == L'\\' || p[0] == L'/') || (p[0] && p[1] == L':');
}

}  // namespace

ModuleHandle LoadModule(const VxChar* path) {
  if (!path || !*path) {
    t_moduleError = "no module path";
    return nullptr;
  }
  // With a full path the module's own folder is searched for its dependencies (the SDK DLL).
  HMODULE m = ::LoadLibraryExW(path, nullptr, IsAbsolute(path) ? LOAD_WITH_ALTERED_SEARCH_PATH : 0);
  if (!m) t_moduleError = ToUtf8(path) + ": " + SystemMessage(::GetLastError());
  return m;
}

std::string LastModuleError() {
  return t_moduleError;
}

void* ModuleSymbol(ModuleHandle m, const char* name) {
  if (!m || !name) return nullptr;
  FARPROC p = ::GetProcAddress(static_cast<HMODULE>(m), name);
  if (!p) t_moduleError = std::string(name) + ": " + SystemMessage(::GetLastError());
  return reinterpret_cast<void*>(p);
}

void FreeModule(ModuleHandle m) {
  if (m) ::FreeLibrary(static_cast<HMODULE>(m));
}

VxString ModulePathOf(const void* address) {
  HMODULE m = nullptr;
  if (!address) return {};
  if (!::GetModuleHandleExW(
          GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
          static_cast<LPCWSTR>(address), &m))
    return {};
  return FileNameOf(m);
}

const char* ModuleSuffix() {
  return ".dll";
}

bool GetEnv(const char* name, std::string* value) {
  if (!name || !*name) return false;
  const VxString wname = FromUtf8(name);
  std::wstring buf(256, L'\0');
  for (;;) {
    ::SetLastError(ERROR_SUCCESS);
    DWORD n = ::GetEnvironmentVariableW(wname.c_str(), buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) {
      // Set but empty is still set.
      if (::GetLastError() == ERROR_ENVVAR_NOT_FOUND) return false;
      if (value) value->clear();
      return true;
    }
    if (n < buf.size()) {
      buf.resize(n);
      if (value) *value = ToUtf8(buf);
      return true;
    }
    buf.resize(n);
  }
}

bool ShowMessageBox(const VxChar* caption, const VxChar* text) {
  // Unattended runs (CI, tests under wine) must never wait for a click.
  if (GetEnv("CI", nullptr) || GetEnv("VX_NO_MSGBOX", nullptr)) return false;
  return ::MessageBoxW(nullptr, text ? text : L"", caption ? caption : L"",
                       MB_OK | MB_TASKMODAL | MB_SETFOREGROUND) != 0;
}

bool IsTerminal(int fd) {
  return ::_isatty(fd) != 0;
}

}  // namespace vx::os
