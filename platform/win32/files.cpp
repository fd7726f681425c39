#include <limits>

#include "win.h"

namespace vx::os {
using win::F;
using win::H;

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

FileHandle OpenWith(const VxChar* path, DWORD access, DWORD disposition) {
  if (!path || !*path) return kNoFile;
  HANDLE h =
      ::CreateFileW(path, access, kShareAll, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  return h == INVALID_HANDLE_VALUE ? kNoFile : F(h);
}

OVERLAPPED At(std::uint64_t offset) {
  OVERLAPPED ov{};
  ov.Offset = static_cast<DWORD>(offset);
  ov.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return ov;
}

// The lock is one byte far beyond any data: Windows locks are mandatory for the bytes they
// cover, and readers through other handles must not be refused.
constexpr DWORD kLockLow = 0xFFFFFFFEu;
constexpr DWORD kLockHigh = 0x7FFFFFFFu;

DWORD Attributes(const VxChar* path) {
  if (!path || !*path) return INVALID_FILE_ATTRIBUTES;
  return ::GetFileAttributesW(path);
}

}  // namespace

FileHandle OpenRead(const VxChar* path) {
  return OpenWith(path, GENERIC_READ, OPEN_EXISTING);
}
FileHandle OpenReadWrite(const VxChar* path) {
  return OpenWith(path, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING);
}
FileHandle Create(const VxChar* path) {
  return OpenWith(path, GENERIC_READ | GENERIC_WRITE, CREATE_ALWAYS);
}

bool ReadAt(FileHandle f, std::uint64_t offset, void* buf, std::uint32_t count,
            std::uint32_t* done) {
  DWORD got = 0;
  bool ok = true;
  if (f == kNoFile || (count && !buf)) {
    ok = false;
  } else if (count) {
    OVERLAPPED ov = At(offset);
    if (!::ReadFile(H(f), buf, count, &got, &ov)) {
      // A synchronous handle reports a read that starts at or past the end this way.
      ok = ::GetLastError() == ERROR_HANDLE_EOF;
      got = 0;
    }
  }
  if (done) *done = got;
  return ok;
}

bool WriteAt(FileHandle f, std::uint64_t offset, const void* buf, std::uint32_t count,
             std::uint32_t* done) {
  DWORD put = 0;
  bool ok = true;
  if (f == kNoFile || (count && !buf)) {
    ok = false;
  } else if (count) {
    OVERLAPPED ov = At(offset);
    ok = ::WriteFile(H(f), buf, count, &put, &ov) != 0;
    if (!ok) put = 0;
  }
  if (done) *done = put;
  return ok;
}

bool Size(FileHandle f, std::uint64_t* size) {
  LARGE_INTEGER li{};
  if (f == kNoFile || !size || !::GetFileSizeEx(H(f), &li)) return false;
  *size = static_cast<std::uint64_t>(li.QuadPart);
  return true;
}

bool Truncate(FileHandle f, std::uint64_t size) {
  if (f == kNoFile || size > static_cast<std::uint64_t>(std::numeric_limits<LONGLONG>::max()))
    return false;
  // Positioned transfers never use the file pointer, so moving it here disturbs nobody.
  LARGE_INTEGER li{};
  li.QuadPart = static_cast<LONGLONG>(size);
  return ::SetFilePointerEx(H(f), li, nullptr, FILE_BEGIN) && ::SetEndOfFile(H(f));
}

void Close(FileHandle f) {
  if (f != kNoFile) ::CloseHandle(H(f));
}

bool IsFile(const VxChar* path) {
  DWORD a = Attributes(path);
  return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

bool IsDirectory(const VxChar* path) {
  DWORD a = Attributes(path);
  return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

bool ListFiles(const VxChar* folder, std::vector<VxString>* names) {
  names->clear();
  if (!folder || !*folder) return false;
  std::wstring pattern(folder);
  if (pattern.back() != L'\\' && pattern.back() != L'/') pattern += L'\\';
  pattern += L'*';
  WIN32_FIND_DATAW found;
  HANDLE h = ::FindFirstFileW(pattern.c_str(), &found);
  if (h == INVALID_HANDLE_VALUE) return ::GetLastError() == ERROR_FILE_NOT_FOUND;
  try {
    do {
      if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names->push_back(found.cFileName);
    } while (::FindNextFileW(h, &found));
  } catch (...) {
    ::FindClose(h);
    throw;
  }
  ::FindClose(h);
  return true;
}

std::FILE* OpenStdio(const VxChar* path, const VxChar* mode) {
  if (!path || !*path || !mode) return nullptr;
  return ::_wfopen(path, mode);
}

bool Remove(const VxChar* path) {
  return path && *path && ::DeleteFileW(path);
}

bool Replace(const VxChar* from, const VxChar* to) {
  if (!from || !*from || !to || !*to) return false;
  // A replace of the same name by another writer, or a reader that has it open for a moment,
  // makes Windows refuse with a sharing error where POSIX would just swap the name: try again
  // for up to a second before giving up.
  for (int attempt = 0;; ++attempt) {
    if (::MoveFileExW(from, to, MOVEFILE_REPLACE_EXISTING)) return true;
    const DWORD error = ::GetLastError();
    if ((error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) || attempt == 100)
      return false;
    ::Sleep(10);
  }
}

bool LockFile(FileHandle f) {
  if (f == kNoFile) return false;
  OVERLAPPED ov{};
  ov.Offset = kLockLow;
  ov.OffsetHigh = kLockHigh;
  return ::LockFileEx(H(f), LOCKFILE_EXCLUSIVE_LOCK, 0, 1, 0, &ov) != 0;
}

void UnlockFile(FileHandle f) {
  if (f == kNoFile) return;
  OVERLAPPED ov{};
  ov.Offset = kLockLow;
  ov.OffsetHigh = kLockHigh;
  ::UnlockFileEx(H(f), 0, 1, 0, &ov);
}

}  // namespace vx::os
