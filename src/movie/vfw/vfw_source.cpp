// AVI through Video for Windows: the system library walks the file and its index; formats are
// parsed and uncompressed pictures converted here, so they come out the same on every system.
// Compressed pictures need a decompressor installed on the system. MXF has no backend here.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "movie/source/movie_source.h"
#include "movie/vfw/vfw_pixels.h"
#include "vx/avi_file.h"
#include "vx/platform.h"

namespace vx::movie {
namespace {

using ffmedia::PixelLayout;
using ffmedia::SampleLayout;
using ffmedia::Status;
using os::FourCC;
using vfw::RowFormat;

constexpr std::uint32_t kVids = FourCC('v', 'i', 'd', 's');
constexpr std::uint32_t kAuds = FourCC('a', 'u', 'd', 's');
constexpr std::uint32_t kBiRgb = 0, kBiBitfields = 3;
constexpr int kMaxSide = 32768;
constexpr std::uint64_t kMaxPixels = std::uint64_t{1} << 28;

std::uint32_t Le16(const std::uint8_t* p) {
  return p[0] | std::uint32_t{p[1]} << 8;
}
std::uint32_t Le32(const std::uint8_t* p) {
  return Le16(p) | Le16(p + 2) << 16;
}
void PutLe16(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
}
void PutLe32(std::uint8_t* p, std::uint32_t v) {
  PutLe16(p, v);
  PutLe16(p + 2, v >> 16);
}

std::string FourCCText(std::uint32_t v) {
  std::string s;
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>(v >> (8 * i));
    s += c >= 32 && c < 127 ? c : '?';
  }
  return s;
}

std::int64_t Gcd(std::int64_t a, std::int64_t b) {
  while (b) a = std::exchange(b, a % b);
  return a;
}

// A sample as a left-justified 32-bit integer.
std::int32_t FromFloat(float f) {
  if (!(f > -1.0f)) return std::numeric_limits<std::int32_t>::min();
  if (f >= 1.0f) return std::numeric_limits<std::int32_t>::max();
  const double v = static_cast<double>(f) * 2147483648.0;
  return v >= 2147483647.0 ? std::numeric_limits<std::int32_t>::max()
                           : static_cast<std::int32_t>(v);
}

void StoreSample(std::int32_t v, SampleLayout l, std::uint8_t* d) {
  switch (l) {
    case SampleLayout::kS16:
      PutLe16(d, static_cast<std::uint32_t>(v) >> 16);
      break;
    case SampleLayout::kS24:
      d[0] = static_cast<std::uint8_t>(static_cast<std::uint32_t>(v) >> 8);
      PutLe16(d + 1, static_cast<std::uint32_t>(v) >> 16);
      break;
    case SampleLayout::kS32:
      PutLe32(d, static_cast<std::uint32_t>(v));
      break;
    case SampleLayout::kF32: {
      const float f = static_cast<float>(v / 2147483648.0);
      std::memcpy(d, &f, 4);
      break;
    }
  }
}

std::int32_t LoadSample(const std::uint8_t* s, SampleLayout l) {
  switch (l) {
    case SampleLayout::kS16:
      return static_cast<std::int32_t>(Le16(s) << 16);
    case SampleLayout::kS24:
      return static_cast<std::int32_t>((s[0] | Le16(s + 1) << 8) << 8);
    case SampleLayout::kS32:
      return static_cast<std::int32_t>(Le32(s));
    case SampleLayout::kF32: {
      float f;
      std::memcpy(&f, s, 4);
      return FromFloat(f);
    }
  }
  return 0;
}

// Calls `each(at, strh)` for every stream header of the header list, in stream order: `at` is
// the file offset of the header's data, `strh` its first 36 bytes; `each` returns false to stop.
// False when the file has no header list that reads whole.
template <class Each>
bool ForEachStreamHeader(os::FileHandle f, Each each) {
  std::uint64_t size = 0;
  if (!os::Size(f, &size)) return false;
  auto read = [&](std::uint64_t at, std::uint8_t* b, std::uint32_t n) {
    std::uint32_t got = 0;
    return at + n <= size && os::ReadAt(f, at, b, n, &got) && got == n;
  };
  std::uint8_t h[12];
  if (!read(0, h, 12) || std::memcmp(h, "RIFF", 4) != 0 || std::memcmp(h + 8, "AVI ", 4) != 0)
    return false;
  for (std::uint64_t at = 12; read(at, h, 12); at += 8 + (Le32(h + 4) + 1ull) / 2 * 2) {
    if (std::memcmp(h, "LIST", 4) != 0 || std::memcmp(h + 8, "hdrl", 4) != 0) continue;
    const std::uint64_t end = std::min(size, at + 8 + Le32(h + 4));
    for (std::uint64_t s = at + 12; s + 12 <= end && read(s, h, 12);
         s += 8 + (Le32(h + 4) + 1ull) / 2 * 2) {
      if (std::memcmp(h, "LIST", 4) != 0 || std::memcmp(h + 8, "strl", 4) != 0) continue;
      std::uint8_t strh[8 + 36];
      if (!read(s + 12, strh, sizeof strh) || std::memcmp(strh, "strh", 4) != 0) return false;
      if (!each(s + 12 + 8, strh + 8)) return true;
    }
    return true;
  }
  return false;
}

// The system library trusts some header fields (wine's stops the process on a zero rate), so
// the stream headers are checked before it sees the file.
bool HeadersSane(const VxChar* path) {
  os::UniqueFile f(os::OpenRead(path));
  bool sane = true;
  int streams = 0;
  const bool whole = f && ForEachStreamHeader(f.get(), [&](std::uint64_t, const std::uint8_t* h) {
                       ++streams;
                       sane = Le32(h + 20) != 0 && Le32(h + 24) != 0;  // scale, rate
                       return sane;
                     });
  return whole && sane && streams > 0;
}

// Some implementations of the library (wine's) count a sound stream's length in writes, not in
// samples. The header is ours to correct: the `n`th sound stream's length becomes lengths[n].
bool FixSoundLengths(const VxChar* path, const std::vector<std::int64_t>& lengths) {
  os::UniqueFile f(os::OpenReadWrite(path));
  std::size_t sound = 0;
  bool ok = true;
  if (!f || !ForEachStreamHeader(f.get(), [&](std::uint64_t at, const std::uint8_t* h) {
        if (Le32(h) != kAuds) return true;
        if (sound >= lengths.size()) return ok = false;
        std::uint8_t v[4];
        PutLe32(v, static_cast<std::uint32_t>(lengths[sound++]));
        std::uint32_t done = 0;
        if (Le32(h + 32) != Le32(v)) ok = os::WriteAt(f.get(), at + 32, v, 4, &done) && done == 4;
        return ok;
      }))
    return false;
  return ok && sound == lengths.size();
}

// Chunks and bytes of data per stream as the file's index lists them. The system library
// trusts the headers' lengths over its index (wine's stops the process on a read past what it
// indexed, and without an index it reads nothing), so a stream is never read past these.
struct Stored {
  bool indexed = false;
  std::vector<std::uint64_t> chunks, bytes;
};
Stored CountStored(const VxChar* path, int streams) {
  Stored st;
  st.chunks.assign(static_cast<std::size_t>(streams), 0);
  st.bytes.assign(static_cast<std::size_t>(streams), 0);
  os::UniqueFile f(os::OpenRead(path));
  std::uint64_t size = 0;
  if (!f || !os::Size(f.get(), &size)) return st;
  auto read = [&](std::uint64_t at, std::uint8_t* b, std::uint32_t n) {
    std::uint32_t got = 0;
    return at + n <= size && os::ReadAt(f.get(), at, b, n, &got) && got == n;
  };
  auto add = [&](const std::uint8_t* id, std::uint64_t bytes) {
    if (id[0] < '0' || id[0] > '9' || id[1] < '0' || id[1] > '9') return;
    const int n = (id[0] - '0') * 10 + (id[1] - '0');
    if (n >= streams) return;
    ++st.chunks[static_cast<std::size_t>(n)];
    st.bytes[static_cast<std::size_t>(n)] += bytes;
  };
  std::uint8_t h[12];
  std::uint64_t idx = 0, idxEnd = 0;
  for (std::uint64_t at = 12; read(at, h, 12); at += 8 + (Le32(h + 4) + 1ull) / 2 * 2) {
    if (std::memcmp(h, "idx1", 4) == 0 && !idx) {
      idx = at + 8;
      idxEnd = std::min(size, idx + Le32(h + 4));
    }
  }
  if (idx) {
    st.indexed = true;
    std::vector<std::uint8_t> e(16 * 4096);
    for (std::uint64_t at = idx; at + 16 <= idxEnd;) {
      const std::uint32_t n =
          static_cast<std::uint32_t>(std::min<std::uint64_t>(4096, (idxEnd - at) / 16));
      if (!read(at, e.data(), n * 16)) break;
      for (std::uint32_t i = 0; i < n; ++i) add(&e[16 * i], Le32(&e[16 * i + 12]));
      at += std::uint64_t{n} * 16;
    }
  }
  return st;
}

// ---- Reading ------------------------------------------------------------------------------

struct VideoStream {
  os::AviStream* stream = nullptr;
  bool raw = false;  // read raw and converted here, else through the decompressor
  RowFormat format = RowFormat::kBgr24;
  bool bottomUp = false;
  std::size_t rowBytes = 0;  // in the file
  int width = 0, height = 0;
};

struct AudioStream {
  os::AviStream* stream = nullptr;
  bool pcm = false;
  bool floating = false;
  int bits = 0;  // container bits per sample
  int channels = 0;
  std::uint32_t block = 0;  // bytes per sample frame
};

class VfwSource final : public MovieSource {
 public:
  Status Open(const std::string& path) override {
    try {
      return Load(path);
    } catch (const std::bad_alloc&) {
      Fail();
      return Status::kOutOfMemory;
    }
  }

  const ffmedia::MediaInfo& Info() const override { return info_; }

 private:
  Status Load(const std::string& path) {
    info_ = {};
    video_.clear();
    audio_.clear();
    file_.reset();
    const VxString wide = FromUtf8(path);
    if (!HeadersSane(wide.c_str())) return Status::kFail;
    file_ = os::OpenAviFile(wide.c_str());
    if (!file_) return Status::kFail;
    info_.container = "avi";
    stored_ = CountStored(wide.c_str(), file_->StreamCount());
    for (int i = 0; i < file_->StreamCount(); ++i) {
      os::AviStream* s = file_->Stream(i);
      const os::AviStreamInfo& si = s->Info();
      if (si.type != kVids && si.type != kAuds) continue;
      if (si.rate == 0 || si.scale == 0 || si.length < 0) return Fail();
      if (si.length > 0 && !stored_.indexed) return Fail();  // nothing the library can read
      std::vector<std::uint8_t> fmt;
      if (!s->ReadFormat(&fmt)) return Fail();
      const Status st = si.type == kVids ? AddVideo(i, s, fmt) : AddAudio(i, s, fmt);
      if (st != Status::kOk) return Fail();
    }
    if (info_.video.empty() && info_.audio.empty()) return Fail();
    return Status::kOk;
  }

 public:
  Status ReadFrame(int track, std::int64_t index, PixelLayout layout, std::uint8_t* dst,
                   std::ptrdiff_t stride) override {
    if (track < 0 || track >= static_cast<int>(video_.size())) return Status::kInvalidArg;
    const VideoStream& v = video_[static_cast<std::size_t>(track)];
    const ffmedia::VideoTrack& t = info_.video[static_cast<std::size_t>(track)];
    const std::size_t need = ffmedia::MinRowBytes(layout, v.width);
    if (index < 0 || index >= t.frames || !dst || need == 0 ||
        static_cast<std::size_t>(stride < 0 ? -stride : stride) < need)
      return Status::kInvalidArg;
    const std::int64_t pos = v.stream->Info().start + index;
    const bool hd = vfw::IsHd(v.width, v.height);
    try {
      if (v.raw) {
        const bool yuvOut = layout == PixelLayout::kUYVY8 || layout == PixelLayout::kV210;
        const bool yuvIn = v.format == RowFormat::kUyvy || v.format == RowFormat::kYuy2 ||
                           v.format == RowFormat::kV210;
        if (yuvOut && !yuvIn) return Status::kUnsupported;
        const std::size_t bytes = v.rowBytes * static_cast<std::size_t>(v.height);
        buf_.resize(bytes);
        std::size_t got = 0;
        std::int64_t samples = 0;
        if (!v.stream->Read(pos, 1, buf_.data(), bytes, &got, &samples) || got < bytes)
          return Status::kFail;
        for (int y = 0; y < v.height; ++y) {
          const int row = v.bottomUp ? v.height - 1 - y : y;
          vfw::ConvertRow(v.format, buf_.data() + v.rowBytes * static_cast<std::size_t>(row),
                          v.width, layout, dst + stride * y, hd);
        }
        return Status::kOk;
      }
      if (layout == PixelLayout::kUYVY8 || layout == PixelLayout::kV210)
        return Status::kUnsupported;
      if (!v.stream->CanDecompress(32)) return Status::kUnsupported;
      if (!v.stream->Decompress(pos, 32, &buf_) || buf_.size() < 40) return Status::kFail;
      const std::uint8_t* h = buf_.data();
      const int w = static_cast<int>(Le32(h + 4));
      const std::int32_t hh = static_cast<std::int32_t>(Le32(h + 8));
      const std::size_t rows = static_cast<std::size_t>(hh < 0 ? -std::int64_t{hh} : hh);
      const std::size_t rb = static_cast<std::size_t>(w) * 4;
      if (w != v.width || rows != static_cast<std::size_t>(v.height) ||
          buf_.size() < 40 + rb * rows)
        return Status::kFail;
      for (int y = 0; y < v.height; ++y) {
        const int row = hh > 0 ? v.height - 1 - y : y;
        // The decompressor's fourth byte is not alpha.
        std::uint8_t* r = buf_.data() + 40 + rb * static_cast<std::size_t>(row);
        for (std::size_t x = 0; x < static_cast<std::size_t>(w); ++x) r[4 * x + 3] = 255;
        vfw::ConvertRow(RowFormat::kBgra32, r, v.width, layout, dst + stride * y, hd);
      }
      return Status::kOk;
    } catch (const std::bad_alloc&) {
      return Status::kOutOfMemory;
    }
  }

  Status ReadAudio(int track, std::int64_t start, std::int64_t count, SampleLayout layout,
                   void* dst, std::int64_t* got) override {
    if (got) *got = 0;
    if (track < 0 || track >= static_cast<int>(audio_.size())) return Status::kInvalidArg;
    const AudioStream& a = audio_[static_cast<std::size_t>(track)];
    const ffmedia::AudioTrack& t = info_.audio[static_cast<std::size_t>(track)];
    const int outBytes = ffmedia::SampleBytes(layout);
    if (start < 0 || count < 0 || (count > 0 && !dst) || outBytes == 0 ||
        count > std::numeric_limits<std::int64_t>::max() / (outBytes * a.channels))
      return Status::kInvalidArg;
    if (!a.pcm) return Status::kUnsupported;
    auto* out = static_cast<std::uint8_t*>(dst);
    const std::size_t outFrame = static_cast<std::size_t>(outBytes) * a.channels;
    const std::int64_t real = std::clamp<std::int64_t>(t.samples - start, 0, count);
    std::memset(out + real * static_cast<std::int64_t>(outFrame), 0,
                static_cast<std::size_t>(count - real) * outFrame);
    const SampleLayout in = a.floating     ? SampleLayout::kF32
                            : a.bits == 16 ? SampleLayout::kS16
                            : a.bits == 24 ? SampleLayout::kS24
                                           : SampleLayout::kS32;
    const bool copy = !a.floating && a.bits > 8 ? in == layout : false;
    const bool sameFloat = a.floating && layout == SampleLayout::kF32;
    try {
      constexpr std::int64_t kRun = 1 << 16;
      for (std::int64_t done = 0; done < real;) {
        const std::int64_t n = std::min(kRun, real - done);
        const std::size_t bytes = static_cast<std::size_t>(n) * a.block;
        buf_.resize(bytes);
        std::size_t gotBytes = 0;
        std::int64_t gotSamples = 0;
        if (!a.stream->Read(a.stream->Info().start + start + done, n, buf_.data(), bytes, &gotBytes,
                            &gotSamples) ||
            gotBytes < bytes)
          return Status::kFail;
        std::uint8_t* d = out + done * static_cast<std::int64_t>(outFrame);
        if (copy || sameFloat) {
          std::memcpy(d, buf_.data(), bytes);
        } else {
          const std::size_t inBytes = static_cast<std::size_t>(a.bits) / 8;
          const std::size_t values = static_cast<std::size_t>(n) * a.channels;
          for (std::size_t i = 0; i < values; ++i) {
            const std::uint8_t* s = buf_.data() + i * inBytes;
            const std::int32_t v =
                a.bits == 8 ? static_cast<std::int32_t>((s[0] - 128u) << 24) : LoadSample(s, in);
            StoreSample(v, layout, d + i * static_cast<std::size_t>(outBytes));
          }
        }
        done += n;
      }
    } catch (const std::bad_alloc&) {
      return Status::kOutOfMemory;
    }
    if (got) *got = real;
    return Status::kOk;
  }

 private:
  Status Fail() {
    info_ = {};
    video_.clear();
    audio_.clear();
    file_.reset();
    return Status::kFail;
  }

  Status AddVideo(int index, os::AviStream* s, const std::vector<std::uint8_t>& f) {
    if (f.size() < 40) return Status::kFail;
    const std::int64_t w = static_cast<std::int32_t>(Le32(&f[4]));
    const std::int64_t h = static_cast<std::int32_t>(Le32(&f[8]));
    const int bits = static_cast<int>(Le16(&f[14]));
    const std::uint32_t comp = Le32(&f[16]);
    const std::int64_t ah = h < 0 ? -h : h;
    if (w <= 0 || ah == 0 || w > kMaxSide || ah > kMaxSide ||
        static_cast<std::uint64_t>(w * ah) > kMaxPixels)
      return Status::kFail;
    VideoStream v;
    v.stream = s;
    v.width = static_cast<int>(w);
    v.height = static_cast<int>(ah);
    ffmedia::VideoTrack t;
    t.stream = index;
    t.fourcc = comp;
    t.width = v.width;
    t.height = v.height;
    t.fieldOrder = ffmedia::FieldOrder::kUnknown;
    t.codec = "rawvideo";
    v.raw = true;
    if ((comp == kBiRgb || comp == kBiBitfields) && (bits == 24 || bits == 32)) {
      v.format = bits == 24 ? RowFormat::kBgr24 : RowFormat::kBgra32;
      v.bottomUp = h > 0;
      v.rowBytes = (static_cast<std::size_t>(w) * bits + 31) / 32 * 4;
      t.nativeFormat = bits == 24 ? "bgr24" : "bgra";
      t.alpha = bits == 32;
    } else if (comp == FourCC('U', 'Y', 'V', 'Y') || comp == FourCC('2', 'v', 'u', 'y') ||
               comp == FourCC('Y', 'U', 'Y', '2') || comp == FourCC('Y', 'U', 'Y', 'V')) {
      const bool uyvy = comp == FourCC('U', 'Y', 'V', 'Y') || comp == FourCC('2', 'v', 'u', 'y');
      v.format = uyvy ? RowFormat::kUyvy : RowFormat::kYuy2;
      v.rowBytes = vfw::FormatRowBytes(v.format, v.width);
      v.rowBytes = (v.rowBytes + 3) / 4 * 4;
      t.nativeFormat = uyvy ? "uyvy422" : "yuyv422";
    } else if (comp == FourCC('v', '2', '1', '0')) {
      v.format = RowFormat::kV210;
      v.rowBytes = vfw::FormatRowBytes(v.format, v.width);
      t.codec = "v210";
      t.nativeFormat = "yuv422p10le";
      t.bitDepth = 10;
    } else {
      v.raw = false;
      t.codec = comp == FourCC('M', 'J', 'P', 'G')   ? "mjpeg"
                : comp == FourCC('d', 'v', 's', 'd') ? "dvvideo"
                                                     : FourCCText(comp);
      t.nativeFormat = "bgra";
    }
    const os::AviStreamInfo& si = s->Info();
    const std::int64_t g = Gcd(si.rate, si.scale);
    t.rate = {si.rate / g, si.scale / g};
    t.frames = std::min<std::int64_t>(
        si.length, static_cast<std::int64_t>(stored_.chunks[static_cast<std::size_t>(index)]));
    video_.push_back(v);
    info_.video.push_back(t);
    info_.duration = std::max(info_.duration, static_cast<double>(t.frames) / t.rate.Value());
    return Status::kOk;
  }

  Status AddAudio(int index, os::AviStream* s, const std::vector<std::uint8_t>& f) {
    if (f.size() < 16) return Status::kFail;
    std::uint32_t tag = Le16(&f[0]);
    const int channels = static_cast<int>(Le16(&f[2]));
    const std::uint32_t rate = Le32(&f[4]);
    const std::uint32_t block = Le16(&f[12]);
    const int bits = static_cast<int>(Le16(&f[14]));
    if (channels == 0 || rate == 0 || block == 0) return Status::kFail;
    ffmedia::AudioTrack t;
    t.stream = index;
    t.sampleRate = static_cast<int>(std::min<std::uint32_t>(rate, 1u << 30));
    t.channels = channels;
    t.bits = bits;
    if (tag == 0xFFFE && f.size() >= 40 && Le16(&f[16]) >= 22) {
      t.channelMask = Le32(&f[20]);
      tag = Le16(&f[24]);  // the sub-format's first two bytes hold the plain tag
    }
    AudioStream a;
    a.stream = s;
    a.channels = channels;
    a.bits = bits;
    a.block = block;
    a.floating = tag == 3;
    a.pcm = (tag == 1 && (bits == 8 || bits == 16 || bits == 24 || bits == 32)) ||
            (tag == 3 && bits == 32);
    a.pcm = a.pcm && block == static_cast<std::uint32_t>(channels * bits / 8);
    t.floating = a.floating;
    if (a.pcm) {
      t.codec = a.floating  ? "pcm_f32le"
                : bits == 8 ? "pcm_u8"
                            : "pcm_s" + std::to_string(bits) + "le";
    } else {
      char name[16];
      std::snprintf(name, sizeof name, "0x%04x", static_cast<unsigned>(tag));
      t.codec = name;
    }
    t.channelLayout = channels == 1 ? "mono" : channels == 2 ? "stereo" : "";
    const os::AviStreamInfo& si = s->Info();
    // PCM streams count blocks; a stream that says otherwise is counted from its bytes.
    t.samples = si.sampleSize == 0 || si.sampleSize == block ? si.length
                                                             : si.length * si.sampleSize / block;
    t.samples = std::min<std::int64_t>(
        t.samples,
        static_cast<std::int64_t>(stored_.bytes[static_cast<std::size_t>(index)] / block));
    audio_.push_back(a);
    info_.audio.push_back(t);
    info_.duration = std::max(info_.duration, static_cast<double>(t.samples) / t.sampleRate);
    return Status::kOk;
  }

  std::unique_ptr<os::AviFile> file_;
  ffmedia::MediaInfo info_;
  std::vector<VideoStream> video_;
  std::vector<AudioStream> audio_;
  std::vector<std::uint8_t> buf_;
  Stored stored_;
};

// ---- Writing ------------------------------------------------------------------------------

// The uncompressed codecs written as DIBs of `bits` bits, named by channel or by byte order.
bool IsDib(ffmedia::VideoCodec c, int bits) {
  using Codec = ffmedia::VideoCodec;
  return bits == 24 ? c == Codec::kRGB24 || c == Codec::kBGR24
                    : c == Codec::kRGBA8 || c == Codec::kBGRA8;
}

// The library writes AVI 1.0, one RIFF whose size field readers take as signed: stop well
// before 2 GiB rather than leave a file nothing reads.
constexpr std::uint64_t kMaxFileBytes = 0x7F000000;
constexpr std::uint64_t kPerChunk = 8 + 16;  // chunk header and index entry

class VfwSink final : public MovieSink {
 public:
  ~VfwSink() override {
    if (writer_) {
      writer_.reset();
      os::Remove(temp_.c_str());
    }
  }

  Status Open(const std::string& path, const ffmedia::VideoSettings* video,
              const std::vector<ffmedia::AudioSettings>& audio, const std::string&,
              const std::vector<std::pair<std::string, std::string>>&) override {
    if (writer_ || path.empty() || (!video && audio.empty())) return Status::kInvalidArg;
    try {
      std::vector<std::uint8_t> vfmt;
      os::AviStreamInfo vinfo;
      if (video) {
        const ffmedia::VideoSettings& v = *video;
        if (v.width <= 0 || v.height <= 0 || v.width > kMaxSide || v.height > kMaxSide ||
            v.rate.num <= 0 || v.rate.den <= 0 || v.rate.num > 0xFFFFFFFF ||
            v.rate.den > 0xFFFFFFFF)
          return Status::kInvalidArg;
        int bits = 0;
        std::uint32_t comp = kBiRgb;
        if (IsDib(v.codec, 24)) {
          bits = 24, file_ = RowFormat::kBgr24;
        } else if (IsDib(v.codec, 32)) {
          bits = 32, file_ = RowFormat::kBgra32;
        } else if (v.codec == ffmedia::VideoCodec::kV210) {
          bits = 20, file_ = RowFormat::kV210, comp = FourCC('v', '2', '1', '0');
        } else {
          return Status::kUnsupported;  // no compressor on the system for the others
        }
        width_ = v.width;
        height_ = v.height;
        rowBytes_ = file_ == RowFormat::kV210
                        ? vfw::FormatRowBytes(file_, width_)
                        : (static_cast<std::size_t>(width_) * bits + 31) / 32 * 4;
        frameBytes_ = rowBytes_ * static_cast<std::size_t>(height_);
        vfmt.assign(40, 0);
        PutLe32(&vfmt[0], 40);
        PutLe32(&vfmt[4], static_cast<std::uint32_t>(width_));
        PutLe32(&vfmt[8], static_cast<std::uint32_t>(height_));  // RGB bottom-up
        PutLe16(&vfmt[12], 1);
        PutLe16(&vfmt[14], static_cast<std::uint32_t>(bits));
        PutLe32(&vfmt[16], comp);
        PutLe32(&vfmt[20], static_cast<std::uint32_t>(frameBytes_));
        vinfo.type = kVids;
        vinfo.handler = comp;
        vinfo.rate = static_cast<std::uint32_t>(v.rate.num);
        vinfo.scale = static_cast<std::uint32_t>(v.rate.den);
        vinfo.suggestedBuffer = static_cast<std::uint32_t>(frameBytes_);
      }
      for (const ffmedia::AudioSettings& a : audio) {
        if ((a.bits != 16 && a.bits != 24) || a.channels <= 0 || a.channels > 64 ||
            a.sampleRate <= 0 || a.sampleRate > 1000000)
          return Status::kInvalidArg;
      }
      temp_ = FromUtf8(path + ".partial.avi");
      os::Remove(temp_.c_str());
      writer_ = os::CreateAviFile(temp_.c_str());
      if (!writer_) return Status::kFail;
      final_ = FromUtf8(path);
      if (video && writer_->AddStream(vinfo, vfmt.data(), vfmt.size()) != 0) return Abandon();
      for (const ffmedia::AudioSettings& a : audio) {
        const std::uint32_t block = static_cast<std::uint32_t>(a.channels * a.bits / 8);
        std::uint8_t wfx[18] = {};
        PutLe16(wfx, 1);
        PutLe16(wfx + 2, static_cast<std::uint32_t>(a.channels));
        PutLe32(wfx + 4, static_cast<std::uint32_t>(a.sampleRate));
        PutLe32(wfx + 8, static_cast<std::uint32_t>(a.sampleRate) * block);
        PutLe16(wfx + 12, block);
        PutLe16(wfx + 14, static_cast<std::uint32_t>(a.bits));
        os::AviStreamInfo ai;
        ai.type = kAuds;
        ai.scale = block;
        ai.rate = static_cast<std::uint32_t>(a.sampleRate) * block;
        ai.sampleSize = block;
        ai.suggestedBuffer = ai.rate;
        const int index = writer_->AddStream(ai, wfx, sizeof wfx);
        if (index < 0) return Abandon();
        audio_.push_back({index, a.channels, a.bits, 0});
      }
      hasVideo_ = video != nullptr;
      bytes_ = 4096;  // headers
      return Status::kOk;
    } catch (const std::bad_alloc&) {
      Abandon();
      return Status::kOutOfMemory;
    }
  }

  Status WriteFrame(const std::uint8_t* src, std::ptrdiff_t stride, PixelLayout layout) override {
    if (!writer_ || !hasVideo_) return Status::kInvalidArg;
    RowFormat from = RowFormat::kRgba32;
    const std::size_t need = ffmedia::MinRowBytes(layout, width_);
    if (!src || need == 0 || static_cast<std::size_t>(stride < 0 ? -stride : stride) < need)
      return Status::kInvalidArg;
    // 16-bit and float host pictures go to 8 bits first.
    const bool deep = !vfw::FormatOfLayout(layout, &from);
    if (deep && file_ == RowFormat::kV210) return Status::kUnsupported;
    const bool yuvIn = from == RowFormat::kUyvy || from == RowFormat::kV210;
    if (file_ == RowFormat::kV210 && !yuvIn) return Status::kUnsupported;
    if (!Reserve(frameBytes_)) return Status::kUnsupported;
    try {
      buf_.assign(frameBytes_, 0);
      const PixelLayout to = file_ == RowFormat::kBgr24    ? PixelLayout::kBGR24
                             : file_ == RowFormat::kBgra32 ? PixelLayout::kBGRA8
                                                           : PixelLayout::kV210;
      std::vector<std::uint8_t> rgba(deep ? static_cast<std::size_t>(width_) * 4 : 0);
      for (int y = 0; y < height_; ++y) {
        const int row = file_ == RowFormat::kV210 ? y : height_ - 1 - y;
        const std::uint8_t* in = src + stride * y;
        if (deep && !vfw::ToRgba8Row(layout, in, width_, rgba.data())) return Status::kUnsupported;
        vfw::ConvertRow(from, deep ? rgba.data() : in, width_, to,
                        buf_.data() + rowBytes_ * static_cast<std::size_t>(row), false);
      }
    } catch (const std::bad_alloc&) {
      return Status::kOutOfMemory;
    }
    if (!writer_->Write(0, frames_, 1, buf_.data(), buf_.size(), true)) return Status::kFail;
    bytes_ += frameBytes_ + kPerChunk;
    ++frames_;
    return Status::kOk;
  }

  Status WriteAudio(int track, const void* src, std::int64_t count, SampleLayout layout) override {
    if (!writer_ || track < 0 || track >= static_cast<int>(audio_.size()) || count < 0 ||
        (count > 0 && !src) || ffmedia::SampleBytes(layout) == 0)
      return Status::kInvalidArg;
    Track& a = audio_[static_cast<std::size_t>(track)];
    if (count == 0) return Status::kOk;
    const std::size_t values = static_cast<std::size_t>(count) * a.channels;
    const SampleLayout out = a.bits == 16 ? SampleLayout::kS16 : SampleLayout::kS24;
    const std::size_t bytes = values * static_cast<std::size_t>(a.bits / 8);
    if (count > (std::int64_t{1} << 31) || !Reserve(bytes)) return Status::kUnsupported;
    try {
      buf_.resize(bytes);
      const auto* s = static_cast<const std::uint8_t*>(src);
      const std::size_t inBytes = static_cast<std::size_t>(ffmedia::SampleBytes(layout));
      for (std::size_t i = 0; i < values; ++i)
        StoreSample(LoadSample(s + i * inBytes, layout), out,
                    buf_.data() + i * static_cast<std::size_t>(a.bits / 8));
    } catch (const std::bad_alloc&) {
      return Status::kOutOfMemory;
    }
    // Appended: wine's library refuses an explicit start for sound after the first write.
    if (!writer_->Write(a.stream, -1, count, buf_.data(), bytes, true)) return Status::kFail;
    a.position += count;
    bytes_ += bytes + kPerChunk;
    return Status::kOk;
  }

  Status Finish() override {
    if (!writer_) return Status::kInvalidArg;
    const bool closed = writer_->Close();
    writer_.reset();
    std::vector<std::int64_t> lengths;
    for (const Track& a : audio_) lengths.push_back(a.position);
    if (!closed || (!lengths.empty() && !FixSoundLengths(temp_.c_str(), lengths)) ||
        !os::Replace(temp_.c_str(), final_.c_str())) {
      os::Remove(temp_.c_str());
      return Status::kFail;
    }
    return Status::kOk;
  }

 private:
  struct Track {
    int stream;
    int channels;
    int bits;
    std::int64_t position;
  };

  bool Reserve(std::size_t bytes) const { return bytes_ + bytes + kPerChunk <= kMaxFileBytes; }

  Status Abandon() {
    writer_.reset();
    os::Remove(temp_.c_str());
    audio_.clear();
    return Status::kFail;
  }

  std::unique_ptr<os::AviWriter> writer_;
  VxString temp_, final_;
  RowFormat file_ = RowFormat::kBgr24;
  bool hasVideo_ = false;
  int width_ = 0, height_ = 0;
  std::size_t rowBytes_ = 0, frameBytes_ = 0;
  std::int64_t frames_ = 0;
  std::uint64_t bytes_ = 0;
  std::vector<Track> audio_;
  std::vector<std::uint8_t> buf_;
};

}  // namespace

std::unique_ptr<MovieSource> MakeMovieSource(Container container) {
  if (container != Container::kAvi) return nullptr;
  return std::make_unique<VfwSource>();
}

std::unique_ptr<MovieSink> MakeMovieSink(Container container) {
  if (container != Container::kAvi) return nullptr;
  return std::make_unique<VfwSink>();
}

}  // namespace vx::movie
