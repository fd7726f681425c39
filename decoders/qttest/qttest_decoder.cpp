// A channel test decoder: speaks the QuickTime decoder channel exactly as the real decoder
// program does, over synthetic movies, so the manager and the parser can be tested where no
// real decoder exists (the Windows builds) and their failure paths proved with real processes.
//
// A "movie" is a text file, one item a line:
//   video W H RATE FRAMES [alpha] [fields=N] [codec=FOURCC] [tc=HH:MM:SS:FF] [bits=N]
//   audio RATE CHANNELS BITS SAMPLES [mask=N]
//   format=NAME         the answer of command 7
//   crash=CMD           exit at once when command CMD arrives for this movie
//   hang=CMD            never answer command CMD
//   refuse=FOURCC|N     answer 2000 when frames are asked for in that pixel format (repeatable)
//   delay4=MS           answer command 4 only after MS milliseconds
//   still               every frame is frame 0, made once and copied (channel timing)
// Frames are a pattern computed from track, frame and position; sound is a ramp. Movies being
// written are logged to "<path>.log" (one line per request) and, when closed, described at
// <path> in the same text form, so they can be opened again.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "movie/qt/qt_channel.h"
#include "qt_decoder_loop.h"
#include "vx/platform.h"

using namespace vx::qt;
namespace os = vx::os;

namespace {

constexpr std::int32_t kFail = static_cast<std::int32_t>(0x80004005u);
constexpr std::int32_t kInvalid = static_cast<std::int32_t>(0x80070057u);
constexpr std::uint32_t kNone = 0xFFFFFFFFu;

struct VideoTrack {
  std::uint32_t width = 0, height = 0, frames = 0, codec = FourCC('a', 'p', 'c', 'h');
  double rate = 25;
  bool alpha = false;
  std::uint32_t fields = 1, bits = 8, timeCode = kNone;
  std::uint32_t written = 0;
};

struct AudioTrack {
  std::uint32_t rate = 48000, channels = 2, bits = 16, mask = 3, tag = 1;
  std::uint64_t samples = 0;
  std::uint64_t written = 0;
};

struct Movie {
  std::string path;  // UTF-8
  bool writing = false;
  double rate = 0;
  std::vector<VideoTrack> video;
  std::vector<AudioTrack> audio;
  std::string format = "qttest synthetic movie";
  std::uint32_t crash = kNone, hang = kNone, delay4 = 0;
  std::vector<std::uint32_t> refuse;
  bool still = false;
};

std::map<std::uint32_t, Movie> g_movies;
std::uint32_t g_nextHandle = 1;

std::uint32_t Bcd(std::uint32_t h, std::uint32_t m, std::uint32_t s, std::uint32_t f) {
  auto two = [](std::uint32_t v) { return (v / 10) << 4 | (v % 10); };
  return two(h) << 24 | two(m) << 16 | two(s) << 8 | two(f);
}

std::uint32_t CodeFromText(const std::string& v) {
  if (v.size() == 4 && !(v[0] >= '0' && v[0] <= '9')) return FourCC(v[0], v[1], v[2], v[3]);
  return static_cast<std::uint32_t>(std::strtoul(v.c_str(), nullptr, 0));
}

bool ReadDescription(const std::string& path, Movie* m) {
  const VxString wide = vx::FromUtf8(path);
  std::FILE* f = os::OpenStdio(wide.c_str(), VXT("rb"));
  if (!f) return false;
  char line[512];
  bool any = false;
  while (std::fgets(line, sizeof line, f)) {
    std::vector<std::string> words;
    for (char* w = std::strtok(line, " \t\r\n"); w; w = std::strtok(nullptr, " \t\r\n"))
      words.emplace_back(w);
    if (words.empty()) continue;
    const std::string& k = words[0];
    auto value = [&](const char* key) { return k.substr(std::strlen(key)); };
    if (k == "video" && words.size() >= 5) {
      VideoTrack t;
      t.width = static_cast<std::uint32_t>(std::strtoul(words[1].c_str(), nullptr, 10));
      t.height = static_cast<std::uint32_t>(std::strtoul(words[2].c_str(), nullptr, 10));
      t.rate = std::strtod(words[3].c_str(), nullptr);
      t.frames = static_cast<std::uint32_t>(std::strtoul(words[4].c_str(), nullptr, 10));
      for (std::size_t i = 5; i < words.size(); ++i) {
        const std::string& w = words[i];
        unsigned h, mi, s, fr;
        if (w == "alpha") t.alpha = true;
        if (w.rfind("fields=", 0) == 0) t.fields = CodeFromText(w.substr(7));
        if (w.rfind("codec=", 0) == 0) t.codec = CodeFromText(w.substr(6));
        if (w.rfind("bits=", 0) == 0) t.bits = CodeFromText(w.substr(5));
        if (std::sscanf(w.c_str(), "tc=%u:%u:%u:%u", &h, &mi, &s, &fr) == 4)
          t.timeCode = Bcd(h, mi, s, fr);
      }
      m->video.push_back(t);
      any = true;
    } else if (k == "audio" && words.size() >= 5) {
      AudioTrack t;
      t.rate = static_cast<std::uint32_t>(std::strtoul(words[1].c_str(), nullptr, 10));
      t.channels = static_cast<std::uint32_t>(std::strtoul(words[2].c_str(), nullptr, 10));
      t.bits = static_cast<std::uint32_t>(std::strtoul(words[3].c_str(), nullptr, 10));
      t.samples = std::strtoull(words[4].c_str(), nullptr, 10);
      for (std::size_t i = 5; i < words.size(); ++i)
        if (words[i].rfind("mask=", 0) == 0) t.mask = CodeFromText(words[i].substr(5));
      m->audio.push_back(t);
      any = true;
    } else if (k == "still") {
      m->still = true;
    } else if (k.rfind("format=", 0) == 0) {
      m->format = value("format=");
    } else if (k.rfind("crash=", 0) == 0) {
      m->crash = CodeFromText(value("crash="));
    } else if (k.rfind("hang=", 0) == 0) {
      m->hang = CodeFromText(value("hang="));
    } else if (k.rfind("refuse=", 0) == 0) {
      m->refuse.push_back(CodeFromText(value("refuse=")));
    } else if (k.rfind("delay4=", 0) == 0) {
      m->delay4 = CodeFromText(value("delay4="));
    }
  }
  std::fclose(f);
  return any;
}

void Log(const Movie& m, const std::string& line) {
  const VxString wide = vx::FromUtf8(m.path + ".log");
  if (std::FILE* f = os::OpenStdio(wide.c_str(), VXT("ab"))) {
    std::fputs(line.c_str(), f);
    std::fputc('\n', f);
    std::fclose(f);
  }
}

std::string Printf(const char* format, ...) {
  char buf[1024];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buf, sizeof buf, format, args);
  va_end(args);
  return buf;
}

std::uint32_t Fnv(const unsigned char* p, std::size_t n) {
  std::uint32_t h = 2166136261u;
  for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
  return h;
}

std::string CodeText(std::uint32_t c) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) s += static_cast<char>(c >> shift);
  return s;
}

void WriteDescription(const Movie& m) {
  const VxString wide = vx::FromUtf8(m.path);
  std::FILE* f = os::OpenStdio(wide.c_str(), VXT("wb"));
  if (!f) return;
  for (const VideoTrack& t : m.video)
    std::fprintf(f, "video %u %u %.17g %u codec=%s%s\n", t.width, t.height, t.rate, t.written,
                 CodeText(t.codec).c_str(), t.alpha ? " alpha" : "");
  for (const AudioTrack& t : m.audio)
    std::fprintf(f, "audio %u %u %u %llu\n", t.rate, t.channels, t.bits,
                 static_cast<unsigned long long>(t.written));
  std::fclose(f);
}

// The pattern every test computes for itself: 8-bit R, G, B, A of a pixel.
void Pixel(std::uint32_t track, std::uint32_t frame, std::uint32_t x, std::uint32_t y, bool alpha,
           unsigned char out[4]) {
  out[0] = static_cast<unsigned char>(x + 3 * frame + 17 * track);
  out[1] = static_cast<unsigned char>(2 * y + frame);
  out[2] = static_cast<unsigned char>(x ^ y);
  out[3] = alpha ? static_cast<unsigned char>(x + y) : 255;
}

bool ReadPath(const unsigned char* ins, std::uint32_t offset, std::uint32_t count,
              std::string* out) {
  return vx::qt::decoder::ReadText(ins, offset, count, out);
}

std::int32_t ServeFrame(const Movie& m, std::uint32_t track, std::uint32_t frame,
                        std::uint32_t code, std::uint32_t outW, std::uint32_t outH,
                        unsigned char* res) {
  if (track >= m.video.size()) return kInvalid;
  const VideoTrack& t = m.video[track];
  if (frame >= t.frames) return kInvalid;
  for (std::uint32_t r : m.refuse)
    if (code == r) return kStatusFormatRefused;
  const std::uint32_t bpp = PixelBytes(code);
  if (bpp == 0 || code == kPix2vuy) return kStatusFormatRefused;
  const std::uint32_t offset = 64;
  const std::uint32_t rowBytes = outW * bpp + 16;  // padded rows: the reader must step by them
  const std::size_t bytes = static_cast<std::size_t>(rowBytes) * outH;
  if (bytes + offset > kResultBytes) return kInvalid;
  // A still movie's picture is made once; serving it is one copy, as a decoder writing its
  // output into the block would do.
  static std::vector<unsigned char> cache;
  static std::uint32_t cacheKey[4] = {};
  const std::uint32_t key[4] = {track, code, outW, outH};
  const bool cached = m.still && !cache.empty() && std::memcmp(key, cacheKey, sizeof key) == 0;
  if (cached) {
    std::memcpy(res + offset, cache.data(), bytes);
  }
  if (m.still) frame = 0;
  for (std::uint32_t y = 0; y < outH && !cached; ++y) {
    unsigned char* row = res + offset + static_cast<std::size_t>(y) * rowBytes;
    for (std::uint32_t x = 0; x < outW; ++x) {
      unsigned char p[4];
      Pixel(track, frame, x * t.width / outW, y * t.height / outH, t.alpha, p);
      unsigned char* d = row + static_cast<std::size_t>(x) * bpp;
      switch (code) {
        case kPixRGB24:
          std::memcpy(d, p, 3);
          break;
        case kPixBGR24:
          d[0] = p[2], d[1] = p[1], d[2] = p[0];
          break;
        case kPixBGRA:
          d[0] = p[2], d[1] = p[1], d[2] = p[0], d[3] = p[3];
          break;
        case kPixB48r:
          for (int c = 0; c < 3; ++c) d[2 * c] = d[2 * c + 1] = p[c];
          break;
        case kPixB64a:
          d[0] = d[1] = p[3];
          for (int c = 0; c < 3; ++c) d[2 + 2 * c] = d[3 + 2 * c] = p[c];
          break;
        default:
          std::memcpy(d, p, 4);
          break;
      }
    }
  }
  if (m.still && !cached) {
    cache.assign(res + offset, res + offset + bytes);
    std::memcpy(cacheKey, key, sizeof key);
  }
  Put32(res, frame::kAnsOffset, offset);
  Put32(res, frame::kAnsWidth, outW);
  Put32(res, frame::kAnsHeight, outH);
  Put32(res, frame::kAnsRowBytes, rowBytes);
  Put32(res, frame::kAnsPixelFormat, code);
  Put32(res, frame::kAnsHint, 1);
  Put32(res, frame::kAnsFields, t.fields);
  return 0;
}

// One sample of the ramp, as the track's little-endian bytes.
void Sample(const AudioTrack& t, std::uint64_t s, std::uint32_t c, unsigned char* d) {
  const std::uint32_t bytes = t.bits / 8;
  std::uint32_t v;
  if (bytes == 1)
    v = static_cast<std::uint32_t>(s + 16 * c) & 0xFF;
  else
    v = static_cast<std::uint32_t>(s * 64 + 1000 * c);
  for (std::uint32_t b = 0; b < bytes; ++b)
    d[b] = b < 4 ? static_cast<unsigned char>(v >> (8 * b)) : 0;
}

std::int32_t Serve(unsigned char* ins, unsigned char* res) {
  const std::uint32_t cmd = Get32(ins, kInsCommand);
  const std::uint32_t handle = Get32(ins, kInsMovie);
  const std::uint32_t count = Get32(ins, kInsCount);
  if (count > kMaxPayload) return kInvalid;
  auto u32 = [&](std::uint32_t offset) { return Get32(ins, offset); };

  if (cmd == kOpen) {
    Movie m;
    if (!ReadPath(ins, open::kPath, count, &m.path)) return kInvalid;
    if (!ReadDescription(m.path, &m)) return kFail;
    if (m.crash == kOpen) std::_Exit(3);
    const std::uint32_t h = g_nextHandle++;
    Put32(res, open::kAnsMovie, h);
    Put32(res, open::kAnsVideoTracks, static_cast<std::uint32_t>(m.video.size()));
    Put32(res, open::kAnsAudioTracks, static_cast<std::uint32_t>(m.audio.size()));
    g_movies[h] = std::move(m);
    return 0;
  }
  if (cmd == kCreate || cmd == kRefCreate) {
    Movie m;
    m.writing = true;
    const std::uint32_t pathAt = cmd == kCreate ? create::kPath : refcreate::kPath;
    if (count < PathPayload(create::kFixed, 0) || !ReadPath(ins, pathAt, count, &m.path))
      return kInvalid;
    if (cmd == kCreate) {
      m.video.resize(u32(create::kVideoTracks) > 16 ? 16 : u32(create::kVideoTracks));
      m.audio.resize(u32(create::kAudioTracks) > 16 ? 16 : u32(create::kAudioTracks));
      m.rate = GetF64(ins, create::kRate);
    } else {
      m.rate = GetF64(ins, refcreate::kRate);
      m.video.resize(1);
      m.video[0].width = u32(refcreate::kWidth);
      m.video[0].height = u32(refcreate::kHeight);
      m.video[0].rate = m.rate;
    }
    const VxString wide = vx::FromUtf8(m.path + ".log");
    os::Remove(wide.c_str());
    Log(m, cmd == kCreate ? Printf("create video=%u audio=%u rate=%.17g count=%u",
                                   static_cast<unsigned>(m.video.size()),
                                   static_cast<unsigned>(m.audio.size()), m.rate, count)
                          : Printf("refcreate rate=%.17g size=%ux%u count=%u", m.rate,
                                   u32(refcreate::kWidth), u32(refcreate::kHeight), count));
    const std::uint32_t h = g_nextHandle++;
    Put32(res, create::kAnsMovie, h);
    g_movies[h] = std::move(m);
    return 0;
  }

  auto found = g_movies.find(handle);
  if (found == g_movies.end()) return kInvalid;
  Movie& m = found->second;
  if (cmd == m.crash) std::_Exit(3);
  if (cmd == m.hang) vx::qt::decoder::HangUntilTold();

  switch (cmd) {
    case kClose:
      if (m.writing) {
        Log(m, "close");
        WriteDescription(m);
      }
      g_movies.erase(found);
      return 0;
    case kFinishSetup: {
      std::string text;
      if (!ReadPath(ins, kInsPayload, count, &text)) return kInvalid;
      for (char& c : text)
        if (c == '\n') c = ';';
      Log(m, Printf("setup text=%s", text.c_str()));
      return 0;
    }
    case kCompressionSettings: {
      std::string text;
      if (!ReadPath(ins, compression::kText, count, &text)) return kInvalid;
      if (m.delay4) os::SleepMs(m.delay4);
      Put32(res, compression::kAnsCodec, FourCC('a', 'p', 'c', 'h'));
      PutF64(res, compression::kAnsQuality, 0.75);
      const char name[] = "ProRes 422 HQ";
      std::memset(res + compression::kAnsName, 0, 2 * compression::kNameChars);
      for (std::size_t i = 0; name[i]; ++i) res[compression::kAnsName + 2 * i] = name[i];
      Put32(res, compression::kAnsEntryCount, static_cast<std::uint32_t>(text.size()));
      std::memcpy(res + compression::kAnsEntries, text.data(), text.size());
      return 0;
    }
    case kFinishMovie:
      if (count != finish::kCount) return kInvalid;
      Log(m, Printf("finish vframes=%u aframes=%llu vtracks=%u atracks=%u tc=%08X",
                    u32(finish::kVideoFrames),
                    static_cast<unsigned long long>(Get64(ins, finish::kAudioLow)),
                    u32(finish::kVideoTracks), u32(finish::kAudioTracks), u32(finish::kTimeCode)));
      return 0;
    case kMovieInfo: {
      const double rate = m.video.empty() ? 0 : m.video[0].rate;
      Put32(res, info::kAnsVideoTracks, static_cast<std::uint32_t>(m.video.size()));
      Put32(res, info::kAnsAudioTracks, static_cast<std::uint32_t>(m.audio.size()));
      Put32(res, info::kAnsTimeScale, 600);
      Put32(res, info::kAnsDuration,
            rate > 0 ? static_cast<std::uint32_t>(m.video[0].frames * 600.0 / rate) : 0);
      PutF64(res, info::kAnsRate, rate);
      Put32(res, info::kAnsTimeCode, m.video.empty() ? kNone : m.video[0].timeCode);
      return 0;
    }
    case kFormatName: {
      const std::size_t n = m.format.size() < text::kMaxChars ? m.format.size() : text::kMaxChars;
      std::memcpy(res + text::kAnsText, m.format.data(), n);
      if (n < text::kMaxChars) res[text::kAnsText + n] = 0;
      return 0;
    }
    case kVideoFormat: {
      if (count != vformat::kCount || u32(vformat::kTrack) >= m.video.size()) return kInvalid;
      const VideoTrack& t = m.video[u32(vformat::kTrack)];
      PutF64(res, vformat::kAnsRate, t.rate);
      PutF64(res, vformat::kAnsDurationNum, 1.0);
      Put32(res, vformat::kAnsFrames, t.frames);
      Put32(res, vformat::kAnsCodec, t.codec);
      Put32(res, vformat::kAnsHeight, t.height);
      Put32(res, vformat::kAnsAlpha, t.alpha ? 1 : 0);
      Put32(res, vformat::kAnsFields, t.fields);
      Put32(res, vformat::kAnsWidth, t.width);
      Put32(res, vformat::kAnsBits, t.bits);
      return 0;
    }
    case kVideoSetup: {
      if (count != vsetup::kCount || u32(vsetup::kTrack) >= m.video.size()) return kInvalid;
      VideoTrack& t = m.video[u32(vsetup::kTrack)];
      t.rate = GetF64(ins, vsetup::kRate);
      t.width = u32(vsetup::kWidth);
      t.height = u32(vsetup::kHeight);
      t.codec = u32(vsetup::kCodec);
      t.alpha = t.codec == FourCC('a', 'p', '4', 'h');
      Log(m, Printf("vsetup track=%u rate=%.17g aspect=%.17g size=%ux%u codec=%s",
                    u32(vsetup::kTrack), t.rate, GetF64(ins, vsetup::kAspect), t.width, t.height,
                    CodeText(t.codec).c_str()));
      return 0;
    }
    case kReadFrame: {
      if (count != frame::kCount || u32(frame::kTrack) >= m.video.size()) return kInvalid;
      const VideoTrack& t = m.video[u32(frame::kTrack)];
      return ServeFrame(m, u32(frame::kTrack), u32(frame::kFrame), u32(frame::kPixelFormat),
                        t.width, t.height, res);
    }
    case kReadScaledFrame: {
      if (count != scaled::kCount || u32(scaled::kTrack) >= m.video.size()) return kInvalid;
      const VideoTrack& t = m.video[u32(scaled::kTrack)];
      std::uint32_t w = t.width, h = t.height;
      const std::uint32_t mw = u32(scaled::kMaxWidth), mh = u32(scaled::kMaxHeight);
      if (mw && w > mw) h = h * mw / w, w = mw;
      if (mh && h > mh) w = w * mh / h, h = mh;
      if (!w) w = 1;
      if (!h) h = 1;
      return ServeFrame(m, u32(scaled::kTrack), u32(scaled::kFrame), kPixRGBA32, w, h, res);
    }
    case kFrameInfo: {
      if (count != frameinfo::kCount || u32(frameinfo::kTrack) >= m.video.size()) return kInvalid;
      const VideoTrack& t = m.video[u32(frameinfo::kTrack)];
      const std::uint32_t fps = static_cast<std::uint32_t>(t.rate + 0.5);
      std::uint32_t tc = kNone;
      if (t.timeCode != kNone && fps) {
        auto unbcd = [](std::uint32_t v) { return (v >> 4) * 10 + (v & 15); };
        std::uint64_t n = ((unbcd(t.timeCode >> 24) * 60ull + unbcd(t.timeCode >> 16 & 0xFF)) * 60 +
                           unbcd(t.timeCode >> 8 & 0xFF)) *
                              fps +
                          unbcd(t.timeCode & 0xFF) + u32(frameinfo::kFrame);
        const auto f = static_cast<std::uint32_t>(n % fps);
        n /= fps;
        tc = Bcd(static_cast<std::uint32_t>(n / 3600 % 24), static_cast<std::uint32_t>(n / 60 % 60),
                 static_cast<std::uint32_t>(n % 60), f);
      }
      Put32(res, frameinfo::kAnsTimeCode, tc);
      Put32(res, frameinfo::kAnsTimeCodeRate, tc == kNone ? 0 : fps);
      Put32(res, frameinfo::kAnsDropFrame, 0);
      Put32(res, frameinfo::kAnsUserBits, 0);
      Put32(res, frameinfo::kAnsKeyFrame, 1);
      Put32(res, frameinfo::kAnsPictureType, 'I');
      return 0;
    }
    case kAudioFormat: {
      if (count != aformat::kCount || u32(aformat::kTrack) >= m.audio.size()) return kInvalid;
      const AudioTrack& t = m.audio[u32(aformat::kTrack)];
      Put32(res, aformat::kAnsRate, t.rate);
      Put32(res, aformat::kAnsChannels, t.channels);
      Put32(res, aformat::kAnsBits, t.bits);
      Put32(res, aformat::kAnsMask, t.mask);
      Put64(res, aformat::kAnsSamplesLow, t.samples);
      return 0;
    }
    case kAudioSetup: {
      if (count != asetup::kCount || u32(asetup::kTrack) >= m.audio.size()) return kInvalid;
      AudioTrack& t = m.audio[u32(asetup::kTrack)];
      t.rate = u32(asetup::kRate);
      t.channels = u32(asetup::kChannels);
      t.bits = u32(asetup::kBits);
      t.tag = u32(asetup::kTag);
      Log(m, Printf("asetup track=%u rate=%u channels=%u bits=%u tag=%u", u32(asetup::kTrack),
                    t.rate, t.channels, t.bits, t.tag));
      return 0;
    }
    case kReadAudio: {
      if (count != aread::kCount || u32(aread::kTrack) >= m.audio.size()) return kInvalid;
      const AudioTrack& t = m.audio[u32(aread::kTrack)];
      const std::uint64_t first = Get64(ins, aread::kFirstLow);
      std::uint64_t n = u32(aread::kFrames);
      n = first >= t.samples ? 0 : (n < t.samples - first ? n : t.samples - first);
      const std::uint32_t align = t.bits / 8 * t.channels;
      const std::uint32_t offset = 16;
      if (!align || n * align + offset > kResultBytes) return kInvalid;
      for (std::uint64_t s = 0; s < n; ++s)
        for (std::uint32_t c = 0; c < t.channels; ++c)
          Sample(t, first + s, c, res + offset + s * align + c * (t.bits / 8));
      Put32(res, aread::kAnsOffset, offset);
      Put32(res, aread::kAnsFrames, static_cast<std::uint32_t>(n));
      return 0;
    }
    case kWriteAudio: {
      if (count != awrite::kCount || u32(awrite::kTrack) >= m.audio.size()) return kInvalid;
      AudioTrack& t = m.audio[u32(awrite::kTrack)];
      const std::uint64_t bytes =
          static_cast<std::uint64_t>(u32(awrite::kFrames)) * t.channels * (t.bits / 8);
      if (bytes > kResultBytes) return kInvalid;
      t.written += u32(awrite::kFrames);
      Log(m, Printf("audio track=%u frames=%u sum=%08X", u32(awrite::kTrack), u32(awrite::kFrames),
                    Fnv(res, static_cast<std::size_t>(bytes))));
      Put64(res, awrite::kAnsTotalLow, t.written);
      return 0;
    }
    case kRefCompression:
      Log(m, Printf("compression codec=%s quality=%u alpha=%u",
                    CodeText(u32(refcompression::kCodec)).c_str(), u32(refcompression::kQuality),
                    u32(refcompression::kAlpha)));
      return 0;
    case kRefAddMedia: {
      std::string path;
      if (!ReadPath(ins, refmedia::kPath, count, &path)) return kInvalid;
      Log(m, Printf("media kind=%u track=%u channels=%u bits=%u first=%u length=%u start=%u "
                    "count=%u path=%s",
                    u32(refmedia::kKind), u32(refmedia::kTrack), u32(refmedia::kChannels) & 0xFFFF,
                    u32(refmedia::kBits) & 0xFFFF, u32(refmedia::kFirst), u32(refmedia::kLength),
                    u32(refmedia::kStart), count, path.c_str()));
      return 0;
    }
    case kRefAddFrame: {
      if (count != refframe::kCount) return kInvalid;
      const std::uint32_t track = u32(refframe::kTrack), w = u32(refframe::kWidth),
                          h = u32(refframe::kHeight);
      const std::uint64_t bytes = static_cast<std::uint64_t>(w) * h * 4;
      if (bytes > kResultBytes) return kInvalid;
      if (track < m.video.size()) ++m.video[track].written;
      if (bytes == 0) {
        Log(m, Printf("frame track=%u index=%u size=%ux%u nopixels", track, u32(refframe::kFrame),
                      w, h));
      } else {
        Log(m, Printf("frame track=%u index=%u size=%ux%u sum=%08X first=%u,%u,%u,%u", track,
                      u32(refframe::kFrame), w, h, Fnv(res, static_cast<std::size_t>(bytes)),
                      res[0], res[1], res[2], res[3]));
      }
      return 0;
    }
    case kRefAddSound: {
      std::string path;
      if (!ReadPath(ins, refsound::kPath, count, &path)) return kInvalid;
      Log(m, Printf("sound track=%u first=%llu length=%u start=%.17g tag=%u channels=%u "
                    "count=%u path=%s",
                    u32(refsound::kTrack),
                    static_cast<unsigned long long>(Get64(ins, refsound::kFirstLow)),
                    u32(refsound::kLength), GetF64(ins, refsound::kStart),
                    Get32(ins, refsound::kFormat) & 0xFFFF, Get32(ins, refsound::kFormat) >> 16,
                    count, path.c_str()));
      return 0;
    }
    case kRefTimeCode:
      Log(m, Printf("timecode track=%u tc=%08X rate=%u drop=%u", u32(reftimecode::kTrack),
                    u32(reftimecode::kTimeCode), u32(reftimecode::kRate),
                    u32(reftimecode::kDropFrame)));
      return 0;
    case kRefFinish:
      Log(m, Printf("reffinish selfcontained=%u", u32(reffinish::kSelfContained)));
      return 0;
    default:
      return static_cast<std::int32_t>(0x80004001u);  // E_NOTIMPL
  }
}

}  // namespace

int main(int argc, char** argv) {
  return vx::qt::decoder::Run(argc, argv, Serve);
}
