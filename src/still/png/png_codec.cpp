#include "still/png/png_codec.h"

#include "base/bytes.h"

#include <algorithm>
#include <bit>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#if VX_HAVE_LIBPNG
#include <png.h>
#include <zlib.h>
#endif

namespace vx::png {

const char* PngInfo::ColorTypeName() const {
  switch (colorType) {
    case kGrey:
      return "grey";
    case kRgb:
      return "rgb";
    case kPalette:
      return "palette";
    case kGreyAlpha:
      return "grey-alpha";
    case kRgba:
      return "rgba";
  }
  return "unknown";
}

bool CanDecodeInto(const PngInfo& info, VxPixelFormat format) {
  const bool deep = info.bitDepth == 16;
  switch (format) {
    case VX_PF_RGBA8:
    case VX_PF_BGRA8:
    case VX_PF_RGB8:
      return !deep;
    case VX_PF_RGBA16:
    case VX_PF_RGB16:
      return deep;
    case VX_PF_GRAY8:
      return !deep && info.colorType == kGrey && !info.hasTrns;
    case VX_PF_GRAY16:
      return deep && info.colorType == kGrey && !info.hasTrns;
    default:
      return false;
  }
}

#if VX_HAVE_LIBPNG

namespace {

constexpr std::uint8_t kSignature[8] = {137, 80, 78, 71, 13, 10, 26, 10};
// Deflate's best case: 258 bytes from a little over two bits.
constexpr std::uint64_t kMaxInflate = 1032;
constexpr std::size_t kMaxTextBytes = 8u << 20;

std::uint32_t Be32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

std::uint32_t Tag(const char (&s)[5]) {
  return Be32(reinterpret_cast<const std::uint8_t*>(s));
}

std::string Latin1ToUtf8(const std::uint8_t* p, std::size_t n) {
  std::string s;
  s.reserve(n);
  for (std::size_t i = 0; i < n; ++i) {
    if (p[i] < 0x80) {
      s.push_back(static_cast<char>(p[i]));
    } else {
      s.push_back(static_cast<char>(0xC0 | p[i] >> 6));
      s.push_back(static_cast<char>(0x80 | (p[i] & 0x3F)));
    }
  }
  return s;
}

// zlib stream to text, at most `limit` bytes; false when it is broken or longer.
bool Inflate(const std::uint8_t* p, std::size_t n, std::size_t limit, std::string* out) {
  z_stream z{};
  if (inflateInit(&z) != Z_OK) return false;
  z.next_in = const_cast<Bytef*>(p);
  z.avail_in = static_cast<uInt>(n);
  char buffer[4096];
  int ret = Z_OK;
  out->clear();
  while (ret == Z_OK) {
    z.next_out = reinterpret_cast<Bytef*>(buffer);
    z.avail_out = sizeof buffer;
    ret = inflate(&z, Z_NO_FLUSH);
    const std::size_t got = sizeof buffer - z.avail_out;
    if (out->size() + got > limit)
      ret = Z_MEM_ERROR;
    else
      out->append(buffer, got);
    if (ret == Z_OK && got == 0 && z.avail_in == 0) ret = Z_DATA_ERROR;
  }
  inflateEnd(&z);
  return ret == Z_STREAM_END;
}

// Keyword: 1-79 Latin-1 bytes ending in a zero inside the chunk.
bool Keyword(const std::uint8_t* p, std::size_t n, std::string* key, std::size_t* after) {
  const std::uint8_t* end =
      static_cast<const std::uint8_t*>(std::memchr(p, 0, std::min<std::size_t>(n, 80)));
  if (!end || end == p) return false;
  *key = Latin1ToUtf8(p, static_cast<std::size_t>(end - p));
  *after = static_cast<std::size_t>(end - p) + 1;
  return true;
}

void ReadText(std::uint32_t type, const std::uint8_t* p, std::size_t n, std::size_t* budget,
              Texts* texts) {
  std::string key, value;
  std::size_t at = 0;
  if (!Keyword(p, n, &key, &at)) return;
  if (type == Tag("tEXt")) {
    value = Latin1ToUtf8(p + at, n - at);
  } else if (type == Tag("zTXt")) {
    if (at >= n || p[at] != 0) return;
    std::string raw;
    if (!Inflate(p + at + 1, n - at - 1, *budget, &raw)) return;
    value = Latin1ToUtf8(reinterpret_cast<const std::uint8_t*>(raw.data()), raw.size());
  } else {
    if (at + 2 > n) return;
    const bool compressed = p[at] != 0;
    if (compressed && p[at + 1] != 0) return;
    at += 2;
    for (int skip = 0; skip < 2; ++skip) {  // language tag, translated keyword
      const void* z = std::memchr(p + at, 0, n - at);
      if (!z) return;
      at = static_cast<std::size_t>(static_cast<const std::uint8_t*>(z) - p) + 1;
    }
    if (compressed) {
      if (!Inflate(p + at, n - at, *budget, &value)) return;
    } else {
      value.assign(reinterpret_cast<const char*>(p + at), n - at);
    }
  }
  if (value.size() > *budget) return;
  *budget -= value.size();
  texts->emplace_back(std::move(key), std::move(value));
}

}  // namespace

bool ParsePng(const std::uint8_t* data, std::size_t size, PngInfo* out) {
  if (!data || size < 8 + 25 || std::memcmp(data, kSignature, 8) != 0) return false;
  PngInfo info;
  std::size_t at = 8, textBudget = kMaxTextBytes;
  bool first = true, palette = false, idat = false, idatEnded = false, end = false;
  while (!end) {
    if (size - at < 12) return false;
    const std::uint32_t length = Be32(data + at), type = Be32(data + at + 4);
    if (length > 0x7FFFFFFFu || length > size - at - 12) return false;
    const std::uint8_t* p = data + at + 8;
    // Only the ancillary chunks read here are checked: libpng checks the critical ones, and a
    // CRC over all the IDAT bytes would cost a good share of a decode.
    const std::uint8_t* typeAt = data + at + 4;
    auto crcOk = [&] { return crc32(0, typeAt, length + 4) == Be32(p + length); };
    at += std::size_t{length} + 12;
    if (first) {
      if (type != Tag("IHDR") || length != 13) return false;
      first = false;
      info.width = Be32(p);
      info.height = Be32(p + 4);
      info.bitDepth = p[8];
      info.colorType = p[9];
      info.interlaced = p[12] == 1;
      if (info.width == 0 || info.height == 0 || info.width > (1u << 24) ||
          info.height > (1u << 24) || p[10] != 0 || p[11] != 0 || p[12] > 1)
        return false;
      const int d = info.bitDepth;
      bool valid = false;
      switch (info.colorType) {
        case kGrey:
          valid = d == 1 || d == 2 || d == 4 || d == 8 || d == 16;
          break;
        case kPalette:
          valid = d == 1 || d == 2 || d == 4 || d == 8;
          break;
        case kRgb:
        case kGreyAlpha:
        case kRgba:
          valid = d == 8 || d == 16;
          break;
      }
      if (!valid) return false;
      continue;
    }
    if (type == Tag("IDAT")) {
      if (idatEnded) return false;
      idat = true;
      info.idatBytes += length;
      continue;
    }
    if (idat) idatEnded = true;
    if (type == Tag("IEND")) {
      end = true;
    } else if (type == Tag("PLTE")) {
      palette = true;
    } else if (!(type & 0x20000000u)) {
      return false;  // a critical chunk we do not know
    } else if (!crcOk()) {
      continue;  // an ancillary chunk with a bad CRC is dropped, as libpng drops it
    } else if (type == Tag("tRNS")) {
      info.hasTrns = info.colorType != kGreyAlpha && info.colorType != kRgba && length > 0;
    } else if (type == Tag("gAMA") && length == 4) {
      info.gamma = Be32(p);
    } else if (type == Tag("sRGB") && length == 1) {
      info.srgbIntent = p[0];
    } else if (type == Tag("iCCP")) {
      std::size_t after = 0;
      if (!Keyword(p, length, &info.iccName, &after)) info.iccName.clear();
    } else if (type == Tag("cHRM") && length == 32) {
      // File order is white, red, green, blue; ours red, green, blue, white.
      static constexpr int kSlot[8] = {6, 7, 0, 1, 2, 3, 4, 5};
      for (int i = 0; i < 8; ++i) info.chrm[kSlot[i]] = Be32(p + 4 * i) / 100000.0;
      info.hasChrm = true;
    } else if (type == Tag("pHYs") && length == 9) {
      info.physX = Be32(p);
      info.physY = Be32(p + 4);
      info.physUnit = p[8];
      info.hasPhys = info.physX > 0 && info.physY > 0;
    } else if (type == Tag("tIME") && length == 7) {
      char text[32];
      std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u", p[0] << 8 | p[1], p[2],
                    p[3], p[4], p[5], p[6]);
      info.time = text;
    } else if (type == Tag("tEXt") || type == Tag("zTXt") || type == Tag("iTXt")) {
      ReadText(type, p, length, &textBudget, &info.texts);
    }
  }
  if (!idat || (info.colorType == kPalette && !palette)) return false;
  const int channels = info.colorType == kRgb         ? 3
                       : info.colorType == kRgba      ? 4
                       : info.colorType == kGreyAlpha ? 2
                                                      : 1;
  const std::uint64_t rowBytes =
      (std::uint64_t{info.width} * static_cast<std::uint64_t>(channels * info.bitDepth) + 7) / 8;
  const std::uint64_t raw = std::uint64_t{info.height} * (rowBytes + 1);
  if (raw > info.idatBytes * kMaxInflate + (1u << 16)) return false;
  *out = std::move(info);
  return true;
}

// ---- libpng --------------------------------------------------------------------------------

namespace {

// Everything libpng touches, plain C data: its errors longjmp back into RunGuarded only, so no
// object with a destructor may live between the setjmp and the longjmp.
struct PngState {
  std::jmp_buf jump;
  png_structp png;
  png_infop info;
  const std::uint8_t* in;
  std::size_t inSize, inAt;
  std::uint8_t* out;  // malloc'd
  std::size_t outSize, outCapacity;
  bool outFailed;
};

void OnError(png_structp png, png_const_charp /*message*/) {
  PngState* s = static_cast<PngState*>(png_get_error_ptr(png));
  std::longjmp(s->jump, 1);
}

void OnWarning(png_structp, png_const_charp) {}

void OnRead(png_structp png, png_bytep to, std::size_t n) {
  PngState* s = static_cast<PngState*>(png_get_io_ptr(png));
  if (n > s->inSize - s->inAt) png_error(png, "read past the end");
  std::memcpy(to, s->in + s->inAt, n);
  s->inAt += n;
}

void OnWrite(png_structp png, png_bytep from, std::size_t n) {
  PngState* s = static_cast<PngState*>(png_get_io_ptr(png));
  if (n > s->outCapacity - s->outSize) {
    std::size_t capacity = std::max(s->outCapacity * 2, s->outSize + n + 65536);
    void* grown = std::realloc(s->out, capacity);
    if (!grown) {
      s->outFailed = true;
      png_error(png, "out of memory");
    }
    s->out = static_cast<std::uint8_t*>(grown);
    s->outCapacity = capacity;
  }
  std::memcpy(s->out + s->outSize, from, n);
  s->outSize += n;
}

void OnFlush(png_structp) {}

struct DecodeArgs {
  const PngInfo* info;
  const PngTarget* target;
  png_bytepp rows;
  png_bytep scratch;  // one file row, for the 16-bit RGB(A) rows we widen ourselves; else null
};

struct EncodeArgs {
  const PngWriteInfo* info;
  const std::uint8_t* rows;
  png_textp texts;
  int textCount;
};

// What libpng kept of the header decides the filler: a tRNS it refused is no alpha.
void SetDecodeTransforms(png_structp png, png_infop pi, const PngInfo& info, VxPixelFormat f) {
  png_set_expand(png);  // palette to RGB, low-bit grey to 8 bits, tRNS to alpha
  const bool grey = f == VX_PF_GRAY8 || f == VX_PF_GRAY16;
  const bool alpha = f == VX_PF_RGBA8 || f == VX_PF_BGRA8 || f == VX_PF_RGBA16;
  const bool fileAlpha =
      (png_get_color_type(png, pi) & PNG_COLOR_MASK_ALPHA) || png_get_valid(png, pi, PNG_INFO_tRNS);
  if (info.Grey() && !grey) png_set_gray_to_rgb(png);
  if (!alpha) {
    png_set_strip_alpha(png);
  } else if (!fileAlpha) {
    png_set_add_alpha(png, info.bitDepth == 16 ? 0xFFFF : 0xFF, PNG_FILLER_AFTER);
  }
  if (f == VX_PF_BGRA8) png_set_bgr(png);
  if (info.bitDepth == 16 && std::endian::native == std::endian::little) png_set_swap(png);
  if (info.interlaced) png_set_interlace_handling(png);
}

// The one frame libpng's errors jump back to. C-style on purpose: see PngState.
bool RunDecode(PngState* s, DecodeArgs* a) {
  if (setjmp(s->jump)) {
    png_destroy_read_struct(&s->png, &s->info, nullptr);
    return false;
  }
  s->png = png_create_read_struct(PNG_LIBPNG_VER_STRING, s, OnError, OnWarning);
  if (!s->png) return false;
  s->info = png_create_info_struct(s->png);
  if (!s->info) png_error(s->png, "out of memory");
  png_set_read_fn(s->png, s, OnRead);
  png_set_benign_errors(s->png, 1);
  // ParsePng has already weighed the picture against the file.
  png_set_user_limits(s->png, 1u << 24, 1u << 24);
  png_set_chunk_malloc_max(s->png, 64u << 20);
  png_read_info(s->png, s->info);
  if (png_get_image_width(s->png, s->info) != a->info->width ||
      png_get_image_height(s->png, s->info) != a->info->height)
    png_error(s->png, "header changed");
  if (a->scratch) {
    const bool alpha = png_get_color_type(s->png, s->info) == PNG_COLOR_TYPE_RGB_ALPHA;
    if (!alpha && png_get_valid(s->png, s->info, PNG_INFO_tRNS)) png_error(s->png, "tRNS");
    png_read_update_info(s->png, s->info);
    if (png_get_rowbytes(s->png, s->info) != std::size_t{a->info->width} * (alpha ? 8 : 6))
      png_error(s->png, "unexpected row layout");
    for (std::uint32_t y = 0; y < a->info->height; ++y) {
      png_read_row(s->png, a->scratch, nullptr);
      // One pass to the host's order and layout: libpng's swap and filler would be two.
      WidenRgb16ToRgba16(a->scratch, a->rows[y], a->info->width, alpha, true);
    }
    png_read_end(s->png, nullptr);
    png_destroy_read_struct(&s->png, &s->info, nullptr);
    return true;
  }
  SetDecodeTransforms(s->png, s->info, *a->info, a->target->format);
  png_read_update_info(s->png, s->info);
  const std::size_t rowBytes =
      static_cast<std::size_t>(a->info->width) *
      static_cast<std::size_t>(VxPixelFormatBytesPerPixel(a->target->format));
  if (png_get_rowbytes(s->png, s->info) != rowBytes) png_error(s->png, "unexpected row layout");
  png_read_image(s->png, a->rows);
  png_read_end(s->png, nullptr);
  png_destroy_read_struct(&s->png, &s->info, nullptr);
  return true;
}

bool RunEncode(PngState* s, EncodeArgs* a) {
  if (setjmp(s->jump)) {
    png_destroy_write_struct(&s->png, &s->info);
    return false;
  }
  const PngWriteInfo& w = *a->info;
  s->png = png_create_write_struct(PNG_LIBPNG_VER_STRING, s, OnError, OnWarning);
  if (!s->png) return false;
  s->info = png_create_info_struct(s->png);
  if (!s->info) png_error(s->png, "out of memory");
  png_set_write_fn(s->png, s, OnWrite, OnFlush);
  png_set_compression_level(s->png, w.level);
  static constexpr int kTypes[5] = {0, PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA,
                                    PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_RGB_ALPHA};
  png_set_IHDR(s->png, s->info, static_cast<png_uint_32>(w.width),
               static_cast<png_uint_32>(w.height), w.bitDepth, kTypes[w.channels],
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (w.srgb) {
    png_set_sRGB_gAMA_and_cHRM(s->png, s->info, w.srgbIntent);
  } else {
    if (w.gamma) png_set_gAMA_fixed(s->png, s->info, static_cast<png_fixed_point>(w.gamma));
    if (w.hasChrm)
      png_set_cHRM(s->png, s->info, w.chrm[6], w.chrm[7], w.chrm[0], w.chrm[1], w.chrm[2],
                   w.chrm[3], w.chrm[4], w.chrm[5]);
  }
  if (w.aspect > 0) {
    // pHYs holds pixels per unit: a pixel's width over its height is y over x.
    png_uint_32 x = 100000, y = static_cast<png_uint_32>(w.aspect * 100000 + 0.5);
    if (w.aspect > 1) {
      y = 100000;
      x = static_cast<png_uint_32>(100000 / w.aspect + 0.5);
    }
    if (x == y) x = y = 1;
    png_set_pHYs(s->png, s->info, x, y, PNG_RESOLUTION_UNKNOWN);
  }
  if (a->textCount > 0) png_set_text(s->png, s->info, a->texts, a->textCount);
  png_write_info(s->png, s->info);
  const std::size_t rowBytes =
      static_cast<std::size_t>(w.width) * static_cast<std::size_t>(w.channels * w.bitDepth / 8);
  for (int y = 0; y < w.height; ++y)
    png_write_row(s->png, a->rows + rowBytes * static_cast<std::size_t>(y));
  png_write_end(s->png, nullptr);
  png_destroy_write_struct(&s->png, &s->info);
  return true;
}

}  // namespace

bool DecodePng(const std::uint8_t* data, std::size_t size, const PngInfo& info,
               const PngTarget& target) {
  if (!CanDecodeInto(info, target.format) || !target.pixels) return false;
  std::vector<png_bytep> rows(info.height);
  for (std::uint32_t y = 0; y < info.height; ++y) rows[y] = target.pixels + target.rowStride * y;
  const bool widen = std::endian::native == std::endian::little && !info.interlaced &&
                     info.bitDepth == 16 && target.format == VX_PF_RGBA16 &&
                     (info.colorType == kRgba || (info.colorType == kRgb && !info.hasTrns));
  std::vector<std::uint8_t> scratch(widen ? std::size_t{info.width} * 8 + 16 : 0);
  PngState s{};
  s.in = data;
  s.inSize = size;
  DecodeArgs a{&info, &target, rows.data(), widen ? scratch.data() : nullptr};
  return RunDecode(&s, &a);
}

bool EncodePng(const PngWriteInfo& info, const std::uint8_t* rows, std::vector<std::uint8_t>* out) {
  if (info.width < 1 || info.height < 1 || info.channels < 1 || info.channels > 4 ||
      (info.bitDepth != 8 && info.bitDepth != 16) || info.level < 0 || info.level > 9)
    return false;
  // Keywords and values held here for the C side; Latin-1 values go as tEXt, others as iTXt.
  std::vector<std::string> keys, values;
  std::vector<png_text> texts;
  for (const auto& [key, value] : info.texts) {
    if (key.empty() || key.size() > 79 || value.empty()) continue;
    keys.push_back(key);
    values.push_back(value);
  }
  texts.resize(keys.size());
  for (std::size_t i = 0; i < keys.size(); ++i) {
    const bool ascii = std::all_of(values[i].begin(), values[i].end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    png_text& t = texts[i];
    t = png_text{};
    t.compression =
        ascii ? (values[i].size() > 1024 ? PNG_TEXT_COMPRESSION_zTXt : PNG_TEXT_COMPRESSION_NONE)
              : PNG_ITXT_COMPRESSION_NONE;
    t.key = keys[i].data();
    t.text = values[i].data();
    t.text_length = values[i].size();
  }
  PngState s{};
  EncodeArgs a{&info, rows, texts.data(), static_cast<int>(texts.size())};
  const bool ok = RunEncode(&s, &a);
  const std::unique_ptr<std::uint8_t, decltype(&std::free)> hold(s.out, &std::free);
  if (ok) out->assign(s.out, s.out + s.outSize);
  return ok;
}

#else  // no libpng: every file is refused

bool ParsePng(const std::uint8_t*, std::size_t, PngInfo*) {
  return false;
}
bool DecodePng(const std::uint8_t*, std::size_t, const PngInfo&, const PngTarget&) {
  return false;
}
bool EncodePng(const PngWriteInfo&, const std::uint8_t*, std::vector<std::uint8_t>*) {
  return false;
}

#endif

}  // namespace vx::png
