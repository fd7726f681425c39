#include "still/targa/targa_format.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "base/bytes.h"
#include "base/checked.h"
#include "base/worker_pool.h"

namespace vx::targa {
namespace {

bool ReadExact(os::FileHandle f, std::uint64_t at, void* to, std::size_t n) {
  std::uint32_t done = 0;
  return os::ReadAt(f, at, to, static_cast<std::uint32_t>(n), &done) && done == n;
}

std::string FieldText(const std::uint8_t* p, std::size_t n) {
  std::size_t len = 0;
  while (len < n && p[len]) ++len;
  while (len > 0 && p[len - 1] == ' ') --len;
  return std::string(reinterpret_cast<const char*>(p), len);
}

std::uint32_t Expand5(std::uint32_t v) {
  return (v << 3) | (v >> 2);
}

// 5-5-5 with the attribute bit on top, as B | G << 8 | R << 16 | A << 24.
std::uint32_t From16(std::uint32_t v, bool alpha) {
  const std::uint32_t a = !alpha || (v & 0x8000) ? 0xFFu : 0u;
  return Expand5(v & 31) | Expand5((v >> 5) & 31) << 8 | Expand5((v >> 10) & 31) << 16 | a << 24;
}

// Pixel readers: the file's bytes of one pixel to B | G << 8 | R << 16 | A << 24. False for an
// index outside the map.
struct Grey8 {
  static constexpr int kBytes = 1;
  bool operator()(const std::uint8_t* p, std::uint32_t* v) const {
    *v = 0xFF000000u | p[0] * 0x010101u;
    return true;
  }
};
struct GreyAlpha16 {
  static constexpr int kBytes = 2;
  bool alpha;
  bool operator()(const std::uint8_t* p, std::uint32_t* v) const {
    *v = p[0] * 0x010101u | (alpha ? std::uint32_t{p[1]} << 24 : 0xFF000000u);
    return true;
  }
};
template <int N>
struct Index {
  static constexpr int kBytes = N;
  const std::uint32_t* map;
  std::uint32_t first, count;
  bool operator()(const std::uint8_t* p, std::uint32_t* v) const {
    const std::uint32_t i = (N == 1 ? p[0] : LoadLE16(p)) - first;
    if (i >= count) return false;
    *v = map[i];
    return true;
  }
};
struct Rgb16 {
  static constexpr int kBytes = 2;
  bool alpha;
  bool operator()(const std::uint8_t* p, std::uint32_t* v) const {
    *v = From16(LoadLE16(p), alpha);
    return true;
  }
};
struct Rgb24 {
  static constexpr int kBytes = 3;
  bool operator()(const std::uint8_t* p, std::uint32_t* v) const {
    *v = p[0] | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | 0xFF000000u;
    return true;
  }
};
struct Rgb32 {
  static constexpr int kBytes = 4;
  bool alpha;
  bool operator()(const std::uint8_t* p, std::uint32_t* v) const {
    *v = LoadLE32(p) | (alpha ? 0u : 0xFF000000u);
    return true;
  }
};

std::uint32_t SwapRB(std::uint32_t v) {
  return (v & 0xFF00FF00u) | (v >> 16 & 0xFFu) | (v & 0xFFu) << 16;
}

// Writes decoded pixels in file order: lines bottom or top first, pixels left or right first.
template <bool kSwap>
class Cursor {
 public:
  Cursor(const TargaHeader& h, const TargaTarget& t) : h_(h), t_(t) {}
  void Begin(std::uint32_t line) {
    line_ = line;
    x_ = 0;
    const std::uint32_t row = h_.TopToBottom() ? line : h_.height - 1u - line;
    p_ = t_.pixels + static_cast<std::int64_t>(row) * t_.rowStride;
    step_ = 4;
    if (h_.RightToLeft()) {
      p_ += (h_.width - 1) * 4;
      step_ = -4;
    }
  }
  // Pixels left on the current line.
  std::uint32_t Room() const { return h_.width - x_; }
  bool Forward() const { return step_ > 0; }
  std::uint8_t* Here() const { return p_; }
  void Put(std::uint32_t v) {
    StoreLE32(p_, kSwap ? SwapRB(v) : v);
    p_ += step_;
  }
  // After `n` pixels of the line were written (through Put or straight at Here).
  void Advance(std::uint32_t n, bool moved) {
    if (!moved) p_ += step_ * static_cast<std::ptrdiff_t>(n);
    x_ += n;
    if (x_ == h_.width && line_ + 1u < h_.height) Begin(line_ + 1);
  }

 private:
  const TargaHeader& h_;
  const TargaTarget& t_;
  std::uint32_t line_ = 0, x_ = 0;
  std::uint8_t* p_ = nullptr;
  std::ptrdiff_t step_ = 4;
};

// Copies `n` pixels of the file (at most what is left of the line) to the cursor.
template <bool kSwap, class Fetch>
bool CopyPixels(const Fetch& fetch, const std::uint8_t* src, std::uint32_t n, Cursor<kSwap>* c) {
  if constexpr (std::is_same_v<Fetch, Rgb32> && !kSwap) {
    if (fetch.alpha && c->Forward()) {
      std::memcpy(c->Here(), src, std::size_t{n} * 4);
      c->Advance(n, false);
      return true;
    }
  }
  std::uint32_t v;
  for (std::uint32_t i = 0; i < n; ++i, src += Fetch::kBytes) {
    if (!fetch(src, &v)) return false;
    c->Put(v);
  }
  c->Advance(n, true);
  return true;
}

template <bool kSwap, class Fetch>
bool DecodeRaw(const TargaHeader& h, const Fetch& fetch, const std::uint8_t* data,
               const TargaTarget& t, std::uint32_t line0, std::uint32_t line1) {
  Cursor<kSwap> c(h, t);
  const std::size_t lineBytes = std::size_t{h.width} * Fetch::kBytes;
  for (std::uint32_t line = line0; line < line1; ++line) {
    c.Begin(line);
    if (!CopyPixels(fetch, data + line * lineBytes, h.width, &c)) return false;
  }
  return true;
}

// Where a band of lines starts in the run-length data: the packet, and how many of its pixels
// belong to the lines before (a run may cross a line end).
struct PacketState {
  std::size_t offset = 0;
  std::uint32_t consumed = 0;
};

// Walks the packets, checking each lies in the data and ends at or before the last pixel; fills
// the state at the start of each band (`bands` bands of lines; null to check only).
bool ScanPackets(const TargaHeader& h, const std::uint8_t* data, std::size_t size, int bands,
                 PacketState* states) {
  const std::uint64_t total = std::uint64_t{h.width} * h.height;
  const std::size_t bpp = static_cast<std::size_t>(h.PixelBytes());
  auto boundary = [&](int k) {
    return std::uint64_t{h.height} * static_cast<std::uint64_t>(k) / bands * h.width;
  };
  std::uint64_t pos = 0;
  std::size_t off = 0;
  int k = 1;
  while (pos < total) {
    if (off >= size) return false;
    const std::uint8_t c = data[off];
    const std::uint32_t n = (c & 0x7Fu) + 1;
    const std::size_t len = (c & 0x80) ? bpp : n * bpp;
    if (size - off - 1 < len) return false;
    if (total - pos < n) return false;
    for (; states && k < bands && boundary(k) < pos + n; ++k) {
      states[k] = {off, static_cast<std::uint32_t>(boundary(k) - pos)};
    }
    pos += n;
    off += 1 + len;
  }
  return true;
}

template <bool kSwap, class Fetch>
bool DecodeRle(const TargaHeader& h, const Fetch& fetch, const std::uint8_t* data,
               const TargaTarget& t, std::uint32_t line0, std::uint32_t line1, PacketState state) {
  Cursor<kSwap> c(h, t);
  c.Begin(line0);
  std::uint64_t left = std::uint64_t{line1 - line0} * h.width;
  std::size_t off = state.offset;
  std::uint32_t skip = state.consumed;
  while (left > 0) {
    const std::uint8_t head = data[off];
    const std::uint32_t n = (head & 0x7Fu) + 1;
    std::uint32_t take = static_cast<std::uint32_t>(std::min<std::uint64_t>(n - skip, left));
    left -= take;
    if (head & 0x80) {
      std::uint32_t v;
      if (!fetch(data + off + 1, &v)) return false;
      while (take > 0) {
        const std::uint32_t m = std::min(take, c.Room());
        for (std::uint32_t i = 0; i < m; ++i) c.Put(v);
        c.Advance(m, true);
        take -= m;
      }
      off += 1 + Fetch::kBytes;
    } else {
      const std::uint8_t* src = data + off + 1 + std::size_t{skip} * Fetch::kBytes;
      while (take > 0) {
        const std::uint32_t m = std::min(take, c.Room());
        if (!CopyPixels(fetch, src, m, &c)) return false;
        src += std::size_t{m} * Fetch::kBytes;
        take -= m;
      }
      off += 1 + std::size_t{n} * Fetch::kBytes;
    }
    skip = 0;
  }
  return true;
}

template <bool kSwap, class Fetch>
bool DecodeWith(const TargaHeader& h, const Fetch& fetch, const std::uint8_t* data,
                std::size_t size, const TargaTarget& t, WorkerPool* pool) {
  // Bands of about 256 KiB of output, so a small picture stays on the caller.
  const std::uint64_t bytes = std::uint64_t{h.width} * h.height * 4;
  int bands = static_cast<int>(std::min<std::uint64_t>(h.height, bytes >> 18));
  if (!pool || bands < 2) bands = 1;
  bands = std::min(bands, 64);
  std::vector<PacketState> states(static_cast<std::size_t>(bands));
  if (h.Rle() && !ScanPackets(h, data, size, bands, states.data())) return false;
  auto lineOf = [&](int k) {
    return static_cast<std::uint32_t>(std::uint64_t{h.height} * static_cast<std::uint64_t>(k) /
                                      bands);
  };
  std::atomic<bool> ok{true};
  auto band = [&](int k) {
    const bool done = h.Rle() ? DecodeRle<kSwap>(h, fetch, data, t, lineOf(k), lineOf(k + 1),
                                                 states[static_cast<std::size_t>(k)])
                              : DecodeRaw<kSwap>(h, fetch, data, t, lineOf(k), lineOf(k + 1));
    if (!done) ok = false;
  };
  if (bands == 1) {
    band(0);
  } else {
    pool->ParallelFor(bands, band);
  }
  return ok;
}

template <bool kSwap>
bool DecodeAs(const TargaHeader& h, const std::vector<std::uint32_t>& map, const std::uint8_t* data,
              std::size_t size, const TargaTarget& t, WorkerPool* pool) {
  const bool alpha = h.UsesAlpha();
  if (h.Mapped()) {
    const auto count = static_cast<std::uint32_t>(map.size());
    if (h.pixelBits == 8)
      return DecodeWith<kSwap>(h, Index<1>{map.data(), h.mapFirst, count}, data, size, t, pool);
    return DecodeWith<kSwap>(h, Index<2>{map.data(), h.mapFirst, count}, data, size, t, pool);
  }
  if (h.Grey()) {
    if (h.pixelBits == 8) return DecodeWith<kSwap>(h, Grey8{}, data, size, t, pool);
    return DecodeWith<kSwap>(h, GreyAlpha16{alpha}, data, size, t, pool);
  }
  switch (h.pixelBits) {
    case 15:
    case 16:
      return DecodeWith<kSwap>(h, Rgb16{alpha}, data, size, t, pool);
    case 24:
      return DecodeWith<kSwap>(h, Rgb24{}, data, size, t, pool);
    default:
      return DecodeWith<kSwap>(h, Rgb32{alpha}, data, size, t, pool);
  }
}

bool ValidLayout(const TargaHeader& h) {
  if (h.width == 0 || h.height == 0 || h.mapType > 1) return false;
  const bool entryOk =
      h.mapEntryBits == 15 || h.mapEntryBits == 16 || h.mapEntryBits == 24 || h.mapEntryBits == 32;
  switch (h.imageType) {
    case kTypeMapped:
    case kTypeMappedRle:
      return h.mapType == 1 && h.mapLength > 0 && entryOk &&
             (h.pixelBits == 8 || h.pixelBits == 16);
    case kTypeTrueColor:
    case kTypeTrueColorRle:
      return h.pixelBits == 15 || h.pixelBits == 16 || h.pixelBits == 24 || h.pixelBits == 32;
    case kTypeGrey:
    case kTypeGreyRle:
      return h.pixelBits == 8 || h.pixelBits == 16;
    default:
      return false;
  }
}

void ParseExtension(const std::uint8_t* e, TargaExtension* x) {
  x->present = true;
  x->author = FieldText(e + kExtAuthor, 41);
  std::string comment;
  for (int line = 0; line < 4; ++line) {
    const std::string text = FieldText(e + kExtComment + line * 81, 81);
    if (text.empty()) continue;
    if (!comment.empty()) comment += '\n';
    comment += text;
  }
  x->comment = comment;
  for (int i = 0; i < 6; ++i) x->date[i] = LoadLE16(e + kExtDate + 2 * i);
  x->job = FieldText(e + kExtJob, 41);
  for (int i = 0; i < 3; ++i) x->jobTime[i] = LoadLE16(e + kExtJobTime + 2 * i);
  x->software = FieldText(e + kExtSoftware, 41);
  const std::uint16_t version = LoadLE16(e + kExtSoftwareVersion);
  if (version != 0) {
    char text[32];
    const char letter = static_cast<char>(e[kExtSoftwareVersion + 2]);
    std::snprintf(text, sizeof text, "%u.%02u%c", version / 100u, version % 100u,
                  letter > ' ' && letter < 127 ? letter : '\0');
    x->softwareVersion = text;
  }
  x->keyColor = LoadLE32(e + kExtKeyColor);
  x->aspect[0] = LoadLE16(e + kExtAspect);
  x->aspect[1] = LoadLE16(e + kExtAspect + 2);
  x->gamma[0] = LoadLE16(e + kExtGamma);
  x->gamma[1] = LoadLE16(e + kExtGamma + 2);
  x->attributes = e[kExtAttributes];
}

}  // namespace

const char* AlphaKindName(AlphaKind kind) {
  switch (kind) {
    case AlphaKind::Undefined:
      return "undefined-ignore";
    case AlphaKind::Straight:
      return "straight";
    case AlphaKind::Premultiplied:
      return "premultiplied";
    default:
      return "none";
  }
}

const char* OriginName(std::uint8_t descriptor) {
  static const char* const kNames[] = {"bottom-left", "bottom-right", "top-left", "top-right"};
  return kNames[(descriptor >> 4) & 3];
}

bool TargaHeader::UsesAlpha() const {
  // Types 1 and 2 say the bits hold no alpha. A 32-bit pixel's fourth byte is alpha in practice
  // even when the attributes say 0; a 16-bit pixel's top bit is often left clear by writers that
  // mean nothing by it, so it counts only when both the descriptor and any extension claim it.
  if (ext.present && (ext.attributes == 1 || ext.attributes == 2)) return false;
  if (Grey()) return pixelBits == 16;
  const int bits = Mapped() ? mapEntryBits : pixelBits;
  if (bits == 32) return true;
  if (bits == 16) return AlphaBits() >= 1 && (!ext.present || ext.attributes >= 3);
  return false;
}

AlphaKind TargaHeader::Alpha() const {
  if (!UsesAlpha())
    return ext.present && (ext.attributes == 1 || ext.attributes == 2) ? AlphaKind::Undefined
                                                                       : AlphaKind::None;
  return ext.present && ext.attributes == 4 ? AlphaKind::Premultiplied : AlphaKind::Straight;
}

bool ReadTargaHeader(os::FileHandle f, TargaHeader* out, std::vector<std::uint32_t>* map) {
  TargaHeader h;
  std::uint64_t size = 0;
  std::uint8_t b[kHeaderSize];
  if (!os::Size(f, &size) || size < kHeaderSize || !ReadExact(f, 0, b, kHeaderSize)) return false;
  h.fileSize = size;
  h.mapType = b[1];
  h.imageType = b[2];
  h.mapFirst = LoadLE16(b + 3);
  h.mapLength = LoadLE16(b + 5);
  h.mapEntryBits = b[7];
  h.width = LoadLE16(b + 12);
  h.height = LoadLE16(b + 14);
  h.pixelBits = b[16];
  h.descriptor = b[17];
  if (!ValidLayout(h)) return false;
  const std::size_t entryBytes = h.mapType ? (h.mapEntryBits + 7u) / 8u : 0;
  const std::uint64_t mapOffset = kHeaderSize + b[0];
  const std::uint64_t mapBytes = std::uint64_t{h.mapLength} * entryBytes;
  h.dataOffset = mapOffset + mapBytes;
  if (h.dataOffset > size) return false;
  if (b[0]) {
    std::uint8_t id[255];
    if (!ReadExact(f, kHeaderSize, id, b[0])) return false;
    h.imageId = FieldText(id, b[0]);
  }

  // Footer and extension come before the map, as they decide what the map's alpha means.
  if (size >= kHeaderSize + kFooterSize) {
    std::uint8_t footer[kFooterSize];
    if (!ReadExact(f, size - kFooterSize, footer, kFooterSize)) return false;
    const std::uint32_t extOffset = LoadLE32(footer);
    if (std::memcmp(footer + 8, kSignature, sizeof kSignature) == 0 && extOffset >= kHeaderSize &&
        RangeInside(extOffset, kExtensionSize, size)) {
      std::uint8_t e[kExtensionSize];
      if (!ReadExact(f, extOffset, e, kExtensionSize)) return false;
      if (LoadLE16(e) >= kExtensionSize) ParseExtension(e, &h.ext);
    }
  }

  // A picture the rest of the file cannot hold is refused before anything of its size exists:
  // uncompressed lines whole, run-length data at its densest (128 pixels a packet).
  const std::uint64_t pixels = std::uint64_t{h.width} * h.height;
  const std::uint64_t bpp = static_cast<std::uint64_t>(h.PixelBytes());
  const std::uint64_t available = size - h.dataOffset;
  const std::uint64_t least = h.Rle() ? (pixels + 127) / 128 * (1 + bpp) : pixels * bpp;
  if (least > available) return false;

  std::vector<std::uint32_t> entries;
  if (h.Mapped()) {
    std::vector<std::uint8_t> raw(static_cast<std::size_t>(mapBytes));
    if (!ReadExact(f, mapOffset, raw.data(), raw.size())) return false;
    entries.resize(h.mapLength);
    const bool alpha = h.UsesAlpha();
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const std::uint8_t* p = raw.data() + i * entryBytes;
      switch (h.mapEntryBits) {
        case 15:
        case 16:
          entries[i] = From16(LoadLE16(p), alpha);
          break;
        case 24:
          entries[i] = p[0] | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | 0xFF000000u;
          break;
        default:
          entries[i] = LoadLE32(p) | (alpha ? 0u : 0xFF000000u);
          break;
      }
    }
  }
  *out = std::move(h);
  if (map) *map = std::move(entries);
  return true;
}

bool CheckTargaData(const TargaHeader& h, const std::uint8_t* data, std::size_t size) {
  if (h.Rle()) return ScanPackets(h, data, size, 1, nullptr);
  return std::uint64_t{h.width} * h.height * static_cast<std::uint64_t>(h.PixelBytes()) <= size;
}

bool DecodeTarga(const TargaHeader& h, const std::vector<std::uint32_t>& map,
                 const std::uint8_t* data, std::size_t size, const TargaTarget& target,
                 WorkerPool* pool) {
  // Run-length data is walked (and so checked) before the bands are decoded.
  if (!target.pixels || (!h.Rle() && !CheckTargaData(h, data, size))) return false;
  return target.rgba ? DecodeAs<true>(h, map, data, size, target, pool)
                     : DecodeAs<false>(h, map, data, size, target, pool);
}

}  // namespace vx::targa
