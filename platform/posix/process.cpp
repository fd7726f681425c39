#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "posix_util.h"
#include "process_impl.h"
#include "vx/platform.h"

extern char** environ;

namespace vx::os {

namespace {

// Children whose handles were closed before they ended; reaped whenever we pass by so they
// do not linger as zombies.
std::mutex g_orphanLock;
std::vector<pid_t> g_orphans;

void ReapOrphans() {
  std::lock_guard<std::mutex> guard(g_orphanLock);
  for (std::size_t i = 0; i < g_orphans.size();) {
    int status;
    const pid_t r = ::waitpid(g_orphans[i], &status, WNOHANG);
    if (r == 0) {
      ++i;
    } else {
      g_orphans[i] = g_orphans.back();
      g_orphans.pop_back();
    }
  }
}

// Spaces separate arguments, double quotes group (and are dropped), as a shell would.
std::vector<std::string> SplitArguments(const std::string& line) {
  std::vector<std::string> args;
  std::string cur;
  bool inQuotes = false, have = false;
  for (char c : line) {
    if (c == '"') {
      inQuotes = !inQuotes;
      have = true;
    } else if ((c == ' ' || c == '\t') && !inQuotes) {
      if (have) args.push_back(cur);
      cur.clear();
      have = false;
    } else {
      cur += c;
      have = true;
    }
  }
  if (have) args.push_back(cur);
  return args;
}

int OpenPidfd(pid_t pid) {
#ifdef SYS_pidfd_open
  const long fd = ::syscall(SYS_pidfd_open, pid, 0);
  if (fd < 0) return -1;
  ::fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
  return detail::LiftFd(static_cast<int>(fd));
#else
  (void)pid;
  return -1;
#endif
}

}  // namespace

namespace detail {

bool HasExited(ProcessImpl* p) {
  if (p->reaped) return true;
  int status = 0;
  pid_t r;
  do {
    r = ::waitpid(p->pid, &status, WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == 0) return false;
  p->reaped = true;
  // ECHILD: someone else reaped it (SIGCHLD ignored, say); it is gone, its code unknown.
  p->status = r == p->pid ? status : 0;
  return true;
}

}  // namespace detail

ProcessHandle LaunchProcess(const VxChar* folder, const VxChar* program,
                            const VxChar* commandLine) {
  if (!program || !*program) return nullptr;
  ReapOrphans();
  const std::string dir = detail::Native(folder);
  std::string path = detail::Native(program);
  if (!dir.empty() && path[0] != '/') path = dir + (dir.back() == '/' ? "" : "/") + path;

  std::vector<std::string> args = SplitArguments(detail::Native(commandLine));
  args.insert(args.begin(), path);
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  if (::posix_spawn_file_actions_init(&actions) != 0) return nullptr;
  bool ok = ::posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0) == 0;
  if (ok && !dir.empty()) ok = ::posix_spawn_file_actions_addchdir_np(&actions, dir.c_str()) == 0;
  // The child must not inherit our signal mask or handlers left ignored by the host.
  posix_spawnattr_t attr;
  ::posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  ::posix_spawnattr_setsigmask(&attr, &none);
  ::posix_spawnattr_setsigdefault(&attr, &all);
  ::posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  if (ok) ok = ::posix_spawn(&pid, path.c_str(), &actions, &attr, argv.data(), environ) == 0;
  ::posix_spawnattr_destroy(&attr);
  ::posix_spawn_file_actions_destroy(&actions);
  if (!ok) return nullptr;

  auto* p = new ProcessImpl;
  p->pid = pid;
  p->pidfd = OpenPidfd(pid);
  return p;
}

bool TerminateProcess(ProcessHandle p, int exitCode) {
  if (!p) return false;
  if (detail::HasExited(p)) return false;
  if (::kill(p->pid, SIGKILL) != 0) return false;
  p->terminated = true;
  p->terminateCode = exitCode;
  return true;
}

Wait WaitProcess(ProcessHandle p, std::uint32_t timeoutMs) {
  if (!p) return Wait::Failed;
  const bool infinite = timeoutMs == kInfinite;
  const std::uint64_t end = detail::NowMs() + (infinite ? 0 : timeoutMs);
  for (;;) {
    if (detail::HasExited(p)) return Wait::Signaled;
    const std::uint64_t now = detail::NowMs();
    if (!infinite && now >= end) return Wait::Timeout;
    const std::uint64_t left = infinite ? 1000 : end - now;
    if (p->pidfd >= 0) {
      // The pidfd turns readable when the child ends: sleep in the kernel until then.
      pollfd pfd{p->pidfd, POLLIN, 0};
      const int r = ::poll(&pfd, 1, static_cast<int>(left < 1000 ? left : 1000));
      if (r < 0 && errno != EINTR) SleepMs(10);
    } else {
      SleepMs(static_cast<std::uint32_t>(left < 10 ? left : 10));
    }
  }
}

bool ProcessExitCode(ProcessHandle p, int* code) {
  if (!p || !code || !detail::HasExited(p)) return false;
  if (WIFEXITED(p->status)) {
    *code = WEXITSTATUS(p->status);
  } else if (WIFSIGNALED(p->status)) {
    const int sig = WTERMSIG(p->status);
    *code = p->terminated && sig == SIGKILL ? p->terminateCode : 128 + sig;
  } else {
    *code = 0;
  }
  return true;
}

std::uint32_t ProcessIdOf(ProcessHandle p) {
  return p ? static_cast<std::uint32_t>(p->pid) : 0;
}

void CloseProcess(ProcessHandle p) {
  if (!p) return;
  if (p->pidfd >= 0) ::close(p->pidfd);
  if (!detail::HasExited(p)) {
    std::lock_guard<std::mutex> guard(g_orphanLock);
    g_orphans.push_back(p->pid);
  }
  delete p;
  ReapOrphans();
}

bool ProcessIsRunning(std::uint32_t pid) {
  if (pid == 0) return false;
  if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno != EPERM) return false;
  // An ended process whose parent has not collected it yet still answers kill; Linux names
  // its state in /proc.
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%u/stat", pid);
  std::FILE* f = std::fopen(path, "r");
  if (!f) return true;
  char buf[256] = {};
  const std::size_t n = std::fread(buf, 1, sizeof buf - 1, f);
  std::fclose(f);
  const char* close = nullptr;
  for (std::size_t i = 0; i < n; ++i)
    if (buf[i] == ')') close = buf + i;
  return !(close && close + 2 < buf + n && (close[2] == 'Z' || close[2] == 'X'));
}

}  // namespace vx::os
