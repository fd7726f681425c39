// Placeholder until the codec lands: no compressed format is decoded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "vx/sound_decoder.h"

namespace vx::audio {
std::unique_ptr<vx::os::SoundDecoder> MakeSoundDecoder(const void* format, std::size_t formatBytes);
const char* CompressionName(std::uint16_t formatTag);
}  // namespace vx::audio
