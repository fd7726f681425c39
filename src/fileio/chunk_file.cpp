#include "fileio/chunk_file.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <new>

#include "fileio/file_cache_manager.h"

namespace vx::fileio {

static_assert(std::endian::native == std::endian::little,
              "CChunkFile transfers in the machine's order, which must be little-endian");

namespace {

constexpr std::uint32_t kMaxTransfer = 0xFFFFFFFFu;

template <typename T>
T Swap(T v) {
  std::uint8_t b[sizeof(T)];
  std::memcpy(b, &v, sizeof(T));
  for (std::size_t i = 0; i < sizeof(T) / 2; ++i) std::swap(b[i], b[sizeof(T) - 1 - i]);
  std::memcpy(&v, b, sizeof(T));
  return v;
}

// Byte size of `count` items, or false when it does not fit one transfer.
bool ArrayBytes(std::uint32_t count, std::uint32_t itemSize, std::uint32_t* bytes) {
  std::uint64_t total = static_cast<std::uint64_t>(count) * itemSize;
  if (total > kMaxTransfer) return false;
  *bytes = static_cast<std::uint32_t>(total);
  return true;
}

void StoreLE16(std::uint8_t* p, std::uint16_t v) {
  std::memcpy(p, &v, 2);
}
void StoreLE32(std::uint8_t* p, std::uint32_t v) {
  std::memcpy(p, &v, 4);
}
std::uint16_t LoadLE16(const std::uint8_t* p) {
  std::uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}
std::uint32_t LoadLE32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

}  // namespace

// ---- CChunkFile ---------------------------------------------------------------------------

CChunkFile::CChunkFile(os::FileHandle file, BOOL cached) : file_(file), cached_(cached ? 1 : 0) {
  CVxFileCacheManager& cache = CacheManager();
  cache.AddRef();
  cache.AllocatePool();
}

CChunkFile::~CChunkFile() {
  if (HasFile()) {
    // Dirty blocks must reach the file while its handle still names it.
    if (cached_) CacheManager().FlushFile(file_);
    os::Close(file_);
  }
  file_ = os::kNoFile;
  CacheManager().Release();
}

BOOL CChunkFile::Read(void* buffer, std::uint32_t count, std::uint32_t* done) {
  std::uint32_t local = 0;
  if (!done) done = &local;
  *done = 0;
  if (!HasFile()) return FALSE;
  if (cached_) return CacheManager().Read(file_, position, count, done, buffer) >= 0;
  return os::ReadAt(file_, position, buffer, count, done) ? TRUE : FALSE;
}

BOOL CChunkFile::Write(const void* buffer, std::uint32_t count, std::uint32_t* done) {
  std::uint32_t local = 0;
  if (!done) done = &local;
  *done = 0;
  if (!HasFile()) return FALSE;
  if (cached_) return CacheManager().Write(file_, position, count, done, buffer) >= 0;
  return os::WriteAt(file_, position, buffer, count, done) ? TRUE : FALSE;
}

bool CChunkFile::ReadExact(void* buffer, std::uint32_t count) {
  if (count == 0) return true;
  std::uint32_t done = 0;
  if (!Read(buffer, count, &done) || done != count) return false;
  position += count;
  return true;
}

bool CChunkFile::WriteExact(const void* buffer, std::uint32_t count) {
  if (count == 0) return true;
  std::uint32_t done = 0;
  if (!Write(buffer, count, &done) || done != count) return false;
  position += count;
  return true;
}

BOOL CChunkFile::WriteWord(std::uint16_t value) {
  return WriteExact(&value, 2);
}
BOOL CChunkFile::WriteLong(std::uint32_t value) {
  return WriteExact(&value, 4);
}
BOOL CChunkFile::WriteQuad(std::uint64_t value) {
  return WriteExact(&value, 8);
}
BOOL CChunkFile::WriteDouble(double value) {
  return WriteExact(&value, 8);
}

BOOL CChunkFile::WriteExtended(double value) {
  std::uint16_t exponent;
  std::uint32_t high, low;
  EncodeExtended(value, &exponent, &high, &low);
  // Low half, high half, exponent word: the in-memory layout of an x87 extended value.
  std::uint8_t b[10];
  StoreLE32(b, low);
  StoreLE32(b + 4, high);
  StoreLE16(b + 8, exponent);
  return WriteExact(b, sizeof b);
}

std::uint32_t CChunkFile::WriteWords(const std::uint16_t* values, std::uint32_t count) {
  std::uint32_t bytes;
  if (!ArrayBytes(count, 2, &bytes)) return 0;
  return WriteExact(values, bytes) ? count : 0;
}

std::uint32_t CChunkFile::WriteTriples(const std::uint8_t* values, std::uint32_t count) {
  std::uint32_t bytes;
  if (!ArrayBytes(count, 3, &bytes)) return 0;
  return WriteExact(values, bytes) ? count : 0;
}

std::uint32_t CChunkFile::WriteLongs(const std::uint32_t* values, std::uint32_t count) {
  std::uint32_t bytes;
  if (!ArrayBytes(count, 4, &bytes)) return 0;
  return WriteExact(values, bytes) ? count : 0;
}

std::uint16_t CChunkFile::ReadWord() {
  std::uint16_t v = 0;
  return ReadExact(&v, 2) ? v : 0;
}

std::uint32_t CChunkFile::ReadLong() {
  std::uint32_t v = 0;
  return ReadExact(&v, 4) ? v : 0;
}

std::uint64_t CChunkFile::ReadQuad() {
  std::uint64_t v = 0;
  return ReadExact(&v, 8) ? v : 0;
}

double CChunkFile::ReadDouble() {
  double v = 0;
  return ReadExact(&v, 8) ? v : 0.0;
}

double CChunkFile::ReadExtended() {
  std::uint8_t b[10];
  if (!ReadExact(b, sizeof b)) return 0.0;
  return DecodeExtended(LoadLE16(b + 8), LoadLE32(b + 4), LoadLE32(b));
}

std::uint32_t CChunkFile::ReadWords(std::uint16_t* values, std::uint32_t count) {
  std::uint32_t bytes;
  if (count == 0 || !ArrayBytes(count, 2, &bytes)) return 0;
  return ReadExact(values, bytes) ? count : 0;
}

std::uint32_t CChunkFile::ReadTriples(std::uint8_t* values, std::uint32_t count) {
  std::uint32_t bytes;
  if (count == 0 || !ArrayBytes(count, 3, &bytes)) return 0;
  return ReadExact(values, bytes) ? count : 0;
}

std::uint32_t CChunkFile::ReadLongs(std::uint32_t* values, std::uint32_t count) {
  std::uint32_t bytes;
  if (count == 0 || !ArrayBytes(count, 4, &bytes)) return 0;
  return ReadExact(values, bytes) ? count : 0;
}

double CChunkFile::DecodeExtended(std::uint16_t exponent, std::uint32_t high, std::uint32_t low) {
  int e = exponent & 0x7FFF;
  double v;
  if (e == 0x7FFF) {
    v = HUGE_VAL;
  } else if (e == 0 && high == 0 && low == 0) {
    v = 0.0;
  } else {
    // The mantissa carries its integer bit: high is scaled by 2^-31, low by 2^-63.
    v = std::ldexp(static_cast<double>(high), e - 16414) +
        std::ldexp(static_cast<double>(low), e - 16446);
  }
  return (exponent & 0x8000) ? -v : v;
}

void CChunkFile::EncodeExtended(double value, std::uint16_t* exponent, std::uint32_t* high,
                                std::uint32_t* low) {
  *exponent = 0;
  *high = *low = 0;
  if (value == 0.0) return;  // negative zero too: all zero bytes
  std::uint16_t sign = 0;
  if (value < 0 || std::signbit(value)) {
    sign = 0x8000;
    value = -value;
  }
  int x = 0;
  double f = std::frexp(value, &x);
  if (x > 16384 || !(f < 1.0)) {  // infinity and NaN
    *exponent = sign | 0x7FFF;
    return;
  }
  int biased = x + 16382;
  if (biased < 0) {
    f = std::ldexp(f, biased);
    biased = 0;
  }
  double hi = std::floor(std::ldexp(f, 32));
  double lo = std::floor(std::ldexp(std::ldexp(f, 32) - hi, 32));
  *exponent = static_cast<std::uint16_t>(sign | biased);
  *high = static_cast<std::uint32_t>(static_cast<std::uint64_t>(hi));
  *low = static_cast<std::uint32_t>(static_cast<std::uint64_t>(lo));
}

std::uint8_t CChunkFile::ReadByte() {
  std::uint8_t v = 0;
  return ReadExact(&v, 1) ? v : 0;
}

BOOL CChunkFile::WriteByte(std::uint8_t value) {
  return WriteExact(&value, 1);
}

std::uint32_t CChunkFile::ReadFourCC() {
  std::uint8_t b[4];
  if (!ReadExact(b, 4)) return 0x20202020u;
  return LoadLE32(b);
}

BOOL CChunkFile::WriteFourCC(std::uint32_t id) {
  std::uint8_t b[4];
  StoreLE32(b, id);
  return WriteExact(b, 4);
}

std::uint32_t CChunkFile::Descend(std::uint32_t* id) {
  if (depth_ == kChunkStackDepth) {
    // Deeper than any real file nests: end the walk here rather than lose the way back up.
    if (id) *id = 0x20202020u;
    return 0;
  }
  std::uint32_t fourcc = ReadFourCC();
  if (id) *id = fourcc;
  std::uint32_t size = ReadLong();
  PushEnd(position + size + (size & 1));
  return size;
}

void CChunkFile::Ascend() {
  position = PopEnd();
}

BOOL CChunkFile::PushEnd(std::uint64_t end) {
  if (depth_ == kChunkStackDepth) return FALSE;
  stack_[depth_++] = end;
  return TRUE;
}

std::uint64_t CChunkFile::PopEnd() {
  if (depth_ == 0) return 0;
  return stack_[--depth_];
}

BOOL CChunkFile::CreateChunk(std::uint32_t id) {
  // A chunk that could never be closed is not started.
  if (depth_ == kChunkStackDepth) return FALSE;
  if (!WriteFourCC(id)) return FALSE;
  if (!WriteLong(0)) return FALSE;
  return PushEnd(position);
}

std::uint32_t CChunkFile::CloseChunk() {
  // Nothing open, or an entry too early to have a size field before it: nothing is written and
  // the position stays.
  if (depth_ == 0 || stack_[depth_ - 1] < 8 || stack_[depth_ - 1] > position) {
    return 0;
  }
  std::uint64_t start = PopEnd();
  std::uint64_t size = position - start;
  std::uint32_t stored = size > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<std::uint32_t>(size);
  position = start - 4;
  BOOL ok = WriteLong(stored);
  position = start + size;
  if (!ok) return 0;
  if (size & 1) WriteByte(0);
  return stored;
}

char* CChunkFile::ReadFixedString(std::uint32_t length) {
  std::uint32_t n = length & 0xFFFF;
  char* s = new (std::nothrow) char[n + 1];
  if (!s) return nullptr;
  if (!ReadExact(s, n)) {
    delete[] s;
    return nullptr;
  }
  s[n] = 0;
  return s;
}

char* CChunkFile::ReadByteCountedString(std::uint8_t* lengthOut) {
  if (lengthOut) *lengthOut = 0;
  std::uint64_t start = position;
  std::uint8_t n;
  if (!ReadExact(&n, 1)) return nullptr;
  char* s = ReadFixedString(n);
  if (!s) {
    position = start;
    return nullptr;
  }
  if (lengthOut) *lengthOut = n;
  return s;
}

char* CChunkFile::ReadWordCountedString(std::uint16_t* lengthOut) {
  if (lengthOut) *lengthOut = 0;
  std::uint64_t start = position;
  std::uint16_t n = ReadWord();
  if (position == start) return nullptr;
  char* s = ReadFixedString(n);
  if (!s) {
    position = start;
    return nullptr;
  }
  if (lengthOut) *lengthOut = n;
  return s;
}

char* CChunkFile::ReadPaddedCountedString(std::uint8_t* lengthOut) {
  if (lengthOut) *lengthOut = 0;
  std::uint64_t start = position;
  std::uint8_t n;
  if (!ReadExact(&n, 1)) return nullptr;
  char* s = ReadFixedString(static_cast<std::uint32_t>(n) + 1);
  if (!s) {
    position = start;
    return nullptr;
  }
  // The extra byte is padding (or, after odd text, whatever follows): not part of the text.
  s[n] = 0;
  if (lengthOut) *lengthOut = n;
  return s;
}

char* CChunkFile::ReadCString() {
  constexpr std::uint32_t kLimit = 512;
  char text[kLimit];
  std::uint64_t start = position;
  for (std::uint32_t i = 0; i < kLimit; ++i) {
    std::uint8_t c;
    if (!ReadExact(&c, 1)) break;
    text[i] = static_cast<char>(c);
    if (c == 0) {
      char* s = new (std::nothrow) char[i + 1];
      if (!s) break;
      std::memcpy(s, text, i + 1);
      return s;
    }
  }
  position = start;
  return nullptr;
}

// ---- CReverseChunkFile --------------------------------------------------------------------

CReverseChunkFile::CReverseChunkFile(os::FileHandle file, BOOL cached) : CChunkFile(file, cached) {}

CReverseChunkFile::~CReverseChunkFile() {
  delete[] scratch_;
}

std::uint8_t* CReverseChunkFile::Scratch(std::uint64_t bytes) {
  if (bytes > kMaxTransfer) return nullptr;
  if (bytes > scratchSize_) {
    delete[] scratch_;
    scratchSize_ = 0;
    scratch_ = new (std::nothrow) std::uint8_t[bytes];
    if (!scratch_) return nullptr;
    scratchSize_ = static_cast<std::uint32_t>(bytes);
  }
  return scratch_;
}

BOOL CReverseChunkFile::WriteWord(std::uint16_t value) {
  return CChunkFile::WriteWord(Swap(value));
}
BOOL CReverseChunkFile::WriteLong(std::uint32_t value) {
  return CChunkFile::WriteLong(Swap(value));
}
BOOL CReverseChunkFile::WriteQuad(std::uint64_t value) {
  return CChunkFile::WriteQuad(Swap(value));
}
BOOL CReverseChunkFile::WriteDouble(double value) {
  return CChunkFile::WriteDouble(Swap(value));
}

BOOL CReverseChunkFile::WriteExtended(double value) {
  std::uint16_t exponent;
  std::uint32_t high, low;
  EncodeExtended(value, &exponent, &high, &low);
  // Exponent word, high half, low half, each big-endian: the layout of AIFF sample rates.
  std::uint8_t b[10];
  StoreLE16(b, Swap(exponent));
  StoreLE32(b + 2, Swap(high));
  StoreLE32(b + 6, Swap(low));
  return WriteExact(b, sizeof b);
}

std::uint32_t CReverseChunkFile::WriteWords(const std::uint16_t* values, std::uint32_t count) {
  std::uint32_t bytes;
  if (!ArrayBytes(count, 2, &bytes)) return 0;
  std::uint8_t* s = Scratch(bytes);
  if (!s && bytes) return 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint16_t v = Swap(values[i]);
    std::memcpy(s + 2 * i, &v, 2);
  }
  return WriteExact(s, bytes) ? count : 0;
}

std::uint32_t CReverseChunkFile::WriteTriples(const std::uint8_t* values, std::uint32_t count) {
  std::uint32_t bytes;
  if (!ArrayBytes(count, 3, &bytes)) return 0;
  std::uint8_t* s = Scratch(bytes);
  if (!s && bytes) return 0;
  for (std::uint32_t i = 0; i < bytes; i += 3) {
    s[i] = values[i + 2];
    s[i + 1] = values[i + 1];
    s[i + 2] = values[i];
  }
  return WriteExact(s, bytes) ? count : 0;
}

std::uint32_t CReverseChunkFile::WriteLongs(const std::uint32_t* values, std::uint32_t count) {
  std::uint32_t bytes;
  if (!ArrayBytes(count, 4, &bytes)) return 0;
  std::uint8_t* s = Scratch(bytes);
  if (!s && bytes) return 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint32_t v = Swap(values[i]);
    std::memcpy(s + 4 * i, &v, 4);
  }
  return WriteExact(s, bytes) ? count : 0;
}

std::uint16_t CReverseChunkFile::ReadWord() {
  return Swap(CChunkFile::ReadWord());
}
std::uint32_t CReverseChunkFile::ReadLong() {
  return Swap(CChunkFile::ReadLong());
}
std::uint64_t CReverseChunkFile::ReadQuad() {
  return Swap(CChunkFile::ReadQuad());
}

double CReverseChunkFile::ReadDouble() {
  std::uint64_t bits = 0;
  if (!ReadExact(&bits, 8)) return 0.0;
  return std::bit_cast<double>(Swap(bits));
}

double CReverseChunkFile::ReadExtended() {
  std::uint8_t b[10];
  if (!ReadExact(b, sizeof b)) return 0.0;
  return DecodeExtended(Swap(LoadLE16(b)), Swap(LoadLE32(b + 2)), Swap(LoadLE32(b + 6)));
}

std::uint32_t CReverseChunkFile::ReadWords(std::uint16_t* values, std::uint32_t count) {
  if (CChunkFile::ReadWords(values, count) != count || count == 0) return 0;
  for (std::uint32_t i = 0; i < count; ++i) values[i] = Swap(values[i]);
  return count;
}

std::uint32_t CReverseChunkFile::ReadTriples(std::uint8_t* values, std::uint32_t count) {
  if (CChunkFile::ReadTriples(values, count) != count || count == 0) return 0;
  for (std::uint64_t i = 0; i < static_cast<std::uint64_t>(count) * 3; i += 3) {
    std::swap(values[i], values[i + 2]);
  }
  return count;
}

std::uint32_t CReverseChunkFile::ReadLongs(std::uint32_t* values, std::uint32_t count) {
  if (CChunkFile::ReadLongs(values, count) != count || count == 0) return 0;
  for (std::uint32_t i = 0; i < count; ++i) values[i] = Swap(values[i]);
  return count;
}

// ---- CProxyChunkFile ----------------------------------------------------------------------

CProxyChunkFile::CProxyChunkFile(IVxHostReader* reader)
    : CChunkFile(os::kNoFile, FALSE), reader_(reader) {
  if (reader_) reader_->AddRef();
}

CProxyChunkFile::~CProxyChunkFile() {
  if (reader_) reader_->Release();
  reader_ = nullptr;
}

BOOL CProxyChunkFile::Read(void* buffer, std::uint32_t count, std::uint32_t* done) {
  std::uint32_t local = 0;
  if (!done) done = &local;
  *done = 0;
  if (!reader_) return FALSE;
  VxOverlapped at{position};
  DWORD got = 0;
  HRESULT hr = reader_->Read(buffer, count, &got, &at);
  // A reader that claims more than asked is not believed past the request.
  *done = got > count ? count : got;
  return SUCCEEDED(hr) ? TRUE : FALSE;
}

}  // namespace vx::fileio
