#include <string>

#include "win.h"

namespace vx::os {

// The opaque handles of platform.h: an event is its HANDLE; a process keeps its id beside it.
struct ProcessImpl {
  HANDLE process;
  DWORD id;
};

namespace {

HANDLE EH(EventHandle e) {
  return reinterpret_cast<HANDLE>(e);
}

Wait FromWaitResult(DWORD r, Wait second) {
  switch (r) {
    case WAIT_OBJECT_0:
      return Wait::Signaled;
    case WAIT_OBJECT_0 + 1:
      return second;
    case WAIT_TIMEOUT:
      return Wait::Timeout;
    default:
      return Wait::Failed;
  }
}

// Quotes one argument so the child's command-line parser gives it back unchanged.
void AppendQuoted(std::wstring& out, const std::wstring& arg) {
  if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos) {
    out += arg;
    return;
  }
  out += L'"';
  std::size_t slashes = 0;
  for (wchar_t c : arg) {
    if (c == L'\\') {
      ++slashes;
      continue;
    }
    if (c == L'"')
      out.append(slashes * 2 + 1, L'\\');
    else
      out.append(slashes, L'\\');
    slashes = 0;
    out += c;
  }
  out.append(slashes * 2, L'\\');
  out += L'"';
}

}  // namespace

EventHandle CreateEvent(const VxChar* name, bool initiallySet) {
  if (!name || !*name) return nullptr;
  HANDLE h = ::CreateEventW(nullptr, FALSE, initiallySet ? TRUE : FALSE, name);
  return reinterpret_cast<EventHandle>(h);
}

EventHandle OpenEvent(const VxChar* name) {
  if (!name || !*name) return nullptr;
  return reinterpret_cast<EventHandle>(::OpenEventW(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, name));
}

bool SetEvent(EventHandle e) {
  return e && ::SetEvent(EH(e));
}
bool ResetEvent(EventHandle e) {
  return e && ::ResetEvent(EH(e));
}
void CloseEvent(EventHandle e) {
  if (e) ::CloseHandle(EH(e));
}

Wait WaitEvent(EventHandle e, std::uint32_t timeoutMs) {
  if (!e) return Wait::Failed;
  return FromWaitResult(::WaitForSingleObject(EH(e), timeoutMs), Wait::Failed);
}

ProcessHandle LaunchProcess(const VxChar* folder, const VxChar* program,
                            const VxChar* commandLine) {
  if (!program || !*program) return nullptr;
  std::wstring path;
  if (folder && *folder) {
    path = folder;
    if (path.back() != L'\\' && path.back() != L'/') path += L'\\';
  }
  path += program;
  if (!IsFile(path.c_str()) && IsFile((path + L".exe").c_str())) path += L".exe";

  // The caller's arguments are already one command line; only the program name is quoted.
  std::wstring line;
  AppendQuoted(line, path);
  if (commandLine && *commandLine) {
    line += L' ';
    line += commandLine;
  }
  // The child reads an empty standard input and writes to ours. Only these three handles are
  // inheritable: every other handle of this process is created without inheritance.
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE nul = ::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                             OPEN_EXISTING, 0, nullptr);
  HANDLE self = ::GetCurrentProcess();
  auto inheritable = [&](DWORD which) {
    HANDLE h = ::GetStdHandle(which), dup = nullptr;
    if (h && h != INVALID_HANDLE_VALUE)
      ::DuplicateHandle(self, h, self, &dup, 0, TRUE, DUPLICATE_SAME_ACCESS);
    return dup;
  };
  STARTUPINFOW si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = nul == INVALID_HANDLE_VALUE ? nullptr : nul;
  si.hStdOutput = inheritable(STD_OUTPUT_HANDLE);
  si.hStdError = inheritable(STD_ERROR_HANDLE);
  PROCESS_INFORMATION pi{};
  const BOOL started =
      ::CreateProcessW(path.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                       folder && *folder ? folder : nullptr, &si, &pi);
  for (HANDLE h : {si.hStdInput, si.hStdOutput, si.hStdError})
    if (h) ::CloseHandle(h);
  if (!started) return nullptr;
  ::CloseHandle(pi.hThread);
  return new ProcessImpl{pi.hProcess, pi.dwProcessId};
}

bool TerminateProcess(ProcessHandle p, int exitCode) {
  if (!p || ::WaitForSingleObject(p->process, 0) == WAIT_OBJECT_0) return false;
  if (!::TerminateProcess(p->process, static_cast<UINT>(exitCode))) return false;
  // Termination completes asynchronously; the exit code is there once the handle is signalled.
  ::WaitForSingleObject(p->process, 5000);
  return true;
}

Wait WaitProcess(ProcessHandle p, std::uint32_t timeoutMs) {
  if (!p) return Wait::Failed;
  return FromWaitResult(::WaitForSingleObject(p->process, timeoutMs), Wait::Failed);
}

bool ProcessExitCode(ProcessHandle p, int* code) {
  if (!p || !code) return false;
  // STILL_ACTIVE is also a legal exit code, so the handle's state decides.
  if (::WaitForSingleObject(p->process, 0) != WAIT_OBJECT_0) return false;
  DWORD c = 0;
  if (!::GetExitCodeProcess(p->process, &c)) return false;
  *code = static_cast<int>(c);
  return true;
}

std::uint32_t ProcessIdOf(ProcessHandle p) {
  return p ? p->id : 0;
}

void CloseProcess(ProcessHandle p) {
  if (!p) return;
  ::CloseHandle(p->process);
  delete p;
}

Wait WaitEventOrProcess(EventHandle e, ProcessHandle p, std::uint32_t timeoutMs) {
  if (!e && !p) return Wait::Failed;
  if (!p) return WaitEvent(e, timeoutMs);
  if (!e) {
    Wait w = WaitProcess(p, timeoutMs);
    return w == Wait::Signaled ? Wait::ProcessExited : w;
  }
  HANDLE both[2] = {EH(e), p->process};
  return FromWaitResult(::WaitForMultipleObjects(2, both, FALSE, timeoutMs), Wait::ProcessExited);
}

std::uint32_t CurrentProcessId() {
  return ::GetCurrentProcessId();
}

VxString ExecutablePath() {
  std::wstring buf(MAX_PATH, L'\0');
  for (;;) {
    DWORD n = ::GetModuleFileNameW(nullptr, buf.data(), static_cast<DWORD>(buf.size()));
    if (n == 0) return {};
    if (n < buf.size()) {
      buf.resize(n);
      return buf;
    }
    buf.resize(buf.size() * 2);
  }
}

void SleepMs(std::uint32_t ms) {
  ::Sleep(ms);
}

bool ProcessIsRunning(std::uint32_t pid) {
  HANDLE h = ::OpenProcess(SYNCHRONIZE, FALSE, pid);
  if (!h) return ::GetLastError() == ERROR_ACCESS_DENIED;
  const bool running = ::WaitForSingleObject(h, 0) == WAIT_TIMEOUT;
  ::CloseHandle(h);
  return running;
}

}  // namespace vx::os
