// The audio compression manager's codecs: each Decode converts whole blocks in one stream
// header and starts the codec afresh, so no state of an earlier call reaches a later block.
#include "vx/sound_decoder.h"

#include <cstring>

#include "win.h"
// The compression manager's headers need the multimedia ones first.
#include <mmsystem.h>
//
#include <mmreg.h>
//
#include <msacm.h>

namespace vx::os {
namespace {

constexpr std::size_t kFormatBytes = 18;
constexpr std::uint32_t kMaxConvertBytes = 1 << 20;  // input bytes per stream header

std::uint32_t Le16(const std::uint8_t* p) {
  return p[0] | std::uint32_t{p[1]} << 8;
}

// Frames per block for the four formats whose fields agree with each other, else 0.
std::uint32_t FramesPerBlock(const std::uint8_t* f, std::size_t extra) {
  const std::uint32_t tag = Le16(f), ch = Le16(f + 2), align = Le16(f + 12), bits = Le16(f + 14);
  if (ch == 0 || align == 0) return 0;
  const std::uint32_t spb = extra >= 2 ? Le16(f + kFormatBytes) : 0;
  switch (tag) {
    case WAVE_FORMAT_ALAW:
    case WAVE_FORMAT_MULAW:
      return bits == 8 && align == ch ? 1 : 0;
    case WAVE_FORMAT_IMA_ADPCM:
      if (bits != 4 || align <= 4 * ch || (align - 4 * ch) % (4 * ch) != 0) return 0;
      return spb == 1 + (align - 4 * ch) / (4 * ch) * 8 ? spb : 0;
    case WAVE_FORMAT_ADPCM:
      if (bits != 4 || extra < 4 || align < 7 * ch) return 0;
      return spb == 2 + (align - 7 * ch) * 2 / ch ? spb : 0;
    default:
      return 0;
  }
}

class AcmDecoder final : public SoundDecoder {
 public:
  AcmDecoder(HACMSTREAM stream, std::uint32_t frames, std::uint32_t channels, std::uint32_t align)
      : stream_(stream), frames_(frames), channels_(channels), align_(align) {}
  ~AcmDecoder() override { acmStreamClose(stream_, 0); }
  AcmDecoder(const AcmDecoder&) = delete;
  AcmDecoder& operator=(const AcmDecoder&) = delete;

  std::uint32_t FramesPerBlock() const override { return frames_; }

  bool Decode(const std::uint8_t* in, std::uint32_t blocks, std::int16_t* out) override {
    const std::uint32_t perHeader = align_ < kMaxConvertBytes ? kMaxConvertBytes / align_ : 1;
    while (blocks > 0) {
      const std::uint32_t n = blocks < perHeader ? blocks : perHeader;
      ACMSTREAMHEADER h{};
      h.cbStruct = sizeof h;
      h.pbSrc = const_cast<LPBYTE>(in);  // read only
      h.cbSrcLength = n * align_;
      h.pbDst = reinterpret_cast<LPBYTE>(out);
      h.cbDstLength = n * frames_ * channels_ * sizeof(std::int16_t);
      if (acmStreamPrepareHeader(stream_, &h, 0) != MMSYSERR_NOERROR) return false;
      const MMRESULT r =
          acmStreamConvert(stream_, &h, ACM_STREAMCONVERTF_BLOCKALIGN | ACM_STREAMCONVERTF_START);
      const bool whole = r == MMSYSERR_NOERROR && h.cbSrcLengthUsed == h.cbSrcLength &&
                         h.cbDstLengthUsed == h.cbDstLength;
      acmStreamUnprepareHeader(stream_, &h, 0);
      if (!whole) return false;
      blocks -= n;
      in += h.cbSrcLength;
      out += std::size_t{n} * frames_ * channels_;
    }
    return true;
  }

 private:
  HACMSTREAM stream_;
  std::uint32_t frames_, channels_, align_;
};

}  // namespace

std::unique_ptr<SoundDecoder> OpenSystemSoundDecoder(const void* format, std::size_t formatBytes) {
  if (!format || formatBytes < kFormatBytes) return nullptr;
  const auto* f = static_cast<const std::uint8_t*>(format);
  const std::size_t extra = Le16(f + 16);
  if (extra > formatBytes - kFormatBytes) return nullptr;
  const std::uint32_t frames = FramesPerBlock(f, extra);
  if (frames == 0) return nullptr;
  // The codec reads the fields in place, so they get a properly aligned copy.
  std::unique_ptr<std::uint64_t[]> src(new std::uint64_t[(kFormatBytes + extra + 7) / 8]);
  std::memcpy(src.get(), f, kFormatBytes + extra);
  auto* wfx = reinterpret_cast<WAVEFORMATEX*>(src.get());
  WAVEFORMATEX pcm{};
  pcm.wFormatTag = WAVE_FORMAT_PCM;
  pcm.nChannels = wfx->nChannels;
  pcm.nSamplesPerSec = wfx->nSamplesPerSec;
  pcm.wBitsPerSample = 16;
  pcm.nBlockAlign = static_cast<WORD>(wfx->nChannels * 2);
  pcm.nAvgBytesPerSec = pcm.nSamplesPerSec * pcm.nBlockAlign;
  HACMSTREAM stream = nullptr;
  if (acmStreamOpen(&stream, nullptr, wfx, &pcm, nullptr, 0, 0, ACM_STREAMOPENF_NONREALTIME) !=
      MMSYSERR_NOERROR)
    return nullptr;
  try {
    return std::make_unique<AcmDecoder>(stream, frames, wfx->nChannels, wfx->nBlockAlign);
  } catch (...) {
    acmStreamClose(stream, 0);
    throw;
  }
}

}  // namespace vx::os
