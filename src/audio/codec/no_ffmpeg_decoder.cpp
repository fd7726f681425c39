#include "audio/codec/codec_format.h"

namespace vx::audio {

std::unique_ptr<vx::os::SoundDecoder> OpenFfmpegDecoder(const CodecFormat&) {
  return nullptr;
}

}  // namespace vx::audio
