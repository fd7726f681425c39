// vxhost thumbnail on a sound file: a waveform overview, one band per channel, each column the
// lowest and highest sample of its stretch of the stream. One pass over the stream in large
// reads, so an hour of sound costs one sequential read of the file.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "host.h"

namespace vxhost {
namespace {

constexpr int kMaxWidth = 16384;
constexpr int kMaxChannelsDrawn = 64;
constexpr std::size_t kReadBytes = 4u << 20;
constexpr std::uint8_t kWave[3] = {110, 210, 140};
constexpr std::uint8_t kBackground[2][3] = {{24, 24, 28}, {36, 36, 42}};  // alternate bands

// Sample layouts of the host's sound formats.
enum class Kind { kUnsigned8, kSigned16, kSigned24, kSigned32, kFloat32, kFloat64 };

bool KindOf(const SoundStream& s, Kind* kind) {
  unsigned tag = s.wf.wFormatTag;
  if (tag == WAVE_FORMAT_EXTENSIBLE) {
    if (s.format.size() < 40) return false;
    tag = s.format[24] | s.format[25] << 8;
  }
  if (s.wf.nBlockAlign % s.wf.nChannels != 0) return false;
  // The container width: an extensible file's valid bits sit at its top.
  const unsigned width = s.wf.nBlockAlign / s.wf.nChannels;
  if (tag == WAVE_FORMAT_PCM && width >= 1 && width <= 4) {
    constexpr Kind kInts[] = {Kind::kUnsigned8, Kind::kSigned16, Kind::kSigned24, Kind::kSigned32};
    *kind = kInts[width - 1];
    return true;
  }
  if (tag == WAVE_FORMAT_IEEE_FLOAT && (width == 4 || width == 8)) {
    *kind = width == 4 ? Kind::kFloat32 : Kind::kFloat64;
    return true;
  }
  return false;
}

// A sample as -1..1 (full scale; floats beyond it are clipped, NaN is silence).
template <Kind kind>
float Sample(const std::uint8_t* p) {
  switch (kind) {
    case Kind::kUnsigned8:
      return (p[0] - 128) / 128.0f;
    case Kind::kSigned16:
      return static_cast<std::int16_t>(p[0] | p[1] << 8) / 32768.0f;
    case Kind::kSigned24:
      return static_cast<std::int32_t>(static_cast<std::uint32_t>(p[0] << 8 | p[1] << 16) |
                                       static_cast<std::uint32_t>(p[2]) << 24) /
             2147483648.0f;
    case Kind::kSigned32:
      return static_cast<std::int32_t>(p[0] | p[1] << 8 | p[2] << 16 |
                                       static_cast<std::uint32_t>(p[3]) << 24) /
             2147483648.0f;
    case Kind::kFloat32: {
      float v;
      std::memcpy(&v, p, 4);
      return std::isnan(v) ? 0.0f : std::clamp(v, -1.0f, 1.0f);
    }
    case Kind::kFloat64: {
      double v;
      std::memcpy(&v, p, 8);
      return std::isnan(v) ? 0.0f : static_cast<float>(std::clamp(v, -1.0, 1.0));
    }
  }
  return 0.0f;
}

struct Extent {
  float low = 1.0f, high = -1.0f;  // empty until a sample arrives
  bool Empty() const { return low > high; }
};

// Column x of `width` shows frames [x * total / width, (x + 1) * total / width).
struct Columns {
  std::uint64_t total;
  int width, channels;
  std::size_t align, sampleBytes;
  std::vector<Extent> extent;  // per column, per channel
  int x = 0;
  std::uint64_t frame = 0;

  template <Kind kind>
  void Add(const std::uint8_t* data, LONG frames) {
    for (LONG i = 0; i < frames; ++i, ++frame) {
      while (x + 1 < width && (x + 1) * total / width <= frame) ++x;
      const std::uint8_t* p = data + static_cast<std::size_t>(i) * align;
      Extent* e = &extent[static_cast<std::size_t>(x) * channels];
      for (int c = 0; c < channels; ++c, p += sampleBytes) {
        const float v = Sample<kind>(p);
        e[c].low = std::min(e[c].low, v);
        e[c].high = std::max(e[c].high, v);
      }
    }
  }
  void Add(Kind kind, const std::uint8_t* data, LONG frames) {
    switch (kind) {
      case Kind::kUnsigned8:
        return Add<Kind::kUnsigned8>(data, frames);
      case Kind::kSigned16:
        return Add<Kind::kSigned16>(data, frames);
      case Kind::kSigned24:
        return Add<Kind::kSigned24>(data, frames);
      case Kind::kSigned32:
        return Add<Kind::kSigned32>(data, frames);
      case Kind::kFloat32:
        return Add<Kind::kFloat32>(data, frames);
      case Kind::kFloat64:
        return Add<Kind::kFloat64>(data, frames);
    }
  }
};

HRESULT DrawSound(IVxMediaFileParser* parser, const ThumbnailRequest& request, Picture* out) {
  SoundStream s;
  HRESULT hr = GetSoundStream(parser, &s);
  if (hr != S_OK) return hr;
  Kind kind;
  if (!KindOf(s, &kind)) return E_NOTIMPL;
  const int width = std::clamp(request.size, 1, kMaxWidth);
  const int channels = std::min<int>(s.wf.nChannels, kMaxChannelsDrawn);
  const int band = std::max(8, width / 2 / channels);
  const std::size_t align = s.wf.nBlockAlign;
  const auto total = static_cast<std::uint64_t>(std::max<std::int64_t>(0, s.frames));

  Columns cols{total,
               width,
               channels,
               align,
               align / s.wf.nChannels,
               std::vector<Extent>(static_cast<std::size_t>(width) * channels)};
  std::vector<std::uint8_t> buffer(std::max<std::size_t>(1, kReadBytes / align) * align);
  const auto block = static_cast<LONG>(buffer.size() / align);
  while (cols.frame < total) {
    const VxSamplePosition pos{static_cast<std::int64_t>(cols.frame)};
    LONG got = 0;
    hr = s.stream->ReadSamples(
        &pos, static_cast<LONG>(std::min<std::uint64_t>(block, total - cols.frame)), buffer.data(),
        &got);
    if (FAILED(hr)) return hr;
    if (got <= 0) break;  // the file ends early: draw what it held
    cols.Add(kind, buffer.data(), got);
  }
  std::vector<Extent>& extent = cols.extent;
  // With fewer frames than columns, a column that got none shows its right neighbour's frame.
  for (int col = width - 1; col >= 0; --col) {
    for (int c = 0; c < channels; ++c) {
      Extent& e = extent[static_cast<std::size_t>(col) * channels + c];
      if (!e.Empty()) continue;
      e = col + 1 < width ? extent[static_cast<std::size_t>(col + 1) * channels + c] : Extent{};
      if (e.Empty()) e = Extent{0.0f, 0.0f};  // nothing read: silence
    }
  }

  out->width = width;
  out->height = band * channels;
  out->rgb.assign(static_cast<std::size_t>(out->width) * out->height * 3, 0);
  auto row = [band](float v) { return static_cast<int>(std::lround((1.0f - v) / 2 * (band - 1))); };
  for (int c = 0; c < channels; ++c) {
    for (int y = 0; y < band; ++y) {
      std::uint8_t* line = &out->rgb[(static_cast<std::size_t>(c) * band + y) * width * 3];
      for (int col = 0; col < width; ++col) {
        const Extent& e = extent[static_cast<std::size_t>(col) * channels + c];
        const bool on = y >= row(e.high) && y <= row(e.low);
        std::memcpy(line + col * 3, on ? kWave : kBackground[c & 1], 3);
      }
    }
  }
  return S_OK;
}

}  // namespace

VXHOST_THUMBNAIL_DRAWER(10, DrawSound);

}  // namespace vxhost
