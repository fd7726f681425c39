#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <system_error>

#include "movie/ffmpeg/ffmedia_internal.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libavutil/timecode.h>
}

namespace vx::ffmedia {
namespace {

using detail::FromAv;

struct EncoderPlan {
  const char* encoder;
  AVPixelFormat format;
  const char* profile;                     // private "profile" option, or null
  int profileNumber = FF_PROFILE_UNKNOWN;  // what MXF's descriptor needs to know
  bool bottomUp = false;                   // DIB rows, last row first
};

EncoderPlan PlanFor(VideoCodec c, OutputContainer container) {
  const bool avi = container == OutputContainer::kAvi;
  switch (c) {
    case VideoCodec::kProRes422HQ:
      return {"prores_ks", AV_PIX_FMT_YUV422P10, "hq", FF_PROFILE_PRORES_HQ};
    case VideoCodec::kProRes4444:
      return {"prores_ks", AV_PIX_FMT_YUVA444P10, "4444", FF_PROFILE_PRORES_4444};
    case VideoCodec::kDNxHRHQ:
      return {"dnxhd", AV_PIX_FMT_YUV422P, "dnxhr_hq", FF_PROFILE_DNXHR_HQ};
    case VideoCodec::kDNxHRHQX:
      return {"dnxhd", AV_PIX_FMT_YUV422P10, "dnxhr_hqx", FF_PROFILE_DNXHR_HQX};
    case VideoCodec::kV210:
      return {"v210", AV_PIX_FMT_YUV422P10, nullptr};
    case VideoCodec::kMJPEG:
      return {"mjpeg", AV_PIX_FMT_YUVJ422P, nullptr};
    case VideoCodec::kRGB24:
    case VideoCodec::kBGR24:
      if (avi) return {"rawvideo", AV_PIX_FMT_BGR24, nullptr, FF_PROFILE_UNKNOWN, true};
      return {"rawvideo", AV_PIX_FMT_RGB24, nullptr};
    case VideoCodec::kRGBA8:
    case VideoCodec::kBGRA8:
      if (avi) return {"rawvideo", AV_PIX_FMT_BGRA, nullptr, FF_PROFILE_UNKNOWN, true};
      // QuickTime's 32-bit raw video is A R G B.
      return {"rawvideo", AV_PIX_FMT_ARGB, nullptr};
  }
  return {nullptr, AV_PIX_FMT_NONE, nullptr};
}

// MXF's muxer describes only the compressed codecs it knows.
bool MxfTakes(VideoCodec c) {
  return c == VideoCodec::kProRes422HQ || c == VideoCodec::kProRes4444 ||
         c == VideoCodec::kDNxHRHQ || c == VideoCodec::kDNxHRHQX;
}

// JPEG pictures are full range, and the pixel converter delivers video range: stretch the
// 8-bit planes of a 4:2:2 frame in place.
void ExpandToFullRange(AVFrame* f) {
  std::uint8_t luma[256], chroma[256];
  for (int v = 0; v < 256; ++v) {
    const int y = ((v - 16) * 255 + 109) / 219;
    const int c = 128 + ((v - 128) * 255 + (v >= 128 ? 112 : -112)) / 224;
    luma[v] = static_cast<std::uint8_t>(std::clamp(y, 0, 255));
    chroma[v] = static_cast<std::uint8_t>(std::clamp(c, 0, 255));
  }
  for (int plane = 0; plane < 3; ++plane) {
    const int w = plane ? (f->width + 1) / 2 : f->width;
    const std::uint8_t* table = plane ? chroma : luma;
    for (int y = 0; y < f->height; ++y) {
      std::uint8_t* row = f->data[plane] + static_cast<std::ptrdiff_t>(y) * f->linesize[plane];
      for (int x = 0; x < w; ++x) row[x] = table[row[x]];
    }
  }
}

// Turns a packed frame upside down in place.
void FlipRows(AVFrame* f) {
  const int h = f->height;
  const std::size_t row = static_cast<std::size_t>(std::abs(f->linesize[0]));
  std::vector<std::uint8_t> tmp(row);
  for (int y = 0; y < h / 2; ++y) {
    std::uint8_t* a = f->data[0] + static_cast<std::ptrdiff_t>(y) * f->linesize[0];
    std::uint8_t* b = f->data[0] + static_cast<std::ptrdiff_t>(h - 1 - y) * f->linesize[0];
    std::memcpy(tmp.data(), a, row);
    std::memcpy(a, b, row);
    std::memcpy(b, tmp.data(), row);
  }
}

struct Track {
  AVStream* stream = nullptr;
  AVCodecContext* enc = nullptr;
  AVFrame* frame = nullptr;
  std::int64_t next = 0;  // pts of the next frame, in the encoder's time base
  int channels = 0;
  int bits = 0;
};

}  // namespace

struct MovWriter::Impl {
  std::string path;
  std::string temp;
  AVFormatContext* oc = nullptr;
  bool headerWritten = false;
  bool hasVideo = false;
  bool bottomUp = false;
  OutputContainer container = OutputContainer::kMov;
  Track video;
  std::vector<Track> audio;
  detail::PixelConverter converter;
  AVPacket* packet = nullptr;

  ~Impl() {
    FreeAll();
    if (!temp.empty()) {
      std::error_code ec;
      std::filesystem::remove(temp, ec);
    }
  }

  void FreeTrack(Track& t) {
    avcodec_free_context(&t.enc);
    av_frame_free(&t.frame);
  }
  void FreeAll() {
    FreeTrack(video);
    for (Track& t : audio) FreeTrack(t);
    audio.clear();
    if (oc) {
      if (oc->pb) avio_closep(&oc->pb);
      avformat_free_context(oc);
      oc = nullptr;
    }
    av_packet_free(&packet);
  }

  // Sends `frame` (null: flush) and writes what comes out.
  Status Encode(Track& t, AVFrame* frame) {
    int r = avcodec_send_frame(t.enc, frame);
    if (r < 0 && !(frame == nullptr && r == AVERROR_EOF)) return FromAv(r);
    for (;;) {
      r = avcodec_receive_packet(t.enc, packet);
      if (r == AVERROR(EAGAIN) || r == AVERROR_EOF) return Status::kOk;
      if (r < 0) return FromAv(r);
      av_packet_rescale_ts(packet, t.enc->time_base, t.stream->time_base);
      packet->stream_index = t.stream->index;
      r = av_interleaved_write_frame(oc, packet);
      if (r < 0) return FromAv(r);
    }
  }

  Status AddVideo(const VideoSettings& s) {
    const EncoderPlan plan = PlanFor(s.codec, container);
    if (container == OutputContainer::kMxf && !MxfTakes(s.codec)) return Status::kUnsupported;
    const AVCodec* codec = plan.encoder ? avcodec_find_encoder_by_name(plan.encoder) : nullptr;
    if (!codec) return Status::kUnsupported;
    video.stream = avformat_new_stream(oc, nullptr);
    video.enc = avcodec_alloc_context3(codec);
    if (!video.stream || !video.enc) return Status::kOutOfMemory;
    AVCodecContext* c = video.enc;
    c->width = s.width;
    c->height = s.height;
    c->pix_fmt = plan.format;
    c->time_base = {static_cast<int>(s.rate.den), static_cast<int>(s.rate.num)};
    c->framerate = {static_cast<int>(s.rate.num), static_cast<int>(s.rate.den)};
    c->sample_aspect_ratio = {1, 1};
    c->thread_count = 0;
    const bool rgb = s.codec == VideoCodec::kRGB24 || s.codec == VideoCodec::kRGBA8 ||
                     s.codec == VideoCodec::kBGR24 || s.codec == VideoCodec::kBGRA8;
    c->colorspace = rgb ? AVCOL_SPC_RGB : AVCOL_SPC_BT709;
    c->color_primaries = AVCOL_PRI_BT709;
    c->color_trc = AVCOL_TRC_BT709;
    c->color_range = rgb ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    c->field_order = s.fieldOrder == FieldOrder::kTopFirst      ? AV_FIELD_TT
                     : s.fieldOrder == FieldOrder::kBottomFirst ? AV_FIELD_BB
                                                                : AV_FIELD_PROGRESSIVE;
    if (oc->oformat->flags & AVFMT_GLOBALHEADER) c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    if (plan.profile && av_opt_set(c->priv_data, "profile", plan.profile, 0) < 0)
      return Status::kUnsupported;
    c->profile = plan.profileNumber;
    // AVI names no matrix and its readers take BT.601 for every picture it holds.
    if (container == OutputContainer::kAvi && !rgb) {
      c->colorspace = AVCOL_SPC_BT470BG;
      c->color_primaries = AVCOL_PRI_BT470BG;
      c->color_trc = AVCOL_TRC_SMPTE170M;
    }
    if (s.codec == VideoCodec::kMJPEG) {
      // Fixed quality rather than a bit rate: JPEG has no rate control worth the name.
      c->flags |= AV_CODEC_FLAG_QSCALE;
      c->global_quality = FF_QP2LAMBDA * 2;
      c->color_range = AVCOL_RANGE_JPEG;
      c->colorspace = AVCOL_SPC_BT470BG;
    }
    bottomUp = plan.bottomUp;
    int r = avcodec_open2(c, codec, nullptr);
    if (r < 0) return r == AVERROR(ENOMEM) ? Status::kOutOfMemory : Status::kInvalidArg;
    r = avcodec_parameters_from_context(video.stream->codecpar, c);
    if (r < 0) return FromAv(r);
    video.stream->time_base = c->time_base;
    video.stream->avg_frame_rate = c->framerate;
    video.frame = av_frame_alloc();
    if (!video.frame) return Status::kOutOfMemory;
    video.frame->format = c->pix_fmt;
    video.frame->width = c->width;
    video.frame->height = c->height;
    video.frame->colorspace = c->colorspace == AVCOL_SPC_RGB ? AVCOL_SPC_BT709 : c->colorspace;
    video.frame->color_range = c->color_range;
    hasVideo = true;
    return Status::kOk;
  }

  Status AddAudio(const AudioSettings& s) {
    if (s.sampleRate <= 0 || s.channels <= 0 || s.channels > 64 || (s.bits != 16 && s.bits != 24))
      return Status::kInvalidArg;
    const AVCodec* codec =
        avcodec_find_encoder(s.bits == 16 ? AV_CODEC_ID_PCM_S16LE : AV_CODEC_ID_PCM_S24LE);
    if (!codec) return Status::kUnsupported;
    Track t;
    t.stream = avformat_new_stream(oc, nullptr);
    t.enc = avcodec_alloc_context3(codec);
    audio.push_back(t);
    Track& a = audio.back();
    if (!a.stream || !a.enc) return Status::kOutOfMemory;
    AVCodecContext* c = a.enc;
    c->sample_rate = s.sampleRate;
    c->sample_fmt = s.bits == 16 ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_S32;
    av_channel_layout_default(&c->ch_layout, s.channels);
    c->time_base = {1, s.sampleRate};
    c->bits_per_raw_sample = s.bits;
    int r = avcodec_open2(c, codec, nullptr);
    if (r < 0) return FromAv(r);
    r = avcodec_parameters_from_context(a.stream->codecpar, c);
    if (r < 0) return FromAv(r);
    a.stream->time_base = c->time_base;
    a.frame = av_frame_alloc();
    if (!a.frame) return Status::kOutOfMemory;
    a.channels = s.channels;
    a.bits = s.bits;
    return Status::kOk;
  }
};

MovWriter::MovWriter() = default;
MovWriter::~MovWriter() = default;

std::int64_t MovWriter::FramesWritten() const {
  return impl_ ? impl_->video.next : 0;
}

Status MovWriter::Open(const std::string& path, const VideoSettings* video,
                       const std::vector<AudioSettings>& audio, const std::string& timecode,
                       const std::vector<std::pair<std::string, std::string>>& metadata,
                       OutputContainer container) {
  impl_.reset();
  if (path.empty() || (!video && audio.empty())) return Status::kInvalidArg;
  if (video && (video->width <= 0 || video->height <= 0 || video->width > detail::kMaxDimension ||
                video->height > detail::kMaxDimension || video->rate.num <= 0 ||
                video->rate.den <= 0 || video->rate.num > INT32_MAX || video->rate.den > INT32_MAX))
    return Status::kInvalidArg;
  if (!timecode.empty()) {
    AVTimecode tc;
    const AVRational rate =
        video ? AVRational{static_cast<int>(video->rate.num), static_cast<int>(video->rate.den)}
              : AVRational{25, 1};
    if (av_timecode_init_from_string(&tc, rate, timecode.c_str(), nullptr) < 0)
      return Status::kInvalidArg;
  }
  try {
    auto im = std::make_unique<Impl>();
    im->path = path;
    im->temp = path + ".part" + std::to_string(reinterpret_cast<std::uintptr_t>(im.get()));
    im->container = container;
    const char* formatName = container == OutputContainer::kAvi   ? "avi"
                             : container == OutputContainer::kMxf ? "mxf"
                                                                  : "mov";
    const AVOutputFormat* of = av_guess_format(formatName, nullptr, nullptr);
    if (!of) return Status::kUnsupported;
    int r = avformat_alloc_output_context2(&im->oc, of, nullptr, im->temp.c_str());
    if (r < 0 || !im->oc) return Status::kOutOfMemory;
    im->packet = av_packet_alloc();
    if (!im->packet) return Status::kOutOfMemory;
    Status s = Status::kOk;
    if (video) s = im->AddVideo(*video);
    for (std::size_t i = 0; s == Status::kOk && i < audio.size(); ++i) s = im->AddAudio(audio[i]);
    if (s != Status::kOk) return s;
    for (const auto& [k, v] : metadata) av_dict_set(&im->oc->metadata, k.c_str(), v.c_str(), 0);
    if (!timecode.empty()) {
      av_dict_set(&im->oc->metadata, "timecode", timecode.c_str(), 0);
      if (video) av_dict_set(&im->video.stream->metadata, "timecode", timecode.c_str(), 0);
    }
    r = avio_open(&im->oc->pb, im->temp.c_str(), AVIO_FLAG_WRITE);
    if (r < 0) return Status::kFail;
    AVDictionary* options = nullptr;
    if (im->bottomUp) av_dict_set(&options, "flipped_raw_rgb", "1", 0);
    r = avformat_write_header(im->oc, &options);
    av_dict_free(&options);
    if (r < 0) return r == AVERROR(ENOMEM) ? Status::kOutOfMemory : Status::kUnsupported;
    im->headerWritten = true;
    impl_ = std::move(im);
    return Status::kOk;
  } catch (const std::bad_alloc&) {
    return Status::kOutOfMemory;
  }
}

Status MovWriter::WriteFrame(const std::uint8_t* src, std::ptrdiff_t stride, PixelLayout layout) {
  if (!impl_ || !impl_->hasVideo || !src) return Status::kInvalidArg;
  Track& t = impl_->video;
  if (stride < 0 || static_cast<std::size_t>(stride) < MinRowBytes(layout, t.enc->width))
    return Status::kInvalidArg;
  try {
    AVFrame* f = t.frame;
    int r = av_frame_get_buffer(f, 0);
    if (r < 0) return FromAv(r);
    Status s = impl_->converter.FromLayout(src, stride, layout, f);
    if (s == Status::kOk && impl_->bottomUp) FlipRows(f);
    if (s == Status::kOk && t.enc->pix_fmt == AV_PIX_FMT_YUVJ422P) ExpandToFullRange(f);
    if (s == Status::kOk) {
      f->pts = t.next++;
      s = impl_->Encode(t, f);
    }
    av_frame_unref(f);
    // av_frame_unref forgets the frame's description; the next frame needs it again.
    f->format = t.enc->pix_fmt;
    f->width = t.enc->width;
    f->height = t.enc->height;
    f->colorspace = t.enc->colorspace == AVCOL_SPC_RGB ? AVCOL_SPC_BT709 : t.enc->colorspace;
    f->color_range = t.enc->color_range;
    return s;
  } catch (const std::bad_alloc&) {
    return Status::kOutOfMemory;
  }
}

Status MovWriter::WriteAudio(int track, const void* src, std::int64_t count, SampleLayout layout) {
  if (!impl_ || track < 0 || static_cast<std::size_t>(track) >= impl_->audio.size() || !src ||
      count < 0)
    return Status::kInvalidArg;
  Track& t = impl_->audio[static_cast<std::size_t>(track)];
  const auto* in = static_cast<const std::uint8_t*>(src);
  const int inBytes = SampleBytes(layout);
  // PCM encoders take any frame length; a bounded chunk keeps the buffers small.
  constexpr std::int64_t kChunk = 16384;
  while (count > 0) {
    const int n = static_cast<int>(std::min(count, kChunk));
    AVFrame* f = t.frame;
    f->format = t.enc->sample_fmt;
    f->nb_samples = n;
    f->sample_rate = t.enc->sample_rate;
    if (av_channel_layout_copy(&f->ch_layout, &t.enc->ch_layout) < 0) return Status::kOutOfMemory;
    int r = av_frame_get_buffer(f, 0);
    if (r < 0) return FromAv(r);
    const std::size_t total = static_cast<std::size_t>(n) * t.channels;
    for (std::size_t i = 0; i < total; ++i) {
      const std::uint8_t* p = in + i * inBytes;
      std::int32_t v = 0;  // full-scale 32-bit
      switch (layout) {
        case SampleLayout::kS16:
          v = static_cast<std::int32_t>(static_cast<std::uint32_t>(p[0] | p[1] << 8) << 16);
          break;
        case SampleLayout::kS24:
          v = static_cast<std::int32_t>(static_cast<std::uint32_t>(p[0]) << 8 |
                                        static_cast<std::uint32_t>(p[1]) << 16 |
                                        static_cast<std::uint32_t>(p[2]) << 24);
          break;
        case SampleLayout::kS32:
          std::memcpy(&v, p, 4);
          break;
        case SampleLayout::kF32: {
          float x;
          std::memcpy(&x, p, 4);
          const double d = std::isnan(x) ? 0.0 : std::round(static_cast<double>(x) * 2147483648.0);
          v = d >= 2147483647.0 ? INT32_MAX : d <= -2147483648.0 ? INT32_MIN : static_cast<int>(d);
          break;
        }
      }
      if (t.bits == 16) {
        reinterpret_cast<std::int16_t*>(f->data[0])[i] = static_cast<std::int16_t>(v >> 16);
      } else {
        reinterpret_cast<std::int32_t*>(f->data[0])[i] =
            static_cast<std::int32_t>(static_cast<std::uint32_t>(v) & 0xFFFFFF00u);
      }
    }
    f->pts = t.next;
    t.next += n;
    const Status s = impl_->Encode(t, f);
    av_frame_unref(f);
    if (s != Status::kOk) return s;
    in += total * inBytes;
    count -= n;
  }
  return Status::kOk;
}

Status MovWriter::Finish() {
  if (!impl_) return Status::kInvalidArg;
  Impl& im = *impl_;
  Status s = Status::kOk;
  if (im.hasVideo) s = im.Encode(im.video, nullptr);
  for (Track& t : im.audio)
    if (s == Status::kOk) s = im.Encode(t, nullptr);
  if (s == Status::kOk && av_write_trailer(im.oc) < 0) s = Status::kFail;
  if (im.oc->pb && avio_closep(&im.oc->pb) < 0) s = Status::kFail;
  if (s == Status::kOk) {
    std::error_code ec;
    std::filesystem::rename(im.temp, im.path, ec);
    if (ec)
      s = Status::kFail;
    else
      im.temp.clear();
  }
  impl_.reset();  // removes the temporary when anything failed
  return s;
}

}  // namespace vx::ffmedia
