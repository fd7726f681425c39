#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "posix_util.h"
#include "process_impl.h"
#include "vx/platform.h"

namespace vx::os {

namespace {

constexpr std::uint32_t kReady = 0x56584556u;  // set once the creator has built the block

constexpr int kMaxProcesses = 64;

// Handles one process holds on the event.
struct UserSlot {
  std::int32_t pid;  // 0: free
  std::int32_t handles;
};

// One small shared block per event name. Every process counts its handles in `users`; the
// last one to close removes the name, as a kernel object would vanish. Processes that died
// without closing (decoders get killed) are pruned, so they neither keep the name alive nor
// hand a stale signal to the next session.
struct EventBlock {
  std::uint32_t ready;
  std::int32_t dead;  // set by whoever removes the name
  std::int32_t signalled;
  pthread_mutex_t mutex;
  pthread_cond_t cond;
  UserSlot users[kMaxProcesses];
};

bool AddUser(EventBlock* b, std::int32_t pid) {
  UserSlot* free = nullptr;
  for (UserSlot& u : b->users) {
    if (u.pid == pid) {
      ++u.handles;
      return true;
    }
    if (u.pid == 0 && !free) free = &u;
  }
  if (!free) return false;
  free->pid = pid;
  free->handles = 1;
  return true;
}

void RemoveUser(EventBlock* b, std::int32_t pid) {
  for (UserSlot& u : b->users) {
    if (u.pid == pid && --u.handles <= 0) u = UserSlot{0, 0};
  }
}

// Drops the slots of processes that no longer exist; true while anyone is left.
bool PruneAndCheckUsers(EventBlock* b, std::int32_t self) {
  bool any = false;
  for (UserSlot& u : b->users) {
    if (u.pid == 0) continue;
    if (u.pid != self && ::kill(u.pid, 0) != 0 && errno == ESRCH) {
      u = UserSlot{0, 0};
      continue;
    }
    any = true;
  }
  return any;
}

bool LockBlock(EventBlock* b) {
  const int r = ::pthread_mutex_lock(&b->mutex);
  if (r == EOWNERDEAD) {
    // A process died holding the lock; the flag it guards is a single word, so the state is
    // consistent whatever it was doing.
    ::pthread_mutex_consistent(&b->mutex);
    return true;
  }
  return r == 0;
}

void UnlockBlock(EventBlock* b) {
  ::pthread_mutex_unlock(&b->mutex);
}

bool InitBlock(EventBlock* b, bool initiallySet) {
  pthread_mutexattr_t ma;
  ::pthread_mutexattr_init(&ma);
  ::pthread_mutexattr_setpshared(&ma, PTHREAD_PROCESS_SHARED);
  ::pthread_mutexattr_setrobust(&ma, PTHREAD_MUTEX_ROBUST);
  const int rm = ::pthread_mutex_init(&b->mutex, &ma);
  ::pthread_mutexattr_destroy(&ma);
  pthread_condattr_t ca;
  ::pthread_condattr_init(&ca);
  ::pthread_condattr_setpshared(&ca, PTHREAD_PROCESS_SHARED);
  ::pthread_condattr_setclock(&ca, CLOCK_MONOTONIC);
  const int rc = ::pthread_cond_init(&b->cond, &ca);
  ::pthread_condattr_destroy(&ca);
  if (rm != 0 || rc != 0) return false;
  AddUser(b, static_cast<std::int32_t>(::getpid()));
  b->signalled = initiallySet ? 1 : 0;
  __atomic_store_n(&b->ready, kReady, __ATOMIC_RELEASE);
  return true;
}

EventBlock* MapBlock(int fd) {
  void* p = ::mmap(nullptr, sizeof(EventBlock), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return p == MAP_FAILED ? nullptr : static_cast<EventBlock*>(p);
}

enum class Join { Joined, Absent, Dead, Broken, Failed };

// Joins an existing block; Dead means its last user is removing it, Broken that its creator
// never finished building it.
Join JoinExisting(const std::string& name, EventBlock** out) {
  int fd;
  do {
    fd = ::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno == ENOENT ? Join::Absent : Join::Failed;
  // The creator sizes and fills the block right after creating the name.
  bool ready = false;
  EventBlock* b = nullptr;
  for (int i = 0; i < 1000 && !ready; ++i) {
    struct stat st;
    if (::fstat(fd, &st) != 0) break;
    if (static_cast<std::size_t>(st.st_size) >= sizeof(EventBlock)) {
      if (!b) b = MapBlock(fd);
      if (!b) break;
      ready = __atomic_load_n(&b->ready, __ATOMIC_ACQUIRE) == kReady;
    }
    if (!ready) SleepMs(1);
  }
  ::close(fd);
  if (!ready) {
    if (b) ::munmap(b, sizeof(EventBlock));
    return Join::Broken;
  }
  if (!LockBlock(b)) {
    ::munmap(b, sizeof(EventBlock));
    return Join::Failed;
  }
  const auto self = static_cast<std::int32_t>(::getpid());
  Join result = Join::Joined;
  if (b->dead) {
    result = Join::Dead;
  } else if (!PruneAndCheckUsers(b, self)) {
    // Everyone who used it is gone: it no longer exists in any meaningful sense.
    b->dead = 1;
    ::shm_unlink(name.c_str());
    result = Join::Dead;
  } else if (!AddUser(b, self)) {
    result = Join::Failed;
  }
  UnlockBlock(b);
  if (result != Join::Joined) {
    ::munmap(b, sizeof(EventBlock));
    return result;
  }
  *out = b;
  return Join::Joined;
}

}  // namespace

struct EventImpl {
  std::string name;
  EventBlock* block;
};

namespace {

EventHandle Acquire(const VxChar* name, bool create, bool initiallySet) {
  if (!name || !*name) return nullptr;
  const std::string shmName = detail::ObjectName("vxe_", name);
  for (int attempt = 0; attempt < 50; ++attempt) {
    if (create) {
      int fd;
      do {
        fd = ::shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      } while (fd < 0 && errno == EINTR);
      if (fd >= 0) {
        EventBlock* b = nullptr;
        const bool ok = ::ftruncate(fd, sizeof(EventBlock)) == 0 && (b = MapBlock(fd)) &&
                        InitBlock(b, initiallySet);
        ::close(fd);
        if (!ok) {
          if (b) ::munmap(b, sizeof(EventBlock));
          ::shm_unlink(shmName.c_str());
          return nullptr;
        }
        return new EventImpl{shmName, b};
      }
      if (errno != EEXIST) return nullptr;
    }
    EventBlock* b = nullptr;
    switch (JoinExisting(shmName, &b)) {
      case Join::Joined:
        return new EventImpl{shmName, b};
      case Join::Absent:
        if (!create) return nullptr;
        break;  // vanished in between: create it afresh
      case Join::Dead:
        if (!create) return nullptr;
        break;  // its name is gone already: create afresh
      case Join::Broken:
        // Left behind by a creator that died half-way; nobody can be using it.
        ::shm_unlink(shmName.c_str());
        if (!create) return nullptr;
        break;
      case Join::Failed:
        return nullptr;
    }
  }
  return nullptr;
}

}  // namespace

EventHandle CreateEvent(const VxChar* name, bool initiallySet) {
  return Acquire(name, true, initiallySet);
}

EventHandle OpenEvent(const VxChar* name) {
  return Acquire(name, false, false);
}

bool SetEvent(EventHandle e) {
  if (!e || !LockBlock(e->block)) return false;
  e->block->signalled = 1;
  // Broadcast: a waiter that died inside the wait must not swallow the wake-up. The woken
  // ones race for the flag under the lock and only one takes it.
  ::pthread_cond_broadcast(&e->block->cond);
  UnlockBlock(e->block);
  return true;
}

bool ResetEvent(EventHandle e) {
  if (!e || !LockBlock(e->block)) return false;
  e->block->signalled = 0;
  UnlockBlock(e->block);
  return true;
}

void CloseEvent(EventHandle e) {
  if (!e) return;
  if (LockBlock(e->block)) {
    const auto self = static_cast<std::int32_t>(::getpid());
    RemoveUser(e->block, self);
    if (!e->block->dead && !PruneAndCheckUsers(e->block, self)) {
      e->block->dead = 1;
      ::shm_unlink(e->name.c_str());
    }
    UnlockBlock(e->block);
  }
  ::munmap(e->block, sizeof(EventBlock));
  delete e;
}

namespace {

// Waits on the event's condition until `deadline`; true when the flag was taken.
// Call with the lock held; returns with it held.
bool TakeOrWait(EventBlock* b, const timespec& deadline, bool* timedOut) {
  *timedOut = false;
  if (b->signalled) {
    b->signalled = 0;
    return true;
  }
  const int r = ::pthread_cond_timedwait(&b->cond, &b->mutex, &deadline);
  if (r == EOWNERDEAD) ::pthread_mutex_consistent(&b->mutex);
  if (b->signalled) {
    b->signalled = 0;
    return true;
  }
  *timedOut = r == ETIMEDOUT;
  return false;
}

}  // namespace

Wait WaitEvent(EventHandle e, std::uint32_t timeoutMs) {
  if (!e) return Wait::Failed;
  EventBlock* b = e->block;
  if (!LockBlock(b)) return Wait::Failed;
  // An infinite wait still wakes now and then; that costs nothing and bounds the damage of a
  // wake-up lost to a process that died inside the condition variable.
  const bool infinite = timeoutMs == kInfinite;
  const std::uint64_t end = detail::NowMs() + (infinite ? 0 : timeoutMs);
  Wait result = Wait::Timeout;
  for (;;) {
    std::uint32_t slice = 1000;
    if (!infinite) {
      const std::uint64_t now = detail::NowMs();
      const std::uint64_t left = now >= end ? 0 : end - now;
      if (left < slice) slice = static_cast<std::uint32_t>(left);
    }
    bool timedOut = false;
    if (TakeOrWait(b, detail::DeadlineIn(slice), &timedOut)) {
      result = Wait::Signaled;
      break;
    }
    if (!infinite && detail::NowMs() >= end) break;
  }
  UnlockBlock(b);
  return result;
}

Wait WaitEventOrProcess(EventHandle e, ProcessHandle p, std::uint32_t timeoutMs) {
  if (!e || !p) return Wait::Failed;
  EventBlock* b = e->block;
  const bool infinite = timeoutMs == kInfinite;
  const std::uint64_t end = detail::NowMs() + (infinite ? 0 : timeoutMs);
  // The event comes first when both are ready, so a last answer sent just before the child
  // exited is not lost.
  for (;;) {
    if (!LockBlock(b)) return Wait::Failed;
    std::uint32_t slice = 10;
    if (!infinite) {
      const std::uint64_t now = detail::NowMs();
      const std::uint64_t left = now >= end ? 0 : end - now;
      if (left < slice) slice = static_cast<std::uint32_t>(left);
    }
    bool timedOut = false;
    const bool taken = TakeOrWait(b, detail::DeadlineIn(slice), &timedOut);
    UnlockBlock(b);
    if (taken) return Wait::Signaled;
    if (detail::HasExited(p)) return Wait::ProcessExited;
    if (!infinite && detail::NowMs() >= end) return Wait::Timeout;
  }
}

}  // namespace vx::os
