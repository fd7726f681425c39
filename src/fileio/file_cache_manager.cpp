#include "fileio/file_cache_manager.h"

#include <algorithm>
#include <cstring>

#include "base/guard.h"
#include "base/module.h"

namespace vx::fileio {

namespace {

inline CacheBlock* Descriptors(std::uint8_t* pool) {
  return reinterpret_cast<CacheBlock*>(pool);
}

}  // namespace

CVxFileCacheManager::CVxFileCacheManager() {
  std::memset(prev_, kNil, sizeof prev_);
  std::memset(next_, kNil, sizeof next_);
  std::memset(bucketHead_, kNil, sizeof bucketHead_);
  std::memset(chain_, kNil, sizeof chain_);
}

CVxFileCacheManager::~CVxFileCacheManager() {
  FreePool();
}

HRESULT STDMETHODCALLTYPE CVxFileCacheManager::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  return Guarded([&] {
    if (riid == IID_IUnknown || riid == IID_IVxGeneric) {
      *ppv = static_cast<IVxGeneric*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  });
}

HRESULT STDMETHODCALLTYPE CVxFileCacheManager::Start() {
  return Guarded([&] { return AllocatePool(); });
}

HRESULT STDMETHODCALLTYPE CVxFileCacheManager::Stop() {
  return Guarded([&] {
    FreePool();
    return S_OK;
  });
}

ULONG STDMETHODCALLTYPE CVxFileCacheManager::AddRef() {
  std::int32_t n = os::AtomicIncrement(&refs_);
  if (n == 1) module::AddObject();
  return static_cast<ULONG>(n);
}

ULONG STDMETHODCALLTYPE CVxFileCacheManager::Release() {
  std::int32_t n = os::AtomicDecrement(&refs_);
  if (n == 0) {
    module::RemoveObject();
    // A chunk file made on another thread since the decrement keeps its pool.
    os::Lock hold(lock_);
    if (os::AtomicLoad(&refs_) == 0) FreeLocked();
  }
  return static_cast<ULONG>(n);
}

HRESULT CVxFileCacheManager::AllocatePool() {
  if (pool_.load(std::memory_order_acquire)) return S_FALSE;
  os::Lock hold(lock_);
  if (pool_.load(std::memory_order_relaxed)) return S_FALSE;
  return AllocateLocked() ? S_OK : E_FAIL;
}

bool CVxFileCacheManager::AllocateLocked() {
  // The OS hands out zeroed pages, so neither descriptors nor blocks need clearing here.
  auto* pool = static_cast<std::uint8_t*>(os::AllocatePages(kCachePoolBytes));
  if (!pool) return false;
  CacheBlock* d = Descriptors(pool);
  head_ = tail_ = kNil;
  for (std::uint32_t i = 0; i < kCacheBlockCount; ++i) {
    d[i] = CacheBlock{0, 0, 0, 0, pool + kCacheBlockSize * (i + 1)};
    chain_[i] = kNil;
    ListPushTail(static_cast<std::uint8_t>(i));
  }
  std::memset(bucketHead_, kNil, sizeof bucketHead_);
  mapCount_ = 0;
  pool_.store(pool, std::memory_order_release);
  return true;
}

void CVxFileCacheManager::FreePool() {
  os::Lock hold(lock_);
  FreeLocked();
}

void CVxFileCacheManager::FreeLocked() {
  std::uint8_t* pool = pool_.load(std::memory_order_relaxed);
  if (!pool) return;
  CacheBlock* d = Descriptors(pool);
  while (mapCount_ > 0) {
    std::uint32_t i = 0;
    while (i < kCacheBlockCount && !(d[i].flags & kCacheBlockInUse)) ++i;
    if (i == kCacheBlockCount) break;  // count and flags disagree: nothing left to write
    FlushLocked(d[i].file);
  }
  head_ = tail_ = kNil;
  std::memset(prev_, kNil, sizeof prev_);
  std::memset(next_, kNil, sizeof next_);
  std::memset(bucketHead_, kNil, sizeof bucketHead_);
  std::memset(chain_, kNil, sizeof chain_);
  mapCount_ = 0;
  pool_.store(nullptr, std::memory_order_release);
  os::FreePages(pool, kCachePoolBytes);
}

std::uint32_t CVxFileCacheManager::Bucket(std::uint64_t offset, std::uint64_t file) {
  auto b = static_cast<std::uint32_t>(offset >> kCacheBlockShift);
  auto h = static_cast<std::uint32_t>(file);
  return (h + ((h + b) >> 4) + b) % kBuckets;
}

std::uint8_t CVxFileCacheManager::IndexOf(const CacheBlock* b) const {
  return static_cast<std::uint8_t>(b - Descriptors(pool_.load(std::memory_order_relaxed)));
}

CacheBlock* CVxFileCacheManager::Find(std::uint64_t offset, std::uint64_t file) {
  CacheBlock* d = Descriptors(pool_.load(std::memory_order_relaxed));
  for (std::uint8_t i = bucketHead_[Bucket(offset, file)]; i != kNil; i = chain_[i]) {
    if (d[i].offset == offset && d[i].file == file) return &d[i];
  }
  return nullptr;
}

void CVxFileCacheManager::MapInsert(std::uint8_t i) {
  CacheBlock* d = Descriptors(pool_.load(std::memory_order_relaxed));
  std::uint32_t k = Bucket(d[i].offset, d[i].file);
  chain_[i] = bucketHead_[k];
  bucketHead_[k] = i;
  ++mapCount_;
}

void CVxFileCacheManager::MapRemove(std::uint8_t i) {
  CacheBlock* d = Descriptors(pool_.load(std::memory_order_relaxed));
  std::uint8_t* link = &bucketHead_[Bucket(d[i].offset, d[i].file)];
  while (*link != kNil && *link != i) link = &chain_[*link];
  if (*link != i) return;
  *link = chain_[i];
  chain_[i] = kNil;
  --mapCount_;
}

void CVxFileCacheManager::ListUnlink(std::uint8_t i) {
  if (prev_[i] != kNil) {
    next_[prev_[i]] = next_[i];
  } else if (head_ == i) {
    head_ = next_[i];
  }
  if (next_[i] != kNil) {
    prev_[next_[i]] = prev_[i];
  } else if (tail_ == i) {
    tail_ = prev_[i];
  }
  prev_[i] = next_[i] = kNil;
}

void CVxFileCacheManager::ListPushHead(std::uint8_t i) {
  prev_[i] = kNil;
  next_[i] = head_;
  if (head_ != kNil) prev_[head_] = i;
  head_ = i;
  if (tail_ == kNil) tail_ = i;
}

void CVxFileCacheManager::ListPushTail(std::uint8_t i) {
  next_[i] = kNil;
  prev_[i] = tail_;
  if (tail_ != kNil) next_[tail_] = i;
  tail_ = i;
  if (head_ == kNil) head_ = i;
}

void CVxFileCacheManager::WriteBack(CacheBlock* b) {
  // Whole blocks only: a file ending inside a dirty block grows to the block's end.
  std::uint32_t written = 0;
  os::WriteAt(static_cast<os::FileHandle>(b->file), b->offset, b->data, kCacheBlockSize, &written);
  b->flags &= ~static_cast<std::uint32_t>(kCacheBlockDirty);
}

CacheBlock* CVxFileCacheManager::GetBlock(os::FileHandle file, std::uint64_t blockOffset) {
  if (!pool_.load(std::memory_order_relaxed) && !AllocateLocked()) return nullptr;
  auto key = static_cast<std::uint64_t>(file);
  if (CacheBlock* hit = Find(blockOffset, key)) {
    std::uint8_t i = IndexOf(hit);
    if (head_ != i) {
      ListUnlink(i);
      ListPushHead(i);
    }
    return hit;
  }
  std::uint8_t i = Victim();
  if (i == kNil) return nullptr;
  CacheBlock* b = &Descriptors(pool_.load(std::memory_order_relaxed))[i];
  if (b->flags & kCacheBlockInUse) {
    if (b->flags & kCacheBlockDirty) WriteBack(b);
    MapRemove(i);
    evictions_.fetch_add(1, std::memory_order_relaxed);
  }
  b->offset = blockOffset;
  b->file = key;
  b->flags = kCacheBlockInUse;
  std::uint32_t got = 0;
  // A failed fill is a zeroed block with nothing valid, which reads as the end of the file.
  if (!os::ReadAt(file, blockOffset, b->data, kCacheBlockSize, &got)) got = 0;
  got = std::min(got, kCacheBlockSize);
  b->valid = got;
  // Only the part the read did not fill; a full block is left as the kernel wrote it.
  if (got < kCacheBlockSize) std::memset(b->data + got, 0, kCacheBlockSize - got);
  MapInsert(i);
  ListUnlink(i);
  ListPushHead(i);
  return b;
}

std::uint8_t CVxFileCacheManager::Victim() const {
  for (std::uint8_t i = tail_; i != kNil; i = prev_[i]) {
    if (pins_[i].load(std::memory_order_acquire) == 0) return i;
  }
  return kNil;
}

void CVxFileCacheManager::Unpin(const CacheBlock* b) {
  pins_[IndexOf(b)].fetch_sub(1, std::memory_order_release);
}

// Every block is in use by a copy of another thread (more threads than blocks): the caller's
// piece of this block goes to the file directly. The block is not cached, and as each file has
// one thread at a time, no cached copy of it can appear meanwhile.
std::uint32_t CVxFileCacheManager::Bypass(os::FileHandle file, std::uint64_t at, std::uint32_t n,
                                          void* out, const void* in) {
  bypasses_.fetch_add(1, std::memory_order_relaxed);
  std::uint32_t got = 0;
  const bool ok = in ? os::WriteAt(file, at, in, n, &got) : os::ReadAt(file, at, out, n, &got);
  return ok ? std::min(got, n) : 0;
}

HRESULT CVxFileCacheManager::Read(os::FileHandle file, std::uint64_t position, std::uint32_t count,
                                  std::uint32_t* done, void* buffer) {
  std::uint32_t moved = 0;
  if (done) *done = 0;
  if (count == 0 || !buffer) return S_OK;
  auto* out = static_cast<std::uint8_t*>(buffer);
  std::uint64_t block = position & ~static_cast<std::uint64_t>(kCacheBlockSize - 1);
  std::uint32_t offset = static_cast<std::uint32_t>(position) & (kCacheBlockSize - 1);
  std::uint32_t remaining = count;
  while (remaining > 0) {
    const std::uint8_t* data = nullptr;
    std::uint32_t valid = 0;
    CacheBlock* b;
    {
      os::Lock hold(lock_);
      if (!pool_.load(std::memory_order_relaxed) && !AllocateLocked()) break;
      b = GetBlock(file, block);
      if (b) {
        data = b->data;
        valid = b->valid;
        if (valid > offset) pins_[IndexOf(b)].fetch_add(1, std::memory_order_relaxed);
      }
    }
    if (!b) {
      const std::uint32_t want = std::min(kCacheBlockSize - offset, remaining);
      const std::uint32_t got = Bypass(file, block + offset, want, out + moved, nullptr);
      moved += got;
      remaining -= got;
      if (done) *done = moved;
      if (got < want) break;
      block += kCacheBlockSize;
      offset = 0;
      continue;
    }
    if (valid <= offset) break;
    std::uint32_t n = std::min(valid - offset, remaining);
    bool last = valid < kCacheBlockSize && n < remaining;
    // Outside the lock, as every caller keeps one file to one thread.
    std::memcpy(out + moved, data + offset, n);
    Unpin(b);
    moved += n;
    remaining -= n;
    if (done) *done = moved;
    if (last) break;
    block += kCacheBlockSize;
    offset = 0;
  }
  return S_OK;
}

HRESULT CVxFileCacheManager::Write(os::FileHandle file, std::uint64_t position, std::uint32_t count,
                                   std::uint32_t* done, const void* buffer) {
  std::uint32_t moved = 0;
  if (done) *done = 0;
  if (count == 0 || !buffer) return S_OK;
  const auto* in = static_cast<const std::uint8_t*>(buffer);
  std::uint64_t block = position & ~static_cast<std::uint64_t>(kCacheBlockSize - 1);
  std::uint32_t offset = static_cast<std::uint32_t>(position) & (kCacheBlockSize - 1);
  std::uint32_t remaining = count;
  while (remaining > 0) {
    std::uint8_t* data = nullptr;
    std::uint32_t n = std::min(kCacheBlockSize - offset, remaining);
    CacheBlock* b;
    {
      os::Lock hold(lock_);
      if (!pool_.load(std::memory_order_relaxed) && !AllocateLocked()) break;
      b = GetBlock(file, block);
      if (b) {
        b->flags |= kCacheBlockDirty;
        b->valid = std::max(b->valid, offset + n);
        data = b->data;
        pins_[IndexOf(b)].fetch_add(1, std::memory_order_relaxed);
      }
    }
    if (b) {
      std::memcpy(data + offset, in + moved, n);
      Unpin(b);
    } else if (Bypass(file, block + offset, n, nullptr, in + moved) != n) {
      break;
    }
    moved += n;
    remaining -= n;
    if (done) *done = moved;
    block += kCacheBlockSize;
    offset = 0;
  }
  return S_OK;
}

bool CVxFileCacheManager::HoldBlock(os::FileHandle file, std::uint64_t position) {
  os::Lock hold(lock_);
  CacheBlock* b = GetBlock(file, position & ~static_cast<std::uint64_t>(kCacheBlockSize - 1));
  if (!b) return false;
  pins_[IndexOf(b)].fetch_add(1, std::memory_order_relaxed);
  return true;
}

void CVxFileCacheManager::LetGoBlock(os::FileHandle file, std::uint64_t position) {
  os::Lock hold(lock_);
  if (!pool_.load(std::memory_order_relaxed)) return;
  if (CacheBlock* b = Find(position & ~static_cast<std::uint64_t>(kCacheBlockSize - 1),
                           static_cast<std::uint64_t>(file)))
    Unpin(b);
}

void CVxFileCacheManager::FlushFile(os::FileHandle file) {
  os::Lock hold(lock_);
  FlushLocked(static_cast<std::uint64_t>(file));
}

void CVxFileCacheManager::FlushLocked(std::uint64_t file) {
  std::uint8_t* pool = pool_.load(std::memory_order_relaxed);
  if (!pool) return;
  CacheBlock* d = Descriptors(pool);
  for (std::uint32_t k = 0; k < kCacheBlockCount; ++k) {
    CacheBlock* b = &d[k];
    if (!(b->flags & kCacheBlockInUse) || b->file != file) continue;
    auto i = static_cast<std::uint8_t>(k);
    MapRemove(i);
    ListUnlink(i);
    if (b->flags & kCacheBlockDirty) WriteBack(b);
    b->flags = 0;
    b->valid = 0;
    ListPushTail(i);
  }
}

bool CVxFileCacheManager::IsCached(os::FileHandle file, std::uint64_t position) {
  os::Lock hold(lock_);
  if (!pool_.load(std::memory_order_relaxed)) return false;
  return Find(position & ~static_cast<std::uint64_t>(kCacheBlockSize - 1),
              static_cast<std::uint64_t>(file)) != nullptr;
}

std::uint32_t CVxFileCacheManager::CachedBlockCount() {
  os::Lock hold(lock_);
  return mapCount_;
}

bool CVxFileCacheManager::HasPool() {
  return pool_.load(std::memory_order_acquire) != nullptr;
}

CVxFileCacheManager& CacheManager() {
  // Never destroyed: chunk files in other static objects may still release it at exit.
  static CVxFileCacheManager* instance = new CVxFileCacheManager;
  return *instance;
}

IVxGeneric* CacheManagerInstance() {
  return &CacheManager();
}

}  // namespace vx::fileio
