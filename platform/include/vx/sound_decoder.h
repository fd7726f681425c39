// Decoding compressed WAV sound (A-law, mu-law, IMA and Microsoft ADPCM, ...) to 16-bit PCM.
// Windows has the audio compression manager for this, so its decoder lives in the platform
// layer; other systems get theirs from the component's FFmpeg-backed codec.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace vx::os {

// Block by block: every block (nBlockAlign bytes) of the formats above decodes on its own, so a
// read at any position decodes only the blocks it touches. Used by one thread at a time.
class SoundDecoder {
 public:
  virtual ~SoundDecoder() = default;
  // Sample frames one whole block decodes to (1 for A-law and mu-law).
  virtual std::uint32_t FramesPerBlock() const = 0;
  // Decodes `blocks` whole blocks at `in` into interleaved 16-bit frames at `out`, which has
  // room for blocks * FramesPerBlock() frames. False when the codec refuses the data.
  virtual bool Decode(const std::uint8_t* in, std::uint32_t blocks, std::int16_t* out) = 0;
};

// The system's decoder for a compressed format: `format` is the file's WAVEFORMATEX with its
// cbSize extra bytes, `formatBytes` long. Null when the system has none for it (always null
// outside Windows).
std::unique_ptr<SoundDecoder> OpenSystemSoundDecoder(const void* format, std::size_t formatBytes);

}  // namespace vx::os
