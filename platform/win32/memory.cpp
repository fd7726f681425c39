#include "win.h"

namespace vx::os {

std::size_t PageSize() {
  static const std::size_t size = [] {
    SYSTEM_INFO si{};
    ::GetSystemInfo(&si);
    return static_cast<std::size_t>(si.dwPageSize);
  }();
  return size;
}

std::uint64_t RoundToPage(std::uint64_t bytes) {
  const std::uint64_t page = PageSize();
  return (bytes + page - 1) / page * page;
}

namespace {

bool MapWhole(HANDLE mapping, std::uint64_t atLeast, bool owner, SharedMemory* out) {
  // The section may be larger than asked for when another process made it; its true size is
  // the region the whole view spans.
  void* view = ::MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 0);
  MEMORY_BASIC_INFORMATION mbi{};
  if (!view || !::VirtualQuery(view, &mbi, sizeof mbi) || mbi.RegionSize < atLeast) {
    if (view) ::UnmapViewOfFile(view);
    ::CloseHandle(mapping);
    return false;
  }
  out->handle = reinterpret_cast<std::intptr_t>(mapping);
  out->view = view;
  out->size = mbi.RegionSize;
  out->owner = owner;
  return true;
}

}  // namespace

// The names go to the session's namespace as they are, where the decoder processes started by
// this one open them.
bool CreateSharedMemory(const VxChar* name, std::uint64_t size, SharedMemory* out) {
  if (!name || !*name || !out || size == 0) return false;
  const std::uint64_t whole = RoundToPage(size);
  HANDLE m = ::CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE,
                                  static_cast<DWORD>(whole >> 32), static_cast<DWORD>(whole), name);
  if (!m) return false;
  const bool created = ::GetLastError() != ERROR_ALREADY_EXISTS;
  return MapWhole(m, size, created, out);
}

bool OpenSharedMemory(const VxChar* name, std::uint64_t size, SharedMemory* out) {
  if (!name || !*name || !out) return false;
  HANDLE m = ::OpenFileMappingW(FILE_MAP_ALL_ACCESS, FALSE, name);
  if (!m) return false;
  return MapWhole(m, size, false, out);
}

// Windows removes the name with its last handle; nothing more for the creator to do.
void CloseSharedMemory(SharedMemory* shm) {
  if (!shm) return;
  if (shm->view) ::UnmapViewOfFile(shm->view);
  if (shm->handle != -1 && shm->handle != 0) ::CloseHandle(reinterpret_cast<HANDLE>(shm->handle));
  *shm = SharedMemory{};
}

void* AllocatePages(std::size_t bytes) {
  if (bytes == 0) return nullptr;
  return ::VirtualAlloc(nullptr, bytes, MEM_COMMIT | MEM_RESERVE | MEM_TOP_DOWN, PAGE_READWRITE);
}

void FreePages(void* p, std::size_t) {
  if (p) ::VirtualFree(p, 0, MEM_RELEASE);
}

// The process heap keeps small blocks and gives large ones back; nothing to set there.
void KeepFreedMemory() {}

}  // namespace vx::os
