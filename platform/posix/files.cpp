#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "posix_util.h"
#include "vx/platform.h"

namespace vx::os {

namespace {

FileHandle OpenWith(const VxChar* path, int flags) {
  if (!path || !*path) return kNoFile;
  const std::string p = detail::Native(path);
  int fd;
  // Non-blocking so a FIFO without a writer cannot stall the open; cleared right after.
  do {
    fd = ::open(p.c_str(), flags | O_CLOEXEC | O_NONBLOCK, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return kNoFile;
  const int fl = ::fcntl(fd, F_GETFL);
  if (fl >= 0) ::fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
  // A directory opens fine for reading on POSIX; callers expect a file or nothing.
  struct stat st;
  if (::fstat(fd, &st) != 0 || S_ISDIR(st.st_mode)) {
    ::close(fd);
    return kNoFile;
  }
  fd = detail::LiftFd(fd);
  return fd < 0 ? kNoFile : static_cast<FileHandle>(fd);
}

bool Valid(FileHandle f) {
  return f >= 3 && f <= 0x7FFFFFFF;
}

}  // namespace

FileHandle OpenRead(const VxChar* path) {
  return OpenWith(path, O_RDONLY);
}
FileHandle OpenReadWrite(const VxChar* path) {
  return OpenWith(path, O_RDWR);
}
FileHandle Create(const VxChar* path) {
  return OpenWith(path, O_RDWR | O_CREAT | O_TRUNC);
}

bool ReadAt(FileHandle f, std::uint64_t offset, void* buf, std::uint32_t count,
            std::uint32_t* done) {
  if (done) *done = 0;
  if (!Valid(f) || (!buf && count) || offset > static_cast<std::uint64_t>(INT64_MAX)) return false;
  auto* p = static_cast<unsigned char*>(buf);
  std::uint32_t got = 0;
  while (got < count) {
    const ssize_t n =
        ::pread(static_cast<int>(f), p + got, count - got, static_cast<off_t>(offset + got));
    if (n < 0) {
      if (errno == EINTR) continue;
      if (done) *done = got;
      return false;
    }
    if (n == 0) break;  // end of file
    got += static_cast<std::uint32_t>(n);
  }
  if (done) *done = got;
  return true;
}

bool WriteAt(FileHandle f, std::uint64_t offset, const void* buf, std::uint32_t count,
             std::uint32_t* done) {
  if (done) *done = 0;
  if (!Valid(f) || (!buf && count) || offset > static_cast<std::uint64_t>(INT64_MAX)) return false;
  const auto* p = static_cast<const unsigned char*>(buf);
  std::uint32_t put = 0;
  while (put < count) {
    const ssize_t n =
        ::pwrite(static_cast<int>(f), p + put, count - put, static_cast<off_t>(offset + put));
    if (n < 0) {
      if (errno == EINTR) continue;
      if (done) *done = put;
      return false;
    }
    if (n == 0) {  // no progress and no error: device full in disguise
      if (done) *done = put;
      return false;
    }
    put += static_cast<std::uint32_t>(n);
  }
  if (done) *done = put;
  return true;
}

bool Size(FileHandle f, std::uint64_t* size) {
  if (!Valid(f) || !size) return false;
  struct stat st;
  if (::fstat(static_cast<int>(f), &st) != 0) return false;
  *size = static_cast<std::uint64_t>(st.st_size);
  return true;
}

bool Truncate(FileHandle f, std::uint64_t size) {
  if (!Valid(f) || size > static_cast<std::uint64_t>(INT64_MAX)) return false;
  int r;
  do {
    r = ::ftruncate(static_cast<int>(f), static_cast<off_t>(size));
  } while (r != 0 && errno == EINTR);
  return r == 0;
}

void Close(FileHandle f) {
  if (Valid(f)) ::close(static_cast<int>(f));
}

bool IsFile(const VxChar* path) {
  if (!path || !*path) return false;
  struct stat st;
  return ::stat(detail::Native(path).c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

bool IsDirectory(const VxChar* path) {
  if (!path || !*path) return false;
  struct stat st;
  return ::stat(detail::Native(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool ListFiles(const VxChar* folder, std::vector<VxString>* names) {
  names->clear();
  if (!folder || !*folder) return false;
  std::string dir = detail::Native(folder);
  DIR* d = ::opendir(dir.c_str());
  if (!d) return false;
  if (dir.back() != '/') dir += '/';
  try {
    while (const dirent* e = ::readdir(d)) {
      const std::string name = e->d_name;
      if (name == "." || name == "..") continue;
      bool folderEntry = e->d_type == DT_DIR;
      if (e->d_type == DT_UNKNOWN || e->d_type == DT_LNK) {
        struct stat st;
        folderEntry = ::stat((dir + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
      }
      if (!folderEntry) names->push_back(FromUtf8(name));
    }
  } catch (...) {
    ::closedir(d);
    throw;
  }
  ::closedir(d);
  return true;
}

std::FILE* OpenStdio(const VxChar* path, const VxChar* mode) {
  if (!path || !*path || !mode) return nullptr;
  return std::fopen(detail::Native(path).c_str(), ToUtf8(mode).c_str());
}

bool Remove(const VxChar* path) {
  if (!path || !*path) return false;
  return ::unlink(detail::Native(path).c_str()) == 0;
}

bool Replace(const VxChar* from, const VxChar* to) {
  if (!from || !*from || !to || !*to) return false;
  return std::rename(detail::Native(from).c_str(), detail::Native(to).c_str()) == 0;
}

// flock belongs to the open file description, so two handles of one process exclude each
// other as well as two processes do (fcntl locks would not).
bool LockFile(FileHandle f) {
  if (!Valid(f)) return false;
  int r;
  do {
    r = ::flock(static_cast<int>(f), LOCK_EX);
  } while (r != 0 && errno == EINTR);
  return r == 0;
}

void UnlockFile(FileHandle f) {
  if (Valid(f)) ::flock(static_cast<int>(f), LOCK_UN);
}

}  // namespace vx::os
