// A-law and mu-law through libavcodec, where the system has no codec of its own.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cstring>

#include "audio/codec/codec_format.h"
#include "audio/codec/sound_codec.h"

namespace vx::audio {
namespace {

// Bounds each packet: a long read is decoded in pieces of at most this many input bytes.
constexpr std::size_t kMaxPacketBytes = 1 << 20;

struct ContextFree {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameFree {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};

class FfmpegDecoder final : public vx::os::SoundDecoder {
 public:
  FfmpegDecoder(AVCodecContext* ctx, const CodecFormat& f)
      : ctx_(ctx), ch_(f.channels), align_(f.blockAlign), frames_(f.framesPerBlock) {}
  bool Ready() const { return ctx_ && packet_ && frame_; }
  std::uint32_t FramesPerBlock() const override { return frames_; }

  bool Decode(const std::uint8_t* in, std::uint32_t blocks, std::int16_t* out) override {
    const std::uint32_t perPacket =
        static_cast<std::uint32_t>(std::max<std::size_t>(1, kMaxPacketBytes / align_));
    while (blocks > 0) {
      const std::uint32_t n = std::min(blocks, perPacket);
      if (!DecodePacket(in, n, out)) {
        avcodec_flush_buffers(ctx_.get());
        return false;
      }
      blocks -= n;
      in += std::size_t{n} * align_;
      out += std::size_t{n} * frames_ * ch_;
    }
    return true;
  }

 private:
  bool DecodePacket(const std::uint8_t* in, std::uint32_t blocks, std::int16_t* out) {
    const std::size_t bytes = std::size_t{blocks} * align_;
    const std::size_t want = std::size_t{blocks} * frames_;
    av_packet_unref(packet_.get());
    if (av_new_packet(packet_.get(), static_cast<int>(bytes)) < 0) return false;
    std::memcpy(packet_->data, in, bytes);  // av_new_packet pads; the caller's buffer is not
    if (avcodec_send_packet(ctx_.get(), packet_.get()) < 0) return false;
    std::size_t done = 0;
    for (;;) {
      const int r = avcodec_receive_frame(ctx_.get(), frame_.get());
      if (r == AVERROR(EAGAIN)) break;
      if (r < 0) return false;
      const bool ok = CopyFrame(out, want, done);
      av_frame_unref(frame_.get());
      if (!ok) return false;
    }
    return done == want;
  }

  // Appends the frame's samples, interleaved, if they fit in what the packet should give.
  bool CopyFrame(std::int16_t* out, std::size_t want, std::size_t& done) {
    const std::size_t n = static_cast<std::size_t>(frame_->nb_samples);
    if (frame_->nb_samples < 0 || n > want - done || frame_->ch_layout.nb_channels != int(ch_))
      return false;
    std::int16_t* to = out + done * ch_;
    if (frame_->format == AV_SAMPLE_FMT_S16) {
      std::memcpy(to, frame_->data[0], n * ch_ * sizeof(std::int16_t));
    } else if (frame_->format == AV_SAMPLE_FMT_S16P) {
      for (std::uint32_t c = 0; c < ch_; ++c) {
        const auto* plane = reinterpret_cast<const std::int16_t*>(frame_->extended_data[c]);
        for (std::size_t i = 0; i < n; ++i) to[i * ch_ + c] = plane[i];
      }
    } else {
      return false;
    }
    done += n;
    return true;
  }

  std::unique_ptr<AVCodecContext, ContextFree> ctx_;
  std::unique_ptr<AVPacket, PacketFree> packet_{av_packet_alloc()};
  std::unique_ptr<AVFrame, FrameFree> frame_{av_frame_alloc()};
  std::uint32_t ch_, align_, frames_;
};

}  // namespace

std::unique_ptr<vx::os::SoundDecoder> OpenFfmpegDecoder(const CodecFormat& f) {
  AVCodecID id = AV_CODEC_ID_NONE;
  if (f.tag == kTagALaw) id = AV_CODEC_ID_PCM_ALAW;
  if (f.tag == kTagMuLaw) id = AV_CODEC_ID_PCM_MULAW;
  const AVCodec* codec = avcodec_find_decoder(id);
  if (!codec) return nullptr;
  std::unique_ptr<AVCodecContext, ContextFree> ctx(avcodec_alloc_context3(codec));
  if (!ctx) return nullptr;
  ctx->sample_rate = static_cast<int>(std::min<std::uint32_t>(f.rate, INT32_MAX));
  av_channel_layout_default(&ctx->ch_layout, f.channels);
  ctx->block_align = f.blockAlign;
  ctx->bits_per_coded_sample = 8;
  if (!f.extra.empty()) {
    ctx->extradata =
        static_cast<std::uint8_t*>(av_mallocz(f.extra.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!ctx->extradata) return nullptr;
    std::memcpy(ctx->extradata, f.extra.data(), f.extra.size());
    ctx->extradata_size = static_cast<int>(f.extra.size());
  }
  if (avcodec_open2(ctx.get(), codec, nullptr) < 0) return nullptr;
  auto d = std::make_unique<FfmpegDecoder>(ctx.release(), f);
  if (!d->Ready()) return nullptr;
  return d;
}

}  // namespace vx::audio
