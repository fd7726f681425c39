#include "still/hdr/hdr_codec.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

namespace vx::hdr {
namespace {

// Header lines are read as a 512-byte line buffer reads them: at most 511 bytes, up to and
// including the line feed. A longer line continues as the next one.
constexpr std::size_t kLineMax = 511;

bool NextLine(const std::uint8_t* data, std::size_t size, std::size_t* pos, std::string_view* line,
              bool* ended) {
  if (*pos >= size) return false;
  const std::size_t limit = std::min(size - *pos, kLineMax);
  const auto* begin = reinterpret_cast<const char*>(data + *pos);
  const void* lf = std::memchr(begin, '\n', limit);
  const std::size_t n =
      lf ? static_cast<std::size_t>(static_cast<const char*>(lf) - begin) + 1 : limit;
  *line = std::string_view(begin, n);
  *ended = lf != nullptr;
  *pos += n;
  return true;
}

std::string_view Value(std::string_view line, std::string_view key) {
  if (line.substr(0, key.size()) != key) return {};
  line.remove_prefix(key.size());
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' '))
    line.remove_suffix(1);
  while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
  return line.empty() ? std::string_view(" ").substr(1) : line;
}

// The integer after position `at` of the resolution line, blanks skipped.
bool IntegerAfter(std::string_view line, std::size_t at, std::int64_t* out) {
  std::size_t i = at + 1;
  while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
  const char* first = line.data() + i;
  const char* last = line.data() + line.size();
  if (first < last && *first == '+') ++first;
  long long v = 0;
  const auto [end, ec] = std::from_chars(first, last, v);
  if (ec != std::errc() || end == first) return false;
  *out = v;
  return true;
}

std::string Number(double v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", v);
  return text;
}

}  // namespace

HeaderResult ParseHdrHeader(const std::uint8_t* data, std::size_t size, bool whole,
                            HdrHeader* out) {
  const HeaderResult shortResult = whole ? HeaderResult::Malformed : HeaderResult::NeedMore;
  HdrHeader h;
  std::size_t pos = 0;
  std::string_view line;
  bool ended = false;
  if (!NextLine(data, size, &pos, &line, &ended)) return shortResult;
  if (line.size() < 2) return ended ? HeaderResult::Malformed : shortResult;
  if (line[0] != '#' || line[1] != '?') return HeaderResult::Malformed;
  double exposureProduct = 1.0;
  int exposureLines = 0;
  for (;;) {
    if (!NextLine(data, size, &pos, &line, &ended)) return shortResult;
    if (line[0] == '\n') break;
    if (!ended && pos >= size && !whole) return HeaderResult::NeedMore;
    if (auto v = Value(line, "FORMAT="); v.data()) {
      h.format = v;
    } else if (auto e = Value(line, "EXPOSURE="); e.data()) {
      // Several lines multiply; keep the text of a lone line as written.
      char* end = nullptr;
      const std::string text(e);
      const double value = std::strtod(text.c_str(), &end);
      exposureProduct *= value;
      h.exposure = ++exposureLines == 1 ? text : Number(exposureProduct);
    } else if (auto p = Value(line, "PRIMARIES="); p.data()) {
      h.primaries = p;
    } else if (auto a = Value(line, "PIXASPECT="); a.data()) {
      h.pixelAspect = a;
    }
  }
  if (!NextLine(data, size, &pos, &line, &ended)) return shortResult;
  if (!ended && !whole && pos >= size) return HeaderResult::NeedMore;
  const std::size_t x = line.rfind('X');
  const std::size_t y = line.rfind('Y');
  if (x == std::string_view::npos || y == std::string_view::npos) return HeaderResult::Malformed;
  std::uint32_t code = 0;
  if (x > y) code |= kYMajor;
  if (x > 0 && line[x - 1] == '-') code |= kXNegative;
  if (y > 0 && line[y - 1] == '-') code |= kYNegative;
  std::int64_t w = 0, hgt = 0;
  constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
  if (!IntegerAfter(line, x, &w) || w < 1 || w > kMax) return HeaderResult::Malformed;
  if (!IntegerAfter(line, y, &hgt) || hgt < 1 || hgt > kMax) return HeaderResult::Malformed;
  if (code != kTopDownRows) return HeaderResult::Malformed;
  h.width = static_cast<std::int32_t>(w);
  h.height = static_cast<std::int32_t>(hgt);
  h.orientation = code;
  h.dataOffset = pos;
  *out = std::move(h);
  return HeaderResult::Ok;
}

std::string HdrHeaderText(std::int32_t width, std::int32_t height) {
  char res[64];
  // Our pictures are always stored top row first, rows along X.
  std::snprintf(res, sizeof res, "%cY %d %cX %d\n", '-', static_cast<int>(height), '+',
                static_cast<int>(width));
  return std::string("#?") + "RADIANCE" + "\n" + "FORMAT=32-bit_rle_rgbe\n" + "\n" + res;
}

namespace {

bool IsRunLength(const std::uint8_t* p, std::size_t size, std::int32_t width) {
  return size >= 4 && p[0] == 2 && p[1] == 2 && ((p[2] << 8) | p[3]) == width;
}

// One scanline's bytes; with `rgbe` null only checked. `*used` gets its length.
template <bool kWrite>
bool Scanline(const std::uint8_t* p, std::size_t size, std::int32_t width, std::uint8_t* rgbe,
              std::size_t* used) {
  const std::size_t w = static_cast<std::size_t>(width);
  std::size_t at = 0;
  if (IsRunLength(p, size, width)) {
    at = 4;
    for (int c = 0; c < 4; ++c) {
      std::size_t x = 0;
      while (x < w) {
        if (at >= size) return false;
        std::size_t count = p[at++];
        if (count > 128) {
          count &= 127;
          if (count > w - x || at >= size) return false;
          if constexpr (kWrite) {
            const std::uint8_t v = p[at];
            std::uint8_t* d = rgbe + x * 4 + c;
            for (std::size_t i = 0; i < count; ++i) d[i * 4] = v;
          }
          ++at;
        } else {
          if (count > w - x || count > size - at) return false;
          if constexpr (kWrite) {
            const std::uint8_t* s = p + at;
            std::uint8_t* d = rgbe + x * 4 + c;
            for (std::size_t i = 0; i < count; ++i) d[i * 4] = s[i];
          }
          at += count;
        }
        x += count;
      }
    }
    *used = at;
    return true;
  }
  // Flat pixels, where 1, 1, 1, n repeats the pixel before n << shift times, the shift growing
  // by 8 with each run pixel that follows another.
  std::size_t x = 0;
  unsigned shift = 0;
  while (x < w) {
    if (size - at < 4) return false;
    const std::uint8_t* q = p + at;
    at += 4;
    if (q[0] == 1 && q[1] == 1 && q[2] == 1) {
      if (x == 0 || shift > 24) return false;
      const std::size_t n = static_cast<std::size_t>(q[3]) << shift;
      if (n > w - x) return false;
      if constexpr (kWrite) {
        std::uint8_t* d = rgbe + x * 4;
        for (std::size_t i = 0; i < n; ++i) std::memcpy(d + i * 4, d - 4, 4);
      }
      x += n;
      shift += 8;
    } else {
      if constexpr (kWrite) std::memcpy(rgbe + x * 4, q, 4);
      ++x;
      shift = 0;
    }
  }
  *used = at;
  return true;
}

}  // namespace

bool IndexScanlines(const std::uint8_t* data, std::size_t size, std::size_t offset,
                    std::int32_t width, std::int32_t height, std::vector<std::size_t>* starts) {
  if (offset > size || width < 1 || height < 1) return false;
  // Every scanline takes at least four bytes, whatever its scheme.
  if (static_cast<std::uint64_t>(height) > (size - offset) / 4) return false;
  starts->resize(static_cast<std::size_t>(height) + 1);
  std::size_t at = offset;
  for (std::int32_t y = 0; y < height; ++y) {
    (*starts)[static_cast<std::size_t>(y)] = at;
    std::size_t used = 0;
    if (!Scanline<false>(data + at, size - at, width, nullptr, &used)) return false;
    at += used;
  }
  (*starts)[static_cast<std::size_t>(height)] = at;
  return true;
}

bool DecodeScanline(const std::uint8_t* p, std::size_t size, std::int32_t width,
                    std::uint8_t* rgbe) {
  std::size_t used = 0;
  return Scanline<true>(p, size, width, rgbe, &used);
}

void ExponentFactors(double exposureStops, float factors[256]) {
  const double gain = exposureStops != 0.0 ? std::exp2(exposureStops) : 1.0;
  factors[0] = 0.0f;
  for (int e = 1; e < 256; ++e) factors[e] = static_cast<float>(std::ldexp(gain, e - 136));
}

void RgbeToFloat(const std::uint8_t* rgbe, std::int32_t width, const float factors[256],
                 float* rgba) {
  for (std::int32_t x = 0; x < width; ++x, rgbe += 4, rgba += 4) {
    const float f = factors[rgbe[3]];
    rgba[0] = (static_cast<float>(rgbe[0]) + 0.5f) * f;
    rgba[1] = (static_cast<float>(rgbe[1]) + 0.5f) * f;
    rgba[2] = (static_cast<float>(rgbe[2]) + 0.5f) * f;
    rgba[3] = 1.0f;
  }
}

void FloatToRgbe(float r, float g, float b, std::uint8_t out[4]) {
  // Negative and not-a-number channels have no RGBE form; they become 0, infinities the largest.
  auto clean = [](float v) {
    return v > 0.0f ? std::min(v, std::numeric_limits<float>::max()) : 0.0f;
  };
  const double cr = clean(r), cg = clean(g), cb = clean(b);
  const double largest = std::max(cr, std::max(cg, cb));
  if (!(largest > 1e-32)) {
    std::memset(out, 0, 4);
    return;
  }
  int e = 0;
  const double m = std::frexp(largest, &e);
  if (e > 127) {  // beyond the exponent byte: the largest value RGBE holds
    out[0] = out[1] = out[2] = out[3] = 255;
    return;
  }
  const double scale = m * 255.9999 / largest;
  out[0] = static_cast<std::uint8_t>(cr * scale);
  out[1] = static_cast<std::uint8_t>(cg * scale);
  out[2] = static_cast<std::uint8_t>(cb * scale);
  out[3] = static_cast<std::uint8_t>(e + 128);
}

namespace {

// One component of a scanline: runs of at least 4 equal bytes as 128 + count, value; the bytes
// between as literal stretches of at most 128; 2 or 3 equal bytes just before a run as a short
// run.
void EncodeComponent(const std::uint8_t* data, std::size_t n, std::vector<std::uint8_t>* out) {
  constexpr std::size_t kMinRun = 4;
  std::size_t cur = 0;
  while (cur < n) {
    std::size_t begin = cur, run = 0, before = 0;
    while (run < kMinRun && begin < n) {
      begin += run;
      before = run;
      run = 1;
      while (begin + run < n && run < 127 && data[begin + run] == data[begin]) ++run;
    }
    if (run >= kMinRun && before > 1 && before == begin - cur) {
      out->push_back(static_cast<std::uint8_t>(128 + before));
      out->push_back(data[cur]);
      cur = begin;
    }
    while (cur < begin) {
      const std::size_t literal = std::min<std::size_t>(begin - cur, 128);
      out->push_back(static_cast<std::uint8_t>(literal));
      out->insert(out->end(), data + cur, data + cur + literal);
      cur += literal;
    }
    if (run >= kMinRun) {
      out->push_back(static_cast<std::uint8_t>(128 + run));
      out->push_back(data[begin]);
      cur += run;
    }
  }
}

}  // namespace

void EncodeScanline(const float* rgba, std::int32_t width, std::vector<std::uint8_t>* scratch,
                    std::vector<std::uint8_t>* out) {
  const std::size_t w = static_cast<std::size_t>(width);
  if (width < 8 || width > 32767) {
    const std::size_t at = out->size();
    out->resize(at + w * 4);
    for (std::size_t x = 0; x < w; ++x, rgba += 4)
      FloatToRgbe(rgba[0], rgba[1], rgba[2], out->data() + at + x * 4);
    return;
  }
  scratch->resize(w * 4);
  std::uint8_t* planes = scratch->data();
  for (std::size_t x = 0; x < w; ++x, rgba += 4) {
    std::uint8_t q[4];
    FloatToRgbe(rgba[0], rgba[1], rgba[2], q);
    for (std::size_t c = 0; c < 4; ++c) planes[c * w + x] = q[c];
  }
  out->push_back(2);
  out->push_back(2);
  out->push_back(static_cast<std::uint8_t>(w >> 8));
  out->push_back(static_cast<std::uint8_t>(w & 255));
  for (std::size_t c = 0; c < 4; ++c) EncodeComponent(planes + c * w, w, out);
}

}  // namespace vx::hdr
