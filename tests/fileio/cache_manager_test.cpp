#include <cstring>
#include <thread>

#include "fileio/file_cache_manager.h"
#include "fileio_test_util.h"
#include "base/module.h"

using vx::fileio::CacheManager;
using vx::fileio::CChunkFile;
using vx::fileio::kCacheBlockSize;
using namespace fileio_test;

namespace {

constexpr std::uint64_t kBlock = kCacheBlockSize;

std::vector<std::uint8_t> Pattern(std::size_t n, std::uint32_t seed) {
  std::vector<std::uint8_t> v(n);
  std::uint32_t x = seed * 2654435761u + 1;
  for (auto& b : v) {
    x = x * 1103515245u + 12345u;
    b = static_cast<std::uint8_t>(x >> 16);
  }
  return v;
}

class Cache : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(CacheManager().RefCount(), 0); }
  void TearDown() override {
    EXPECT_EQ(CacheManager().RefCount(), 0);
    EXPECT_FALSE(CacheManager().HasPool());
  }
  vxtest::TempDir dir_;
};

TEST_F(Cache, ReadsCacheEveryBlockTheySpanAndStopAtAShortOne) {
  auto data = Pattern(3 * kBlock, 1);
  auto f = OpenWith<CChunkFile>(dir_ / "a.bin", data, true);
  auto& cache = CacheManager();
  std::uint8_t buf[10];
  std::uint32_t done = 0;
  ASSERT_EQ(cache.Read(f->Handle(), 0x1FFFB, 10, &done, buf), S_OK);
  EXPECT_EQ(done, 10u);
  EXPECT_EQ(0, std::memcmp(buf, data.data() + 0x1FFFB, 10));
  EXPECT_TRUE(cache.IsCached(f->Handle(), 0));
  EXPECT_TRUE(cache.IsCached(f->Handle(), kBlock));
  EXPECT_FALSE(cache.IsCached(f->Handle(), 2 * kBlock));
  EXPECT_EQ(cache.CachedBlockCount(), 2u);

  // A short block ends a read even when the next block is cached.
  f = OpenWith<CChunkFile>(dir_ / "short.bin", Pattern(1000, 9), true);
  cache.Read(f->Handle(), 0, 1, &done, buf);  // block 0 cached with 1000 valid bytes
  f->position = kBlock;
  ASSERT_TRUE(f->WriteLong(0x01020304u));  // block 1 cached with 4 valid bytes
  std::vector<std::uint8_t> big(kBlock + 100, 0xEE);
  cache.Read(f->Handle(), 500, static_cast<std::uint32_t>(big.size()), &done, big.data());
  EXPECT_EQ(done, 500u);
  EXPECT_EQ(big[500], 0xEE);  // nothing beyond what was read is touched
  cache.Read(f->Handle(), 1000, 1, &done, big.data());
  EXPECT_EQ(done, 0u);
}

TEST_F(Cache, LeastRecentlyUsedIsEvictedAndDirtyVictimWrittenFirst) {
  auto& cache = CacheManager();
  const std::uint64_t blocks = 130;
  auto data = Pattern(blocks * kBlock, 5);
  auto f = OpenWith<CChunkFile>(dir_ / "big.bin", data, true);
  vx::os::FileHandle h = f->Handle();
  std::uint32_t done;
  std::uint8_t b;
  // Block 1 is dirtied first, then blocks 0..127 are read; block 0 is touched again so the
  // oldest entry is block 1.
  f->position = kBlock + 5;
  ASSERT_TRUE(f->WriteByte(0xC3));
  for (std::uint64_t k = 0; k < 128; ++k) cache.Read(h, k * kBlock, 1, &done, &b);
  cache.Read(h, 0, 1, &done, &b);
  EXPECT_EQ(cache.CachedBlockCount(), 128u);
  // Nothing reached the disk yet.
  std::uint8_t disk = 0;
  ASSERT_TRUE(vx::os::ReadAt(h, kBlock + 5, &disk, 1, &done));
  EXPECT_EQ(disk, data[kBlock + 5]);

  cache.Read(h, 128 * kBlock, 1, &done, &b);  // the 129th distinct block
  EXPECT_EQ(done, 1u);
  EXPECT_FALSE(cache.IsCached(h, kBlock));
  EXPECT_TRUE(cache.IsCached(h, 0));
  EXPECT_TRUE(cache.IsCached(h, 2 * kBlock));
  EXPECT_TRUE(cache.IsCached(h, 128 * kBlock));
  ASSERT_TRUE(vx::os::ReadAt(h, kBlock + 5, &disk, 1, &done));
  EXPECT_EQ(disk, 0xC3);

  // Next out is block 2, the oldest one left.
  cache.Read(h, 129 * kBlock, 1, &done, &b);
  EXPECT_FALSE(cache.IsCached(h, 2 * kBlock));
  EXPECT_TRUE(cache.IsCached(h, 3 * kBlock));
  // The evicted block reads back with the change.
  f->position = kBlock + 5;
  EXPECT_EQ(f->ReadByte(), 0xC3);
}

TEST_F(Cache, FlushAndLastReleaseWriteDirtyBlocksBack) {
  auto& cache = CacheManager();
  auto a = OpenWith<CChunkFile>(dir_ / "a.bin", Pattern(10, 6), true);
  auto b = OpenWith<CChunkFile>(dir_ / "b.bin", Pattern(10, 7), true);
  a->WriteLong(0x11111111u);
  b->WriteLong(0x22222222u);
  EXPECT_EQ(cache.CachedBlockCount(), 2u);
  cache.FlushFile(a->Handle());
  EXPECT_FALSE(cache.IsCached(a->Handle(), 0));
  EXPECT_TRUE(cache.IsCached(b->Handle(), 0));
  EXPECT_EQ(vxtest::ReadFile(dir_ / "a.bin").size(), kBlock);
  EXPECT_EQ(vxtest::ReadFile(dir_ / "b.bin").size(), 10u);
  a->position = 0;
  EXPECT_EQ(a->ReadLong(), 0x11111111u);  // refilled from the file

  // With the chunk files gone and this handle closed by hand, only the final release of the
  // pool can write the block.
  a.reset();
  b.reset();
  vx::os::FileHandle h = NewFile(dir_ / "late.bin");
  cache.AddRef();
  cache.AllocatePool();
  std::uint32_t done;
  cache.Write(h, 3 * kBlock + 1, 2, &done, "\x01\x02");
  EXPECT_EQ(done, 2u);
  cache.Release();
  EXPECT_FALSE(cache.HasPool());
  std::uint64_t size = 0;
  ASSERT_TRUE(vx::os::Size(h, &size));
  EXPECT_EQ(size, 4 * kBlock);
  vx::os::Close(h);
}

TEST_F(Cache, PoolAndModuleCountFollowTheChunkFiles) {
  auto& cache = CacheManager();
  std::int32_t objects = vx::module::ObjectCount();
  EXPECT_FALSE(cache.HasPool());
  {
    CChunkFile a(vx::os::kNoFile, TRUE);
    EXPECT_TRUE(cache.HasPool());
    EXPECT_EQ(cache.RefCount(), 1);
    EXPECT_EQ(vx::module::ObjectCount(), objects + 1);
    EXPECT_EQ(cache.AllocatePool(), S_FALSE);
    {
      CChunkFile b(vx::os::kNoFile, FALSE);  // uncached files hold the pool too
      EXPECT_EQ(cache.RefCount(), 2);
      EXPECT_EQ(vx::module::ObjectCount(), objects + 1);
    }
    EXPECT_TRUE(cache.HasPool());
  }
  EXPECT_FALSE(cache.HasPool());
  EXPECT_EQ(vx::module::ObjectCount(), objects);

  // As the host's generic object, start and stop are the pool's allocation and release.
  IVxGeneric* g = vx::fileio::CacheManagerInstance();
  void* p = nullptr;
  ASSERT_EQ(g->QueryInterface(IID_IVxGeneric, &p), S_OK);
  EXPECT_EQ(p, static_cast<void*>(g));
  EXPECT_EQ(g->Start(), S_OK);
  EXPECT_TRUE(cache.HasPool());
  EXPECT_EQ(g->Stop(), S_OK);
  EXPECT_FALSE(cache.HasPool());
  EXPECT_EQ(g->Release(), 0u);
  EXPECT_EQ(g->QueryInterface(IID_IClassFactory, &p), E_NOINTERFACE);
  EXPECT_EQ(p, nullptr);
}

// While copies of other threads hold all 128 blocks, transfers that need another block go to the
// file directly: no block in use is handed to another file, and no data is lost either way.
TEST_F(Cache, EveryBlockInUseSendsTransfersStraightToTheFile) {
  auto& cache = CacheManager();
  const auto held = Pattern(128 * kBlock, 20);
  auto a = OpenWith<CChunkFile>(dir_ / "held.bin", held, true);
  for (std::uint64_t k = 0; k < 128; ++k) ASSERT_TRUE(cache.HoldBlock(a->Handle(), k * kBlock));
  EXPECT_FALSE(cache.HoldBlock(a->Handle(), 128 * kBlock));
  const std::uint64_t bypassed = cache.BypassCount();

  constexpr int kThreads = 4;
  std::vector<std::unique_ptr<CChunkFile>> files;
  for (int t = 0; t < kThreads; ++t)
    files.push_back(OpenWith<CChunkFile>(dir_ / ("by" + std::to_string(t)), {}, true));
  std::vector<std::thread> workers;
  for (int t = 0; t < kThreads; ++t) {
    workers.emplace_back([&, t] {
      CChunkFile& f = *files[t];
      const auto d = Pattern(kBlock + 1000, 30 + t);
      f.position = kBlock - 500;  // spans two blocks
      std::uint32_t done = 0;
      EXPECT_TRUE(f.Write(d.data(), static_cast<std::uint32_t>(d.size()), &done));
      EXPECT_EQ(done, d.size());
      std::vector<std::uint8_t> back(d.size() + 10, 0xEE);
      EXPECT_TRUE(f.Read(back.data(), static_cast<std::uint32_t>(back.size()), &done));
      EXPECT_EQ(done, d.size());  // the file ends where the write did: nothing padded
      back.resize(d.size());
      EXPECT_EQ(back, d);
    });
  }
  for (auto& w : workers) w.join();
  EXPECT_GE(cache.BypassCount(), bypassed + 2 * kThreads * 2);
  for (std::uint64_t k = 0; k < 128; ++k) ASSERT_TRUE(cache.IsCached(a->Handle(), k * kBlock));
  for (int t = 0; t < kThreads; ++t)
    EXPECT_EQ(vxtest::ReadFile(dir_ / ("by" + std::to_string(t))).size(), 2 * kBlock + 500);

  // One block let go is the one the next miss takes.
  cache.LetGoBlock(a->Handle(), 7 * kBlock);
  files[0]->position = 0;
  EXPECT_EQ(files[0]->ReadByte(), 0);
  EXPECT_TRUE(cache.IsCached(files[0]->Handle(), 0));
  EXPECT_FALSE(cache.IsCached(a->Handle(), 7 * kBlock));
  for (std::uint64_t k = 0; k < 128; ++k)
    if (k != 7) cache.LetGoBlock(a->Handle(), k * kBlock);
  std::vector<std::uint8_t> back(held.size());
  std::uint32_t done = 0;
  a->position = 0;
  ASSERT_TRUE(a->Read(back.data(), static_cast<std::uint32_t>(back.size()), &done));
  EXPECT_EQ(back, held);
}

TEST_F(Cache, ThreadsOnTheirOwnFilesShareThePool) {
  constexpr int kThreads = 4;
  std::vector<std::vector<std::uint8_t>> expect(kThreads);
  {
    std::vector<std::unique_ptr<CChunkFile>> files;
    for (int t = 0; t < kThreads; ++t) {
      files.push_back(OpenWith<CChunkFile>(dir_ / ("t" + std::to_string(t)), {}, true));
      expect[t] = Pattern(48 * kBlock, 100 + t);  // 4 x 48 blocks: eviction under contention
    }
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
      workers.emplace_back([&, t] {
        CChunkFile& f = *files[t];
        const auto& d = expect[t];
        for (std::uint64_t at = 0; at < d.size(); at += 40000) {
          std::uint32_t n =
              static_cast<std::uint32_t>(std::min<std::uint64_t>(40000, d.size() - at));
          f.position = at;
          std::uint32_t done = 0;
          f.Write(d.data() + at, n, &done);
          std::vector<std::uint8_t> back(n);
          f.Read(back.data(), n, &done);
          if (done != n || std::memcmp(back.data(), d.data() + at, n) != 0) {
            ADD_FAILURE() << "thread " << t << " lost data at " << at << " (read " << done << ")";
            return;
          }
        }
      });
    }
    for (auto& w : workers) w.join();
  }
  for (int t = 0; t < kThreads; ++t)
    EXPECT_EQ(vxtest::ReadFile(dir_ / ("t" + std::to_string(t))), expect[t]) << t;
}

}  // namespace
