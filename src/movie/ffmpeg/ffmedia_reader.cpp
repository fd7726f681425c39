#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

#include "movie/ffmpeg/ffmedia_internal.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libavutil/timecode.h>
#include <libswresample/swresample.h>
}

namespace vx::ffmedia {
namespace {

using detail::FromAv;
using detail::kMaxDimension;

constexpr int kIoBufferSize = 64 * 1024;
// Seeks that land after the wanted frame step back one key frame at a time, then restart.
constexpr int kSeekAttempts = 4;
// Decoders of overlapped transforms and bit reservoirs need frames before the first one used.
constexpr int kAudioPreroll = 3;

struct MemorySource {
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
  std::size_t pos = 0;
};

int MemRead(void* opaque, std::uint8_t* buf, int size) {
  auto* m = static_cast<MemorySource*>(opaque);
  if (m->pos >= m->size) return AVERROR_EOF;
  const std::size_t n = std::min(static_cast<std::size_t>(size), m->size - m->pos);
  std::memcpy(buf, m->data + m->pos, n);
  m->pos += n;
  return static_cast<int>(n);
}

std::int64_t MemSeek(void* opaque, std::int64_t offset, int whence) {
  auto* m = static_cast<MemorySource*>(opaque);
  if (whence & AVSEEK_SIZE) return static_cast<std::int64_t>(m->size);
  std::int64_t base = 0;
  switch (whence & ~AVSEEK_FORCE) {
    case SEEK_SET:
      break;
    case SEEK_CUR:
      base = static_cast<std::int64_t>(m->pos);
      break;
    case SEEK_END:
      base = static_cast<std::int64_t>(m->size);
      break;
    default:
      return AVERROR(EINVAL);
  }
  if (offset > std::numeric_limits<std::int64_t>::max() - base) return AVERROR(EINVAL);
  const std::int64_t to = base + offset;
  if (to < 0 || static_cast<std::uint64_t>(to) > m->size) return AVERROR(EINVAL);
  m->pos = static_cast<std::size_t>(to);
  return to;
}

// One demuxer over the file: each track reader has its own, so reading sound never moves the
// picture decoder's position.
struct Demuxer {
  AVFormatContext* fmt = nullptr;
  AVIOContext* io = nullptr;
  MemorySource mem;

  ~Demuxer() {
    avformat_close_input(&fmt);
    if (io) {
      av_freep(&io->buffer);
      avio_context_free(&io);
    }
  }

  Status Open(const std::string& path, const std::uint8_t* data, std::size_t size) {
    fmt = avformat_alloc_context();
    if (!fmt) return Status::kOutOfMemory;
    if (data) {
      mem = {data, size, 0};
      auto* buf = static_cast<std::uint8_t*>(av_malloc(kIoBufferSize));
      if (!buf) return Status::kOutOfMemory;
      io = avio_alloc_context(buf, kIoBufferSize, 0, &mem, MemRead, nullptr, MemSeek);
      if (!io) {
        av_free(buf);
        return Status::kOutOfMemory;
      }
      fmt->pb = io;
    }
    const int r = avformat_open_input(&fmt, data ? nullptr : path.c_str(), nullptr, nullptr);
    if (r < 0) {
      // avformat_open_input frees the context on failure.
      fmt = nullptr;
      return r == AVERROR(ENOMEM) ? Status::kOutOfMemory : Status::kFail;
    }
    if (avformat_find_stream_info(fmt, nullptr) < 0) return Status::kFail;
    return Status::kOk;
  }
};

struct CodecDeleter {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameDeleter {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketDeleter {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct SwrDeleter {
  void operator()(SwrContext* s) const { swr_free(&s); }
};
using CodecPtr = std::unique_ptr<AVCodecContext, CodecDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwrPtr = std::unique_ptr<SwrContext, SwrDeleter>;

Status OpenDecoder(const AVStream* st, CodecPtr* out) {
  const AVCodec* codec = avcodec_find_decoder(st->codecpar->codec_id);
  if (!codec) return Status::kFail;
  CodecPtr c(avcodec_alloc_context3(codec));
  if (!c) return Status::kOutOfMemory;
  if (avcodec_parameters_to_context(c.get(), st->codecpar) < 0) return Status::kFail;
  c->pkt_timebase = st->time_base;
  // A picture larger than the track says is refused by the decoder before it allocates: a
  // damaged header must not make it reserve gigabytes.
  if (st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
    c->max_pixels = 2 * (std::int64_t{st->codecpar->width} + 128) * (st->codecpar->height + 128);
  c->thread_count = 0;
  c->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
  const int r = avcodec_open2(c.get(), codec, nullptr);
  if (r < 0) return FromAv(r);
  *out = std::move(c);
  return Status::kOk;
}

std::int64_t FrameTime(const AVFrame* f) {
  return f->best_effort_timestamp != AV_NOPTS_VALUE ? f->best_effort_timestamp : f->pts;
}

std::string TimecodeOf(const AVFormatContext* fmt) {
  if (const AVDictionaryEntry* e = av_dict_get(fmt->metadata, "timecode", nullptr, 0))
    return e->value;
  for (unsigned i = 0; i < fmt->nb_streams; ++i) {
    if (const AVDictionaryEntry* e = av_dict_get(fmt->streams[i]->metadata, "timecode", nullptr, 0))
      return e->value;
  }
  return "";
}

std::string Meta(const AVDictionary* d, const char* key) {
  const AVDictionaryEntry* e = av_dict_get(d, key, nullptr, 0);
  return e && e->value ? e->value : "";
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The operational pattern's name from its label ("060e2b34.04010101.0d010201.01010900"): byte
// 12 is the item complexity (0x10 for OP-Atom), byte 13 the package complexity.
std::string OperationalPattern(const std::string& ul) {
  std::uint8_t b[16];
  int n = 0;
  for (std::size_t i = 0; i < ul.size(); ++i) {
    if (ul[i] == '.') continue;
    const int hi = HexDigit(ul[i]);
    const int lo = i + 1 < ul.size() ? HexDigit(ul[i + 1]) : -1;
    if (hi < 0 || lo < 0 || n == 16) return ul;
    b[n++] = static_cast<std::uint8_t>(hi << 4 | lo);
    ++i;
  }
  static const std::uint8_t kPrefix[] = {0x06, 0x0e, 0x2b, 0x34};
  static const std::uint8_t kOp[] = {0x0d, 0x01, 0x02, 0x01};
  if (n != 16 || std::memcmp(b, kPrefix, 4) != 0 || std::memcmp(b + 8, kOp, 4) != 0) return ul;
  if (b[12] == 0x10) return "OPAtom";
  if (b[12] >= 1 && b[12] <= 3 && b[13] >= 1 && b[13] <= 3)
    return std::string("OP") + static_cast<char>('0' + b[12]) + static_cast<char>('a' + b[13] - 1);
  return ul;
}

// libavformat puts the material package on the file and each stream's source package on the
// stream; the packages are rebuilt from that.
void MxfPackages(const AVFormatContext* fmt, MediaInfo& info) {
  const std::string ul = Meta(fmt->metadata, "operational_pattern_ul");
  info.operationalPattern = ul.empty() ? "" : OperationalPattern(ul);
  Package material;
  material.name = Meta(fmt->metadata, "material_package_name");
  material.umid = Meta(fmt->metadata, "material_package_umid");
  material.timecode = Meta(fmt->metadata, "timecode");
  std::vector<Package> sources;
  for (unsigned i = 0; i < fmt->nb_streams; ++i) {
    const AVStream* st = fmt->streams[i];
    PackageTrack t;
    t.stream = static_cast<int>(i);
    t.kind = st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO   ? "picture"
             : st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO ? "sound"
                                                              : "data";
    t.name = Meta(st->metadata, "track_name");
    material.tracks.push_back(t);
    const std::string umid = Meta(st->metadata, "file_package_umid");
    if (umid.empty()) continue;
    auto it = std::find_if(sources.begin(), sources.end(),
                           [&](const Package& p) { return p.umid == umid; });
    if (it == sources.end()) {
      Package p;
      p.kind = PackageKind::kSource;
      p.umid = umid;
      p.name = Meta(st->metadata, "file_package_name");
      p.reel = Meta(st->metadata, "reel_name");
      sources.push_back(std::move(p));
      it = sources.end() - 1;
    }
    t.timecode = Meta(st->metadata, "timecode");
    if (it->timecode.empty()) it->timecode = t.timecode;
    it->tracks.push_back(t);
  }
  info.packages.push_back(std::move(material));
  for (Package& p : sources) info.packages.push_back(std::move(p));
}

FieldOrder FieldOrderOf(AVFieldOrder f) {
  switch (f) {
    case AV_FIELD_PROGRESSIVE:
      return FieldOrder::kProgressive;
    case AV_FIELD_TT:
    case AV_FIELD_TB:
      return FieldOrder::kTopFirst;
    case AV_FIELD_BB:
    case AV_FIELD_BT:
      return FieldOrder::kBottomFirst;
    default:
      return FieldOrder::kUnknown;
  }
}

bool IsPcm(AVCodecID id) {
  return id >= AV_CODEC_ID_PCM_S16LE && id < AV_CODEC_ID_ADPCM_IMA_QT;
}

struct VideoState {
  int stream = -1;
  std::vector<std::int64_t> frameTimes;  // presentation times, sorted; frame index order
  std::vector<std::int64_t> keyTimes;    // key frames, sorted
  std::vector<std::int64_t> keyPos;      // their byte positions (-1 unknown)
  bool byteSeek = false;                 // streams without an index seek to a key's byte position
  // Uncompressed pictures already in a host layout are copied from the packet, undecoded.
  bool hasRaw = false;
  PixelLayout rawLayout = PixelLayout::kV210;
  std::size_t rawRow = 0;
  bool ordinal = false;  // no usable times: frames are counted from the start

  std::unique_ptr<Demuxer> demux;
  CodecPtr dec;
  FramePtr frame;
  PacketPtr packet;
  detail::PixelConverter converter;
  bool positioned = false;  // the decoder continues from where the last read stopped
  bool draining = false;
  std::int64_t lastDelivered = 0;
  std::int64_t lastKey = -1;  // index in keyTimes of the last key packet fed
  std::int64_t counted = 0;   // ordinal mode: frames decoded since the start
};

struct AudioState {
  int stream = -1;
  int sampleRate = 0;
  int channels = 0;
  bool pcm = false;
  std::int64_t origin = 0;  // stream time of sample 0, in samples
  std::int64_t total = 0;

  std::unique_ptr<Demuxer> demux;
  CodecPtr dec;
  FramePtr frame;  // the decoded frame samples are taken from
  PacketPtr packet;
  SwrPtr swr;
  int swrFormat = -1;
  AVSampleFormat swrIn = AV_SAMPLE_FMT_NONE;
  bool positioned = false;
  bool draining = false;
  bool haveFrame = false;
  std::int64_t framePos = 0;  // sample index of frame's first sample
  std::int64_t nextPos = 0;   // sample index after the last decoded frame
  std::vector<std::uint8_t> conv;
};

}  // namespace

struct MediaReader::Impl {
  std::string path;
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
  bool open = false;
  MediaInfo info;
  std::vector<VideoState> video;
  std::vector<AudioState> audio;
  std::int64_t seeks = 0;

  Status NewDemuxer(std::unique_ptr<Demuxer>* out) {
    auto d = std::make_unique<Demuxer>();
    const Status s = d->Open(path, data, size);
    if (s != Status::kOk) return s;
    *out = std::move(d);
    return Status::kOk;
  }

  Status OpenAny();
  Status BuildIndex(Demuxer& d);
  Status DecodeIndex(VideoState& v);

  Status PrepareVideo(VideoState& v);
  Status SeekVideo(VideoState& v, std::int64_t key);
  // 1: frame `target` is in v.frame; 0: decoded past it; -1: the stream ended before it.
  int DecodeVideoTo(VideoState& v, std::int64_t target);
  // The same for an uncompressed packet copied to `dst`; -2: the packet is not laid out as
  // expected (the caller decodes instead).
  int CopyRawTo(VideoState& v, std::int64_t target, std::uint8_t* dst, std::ptrdiff_t stride,
                int height);

  Status PrepareAudio(AudioState& a);
  Status SeekAudio(AudioState& a, std::int64_t sample);
  // Decodes the next frame into a.frame and places it; false at the end or on failure.
  bool NextAudioFrame(AudioState& a);
};

Status MediaReader::Impl::OpenAny() {
  std::unique_ptr<Demuxer> d;
  Status s = NewDemuxer(&d);
  if (s != Status::kOk) return s;
  AVFormatContext* fmt = d->fmt;
  info.container = fmt->iformat && fmt->iformat->name ? fmt->iformat->name : "";
  info.duration = fmt->duration > 0 ? static_cast<double>(fmt->duration) / AV_TIME_BASE : 0.0;
  info.timecode = TimecodeOf(fmt);
  const AVDictionaryEntry* e = nullptr;
  while ((e = av_dict_get(fmt->metadata, "", e, AV_DICT_IGNORE_SUFFIX)))
    info.metadata.emplace_back(e->key, e->value);
  if (info.container == "mxf") MxfPackages(fmt, info);

  for (unsigned i = 0; i < fmt->nb_streams; ++i) {
    AVStream* st = fmt->streams[i];
    const AVCodecParameters* par = st->codecpar;
    const AVCodecDescriptor* desc = avcodec_descriptor_get(par->codec_id);
    if (st->disposition & AV_DISPOSITION_ATTACHED_PIC) {
      st->discard = AVDISCARD_ALL;
      continue;
    }
    if (par->codec_type == AVMEDIA_TYPE_VIDEO) {
      if (par->width <= 0 || par->height <= 0 || par->width > kMaxDimension ||
          par->height > kMaxDimension || !avcodec_find_decoder(par->codec_id)) {
        st->discard = AVDISCARD_ALL;
        continue;
      }
      VideoTrack t;
      t.stream = static_cast<int>(i);
      t.codec = desc ? desc->name : "";
      t.fourcc = par->codec_tag;
      t.width = par->width;
      t.height = par->height;
      AVRational r = st->avg_frame_rate.num > 0 ? st->avg_frame_rate : st->r_frame_rate;
      if (r.num <= 0 || r.den <= 0) r = av_guess_frame_rate(fmt, st, nullptr);
      if (r.num <= 0 || r.den <= 0) {
        // No rate anywhere (a zero rate in the header): the time base's inverse when that is a
        // frame rate at all; a track that cannot be timed is left out.
        const AVRational tb = st->time_base;
        if (tb.num <= 0 || tb.den <= 0 || tb.den > std::int64_t{1000} * tb.num) {
          st->discard = AVDISCARD_ALL;
          continue;
        }
        r = av_inv_q(tb);
      }
      t.rate = {r.num, r.den};
      const AVRational sar = av_guess_sample_aspect_ratio(fmt, st, nullptr);
      if (sar.num > 0 && sar.den > 0) t.pixelAspect = {sar.num, sar.den};
      t.fieldOrder = FieldOrderOf(par->field_order);
      const AVPixFmtDescriptor* pd = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(par->format));
      if (pd) {
        t.nativeFormat = pd->name;
        t.alpha = (pd->flags & AV_PIX_FMT_FLAG_ALPHA) != 0;
        t.bitDepth = pd->comp[0].depth;
      }
      // Some wrappers mark alpha only in the codec tag or the depth field.
      if (par->codec_id == AV_CODEC_ID_PRORES && (par->codec_tag == MKTAG('a', 'p', '4', 'h') ||
                                                  par->codec_tag == MKTAG('a', 'p', '4', 'x')))
        t.alpha = t.alpha || par->bits_per_coded_sample == 32;
      t.timecode = Meta(st->metadata, "timecode");
      info.video.push_back(t);
      VideoState v;
      v.stream = t.stream;
      if (par->codec_id == AV_CODEC_ID_V210) {
        v.hasRaw = true;
        v.rawLayout = PixelLayout::kV210;
        v.rawRow = MinRowBytes(PixelLayout::kV210, t.width);
      } else if (par->codec_id == AV_CODEC_ID_RAWVIDEO && par->format == AV_PIX_FMT_UYVY422 &&
                 t.width % 2 == 0) {
        v.hasRaw = true;
        v.rawLayout = PixelLayout::kUYVY8;
        v.rawRow = MinRowBytes(PixelLayout::kUYVY8, t.width);
      }
      video.push_back(std::move(v));
    } else if (par->codec_type == AVMEDIA_TYPE_AUDIO) {
      if (par->sample_rate <= 0 || par->ch_layout.nb_channels <= 0 ||
          !avcodec_find_decoder(par->codec_id)) {
        st->discard = AVDISCARD_ALL;
        continue;
      }
      AudioTrack t;
      t.stream = static_cast<int>(i);
      t.codec = desc ? desc->name : "";
      t.sampleRate = par->sample_rate;
      t.channels = par->ch_layout.nb_channels;
      const auto sf = static_cast<AVSampleFormat>(par->format);
      t.bits = par->bits_per_raw_sample > 0 ? par->bits_per_raw_sample
               : IsPcm(par->codec_id)       ? av_get_bits_per_sample(par->codec_id)
               : sf != AV_SAMPLE_FMT_NONE   ? av_get_bytes_per_sample(sf) * 8
                                            : 16;
      t.floating = sf == AV_SAMPLE_FMT_FLT || sf == AV_SAMPLE_FMT_FLTP || sf == AV_SAMPLE_FMT_DBL ||
                   sf == AV_SAMPLE_FMT_DBLP;
      if (par->ch_layout.order == AV_CHANNEL_ORDER_NATIVE) t.channelMask = par->ch_layout.u.mask;
      char name[128] = {};
      if (av_channel_layout_describe(&par->ch_layout, name, sizeof name) > 0)
        t.channelLayout = name;
      t.timecode = Meta(st->metadata, "timecode");
      info.audio.push_back(t);
      AudioState a;
      a.stream = t.stream;
      a.sampleRate = t.sampleRate;
      a.channels = t.channels;
      a.pcm = IsPcm(par->codec_id);
      audio.push_back(std::move(a));
    } else {
      st->discard = AVDISCARD_ALL;
    }
  }
  if (info.video.empty() && info.audio.empty()) return Status::kFail;
  s = BuildIndex(*d);
  if (s != Status::kOk) return s;
  if (!video.empty()) {
    // The index pass's demuxer serves the first picture track; a seek puts it back.
    video[0].demux = std::move(d);
  }
  return Status::kOk;
}

Status MediaReader::Impl::BuildIndex(Demuxer& d) {
  struct Pending {
    std::vector<std::int64_t> pts;
    std::vector<std::pair<std::int64_t, std::int64_t>> keys;  // time, byte position
    bool missing = false;
  };
  std::vector<Pending> vp(video.size());
  std::vector<CodecPtr> adec(audio.size());
  std::vector<bool> aFirst(audio.size(), true);
  std::vector<int> vOf(d.fmt->nb_streams, -1), aOf(d.fmt->nb_streams, -1);
  for (std::size_t i = 0; i < video.size(); ++i) vOf[video[i].stream] = static_cast<int>(i);
  for (std::size_t i = 0; i < audio.size(); ++i) {
    aOf[audio[i].stream] = static_cast<int>(i);
    if (!audio[i].pcm) {
      const Status s = OpenDecoder(d.fmt->streams[audio[i].stream], &adec[i]);
      if (s != Status::kOk) return s;
    }
  }
  PacketPtr pkt(av_packet_alloc());
  FramePtr frame(av_frame_alloc());
  if (!pkt || !frame) return Status::kOutOfMemory;

  auto countAudio = [&](std::size_t i) {
    AudioState& a = audio[i];
    const AVStream* st = d.fmt->streams[a.stream];
    while (avcodec_receive_frame(adec[i].get(), frame.get()) >= 0) {
      if (aFirst[i]) {
        const std::int64_t t = FrameTime(frame.get());
        a.origin = t == AV_NOPTS_VALUE ? 0 : av_rescale_q(t, st->time_base, {1, a.sampleRate});
        aFirst[i] = false;
      }
      a.total += frame->nb_samples;
      av_frame_unref(frame.get());
    }
  };

  while (av_read_frame(d.fmt, pkt.get()) >= 0) {
    const int si = pkt->stream_index;
    if (si >= 0 && static_cast<unsigned>(si) < d.fmt->nb_streams) {
      if (vOf[si] >= 0 && !(pkt->flags & AV_PKT_FLAG_DISCARD)) {
        Pending& p = vp[vOf[si]];
        const std::int64_t t = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
        if (pkt->pts == AV_NOPTS_VALUE) p.missing = true;
        p.pts.push_back(pkt->pts);
        if ((pkt->flags & AV_PKT_FLAG_KEY) && t != AV_NOPTS_VALUE) p.keys.emplace_back(t, pkt->pos);
      } else if (aOf[si] >= 0) {
        const std::size_t i = static_cast<std::size_t>(aOf[si]);
        AudioState& a = audio[i];
        const AVStream* st = d.fmt->streams[si];
        if (a.pcm) {
          const int bits = av_get_bits_per_sample(st->codecpar->codec_id);
          const int frameBytes = bits > 0 ? bits / 8 * a.channels : 0;
          if (aFirst[i] && pkt->pts != AV_NOPTS_VALUE) {
            a.origin = av_rescale_q(pkt->pts, st->time_base, {1, a.sampleRate});
          }
          aFirst[i] = false;
          if (frameBytes > 0) a.total += pkt->size / frameBytes;
        } else {
          avcodec_send_packet(adec[i].get(), pkt.get());  // a damaged packet is dropped
          countAudio(i);
        }
      }
    }
    av_packet_unref(pkt.get());
  }
  for (std::size_t i = 0; i < audio.size(); ++i) {
    if (adec[i]) {
      avcodec_send_packet(adec[i].get(), nullptr);
      countAudio(i);
    }
    info.audio[i].samples = audio[i].total;
  }
  for (std::size_t i = 0; i < video.size(); ++i) {
    VideoState& v = video[i];
    Pending& p = vp[i];
    std::sort(p.keys.begin(), p.keys.end());
    for (const auto& [t, pos] : p.keys) {
      v.keyTimes.push_back(t);
      v.keyPos.push_back(pos);
    }
    // Program and transport streams (and raw ones) seek by searching timestamps, which may land
    // anywhere; the key frame's own byte position is exact.
    const int flags = d.fmt->iformat->flags;
    v.byteSeek =
        (flags & (AVFMT_TS_DISCONT | AVFMT_GENERIC_INDEX)) && !(flags & AVFMT_NO_BYTE_SEEK);
    if (!p.missing) {
      std::sort(p.pts.begin(), p.pts.end());
      p.pts.erase(std::unique(p.pts.begin(), p.pts.end()), p.pts.end());
      v.frameTimes = std::move(p.pts);
    } else {
      const Status s = DecodeIndex(v);
      if (s != Status::kOk) return s;
    }
    info.video[i].frames = static_cast<std::int64_t>(v.frameTimes.size());
  }
  return Status::kOk;
}

// Packets without presentation times (elementary streams): the times come from decoding the
// whole stream once; if even those are missing, frames are counted from the start.
Status MediaReader::Impl::DecodeIndex(VideoState& v) {
  std::unique_ptr<Demuxer> d;
  Status s = NewDemuxer(&d);
  if (s != Status::kOk) return s;
  CodecPtr dec;
  s = OpenDecoder(d->fmt->streams[v.stream], &dec);
  if (s != Status::kOk) return s;
  PacketPtr pkt(av_packet_alloc());
  FramePtr frame(av_frame_alloc());
  if (!pkt || !frame) return Status::kOutOfMemory;
  std::vector<std::int64_t> times;
  bool missing = false;
  auto drain = [&] {
    while (avcodec_receive_frame(dec.get(), frame.get()) >= 0) {
      const std::int64_t t = FrameTime(frame.get());
      if (t == AV_NOPTS_VALUE || (!times.empty() && t <= times.back())) missing = true;
      times.push_back(t);
      av_frame_unref(frame.get());
    }
  };
  while (av_read_frame(d->fmt, pkt.get()) >= 0) {
    if (pkt->stream_index == v.stream) {
      avcodec_send_packet(dec.get(), pkt.get());
      drain();
    }
    av_packet_unref(pkt.get());
  }
  avcodec_send_packet(dec.get(), nullptr);
  drain();
  if (missing) {
    v.ordinal = true;
    for (std::size_t i = 0; i < times.size(); ++i) times[i] = static_cast<std::int64_t>(i);
    v.keyTimes.clear();
    v.keyPos.clear();
  }
  v.frameTimes = std::move(times);
  return Status::kOk;
}

Status MediaReader::Impl::PrepareVideo(VideoState& v) {
  if (!v.demux) {
    const Status s = NewDemuxer(&v.demux);
    if (s != Status::kOk) return s;
  }
  AVFormatContext* fmt = v.demux->fmt;
  if (!v.dec) {
    for (unsigned i = 0; i < fmt->nb_streams; ++i)
      fmt->streams[i]->discard =
          static_cast<int>(i) == v.stream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    const Status s = OpenDecoder(fmt->streams[v.stream], &v.dec);
    if (s != Status::kOk) return s;
    v.frame.reset(av_frame_alloc());
    v.packet.reset(av_packet_alloc());
    if (!v.frame || !v.packet) return Status::kOutOfMemory;
    v.positioned = false;
  }
  return Status::kOk;
}

// key < 0: the start of the stream.
Status MediaReader::Impl::SeekVideo(VideoState& v, std::int64_t key) {
  ++seeks;
  AVFormatContext* fmt = v.demux->fmt;
  int r = -1;
  if (key >= 0 && !v.ordinal) {
    const auto k = static_cast<std::size_t>(key);
    if (v.byteSeek && v.keyPos[k] >= 0) {
      r = av_seek_frame(fmt, v.stream, v.keyPos[k], AVSEEK_FLAG_BYTE);
    } else {
      r = av_seek_frame(fmt, v.stream, v.keyTimes[k], AVSEEK_FLAG_BACKWARD);
    }
  }
  if (r < 0) {
    r = avformat_seek_file(fmt, v.stream, std::numeric_limits<std::int64_t>::min(),
                           std::numeric_limits<std::int64_t>::min(), 0, 0);
    if (r < 0) r = av_seek_frame(fmt, -1, 0, AVSEEK_FLAG_BYTE);
    if (r < 0 && fmt->pb) r = static_cast<int>(avio_seek(fmt->pb, 0, SEEK_SET));
    if (r < 0) return Status::kFail;
    v.counted = 0;
  }
  avcodec_flush_buffers(v.dec.get());
  v.positioned = true;
  v.draining = false;
  v.lastKey = -1;
  v.lastDelivered = std::numeric_limits<std::int64_t>::min();
  return Status::kOk;
}

int MediaReader::Impl::DecodeVideoTo(VideoState& v, std::int64_t target) {
  AVFormatContext* fmt = v.demux->fmt;
  for (;;) {
    const int r = avcodec_receive_frame(v.dec.get(), v.frame.get());
    if (r >= 0) {
      const std::int64_t t = v.ordinal ? v.counted++ : FrameTime(v.frame.get());
      if (t == target) return 1;
      av_frame_unref(v.frame.get());
      if (t != AV_NOPTS_VALUE && t > target) return 0;
      continue;
    }
    if (r != AVERROR(EAGAIN)) return -1;  // end of stream or a broken decoder
    if (v.draining) return -1;
    for (;;) {
      const int rr = av_read_frame(fmt, v.packet.get());
      if (rr < 0) {
        v.draining = true;
        avcodec_send_packet(v.dec.get(), nullptr);
        break;
      }
      if (v.packet->stream_index != v.stream) {
        av_packet_unref(v.packet.get());
        continue;
      }
      if ((v.packet->flags & AV_PKT_FLAG_KEY) && !v.ordinal) {
        const std::int64_t t = v.packet->pts != AV_NOPTS_VALUE ? v.packet->pts : v.packet->dts;
        const auto it = std::lower_bound(v.keyTimes.begin(), v.keyTimes.end(), t);
        if (it != v.keyTimes.end() && *it == t) v.lastKey = it - v.keyTimes.begin();
      }
      avcodec_send_packet(v.dec.get(), v.packet.get());  // a damaged packet is dropped
      av_packet_unref(v.packet.get());
      break;
    }
  }
}

int MediaReader::Impl::CopyRawTo(VideoState& v, std::int64_t target, std::uint8_t* dst,
                                 std::ptrdiff_t stride, int height) {
  AVFormatContext* fmt = v.demux->fmt;
  for (;;) {
    if (av_read_frame(fmt, v.packet.get()) < 0) return -1;
    const AVPacket* p = v.packet.get();
    if (p->stream_index != v.stream) {
      av_packet_unref(v.packet.get());
      continue;
    }
    const std::int64_t t = p->pts != AV_NOPTS_VALUE ? p->pts : p->dts;
    if (p->flags & AV_PKT_FLAG_KEY) {
      const auto it = std::lower_bound(v.keyTimes.begin(), v.keyTimes.end(), t);
      if (it != v.keyTimes.end() && *it == t) v.lastKey = it - v.keyTimes.begin();
    }
    if (t < target) {
      av_packet_unref(v.packet.get());
      continue;
    }
    int r = 0;
    if (t == target) {
      r = 1;
      if (static_cast<std::size_t>(p->size) != v.rawRow * static_cast<std::size_t>(height)) {
        r = -2;
      } else {
        for (int y = 0; y < height; ++y)
          std::memcpy(dst + y * stride, p->data + v.rawRow * y, v.rawRow);
      }
    }
    av_packet_unref(v.packet.get());
    return r;
  }
}

Status MediaReader::Impl::PrepareAudio(AudioState& a) {
  if (!a.demux) {
    const Status s = NewDemuxer(&a.demux);
    if (s != Status::kOk) return s;
    for (unsigned i = 0; i < a.demux->fmt->nb_streams; ++i) {
      a.demux->fmt->streams[i]->discard =
          static_cast<int>(i) == a.stream ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
  }
  if (!a.dec) {
    const Status s = OpenDecoder(a.demux->fmt->streams[a.stream], &a.dec);
    if (s != Status::kOk) return s;
    a.frame.reset(av_frame_alloc());
    a.packet.reset(av_packet_alloc());
    if (!a.frame || !a.packet) return Status::kOutOfMemory;
    a.positioned = true;  // a fresh demuxer stands at the start
    a.nextPos = 0;
  }
  return Status::kOk;
}

bool MediaReader::Impl::NextAudioFrame(AudioState& a) {
  const AVStream* st = a.demux->fmt->streams[a.stream];
  av_frame_unref(a.frame.get());
  a.haveFrame = false;
  for (;;) {
    const int r = avcodec_receive_frame(a.dec.get(), a.frame.get());
    if (r >= 0) {
      if (a.frame->nb_samples <= 0 || a.frame->ch_layout.nb_channels != a.channels) {
        av_frame_unref(a.frame.get());
        continue;
      }
      const std::int64_t t = FrameTime(a.frame.get());
      a.framePos = t != AV_NOPTS_VALUE
                       ? av_rescale_q(t, st->time_base, {1, a.sampleRate}) - a.origin
                       : a.nextPos;
      a.nextPos = a.framePos + a.frame->nb_samples;
      a.haveFrame = true;
      return true;
    }
    if (r != AVERROR(EAGAIN) || a.draining) return false;
    for (;;) {
      if (av_read_frame(a.demux->fmt, a.packet.get()) < 0) {
        a.draining = true;
        avcodec_send_packet(a.dec.get(), nullptr);
        break;
      }
      if (a.packet->stream_index != a.stream) {
        av_packet_unref(a.packet.get());
        continue;
      }
      avcodec_send_packet(a.dec.get(), a.packet.get());
      av_packet_unref(a.packet.get());
      break;
    }
  }
}

Status MediaReader::Impl::SeekAudio(AudioState& a, std::int64_t sample) {
  ++seeks;
  if (sample <= 0) {
    // A fresh demuxer and decoder repeat exactly what the index pass saw, priming included,
    // which a seek to the start does not for every wrapper.
    a.demux.reset();
    a.dec.reset();
    a.haveFrame = false;
    a.draining = false;
    return PrepareAudio(a);
  }
  AVFormatContext* fmt = a.demux->fmt;
  const AVStream* st = fmt->streams[a.stream];
  int r;
  const std::int64_t ts = av_rescale_q(sample + a.origin, {1, a.sampleRate}, st->time_base);
  r = av_seek_frame(fmt, a.stream, ts, AVSEEK_FLAG_BACKWARD);
  if (r < 0) return SeekAudio(a, 0);
  avcodec_flush_buffers(a.dec.get());
  av_frame_unref(a.frame.get());
  a.haveFrame = false;
  a.draining = false;
  a.positioned = true;
  return Status::kOk;
}

MediaReader::MediaReader() = default;
MediaReader::~MediaReader() = default;

Status MediaReader::Open(const std::string& path) {
  Close();
  try {
    impl_ = std::make_unique<Impl>();
    impl_->path = path;
    const Status s = impl_->OpenAny();
    if (s != Status::kOk) {
      impl_.reset();
      return s;
    }
    impl_->open = true;
    return Status::kOk;
  } catch (const std::bad_alloc&) {
    impl_.reset();
    return Status::kOutOfMemory;
  }
}

Status MediaReader::OpenMemory(const std::uint8_t* data, std::size_t size) {
  Close();
  if (!data || size == 0) return Status::kInvalidArg;
  try {
    impl_ = std::make_unique<Impl>();
    impl_->data = data;
    impl_->size = size;
    const Status s = impl_->OpenAny();
    if (s != Status::kOk) {
      impl_.reset();
      return s;
    }
    impl_->open = true;
    return Status::kOk;
  } catch (const std::bad_alloc&) {
    impl_.reset();
    return Status::kOutOfMemory;
  }
}

void MediaReader::Close() {
  impl_.reset();
}
bool MediaReader::IsOpen() const {
  return impl_ && impl_->open;
}

const MediaInfo& MediaReader::Info() const {
  static const MediaInfo kEmpty;
  return impl_ ? impl_->info : kEmpty;
}

std::int64_t MediaReader::SeekCount() const {
  return impl_ ? impl_->seeks : 0;
}

Status MediaReader::ReadFrame(int track, std::int64_t index, PixelLayout layout, std::uint8_t* dst,
                              std::ptrdiff_t stride) {
  if (!IsOpen() || track < 0 || static_cast<std::size_t>(track) >= impl_->video.size() || !dst)
    return Status::kInvalidArg;
  Impl& im = *impl_;
  VideoState& v = im.video[static_cast<std::size_t>(track)];
  const VideoTrack& t = im.info.video[static_cast<std::size_t>(track)];
  if (index < 0 || index >= static_cast<std::int64_t>(v.frameTimes.size()))
    return Status::kInvalidArg;
  if (stride < 0 || static_cast<std::size_t>(stride) < MinRowBytes(layout, t.width))
    return Status::kInvalidArg;
  try {
    Status s = im.PrepareVideo(v);
    if (s != Status::kOk) return s;
    const std::int64_t target = v.frameTimes[static_cast<std::size_t>(index)];
    // The key frame at or before the target; -1 when there is none (decode from the start).
    std::int64_t key = -1;
    if (!v.ordinal) {
      const auto it = std::upper_bound(v.keyTimes.begin(), v.keyTimes.end(), target);
      key = (it - v.keyTimes.begin()) - 1;
    }
    // Going on from where the last read stopped is cheaper than a seek while the target's key
    // frame is at most the next one.
    const bool forward = v.positioned && target > v.lastDelivered &&
                         (v.ordinal || key <= v.lastKey + 1 || v.lastKey < 0);
    if (!forward) {
      s = im.SeekVideo(v, key);
      if (s != Status::kOk) return s;
    }
    const bool raw = v.hasRaw && v.rawLayout == layout && !v.ordinal;
    auto fetch = [&] {
      return raw ? im.CopyRawTo(v, target, dst, stride, t.height) : im.DecodeVideoTo(v, target);
    };
    int got = fetch();
    for (int attempt = 0; (got == 0 || got == -1) && attempt < kSeekAttempts; ++attempt) {
      if (key >= 0) --key;
      s = im.SeekVideo(v, attempt + 1 == kSeekAttempts ? -1 : key);
      if (s != Status::kOk) return s;
      got = fetch();
    }
    if (got == -2) {
      // Packed otherwise than expected: decode it like any other frame from now on.
      v.hasRaw = false;
      v.positioned = false;
      return ReadFrame(track, index, layout, dst, stride);
    }
    if (got != 1) {
      v.positioned = false;
      return Status::kFail;
    }
    v.lastDelivered = target;
    if (raw) return Status::kOk;
    const AVFrame* f = v.frame.get();
    if (f->width != t.width || f->height != t.height) {
      // A size change mid-stream would overrun the caller's rows.
      av_frame_unref(v.frame.get());
      return Status::kFail;
    }
    s = v.converter.ToLayout(f, layout, dst, stride);
    av_frame_unref(v.frame.get());
    return s;
  } catch (const std::bad_alloc&) {
    v.positioned = false;
    return Status::kOutOfMemory;
  }
}

namespace {

// Interleaved samples of `frame` [offset, offset + count) into `out` in `layout`.
Status ConvertSamples(AudioState& a, int offset, int count, SampleLayout layout,
                      std::uint8_t* out) {
  const AVFrame* f = a.frame.get();
  const AVSampleFormat want = layout == SampleLayout::kS16   ? AV_SAMPLE_FMT_S16
                              : layout == SampleLayout::kF32 ? AV_SAMPLE_FMT_FLT
                                                             : AV_SAMPLE_FMT_S32;
  const auto in = static_cast<AVSampleFormat>(f->format);
  if (!a.swr || a.swrFormat != static_cast<int>(want) || a.swrIn != in) {
    SwrContext* s = nullptr;
    AVChannelLayout lay;
    av_channel_layout_default(&lay, a.channels);
    if (swr_alloc_set_opts2(&s, &lay, want, a.sampleRate, &lay, in, a.sampleRate, 0, nullptr) < 0)
      return Status::kOutOfMemory;
    a.swr.reset(s);
    if (swr_init(s) < 0) return Status::kFail;
    a.swrFormat = static_cast<int>(want);
    a.swrIn = in;
  }
  const int bps = av_get_bytes_per_sample(in);
  std::vector<const std::uint8_t*> planes(static_cast<std::size_t>(a.channels));
  if (av_sample_fmt_is_planar(in)) {
    for (int c = 0; c < a.channels; ++c)
      planes[c] = f->extended_data[c] + static_cast<std::size_t>(offset) * bps;
  } else {
    planes[0] = f->extended_data[0] + static_cast<std::size_t>(offset) * bps * a.channels;
  }
  std::uint8_t* dst = out;
  if (layout == SampleLayout::kS24) {
    a.conv.resize(static_cast<std::size_t>(count) * a.channels * 4);
    dst = a.conv.data();
  }
  const int n = swr_convert(a.swr.get(), &dst, count, planes.data(), count);
  if (n != count) return Status::kFail;
  if (layout == SampleLayout::kS24) {
    const std::size_t total = static_cast<std::size_t>(count) * a.channels;
    for (std::size_t i = 0; i < total; ++i) std::memcpy(out + 3 * i, a.conv.data() + 4 * i + 1, 3);
  }
  return Status::kOk;
}

}  // namespace

Status MediaReader::ReadAudio(int track, std::int64_t start, std::int64_t count,
                              SampleLayout layout, void* dst, std::int64_t* got) {
  if (got) *got = 0;
  if (!IsOpen() || track < 0 || static_cast<std::size_t>(track) >= impl_->audio.size() || !dst ||
      start < 0 || count < 0)
    return Status::kInvalidArg;
  Impl& im = *impl_;
  AudioState& a = im.audio[static_cast<std::size_t>(track)];
  const std::size_t frameBytes = static_cast<std::size_t>(SampleBytes(layout)) * a.channels;
  auto* out = static_cast<std::uint8_t*>(dst);
  if (static_cast<std::uint64_t>(count) > SIZE_MAX / frameBytes) return Status::kInvalidArg;
  const std::int64_t real = std::max<std::int64_t>(0, std::min(count, a.total - start));
  if (count > 0) std::memset(out, 0, static_cast<std::size_t>(count) * frameBytes);
  if (real == 0) return Status::kOk;
  try {
    Status s = im.PrepareAudio(a);
    if (s != Status::kOk) return s;
    // Continue when the start lies in the frame at hand or a little ahead of it.
    const std::int64_t ahead = a.sampleRate;  // one second of decoding beats a seek
    const bool inFrame = a.haveFrame && start >= a.framePos && start < a.nextPos;
    const bool forward = a.positioned && start >= a.nextPos && start - a.nextPos <= ahead;
    std::int64_t margin = 0;
    int attempts = 0;
    if (!inFrame && !forward) {
      for (;;) {
        // Start some frames early so the decoder has settled by the first sample wanted.
        margin = a.pcm ? 0 : std::max<std::int64_t>(margin * 2, 8192);
        s = im.SeekAudio(a,
                         attempts >= kSeekAttempts ? 0 : std::max<std::int64_t>(0, start - margin));
        if (s != Status::kOk) return s;
        int preroll = 0;
        bool ok = false;
        while (im.NextAudioFrame(a)) {
          if (a.nextPos <= start) {
            ++preroll;
            continue;
          }
          // The first frames after a seek may be unsettled; they count only at the start.
          ok = a.framePos <= start && (a.pcm || preroll >= kAudioPreroll || a.framePos <= 0);
          break;
        }
        if (ok || attempts >= kSeekAttempts) break;
        ++attempts;
      }
      if (!a.haveFrame || a.framePos > start) {
        a.positioned = false;
        return Status::kFail;
      }
    } else if (!inFrame) {
      while (im.NextAudioFrame(a) && a.nextPos <= start) {
      }
      if (!a.haveFrame || a.framePos > start) {
        a.positioned = false;
        return Status::kFail;
      }
    }
    std::int64_t pos = start;
    std::int64_t done = 0;
    while (done < real) {
      if (!a.haveFrame) break;
      if (pos >= a.nextPos) {
        if (!im.NextAudioFrame(a)) break;
        continue;
      }
      if (pos < a.framePos) break;  // a gap in the stream: the rest stays silent
      const int offset = static_cast<int>(pos - a.framePos);
      const int n = static_cast<int>(std::min<std::int64_t>(a.nextPos - pos, real - done));
      s = ConvertSamples(a, offset, n, layout, out + static_cast<std::size_t>(done) * frameBytes);
      if (s != Status::kOk) return s;
      done += n;
      pos += n;
    }
    if (got) *got = done;
    return done == real ? Status::kOk : Status::kFail;
  } catch (const std::bad_alloc&) {
    a.positioned = false;
    return Status::kOutOfMemory;
  }
}

}  // namespace vx::ffmedia
