#include "still/tiff/tiff_codec.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>

#include "base/bytes.h"
#include "base/worker_pool.h"

#if VX_HAVE_LIBTIFF
#include <tiffio.h>
#endif

namespace vx::tiff {

Depth TiffPage::NativeDepth() const {
  if (rgbaInterface) return Depth::k8;
  if (sampleFormat == 3) return Depth::kFloat;
  if (photometric == 3) return Depth::k16;  // the map is 16-bit
  return bits > 8 ? Depth::k16 : Depth::k8;
}

const char* CompressionName(std::uint16_t code) {
  switch (code) {
    case 1:
      return "none";
    case 2:
      return "ccitt-rle";
    case 3:
      return "ccitt-fax3";
    case 4:
      return "ccitt-fax4";
    case 5:
      return "lzw";
    case 6:
      return "ojpeg";
    case 7:
      return "jpeg";
    case 8:
    case 32946:
      return "deflate";
    case 32773:
      return "packbits";
    case 32809:
      return "thunderscan";
    case 34676:
      return "sgilog";
    case 34677:
      return "sgilog24";
    case 34925:
      return "lzma";
    case 50000:
      return "zstd";
    case 50001:
      return "webp";
    case 34887:
      return "lerc";
    case 32908:
    case 32909:
      return "pixarlog";
    case 32766:
      return "next";
    default:
      return "unknown";
  }
}

const char* PhotometricName(std::uint16_t code) {
  switch (code) {
    case 0:
      return "min-is-white";
    case 1:
      return "min-is-black";
    case 2:
      return "rgb";
    case 3:
      return "palette";
    case 4:
      return "mask";
    case 5:
      return "separated";
    case 6:
      return "ycbcr";
    case 8:
      return "cielab";
    case 9:
      return "icclab";
    case 10:
      return "itulab";
    case 32844:
      return "logl";
    case 32845:
      return "logluv";
    default:
      return "unknown";
  }
}

#if !VX_HAVE_LIBTIFF

bool Available() {
  return false;
}
bool ReadTiffPage(const std::uint8_t*, std::size_t, int, TiffPage*, std::string* error) {
  if (error) *error = "built without libtiff";
  return false;
}
bool DecodeTiff(const std::uint8_t*, std::size_t, int, const TiffPage&, const TiffTarget&,
                vx::WorkerPool*, std::string* error) {
  if (error) *error = "built without libtiff";
  return false;
}
bool EncodeTiff(const TiffWriteInfo&, const std::uint8_t*, std::int64_t, std::vector<std::uint8_t>*,
                std::string* error) {
  if (error) *error = "built without libtiff";
  return false;
}

#else

bool Available() {
  return true;
}

namespace {

// ---- libtiff over memory --------------------------------------------------------------------

// What one libtiff handle reads from (a file held whole) or writes into, and its first error.
struct Stream {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
  std::vector<std::uint8_t>* out = nullptr;  // writing
  std::uint64_t pos = 0;
  char error[256] = {};
};

tmsize_t ReadProc(thandle_t h, void* buf, tmsize_t n) {
  auto* s = static_cast<Stream*>(h);
  const std::uint8_t* base = s->out ? s->out->data() : s->data;
  const std::uint64_t size = s->out ? s->out->size() : s->size;
  if (n < 0 || s->pos >= size) return 0;
  const std::uint64_t k = std::min<std::uint64_t>(static_cast<std::uint64_t>(n), size - s->pos);
  std::memcpy(buf, base + s->pos, static_cast<std::size_t>(k));
  s->pos += k;
  return static_cast<tmsize_t>(k);
}

tmsize_t WriteProc(thandle_t h, void* buf, tmsize_t n) {
  auto* s = static_cast<Stream*>(h);
  if (!s->out || n < 0) return -1;
  const std::uint64_t end = s->pos + static_cast<std::uint64_t>(n);
  if (end > (std::uint64_t{1} << 32)) return -1;  // classic TIFF offsets are 32-bit
  try {
    if (s->out->size() < end) s->out->resize(static_cast<std::size_t>(end));
  } catch (...) {
    return -1;
  }
  std::memcpy(s->out->data() + s->pos, buf, static_cast<std::size_t>(n));
  s->pos = end;
  return n;
}

toff_t SeekProc(thandle_t h, toff_t off, int whence) {
  auto* s = static_cast<Stream*>(h);
  const std::uint64_t size = s->out ? s->out->size() : s->size;
  std::uint64_t base = whence == SEEK_CUR ? s->pos : whence == SEEK_END ? size : 0;
  s->pos = base + off;
  return s->pos;
}

int CloseProc(thandle_t) {
  return 0;
}

toff_t SizeProc(thandle_t h) {
  auto* s = static_cast<Stream*>(h);
  return s->out ? s->out->size() : s->size;
}

// Reading maps the whole file, so uncompressed strips are used in place.
int MapProc(thandle_t h, void** base, toff_t* size) {
  auto* s = static_cast<Stream*>(h);
  if (s->out) return 0;
  *base = const_cast<std::uint8_t*>(s->data);
  *size = s->size;
  return 1;
}

void UnmapProc(thandle_t, void*, toff_t) {}

// libtiff's errors end as a status: the first message is kept for the caller, warnings dropped.
int ErrorProc(TIFF*, void* user, const char* module, const char* fmt, va_list ap) {
  auto* s = static_cast<Stream*>(user);
  if (s && !s->error[0]) {
    char text[200];
    std::vsnprintf(text, sizeof text, fmt, ap);
    std::snprintf(s->error, sizeof s->error, "%s: %s", module ? module : "libtiff", text);
  }
  return 1;
}

int WarningProc(TIFF*, void*, const char*, const char*, va_list) {
  return 1;
}

struct Handle {
  Stream stream;
  TIFF* tif = nullptr;
  Handle() = default;
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() {
    if (tif) TIFFClose(tif);
  }
  bool Open(const char* mode) {
    TIFFOpenOptions* opts = TIFFOpenOptionsAlloc();
    if (!opts) return false;
    TIFFOpenOptionsSetErrorHandlerExtR(opts, ErrorProc, &stream);
    TIFFOpenOptionsSetWarningHandlerExtR(opts, WarningProc, &stream);
    // No single allocation beyond what a picture of the largest host size needs.
    TIFFOpenOptionsSetMaxSingleMemAlloc(opts, tmsize_t{1} << 31);
    tif = TIFFClientOpenExt("tiff", mode, &stream, ReadProc, WriteProc, SeekProc, CloseProc,
                            SizeProc, MapProc, UnmapProc, opts);
    TIFFOpenOptionsFree(opts);
    return tif != nullptr;
  }
  void Error(std::string* error, const char* fallback) const {
    if (error) *error = stream.error[0] ? stream.error : fallback;
  }
};

bool OpenPage(Handle& h, const std::uint8_t* data, std::size_t size, int page, std::string* error) {
  h.stream.data = data;
  h.stream.size = size;
  if (!h.Open("r")) {
    h.Error(error, "not a TIFF file");
    return false;
  }
  if (page < 0 || page > 65535 || !TIFFSetDirectory(h.tif, static_cast<tdir_t>(page))) {
    h.Error(error, "no such page");
    return false;
  }
  return true;
}

std::string Text(TIFF* tif, ttag_t tag) {
  char* v = nullptr;
  if (TIFFGetField(tif, tag, &v) == 1 && v) return v;
  return {};
}

// ---- Sample conversion ----------------------------------------------------------------------

float HalfToFloat(std::uint16_t h) {
  const std::uint32_t sign = (h & 0x8000u) << 16;
  std::uint32_t exp = (h >> 10) & 31, man = h & 0x3ffu, bits;
  if (exp == 0) {
    if (man == 0) {
      bits = sign;
    } else {
      float f = std::ldexp(static_cast<float>(man), -24);
      return sign ? -f : f;
    }
  } else if (exp == 31) {
    bits = sign | 0x7f800000u | (man << 13);
  } else {
    bits = sign | ((exp + 112) << 23) | (man << 13);
  }
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

// 24-bit float: sign, 7 exponent bits (bias 63), 16 mantissa bits.
float Float24ToFloat(std::uint32_t v) {
  const std::uint32_t sign = (v & 0x800000u) << 8;
  std::uint32_t exp = (v >> 16) & 127, man = v & 0xffffu, bits;
  if (exp == 0) {
    float f = std::ldexp(static_cast<float>(man), -62 - 16);
    return sign ? -f : f;
  }
  if (exp == 127) {
    bits = sign | 0x7f800000u | (man << 7);
  } else {
    bits = sign | ((exp + 64) << 23) | (man << 7);
  }
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

// One line of one plane's samples as integers (libtiff hands 16/24/32-bit samples in host
// order; other sizes stay a big-endian bit stream).
void ExtractInts(const std::uint8_t* row, int bits, std::size_t count, std::uint32_t* out) {
  switch (bits) {
    case 8:
      for (std::size_t i = 0; i < count; ++i) out[i] = row[i];
      return;
    case 16:
      for (std::size_t i = 0; i < count; ++i) {
        std::uint16_t v;
        std::memcpy(&v, row + 2 * i, 2);
        out[i] = v;
      }
      return;
    case 24:
      for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t* p = row + 3 * i;
        out[i] = p[0] | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16);
      }
      return;
    case 32:
      std::memcpy(out, row, 4 * count);
      return;
    default: {
      std::uint64_t bit = 0;
      for (std::size_t i = 0; i < count; ++i, bit += static_cast<unsigned>(bits)) {
        std::uint32_t v = 0;
        for (int b = 0; b < bits; ++b) {
          const std::uint64_t at = bit + static_cast<unsigned>(b);
          v = (v << 1) | ((row[at >> 3] >> (7 - (at & 7))) & 1u);
        }
        out[i] = v;
      }
    }
  }
}

void ExtractFloats(const std::uint8_t* row, int bits, std::size_t count, float* out) {
  for (std::size_t i = 0; i < count; ++i) {
    if (bits == 32) {
      std::memcpy(&out[i], row + 4 * i, 4);
    } else if (bits == 16) {
      std::uint16_t v;
      std::memcpy(&v, row + 2 * i, 2);
      out[i] = HalfToFloat(v);
    } else if (bits == 24) {
      const std::uint8_t* p = row + 3 * i;
      out[i] = Float24ToFloat(p[0] | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16));
    } else {
      double d;
      std::memcpy(&d, row + 8 * i, 8);
      out[i] = static_cast<float>(d);
    }
  }
}

// Where file pixel (c, r) of a w x h page lands among the shown rows, for each orientation.
struct Placement {
  std::int64_t origin = 0, col = 0, row = 0;
};

Placement Place(const TiffPage& p, const TiffTarget& t, int pixelBytes) {
  const std::int64_t w = p.width, h = p.height, P = pixelBytes, S = t.rowStride;
  Placement m;
  switch (p.orientation) {
    case 2:
      m = {(w - 1) * P, -P, S};
      break;
    case 3:
      m = {(h - 1) * S + (w - 1) * P, -P, -S};
      break;
    case 4:
      m = {(h - 1) * S, P, -S};
      break;
    case 5:
      m = {0, S, P};
      break;
    case 6:
      m = {(h - 1) * P, S, -P};
      break;
    case 7:
      m = {(w - 1) * S + (h - 1) * P, -S, -P};
      break;
    case 8:
      m = {(w - 1) * S, -S, P};
      break;
    default:
      m = {0, P, S};
      break;
  }
  return m;
}

// How one page's samples become RGBA values of the target.
struct Layout {
  const TiffPage* page = nullptr;
  int bits = 8;
  std::uint32_t maxValue = 255;
  int colours = 3;  // samples before the extra ones (grey 1, RGB 3, CMYK 4, palette 1)
  int alphaIndex = -1;
  bool isFloat = false, isSigned = false, invert = false, cmyk = false, palette = false;
  const std::uint16_t* map[3] = {};
};

template <typename T>
struct Out;
template <>
struct Out<std::uint8_t> {
  static constexpr std::uint32_t kMax = 255;
};
template <>
struct Out<std::uint16_t> {
  static constexpr std::uint32_t kMax = 65535;
};

// Integer samples of one pixel into target values: scaled round(v * kMax / max).
template <typename T>
inline T Scale(std::uint32_t v, std::uint32_t max) {
  if (max == Out<T>::kMax) return static_cast<T>(v);
  return static_cast<T>((std::uint64_t{v} * Out<T>::kMax + max / 2) / max);
}

template <typename T>
void ComposeInt(const Layout& L, const std::uint32_t* const* planes, int stride, std::size_t count,
                std::uint8_t* dst, std::int64_t col) {
  const std::uint32_t max = L.maxValue;
  for (std::size_t i = 0; i < count; ++i, dst += col) {
    auto s = [&](int k) -> std::uint32_t {
      std::uint32_t v = stride ? planes[0][i * static_cast<std::size_t>(stride) + k] : planes[k][i];
      if (L.isSigned) {
        // Negative values read as black; the positive half spans the range.
        const std::uint32_t sign = 1u << (L.bits - 1);
        v = (v & sign) ? 0 : v << 1;
      }
      return std::min(v, max);
    };
    T* o = reinterpret_cast<T*>(dst);
    if (L.palette) {
      const std::uint32_t index =
          stride ? planes[0][i * static_cast<std::size_t>(stride)] : planes[0][i];
      for (int c = 0; c < 3; ++c) o[c] = Scale<T>(L.map[c][index], 65535);
    } else if (L.colours == 1) {
      std::uint32_t v = s(0);
      if (L.invert) v = max - v;
      o[0] = o[1] = o[2] = Scale<T>(v, max);
    } else if (L.cmyk) {
      const std::uint64_t k = max - s(3);
      for (int c = 0; c < 3; ++c)
        o[c] = Scale<T>(static_cast<std::uint32_t>((max - s(c)) * k / max), max);
    } else {
      o[0] = Scale<T>(s(0), max);
      o[1] = Scale<T>(s(1), max);
      o[2] = Scale<T>(s(2), max);
    }
    o[3] = L.alphaIndex >= 0 ? Scale<T>(s(L.alphaIndex), max) : static_cast<T>(Out<T>::kMax);
  }
}

void ComposeFloat(const Layout& L, const float* const* planes, int stride, std::size_t count,
                  std::uint8_t* dst, std::int64_t col) {
  for (std::size_t i = 0; i < count; ++i, dst += col) {
    auto s = [&](int k) {
      return stride ? planes[0][i * static_cast<std::size_t>(stride) + k] : planes[k][i];
    };
    float* o = reinterpret_cast<float*>(dst);
    if (L.colours == 1) {
      const float v = L.invert ? 1.0f - s(0) : s(0);
      o[0] = o[1] = o[2] = v;
    } else if (L.cmyk) {
      const float k = 1.0f - s(3);
      for (int c = 0; c < 3; ++c) o[c] = (1.0f - s(c)) * k;
    } else {
      o[0] = s(0);
      o[1] = s(1);
      o[2] = s(2);
    }
    o[3] = L.alphaIndex >= 0 ? s(L.alphaIndex) : 1.0f;
  }
}

// Lines shown left to right get loops of fixed steps the compiler can widen.
template <typename T, int kSamples>
void CopyRgbRun(const T* src, std::size_t count, T* dst) {
  for (std::size_t i = 0; i < count; ++i, src += kSamples, dst += 4) {
    dst[0] = src[0];
    dst[1] = src[1];
    dst[2] = src[2];
    dst[3] = kSamples == 4 ? src[3] : static_cast<T>(Out<T>::kMax);
  }
}

template <typename T>
void CopyRgb(const std::uint8_t* src, int samples, bool alpha, std::size_t count, std::uint8_t* dst,
             std::int64_t col) {
  if (col == 4 * static_cast<std::int64_t>(sizeof(T)) &&
      (samples == 3 || (samples == 4 && alpha)) &&
      reinterpret_cast<std::uintptr_t>(src) % alignof(T) == 0 &&
      reinterpret_cast<std::uintptr_t>(dst) % alignof(T) == 0) {
    if constexpr (sizeof(T) == 2) {
      WidenRgb16ToRgba16(src, dst, count, samples == 4, false);
      return;
    }
    if (samples == 3) {
      CopyRgbRun<T, 3>(reinterpret_cast<const T*>(src), count, reinterpret_cast<T*>(dst));
    } else {
      CopyRgbRun<T, 4>(reinterpret_cast<const T*>(src), count, reinterpret_cast<T*>(dst));
    }
    return;
  }
  const std::size_t step = static_cast<std::size_t>(samples) * sizeof(T);
  for (std::size_t i = 0; i < count; ++i, src += step, dst += col) {
    T v[4];
    std::memcpy(v, src, 3 * sizeof(T));
    if (alpha) {
      std::memcpy(v + 3, src + 3 * sizeof(T), sizeof(T));
    } else {
      v[3] = static_cast<T>(Out<T>::kMax);
    }
    std::memcpy(dst, v, sizeof v);
  }
}

// One worker's share: chunks [begin, end) of plane 0 (strips or tiles), every plane decoded.
bool DecodeChunks(TIFF* tif, const TiffPage& p, const Layout& L, const TiffTarget& t,
                  const Placement& m, std::uint32_t begin, std::uint32_t end) {
  const int planes = p.planar == 2 ? p.samples : 1;
  const int perPixel = p.planar == 2 ? 1 : p.samples;
  std::uint32_t cw, chh;
  if (p.tiled) {
    TIFFGetField(tif, TIFFTAG_TILEWIDTH, &cw);
    TIFFGetField(tif, TIFFTAG_TILELENGTH, &chh);
  } else {
    cw = p.width;
    std::uint32_t rps = p.height;
    TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rps);
    chh = std::min(rps, p.height);
  }
  if (cw == 0 || chh == 0) return false;
  const tmsize_t chunkBytes = p.tiled ? TIFFTileSize(tif) : TIFFStripSize(tif);
  const tmsize_t rowBytes = p.tiled ? TIFFTileRowSize(tif) : TIFFScanlineSize(tif);
  if (chunkBytes <= 0 || rowBytes <= 0) return false;
  const std::uint32_t across = p.tiled ? (p.width + cw - 1) / cw : 1;
  const std::uint32_t perPlane =
      p.tiled ? TIFFNumberOfTiles(tif) / planes : TIFFNumberOfStrips(tif) / planes;
  // Padded: the line copies read whole vectors.
  std::vector<std::uint8_t> raw(static_cast<std::size_t>(chunkBytes) * planes + 16);
  const std::size_t lineSamples = static_cast<std::size_t>(cw) * perPixel;
  std::vector<std::uint32_t> ints;
  std::vector<float> floats;
  if (L.isFloat) {
    floats.resize(lineSamples * planes);
  } else {
    ints.resize(lineSamples * planes);
  }
  // 8 or 16-bit RGB(A) lines of the target's own depth are copied as they are.
  const bool direct =
      !L.isFloat && !L.isSigned && !L.palette && !L.cmyk && L.colours == 3 && planes == 1 &&
      p.samples <= 4 &&
      ((p.bits == 16 && t.depth == Depth::k16) || (p.bits == 8 && t.depth == Depth::k8));
  for (std::uint32_t chunk = begin; chunk < end && chunk < perPlane; ++chunk) {
    const std::uint32_t x0 = p.tiled ? chunk % across * cw : 0;
    const std::uint32_t y0 = p.tiled ? chunk / across * chh : chunk * chh;
    if (y0 >= p.height || x0 >= p.width) continue;
    const std::uint32_t rows = std::min(chh, p.height - y0);
    const std::uint32_t cols = std::min(cw, p.width - x0);
    for (int pl = 0; pl < planes; ++pl) {
      const std::uint32_t index = chunk + static_cast<std::uint32_t>(pl) * perPlane;
      std::uint8_t* into = raw.data() + static_cast<std::size_t>(chunkBytes) * pl;
      const tmsize_t got = p.tiled ? TIFFReadEncodedTile(tif, index, into, chunkBytes)
                                   : TIFFReadEncodedStrip(tif, index, into, chunkBytes);
      if (got < 0) return false;
      if (!p.tiled && got < rowBytes * static_cast<tmsize_t>(rows)) return false;
    }
    for (std::uint32_t r = 0; r < rows; ++r) {
      const std::int64_t fileRow = y0 + r;
      std::uint8_t* dst = t.pixels + m.origin + fileRow * m.row + std::int64_t{x0} * m.col;
      const std::size_t count = cols;
      if (direct) {
        const std::uint8_t* src = raw.data() + rowBytes * r;
        if (t.depth == Depth::k16) {
          CopyRgb<std::uint16_t>(src, p.samples, L.alphaIndex >= 0, count, dst, m.col);
        } else {
          CopyRgb<std::uint8_t>(src, p.samples, L.alphaIndex >= 0, count, dst, m.col);
        }
      } else if (L.isFloat) {
        const float* ptrs[8] = {};
        for (int pl = 0; pl < planes && pl < 8; ++pl) {
          float* line = floats.data() + lineSamples * pl;
          ExtractFloats(raw.data() + static_cast<std::size_t>(chunkBytes) * pl + rowBytes * r,
                        p.bits, count * perPixel, line);
          ptrs[pl] = line;
        }
        ComposeFloat(L, ptrs, planes == 1 ? perPixel : 0, count, dst, m.col);
      } else {
        const std::uint32_t* ptrs[8] = {};
        for (int pl = 0; pl < planes && pl < 8; ++pl) {
          std::uint32_t* line = ints.data() + lineSamples * pl;
          ExtractInts(raw.data() + static_cast<std::size_t>(chunkBytes) * pl + rowBytes * r, p.bits,
                      count * perPixel, line);
          ptrs[pl] = line;
        }
        if (t.depth == Depth::k16) {
          ComposeInt<std::uint16_t>(L, ptrs, planes == 1 ? perPixel : 0, count, dst, m.col);
        } else {
          ComposeInt<std::uint8_t>(L, ptrs, planes == 1 ? perPixel : 0, count, dst, m.col);
        }
      }
    }
  }
  return true;
}

bool DecodeRgba(TIFF* tif, const TiffPage& p, const TiffTarget& t, std::string* error) {
  char message[1024] = {};
  if (!TIFFRGBAImageOK(tif, message)) {
    if (error) *error = message;
    return false;
  }
  std::vector<std::uint32_t> raster(std::size_t{p.width} * p.height);
  if (!TIFFReadRGBAImageOriented(tif, p.width, p.height, raster.data(), ORIENTATION_TOPLEFT, 1))
    return false;
  // Oriented top-left already: shown as stored, transposed for 5-8 by the placement.
  TiffPage flat = p;
  flat.orientation = p.Transposed() ? 5 : 1;
  const Placement m = Place(flat, t, 4);
  for (std::uint32_t r = 0; r < p.height; ++r) {
    const std::uint32_t* src = raster.data() + std::size_t{r} * p.width;
    std::uint8_t* dst = t.pixels + m.origin + std::int64_t{r} * m.row;
    for (std::uint32_t c = 0; c < p.width; ++c, dst += m.col) {
      const std::uint32_t v = src[c];
      if (t.depth == Depth::k8) {
        dst[0] = static_cast<std::uint8_t>(TIFFGetR(v));
        dst[1] = static_cast<std::uint8_t>(TIFFGetG(v));
        dst[2] = static_cast<std::uint8_t>(TIFFGetB(v));
        dst[3] = static_cast<std::uint8_t>(TIFFGetA(v));
      } else {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

bool ReadTiffPage(const std::uint8_t* data, std::size_t size, int page, TiffPage* out,
                  std::string* error) {
  Handle h;
  if (!OpenPage(h, data, size, page, error)) return false;
  TIFF* tif = h.tif;
  TiffPage p;
  p.pages = static_cast<int>(TIFFNumberOfDirectories(tif));
  TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &p.width);
  TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &p.height);
  TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &p.bits);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &p.samples);
  TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &p.sampleFormat);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &p.planar);
  TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &p.compression);
  TIFFGetFieldDefaulted(tif, TIFFTAG_PREDICTOR, &p.predictor);
  TIFFGetFieldDefaulted(tif, TIFFTAG_ORIENTATION, &p.orientation);
  TIFFGetFieldDefaulted(tif, TIFFTAG_INKSET, &p.inkSet);
  TIFFGetFieldDefaulted(tif, TIFFTAG_RESOLUTIONUNIT, &p.resolutionUnit);
  TIFFGetField(tif, TIFFTAG_XRESOLUTION, &p.xres);
  TIFFGetField(tif, TIFFTAG_YRESOLUTION, &p.yres);
  if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &p.photometric))
    p.photometric = p.samples >= 3 ? 2 : 1;
  p.tiled = TIFFIsTiled(tif) != 0;
  std::uint16_t extraCount = 0;
  std::uint16_t* extra = nullptr;
  TIFFGetFieldDefaulted(tif, TIFFTAG_EXTRASAMPLES, &extraCount, &extra);
  p.description = Text(tif, TIFFTAG_IMAGEDESCRIPTION);
  p.software = Text(tif, TIFFTAG_SOFTWARE);
  p.dateTime = Text(tif, TIFFTAG_DATETIME);
  p.artist = Text(tif, TIFFTAG_ARTIST);
  p.copyright = Text(tif, TIFFTAG_COPYRIGHT);
  p.documentName = Text(tif, TIFFTAG_DOCUMENTNAME);
  if (p.width == 0 || p.height == 0 || p.width > 1u << 20 || p.height > 1u << 20 ||
      std::uint64_t{p.width} * p.height > (std::uint64_t{1} << 28)) {
    if (error) *error = "picture size out of range";
    return false;
  }
  if (p.orientation < 1 || p.orientation > 8) p.orientation = 1;

  // Which of our own paths applies; anything else goes through libtiff's RGBA interface.
  const int colours = p.photometric <= 1 || p.photometric == 3 ? 1
                      : p.photometric == 2                     ? 3
                      : p.photometric == 5 && p.inkSet == 1    ? 4
                                                               : 0;
  const bool intBits = (p.sampleFormat == 1 || p.sampleFormat == 2 || p.sampleFormat == 4) &&
                       p.bits >= 1 && p.bits <= 32 && !(p.photometric == 3 && p.bits > 16);
  const bool floatBits = p.sampleFormat == 3 &&
                         (p.bits == 16 || p.bits == 24 || p.bits == 32 || p.bits == 64) &&
                         p.photometric != 3;
  p.rgbaInterface = colours == 0 || p.samples < colours || p.samples > 8 ||
                    !(intBits || floatBits) || p.compression == 6 ||
                    (p.photometric == 3 && p.sampleFormat != 1);
  if (p.sampleFormat == 4) p.sampleFormat = 1;
  if (!p.rgbaInterface && p.samples > colours) {
    const std::uint16_t kind = extraCount > 0 && extra ? extra[0] : 0;
    p.alpha = kind == 1 ? 1 : kind == 2 ? 2 : 3;
  } else if (p.rgbaInterface && extraCount > 0 && extra) {
    p.alpha = extra[0] == 1 ? 1 : extra[0] == 2 ? 2 : 3;
  }
  if (p.rgbaInterface) {
    char message[1024] = {};
    if (!TIFFRGBAImageOK(tif, message)) {
      if (error) *error = message;
      return false;
    }
  }

  // Every strip or tile must lie inside the file before anything of the picture's size exists.
  const std::uint32_t chunks = p.tiled ? TIFFNumberOfTiles(tif) : TIFFNumberOfStrips(tif);
  if (chunks == 0) {
    if (error) *error = "no strips";
    return false;
  }
  std::uint64_t stored = 0;
  for (std::uint32_t i = 0; i < chunks; ++i) {
    const std::uint64_t off = TIFFGetStrileOffset(tif, i);
    const std::uint64_t n = TIFFGetStrileByteCount(tif, i);
    if (n == 0 || off > size || n > size - off) {
      if (error) *error = "strip or tile outside the file";
      return false;
    }
    stored += n;
  }
  // Compressed data may not claim more than a generous ratio of what the file holds, so a few
  // bytes never make us allocate a huge picture.
  const std::uint64_t decoded = std::uint64_t{p.width} * p.height * p.samples * p.bits / 8;
  if (p.compression != 1 && decoded > stored * 4096 + (std::uint64_t{1} << 24)) {
    if (error) *error = "data too short for the picture";
    return false;
  }
  *out = std::move(p);
  return true;
}

bool DecodeTiff(const std::uint8_t* data, std::size_t size, int page, const TiffPage& p,
                const TiffTarget& t, vx::WorkerPool* pool, std::string* error) {
  if (p.rgbaInterface) {
    if (t.depth != Depth::k8) return false;
    Handle h;
    if (!OpenPage(h, data, size, page, error)) return false;
    if (!DecodeRgba(h.tif, p, t, error)) {
      h.Error(error, "decoding failed");
      return false;
    }
    return true;
  }
  Layout L;
  L.page = &p;
  L.bits = p.bits;
  L.isFloat = p.sampleFormat == 3;
  L.isSigned = p.sampleFormat == 2;
  L.maxValue = p.bits >= 32 ? 0xFFFFFFFFu : (1u << p.bits) - 1;
  if (L.isSigned) L.maxValue = p.bits >= 32 ? 0xFFFFFFFFu : (1u << p.bits) - 1;
  L.invert = p.photometric == 0;
  L.palette = p.photometric == 3;
  L.cmyk = p.photometric == 5;
  L.colours = p.photometric == 2 ? 3 : L.cmyk ? 4 : 1;
  L.alphaIndex = p.alpha ? L.colours : -1;
  const int pixelBytes = t.depth == Depth::kFloat ? 16 : t.depth == Depth::k16 ? 8 : 4;
  const Placement m = Place(p, t, pixelBytes);

  Handle first;
  if (!OpenPage(first, data, size, page, error)) return false;
  if (L.palette) {
    if (!TIFFGetField(first.tif, TIFFTAG_COLORMAP, &L.map[0], &L.map[1], &L.map[2])) {
      first.Error(error, "palette without a colour map");
      return false;
    }
  }
  const int planes = p.planar == 2 ? p.samples : 1;
  const std::uint32_t all = p.tiled ? TIFFNumberOfTiles(first.tif) : TIFFNumberOfStrips(first.tif);
  const std::uint32_t perPlane = all / static_cast<std::uint32_t>(planes);
  if (perPlane == 0) return false;
  // Bands of chunks side by side, each on a libtiff handle of its own (handles are not shared
  // between threads); the first band uses the handle already open.
  const int bands = pool ? static_cast<int>(std::min<std::uint32_t>(
                               perPlane, static_cast<std::uint32_t>(pool->Concurrency())))
                         : 1;
  std::atomic<bool> ok{true};
  std::string firstError;
  auto band = [&](int i) {
    const std::uint32_t begin = static_cast<std::uint32_t>(std::uint64_t{perPlane} * i / bands);
    const std::uint32_t end = static_cast<std::uint32_t>(std::uint64_t{perPlane} * (i + 1) / bands);
    if (i == 0) {
      if (!DecodeChunks(first.tif, p, L, t, m, begin, end)) ok = false;
      return;
    }
    Handle h;
    if (!OpenPage(h, data, size, page, nullptr) || !DecodeChunks(h.tif, p, L, t, m, begin, end))
      ok = false;
  };
  if (bands <= 1) {
    band(0);
  } else {
    pool->ParallelFor(bands, band);
  }
  if (!ok) {
    first.Error(error, "decoding failed");
    return false;
  }
  return true;
}

bool EncodeTiff(const TiffWriteInfo& info, const std::uint8_t* pixels, std::int64_t stride,
                std::vector<std::uint8_t>* out, std::string* error) {
  out->clear();
  Handle h;
  h.stream.out = out;
  if (!h.Open("w")) {
    h.Error(error, "cannot start the file");
    return false;
  }
  TIFF* tif = h.tif;
  const int bits = info.depth == Depth::k8 ? 8 : info.depth == Depth::k16 ? 16 : 32;
  const bool isFloat = info.depth == Depth::kFloat;
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, static_cast<std::uint32_t>(info.width));
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, static_cast<std::uint32_t>(info.height));
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, info.channels);
  TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, isFloat ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC,
               info.channels >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  if (info.channels == 4 || info.channels == 2) {
    const std::uint16_t extra[1] = {EXTRASAMPLE_UNASSALPHA};
    TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, extra);
  }
  std::uint16_t compression = COMPRESSION_NONE;
  switch (info.compression) {
    case Compression::kLzw:
      compression = COMPRESSION_LZW;
      break;
    case Compression::kDeflate:
      compression = COMPRESSION_ADOBE_DEFLATE;
      break;
    case Compression::kPackBits:
      compression = COMPRESSION_PACKBITS;
      break;
    case Compression::kNone:
      break;
  }
  TIFFSetField(tif, TIFFTAG_COMPRESSION, compression);
  if (compression == COMPRESSION_LZW || compression == COMPRESSION_ADOBE_DEFLATE)
    TIFFSetField(tif, TIFFTAG_PREDICTOR, isFloat ? PREDICTOR_FLOATINGPOINT : PREDICTOR_HORIZONTAL);
  if (info.aspect > 0.0) {
    // The pixel aspect is the ratio of the horizontal to the vertical resolution.
    TIFFSetField(tif, TIFFTAG_XRESOLUTION, static_cast<float>(72.0 * info.aspect));
    TIFFSetField(tif, TIFFTAG_YRESOLUTION, 72.0f);
    TIFFSetField(tif, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
  }
  TIFFSetField(tif, TIFFTAG_SOFTWARE, "vxprsr");
  auto text = [&](ttag_t tag, const std::string& v) {
    if (!v.empty()) TIFFSetField(tif, tag, v.c_str());
  };
  text(TIFFTAG_IMAGEDESCRIPTION, info.description);
  text(TIFFTAG_ARTIST, info.artist);
  text(TIFFTAG_COPYRIGHT, info.copyright);
  text(TIFFTAG_DATETIME, info.dateTime);
  const std::size_t lineBytes = static_cast<std::size_t>(info.width) * info.channels * (bits / 8);
  // Strips of about 256 KiB: small enough to decode side by side, large enough to compress well.
  const std::uint32_t rps = static_cast<std::uint32_t>(std::clamp<std::size_t>(
      (std::size_t{256} << 10) / lineBytes, 1, static_cast<std::size_t>(info.height)));
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, rps);
  std::vector<std::uint8_t> strip(lineBytes * rps);
  for (std::uint32_t s = 0, y = 0; y < static_cast<std::uint32_t>(info.height); ++s, y += rps) {
    const std::uint32_t rows =
        std::min<std::uint32_t>(rps, static_cast<std::uint32_t>(info.height) - y);
    for (std::uint32_t r = 0; r < rows; ++r)
      std::memcpy(strip.data() + lineBytes * r, pixels + static_cast<std::int64_t>(y + r) * stride,
                  lineBytes);
    if (TIFFWriteEncodedStrip(tif, s, strip.data(), static_cast<tmsize_t>(lineBytes * rows)) < 0) {
      h.Error(error, "writing a strip failed");
      return false;
    }
  }
  if (!TIFFWriteDirectory(tif)) {
    h.Error(error, "writing the directory failed");
    return false;
  }
  TIFFClose(tif);
  h.tif = nullptr;
  if (h.stream.error[0]) {
    h.Error(error, "");
    return false;
  }
  return true;
}

#endif

}  // namespace vx::tiff
