// QTDecoder: serves the QuickTime decoder channel on the FFmpeg media library. Movies are read
// with MediaReader (frames by index, PCM by sample range) and written with MovWriter. A written
// movie's tracks are all known only once set-up is finished (command 3), so the writer opens
// there; a reference movie (4096-4102) is assembled when it is finished, as MovWriter writes
// self-contained movies only.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "movie/ffmpeg/ffmedia.h"
#include "movie/qt/qt_channel.h"
#include "qt_decoder_loop.h"

using namespace vx::qt;
namespace ff = vx::ffmedia;

namespace {

constexpr std::int32_t kFail = static_cast<std::int32_t>(0x80004005u);
constexpr std::int32_t kInvalid = static_cast<std::int32_t>(0x80070057u);
constexpr std::int32_t kNoMemory = static_cast<std::int32_t>(0x8007000Eu);
constexpr std::int32_t kNotImpl = static_cast<std::int32_t>(0x80004001u);
constexpr std::uint32_t kNone = 0xFFFFFFFFu;
constexpr std::uint32_t kPixelsAt = 64;  // frames start here in the result block
constexpr std::uint32_t kSamplesAt = 16;

std::int32_t FromStatus(ff::Status s) {
  switch (s) {
    case ff::Status::kOk:
      return 0;
    case ff::Status::kOutOfMemory:
      return kNoMemory;
    case ff::Status::kInvalidArg:
      return kInvalid;
    case ff::Status::kUnsupported:
      return kStatusFormatRefused;
    default:
      return kFail;
  }
}

// ---- Time codes: "HH:MM:SS:FF" (";" when drop-frame) <-> BCD ------------------------------

struct TimeCode {
  bool valid = false;
  unsigned h = 0, m = 0, s = 0, f = 0;
  bool drop = false;
};

TimeCode ParseTimeCode(const std::string& text) {
  TimeCode tc;
  char sep = 0;
  if (std::sscanf(text.c_str(), "%2u:%2u:%2u%c%2u", &tc.h, &tc.m, &tc.s, &sep, &tc.f) == 5 &&
      (sep == ':' || sep == ';' || sep == '.') && tc.m < 60 && tc.s < 60)
    tc.valid = true, tc.drop = sep != ':';
  return tc;
}

std::uint32_t Bcd(const TimeCode& tc) {
  if (!tc.valid) return kNone;
  auto two = [](unsigned v) { return static_cast<std::uint32_t>((v / 10 % 10) << 4 | (v % 10)); };
  return two(tc.h) << 24 | two(tc.m) << 16 | two(tc.s) << 8 | two(tc.f);
}

std::string TimeCodeFromBcd(std::uint32_t bcd) {
  if (bcd == kNone) return "";
  auto un = [](std::uint32_t v) { return (v >> 4 & 15) * 10 + (v & 15); };
  char text[16];
  std::snprintf(text, sizeof text, "%02u:%02u:%02u:%02u", un(bcd >> 24 & 0xFF) % 100,
                un(bcd >> 16 & 0xFF) % 100, un(bcd >> 8 & 0xFF) % 100, un(bcd & 0xFF) % 100);
  return text;
}

// The time code `frames` after `start`, counting `fps` a second (drop-frame: 2 frame numbers per
// 30 skipped each minute but every tenth, scaled for 60).
TimeCode AddFrames(const TimeCode& start, std::uint64_t frames, unsigned fps) {
  TimeCode tc = start;
  if (!start.valid || fps == 0) return TimeCode{};
  const unsigned dropPerMinute = start.drop ? (fps + 15) / 30 * 2 : 0;
  const std::uint64_t perMinute = 60ull * fps - dropPerMinute;
  const std::uint64_t perTen = 10 * perMinute + dropPerMinute;
  auto toCount = [&](const TimeCode& t) {
    const std::uint64_t minutes = t.h * 60ull + t.m;
    return (minutes * 60 + t.s) * fps + t.f - dropPerMinute * (minutes - minutes / 10);
  };
  std::uint64_t n = toCount(start) + frames;
  if (dropPerMinute) {
    const std::uint64_t tens = n / perTen, rest = n % perTen;
    n += dropPerMinute * 9 * tens;
    if (rest > dropPerMinute) n += dropPerMinute * ((rest - dropPerMinute) / perMinute);
  }
  tc.f = static_cast<unsigned>(n % fps);
  n /= fps;
  tc.s = static_cast<unsigned>(n % 60);
  tc.m = static_cast<unsigned>(n / 60 % 60);
  tc.h = static_cast<unsigned>(n / 3600 % 24);
  return tc;
}

// ---- Pixels ---------------------------------------------------------------------------------

struct Delivery {
  ff::PixelLayout layout;
  std::uint32_t bytes;  // per pixel as delivered
};

bool LayoutFor(std::uint32_t code, Delivery* d) {
  switch (code) {
    case kPixRGB24:
      *d = {ff::PixelLayout::kRGB24, 3};
      return true;
    case kPixBGR24:
      *d = {ff::PixelLayout::kBGR24, 3};
      return true;
    case kPixRGBA32:
    case kPixRGBA:
      *d = {ff::PixelLayout::kRGBA8, 4};
      return true;
    case kPixBGRA:
      *d = {ff::PixelLayout::kBGRA8, 4};
      return true;
    case kPixB48r:  // read as host-order RGB16, swapped below
      *d = {ff::PixelLayout::kRGB16, 6};
      return true;
    case kPixB64a:  // read as big-endian RGBA, turned to ARGB below
      *d = {ff::PixelLayout::kRGBA16BE, 8};
      return true;
    default:  // "2vuy", "v210": the host has no image for them
      return false;
  }
}

void FinishPixels(std::uint32_t code, unsigned char* pixels, std::uint32_t w, std::uint32_t h,
                  std::uint32_t rowBytes) {
  for (std::uint32_t y = 0; y < h; ++y) {
    unsigned char* p = pixels + static_cast<std::size_t>(y) * rowBytes;
    if (code == kPixB48r) {
      for (std::uint32_t i = 0; i < w * 3; ++i) {
        std::uint16_t v;
        std::memcpy(&v, p + 2 * i, 2);
        p[2 * i] = static_cast<unsigned char>(v >> 8);
        p[2 * i + 1] = static_cast<unsigned char>(v);
      }
    } else if (code == kPixB64a) {
      for (std::uint32_t x = 0; x < w; ++x) {
        unsigned char* q = p + 8 * x;
        unsigned char a[2] = {q[6], q[7]};
        std::memmove(q + 2, q, 6);
        q[0] = a[0], q[1] = a[1];
      }
    }
  }
}

// ---- Movies ---------------------------------------------------------------------------------

struct PictureRef {  // 4098 kind 1: frames [first, first + length) of a file at movie frame start
  std::string path;
  std::uint32_t first = 0, length = 0, start = 0;
};
struct SoundRef {  // 4100
  std::string path;
  std::uint32_t track = 0, length = 0;
  std::uint64_t first = 0;
  double start = 0;
};

struct Movie {
  std::string path;
  // Reading
  std::unique_ptr<ff::MediaReader> reader;
  // Writing
  bool writing = false, reference = false;
  std::unique_ptr<ff::MovWriter> writer;
  double rate = 0;
  bool haveVideo = false;
  ff::VideoSettings video;
  std::vector<ff::AudioSettings> audio;
  std::vector<ff::SampleLayout> audioLayout;
  std::vector<std::uint64_t> audioWritten;
  std::string timecode;
  // Reference movies
  std::map<std::uint32_t, std::vector<unsigned char>> frames;  // 4099 by movie frame
  std::vector<PictureRef> pictures;
  std::vector<SoundRef> sounds;
};

std::map<std::uint32_t, Movie> g_movies;
std::uint32_t g_nextHandle = 1;

bool CodecFor(std::uint32_t fourcc, bool alpha, ff::VideoCodec* codec) {
  if (fourcc == FourCC('a', 'p', 'c', 'h'))
    *codec = ff::VideoCodec::kProRes422HQ;
  else if (fourcc == FourCC('a', 'p', '4', 'h'))
    *codec = ff::VideoCodec::kProRes4444;
  else if (fourcc == FourCC('A', 'V', 'd', 'h'))
    *codec = ff::VideoCodec::kDNxHRHQ;
  else if (fourcc == FourCC('v', '2', '1', '0'))
    *codec = ff::VideoCodec::kV210;
  else if (fourcc == FourCC('r', 'a', 'w', ' '))
    *codec = alpha ? ff::VideoCodec::kRGBA8 : ff::VideoCodec::kRGB24;
  else
    return false;
  return true;
}

ff::Rational RateFrom(double rate) {
  // Frame rates are handed over as doubles; NTSC rates come back as their exact fractions.
  for (const std::int64_t base : {24, 30, 48, 60, 120}) {
    const double ntsc = base * 1000.0 / 1001.0;
    if (std::fabs(rate - ntsc) < 1e-3) return {base * 1000, 1001};
  }
  if (std::fabs(rate - std::round(rate)) < 1e-6) return {static_cast<std::int64_t>(rate), 1};
  return {static_cast<std::int64_t>(std::llround(rate * 1000)), 1000};
}

std::uint32_t FieldCode(ff::FieldOrder f) {
  switch (f) {
    case ff::FieldOrder::kTopFirst:
      return 2;
    case ff::FieldOrder::kBottomFirst:
      return 3;
    default:
      return 1;
  }
}

// The file's codec tag as the channel writes it (first letter high), or the codec's name when
// the container has no tags (transport streams).
std::uint32_t CodecCode(const ff::VideoTrack& t) {
  if (t.fourcc)
    return (t.fourcc & 0xFF) << 24 | (t.fourcc >> 8 & 0xFF) << 16 | (t.fourcc >> 16 & 0xFF) << 8 |
           t.fourcc >> 24;
  char c[4] = {' ', ' ', ' ', ' '};
  for (std::size_t i = 0; i < 4 && i < t.codec.size(); ++i) c[i] = t.codec[i];
  return FourCC(c[0], c[1], c[2], c[3]);
}

bool IntraOnly(const std::string& codec) {
  static const char* const kIntra[] = {"prores", "dnxhd",    "rawvideo", "v210", "mjpeg",
                                       "png",    "jpeg2000", "dvvideo",  "qtrle"};
  for (const char* c : kIntra)
    if (codec == c) return true;
  return false;
}

bool SampleLayoutFor(std::uint32_t bits, std::uint32_t tag, ff::SampleLayout* out) {
  if (tag == 3 && bits == 32)
    *out = ff::SampleLayout::kF32;
  else if (tag == 1 && bits == 16)
    *out = ff::SampleLayout::kS16;
  else if (tag == 1 && bits == 24)
    *out = ff::SampleLayout::kS24;
  else if (tag == 1 && bits == 32)
    *out = ff::SampleLayout::kS32;
  else
    return false;
  return true;
}

// The PCM a track is read as: its own depth rounded up to 16, 24 or 32 bits.
ff::SampleLayout ReadLayout(const ff::AudioTrack& t) {
  if (t.bits <= 16 && !t.floating) return ff::SampleLayout::kS16;
  if (t.bits <= 24 && !t.floating) return ff::SampleLayout::kS24;
  return ff::SampleLayout::kS32;
}

std::int32_t OpenWriter(Movie& m) {
  if (m.writer) return 0;
  if (m.haveVideo && (m.video.width <= 0 || m.video.height <= 0)) return kInvalid;
  auto w = std::make_unique<ff::MovWriter>();
  const std::int32_t st =
      FromStatus(w->Open(m.path, m.haveVideo ? &m.video : nullptr, m.audio, m.timecode));
  if (st < 0) return st;
  m.writer = std::move(w);
  return 0;
}

std::int32_t AddFrame(Movie& m, const unsigned char* rgba) {
  if (const std::int32_t st = OpenWriter(m); st < 0) return st;
  return FromStatus(m.writer->WriteFrame(rgba, static_cast<std::ptrdiff_t>(m.video.width) * 4,
                                         ff::PixelLayout::kRGBA8));
}

// A reference movie made self-contained: pictures in movie-frame order (handed-over frames and
// frames of referenced files), a held frame repeated over gaps, then each sound piece.
std::int32_t AssembleReference(Movie& m) {
  std::map<std::uint32_t, std::pair<const PictureRef*, std::uint32_t>> fromFiles;
  for (const PictureRef& p : m.pictures)
    for (std::uint32_t i = 0; i < p.length; ++i) fromFiles[p.start + i] = {&p, p.first + i};
  std::uint32_t end = 0;
  if (!m.frames.empty()) end = std::max(end, m.frames.rbegin()->first + 1);
  if (!fromFiles.empty()) end = std::max(end, fromFiles.rbegin()->first + 1);
  const std::size_t frameBytes = static_cast<std::size_t>(m.video.width) * m.video.height * 4;
  std::vector<unsigned char> held(frameBytes, 0);
  std::map<std::string, std::unique_ptr<ff::MediaReader>> readers;
  auto reader = [&](const std::string& path) -> ff::MediaReader* {
    auto& r = readers[path];
    if (!r) {
      r = std::make_unique<ff::MediaReader>();
      if (r->Open(path) != ff::Status::kOk) return nullptr;
    }
    return r.get();
  };
  if (const std::int32_t st = OpenWriter(m); st < 0) return st;
  for (std::uint32_t f = 0; f < end; ++f) {
    if (auto it = m.frames.find(f); it != m.frames.end()) {
      held = it->second;
    } else if (auto ref = fromFiles.find(f); ref != fromFiles.end()) {
      ff::MediaReader* r = reader(ref->second.first->path);
      if (!r || r->Info().video.empty()) return kFail;
      const ff::VideoTrack& t = r->Info().video[0];
      if (t.width != m.video.width || t.height != m.video.height) return kInvalid;
      const std::int32_t st = FromStatus(
          r->ReadFrame(0, ref->second.second, ff::PixelLayout::kRGBA8, held.data(), t.width * 4));
      if (st != 0) return st < 0 ? st : kFail;
    }
    if (const std::int32_t st = AddFrame(m, held.data()); st < 0) return st;
  }
  for (const SoundRef& s : m.sounds) {
    ff::MediaReader* r = reader(s.path);
    if (!r || r->Info().audio.empty()) return kFail;
    const ff::AudioSettings& a = m.audio[s.track];
    const std::size_t bytes = static_cast<std::size_t>(s.length) * a.channels * 4;
    std::vector<unsigned char> pcm(bytes);
    if (const std::int32_t st = FromStatus(r->ReadAudio(
            0, static_cast<std::int64_t>(s.first), s.length, ff::SampleLayout::kS32, pcm.data()));
        st < 0)
      return st;
    if (const std::int32_t st = FromStatus(m.writer->WriteAudio(
            static_cast<int>(s.track), pcm.data(), s.length, ff::SampleLayout::kS32));
        st < 0)
      return st;
  }
  return FromStatus(m.writer->Finish());
}

std::int32_t ServeFrame(Movie& m, std::uint32_t track, std::uint32_t index, std::uint32_t code,
                        std::uint32_t maxW, std::uint32_t maxH, unsigned char* res) {
  if (!m.reader || track >= m.reader->Info().video.size()) return kInvalid;
  const ff::VideoTrack& t = m.reader->Info().video[track];
  if (index >= static_cast<std::uint64_t>(t.frames) || t.width <= 0 || t.height <= 0)
    return kInvalid;
  Delivery d;
  if (!LayoutFor(code, &d)) return kStatusFormatRefused;
  const auto fullW = static_cast<std::uint32_t>(t.width),
             fullH = static_cast<std::uint32_t>(t.height);
  std::uint32_t w = fullW, h = fullH;
  if (maxW && w > maxW)
    h = std::max<std::uint32_t>(
        1, static_cast<std::uint32_t>(static_cast<std::uint64_t>(h) * maxW / w)),
    w = maxW;
  if (maxH && h > maxH)
    w = std::max<std::uint32_t>(
        1, static_cast<std::uint32_t>(static_cast<std::uint64_t>(w) * maxH / h)),
    h = maxH;
  const bool scaled = w != fullW || h != fullH;
  const std::uint64_t rowBytes = (ff::MinRowBytes(d.layout, w) + 63) / 64 * 64;
  if (rowBytes * h + kPixelsAt > kResultBytes) return kInvalid;
  unsigned char* pixels = res + kPixelsAt;
  if (!scaled) {
    const std::int32_t st = FromStatus(m.reader->ReadFrame(
        static_cast<int>(track), index, d.layout, pixels, static_cast<std::ptrdiff_t>(rowBytes)));
    if (st != 0) return st;
    FinishPixels(code, pixels, w, h, static_cast<std::uint32_t>(rowBytes));
  } else {
    // A scaled frame is a box average of the full RGBA frame.
    std::vector<unsigned char> full;
    try {
      full.resize(static_cast<std::size_t>(fullW) * fullH * 4);
    } catch (const std::bad_alloc&) {
      return kNoMemory;
    }
    const std::int32_t st = FromStatus(m.reader->ReadFrame(
        static_cast<int>(track), index, ff::PixelLayout::kRGBA8, full.data(), fullW * 4));
    if (st != 0) return st;
    for (std::uint32_t y = 0; y < h; ++y) {
      const std::uint32_t y0 = y * fullH / h, y1 = std::max(y0 + 1, (y + 1) * fullH / h);
      for (std::uint32_t x = 0; x < w; ++x) {
        const std::uint32_t x0 = x * fullW / w, x1 = std::max(x0 + 1, (x + 1) * fullW / w);
        std::uint64_t sum[4] = {};
        for (std::uint32_t sy = y0; sy < y1; ++sy)
          for (std::uint32_t sx = x0; sx < x1; ++sx)
            for (int c = 0; c < 4; ++c)
              sum[c] += full[(static_cast<std::size_t>(sy) * fullW + sx) * 4 + c];
        const std::uint64_t n = static_cast<std::uint64_t>(y1 - y0) * (x1 - x0);
        for (int c = 0; c < 4; ++c)
          pixels[y * rowBytes + x * 4 + c] = static_cast<unsigned char>((sum[c] + n / 2) / n);
      }
    }
  }
  Put32(res, frame::kAnsOffset, kPixelsAt);
  Put32(res, frame::kAnsWidth, w);
  Put32(res, frame::kAnsHeight, h);
  Put32(res, frame::kAnsRowBytes, static_cast<std::uint32_t>(rowBytes));
  Put32(res, frame::kAnsPixelFormat, code);
  Put32(res, frame::kAnsHint, 1);
  Put32(res, frame::kAnsFields, FieldCode(t.fieldOrder));
  return 0;
}

std::int32_t Serve(unsigned char* ins, unsigned char* res) {
  using vx::qt::decoder::ReadText;
  const std::uint32_t cmd = Get32(ins, kInsCommand);
  const std::uint32_t handle = Get32(ins, kInsMovie);
  const std::uint32_t count = Get32(ins, kInsCount);
  if (count > kMaxPayload) return kInvalid;
  auto u32 = [&](std::uint32_t offset) { return Get32(ins, offset); };
  try {
    if (cmd == kOpen) {
      Movie m;
      if (!ReadText(ins, open::kPath, count, &m.path)) return kInvalid;
      m.reader = std::make_unique<ff::MediaReader>();
      if (const std::int32_t st = FromStatus(m.reader->Open(m.path)); st != 0)
        return st < 0 ? st : kFail;
      const std::uint32_t h = g_nextHandle++;
      Put32(res, open::kAnsMovie, h);
      Put32(res, open::kAnsVideoTracks, static_cast<std::uint32_t>(m.reader->Info().video.size()));
      Put32(res, open::kAnsAudioTracks, static_cast<std::uint32_t>(m.reader->Info().audio.size()));
      g_movies[h] = std::move(m);
      return 0;
    }
    if (cmd == kCreate || cmd == kRefCreate) {
      Movie m;
      m.writing = true;
      const std::uint32_t pathAt = cmd == kCreate ? create::kPath : refcreate::kPath;
      if (count < PathPayload(create::kFixed, 0) || !ReadText(ins, pathAt, count, &m.path) ||
          m.path.empty())
        return kInvalid;
      if (cmd == kCreate) {
        if (u32(create::kVideoTracks) > 1 || u32(create::kAudioTracks) > 16) return kInvalid;
        m.haveVideo = u32(create::kVideoTracks) == 1;
        m.audio.resize(u32(create::kAudioTracks));
        m.rate = GetF64(ins, create::kRate);
      } else {
        m.reference = true;
        m.haveVideo = true;
        m.rate = GetF64(ins, refcreate::kRate);
        m.video.width = static_cast<int>(std::min<std::uint32_t>(u32(refcreate::kWidth), 65535));
        m.video.height = static_cast<int>(std::min<std::uint32_t>(u32(refcreate::kHeight), 65535));
      }
      if (!(m.rate > 0 && m.rate < 1e6)) return kInvalid;
      m.video.rate = RateFrom(m.rate);
      m.audioLayout.assign(m.audio.size(), ff::SampleLayout::kS16);
      m.audioWritten.assign(m.audio.size(), 0);
      for (ff::AudioSettings& a : m.audio) a.sampleRate = static_cast<int>(m.rate);
      const std::uint32_t h = g_nextHandle++;
      Put32(res, create::kAnsMovie, h);
      g_movies[h] = std::move(m);
      return 0;
    }

    auto found = g_movies.find(handle);
    if (found == g_movies.end()) return kInvalid;
    Movie& m = found->second;
    const ff::MediaInfo* info = m.reader ? &m.reader->Info() : nullptr;

    switch (cmd) {
      case kClose:
        g_movies.erase(found);  // a writer never finished leaves no file
        return 0;
      case kFinishSetup: {
        std::string text;
        if (!m.writing || !ReadText(ins, kInsPayload, count, &text)) return kInvalid;
        for (std::size_t at = 0; at < text.size();) {
          std::size_t nl = text.find('\n', at);
          if (nl == std::string::npos) nl = text.size();
          std::string line = text.substr(at, nl - at);
          if (!line.empty() && line.back() == '\r') line.pop_back();
          if (line.rfind("timecode=", 0) == 0)
            m.timecode = TimeCodeFromBcd(
                static_cast<std::uint32_t>(std::strtoul(line.c_str() + 9, nullptr, 16)));
          at = nl + 1;
        }
        return m.reference ? 0 : OpenWriter(m);
      }
      case kCompressionSettings: {
        std::string text;
        if (!ReadText(ins, compression::kText, count, &text)) return kInvalid;
        std::uint32_t codec = FourCC('a', 'p', 'c', 'h');
        const std::size_t at = text.find("codec=");
        if (at != std::string::npos && text.size() >= at + 10) {
          const char* c = text.c_str() + at + 6;
          codec = FourCC(c[0], c[1], c[2], c[3]);
        }
        ff::VideoCodec known;
        if (!CodecFor(codec, false, &known)) return kInvalid;
        const char* name = codec == FourCC('a', 'p', '4', 'h')   ? "Apple ProRes 4444"
                           : codec == FourCC('A', 'V', 'd', 'h') ? "DNxHR"
                           : codec == FourCC('v', '2', '1', '0') ? "10-bit YCbCr 4:2:2"
                           : codec == FourCC('r', 'a', 'w', ' ') ? "RGB"
                                                                 : "Apple ProRes 422 HQ";
        Put32(res, compression::kAnsCodec, codec);
        PutF64(res, compression::kAnsQuality, 1.0);
        std::memset(res + compression::kAnsName, 0, 2 * compression::kNameChars);
        for (std::size_t i = 0; name[i]; ++i) res[compression::kAnsName + 2 * i] = name[i];
        const std::string kept = std::string("codec=") + static_cast<char>(codec >> 24) +
                                 static_cast<char>(codec >> 16) + static_cast<char>(codec >> 8) +
                                 static_cast<char>(codec);
        Put32(res, compression::kAnsEntryCount, static_cast<std::uint32_t>(kept.size()));
        std::memcpy(res + compression::kAnsEntries, kept.data(), kept.size());
        return 0;
      }
      case kFinishMovie:
        if (!m.writing || m.reference || count != finish::kCount) return kInvalid;
        if (const std::int32_t st = OpenWriter(m); st < 0) return st;
        return FromStatus(m.writer->Finish());
      case kMovieInfo: {
        if (!info) return kInvalid;
        const double rate = info->video.empty() ? 0 : info->video[0].rate.Value();
        Put32(res, info::kAnsVideoTracks, static_cast<std::uint32_t>(info->video.size()));
        Put32(res, info::kAnsAudioTracks, static_cast<std::uint32_t>(info->audio.size()));
        Put32(res, info::kAnsTimeScale, 600);
        const double units = info->duration * 600.0;
        Put32(res, info::kAnsDuration,
              units > 0 && units < 4294967295.0 ? static_cast<std::uint32_t>(std::llround(units))
                                                : 0);
        PutF64(res, info::kAnsRate, rate);
        Put32(res, info::kAnsTimeCode, Bcd(ParseTimeCode(info->timecode)));
        return 0;
      }
      case kFormatName: {
        if (!info) return kInvalid;
        std::string text = info->container;
        for (const ff::VideoTrack& t : info->video) text += ", " + t.codec + " video";
        for (const ff::AudioTrack& t : info->audio) text += ", " + t.codec + " sound";
        const std::size_t n = std::min<std::size_t>(text.size(), text::kMaxChars - 1);
        std::memcpy(res + text::kAnsText, text.data(), n);
        res[text::kAnsText + n] = 0;
        return 0;
      }
      case kVideoFormat: {
        if (!info || count != vformat::kCount || u32(vformat::kTrack) >= info->video.size())
          return kInvalid;
        const ff::VideoTrack& t = info->video[u32(vformat::kTrack)];
        PutF64(res, vformat::kAnsRate, t.rate.Value());
        PutF64(res, vformat::kAnsDurationNum, 1.0);
        Put32(res, vformat::kAnsFrames,
              static_cast<std::uint32_t>(std::min<std::int64_t>(t.frames, 0xFFFFFFFF)));
        Put32(res, vformat::kAnsCodec, CodecCode(t));
        Put32(res, vformat::kAnsHeight, static_cast<std::uint32_t>(t.height));
        Put32(res, vformat::kAnsAlpha, t.alpha ? 1 : 0);
        Put32(res, vformat::kAnsFields, FieldCode(t.fieldOrder));
        Put32(res, vformat::kAnsWidth, static_cast<std::uint32_t>(t.width));
        Put32(res, vformat::kAnsBits, static_cast<std::uint32_t>(t.bitDepth));
        return 0;
      }
      case kVideoSetup: {
        if (!m.writing || m.writer || count != vsetup::kCount || u32(vsetup::kTrack) != 0 ||
            !m.haveVideo)
          return kInvalid;
        const std::uint32_t w = u32(vsetup::kWidth), h = u32(vsetup::kHeight);
        if (w == 0 || h == 0 || w > 65535 || h > 65535) return kInvalid;
        const double rate = GetF64(ins, vsetup::kRate);
        if (!(rate > 0 && rate < 1e6)) return kInvalid;
        const std::uint32_t codec = u32(vsetup::kCodec);
        if (!CodecFor(codec, codec == FourCC('a', 'p', '4', 'h'), &m.video.codec)) return kInvalid;
        m.video.width = static_cast<int>(w);
        m.video.height = static_cast<int>(h);
        m.video.rate = RateFrom(rate);
        return 0;
      }
      case kReadFrame:
        if (count != frame::kCount) return kInvalid;
        return ServeFrame(m, u32(frame::kTrack), u32(frame::kFrame), u32(frame::kPixelFormat), 0, 0,
                          res);
      case kReadScaledFrame:
        if (count != scaled::kCount) return kInvalid;
        return ServeFrame(m, u32(scaled::kTrack), u32(scaled::kFrame), kPixRGBA32,
                          u32(scaled::kMaxWidth), u32(scaled::kMaxHeight), res);
      case kFrameInfo: {
        if (!info || count != frameinfo::kCount || u32(frameinfo::kTrack) >= info->video.size())
          return kInvalid;
        const ff::VideoTrack& t = info->video[u32(frameinfo::kTrack)];
        const TimeCode start = ParseTimeCode(info->timecode);
        const auto fps = static_cast<unsigned>(std::lround(t.rate.Value()));
        const TimeCode tc = AddFrames(start, u32(frameinfo::kFrame), fps);
        const bool intra = IntraOnly(t.codec);
        Put32(res, frameinfo::kAnsTimeCode, Bcd(tc));
        Put32(res, frameinfo::kAnsTimeCodeRate, tc.valid ? fps : 0);
        Put32(res, frameinfo::kAnsDropFrame, tc.valid && tc.drop ? 1 : 0);
        Put32(res, frameinfo::kAnsUserBits, 0);
        Put32(res, frameinfo::kAnsKeyFrame, intra ? 1 : 0);
        Put32(res, frameinfo::kAnsPictureType, intra ? 'I' : 0);
        return 0;
      }
      case kAudioFormat: {
        if (!info || count != aformat::kCount || u32(aformat::kTrack) >= info->audio.size())
          return kInvalid;
        const ff::AudioTrack& t = info->audio[u32(aformat::kTrack)];
        Put32(res, aformat::kAnsRate, static_cast<std::uint32_t>(t.sampleRate));
        Put32(res, aformat::kAnsChannels, static_cast<std::uint32_t>(t.channels));
        Put32(res, aformat::kAnsBits,
              static_cast<std::uint32_t>(8 * ff::SampleBytes(ReadLayout(t))));
        Put32(res, aformat::kAnsMask, static_cast<std::uint32_t>(t.channelMask));
        Put64(res, aformat::kAnsSamplesLow, static_cast<std::uint64_t>(t.samples));
        return 0;
      }
      case kAudioSetup: {
        if (!m.writing || m.writer || count != asetup::kCount ||
            u32(asetup::kTrack) >= m.audio.size())
          return kInvalid;
        const std::uint32_t track = u32(asetup::kTrack);
        const std::uint32_t rate = u32(asetup::kRate), channels = u32(asetup::kChannels);
        if (rate == 0 || rate > 1000000 || channels == 0 || channels > 64 ||
            !SampleLayoutFor(u32(asetup::kBits), u32(asetup::kTag), &m.audioLayout[track]))
          return kInvalid;
        m.audio[track].sampleRate = static_cast<int>(rate);
        m.audio[track].channels = static_cast<int>(channels);
        m.audio[track].bits = u32(asetup::kBits) == 16 ? 16 : 24;
        return 0;
      }
      case kReadAudio: {
        if (!info || count != aread::kCount || u32(aread::kTrack) >= info->audio.size())
          return kInvalid;
        const ff::AudioTrack& t = info->audio[u32(aread::kTrack)];
        const ff::SampleLayout layout = ReadLayout(t);
        const std::uint64_t first = Get64(ins, aread::kFirstLow);
        const auto total = static_cast<std::uint64_t>(t.samples);
        std::uint64_t n = u32(aread::kFrames);
        n = first >= total ? 0 : std::min(n, total - first);
        const std::uint64_t frameBytes = static_cast<std::uint64_t>(ff::SampleBytes(layout)) *
                                         static_cast<std::uint64_t>(t.channels);
        if (frameBytes == 0 || n * frameBytes > kResultBytes - kSamplesAt) return kInvalid;
        if (n) {
          std::int64_t got = 0;
          const std::int32_t st = FromStatus(m.reader->ReadAudio(
              static_cast<int>(u32(aread::kTrack)), static_cast<std::int64_t>(first),
              static_cast<std::int64_t>(n), layout, res + kSamplesAt, &got));
          if (st != 0) return st < 0 ? st : kFail;
          n = static_cast<std::uint64_t>(std::max<std::int64_t>(0, got));
        }
        Put32(res, aread::kAnsOffset, kSamplesAt);
        Put32(res, aread::kAnsFrames, static_cast<std::uint32_t>(n));
        return 0;
      }
      case kWriteAudio: {
        if (!m.writing || m.reference || count != awrite::kCount ||
            u32(awrite::kTrack) >= m.audio.size())
          return kInvalid;
        const std::uint32_t track = u32(awrite::kTrack);
        const std::uint64_t frames = u32(awrite::kFrames);
        const std::uint64_t bytes =
            frames * static_cast<std::uint64_t>(m.audio[track].channels) *
            static_cast<std::uint64_t>(ff::SampleBytes(m.audioLayout[track]));
        if (bytes > kResultBytes) return kInvalid;
        if (const std::int32_t st = OpenWriter(m); st < 0) return st;
        if (frames) {
          const std::int32_t st = FromStatus(m.writer->WriteAudio(static_cast<int>(track), res,
                                                                  static_cast<std::int64_t>(frames),
                                                                  m.audioLayout[track]));
          if (st < 0) return st;
        }
        m.audioWritten[track] += frames;
        Put64(res, awrite::kAnsTotalLow, m.audioWritten[track]);
        return 0;
      }
      case kRefCompression: {
        if (!m.reference || m.writer || count != refcompression::kCount) return kInvalid;
        if (!CodecFor(u32(refcompression::kCodec), u32(refcompression::kAlpha) != 0,
                      &m.video.codec))
          return kInvalid;
        return 0;
      }
      case kRefAddMedia: {
        PictureRef p;
        if (!m.reference || m.writer || count < refmedia::kFixed ||
            !ReadText(ins, refmedia::kPath, count, &p.path))
          return kInvalid;
        if (u32(refmedia::kKind) != 1) return kNotImpl;  // sound comes through 4100
        p.first = u32(refmedia::kFirst);
        p.length = u32(refmedia::kLength);
        p.start = u32(refmedia::kStart);
        if (static_cast<std::uint64_t>(p.start) + p.length > 1000000) return kInvalid;
        m.pictures.push_back(std::move(p));
        return 0;
      }
      case kRefAddFrame: {
        if (count != refframe::kCount) return kInvalid;
        const std::uint32_t w = u32(refframe::kWidth), h = u32(refframe::kHeight);
        if (w == 0 || h == 0) return 0;
        if (!m.writing || m.video.width <= 0 || w != static_cast<std::uint32_t>(m.video.width) ||
            h != static_cast<std::uint32_t>(m.video.height) || u32(refframe::kTrack) != 0)
          return kInvalid;
        if (m.reference) {
          if (m.writer || u32(refframe::kFrame) > 1000000) return kInvalid;
          m.frames[u32(refframe::kFrame)].assign(res, res + static_cast<std::size_t>(w) * h * 4);
          return 0;
        }
        return AddFrame(m, res);
      }
      case kRefAddSound: {
        SoundRef s;
        if (!m.reference || m.writer || count < refsound::kFixed ||
            !ReadText(ins, refsound::kPath, count, &s.path))
          return kInvalid;
        s.track = u32(refsound::kTrack);
        s.first = Get64(ins, refsound::kFirstLow);
        s.length = u32(refsound::kLength);
        s.start = GetF64(ins, refsound::kStart);
        const std::uint32_t tagChannels = Get32(ins, refsound::kFormat);
        const std::uint32_t rate = Get32(ins, refsound::kFormat + 4);
        const std::uint32_t channels = tagChannels >> 16;
        if (s.track > 15 || channels == 0 || channels > 64 || rate == 0 || rate > 1000000 ||
            s.length > 48000u * 3600)
          return kInvalid;
        if (s.track >= m.audio.size()) m.audio.resize(s.track + 1);
        m.audio[s.track].sampleRate = static_cast<int>(rate);
        m.audio[s.track].channels = static_cast<int>(channels);
        m.audio[s.track].bits = 24;
        m.sounds.push_back(std::move(s));
        return 0;
      }
      case kRefTimeCode:
        if (!m.reference || m.writer || count != reftimecode::kCount) return kInvalid;
        m.timecode = TimeCodeFromBcd(u32(reftimecode::kTimeCode));
        if (u32(reftimecode::kDropFrame) && m.timecode.size() == 11) m.timecode[8] = ';';
        return 0;
      case kRefFinish:
        if (!m.reference || m.writer) return kInvalid;
        return AssembleReference(m);
      default:
        return kNotImpl;
    }
  } catch (const std::bad_alloc&) {
    return kNoMemory;
  } catch (...) {
    return kFail;
  }
}

}  // namespace

int main(int argc, char** argv) {
  return vx::qt::decoder::Run(argc, argv, Serve);
}
