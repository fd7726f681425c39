#include <fcntl.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>
#include <vector>

#include "posix_util.h"
#include "vx/platform.h"

namespace vx::os {

namespace detail {

int LiftFd(int fd) {
  if (fd < 0 || fd >= 3) return fd;
  const int lifted = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  ::close(fd);
  return lifted;
}

std::uint64_t NowMs() {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1000u +
         static_cast<std::uint64_t>(ts.tv_nsec) / 1000000u;
}

timespec DeadlineIn(std::uint32_t ms) {
  timespec ts;
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  ts.tv_sec += static_cast<time_t>(ms / 1000u);
  ts.tv_nsec += static_cast<long>(ms % 1000u) * 1000000L;
  if (ts.tv_nsec >= 1000000000L) {
    ts.tv_nsec -= 1000000000L;
    ++ts.tv_sec;
  }
  return ts;
}

std::string ObjectName(const char* prefix, const VxChar* name) {
  static const char kHex[] = "0123456789abcdef";
  const std::string utf8 = Native(name);
  std::string out = "/";
  out += prefix;
  for (unsigned char c : utf8) {
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                       c == '_' || c == '-' || c == '.';
    if (plain) {
      out += static_cast<char>(c);
    } else {
      out += '+';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  // NAME_MAX is 255; overlong names keep a readable head and a hash of the whole.
  if (out.size() > 200) {
    std::uint64_t h = 1469598103934665603ull;
    for (unsigned char c : utf8) h = (h ^ c) * 1099511628211ull;
    out.resize(180);
    out += '~';
    for (int i = 15; i >= 0; --i) out += kHex[(h >> (i * 4)) & 15];
  }
  return out;
}

}  // namespace detail

std::uint32_t CurrentProcessId() {
  return static_cast<std::uint32_t>(::getpid());
}

VxString ExecutablePath() {
  std::vector<char> buf(512);
  for (;;) {
    const ssize_t n = ::readlink("/proc/self/exe", buf.data(), buf.size());
    if (n < 0) return VxString();
    if (static_cast<std::size_t>(n) < buf.size()) return FromUtf8({buf.data(), size_t(n)});
    if (buf.size() >= (1u << 20)) return VxString();
    buf.resize(buf.size() * 2);
  }
}

void SleepMs(std::uint32_t ms) {
  timespec req{static_cast<time_t>(ms / 1000u), static_cast<long>(ms % 1000u) * 1000000L};
  timespec rem{};
  while (::nanosleep(&req, &rem) != 0 && errno == EINTR) req = rem;
}

// ---- Critical section -----------------------------------------------------------------------

CriticalSection::CriticalSection() : impl_(new pthread_mutex_t) {
  pthread_mutexattr_t attr;
  ::pthread_mutexattr_init(&attr);
  ::pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  ::pthread_mutex_init(static_cast<pthread_mutex_t*>(impl_), &attr);
  ::pthread_mutexattr_destroy(&attr);
}

CriticalSection::~CriticalSection() {
  auto* m = static_cast<pthread_mutex_t*>(impl_);
  ::pthread_mutex_destroy(m);
  delete m;
}

void CriticalSection::Enter() {
  ::pthread_mutex_lock(static_cast<pthread_mutex_t*>(impl_));
}
void CriticalSection::Leave() {
  ::pthread_mutex_unlock(static_cast<pthread_mutex_t*>(impl_));
}

// ---- Pages ----------------------------------------------------------------------------------

std::size_t PageSize() {
  static const std::size_t size = [] {
    const long s = ::sysconf(_SC_PAGESIZE);
    return s > 0 ? static_cast<std::size_t>(s) : std::size_t{4096};
  }();
  return size;
}

std::uint64_t RoundToPage(std::uint64_t bytes) {
  const std::uint64_t page = PageSize();
  if (bytes > UINT64_MAX - (page - 1)) return 0;  // no such mapping can exist
  return (bytes + page - 1) / page * page;
}

void* AllocatePages(std::size_t bytes) {
  if (bytes == 0) return nullptr;
  const std::uint64_t size = RoundToPage(bytes);
  if (size == 0 || size > SIZE_MAX) return nullptr;
  void* p = ::mmap(nullptr, static_cast<std::size_t>(size), PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

void FreePages(void* p, std::size_t bytes) {
  if (!p || bytes == 0) return;
  ::munmap(p, static_cast<std::size_t>(RoundToPage(bytes)));
}

void KeepFreedMemory() {
#if defined(__GLIBC__)
  // Blocks up to the largest threshold glibc takes come from the heap, and the heap's top is
  // never trimmed; above that glibc maps and unmaps each block whatever is set.
  ::mallopt(M_MMAP_THRESHOLD, 32 << 20);
  ::mallopt(M_TRIM_THRESHOLD, 1 << 30);
#endif
}

// ---- Environment and user interface ---------------------------------------------------------

bool GetEnv(const char* name, std::string* value) {
  if (!name || !*name) return false;
  const char* v = std::getenv(name);
  if (!v) return false;
  if (value) *value = v;
  return true;
}

// No desktop toolkit is assumed here; the SDK prints the message instead.
bool ShowMessageBox(const VxChar*, const VxChar*) {
  return false;
}

bool IsTerminal(int fd) {
  return ::isatty(fd) == 1;
}

}  // namespace vx::os
