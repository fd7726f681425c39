#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "posix_util.h"
#include "vx/platform.h"

namespace vx::os {

namespace {

// What SharedMemory::handle points at: the name is needed again to remove it.
struct ShmImpl {
  std::string name;
};

int OpenExisting(const std::string& name) {
  int fd;
  do {
    fd = ::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool ObjectSize(int fd, std::uint64_t* size) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return false;
  *size = static_cast<std::uint64_t>(st.st_size);
  return true;
}

// A creator sizes its object right after creating it; an opener that comes in between sees
// it empty for a moment.
bool WaitForSize(int fd, std::uint64_t wanted, std::uint64_t* size) {
  for (int i = 0; i < 200; ++i) {
    if (!ObjectSize(fd, size)) return false;
    if (*size != 0) return *size >= wanted;
    SleepMs(1);
  }
  return false;
}

bool MapWhole(int fd, std::uint64_t size, const std::string& name, bool owner, SharedMemory* out) {
  if (size == 0 || size > SIZE_MAX) return false;
  void* view =
      ::mmap(nullptr, static_cast<std::size_t>(size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (view == MAP_FAILED) return false;
  out->handle = reinterpret_cast<std::intptr_t>(new ShmImpl{name});
  out->view = view;
  out->size = size;
  out->owner = owner;
  return true;
}

}  // namespace

bool CreateSharedMemory(const VxChar* name, std::uint64_t size, SharedMemory* out) {
  if (!out || !name || !*name || size == 0) return false;
  *out = SharedMemory{};
  const std::uint64_t rounded = RoundToPage(size);
  if (rounded == 0 || rounded > static_cast<std::uint64_t>(INT64_MAX)) return false;
  const std::string shmName = detail::ObjectName("vx_", name);

  int fd;
  do {
    fd = ::shm_open(shmName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd >= 0) {
    bool ok = ::ftruncate(fd, static_cast<off_t>(rounded)) == 0 &&
              MapWhole(fd, rounded, shmName, true, out);
    ::close(fd);
    if (!ok) ::shm_unlink(shmName.c_str());
    return ok;
  }
  if (errno != EEXIST) return false;

  fd = OpenExisting(shmName);
  if (fd < 0) return false;
  std::uint64_t actual = 0;
  const bool ok = WaitForSize(fd, rounded, &actual) && MapWhole(fd, actual, shmName, false, out);
  ::close(fd);
  return ok;
}

bool OpenSharedMemory(const VxChar* name, std::uint64_t size, SharedMemory* out) {
  if (!out || !name || !*name) return false;
  *out = SharedMemory{};
  const std::uint64_t rounded = RoundToPage(size);
  const std::string shmName = detail::ObjectName("vx_", name);
  const int fd = OpenExisting(shmName);
  if (fd < 0) return false;
  std::uint64_t actual = 0;
  const bool ok = WaitForSize(fd, rounded, &actual) && MapWhole(fd, actual, shmName, false, out);
  ::close(fd);
  return ok;
}

void CloseSharedMemory(SharedMemory* shm) {
  if (!shm) return;
  if (shm->view) ::munmap(shm->view, static_cast<std::size_t>(shm->size));
  if (shm->handle != -1 && shm->handle != 0) {
    auto* impl = reinterpret_cast<ShmImpl*>(shm->handle);
    if (shm->owner) ::shm_unlink(impl->name.c_str());
    delete impl;
  }
  *shm = SharedMemory{};
}

}  // namespace vx::os
