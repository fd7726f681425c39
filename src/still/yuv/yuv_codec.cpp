#include "still/yuv/yuv_codec.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

#include "base/bytes.h"
#include "base/worker_pool.h"

namespace vx::yuv {
namespace {

constexpr YuvRaster kStandardRasters[] = {{720, 486},   {720, 576},   {1280, 720}, {1920, 1080},
                                          {2048, 1080}, {3840, 2160}, {4096, 2160}};

struct Matrix {
  double kr, kb;
};
constexpr Matrix kRec601{0.299, 0.114};
constexpr Matrix kRec709{0.2126, 0.0722};

Matrix MatrixFor(YuvRaster r) {
  return IsStandardDefinition(r) ? kRec601 : kRec709;
}

// Decoding sums one table entry per term at this many fraction bits; the largest sum (10-bit
// codes into 16-bit samples) stays below 2^30.
constexpr int kFraction = 12;

struct DecodeTables {
  int max;  // largest output sample
  std::int32_t y[1024], rv[1024], gu[1024], gv[1024], bu[1024];
};

void BuildDecodeTables(int bits, Matrix m, bool deep, DecodeTables* t) {
  const double scale = 1 << (bits - 8);
  const double y0 = 16 * scale, yRange = 219 * scale, c0 = 128 * scale, cRange = 224 * scale;
  t->max = deep ? 65535 : 255;
  const double unit = t->max * double(1 << kFraction);
  const double kg = 1.0 - m.kr - m.kb;
  const int codes = 1 << bits;
  for (int v = 0; v < codes; ++v) {
    const double luma = (v - y0) / yRange * unit, chroma = (v - c0) / cRange * unit;
    t->y[v] = static_cast<std::int32_t>(std::lround(luma));
    t->rv[v] = static_cast<std::int32_t>(std::lround(chroma * 2 * (1 - m.kr)));
    t->bu[v] = static_cast<std::int32_t>(std::lround(chroma * 2 * (1 - m.kb)));
    t->gu[v] = static_cast<std::int32_t>(std::lround(-chroma * 2 * (1 - m.kb) * m.kb / kg));
    t->gv[v] = static_cast<std::int32_t>(std::lround(-chroma * 2 * (1 - m.kr) * m.kr / kg));
  }
}

inline int Sample(std::int32_t sum, int max) {
  const int v = (sum + (1 << (kFraction - 1))) >> kFraction;
  return v < 0 ? 0 : v > max ? max : v;
}

template <typename T, int kChannels>
inline void StorePair(const DecodeTables& t, T* out, int y0, int y1, int cb, int cr) {
  const std::int32_t r = t.rv[cr], g = t.gu[cb] + t.gv[cr], b = t.bu[cb];
  const std::int32_t l0 = t.y[y0], l1 = t.y[y1];
  out[0] = static_cast<T>(Sample(l0 + r, t.max));
  out[1] = static_cast<T>(Sample(l0 + g, t.max));
  out[2] = static_cast<T>(Sample(l0 + b, t.max));
  out[kChannels] = static_cast<T>(Sample(l1 + r, t.max));
  out[kChannels + 1] = static_cast<T>(Sample(l1 + g, t.max));
  out[kChannels + 2] = static_cast<T>(Sample(l1 + b, t.max));
  if constexpr (kChannels == 4) {
    out[3] = static_cast<T>(t.max);
    out[7] = static_cast<T>(t.max);
  }
}

// Words above 10 bits cannot come from a 10-bit writer; they count as the top code.
inline int Code10(const std::uint8_t* p) {
  return std::min<int>(vx::Load16(p, false), 1023);
}

template <typename T, int kChannels>
void DecodeLines(YuvLayout layout, const std::uint8_t* data, YuvRaster r, const RgbPicture& out,
                 const DecodeTables& t, std::uint32_t first, std::uint32_t end) {
  const std::uint32_t pairs = r.width / 2;
  for (std::uint32_t line = first; line < end; ++line) {
    T* px = reinterpret_cast<T*>(out.pixels + out.rowStride * static_cast<std::ptrdiff_t>(line));
    if (layout == YuvLayout::Uyvy8) {
      const std::uint8_t* s = data + std::size_t{line} * r.width * 2;
      for (std::uint32_t i = 0; i < pairs; ++i, s += 4, px += 2 * kChannels)
        StorePair<T, kChannels>(t, px, s[1], s[3], s[0], s[2]);
    } else {
      const std::size_t lumaPlane = std::size_t{r.width} * r.height * 2;
      const std::size_t chromaPlane = lumaPlane / 2;
      const std::uint8_t* y = data + std::size_t{line} * r.width * 2;
      const std::uint8_t* cb = data + lumaPlane + std::size_t{line} * r.width;
      const std::uint8_t* cr = cb + chromaPlane;
      for (std::uint32_t i = 0; i < pairs; ++i, y += 4, cb += 2, cr += 2, px += 2 * kChannels)
        StorePair<T, kChannels>(t, px, Code10(y), Code10(y + 2), Code10(cb), Code10(cr));
    }
  }
}

// Splits the frame's lines into bands on the pool (or runs them here without one).
template <typename Work>
void ForBands(std::uint32_t height, WorkerPool* pool, const Work& work) {
  const int bands =
      pool ? static_cast<int>(std::min<std::uint32_t>(height, 4u * pool->Concurrency())) : 1;
  if (bands <= 1) {
    work(0u, height);
    return;
  }
  pool->ParallelFor(bands, [&](int i) {
    work(static_cast<std::uint32_t>(std::uint64_t{height} * i / bands),
         static_cast<std::uint32_t>(std::uint64_t{height} * (i + 1) / bands));
  });
}

// Encoding sums in 64 bits at this many fraction bits.
constexpr int kEncodeFraction = 30;

struct EncodeCoefficients {
  std::int64_t y[3], cb[3], cr[3];  // per R, G, B sample of 16 bits
  std::int64_t y0, c0;
  int yMin, yMax, cMin, cMax;
};

EncodeCoefficients MakeEncodeCoefficients(int bits, Matrix m) {
  const double scale = 1 << (bits - 8);
  const double one = double(std::int64_t{1} << kEncodeFraction) / 65535.0;
  const double yRange = 219 * scale * one, cRange = 224 * scale * one;
  const double kg = 1.0 - m.kr - m.kb;
  auto fixed = [](double v) { return static_cast<std::int64_t>(std::llround(v)); };
  EncodeCoefficients c;
  c.y[0] = fixed(yRange * m.kr);
  c.y[1] = fixed(yRange * kg);
  c.y[2] = fixed(yRange * m.kb);
  // Cb = (B - Y) / (2 (1 - Kb)), Cr = (R - Y) / (2 (1 - Kr)).
  const double sb = cRange / (2 * (1 - m.kb)), sr = cRange / (2 * (1 - m.kr));
  c.cb[0] = fixed(-m.kr * sb);
  c.cb[1] = fixed(-kg * sb);
  c.cb[2] = fixed((1 - m.kb) * sb);
  c.cr[0] = fixed((1 - m.kr) * sr);
  c.cr[1] = fixed(-kg * sr);
  c.cr[2] = fixed(-m.kb * sr);
  c.y0 = static_cast<std::int64_t>(16 * scale);
  c.c0 = static_cast<std::int64_t>(128 * scale);
  c.yMin = static_cast<int>(16 * scale);
  c.yMax = static_cast<int>(235 * scale);
  c.cMin = static_cast<int>(16 * scale);
  c.cMax = static_cast<int>(240 * scale);
  return c;
}

inline int Round(std::int64_t sum, int fraction, std::int64_t offset, int lo, int hi) {
  const std::int64_t v = ((sum + (std::int64_t{1} << (fraction - 1))) >> fraction) + offset;
  return static_cast<int>(v < lo ? lo : v > hi ? hi : v);
}

template <typename T>
void EncodeLines(YuvLayout layout, const RgbPicture& in, YuvRaster r, std::uint8_t* out,
                 const EncodeCoefficients& c, std::uint32_t first, std::uint32_t end) {
  const std::uint32_t pairs = r.width / 2;
  const int n = in.channels;
  const std::int64_t widen = sizeof(T) == 1 ? 257 : 1;
  for (std::uint32_t line = first; line < end; ++line) {
    const T* px =
        reinterpret_cast<const T*>(in.pixels + in.rowStride * static_cast<std::ptrdiff_t>(line));
    std::uint8_t* uyvy = out + std::size_t{line} * r.width * 2;
    const std::size_t lumaPlane = std::size_t{r.width} * r.height * 2;
    std::uint8_t* yw = out + std::size_t{line} * r.width * 2;
    std::uint8_t* cbw = out + lumaPlane + std::size_t{line} * r.width;
    std::uint8_t* crw = cbw + lumaPlane / 2;
    for (std::uint32_t i = 0; i < pairs; ++i, px += 2 * n) {
      const std::int64_t r0 = px[0] * widen, g0 = px[1] * widen, b0 = px[2] * widen;
      const std::int64_t r1 = px[n] * widen, g1 = px[n + 1] * widen, b1 = px[n + 2] * widen;
      const int y0 =
          Round(c.y[0] * r0 + c.y[1] * g0 + c.y[2] * b0, kEncodeFraction, c.y0, c.yMin, c.yMax);
      const int y1 =
          Round(c.y[0] * r1 + c.y[1] * g1 + c.y[2] * b1, kEncodeFraction, c.y0, c.yMin, c.yMax);
      // The pair's sums carry one more fraction bit: their average.
      const std::int64_t rs = r0 + r1, gs = g0 + g1, bs = b0 + b1;
      const int cb = Round(c.cb[0] * rs + c.cb[1] * gs + c.cb[2] * bs, kEncodeFraction + 1, c.c0,
                           c.cMin, c.cMax);
      const int cr = Round(c.cr[0] * rs + c.cr[1] * gs + c.cr[2] * bs, kEncodeFraction + 1, c.c0,
                           c.cMin, c.cMax);
      if (layout == YuvLayout::Uyvy8) {
        uyvy[0] = static_cast<std::uint8_t>(cb);
        uyvy[1] = static_cast<std::uint8_t>(y0);
        uyvy[2] = static_cast<std::uint8_t>(cr);
        uyvy[3] = static_cast<std::uint8_t>(y1);
        uyvy += 4;
      } else {
        vx::Store16(yw, static_cast<std::uint16_t>(y0), false);
        vx::Store16(yw + 2, static_cast<std::uint16_t>(y1), false);
        vx::Store16(cbw, static_cast<std::uint16_t>(cb), false);
        vx::Store16(crw, static_cast<std::uint16_t>(cr), false);
        yw += 4;
        cbw += 2;
        crw += 2;
      }
    }
  }
}

}  // namespace

int LayoutBits(YuvLayout layout) {
  return layout == YuvLayout::Uyvy8 ? 8 : 10;
}

const char* LayoutName(YuvLayout layout) {
  return layout == YuvLayout::Uyvy8 ? "uyvy422" : "yuv422p10le";
}

std::uint64_t FrameBytes(YuvLayout layout, YuvRaster r) {
  if (r.width == 0 || r.height == 0 || (r.width & 1)) return 0;
  const std::uint64_t bytes =
      std::uint64_t{r.width} * r.height * (layout == YuvLayout::Uyvy8 ? 2 : 4);
  return bytes <= std::numeric_limits<std::uint32_t>::max() ? bytes : 0;
}

bool RasterFromFileSize(YuvLayout layout, std::uint64_t fileSize, YuvRaster* out) {
  for (const YuvRaster& r : kStandardRasters) {
    if (FrameBytes(layout, r) == fileSize) {
      *out = r;
      return true;
    }
  }
  return false;
}

bool ParseRaster(std::string_view text, YuvRaster* out) {
  const std::size_t x = text.find_first_of("xX");
  if (x == std::string_view::npos) return false;
  YuvRaster r;
  const char* end = text.data() + text.size();
  auto [wEnd, wErr] = std::from_chars(text.data(), text.data() + x, r.width);
  auto [hEnd, hErr] = std::from_chars(text.data() + x + 1, end, r.height);
  if (wErr != std::errc() || hErr != std::errc() || wEnd != text.data() + x || hEnd != end)
    return false;
  if (r.width == 0 || r.height == 0 || (r.width & 1) || r.width > 65536 || r.height > 65536)
    return false;
  *out = r;
  return true;
}

void DecodeFrame(YuvLayout layout, const std::uint8_t* data, YuvRaster raster,
                 const RgbPicture& out, WorkerPool* pool) {
  DecodeTables tables;
  BuildDecodeTables(LayoutBits(layout), MatrixFor(raster), out.deep, &tables);
  ForBands(raster.height, pool, [&](std::uint32_t first, std::uint32_t end) {
    if (out.deep && out.channels == 4)
      DecodeLines<std::uint16_t, 4>(layout, data, raster, out, tables, first, end);
    else if (out.deep)
      DecodeLines<std::uint16_t, 3>(layout, data, raster, out, tables, first, end);
    else if (out.channels == 4)
      DecodeLines<std::uint8_t, 4>(layout, data, raster, out, tables, first, end);
    else
      DecodeLines<std::uint8_t, 3>(layout, data, raster, out, tables, first, end);
  });
}

void EncodeFrame(YuvLayout layout, const RgbPicture& in, YuvRaster raster, std::uint8_t* out,
                 WorkerPool* pool) {
  const EncodeCoefficients c = MakeEncodeCoefficients(LayoutBits(layout), MatrixFor(raster));
  ForBands(raster.height, pool, [&](std::uint32_t first, std::uint32_t end) {
    if (in.deep)
      EncodeLines<std::uint16_t>(layout, in, raster, out, c, first, end);
    else
      EncodeLines<std::uint8_t>(layout, in, raster, out, c, first, end);
  });
}

}  // namespace vx::yuv
