#include "still/dpx/dpx_unpack.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "base/checked.h"
#include "base/worker_pool.h"
#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_header.h"

namespace vx::dpx {
namespace {

// Mask (and largest value) of an integer depth up to 16 bits.
std::uint32_t CodeMask(std::uint32_t bits) {
  return static_cast<std::uint32_t>(MaxCode(bits));
}

// 16-bit and float images of every code value, per depth, built once.
struct ScaleTables {
  std::vector<std::uint16_t> to16[17];
  std::vector<float> toFloat[17];
  ScaleTables() {
    for (std::uint32_t bits : {1u, 8u, 10u, 12u, 16u}) {
      const std::uint32_t max = CodeMask(bits);
      to16[bits].resize(max + 1);
      toFloat[bits].resize(max + 1);
      for (std::uint32_t v = 0; v <= max; ++v) {
        to16[bits][v] = static_cast<std::uint16_t>((std::uint64_t{v} * 65535 + max / 2) / max);
        toFloat[bits][v] = static_cast<float>(static_cast<double>(v) / max);
      }
    }
  }
};
const ScaleTables& Tables() {
  static const ScaleTables tables;
  return tables;
}

// Samples of `bits` bits running through 32-bit words, lowest bits first.
void UnpackBitStream(const std::uint8_t* src, bool big, std::uint32_t bits, std::size_t count,
                     std::uint16_t* out) {
  const std::uint32_t mask = CodeMask(bits);
  const std::size_t words = (count * bits + 31) / 32;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t bit = i * bits;
    const std::size_t w = bit / 32;
    const std::uint32_t shift = bit % 32;
    std::uint64_t v = Load32(src + w * 4, big);
    if (shift + bits > 32 && w + 1 < words) v |= std::uint64_t{Load32(src + w * 4 + 4, big)} << 32;
    out[i] = static_cast<std::uint16_t>((v >> shift) & mask);
  }
}

void Unpack10Filled(const std::uint8_t* src, bool big, bool methodA, std::size_t count,
                    std::uint16_t* out) {
  const std::uint32_t s0 = methodA ? 22 : 20, s1 = methodA ? 12 : 10, s2 = methodA ? 2 : 0;
  const std::size_t whole = count / 3;
  for (std::size_t i = 0; i < whole; ++i) {
    const std::uint32_t w = Load32(src + i * 4, big);
    out[3 * i] = static_cast<std::uint16_t>((w >> s0) & 0x3FF);
    out[3 * i + 1] = static_cast<std::uint16_t>((w >> s1) & 0x3FF);
    out[3 * i + 2] = static_cast<std::uint16_t>((w >> s2) & 0x3FF);
  }
  const std::size_t rest = count - whole * 3;
  if (rest != 0) {
    const std::uint32_t w = Load32(src + whole * 4, big);
    out[3 * whole] = static_cast<std::uint16_t>((w >> s0) & 0x3FF);
    if (rest > 1) out[3 * whole + 1] = static_cast<std::uint16_t>((w >> s1) & 0x3FF);
  }
}

struct Scratch {
  std::vector<std::uint16_t> codes;
  std::vector<float> floats;
};

template <typename T>
constexpr T FullScale() {
  if constexpr (sizeof(T) == 2) {
    return 65535;
  } else {
    return 1.0f;
  }
}

template <typename S>
void ReversePixels(S* samples, std::uint32_t width, std::uint32_t n) {
  for (std::uint32_t a = 0, b = width ? width - 1 : 0; a < b; ++a, --b) {
    for (std::uint32_t k = 0; k < n; ++k) std::swap(samples[a * n + k], samples[b * n + k]);
  }
}

// Places the N components of each pixel into the C-channel row through a value map.
template <int N, int C, typename S, typename T, typename Map>
void Scatter(const S* src, T* dst, std::uint32_t width, const std::int8_t* channelOf, Map map) {
  std::int8_t ch[N];
  bool all = true;
  for (int k = 0; k < N; ++k) {
    ch[k] = channelOf[k];
    all = all && ch[k] == k;
  }
  if (all && N <= C) {
    // Straight order: the common case, kept free of per-sample branches.
    for (std::uint32_t x = 0; x < width; ++x) {
      for (int k = 0; k < N; ++k) dst[x * C + k] = map(src[x * N + k]);
    }
    return;
  }
  for (int k = 0; k < N; ++k) {
    const int c = ch[k];
    if (c < 0 || c >= C) continue;
    for (std::uint32_t x = 0; x < width; ++x) dst[x * C + c] = map(src[x * N + k]);
  }
}

template <int N, typename S, typename T, typename Map>
void ScatterTo(const S* src, T* dst, std::uint32_t width, std::uint32_t channels,
               const std::int8_t* channelOf, Map map) {
  switch (channels) {
    case 1:
      Scatter<N, 1>(src, dst, width, channelOf, map);
      break;
    case 3:
      Scatter<N, 3>(src, dst, width, channelOf, map);
      break;
    default:
      Scatter<N, 4>(src, dst, width, channelOf, map);
      break;
  }
}

template <typename S, typename T, typename Map>
void ScatterAny(const S* src, T* dst, std::uint32_t width, std::uint32_t n, std::uint32_t channels,
                const std::int8_t* channelOf, Map map) {
  switch (n) {
    case 1:
      ScatterTo<1>(src, dst, width, channels, channelOf, map);
      break;
    case 3:
      ScatterTo<3>(src, dst, width, channels, channelOf, map);
      break;
    default:
      ScatterTo<4>(src, dst, width, channels, channelOf, map);
      break;
  }
}

// The film-scan case, 10-bit RGB in filled words, straight from the words to the pixels.
template <typename T, int C, bool Big>
void Decode10FilledRGB(const std::uint8_t* src, T* dst, std::uint32_t width, bool methodA,
                       const T* lut) {
  const std::uint32_t s0 = methodA ? 22 : 20, s1 = methodA ? 12 : 10, s2 = methodA ? 2 : 0;
  for (std::uint32_t x = 0; x < width; ++x) {
    const std::uint32_t w = Load32(src + 4 * x, Big);
    dst[x * C] = lut[(w >> s0) & 0x3FF];
    dst[x * C + 1] = lut[(w >> s1) & 0x3FF];
    dst[x * C + 2] = lut[(w >> s2) & 0x3FF];
    if constexpr (C == 4) dst[x * C + 3] = FullScale<T>();
  }
}

template <typename T>
bool DecodeRowFast(const DpxElementJob& job, const std::uint8_t* src, T* dst, std::uint32_t width,
                   std::uint32_t channels, bool flipX) {
  const DpxSampleLayout& l = job.layout;
  if (l.bits != 10 || l.packing == kPackPacked || l.components != 3 || flipX ||
      !(channels == 3 || channels == 4) || job.channelOf[0] != 0 || job.channelOf[1] != 1 ||
      job.channelOf[2] != 2) {
    return false;
  }
  const T* lut;
  if constexpr (sizeof(T) == 2) {
    lut = Tables().to16[10].data();
  } else {
    lut = Tables().toFloat[10].data();
  }
  const bool a = l.packing == kPackFillA;
  if (channels == 4) {
    if (l.bigEndian) {
      Decode10FilledRGB<T, 4, true>(src, dst, width, a, lut);
    } else {
      Decode10FilledRGB<T, 4, false>(src, dst, width, a, lut);
    }
  } else if (l.bigEndian) {
    Decode10FilledRGB<T, 3, true>(src, dst, width, a, lut);
  } else {
    Decode10FilledRGB<T, 3, false>(src, dst, width, a, lut);
  }
  return true;
}

// True when the row's channel 3 was set to full scale on the way.
template <typename T>
bool DecodeRow(const DpxElementJob& job, const std::uint8_t* src, T* dst, std::uint32_t width,
               std::uint32_t channels, bool flipX, Scratch& s) {
  if (DecodeRowFast(job, src, dst, width, channels, flipX)) return channels == 4;
  const DpxSampleLayout& l = job.layout;
  const std::uint32_t n = l.components;
  const std::size_t count = std::size_t{width} * n;
  if (l.bits == 32) {
    s.floats.resize(count);
    UnpackFloats(src, l.bigEndian, count, s.floats.data());
    if (flipX) ReversePixels(s.floats.data(), width, n);
    if constexpr (sizeof(T) == 2) {
      ScatterAny(s.floats.data(), dst, width, n, channels, job.channelOf, [](float v) {
        const float c = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;  // NaN lands on 0
        return static_cast<std::uint16_t>(c * 65535.0f + 0.5f);
      });
    } else {
      ScatterAny(s.floats.data(), dst, width, n, channels, job.channelOf,
                 [](float v) { return v; });
    }
  } else {
    s.codes.resize(count);
    UnpackCodes(src, l, count, s.codes.data());
    if (flipX) ReversePixels(s.codes.data(), width, n);
    if constexpr (sizeof(T) == 2) {
      if (l.bits == 16) {
        ScatterAny(s.codes.data(), dst, width, n, channels, job.channelOf,
                   [](std::uint16_t v) { return v; });
      } else {
        const std::uint16_t* lut = Tables().to16[l.bits].data();
        ScatterAny(s.codes.data(), dst, width, n, channels, job.channelOf,
                   [lut](std::uint16_t v) { return lut[v]; });
      }
    } else {
      const float* lut = Tables().toFloat[l.bits].data();
      ScatterAny(s.codes.data(), dst, width, n, channels, job.channelOf,
                 [lut](std::uint16_t v) { return lut[v]; });
    }
  }
  if (job.replicateLuma && channels >= 3) {
    for (std::uint32_t x = 0; x < width; ++x) {
      dst[x * channels + 1] = dst[x * channels];
      dst[x * channels + 2] = dst[x * channels];
    }
  }
  return false;
}

template <typename T>
void DecodeRange(const DpxElementJob* jobs, int jobCount, const DpxTarget& t, bool flipX,
                 bool flipY, int fillChannel, std::uint32_t rowBegin, std::uint32_t rowEnd) {
  Scratch scratch;
  for (std::uint32_t y = rowBegin; y < rowEnd; ++y) {
    T* dst = reinterpret_cast<T*>(t.pixels + static_cast<std::ptrdiff_t>(y) * t.rowStride);
    const std::uint32_t stored = flipY ? t.height - 1 - y : y;
    bool opaque = false;
    for (int j = 0; j < jobCount; ++j) {
      const std::uint8_t* src = jobs[j].data + stored * jobs[j].rowStride;
      opaque = DecodeRow(jobs[j], src, dst, t.width, t.channels, flipX, scratch) || opaque;
    }
    if (fillChannel >= 0 && !(opaque && fillChannel == 3)) {
      for (std::uint32_t x = 0; x < t.width; ++x)
        dst[x * t.channels + fillChannel] = FullScale<T>();
    }
  }
}

}  // namespace

bool DpxDecode(const DpxElementJob* jobs, int jobCount, const DpxTarget& target,
               std::uint32_t orientation, int fillChannel, WorkerPool* pool);

namespace {

// Codes 4-7: each stored line is a column of the picture. Decode the element as it lies (lines
// as rows, mirrored as the code says), then turn it a quarter.
bool DecodeTransposed(const DpxElementJob* jobs, int jobCount, const DpxTarget& t,
                      std::uint32_t orientation, int fillChannel, WorkerPool* pool) {
  const std::size_t pixelBytes = std::size_t{t.channels} * (t.isFloat ? 4 : 2);
  std::uint64_t bytes = 0;
  if (!CheckedProduct(&bytes, t.width, t.height, pixelBytes) || !FitsSizeT(bytes)) return false;
  std::vector<std::uint8_t> stored(static_cast<std::size_t>(bytes));
  DpxTarget s = t;
  s.pixels = stored.data();
  s.width = t.height;
  s.height = t.width;
  s.rowStride = static_cast<std::ptrdiff_t>(s.width * pixelBytes);
  // 5 and 7 run their lines right to left (stored rows reversed); 6 and 7 bottom to top.
  static constexpr std::uint32_t kLineOrder[4] = {0, 2, 1, 3};
  if (!DpxDecode(jobs, jobCount, s, kLineOrder[orientation - 4], fillChannel, pool)) {
    return false;
  }
  for (std::uint32_t y = 0; y < t.height; ++y) {
    std::uint8_t* dst = t.pixels + static_cast<std::ptrdiff_t>(y) * t.rowStride;
    for (std::uint32_t x = 0; x < t.width; ++x) {
      std::memcpy(dst + x * pixelBytes, stored.data() + (std::size_t{x} * s.width + y) * pixelBytes,
                  pixelBytes);
    }
  }
  return true;
}

}  // namespace

std::uint64_t DpxSampleBytes(const DpxSampleLayout& l, std::uint64_t samples) {
  return DpxLineBytes(l.bits, l.packing, samples, 1, l.bits == 8);
}

void UnpackCodes(const std::uint8_t* src, const DpxSampleLayout& l, std::size_t count,
                 std::uint16_t* out) {
  switch (l.bits) {
    case 1:
      for (std::size_t i = 0; i < count; ++i) out[i] = (src[i >> 3] >> (i & 7)) & 1;
      break;
    case 8:
      for (std::size_t i = 0; i < count; ++i) out[i] = src[i];
      break;
    case 10:
      if (l.packing == kPackPacked) {
        UnpackBitStream(src, l.bigEndian, 10, count, out);
      } else {
        Unpack10Filled(src, l.bigEndian, l.packing == kPackFillA, count, out);
      }
      break;
    case 12:
      if (l.packing == kPackPacked) {
        UnpackBitStream(src, l.bigEndian, 12, count, out);
      } else {
        const bool methodA = l.packing == kPackFillA;
        for (std::size_t i = 0; i < count; ++i) {
          const std::uint16_t v = Load16(src + 2 * i, l.bigEndian);
          out[i] = methodA ? static_cast<std::uint16_t>(v >> 4) : (v & 0xFFF);
        }
      }
      break;
    default:  // 16
      for (std::size_t i = 0; i < count; ++i) out[i] = Load16(src + 2 * i, l.bigEndian);
      break;
  }
}

void UnpackFloats(const std::uint8_t* src, bool big, std::size_t count, float* out) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::uint32_t u = Load32(src + 4 * i, big);
    std::memcpy(out + i, &u, 4);
  }
}

std::uint16_t CodeTo16(std::uint32_t code, std::uint32_t bits) {
  const auto& t = Tables().to16[bits];
  return code < t.size() ? t[code] : 65535;
}

float CodeToFloat(std::uint32_t code, std::uint32_t bits) {
  const auto& t = Tables().toFloat[bits];
  return code < t.size() ? t[code] : 1.0f;
}

bool DpxJobFits(const DpxElementJob& job, std::uint32_t width, std::uint32_t height) {
  if (width == 0 || height == 0) return true;
  if (job.data == nullptr) return false;
  const std::uint64_t line =
      DpxSampleBytes(job.layout, std::uint64_t{width} * job.layout.components);
  if (line > job.size) return false;
  const std::uint64_t more = height - 1;
  if (more == 0) return true;
  if (job.rowStride == 0) return true;
  if (more > (job.size - line) / job.rowStride) return false;
  return true;
}

bool DpxDecode(const DpxElementJob* jobs, int jobCount, const DpxTarget& t,
               std::uint32_t orientation, int fillChannel, WorkerPool* pool) {
  if (t.pixels == nullptr || !(t.channels == 1 || t.channels == 3 || t.channels == 4)) return false;
  const std::uint64_t sampleSize = t.isFloat ? 4 : 2;
  if (static_cast<std::uint64_t>(t.rowStride < 0 ? -t.rowStride : t.rowStride) <
      sampleSize * t.channels * t.width) {
    return false;
  }
  // Lines of a column-wise element run down the picture: the element is height x width.
  const bool columns = orientation >= 4 && orientation <= 7;
  const std::uint32_t lineLength = columns ? t.height : t.width;
  const std::uint32_t lines = columns ? t.width : t.height;
  for (int j = 0; j < jobCount; ++j) {
    const DpxSampleLayout& l = jobs[j].layout;
    const bool depthOk =
        l.bits == 1 || l.bits == 8 || l.bits == 10 || l.bits == 12 || l.bits == 16 || l.bits == 32;
    if (!depthOk || !(l.components == 1 || l.components == 3 || l.components == 4) ||
        !DpxJobFits(jobs[j], lineLength, lines)) {
      return false;
    }
  }
  if (fillChannel >= static_cast<int>(t.channels)) fillChannel = -1;
  if (orientation >= 4 && orientation <= 7)
    return DecodeTransposed(jobs, jobCount, t, orientation, fillChannel, pool);
  const bool flipX = orientation == 1 || orientation == 3;
  const bool flipY = orientation == 2 || orientation == 3;
  auto run = [&](std::uint32_t begin, std::uint32_t end) {
    if (t.isFloat) {
      DecodeRange<float>(jobs, jobCount, t, flipX, flipY, fillChannel, begin, end);
    } else {
      DecodeRange<std::uint16_t>(jobs, jobCount, t, flipX, flipY, fillChannel, begin, end);
    }
  };
  // Small pictures are not worth a thread.
  const std::uint64_t pixels = std::uint64_t{t.width} * t.height;
  if (!pool || pool->Concurrency() < 2 || pixels < (1u << 16) || t.height < 2) {
    run(0, t.height);
    return true;
  }
  // A few bands per thread, so one slow thread does not hold the frame.
  const int parts = static_cast<int>(std::min<std::uint64_t>(4 * pool->Concurrency(), t.height));
  pool->ParallelFor(parts, [&](int p) {
    run(static_cast<std::uint32_t>(std::uint64_t{t.height} * p / parts),
        static_cast<std::uint32_t>(std::uint64_t{t.height} * (p + 1) / parts));
  });
  return true;
}

}  // namespace vx::dpx
