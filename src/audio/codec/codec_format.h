// The fields of a compressed WAV format the decoders need, checked against each other once.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "vx/sound_decoder.h"

namespace vx::audio {

struct CodecFormat {
  std::uint16_t tag = 0;  // the plain tag, also for WAVE_FORMAT_EXTENSIBLE
  std::uint16_t channels = 0;
  std::uint32_t rate = 0;
  std::uint16_t blockAlign = 0;
  std::uint32_t framesPerBlock = 0;
  std::vector<std::uint8_t> extra;  // the cbSize bytes (for Microsoft ADPCM: its coefficients)
};

std::unique_ptr<vx::os::SoundDecoder> OpenAdpcmDecoder(const CodecFormat& f);
// Null when this build has no FFmpeg or FFmpeg refuses the format.
std::unique_ptr<vx::os::SoundDecoder> OpenFfmpegDecoder(const CodecFormat& f);

}  // namespace vx::audio
