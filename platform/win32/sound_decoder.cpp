#include "vx/sound_decoder.h"

namespace vx::os {

// No system codec here: the component decodes with FFmpeg instead.
std::unique_ptr<SoundDecoder> OpenSystemSoundDecoder(const void*, std::size_t) {
  return nullptr;
}

}  // namespace vx::os
