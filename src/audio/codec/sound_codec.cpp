#include "audio/codec/sound_codec.h"

#include <cstring>

#include "audio/codec/codec_format.h"
#include "base/bytes.h"

namespace vx::audio {
namespace {

constexpr std::size_t kFormatBytes = 18;  // WAVEFORMATEX up to and including cbSize
// KSDATAFORMAT_SUBTYPE_* GUIDs after their first two bytes, which hold the plain tag.
constexpr std::uint8_t kSubtypeTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                           0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

// The decoders index blocks by these numbers; anything they disagree on is refused here.
bool CheckBlocks(CodecFormat& f, std::uint16_t bits) {
  const std::uint32_t ch = f.channels, align = f.blockAlign;
  if (ch == 0 || align == 0 || f.rate == 0) return false;
  switch (f.tag) {
    case kTagALaw:
    case kTagMuLaw:
      f.framesPerBlock = 1;
      return align == ch;
    case kTagImaAdpcm: {
      // Per channel a 4-byte header (the block's first sample), then words of 8 samples.
      if (bits != 4 || f.extra.size() < 2 || align <= 4 * ch || (align - 4 * ch) % (4 * ch) != 0)
        return false;
      f.framesPerBlock = LoadLE16(f.extra.data());
      return f.framesPerBlock == 1 + (align - 4 * ch) / (4 * ch) * 8;
    }
    case kTagMsAdpcm: {
      // Per channel a 7-byte header holding two samples, then one nibble per sample.
      if (bits != 4 || f.extra.size() < 4 || align < 7 * ch) return false;
      const std::size_t coefficients = LoadLE16(f.extra.data() + 2);
      if (coefficients == 0 || f.extra.size() < 4 + 4 * coefficients) return false;
      f.framesPerBlock = LoadLE16(f.extra.data());
      return f.framesPerBlock == 2 + (align - 7 * ch) * 2 / ch;
    }
    default:
      return false;
  }
}

}  // namespace

std::unique_ptr<vx::os::SoundDecoder> MakeSoundDecoder(const void* format,
                                                       std::size_t formatBytes) {
  if (!format || formatBytes < kFormatBytes) return nullptr;
  const auto* p = static_cast<const std::uint8_t*>(format);
  const std::size_t cbSize = LoadLE16(p + 16);
  if (cbSize > formatBytes - kFormatBytes) return nullptr;
  CodecFormat f;
  f.tag = LoadLE16(p);
  f.channels = LoadLE16(p + 2);
  f.rate = LoadLE32(p + 4);
  f.blockAlign = LoadLE16(p + 12);
  const std::uint16_t bits = LoadLE16(p + 14);
  f.extra.assign(p + kFormatBytes, p + kFormatBytes + cbSize);

  // The system decoders take the plain format: extensible G.711 is rewritten as such.
  std::vector<std::uint8_t> plain(p, p + kFormatBytes + cbSize);
  if (f.tag == kTagExtensible) {
    if (cbSize < 22 || std::memcmp(f.extra.data() + 8, kSubtypeTail, sizeof kSubtypeTail) != 0)
      return nullptr;
    f.tag = LoadLE16(f.extra.data() + 6);
    if (f.tag != kTagALaw && f.tag != kTagMuLaw) return nullptr;
    f.extra.clear();
    plain.resize(kFormatBytes);
    StoreLE16(plain.data(), f.tag);
    StoreLE16(plain.data() + 16, 0);
  }
  if (!CheckBlocks(f, bits)) return nullptr;

  if (auto d = vx::os::OpenSystemSoundDecoder(plain.data(), plain.size())) {
    if (d->FramesPerBlock() == f.framesPerBlock) return d;
  }
  if (f.tag == kTagImaAdpcm || f.tag == kTagMsAdpcm) return OpenAdpcmDecoder(f);
  return OpenFfmpegDecoder(f);
}

const char* CompressionName(std::uint16_t formatTag) {
  switch (formatTag) {
    case kTagPcm:
      return "PCM";
    case kTagMsAdpcm:
      return "Microsoft ADPCM";
    case kTagFloat:
      return "IEEE float";
    case kTagALaw:
      return "A-law";
    case kTagMuLaw:
      return "mu-law";
    case kTagImaAdpcm:
      return "IMA ADPCM";
    case 0x0031:
      return "GSM 6.10";
    case 0x0050:
      return "MPEG";
    case 0x0055:
      return "MPEG Layer 3";
    case kTagExtensible:
      return "PCM (extensible)";
    default:
      return nullptr;
  }
}

}  // namespace vx::audio
