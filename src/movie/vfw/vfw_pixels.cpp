#include "movie/vfw/vfw_pixels.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace vx::movie::vfw {
namespace {

using ffmedia::PixelLayout;

bool IsYuv(RowFormat f) {
  return f == RowFormat::kUyvy || f == RowFormat::kYuy2 || f == RowFormat::kV210;
}

std::uint32_t Le32(const std::uint8_t* p) {
  return p[0] | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[3]} << 24;
}
void PutLe32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
  p[2] = static_cast<std::uint8_t>(v >> 16);
  p[3] = static_cast<std::uint8_t>(v >> 24);
}

// A row as 10-bit 4:2:2: y[width], cb and cr [(width + 1) / 2].
struct Yuv10 {
  std::vector<std::uint16_t> y, cb, cr;
};

void UnpackYuv(RowFormat f, const std::uint8_t* s, int width, Yuv10* o) {
  const std::size_t pairs = (static_cast<std::size_t>(width) + 1) / 2;
  o->y.assign(pairs * 2 + 6, 0);
  o->cb.assign(pairs + 3, 512);
  o->cr.assign(pairs + 3, 512);
  if (f == RowFormat::kV210) {
    const std::size_t groups = (static_cast<std::size_t>(width) + 5) / 6;
    for (std::size_t g = 0; g < groups; ++g, s += 16) {
      const std::uint32_t w[4] = {Le32(s), Le32(s + 4), Le32(s + 8), Le32(s + 12)};
      auto at = [](std::uint32_t v, int i) {
        return static_cast<std::uint16_t>(v >> (10 * i) & 1023);
      };
      std::uint16_t* y = &o->y[g * 6];
      std::uint16_t* cb = &o->cb[g * 3];
      std::uint16_t* cr = &o->cr[g * 3];
      cb[0] = at(w[0], 0), y[0] = at(w[0], 1), cr[0] = at(w[0], 2);
      y[1] = at(w[1], 0), cb[1] = at(w[1], 1), y[2] = at(w[1], 2);
      cr[1] = at(w[2], 0), y[3] = at(w[2], 1), cb[2] = at(w[2], 2);
      y[4] = at(w[3], 0), cr[2] = at(w[3], 1), y[5] = at(w[3], 2);
    }
    return;
  }
  const bool uyvy = f == RowFormat::kUyvy;
  for (std::size_t i = 0; i < pairs; ++i, s += 4) {
    o->y[2 * i] = static_cast<std::uint16_t>(s[uyvy ? 1 : 0] << 2);
    o->y[2 * i + 1] = static_cast<std::uint16_t>(s[uyvy ? 3 : 2] << 2);
    o->cb[i] = static_cast<std::uint16_t>(s[uyvy ? 0 : 1] << 2);
    o->cr[i] = static_cast<std::uint16_t>(s[uyvy ? 2 : 3] << 2);
  }
}

void PackYuv(const Yuv10& v, int width, PixelLayout to, std::uint8_t* d, bool from8) {
  const std::size_t pairs = (static_cast<std::size_t>(width) + 1) / 2;
  if (to == PixelLayout::kUYVY8) {
    auto b = [](std::uint16_t x) { return static_cast<std::uint8_t>(std::min(255, (x + 2) >> 2)); };
    for (std::size_t i = 0; i < pairs; ++i, d += 4) {
      d[0] = b(v.cb[i]), d[1] = b(v.y[2 * i]), d[2] = b(v.cr[i]), d[3] = b(v.y[2 * i + 1]);
    }
    return;
  }
  // v210: codes widened from 8 bits keep clear of the reserved 0-3 and 1020-1023.
  auto c = [from8](std::uint16_t x) -> std::uint32_t {
    return from8 ? std::clamp<std::uint32_t>(x, 4, 1019) : x;
  };
  const std::size_t groups = (static_cast<std::size_t>(width) + 5) / 6;
  const std::size_t rowBytes = ffmedia::MinRowBytes(PixelLayout::kV210, width);
  std::memset(d, 0, rowBytes);
  for (std::size_t g = 0; g < groups; ++g, d += 16) {
    const std::uint16_t* y = &v.y[g * 6];
    const std::uint16_t* cb = &v.cb[g * 3];
    const std::uint16_t* cr = &v.cr[g * 3];
    // Pixels past the row's end are left zero: whole groups are stored, real pixels only.
    const std::size_t real = std::min<std::size_t>(6, static_cast<std::size_t>(width) - g * 6);
    auto Y = [&](std::size_t i) { return i < real ? c(y[i]) : 0u; };
    auto C = [&](const std::uint16_t* p, std::size_t i) { return 2 * i < real ? c(p[i]) : 0u; };
    PutLe32(d, C(cb, 0) | Y(0) << 10 | C(cr, 0) << 20);
    PutLe32(d + 4, Y(1) | C(cb, 1) << 10 | Y(2) << 20);
    PutLe32(d + 8, C(cr, 1) | Y(3) << 10 | C(cb, 2) << 20);
    PutLe32(d + 12, Y(4) | C(cr, 2) << 10 | Y(5) << 20);
  }
}

// One row as 16-bit R G B A.
void ToRgba16(RowFormat f, const std::uint8_t* s, int width, bool hd, std::uint16_t* o) {
  const std::size_t w = static_cast<std::size_t>(width);
  if (!IsYuv(f)) {
    const std::size_t n = f == RowFormat::kBgr24 || f == RowFormat::kRgb24 ? 3 : 4;
    const bool bgr = f == RowFormat::kBgr24 || f == RowFormat::kBgra32;
    for (std::size_t x = 0; x < w; ++x, s += n, o += 4) {
      o[0] = static_cast<std::uint16_t>(s[bgr ? 2 : 0] * 257);
      o[1] = static_cast<std::uint16_t>(s[1] * 257);
      o[2] = static_cast<std::uint16_t>(s[bgr ? 0 : 2] * 257);
      o[3] = static_cast<std::uint16_t>(n == 4 ? s[3] * 257 : 65535);
    }
    return;
  }
  Yuv10 v;
  UnpackYuv(f, s, width, &v);
  const double kr = hd ? 0.2126 : 0.299, kb = hd ? 0.0722 : 0.114, kg = 1 - kr - kb;
  auto q = [](double x) {
    return static_cast<std::uint16_t>(std::lround(std::clamp(x, 0.0, 1.0) * 65535));
  };
  for (std::size_t x = 0; x < w; ++x, o += 4) {
    const double yf = (v.y[x] - 64) / 876.0;
    const double pb = (v.cb[x / 2] - 512) / 896.0, pr = (v.cr[x / 2] - 512) / 896.0;
    const double r = yf + 2 * (1 - kr) * pr, b = yf + 2 * (1 - kb) * pb;
    const double g = (yf - kr * r - kb * b) / kg;
    o[0] = q(r), o[1] = q(g), o[2] = q(b), o[3] = 65535;
  }
}

std::uint8_t To8(std::uint16_t v) {
  return static_cast<std::uint8_t>((v * 255u + 32767u) / 65535u);
}

void PackRgba16(const std::uint16_t* s, int width, PixelLayout to, std::uint8_t* d) {
  const std::size_t w = static_cast<std::size_t>(width);
  for (std::size_t x = 0; x < w; ++x, s += 4) {
    switch (to) {
      case PixelLayout::kRGB24:
      case PixelLayout::kBGR24: {
        const bool bgr = to == PixelLayout::kBGR24;
        d[0] = To8(s[bgr ? 2 : 0]), d[1] = To8(s[1]), d[2] = To8(s[bgr ? 0 : 2]);
        d += 3;
        break;
      }
      case PixelLayout::kRGBA8:
      case PixelLayout::kBGRA8: {
        const bool bgr = to == PixelLayout::kBGRA8;
        d[0] = To8(s[bgr ? 2 : 0]), d[1] = To8(s[1]), d[2] = To8(s[bgr ? 0 : 2]), d[3] = To8(s[3]);
        d += 4;
        break;
      }
      case PixelLayout::kRGBA16BE:
        for (int c = 0; c < 4; ++c, d += 2) {
          d[0] = static_cast<std::uint8_t>(s[c] >> 8);
          d[1] = static_cast<std::uint8_t>(s[c]);
        }
        break;
      case PixelLayout::kRGB16:
      case PixelLayout::kRGBA16: {
        const std::size_t n = to == PixelLayout::kRGB16 ? 3 : 4;
        std::memcpy(d, s, n * 2);
        d += n * 2;
        break;
      }
      case PixelLayout::kRGBF32:
      case PixelLayout::kRGBAF32: {
        const std::size_t n = to == PixelLayout::kRGBF32 ? 3 : 4;
        for (std::size_t c = 0; c < n; ++c, d += 4) {
          const float f = s[c] / 65535.0f;
          std::memcpy(d, &f, 4);
        }
        break;
      }
      default:
        return;
    }
  }
}

}  // namespace

std::size_t FormatRowBytes(RowFormat format, int width) {
  switch (format) {
    case RowFormat::kBgr24:
    case RowFormat::kRgb24:
      return ffmedia::MinRowBytes(PixelLayout::kRGB24, width);
    case RowFormat::kBgra32:
    case RowFormat::kRgba32:
      return ffmedia::MinRowBytes(PixelLayout::kRGBA8, width);
    case RowFormat::kUyvy:
    case RowFormat::kYuy2:
      return ffmedia::MinRowBytes(PixelLayout::kUYVY8, width);
    case RowFormat::kV210:
      return ffmedia::MinRowBytes(PixelLayout::kV210, width);
  }
  return 0;
}

bool FormatOfLayout(PixelLayout layout, RowFormat* format) {
  switch (layout) {
    case PixelLayout::kBGR24:
      return *format = RowFormat::kBgr24, true;
    case PixelLayout::kRGB24:
      return *format = RowFormat::kRgb24, true;
    case PixelLayout::kBGRA8:
      return *format = RowFormat::kBgra32, true;
    case PixelLayout::kRGBA8:
      return *format = RowFormat::kRgba32, true;
    case PixelLayout::kUYVY8:
      return *format = RowFormat::kUyvy, true;
    case PixelLayout::kV210:
      return *format = RowFormat::kV210, true;
    default:
      return false;
  }
}

bool ConvertRow(RowFormat from, const std::uint8_t* src, int width, PixelLayout to,
                std::uint8_t* dst, bool hd) {
  if (width <= 0 || ffmedia::MinRowBytes(to, width) == 0) return false;
  RowFormat same;
  if (FormatOfLayout(to, &same) && same == from) {
    std::memcpy(dst, src, ffmedia::MinRowBytes(to, width));
    return true;
  }
  if (to == PixelLayout::kUYVY8 || to == PixelLayout::kV210) {
    if (!IsYuv(from)) return false;
    Yuv10 v;
    UnpackYuv(from, src, width, &v);
    PackYuv(v, width, to, dst, from != RowFormat::kV210);
    return true;
  }
  std::vector<std::uint16_t> rgba(static_cast<std::size_t>(width) * 4);
  ToRgba16(from, src, width, hd, rgba.data());
  PackRgba16(rgba.data(), width, to, dst);
  return true;
}

bool ToRgba8Row(PixelLayout from, const std::uint8_t* src, int width, std::uint8_t* dst) {
  std::size_t n = 0;
  switch (from) {
    case PixelLayout::kRGB16:
    case PixelLayout::kRGBF32:
      n = 3;
      break;
    case PixelLayout::kRGBA16:
    case PixelLayout::kRGBA16BE:
    case PixelLayout::kRGBAF32:
      n = 4;
      break;
    default:
      return false;
  }
  const bool flt = from == PixelLayout::kRGBF32 || from == PixelLayout::kRGBAF32;
  const std::size_t values = static_cast<std::size_t>(width) * n;
  for (std::size_t i = 0, px = 0; i < values; i += n, ++px) {
    for (std::size_t c = 0; c < 4; ++c) {
      std::uint16_t v = 65535;
      if (c < n) {
        const std::uint8_t* p = src + (i + c) * (flt ? 4 : 2);
        if (flt) {
          float f;
          std::memcpy(&f, p, 4);
          v = static_cast<std::uint16_t>(
              std::lround(std::clamp(f == f ? f : 0.0f, 0.0f, 1.0f) * 65535.0f));
        } else if (from == PixelLayout::kRGBA16BE) {
          v = static_cast<std::uint16_t>(p[0] << 8 | p[1]);
        } else {
          std::memcpy(&v, p, 2);
        }
      }
      dst[4 * px + c] = To8(v);
    }
  }
  return true;
}

}  // namespace vx::movie::vfw
