// IMA and Microsoft ADPCM blocks, decoded here rather than through FFmpeg: its IMA decoder
// rounds each step differently from the reference decoder (which the system codec, sox and
// libsndfile follow), and it refuses IMA with more than two channels and reads Microsoft ADPCM
// with more than two in a layout of its own. Every block restarts the predictors from its
// header, so blocks decode independently.
#include <algorithm>
#include <cstdint>

#include "audio/codec/codec_format.h"
#include "audio/codec/sound_codec.h"
#include "base/bytes.h"

namespace vx::audio {
namespace {

constexpr std::int16_t kImaSteps[89] = {
    7,     8,     9,     10,    11,    12,    13,    14,    16,    17,    19,   21,    23,
    25,    28,    31,    34,    37,    41,    45,    50,    55,    60,    66,   73,    80,
    88,    97,    107,   118,   130,   143,   157,   173,   190,   209,   230,  253,   279,
    307,   337,   371,   408,   449,   494,   544,   598,   658,   724,   796,  876,   963,
    1060,  1166,  1282,  1411,  1552,  1707,  1878,  2066,  2272,  2499,  2749, 3024,  3327,
    3660,  4026,  4428,  4871,  5358,  5894,  6484,  7132,  7845,  8630,  9493, 10442, 11487,
    12635, 13899, 15289, 16818, 18500, 20350, 22385, 24623, 27086, 29794, 32767};
constexpr int kImaIndexStep[8] = {-1, -1, -1, -1, 2, 4, 6, 8};
constexpr int kMsAdapt[16] = {230, 230, 230, 230, 307, 409, 512, 614,
                              768, 614, 512, 409, 307, 230, 230, 230};
// The step grows by up to 3x per nibble on garbage; the cap keeps the arithmetic defined.
constexpr std::int32_t kMsMaxDelta = INT32_MAX / 768;

std::int16_t Clamp16(std::int64_t v) {
  return static_cast<std::int16_t>(std::clamp<std::int64_t>(v, INT16_MIN, INT16_MAX));
}

class ImaAdpcmDecoder final : public vx::os::SoundDecoder {
 public:
  explicit ImaAdpcmDecoder(const CodecFormat& f)
      : ch_(f.channels), align_(f.blockAlign), frames_(f.framesPerBlock) {}
  std::uint32_t FramesPerBlock() const override { return frames_; }

  bool Decode(const std::uint8_t* in, std::uint32_t blocks, std::int16_t* out) override {
    const std::uint32_t groups = (frames_ - 1) / 8;
    for (std::uint32_t b = 0; b < blocks; ++b, in += align_, out += std::size_t{frames_} * ch_) {
      for (std::uint32_t c = 0; c < ch_; ++c) {
        const std::uint8_t* h = in + 4 * c;
        // An index past the table is taken as its last step, as the system codec does.
        const int index = std::min<int>(h[2], 88);
        out[c] = static_cast<std::int16_t>(LoadLE16(h));
        // Each channel's words follow the headers in turn, 8 samples each, low nibble first.
        int sample = out[c], step = index;
        for (std::uint32_t g = 0; g < groups; ++g) {
          const std::uint8_t* w = in + 4 * ch_ + (std::size_t{g} * ch_ + c) * 4;
          for (std::uint32_t k = 0; k < 8; ++k) {
            const int nibble = (w[k / 2] >> (k % 2 * 4)) & 15;
            const int s = kImaSteps[step];
            int diff = s >> 3;
            if (nibble & 4) diff += s;
            if (nibble & 2) diff += s >> 1;
            if (nibble & 1) diff += s >> 2;
            sample = Clamp16(nibble & 8 ? sample - diff : sample + diff);
            step = std::clamp(step + kImaIndexStep[nibble & 7], 0, 88);
            out[(1 + std::size_t{g} * 8 + k) * ch_ + c] = static_cast<std::int16_t>(sample);
          }
        }
      }
    }
    return true;
  }

 private:
  std::uint32_t ch_, align_, frames_;
};

class MsAdpcmDecoder final : public vx::os::SoundDecoder {
 public:
  explicit MsAdpcmDecoder(const CodecFormat& f)
      : ch_(f.channels), align_(f.blockAlign), frames_(f.framesPerBlock), coef_(f.extra) {}
  std::uint32_t FramesPerBlock() const override { return frames_; }

  bool Decode(const std::uint8_t* in, std::uint32_t blocks, std::int16_t* out) override {
    const std::size_t coefficients = LoadLE16(coef_.data() + 2);
    const std::size_t nibbles = std::size_t{frames_ - 2} * ch_;
    for (std::uint32_t b = 0; b < blocks; ++b, in += align_, out += std::size_t{frames_} * ch_) {
      // Header: all predictor numbers, then all deltas, all first and all second samples.
      for (std::uint32_t c = 0; c < ch_; ++c) {
        if (in[c] >= coefficients) return false;
        const std::uint8_t* k = coef_.data() + 4 + 4 * std::size_t{in[c]};
        State& s = state_[c];
        s.coef1 = static_cast<std::int16_t>(LoadLE16(k));
        s.coef2 = static_cast<std::int16_t>(LoadLE16(k + 2));
        s.delta = static_cast<std::int16_t>(LoadLE16(in + ch_ + 2 * c));
        s.s1 = static_cast<std::int16_t>(LoadLE16(in + 3 * ch_ + 2 * c));
        s.s2 = static_cast<std::int16_t>(LoadLE16(in + 5 * ch_ + 2 * c));
        out[c] = static_cast<std::int16_t>(s.s2);
        out[ch_ + c] = static_cast<std::int16_t>(s.s1);
      }
      // Nibbles run through the channels in turn, high nibble first.
      const std::uint8_t* data = in + 7 * ch_;
      for (std::size_t i = 0; i < nibbles; ++i) {
        const int nibble = (data[i / 2] >> (i % 2 ? 0 : 4)) & 15;
        State& s = state_[i % ch_];
        const std::int64_t predicted =
            (std::int64_t{s.s1} * s.coef1 + std::int64_t{s.s2} * s.coef2) >> 8;
        const std::int16_t v =
            Clamp16(predicted + std::int64_t{nibble >= 8 ? nibble - 16 : nibble} * s.delta);
        s.s2 = s.s1;
        s.s1 = v;
        s.delta = std::clamp<std::int32_t>(
            static_cast<std::int32_t>((std::int64_t{kMsAdapt[nibble]} * s.delta) >> 8), 16,
            kMsMaxDelta);
        out[2 * ch_ + i] = v;
      }
    }
    return true;
  }

 private:
  struct State {
    std::int32_t coef1 = 0, coef2 = 0, delta = 0, s1 = 0, s2 = 0;
  };
  std::uint32_t ch_, align_, frames_;
  std::vector<std::uint8_t> coef_;  // the format's extra bytes: count, then pairs
  std::vector<State> state_ = std::vector<State>(ch_);
};

}  // namespace

std::unique_ptr<vx::os::SoundDecoder> OpenAdpcmDecoder(const CodecFormat& f) {
  if (f.tag == kTagImaAdpcm) return std::make_unique<ImaAdpcmDecoder>(f);
  if (f.tag == kTagMsAdpcm) return std::make_unique<MsAdpcmDecoder>(f);
  return nullptr;
}

}  // namespace vx::audio
