#include "still/psd/psd_format.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "base/bytes.h"
#include "base/checked.h"
#include "base/worker_pool.h"

namespace vx::psd {
namespace {

constexpr std::uint32_t kMaxSidePsd = 30000;
constexpr std::uint32_t kMaxSidePsb = 300000;
constexpr int kMaxChannels = 56;

struct Reader {
  vx::os::FileHandle file;
  std::uint64_t size;
  bool At(std::uint64_t offset, void* out, std::uint64_t n) const {
    if (!vx::RangeInside(offset, n, size) || n > 0xFFFFFFFFu) return false;
    std::uint32_t done = 0;
    return n == 0 ||
           (vx::os::ReadAt(file, offset, out, static_cast<std::uint32_t>(n), &done) && done == n);
  }
  bool Bytes(std::uint64_t offset, std::uint64_t n, std::vector<std::uint8_t>* out) const {
    if (!vx::RangeInside(offset, n, size) || !vx::FitsSizeT(n)) return false;
    out->resize(static_cast<std::size_t>(n));
    return At(offset, out->data(), n);
  }
  bool Length(std::uint64_t offset, bool wide, std::uint64_t* out) const {
    std::uint8_t b[8];
    if (!At(offset, b, wide ? 8 : 4)) return false;
    *out = wide ? LoadBE64(b) : LoadBE32(b);
    return true;
  }
};

void AppendUtf8(std::string* s, std::uint32_t c) {
  if (c < 0x80) {
    s->push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    s->push_back(static_cast<char>(0xC0 | c >> 6));
    s->push_back(static_cast<char>(0x80 | (c & 63)));
  } else if (c < 0x10000) {
    s->push_back(static_cast<char>(0xE0 | c >> 12));
    s->push_back(static_cast<char>(0x80 | (c >> 6 & 63)));
    s->push_back(static_cast<char>(0x80 | (c & 63)));
  } else {
    s->push_back(static_cast<char>(0xF0 | c >> 18));
    s->push_back(static_cast<char>(0x80 | (c >> 12 & 63)));
    s->push_back(static_cast<char>(0x80 | (c >> 6 & 63)));
    s->push_back(static_cast<char>(0x80 | (c & 63)));
  }
}

// A Unicode string of the format (4-byte count, then UTF-16BE units) at p; false when it runs
// past `end`.
bool UnicodeString(const std::uint8_t* p, const std::uint8_t* end, std::string* out,
                   std::size_t* used = nullptr) {
  if (end - p < 4) return false;
  const std::uint64_t units = LoadBE32(p);
  if (units > static_cast<std::uint64_t>(end - p - 4) / 2) return false;
  out->clear();
  for (std::uint64_t i = 0; i < units; ++i) {
    std::uint32_t c = LoadBE16(p + 4 + 2 * i);
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < units) {
      const std::uint32_t lo = LoadBE16(p + 6 + 2 * i);
      if (lo >= 0xDC00 && lo < 0xE000) {
        c = 0x10000 + ((c - 0xD800) << 10) + (lo - 0xDC00);
        ++i;
      }
    }
    if (c == 0) break;
    AppendUtf8(out, c);
  }
  if (used) *used = static_cast<std::size_t>(4 + 2 * units);
  return true;
}

bool Signature(const std::uint8_t* p) {
  return std::memcmp(p, "8BIM", 4) == 0 || std::memcmp(p, "8B64", 4) == 0;
}

// Keys whose lengths are 8 bytes in a large document.
bool WideKey(const std::uint8_t* key) {
  static const char* const kKeys[] = {"LMsk", "Lr16", "Lr32", "Layr", "Mt16", "Mt32", "Mtrn",
                                      "Alph", "FMsk", "lnk2", "FEid", "FXid", "PxSD"};
  for (const char* k : kKeys)
    if (std::memcmp(key, k, 4) == 0) return true;
  return false;
}

// The layer records of a layer info block (count, then records) at `offset`, `length` bytes:
// their count, whether the merged picture's first extra channel is its transparency, and the
// names. Channel image data after the records is not read.
bool ReadLayerInfo(const Reader& r, std::uint64_t offset, std::uint64_t length, PsdDocument* doc) {
  if (length < 2) return true;
  const std::uint64_t end = offset + length;
  std::uint8_t b[18];
  if (!r.At(offset, b, 2)) return false;
  const auto count = static_cast<std::int16_t>(LoadBE16(b));
  const int layers = count < 0 ? -count : count;
  constexpr std::uint64_t kSmallestRecord = 34;
  if (std::uint64_t{static_cast<unsigned>(layers)} * kSmallestRecord > length - 2) return false;
  doc->layersPresent = true;
  doc->layerCount = layers;
  if (count < 0) doc->alpha = true;
  doc->layerNames.clear();
  std::uint64_t p = offset + 2;
  const int channelInfo = doc->large ? 10 : 6;
  std::vector<std::uint8_t> extra;
  for (int i = 0; i < layers; ++i) {
    if (!vx::RangeInside(p, 18, end) || !r.At(p, b, 18)) return false;
    // An inverted rectangle or one larger than any document is damage, not a layer.
    const auto top = static_cast<std::int32_t>(LoadBE32(b)),
               left = static_cast<std::int32_t>(LoadBE32(b + 4)),
               bottom = static_cast<std::int32_t>(LoadBE32(b + 8)),
               right = static_cast<std::int32_t>(LoadBE32(b + 12));
    if (bottom < top || right < left ||
        std::int64_t{bottom} - top > static_cast<std::int64_t>(kMaxSidePsb) ||
        std::int64_t{right} - left > static_cast<std::int64_t>(kMaxSidePsb))
      return false;
    const unsigned channels = LoadBE16(b + 16);
    if (channels > kMaxChannels) return false;
    p += 18 + std::uint64_t{channels} * channelInfo;
    if (!vx::RangeInside(p, 16, end) || !r.At(p, b, 16)) return false;
    if (std::memcmp(b, "8BIM", 4) != 0) return false;
    const std::uint64_t extraLength = LoadBE32(b + 12);
    p += 16;
    if (!vx::RangeInside(p, extraLength, end) || !r.Bytes(p, extraLength, &extra)) return false;
    p += extraLength;
    const std::uint8_t* q = extra.data();
    const std::uint8_t* const e = q + extra.size();
    // Mask data and blending ranges, then the Pascal name padded to 4.
    for (int block = 0; block < 2; ++block) {
      if (e - q < 4) return false;
      const std::uint64_t n = LoadBE32(q);
      if (n > static_cast<std::uint64_t>(e - q - 4)) return false;
      q += 4 + n;
    }
    if (e - q < 1) return false;
    const std::size_t nameLength = *q;
    const std::size_t padded = (nameLength + 1 + 3) / 4 * 4;
    if (static_cast<std::size_t>(e - q) < nameLength + 1) return false;
    std::string name;
    // System code page names: the ASCII part as it is, the rest taken as Latin-1.
    for (std::size_t k = 0; k < nameLength; ++k) AppendUtf8(&name, q[1 + k]);
    q += std::min(padded, static_cast<std::size_t>(e - q));
    // Tagged blocks: a Unicode name replaces the Pascal one.
    while (e - q >= 12 && Signature(q)) {
      const bool wide = doc->large && WideKey(q + 4);
      if (e - q < (wide ? 16 : 12)) break;
      const std::uint64_t n = wide ? LoadBE64(q + 8) : LoadBE32(q + 8);
      const std::uint8_t* data = q + (wide ? 16 : 12);
      if (n > static_cast<std::uint64_t>(e - data)) return false;
      std::string unicode;
      if (std::memcmp(q + 4, "luni", 4) == 0 && UnicodeString(data, data + n, &unicode))
        name = unicode;
      q = data + n;
      if ((n & 1) && q < e) ++q;
    }
    doc->layerNames.push_back(std::move(name));
  }
  return true;
}

// The layer and mask section: its layer info, or for 16/32-bit documents the layer info that
// Photoshop keeps in a tagged block after the global mask.
bool ReadLayerSection(const Reader& r, std::uint64_t offset, std::uint64_t length,
                      PsdDocument* doc) {
  const bool wide = doc->large;
  const std::uint64_t end = offset + length;
  const unsigned lengthBytes = wide ? 8 : 4;
  if (length < lengthBytes) return length == 0;
  std::uint64_t infoLength = 0;
  if (!r.Length(offset, wide, &infoLength)) return false;
  std::uint64_t p = offset + lengthBytes;
  if (!vx::RangeInside(p, infoLength, end)) return false;
  if (infoLength > 0) return ReadLayerInfo(r, p, infoLength, doc);
  // Global layer mask info.
  std::uint8_t b[16];
  if (!vx::RangeInside(p, 4, end)) return true;
  std::uint64_t maskLength = 0;
  if (!r.Length(p, false, &maskLength)) return false;
  p += 4;
  if (!vx::RangeInside(p, maskLength, end)) return false;
  p += maskLength;
  while (vx::RangeInside(p, 12, end) && r.At(p, b, 12) && Signature(b)) {
    const bool wideBlock = wide && WideKey(b + 4);
    std::uint64_t n = 0;
    if (!r.Length(p + 8, wideBlock, &n)) return false;
    const std::uint64_t data = p + (wideBlock ? 16 : 12);
    if (!vx::RangeInside(data, n, end)) return false;
    if (std::memcmp(b + 4, "Lr16", 4) == 0 || std::memcmp(b + 4, "Lr32", 4) == 0 ||
        std::memcmp(b + 4, "Layr", 4) == 0)
      return ReadLayerInfo(r, data, n, doc);
    p = data + n;
    // Blocks are padded to 2 or, by some writers, to 4.
    if (p & 1) ++p;
    if (vx::RangeInside(p, 4, end) && r.At(p, b, 4) && !Signature(b) && (p & 3)) p += 4 - (p & 3);
  }
  return true;
}

bool ReadResources(const std::vector<std::uint8_t>& s, PsdDocument* doc) {
  const std::uint8_t* p = s.data();
  const std::uint8_t* const e = p + s.size();
  bool transparencyName = false;
  while (e - p >= 12) {
    if (std::memcmp(p, "8BIM", 4) != 0 && std::memcmp(p, "MeSa", 4) != 0 &&
        std::memcmp(p, "AgHg", 4) != 0 && std::memcmp(p, "PHUT", 4) != 0 &&
        std::memcmp(p, "DCSR", 4) != 0)
      return false;
    const unsigned id = LoadBE16(p + 4);
    const std::size_t nameBytes = (std::size_t{p[6]} + 2) & ~std::size_t{1};
    if (static_cast<std::size_t>(e - p) < 6 + nameBytes + 4) return false;
    const std::uint8_t* q = p + 6 + nameBytes;
    const std::uint64_t n = LoadBE32(q);
    q += 4;
    if (n > static_cast<std::uint64_t>(e - q)) return false;
    const std::uint8_t* d = q;
    switch (id) {
      case 0x03ED:  // resolution: 16.16 fixed pixels per inch, horizontal then vertical
        if (n >= 16) {
          doc->xResolution = LoadBE32(d) / 65536.0;
          doc->yResolution = LoadBE32(d + 8) / 65536.0;
        }
        break;
      case 0x03EE:  // alpha channel names, Pascal strings; Photoshop names the merged one
        if (n >= 13 && d[0] == 12 && std::memcmp(d + 1, "Transparency", 12) == 0)
          transparencyName = true;
        break;
      case 0x0417:  // transparent colour of an indexed document
        if (n >= 2) doc->transparentIndex = LoadBE16(d);
        break;
      case 0x0421:  // version info: version, has real merged data, writer, reader, file version
        if (n >= 5) UnicodeString(d + 5, d + n, &doc->writer);
        break;
      case 0x0428:  // pixel aspect: version, then a double
        if (n >= 12) {
          const double a = vx::LoadDouble(d + 4, true);
          if (a > 0.0 && a < 1000.0) doc->pixelAspect = a;
        }
        break;
      default:
        break;
    }
    q += n;
    if ((n & 1) && q < e) ++q;
    p = q;
  }
  if (transparencyName) doc->alpha = true;
  return true;
}

// The fewest bytes a packed row of `size` bytes takes: two per 128.
std::uint64_t SmallestPackedRow(std::uint64_t size) {
  return (size + 127) / 128 * 2;
}

// Walks a packed row without output; the check the decoder then relies on.
bool CheckRow(const std::uint8_t* in, std::size_t inSize, std::size_t size) {
  std::size_t i = 0, o = 0;
  while (o < size) {
    if (i >= inSize) return false;
    const int n = static_cast<std::int8_t>(in[i++]);
    if (n >= 0) {
      const std::size_t run = static_cast<std::size_t>(n) + 1;
      if (run > size - o || run > inSize - i) return false;
      i += run;
      o += run;
    } else if (n != -128) {
      const std::size_t run = static_cast<std::size_t>(1 - n);
      if (run > size - o || i >= inSize) return false;
      ++i;
      o += run;
    }
  }
  return true;
}

template <typename T>
struct Sample;
template <>
struct Sample<std::uint8_t> {
  static std::uint8_t At(const std::uint8_t* p, std::size_t x) { return p[x]; }
  static constexpr std::uint8_t kOne = 255;
  static std::uint8_t Ink(std::uint8_t c, std::uint8_t k) {
    return static_cast<std::uint8_t>((unsigned{c} * k + 127) / 255);
  }
};
template <>
struct Sample<std::uint16_t> {
  static std::uint16_t At(const std::uint8_t* p, std::size_t x) { return LoadBE16(p + 2 * x); }
  static constexpr std::uint16_t kOne = 65535;
  static std::uint16_t Ink(std::uint16_t c, std::uint16_t k) {
    return static_cast<std::uint16_t>((std::uint32_t{c} * k + 32767) / 65535);
  }
};
template <>
struct Sample<float> {
  static float At(const std::uint8_t* p, std::size_t x) { return vx::LoadFloat(p + 4 * x, true); }
  static constexpr float kOne = 1.0f;
  static float Ink(float c, float k) { return c * k; }
};

// One line of the document's channels (`ch`, as stored) into four-channel pixels.
template <typename T>
void Combine(const PsdDocument& doc, const std::uint8_t* const* ch, T* out) {
  using S = Sample<T>;
  const std::size_t w = doc.width;
  const std::uint8_t* a = doc.alpha ? ch[doc.colourChannels] : nullptr;
  auto alpha = [&](std::size_t x) { return a ? S::At(a, x) : S::kOne; };
  switch (doc.mode) {
    case kRgb:
      if constexpr (sizeof(T) == 1) {
        const std::uint8_t *r = ch[0], *g = ch[1], *b = ch[2];
        if (a) {
          for (std::size_t x = 0; x < w; ++x, out += 4) {
            out[0] = r[x];
            out[1] = g[x];
            out[2] = b[x];
            out[3] = a[x];
          }
        } else {
          for (std::size_t x = 0; x < w; ++x, out += 4) {
            out[0] = r[x];
            out[1] = g[x];
            out[2] = b[x];
            out[3] = 255;
          }
        }
        return;
      }
      for (std::size_t x = 0; x < w; ++x, out += 4) {
        out[0] = S::At(ch[0], x);
        out[1] = S::At(ch[1], x);
        out[2] = S::At(ch[2], x);
        out[3] = alpha(x);
      }
      return;
    case kCmyk:
      // Stored as 1 - ink, so colour is (1 - c)(1 - k): the stored values multiplied.
      for (std::size_t x = 0; x < w; ++x, out += 4) {
        const T k = S::At(ch[3], x);
        out[0] = S::Ink(S::At(ch[0], x), k);
        out[1] = S::Ink(S::At(ch[1], x), k);
        out[2] = S::Ink(S::At(ch[2], x), k);
        out[3] = alpha(x);
      }
      return;
    case kIndexed:
      if constexpr (sizeof(T) == 1) {
        const std::uint8_t* pal = doc.palette.data();
        for (std::size_t x = 0; x < w; ++x, out += 4) {
          const unsigned i = ch[0][x];
          out[0] = pal[i];
          out[1] = pal[256 + i];
          out[2] = pal[512 + i];
          out[3] = static_cast<int>(i) == doc.transparentIndex ? 0 : alpha(x);
        }
      }
      return;
    case kBitmap:
      if constexpr (sizeof(T) == 1) {
        // 1 is black.
        for (std::size_t x = 0; x < w; ++x, out += 4) {
          const std::uint8_t v = (ch[0][x >> 3] >> (7 - (x & 7)) & 1) ? 0 : 255;
          out[0] = out[1] = out[2] = v;
          out[3] = 255;
        }
      }
      return;
    default:  // grey, duotone (its grey plate)
      for (std::size_t x = 0; x < w; ++x, out += 4) {
        const T v = S::At(ch[0], x);
        out[0] = out[1] = out[2] = v;
        out[3] = alpha(x);
      }
      return;
  }
}

// The merged picture of a document with transparency is composited over white:
// stored = colour x alpha + (1 - alpha). Both directions, in place on RGBA rows; alpha 0 and
// full alpha stay as they are.
constexpr std::uint32_t kUnit8 = 255u << 16;
struct Reciprocals {
  std::uint32_t of[256];  // 255 / a in 16.16
  Reciprocals() {
    of[0] = 0;
    for (unsigned a = 1; a < 256; ++a) of[a] = (kUnit8 + a / 2) / a;
  }
};

void Unmatte(std::uint8_t* p, std::size_t w) {
  static const Reciprocals r;
  for (std::size_t x = 0; x < w; ++x, p += 4) {
    const unsigned a = p[3];
    if (a == 255 || a == 0) continue;
    for (int c = 0; c < 3; ++c) {
      const int v = static_cast<int>(p[c]) - static_cast<int>(255 - a);
      p[c] = v <= 0 ? 0
                    : static_cast<std::uint8_t>(std::min<std::uint32_t>(
                          (static_cast<std::uint32_t>(v) * r.of[a] + 0x8000) >> 16, 255));
    }
  }
}
void Unmatte(std::uint16_t* p, std::size_t w) {
  for (std::size_t x = 0; x < w; ++x, p += 4) {
    const unsigned a = p[3];
    if (a == 65535 || a == 0) continue;
    const double k = 65535.0 / a;
    for (int c = 0; c < 3; ++c) {
      const double v = (static_cast<double>(p[c]) - (65535 - a)) * k;
      p[c] = static_cast<std::uint16_t>(std::clamp(v, 0.0, 65535.0) + 0.5);
    }
  }
}
void Unmatte(float* p, std::size_t w) {
  for (std::size_t x = 0; x < w; ++x, p += 4) {
    const float a = p[3];
    if (a >= 1.0f || a <= 0.0f) continue;
    for (int c = 0; c < 3; ++c) p[c] = (p[c] - (1.0f - a)) / a;
  }
}

void PutBE16(std::vector<std::uint8_t>* o, unsigned v) {
  o->push_back(static_cast<std::uint8_t>(v >> 8));
  o->push_back(static_cast<std::uint8_t>(v));
}
void PutBE32(std::vector<std::uint8_t>* o, std::uint32_t v) {
  PutBE16(o, v >> 16);
  PutBE16(o, v & 0xFFFF);
}
void PutText(std::vector<std::uint8_t>* o, const char* s) {
  o->insert(o->end(), s, s + std::strlen(s));
}
void PutUnicode(std::vector<std::uint8_t>* o, const char* ascii) {
  PutBE32(o, static_cast<std::uint32_t>(std::strlen(ascii)));
  for (const char* c = ascii; *c; ++c) PutBE16(o, static_cast<unsigned char>(*c));
}
void PutResource(std::vector<std::uint8_t>* o, unsigned id, const std::vector<std::uint8_t>& d) {
  PutText(o, "8BIM");
  PutBE16(o, id);
  PutBE16(o, 0);  // empty name, padded
  PutBE32(o, static_cast<std::uint32_t>(d.size()));
  o->insert(o->end(), d.begin(), d.end());
  if (d.size() & 1) o->push_back(0);
}

// PackBits: runs of three or more repeat, the rest goes literally.
void PackRow(const std::uint8_t* in, std::size_t n, std::vector<std::uint8_t>* out) {
  std::size_t i = 0;
  while (i < n) {
    std::size_t run = 1;
    while (i + run < n && run < 128 && in[i + run] == in[i]) ++run;
    if (run >= 3) {
      out->push_back(static_cast<std::uint8_t>(257 - run));
      out->push_back(in[i]);
      i += run;
      continue;
    }
    std::size_t lit = 0;
    while (i + lit < n && lit < 128) {
      if (i + lit + 2 < n && in[i + lit] == in[i + lit + 1] && in[i + lit] == in[i + lit + 2])
        break;
      ++lit;
    }
    out->push_back(static_cast<std::uint8_t>(lit - 1));
    out->insert(out->end(), in + i, in + i + lit);
    i += lit;
  }
}

}  // namespace

const char* ModeName(std::uint16_t mode) {
  switch (mode) {
    case kBitmap:
      return "bitmap";
    case kGrey:
      return "grayscale";
    case kIndexed:
      return "indexed";
    case kRgb:
      return "RGB";
    case kCmyk:
      return "CMYK";
    case kMultichannel:
      return "multichannel";
    case kDuotone:
      return "duotone";
    case kLab:
      return "Lab";
    default:
      return "unknown";
  }
}

bool ReadPsdDocument(vx::os::FileHandle file, PsdDocument* doc) {
  *doc = PsdDocument{};
  Reader r{file, 0};
  if (!vx::os::Size(file, &r.size)) return false;
  doc->fileSize = r.size;
  std::uint8_t h[kHeaderSize];
  if (!r.At(0, h, kHeaderSize) || std::memcmp(h, "8BPS", 4) != 0) return false;
  const unsigned version = LoadBE16(h + 4);
  if (version != 1 && version != 2) return false;
  doc->large = version == 2;
  doc->channels = LoadBE16(h + 12);
  doc->height = LoadBE32(h + 14);
  doc->width = LoadBE32(h + 18);
  doc->depth = LoadBE16(h + 22);
  doc->mode = LoadBE16(h + 24);
  const std::uint32_t maxSide = doc->large ? kMaxSidePsb : kMaxSidePsd;
  if (doc->channels < 1 || doc->channels > kMaxChannels || doc->width < 1 || doc->height < 1 ||
      doc->width > maxSide || doc->height > maxSide)
    return false;
  const unsigned d = doc->depth;
  switch (doc->mode) {
    case kBitmap:
      if (d != 1) return false;
      doc->colourChannels = 1;
      break;
    case kIndexed:
      if (d != 8) return false;
      doc->colourChannels = 1;
      break;
    case kGrey:
    case kDuotone:
      doc->colourChannels = 1;
      break;
    case kRgb:
      doc->colourChannels = 3;
      break;
    case kCmyk:
      doc->colourChannels = 4;
      break;
    default:
      return false;
  }
  if (d != 1 && d != 8 && d != 16 && d != 32) return false;
  if (d == 1 && doc->mode != kBitmap) return false;
  if (doc->channels < doc->colourChannels) return false;

  std::uint64_t p = kHeaderSize, n = 0;
  if (!r.Length(p, false, &n) || !vx::RangeInside(p + 4, n, r.size)) return false;
  if (doc->mode == kIndexed) {
    if (n < 768 || !r.Bytes(p + 4, 768, &doc->palette)) return false;
  }
  p += 4 + n;
  std::vector<std::uint8_t> resources;
  if (!r.Length(p, false, &n) || !r.Bytes(p + 4, n, &resources)) return false;
  if (!ReadResources(resources, doc)) return false;
  p += 4 + n;
  if (!r.Length(p, doc->large, &n)) return false;
  p += doc->large ? 8 : 4;
  if (!vx::RangeInside(p, n, r.size)) return false;
  if (!ReadLayerSection(r, p, n, doc)) return false;
  p += n;
  doc->dataOffset = p;
  std::uint8_t c[2];
  if (!r.At(p, c, 2)) return false;
  doc->compression = LoadBE16(c);
  if (doc->compression != kRaw && doc->compression != kRle) return false;
  if (doc->transparentIndex > 255 || doc->mode != kIndexed) doc->transparentIndex = -1;
  if (doc->channels <= doc->colourChannels || doc->mode == kBitmap) doc->alpha = false;

  // The least the merged picture takes, so a huge header on a small file ends here.
  const std::uint64_t rows = std::uint64_t{doc->height} * doc->ReadChannels();
  const std::uint64_t rowBytes = doc->RowBytes();
  std::uint64_t least = 0;
  if (doc->compression == kRaw) {
    if (!vx::CheckedProduct(&least, rows, rowBytes)) return false;
  } else {
    if (!vx::CheckedProduct(&least, rows, SmallestPackedRow(rowBytes) + (doc->large ? 4 : 2)))
      return false;
  }
  return vx::RangeInside(p + 2, least, r.size);
}

bool UnpackRow(const std::uint8_t* in, std::size_t inSize, std::uint8_t* out, std::size_t size) {
  std::size_t i = 0, o = 0;
  while (o < size) {
    if (i >= inSize) return false;
    const int n = static_cast<std::int8_t>(in[i++]);
    if (n >= 0) {
      const std::size_t run = static_cast<std::size_t>(n) + 1;
      if (run > size - o || run > inSize - i) return false;
      std::memcpy(out + o, in + i, run);
      i += run;
      o += run;
    } else if (n != -128) {
      const std::size_t run = static_cast<std::size_t>(1 - n);
      if (run > size - o || i >= inSize) return false;
      std::memset(out + o, in[i++], run);
      o += run;
    }
  }
  return true;
}

bool ReadPsdPicture(vx::os::FileHandle file, const PsdDocument& doc, PsdPicture* pic,
                    vx::WorkerPool* pool) {
  Reader r{file, doc.fileSize};
  const std::uint64_t start = doc.dataOffset + 2;
  const std::uint64_t h = doc.height;
  const int channels = doc.ReadChannels();
  const std::uint64_t rowBytes = doc.RowBytes();
  pic->rowOffset.clear();
  if (doc.compression == kRaw) {
    pic->planeBytes = h * rowBytes;
    return r.Bytes(start, pic->planeBytes * channels, &pic->data);
  }
  const unsigned entry = doc.large ? 4 : 2;
  const std::uint64_t tableBytes = std::uint64_t{doc.channels} * h * entry;
  const std::uint64_t rows = h * channels;
  std::vector<std::uint8_t> table;
  if (!vx::RangeInside(start, tableBytes, r.size) || !r.Bytes(start, rows * entry, &table))
    return false;
  pic->rowOffset.resize(static_cast<std::size_t>(rows + 1));
  std::uint64_t total = 0;
  for (std::size_t i = 0; i < rows; ++i) {
    pic->rowOffset[i] = total;
    total += entry == 4 ? LoadBE32(&table[4 * i]) : LoadBE16(&table[2 * i]);
  }
  pic->rowOffset[rows] = total;
  if (!r.Bytes(start + tableBytes, total, &pic->data)) return false;
  std::atomic<bool> ok{true};
  const int bands =
      pool ? std::max(1, std::min<int>(static_cast<int>(rows), 4 * pool->Concurrency())) : 1;
  auto check = [&](int band) {
    const std::size_t first = rows * band / bands, last = rows * (band + 1) / bands;
    for (std::size_t i = first; i < last && ok; ++i) {
      if (!CheckRow(pic->data.data() + pic->rowOffset[i],
                    static_cast<std::size_t>(pic->rowOffset[i + 1] - pic->rowOffset[i]),
                    static_cast<std::size_t>(rowBytes)))
        ok = false;
    }
  };
  if (pool && bands > 1) {
    pool->ParallelFor(bands, check);
  } else {
    check(0);
  }
  return ok;
}

bool DecodePsd(const PsdDocument& doc, const PsdPicture& pic, std::uint8_t* pixels,
               std::int64_t rowStride, vx::WorkerPool* pool) {
  const int channels = doc.ReadChannels();
  const std::size_t rowBytes = static_cast<std::size_t>(doc.RowBytes());
  const std::size_t h = doc.height;
  const bool rle = doc.compression == kRle;
  std::atomic<bool> ok{true};
  const int bands =
      pool ? std::max(1, std::min<int>(static_cast<int>(h), 4 * pool->Concurrency())) : 1;
  auto band = [&](int b) {
    std::vector<std::uint8_t> scratch(rle ? rowBytes * channels : 0);
    const std::uint8_t* ch[kMaxChannels];
    for (std::size_t y = h * b / bands; y < h * (b + 1) / bands && ok; ++y) {
      for (int c = 0; c < channels; ++c) {
        if (!rle) {
          ch[c] = pic.data.data() + pic.planeBytes * c + rowBytes * y;
          continue;
        }
        const std::size_t i = h * c + y;
        std::uint8_t* out = scratch.data() + rowBytes * c;
        if (!UnpackRow(pic.data.data() + pic.rowOffset[i],
                       static_cast<std::size_t>(pic.rowOffset[i + 1] - pic.rowOffset[i]), out,
                       rowBytes)) {
          ok = false;
          return;
        }
        ch[c] = out;
      }
      std::uint8_t* row = pixels + rowStride * static_cast<std::int64_t>(y);
      if (doc.depth == 16) {
        Combine(doc, ch, reinterpret_cast<std::uint16_t*>(row));
        if (doc.alpha) Unmatte(reinterpret_cast<std::uint16_t*>(row), doc.width);
      } else if (doc.depth == 32) {
        Combine(doc, ch, reinterpret_cast<float*>(row));
        if (doc.alpha) Unmatte(reinterpret_cast<float*>(row), doc.width);
      } else {
        Combine(doc, ch, row);
        if (doc.alpha) Unmatte(row, doc.width);
      }
    }
  };
  if (pool && bands > 1) {
    pool->ParallelFor(bands, band);
  } else {
    band(0);
  }
  return ok;
}

bool EncodePsd(const PsdWriteInfo& info, const std::uint8_t* pixels, std::int64_t rowStride,
               vx::WorkerPool* pool, std::vector<std::uint8_t>* out) {
  if (info.width < 1 || info.height < 1 || info.width > static_cast<int>(kMaxSidePsd) ||
      info.height > static_cast<int>(kMaxSidePsd) || (info.depth != 8 && info.depth != 16))
    return false;
  const int channels = info.alpha ? 4 : 3;
  const std::size_t w = static_cast<std::size_t>(info.width);
  const std::size_t h = static_cast<std::size_t>(info.height);
  const std::size_t bytes = static_cast<std::size_t>(info.depth / 8);
  const std::size_t rowBytes = w * bytes;
  // Every channel row packed on its own; the transparency goes first in the layer, fourth in
  // the merged picture.
  std::vector<std::vector<std::uint8_t>> packed(channels * h), merged(info.alpha ? 3 * h : 0);
  auto pack = [&](int y) {
    std::vector<std::uint8_t> line(rowBytes);
    const std::uint8_t* row = pixels + rowStride * y;
    for (int c = 0; c < channels; ++c) {
      if (bytes == 1) {
        for (std::size_t x = 0; x < w; ++x) line[x] = row[4 * x + c];
      } else {
        const auto* r16 = reinterpret_cast<const std::uint16_t*>(row);
        for (std::size_t x = 0; x < w; ++x) StoreBE16(&line[2 * x], r16[4 * x + c]);
      }
      // The layer keeps the colour as it is; the merged picture has it over white.
      PackRow(line.data(), rowBytes, &packed[h * c + y]);
      if (!info.alpha || c == 3) continue;
      if (bytes == 1) {
        for (std::size_t x = 0; x < w; ++x) {
          const unsigned a = row[4 * x + 3];
          line[x] = static_cast<std::uint8_t>((row[4 * x + c] * a + 127) / 255 + (255 - a));
        }
      } else {
        const auto* r16 = reinterpret_cast<const std::uint16_t*>(row);
        for (std::size_t x = 0; x < w; ++x) {
          const std::uint32_t a = r16[4 * x + 3];
          StoreBE16(&line[2 * x],
                    static_cast<std::uint16_t>((r16[4 * x + c] * a + 32767) / 65535 + (65535 - a)));
        }
      }
      PackRow(line.data(), rowBytes, &merged[h * c + y]);
    }
  };
  if (pool) {
    pool->ParallelFor(info.height, pack);
  } else {
    for (int y = 0; y < info.height; ++y) pack(y);
  }
  for (const auto& row : packed)
    if (row.size() > 0xFFFF) return false;

  std::vector<std::uint8_t>& o = *out;
  o.clear();
  PutText(&o, "8BPS");
  PutBE16(&o, 1);
  o.insert(o.end(), 6, 0);
  PutBE16(&o, static_cast<unsigned>(channels));
  PutBE32(&o, static_cast<std::uint32_t>(h));
  PutBE32(&o, static_cast<std::uint32_t>(w));
  PutBE16(&o, static_cast<unsigned>(info.depth));
  PutBE16(&o, kRgb);
  PutBE32(&o, 0);  // colour mode data

  std::vector<std::uint8_t> res, d;
  const double xRes = info.resolution > 0.0 ? info.resolution : 72.0;
  const double aspect = info.pixelAspect > 0.0 ? info.pixelAspect : 1.0;
  auto fixed = [](double v) {
    return static_cast<std::uint32_t>(std::clamp(v, 1.0 / 65536, 32767.0) * 65536.0 + 0.5);
  };
  PutBE32(&d, fixed(xRes));
  PutBE16(&d, 1);  // pixels per inch
  PutBE16(&d, 1);  // inches
  PutBE32(&d, fixed(xRes * aspect));
  PutBE16(&d, 1);
  PutBE16(&d, 1);
  PutResource(&res, 0x03ED, d);
  d.clear();
  PutBE32(&d, 1);
  d.resize(12);
  vx::StoreDouble(d.data() + 4, aspect, true);
  PutResource(&res, 0x0428, d);
  d.clear();
  PutBE32(&d, 1);
  d.push_back(1);  // has real merged data
  PutUnicode(&d, "vxprsr");
  PutUnicode(&d, "vxprsr");
  PutBE32(&d, 1);
  PutResource(&res, 0x0421, d);
  PutBE32(&o, static_cast<std::uint32_t>(res.size()));
  o.insert(o.end(), res.begin(), res.end());

  auto putRows = [&](int c) {
    for (std::size_t y = 0; y < h; ++y)
      PutBE16(&o, static_cast<unsigned>(packed[h * c + y].size()));
    for (std::size_t y = 0; y < h; ++y)
      o.insert(o.end(), packed[h * c + y].begin(), packed[h * c + y].end());
  };
  auto channelBytes = [&](int c) {
    std::uint64_t n = 2 + 2 * h;
    for (std::size_t y = 0; y < h; ++y) n += packed[h * c + y].size();
    return n;
  };
  if (!info.alpha) {
    PutBE32(&o, 0);
  } else {
    // One layer holding the picture, its count negative: readers then take the merged
    // picture's fourth channel as its transparency.
    static const int kOrder[] = {3, 0, 1, 2};
    std::uint64_t layerInfo = 2 + 16 + 2 + 4 * 6 + 16 + 4 + 4 + 8;
    for (int c : kOrder) layerInfo += channelBytes(c);
    if (layerInfo & 1) ++layerInfo;
    if (layerInfo + 8 > 0xFFFFFFFFu) return false;
    PutBE32(&o, static_cast<std::uint32_t>(layerInfo + 8));
    PutBE32(&o, static_cast<std::uint32_t>(layerInfo));
    const std::size_t infoStart = o.size();
    PutBE16(&o, static_cast<unsigned>(-1) & 0xFFFF);
    PutBE32(&o, 0);
    PutBE32(&o, 0);
    PutBE32(&o, static_cast<std::uint32_t>(h));
    PutBE32(&o, static_cast<std::uint32_t>(w));
    PutBE16(&o, 4);
    for (int c : kOrder) {
      PutBE16(&o, c == 3 ? 0xFFFF : static_cast<unsigned>(c));
      PutBE32(&o, static_cast<std::uint32_t>(channelBytes(c)));
    }
    PutText(&o, "8BIMnorm");
    o.push_back(255);  // opacity
    o.push_back(0);    // clipping
    o.push_back(8);    // flags: the next bit is meaningful, visible
    o.push_back(0);
    PutBE32(&o, 4 + 4 + 8);
    PutBE32(&o, 0);  // mask
    PutBE32(&o, 0);  // blending ranges
    o.push_back(7);
    PutText(&o, "Layer 0");
    for (int c : kOrder) {
      PutBE16(&o, kRle);
      putRows(c);
    }
    while (o.size() - infoStart < layerInfo) o.push_back(0);
    PutBE32(&o, 0);  // global layer mask
  }
  PutBE16(&o, kRle);
  auto mergedRow = [&](int c, std::size_t y) -> const std::vector<std::uint8_t>& {
    return info.alpha && c < 3 ? merged[h * c + y] : packed[h * c + y];
  };
  for (int c = 0; c < channels; ++c)
    for (std::size_t y = 0; y < h; ++y) PutBE16(&o, static_cast<unsigned>(mergedRow(c, y).size()));
  for (int c = 0; c < channels; ++c) {
    for (std::size_t y = 0; y < h; ++y)
      o.insert(o.end(), mergedRow(c, y).begin(), mergedRow(c, y).end());
  }
  return true;
}

}  // namespace vx::psd
