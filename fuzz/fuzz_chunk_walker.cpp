// Walks the input as nested RIFF/IFF chunks in both byte orders with every typed reader, then
// rebuilds a chunk tree from it. Everything stays in memory: the machine-order walk reads
// through CProxyChunkFile and a host reader, the byte-reversed one through a reversed chunk file
// whose raw transfers go to a buffer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fileio/chunk_file.h"
#include "fileio/file_cache_manager.h"

namespace {

using vx::fileio::CChunkFile;
using vx::fileio::CProxyChunkFile;
using vx::fileio::CReverseChunkFile;
using vx::fileio::FourCC;

constexpr std::uint64_t kMaxWritten = 1 << 20;

class BufferReader final : public IVxHostReader {
 public:
  BufferReader(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** ppv) override {
    if (ppv) *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override { return --refs_; }
  HRESULT STDMETHODCALLTYPE Read(void* buffer, DWORD count, DWORD* done,
                                 VxOverlapped* at) override {
    *done = 0;
    if (at->offset >= size_) return S_OK;
    std::size_t n = std::min<std::uint64_t>(count, size_ - at->offset);
    std::memcpy(buffer, data_ + at->offset, n);
    *done = static_cast<DWORD>(n);
    return S_OK;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  ULONG refs_ = 1;
};

// Big-endian chunk file over a byte vector (reads the input, writes grow the vector).
class MemoryReverseFile final : public CReverseChunkFile {
 public:
  explicit MemoryReverseFile(std::vector<std::uint8_t> bytes)
      : CReverseChunkFile(vx::os::kNoFile, FALSE), bytes_(std::move(bytes)) {}
  BOOL Read(void* buffer, std::uint32_t count, std::uint32_t* done) override {
    *done = 0;
    if (position >= bytes_.size()) return TRUE;
    std::size_t n = std::min<std::uint64_t>(count, bytes_.size() - position);
    std::memcpy(buffer, bytes_.data() + position, n);
    *done = static_cast<std::uint32_t>(n);
    return TRUE;
  }
  BOOL Write(const void* buffer, std::uint32_t count, std::uint32_t* done) override {
    *done = 0;
    if (count == 0) return TRUE;
    if (position > kMaxWritten || count > kMaxWritten - position) return FALSE;
    if (bytes_.size() < position + count) bytes_.resize(position + count);
    std::memcpy(bytes_.data() + position, buffer, count);
    *done = count;
    return TRUE;
  }

 private:
  std::vector<std::uint8_t> bytes_;
};

bool IsContainer(std::uint32_t id) {
  return id == FourCC("RIFF") || id == FourCC("LIST") || id == FourCC("FORM") ||
         id == FourCC("RF64") || (id & 0xFF) == 'L';
}

// Reads a few typed values chosen by the chunk's identifier; sizes come from the input.
void ReadBody(CChunkFile& f, std::uint32_t id, std::uint32_t size) {
  std::uint8_t small[4 * 64];
  std::uint32_t n = std::min<std::uint32_t>(size / 4, 64);
  char* s = nullptr;
  std::uint8_t len8;
  std::uint16_t len16;
  switch ((id >> 24) & 15) {
    case 0:
      f.ReadWord();
      f.ReadLong();
      break;
    case 1:
      f.ReadQuad();
      f.ReadDouble();
      break;
    case 2:
      f.ReadExtended();
      break;
    case 3:
      f.ReadWords(reinterpret_cast<std::uint16_t*>(small), n);
      break;
    case 4:
      f.ReadTriples(small, n);
      break;
    case 5:
      f.ReadLongs(reinterpret_cast<std::uint32_t*>(small), n);
      break;
    case 6:
      s = f.ReadCString();
      break;
    case 7:
      s = f.ReadByteCountedString(&len8);
      break;
    case 8:
      s = f.ReadWordCountedString(&len16);
      break;
    case 9:
      s = f.ReadPaddedCountedString(&len8);
      break;
    case 10:
      s = f.ReadFixedString(size);
      break;
    case 11:
      f.ReadFourCC();
      f.ReadByte();
      break;
    case 12:
      f.PushEnd(f.ReadQuad());
      f.PopEnd();
      break;
    default:
      break;
  }
  delete[] s;
}

void Walk(CChunkFile& f, int depth, int* budget) {
  while (*budget > 0) {
    --*budget;
    std::uint32_t id = 0;
    std::uint32_t size = f.Descend(&id);
    if (size == 0) {
      f.PopEnd();  // the walk ends here; keep the stack as the caller left it
      return;
    }
    std::uint64_t start = f.position;
    ReadBody(f, id, size);
    if (IsContainer(id) && depth < 80) {
      f.position = start + 4;  // past the form type
      Walk(f, depth + 1, budget);
    }
    f.Ascend();
  }
}

// Copies the walked structure into a new chunk tree through CreateChunk/CloseChunk.
void Rebuild(CChunkFile& in, CChunkFile& out, int depth, int* budget) {
  while (*budget > 0) {
    --*budget;
    std::uint32_t id = 0;
    std::uint32_t size = in.Descend(&id);
    if (size == 0) {
      in.PopEnd();
      return;
    }
    out.CreateChunk(id);
    if (IsContainer(id) && depth < 70) {
      std::uint32_t form = in.ReadFourCC();
      out.WriteFourCC(form);
      Rebuild(in, out, depth + 1, budget);
    } else {
      std::uint16_t words[32];
      std::uint32_t n = std::min<std::uint32_t>(size / 2, 32);
      if (in.ReadWords(words, n) == n) out.WriteWords(words, n);
      out.WriteExtended(static_cast<double>(size));
    }
    out.CloseChunk();
    in.Ascend();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // One reference held for the whole run so the block pool is not made and freed per input.
  static bool held = (vx::fileio::CacheManager().AddRef(), true);
  (void)held;
  if (size > (1 << 16)) return 0;

  BufferReader reader(data, size);
  {
    CProxyChunkFile f(&reader);
    int budget = 256;
    Walk(f, 0, &budget);
  }
  std::vector<std::uint8_t> bytes(data, data + size);
  MemoryReverseFile big(bytes);
  int budget = 256;
  Walk(big, 0, &budget);

  MemoryReverseFile in(bytes), out({});
  budget = 128;
  Rebuild(in, out, 0, &budget);
  return 0;
}
