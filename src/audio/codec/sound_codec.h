// Decoders for the compressed sound of WAV files, and the names of WAV format tags.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "vx/sound_decoder.h"

namespace vx::audio {

inline constexpr std::uint16_t kTagPcm = 0x0001;
inline constexpr std::uint16_t kTagMsAdpcm = 0x0002;
inline constexpr std::uint16_t kTagFloat = 0x0003;
inline constexpr std::uint16_t kTagALaw = 0x0006;
inline constexpr std::uint16_t kTagMuLaw = 0x0007;
inline constexpr std::uint16_t kTagImaAdpcm = 0x0011;
inline constexpr std::uint16_t kTagExtensible = 0xFFFE;

// A decoder to 16-bit PCM of the same rate and channels for `format` (a WAVEFORMATEX with its
// cbSize extra bytes, `formatBytes` long): the system's when it has one, else ours. Null for
// any other format, and for one whose fields contradict each other; the parser then answers
// E_NOTIMPL. A-law and mu-law in WAVE_FORMAT_EXTENSIBLE are taken too.
std::unique_ptr<vx::os::SoundDecoder> MakeSoundDecoder(const void* format, std::size_t formatBytes);

// The compression's name for a format tag ("A-law", "IMA ADPCM", "PCM", ...); null if unknown.
const char* CompressionName(std::uint16_t formatTag);

}  // namespace vx::audio
