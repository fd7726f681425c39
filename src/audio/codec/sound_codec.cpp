#include "audio/codec/sound_codec.h"

namespace vx::audio {
std::unique_ptr<vx::os::SoundDecoder> MakeSoundDecoder(const void*, std::size_t) {
  return nullptr;
}
const char* CompressionName(std::uint16_t) {
  return nullptr;
}
}  // namespace vx::audio
