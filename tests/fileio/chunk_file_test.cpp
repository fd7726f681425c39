#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "fileio/file_cache_manager.h"
#include "fileio_test_util.h"

using vx::fileio::CChunkFile;
using vx::fileio::CProxyChunkFile;
using vx::fileio::CReverseChunkFile;
using vx::fileio::FourCC;
using namespace fileio_test;

namespace {

// Every transfer test runs on direct and on cached I/O.
class ChunkIo : public ::testing::TestWithParam<bool> {
 protected:
  bool cached() const { return GetParam(); }
  vxtest::TempDir dir_;
};

INSTANTIATE_TEST_SUITE_P(DirectAndCached, ChunkIo, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Cached" : "Direct"; });

TEST_P(ChunkIo, ShortTransfersReadZeroAndKeepPosition) {
  auto f = OpenWith<CChunkFile>(dir_ / "six.bin", Bytes({1, 2, 3, 4, 5, 6}), cached());
  f->position = 4;
  EXPECT_EQ(f->ReadLong(), 0u);
  EXPECT_EQ(f->position, 4u);
  EXPECT_EQ(f->ReadQuad(), 0u);
  EXPECT_EQ(f->ReadDouble(), 0.0);
  EXPECT_EQ(f->ReadFourCC(), 0x20202020u);
  EXPECT_EQ(f->position, 4u);
  EXPECT_EQ(f->ReadWord(), 0x0605);
  EXPECT_EQ(f->position, 6u);
  EXPECT_EQ(f->ReadByte(), 0);
  EXPECT_EQ(f->position, 6u);

  f->position = 0;
  EXPECT_EQ(f->ReadExtended(), 0.0);  // 10 bytes wanted, 6 there
  std::uint16_t words[4] = {9, 9, 9, 9};
  EXPECT_EQ(f->ReadWords(words, 4), 0u);
  std::uint32_t longs[2];
  EXPECT_EQ(f->ReadLongs(longs, 2), 0u);
  std::uint8_t triples[9];
  EXPECT_EQ(f->ReadTriples(triples, 3), 0u);
  EXPECT_EQ(f->position, 0u);
  EXPECT_EQ(f->ReadTriples(triples, 2), 2u);
  EXPECT_EQ(f->position, 6u);
  EXPECT_EQ(f->ReadWords(words, 0), 0u);  // nothing asked, nothing done
  EXPECT_EQ(f->position, 6u);

  // Raw transfers leave the position alone; a short read is not a failure.
  std::uint8_t buf[8] = {};
  std::uint32_t done = 99;
  f->position = 0;
  EXPECT_TRUE(f->Read(buf, 8, &done));
  EXPECT_EQ(done, 6u);
  EXPECT_EQ(f->position, 0u);
  f->position = 1;
  EXPECT_TRUE(f->Write("\xAA\xBB", 2, &done));
  EXPECT_EQ(done, 2u);
  EXPECT_EQ(f->position, 1u);
  EXPECT_EQ(f->ReadWord(), 0xBBAA);
}

TEST_P(ChunkIo, PositionCarriesIntoUpperWord) {
  vx::os::FileHandle h = NewFile(dir_ / "sparse.bin");
  ASSERT_NE(h, vx::os::kNoFile);
  {
    CChunkFile f(h, cached());
    f.position = 0xFFFFFFFEull;
    ASSERT_TRUE(f.WriteLong(0x44332211u));
    EXPECT_EQ(f.position, 0x100000002ull);
    f.position = 0xFFFFFFFFull;
    EXPECT_EQ(f.ReadByte(), 0x22);
    EXPECT_EQ(f.position, 0x100000000ull);
    f.position = 0xFFFFFFFEull;
    EXPECT_EQ(f.ReadLong(), 0x44332211u);
  }
  auto h2 = OpenRW(dir_ / "sparse.bin");
  std::uint8_t b[4] = {};
  std::uint32_t done = 0;
  ASSERT_TRUE(vx::os::ReadAt(h2, 0xFFFFFFFEull, b, 4, &done));
  EXPECT_EQ(done, 4u);
  EXPECT_EQ(std::memcmp(b, "\x11\x22\x33\x44", 4), 0);
  vx::os::Close(h2);
}

// Every width in both byte orders; triples and identifiers keep their byte order in both.
TEST_P(ChunkIo, ByteOrderOnEveryWidthAndCallerArraysUntouched) {
  const std::pair<bool, std::vector<std::uint8_t>> orders[] = {
      {true, Bytes({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C,
                    0x0D, 0x0E, 0x3F, 0xF0, 0,    0,    0,    0,    0,    0,    0x11, 0x12,
                    0x13, 0x14, 0x23, 0x22, 0x21, 0x26, 0x25, 0x24, 0x31, 0x32, 0x33, 0x34,
                    0x35, 0x36, 0x37, 0x38, 0x41, 'F',  'O',  'R',  'M'})},
      {false, Bytes({0x02, 0x01, 0x06, 0x05, 0x04, 0x03, 0x0E, 0x0D, 0x0C, 0x0B, 0x0A, 0x09,
                     0x08, 0x07, 0,    0,    0,    0,    0,    0,    0xF0, 0x3F, 0x12, 0x11,
                     0x14, 0x13, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x34, 0x33, 0x32, 0x31,
                     0x38, 0x37, 0x36, 0x35, 0x41, 'F',  'O',  'R',  'M'})},
  };
  for (const auto& [reversed, want] : orders) {
    SCOPED_TRACE(reversed ? "big-endian" : "machine order");
    const auto path = dir_ / (reversed ? "be.bin" : "le.bin");
    std::unique_ptr<CChunkFile> f = reversed ? OpenWith<CReverseChunkFile>(path, {}, cached())
                                             : OpenWith<CChunkFile>(path, {}, cached());
    EXPECT_TRUE(f->WriteWord(0x0102));
    EXPECT_TRUE(f->WriteLong(0x03040506u));
    EXPECT_TRUE(f->WriteQuad(0x0708090A0B0C0D0Eull));
    EXPECT_TRUE(f->WriteDouble(1.0));
    const std::uint16_t words[2] = {0x1112, 0x1314};
    const std::uint8_t triples[6] = {0x21, 0x22, 0x23, 0x24, 0x25, 0x26};
    const std::uint32_t longs[2] = {0x31323334u, 0x35363738u};
    EXPECT_EQ(f->WriteWords(words, 2), 2u);
    EXPECT_EQ(f->WriteTriples(triples, 2), 2u);
    EXPECT_EQ(f->WriteLongs(longs, 2), 2u);
    EXPECT_TRUE(f->WriteByte(0x41));
    EXPECT_TRUE(f->WriteFourCC(0x4D524F46u));  // "FORM", first byte lowest
    EXPECT_EQ(f->position, 45u);

    f->position = 0;
    EXPECT_EQ(f->ReadWord(), 0x0102);
    EXPECT_EQ(f->ReadLong(), 0x03040506u);
    EXPECT_EQ(f->ReadQuad(), 0x0708090A0B0C0D0Eull);
    EXPECT_EQ(f->ReadDouble(), 1.0);
    std::uint16_t w[2];
    std::uint8_t t[6];
    std::uint32_t l[2];
    EXPECT_EQ(f->ReadWords(w, 2), 2u);
    EXPECT_EQ(f->ReadTriples(t, 2), 2u);
    EXPECT_EQ(f->ReadLongs(l, 2), 2u);
    // The values come back, and the caller's arrays were not swapped in place to write them.
    EXPECT_EQ(std::memcmp(w, words, sizeof w), 0);
    EXPECT_EQ(std::memcmp(t, triples, sizeof t), 0);
    EXPECT_EQ(std::memcmp(l, longs, sizeof l), 0);
    EXPECT_EQ(f->ReadByte(), 0x41);
    EXPECT_EQ(f->ReadFourCC(), FourCC("FORM"));
    f.reset();
    auto bytes = vxtest::ReadFile(path);
    ASSERT_GE(bytes.size(), 45u);
    bytes.resize(45);
    EXPECT_EQ(bytes, want);
  }
}

TEST_P(ChunkIo, OddChunksArePaddedAndWalkedAsSiblings) {
  vx::os::FileHandle h = NewFile(dir_ / "riff.bin");
  CChunkFile f(h, cached());
  ASSERT_TRUE(f.CreateChunk(FourCC("RIFF")));
  ASSERT_TRUE(f.WriteFourCC(FourCC("WAVE")));
  ASSERT_TRUE(f.CreateChunk(FourCC("odd ")));
  std::uint64_t dataStart = f.position;
  for (int i = 0; i < 5; ++i) f.WriteByte(static_cast<std::uint8_t>(0xA0 + i));
  EXPECT_EQ(f.CloseChunk(), 5u);
  EXPECT_EQ(f.position, dataStart + 6);
  ASSERT_TRUE(f.CreateChunk(FourCC("even")));
  f.WriteWord(0x1234);
  EXPECT_EQ(f.CloseChunk(), 2u);
  EXPECT_EQ(f.CloseChunk(), 4u + 8 + 6 + 8 + 2);
  EXPECT_EQ(f.Depth(), 0u);
  std::uint64_t end = f.position;
  EXPECT_EQ(end, 8u + 28);

  f.position = 0;
  std::vector<std::uint8_t> raw(end);
  std::uint32_t done = 0;
  ASSERT_TRUE(f.Read(raw.data(), static_cast<std::uint32_t>(end), &done));
  ASSERT_EQ(done, end);
  EXPECT_EQ(raw, Bytes({'R',  'I', 'F', 'F', 28,  0,   0, 0, 'W',  'A',  'V',  'E',
                        'o',  'd', 'd', ' ', 5,   0,   0, 0, 0xA0, 0xA1, 0xA2, 0xA3,
                        0xA4, 0,   'e', 'v', 'e', 'n', 2, 0, 0,    0,    0x34, 0x12}));

  // Walk it back: the pad byte must be skipped to find the sibling.
  std::uint32_t id = 0;
  EXPECT_EQ(f.Descend(&id), 28u);
  EXPECT_EQ(id, FourCC("RIFF"));
  EXPECT_EQ(f.ReadFourCC(), FourCC("WAVE"));
  EXPECT_EQ(f.Descend(&id), 5u);
  EXPECT_EQ(id, FourCC("odd "));
  f.Ascend();
  EXPECT_EQ(f.position, 26u);
  EXPECT_EQ(f.Descend(&id), 2u);
  EXPECT_EQ(id, FourCC("even"));
  EXPECT_EQ(f.ReadWord(), 0x1234);
  f.Ascend();
  EXPECT_EQ(f.Descend(&id), 0u);  // end of file stops the walk
  EXPECT_EQ(id, 0x20202020u);
  f.Ascend();
  f.Ascend();
  EXPECT_EQ(f.position, 36u);  // the RIFF chunk's end
  f.Ascend();
  EXPECT_EQ(f.position, 0u);  // empty stack
}

}  // namespace

// Sizes are read in the file's order, identifiers never reversed, odd sizes padded to even.
TEST(ChunkStack, DescendReadsSizesInFileOrderAndPadsOddEnds) {
  vxtest::TempDir dir;
  auto f = OpenWith<CChunkFile>(dir / "c.bin", Bytes({'d', 'a', 't', 'a', 7, 0, 0, 0}), false);
  std::uint32_t id;
  EXPECT_EQ(f->Descend(&id), 7u);
  EXPECT_EQ(f->position, 8u);
  EXPECT_EQ(f->PopEnd(), 16u);
  EXPECT_EQ(f->PopEnd(), 0u);
  f = OpenWith<CReverseChunkFile>(
      dir / "f.bin", Bytes({'F', 'O', 'R', 'M', 0, 0, 0, 5, 'A', 'I', 'F', 'F', 1}), false);
  EXPECT_EQ(f->Descend(&id), 5u);
  EXPECT_EQ(id, FourCC("FORM"));
  f->Ascend();
  EXPECT_EQ(f->position, 14u);
}

// Nesting beyond 64 and closing what was never opened are refused where the caller sees it, with
// nothing written and the position where it was.
TEST(ChunkStack, OverflowUnderflowAndHugeSizes) {
  vxtest::TempDir dir;
  auto f = OpenWith<CChunkFile>(dir / "deep.bin", Bytes({'l', 'i', 's', 't', 4, 0, 0, 0}), false);
  for (std::uint64_t i = 1; i <= 64; ++i) ASSERT_TRUE(f->PushEnd(i * 10));
  EXPECT_FALSE(f->PushEnd(650));
  EXPECT_FALSE(f->CreateChunk(FourCC("full")));
  std::uint32_t id = 0;
  EXPECT_EQ(f->Descend(&id), 0u);  // ends the walk instead of losing the way back up
  EXPECT_EQ(f->position, 0u);
  EXPECT_EQ(f->Depth(), 64u);
  for (std::uint64_t i = 64; i >= 1; --i) ASSERT_EQ(f->PopEnd(), i * 10);
  EXPECT_EQ(f->PopEnd(), 0u);

  f->position = 3;
  EXPECT_EQ(f->CloseChunk(), 0u);  // nothing open
  f->PushEnd(2);                   // no room for a size field before it
  EXPECT_EQ(f->CloseChunk(), 0u);
  f->PopEnd();
  f->PushEnd(8);  // a data start past the position
  f->position = 7;
  EXPECT_EQ(f->CloseChunk(), 0u);
  EXPECT_EQ(f->position, 7u);
  f.reset();
  EXPECT_EQ(vxtest::ReadFile(dir / "deep.bin"), Bytes({'l', 'i', 's', 't', 4, 0, 0, 0}));

  // A size beyond 32 bits is clamped, and still padded.
  f = OpenWith<CChunkFile>(dir / "huge.bin", {}, false);
  ASSERT_TRUE(f->CreateChunk(FourCC("big ")));
  f->position = 8 + 0x100000001ull;  // sparse: only the header is written
  EXPECT_EQ(f->CloseChunk(), 0xFFFFFFFFu);
  EXPECT_EQ(f->position, 8 + 0x100000001ull + 1);
  f->position = 4;
  EXPECT_EQ(f->ReadLong(), 0xFFFFFFFFu);
}

// The ten stored bytes of 80-bit values as AIFF keeps them (CReverseChunkFile); CChunkFile keeps
// the same bytes in the opposite order (low half, high half, exponent, each little-endian).
TEST(Extended, StoredBytesInBothOrders) {
  struct Row {
    double value;
    std::vector<std::uint8_t> bigEndian;
    double back;  // what reads back: NaN is stored as infinity, -0 as +0
  };
  const Row rows[] = {
      {44100.0, Bytes({0x40, 0x0E, 0xAC, 0x44, 0, 0, 0, 0, 0, 0}), 44100.0},
      {1.0, Bytes({0x3F, 0xFF, 0x80, 0, 0, 0, 0, 0, 0, 0}), 1.0},
      {-2.5, Bytes({0xC0, 0x00, 0xA0, 0, 0, 0, 0, 0, 0, 0}), -2.5},
      {HUGE_VAL, Bytes({0x7F, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0}), HUGE_VAL},
      {-HUGE_VAL, Bytes({0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0}), -HUGE_VAL},
      {-0.0, Bytes({0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), 0.0},
      {std::numeric_limits<double>::quiet_NaN(), Bytes({0x7F, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0}),
       HUGE_VAL},
  };
  vxtest::TempDir dir;
  for (bool reversed : {false, true}) {
    std::unique_ptr<CChunkFile> f = reversed ? OpenWith<CReverseChunkFile>(dir / "x.bin", {}, false)
                                             : OpenWith<CChunkFile>(dir / "x.bin", {}, false);
    for (const Row& row : rows) {
      SCOPED_TRACE(testing::Message() << row.value << (reversed ? " big-endian" : " machine"));
      auto want = row.bigEndian;
      if (!reversed) std::reverse(want.begin(), want.end());
      f->position = 0;
      ASSERT_TRUE(f->WriteExtended(row.value));
      EXPECT_EQ(f->position, 10u);
      EXPECT_EQ(vxtest::ReadFile(dir / "x.bin"), want);  // uncached: on disk at once
      f->position = 0;
      EXPECT_EQ(f->ReadExtended(), row.back);
    }
    // Values no 64-bit double loses in 80 bits, subnormals included.
    using L = std::numeric_limits<double>;
    for (double v : {48000.0, 1.0 / 3.0, -1e300, L::max(), L::min(), L::denorm_min(),
                     -3 * L::denorm_min(), 123456789.123456789}) {
      f->position = 0;
      ASSERT_TRUE(f->WriteExtended(v));
      f->position = 0;
      EXPECT_EQ(f->ReadExtended(), v) << v << (reversed ? " big-endian" : " machine");
    }
  }
  // A set sign bit on zero reads as negative zero.
  auto f =
      OpenWith<CReverseChunkFile>(dir / "z.bin", Bytes({0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0}), false);
  const double z = f->ReadExtended();
  EXPECT_EQ(z, 0.0);
  EXPECT_TRUE(std::signbit(z));
}

// A returned string as text (null as "<null>"), freed the way callers must free it.
std::string Take(char* s) {
  std::string out = s ? s : "<null>";
  delete[] s;
  return out;
}

TEST(Strings, TerminatedCountedAndFixed) {
  vxtest::TempDir dir;
  std::vector<std::uint8_t> bytes(512, 'x');
  bytes.push_back(0);
  auto f = OpenWith<CChunkFile>(dir / "s.bin", bytes, false);
  EXPECT_EQ(Take(f->ReadCString()), "<null>");
  EXPECT_EQ(f->position, 0u);
  f->position = 1;  // 511 characters and the terminator fit
  EXPECT_EQ(Take(f->ReadCString()), std::string(511, 'x'));
  EXPECT_EQ(f->position, 513u);
  f->position = 600;  // nothing at all there
  EXPECT_EQ(Take(f->ReadCString()), "<null>");

  f = OpenWith<CChunkFile>(dir / "t.bin", Bytes({'a', 'b', 0, 'c', 'd'}), false);
  EXPECT_EQ(Take(f->ReadCString()), "ab");
  EXPECT_EQ(Take(f->ReadCString()), "<null>");  // the file ends before a terminator
  EXPECT_EQ(f->position, 3u);

  // Counted strings, with the count in the file's order, and fixed lengths.
  f = OpenWith<CReverseChunkFile>(
      dir / "c.bin",
      Bytes({3, 'a', 'b', 'c', 0, 2, 'h', 'i', 3, 'x', 'y', 'z', 'w', 0, 4, 'd', 'o', 'n'}), false);
  std::uint8_t len8 = 0;
  std::uint16_t len16 = 0;
  EXPECT_EQ(Take(f->ReadByteCountedString(&len8)), "abc");
  EXPECT_EQ(len8, 3);
  EXPECT_EQ(Take(f->ReadWordCountedString(&len16)), "hi");  // big-endian count here
  EXPECT_EQ(len16, 2);
  len8 = 0;
  EXPECT_EQ(Take(f->ReadPaddedCountedString(&len8)), "xyz");  // odd: the pad byte is taken too
  EXPECT_EQ(len8, 3);
  EXPECT_EQ(f->position, 13u);
  EXPECT_EQ(Take(f->ReadWordCountedString(&len16)), "<null>");  // count 4, 3 bytes left
  EXPECT_EQ(len16, 0);
  EXPECT_EQ(f->position, 13u);

  // Fixed lengths use only their low 16 bits.
  f = OpenWith<CReverseChunkFile>(dir / "f.bin", Bytes({'a', 'b', 'c', 'd'}), false);
  EXPECT_EQ(Take(f->ReadFixedString(0x10003)), "abc");
  EXPECT_EQ(Take(f->ReadFixedString(2)), "<null>");
  EXPECT_EQ(f->position, 3u);
  EXPECT_EQ(Take(f->ReadFixedString(0)), "");
}

TEST(NoFile, EveryOperationFailsQuietly) {
  for (vx::os::FileHandle none : {vx::os::FileHandle{0}, vx::os::kNoFile}) {
    for (BOOL cached : {FALSE, TRUE}) {
      CReverseChunkFile f(none, cached);
      EXPECT_FALSE(f.WriteLong(1));
      EXPECT_EQ(f.ReadLong(), 0u);
      std::uint16_t w[3] = {1, 2, 3};
      EXPECT_EQ(f.WriteWords(w, 3), 0u);
      EXPECT_EQ(f.ReadWords(w, 3), 0u);
      EXPECT_EQ(f.CloseChunk(), 0u);
      EXPECT_EQ(f.position, 0u);
      EXPECT_EQ(f.Handle(), none);
    }
  }
}

namespace {

class MemoryReader : public IVxHostReader {
 public:
  explicit MemoryReader(std::vector<std::uint8_t> data) : data_(std::move(data)) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** ppv) override {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs; }
  HRESULT STDMETHODCALLTYPE Read(void* buffer, DWORD count, DWORD* done,
                                 VxOverlapped* at) override {
    lastOffset = at->offset;
    *done = 0;
    if (at->offset >= data_.size()) return S_OK;
    std::size_t n = std::min<std::size_t>(count, data_.size() - at->offset);
    std::memcpy(buffer, data_.data() + at->offset, n);
    *done = static_cast<DWORD>(n);
    return failNext ? E_FAIL : S_OK;
  }
  ULONG refs = 1;
  std::uint64_t lastOffset = 0;
  bool failNext = false;

 private:
  std::vector<std::uint8_t> data_;
};

}  // namespace

TEST(Proxy, ReadsAtThePositionThroughTheHostReader) {
  MemoryReader reader(Bytes({'F', 'O', 'R', 'M', 0, 0, 0, 4, 'A', 'I', 'F', 'F'}));
  {
    CProxyChunkFile f(&reader);
    EXPECT_EQ(reader.refs, 2u);
    f.position = 4;
    EXPECT_EQ(f.ReadLong(), 0x04000000u);  // machine order: the proxy is a CChunkFile
    EXPECT_EQ(reader.lastOffset, 4u);
    EXPECT_EQ(f.ReadFourCC(), FourCC("AIFF"));
    EXPECT_EQ(f.ReadWord(), 0);
    EXPECT_EQ(f.position, 12u);
    EXPECT_FALSE(f.WriteLong(1));  // no way to write
    reader.failNext = true;
    f.position = 0;
    EXPECT_EQ(f.ReadLong(), 0u);
    EXPECT_EQ(f.position, 0u);
  }
  EXPECT_EQ(reader.refs, 1u);
}
