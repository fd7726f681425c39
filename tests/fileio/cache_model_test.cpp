// Random cached reads, writes and flushes over several files, checked against plain byte
// vectors. Reads may legitimately stop early (a block filled before a later block was written
// back reads as the end of the file), so each read is checked against the least it must return
// and the bytes it returns must match the model.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>

#include "fileio/file_cache_manager.h"
#include "fileio_test_util.h"

using vx::fileio::CacheManager;
using vx::fileio::CChunkFile;
using vx::fileio::CReverseChunkFile;
using vx::fileio::kCacheBlockSize;
using namespace fileio_test;

namespace {

constexpr std::uint64_t kBlock = kCacheBlockSize;
constexpr int kFiles = 6;
constexpr std::uint64_t kSpan = 28 * kBlock;  // 6 files x 28 blocks: past the pool's 128

std::uint64_t RoundUp(std::uint64_t v) {
  return (v + kBlock - 1) / kBlock * kBlock;
}

struct ModelFile {
  std::filesystem::path path;
  std::vector<std::uint8_t> bytes;  // logical content; beyond it the file reads as zeros
  std::unique_ptr<CChunkFile> open;
  bool reversed = false;
  std::uint64_t sizeAtOpen = 0;
  std::map<std::uint64_t, std::uint32_t> writeEnd;  // block -> highest in-block end written

  std::uint8_t At(std::uint64_t i) const { return i < bytes.size() ? bytes[i] : 0; }

  // Records a write of `n` bytes at `pos`: the content and each touched block's written end.
  void Wrote(std::uint64_t pos, const std::uint8_t* data, std::uint32_t n) {
    if (bytes.size() < pos + n) bytes.resize(pos + n, 0);
    std::copy(data, data + n, bytes.begin() + static_cast<std::ptrdiff_t>(pos));
    for (std::uint64_t at = pos; at < pos + n;) {
      const std::uint64_t block = at / kBlock, end = std::min(pos + n, (block + 1) * kBlock);
      writeEnd[block] = std::max(writeEnd[block], static_cast<std::uint32_t>(end - block * kBlock));
      at = end;
    }
  }

  // Lower bound of a block's valid bytes: what the file held at open, or what was written.
  std::uint32_t ValidAtLeast(std::uint64_t block) const {
    std::uint64_t start = block * kBlock;
    std::uint32_t v =
        sizeAtOpen > start
            ? static_cast<std::uint32_t>(std::min<std::uint64_t>(kBlock, sizeAtOpen - start))
            : 0;
    auto it = writeEnd.find(block);
    if (it != writeEnd.end()) v = std::max(v, it->second);
    return v;
  }

  // The cache's read loop run on the lower bounds.
  std::uint32_t ReadAtLeast(std::uint64_t pos, std::uint32_t count) const {
    std::uint32_t got = 0;
    std::uint64_t block = pos / kBlock;
    auto offset = static_cast<std::uint32_t>(pos % kBlock);
    while (got < count) {
      std::uint32_t valid = ValidAtLeast(block);
      if (valid <= offset) break;
      std::uint32_t n = std::min(valid - offset, count - got);
      got += n;
      if (valid < kBlock && got < count) break;
      ++block;
      offset = 0;
    }
    return got;
  }
};

void Fill(std::vector<std::uint8_t>& v, std::mt19937_64& rng) {
  for (std::size_t i = 0; i < v.size(); i += 8) {
    std::uint64_t r = rng();
    std::memcpy(v.data() + i, &r, std::min<std::size_t>(8, v.size() - i));
  }
}

// Index of the first of `n` bytes that differs from the model at `pos`, or n.
std::uint64_t FirstDifference(const std::uint8_t* got, const ModelFile& m, std::uint64_t pos,
                              std::uint64_t n) {
  std::uint64_t inModel = pos < m.bytes.size() ? std::min(n, m.bytes.size() - pos) : 0;
  auto a = std::mismatch(got, got + inModel, m.bytes.begin() + static_cast<std::ptrdiff_t>(pos));
  if (a.first != got + inModel) return static_cast<std::uint64_t>(a.first - got);
  auto z = std::find_if(got + inModel, got + n, [](std::uint8_t b) { return b != 0; });
  return static_cast<std::uint64_t>(z - got);
}

class CacheModel : public ::testing::Test {
 protected:
  std::uint64_t Seed() {
    std::string env;
    if (vx::os::GetEnv("VX_SEED", &env) && !env.empty()) return std::stoull(env);
    return 20240611;
  }

  void Open(ModelFile& m, std::mt19937_64& rng) {
    vx::os::FileHandle h = OpenRW(m.path);
    ASSERT_NE(h, vx::os::kNoFile);
    m.reversed = rng() & 1;
    m.open = m.reversed ? std::make_unique<CReverseChunkFile>(h, TRUE)
                        : std::make_unique<CChunkFile>(h, TRUE);
    ASSERT_NO_FATAL_FAILURE(OnDisk(m));
  }

  // Everything so far is on disk: the file's size is the new lower bound of what reads return.
  void OnDisk(ModelFile& m) {
    std::uint64_t size = 0;
    ASSERT_TRUE(vx::os::Size(m.open->Handle(), &size));
    m.sizeAtOpen = size;
    m.writeEnd.clear();
  }

  // After the chunk file is gone the file holds the model, then zeros up to at most the next
  // whole block; those zeros become part of the model.
  void CloseAndCheck(ModelFile& m) {
    m.open.reset();
    auto disk = vxtest::ReadFile(m.path);
    ASSERT_GE(disk.size(), m.bytes.size());
    ASSERT_LE(disk.size(), std::max<std::uint64_t>(m.sizeAtOpen, RoundUp(m.bytes.size())));
    ASSERT_EQ(FirstDifference(disk.data(), m, 0, disk.size()), disk.size()) << m.path;
    m.bytes = std::move(disk);
  }

  vxtest::TempDir dir_;
};

TEST_F(CacheModel, RandomTrafficMatchesPlainFiles) {
  const std::uint64_t seed = Seed();
  SCOPED_TRACE("seed " + std::to_string(seed) + " (set VX_SEED to replay)");
  std::mt19937_64 rng(seed);
  auto pick = [&](std::uint64_t n) { return n ? rng() % n : 0; };

  std::vector<ModelFile> files(kFiles);
  for (int i = 0; i < kFiles; ++i) {
    files[i].path = dir_ / ("m" + std::to_string(i) + ".bin");
    files[i].bytes.resize(pick(3 * kBlock));
    Fill(files[i].bytes, rng);
    vxtest::WriteFile(files[i].path, files[i].bytes);
  }

  // Positions cluster on block edges and the current ends, where the faults live.
  auto position = [&](const ModelFile& m) -> std::uint64_t {
    const std::uint64_t edge = pick(kSpan / kBlock) * kBlock + pick(17), size = m.bytes.size();
    const std::uint64_t choices[] = {pick(kSpan), edge >= 8 ? edge - 8 : 0,
                                     size + pick(64) - std::min<std::uint64_t>(32, size),
                                     pick(size + 1)};
    return choices[pick(4)];
  };
  auto length = [&]() {
    const std::uint64_t choices[] = {pick(16), pick(kBlock + 300), pick(3 * kBlock)};
    return static_cast<std::uint32_t>(choices[pick(3)]);
  };

  const std::uint64_t evictionsBefore = CacheManager().EvictionCount();
  std::vector<std::uint8_t> buf;
  const int kSteps = 4000;
  for (int step = 0; step < kSteps; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    ModelFile& m = files[pick(kFiles)];
    if (!m.open) {
      Open(m, rng);
      continue;
    }
    CChunkFile& f = *m.open;
    unsigned op = static_cast<unsigned>(pick(100));  // flush and close: 1 % each
    if (op < 45) {                                   // raw read
      std::uint64_t pos = position(m);
      std::uint32_t n = length();
      buf.assign(n, 0xEE);
      f.position = pos;
      std::uint32_t done = 0;
      ASSERT_TRUE(f.Read(buf.data(), n, &done));
      ASSERT_EQ(f.position, pos);
      ASSERT_LE(done, n) << pos;
      ASSERT_GE(done, m.ReadAtLeast(pos, n)) << "pos " << pos << " n " << n;
      if (done > 0) {
        ASSERT_LE(pos + done, std::max<std::uint64_t>(RoundUp(m.bytes.size()), m.sizeAtOpen));
      }
      ASSERT_EQ(FirstDifference(buf.data(), m, pos, done), done) << "read at " << pos;
      ASSERT_TRUE(std::all_of(buf.begin() + done, buf.end(), [](auto b) { return b == 0xEE; }));
    } else if (op < 82) {  // raw write
      std::uint64_t pos = position(m);
      std::uint32_t n = length();
      buf.resize(n);
      Fill(buf, rng);
      f.position = pos;
      std::uint32_t done = 0;
      ASSERT_TRUE(f.Write(buf.data(), n, &done));
      ASSERT_EQ(done, n);
      if (n > 0) m.Wrote(pos, buf.data(), n);
    } else if (op < 98) {  // typed values in the file's own order
      std::uint64_t pos = position(m);
      f.position = pos;
      if (rng() & 1) {
        std::uint32_t v = static_cast<std::uint32_t>(rng());
        ASSERT_TRUE(f.WriteLong(v));
        ASSERT_EQ(f.position, pos + 4);
        std::uint8_t b[4];
        for (int i = 0; i < 4; ++i)
          b[i] = static_cast<std::uint8_t>(v >> (m.reversed ? 24 - 8 * i : 8 * i));
        m.Wrote(pos, b, 4);
      } else {
        std::uint32_t v = f.ReadLong(), expect = 0;
        ASSERT_EQ(m.ReadAtLeast(pos, 4) == 4 ? f.position : pos + 4, pos + 4);  // must succeed
        if (f.position == pos + 4) {
          for (int i = 0; i < 4; ++i)
            expect |= static_cast<std::uint32_t>(m.At(pos + i))
                      << (m.reversed ? 24 - 8 * i : 8 * i);
          ASSERT_EQ(v, expect);
        } else {
          ASSERT_EQ(f.position, pos);
          ASSERT_EQ(v, 0u);
        }
      }
    } else if (op < 99) {  // flush: the disk now holds the model; nothing is cached
      CacheManager().FlushFile(f.Handle());
      ASSERT_FALSE(CacheManager().IsCached(f.Handle(), 0));
      ASSERT_NO_FATAL_FAILURE(OnDisk(m));
    } else {
      ASSERT_NO_FATAL_FAILURE(CloseAndCheck(m));
      if (pick(4) == 0) {  // sometimes let every file go, which frees the pool
        for (auto& other : files) {
          if (other.open) {
            ASSERT_NO_FATAL_FAILURE(CloseAndCheck(other));
          }
        }
        ASSERT_FALSE(CacheManager().HasPool());
      }
    }
  }
  for (auto& m : files) {
    if (m.open) {
      ASSERT_NO_FATAL_FAILURE(CloseAndCheck(m));
    }
  }
  EXPECT_EQ(CacheManager().RefCount(), 0);
  EXPECT_FALSE(CacheManager().HasPool());
  // Without reuse of blocks the write-back paths would go untested.
  EXPECT_GT(CacheManager().EvictionCount() - evictionsBefore, 100u);
}

}  // namespace
