// The process-wide block cache behind cached chunk files: 128 blocks of 128 KiB keyed by file
// handle and block offset, reused least-recently-used, dirty blocks written back whole.
#pragma once

#include <atomic>
#include <cstdint>

#include "vx/platform.h"
#include "vx/sdk.h"

namespace vx::fileio {

inline constexpr std::uint32_t kCacheBlockSize = 0x20000;
inline constexpr std::uint32_t kCacheBlockCount = 128;
inline constexpr std::uint32_t kCacheBlockShift = 17;
// Descriptors take the first block's worth of the pool, the data blocks follow.
inline constexpr std::size_t kCachePoolBytes =
    static_cast<std::size_t>(kCacheBlockSize) * (kCacheBlockCount + 1);
static_assert(kCachePoolBytes == 0x1020000);

enum : std::uint32_t {
  kCacheBlockInUse = 1,  // holds a file block
  kCacheBlockDirty = 4,
};

// One block descriptor. It holds a pointer and a handle yet is 32 bytes on both pointer sizes:
// the handle is kept as 64 bits (its high word is the second key word) and the data pointer
// fills the slot that 32-bit alignment pads anyway.
struct alignas(8) CacheBlock {
  std::uint64_t offset;  // multiple of kCacheBlockSize
  std::uint64_t file;    // os::FileHandle widened; low word feeds the hash
  std::uint32_t valid;   // bytes that came from the file or were written
  std::uint32_t flags;
  std::uint8_t* data;
};
static_assert(sizeof(CacheBlock) == 32, "descriptor layout is 32 bytes");

class CVxFileCacheManager : public IVxGeneric {
 public:
  CVxFileCacheManager();
  CVxFileCacheManager(const CVxFileCacheManager&) = delete;
  CVxFileCacheManager& operator=(const CVxFileCacheManager&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  // The 0<->1 transitions raise and lower the module object count; reaching 0 frees the pool.
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;
  // The generic-object start and stop are the pool's allocation and release.
  HRESULT STDMETHODCALLTYPE Start() override;
  HRESULT STDMETHODCALLTYPE Stop() override;
  virtual ~CVxFileCacheManager();

  // S_FALSE when the pool exists already, S_OK once allocated, E_FAIL when memory ran out.
  HRESULT AllocatePool();
  // Writes back every dirty block, then releases the pool.
  void FreePool();

  // Both return S_OK; *done tells how much moved. A read stops at the end of the cached data.
  // When a block is needed and all 128 are in use by copies of other threads, that block's
  // piece of the transfer goes straight to the file, uncached (exactly the bytes asked for).
  HRESULT Read(os::FileHandle file, std::uint64_t position, std::uint32_t count,
               std::uint32_t* done, void* buffer);
  HRESULT Write(os::FileHandle file, std::uint64_t position, std::uint32_t count,
                std::uint32_t* done, const void* buffer);
  // Writes back and forgets every block of `file`; call before closing the handle.
  void FlushFile(os::FileHandle file);

  // For tests: whether a block of `file` at the block holding `position` is cached; the number
  // of blocks in the map.
  bool IsCached(os::FileHandle file, std::uint64_t position);
  std::uint32_t CachedBlockCount();
  bool HasPool();
  std::int32_t RefCount() { return os::AtomicLoad(&refs_); }
  std::uint64_t EvictionCount() { return evictions_.load(std::memory_order_relaxed); }
  // Pieces that went straight to the file because every block was in use.
  std::uint64_t BypassCount() { return bypasses_.load(std::memory_order_relaxed); }
  // For tests: keeps the block of `file` holding `position` in use, as a copy in progress does
  // (false when every block is in use already), and lets it go again.
  bool HoldBlock(os::FileHandle file, std::uint64_t position);
  void LetGoBlock(os::FileHandle file, std::uint64_t position);

 private:
  static constexpr std::uint32_t kBuckets = 257;
  static constexpr std::uint8_t kNil = 0xFF;

  static std::uint32_t Bucket(std::uint64_t offset, std::uint64_t file);
  std::uint8_t IndexOf(const CacheBlock* b) const;
  bool AllocateLocked();
  void FreeLocked();
  // The block of (file, blockOffset), loaded into the least recently used block not in use; null
  // when every block is in use (or there is no pool).
  CacheBlock* GetBlock(os::FileHandle file, std::uint64_t blockOffset);
  std::uint8_t Victim() const;  // kNil when every block is in use
  std::uint32_t Bypass(os::FileHandle file, std::uint64_t at, std::uint32_t n, void* out,
                       const void* in);
  void Unpin(const CacheBlock* b);
  CacheBlock* Find(std::uint64_t offset, std::uint64_t file);
  void MapInsert(std::uint8_t i);
  void MapRemove(std::uint8_t i);
  void ListUnlink(std::uint8_t i);
  void ListPushHead(std::uint8_t i);
  void ListPushTail(std::uint8_t i);
  void WriteBack(CacheBlock* b);
  void FlushLocked(std::uint64_t file);

  os::CriticalSection lock_;
  // Recency list over descriptor indices: head most recent, tail next to reuse.
  std::uint8_t head_ = kNil;
  std::uint8_t tail_ = kNil;
  std::uint8_t prev_[kCacheBlockCount];
  std::uint8_t next_[kCacheBlockCount];
  // Chained hash map over descriptor indices.
  std::uint8_t bucketHead_[kBuckets];
  std::uint8_t chain_[kCacheBlockCount];
  std::uint32_t mapCount_ = 0;
  // Blocks a Read or Write is still copying after the lock was let go. Eviction passes over
  // them, or a thread held up mid-copy would write into a block that now belongs to another
  // file. Raised under the lock, lowered without it.
  std::atomic<std::uint16_t> pins_[kCacheBlockCount] = {};
  std::atomic<std::uint8_t*> pool_{nullptr};
  volatile std::int32_t refs_ = 0;
  std::atomic<std::uint64_t> evictions_{0};  // blocks of a file reused for another
  std::atomic<std::uint64_t> bypasses_{0};
};

// The module's single cache manager (no reference added). The class factory hands this out for
// the cache manager's class id.
IVxGeneric* CacheManagerInstance();
CVxFileCacheManager& CacheManager();

}  // namespace vx::fileio
