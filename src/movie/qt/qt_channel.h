// The QuickTime decoder channel: the byte layouts of the instruction block (written by the
// component, read by the decoder program) and the result block (the other way), shared by
// CVxQTManager and every decoder program. Header-only and free of the component, so a decoder
// builds on it without linking anything of ours. Integers are little-endian, doubles IEEE-754
// binary64, paths UTF-16LE NUL-terminated. docs/ARCHITECTURE.md gives each field its meaning.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vx::qt {

// ---- Named objects: printf formats, the host's process id in decimal -----------------------
inline constexpr char kInstructionMapName[] = "QT_InstructionMapName_%d";
inline constexpr char kResultMapName[] = "QT_ResultMapName_%d";
inline constexpr char kStartEventName[] = "QTDecoderStartDecodeEventName_%d";
inline constexpr char kEndEventName[] = "QTDecoderEndDecodeEventName_%d";
inline constexpr char kTerminateEventName[] = "QTDecoderTerminateEventName_%d";
inline constexpr char kAbortEventName[] = "QTDecoderAbortOperationEventName_%d";  // never created
inline constexpr std::size_t kNameSlot = 64;  // wide characters per name

// The instruction mapping is asked for with 24 bytes; requests with a path need the page the
// system rounds it up to, so both sides treat it as one page of 4096 bytes.
inline constexpr std::uint32_t kInstructionRequestBytes = 24;
inline constexpr std::uint32_t kInstructionBytes = 4096;
inline constexpr std::uint32_t kResultBytes = 0x092A2000;  // 153,755,648: the largest frame
static_assert(kResultBytes == 37538u * 4096u);

// ---- Instruction block ---------------------------------------------------------------------
inline constexpr std::uint32_t kInsCommand = 0;
inline constexpr std::uint32_t kInsReserved = 4;
inline constexpr std::uint32_t kInsMovie = 8;
inline constexpr std::uint32_t kInsCount = 12;  // payload bytes from kInsPayload on
inline constexpr std::uint32_t kInsPayload = 16;
inline constexpr std::uint32_t kMaxPayload = kInstructionBytes - kInsPayload;

// ---- Result block --------------------------------------------------------------------------
inline constexpr std::uint32_t kResStatus = 0;  // HRESULT; negative: nothing else is read

// A decoder's success code: the preferred pixel format cannot be delivered.
inline constexpr std::int32_t kStatusFormatRefused = 2000;
// What a parser returns once the fallback format was refused as well.
inline constexpr std::int32_t kStatusFormatRefusedFailure = static_cast<std::int32_t>(0x800707D0u);

// ---- Command codes -------------------------------------------------------------------------
enum Command : std::uint32_t {
  kOpen = 0,
  kCreate = 1,
  kClose = 2,
  kFinishSetup = 3,
  kCompressionSettings = 4,  // waits without a time limit
  kFinishMovie = 5,
  kMovieInfo = 6,
  kFormatName = 7,
  kVideoFormat = 256,
  kVideoSetup = 257,
  kReadFrame = 258,
  kReadScaledFrame = 259,
  kFrameInfo = 260,
  kAudioFormat = 512,
  kAudioSetup = 513,
  kReadAudio = 514,
  kWriteAudio = 515,
  kRefCreate = 4096,
  kRefCompression = 4097,
  kRefAddMedia = 4098,
  kRefAddFrame = 4099,
  kRefAddSound = 4100,
  kRefTimeCode = 4101,
  kRefFinish = 4102,
};

// Payload offsets (from the block's start) and fixed counts; a path follows the fixed fields
// and adds 2 × (length + 1) to the count.
namespace open {  // 0
inline constexpr std::uint32_t kPath = 16, kFixed = 0;
inline constexpr std::uint32_t kAnsMovie = 4, kAnsVideoTracks = 8, kAnsAudioTracks = 12;
}  // namespace open
namespace create {  // 1
inline constexpr std::uint32_t kVideoTracks = 16, kAudioTracks = 20, kRate = 24, kPath = 32,
                               kFixed = 16;
inline constexpr std::uint32_t kAnsMovie = 4;
}  // namespace create
namespace compression {  // 4: payload is the caller's settings text (UTF-16, may be empty)
inline constexpr std::uint32_t kText = 16;
inline constexpr std::uint32_t kAnsCodec = 4, kAnsQuality = 8, kAnsEntryCount = 16, kAnsName = 20;
inline constexpr std::uint32_t kNameChars = 64;  // NUL-terminated within 64 wide characters
inline constexpr std::uint32_t kAnsEntries = kAnsName + 2 * kNameChars;  // entry bytes from here
}  // namespace compression
namespace finish {  // 5: seven u32
inline constexpr std::uint32_t kVideoFrames = 16, kAudioLow = 20, kAudioHigh = 24,
                               kVideoTracks = 28, kAudioTracks = 32, kTimeCode = 36, kReserved = 40,
                               kCount = 28;
}  // namespace finish
namespace info {  // 6
inline constexpr std::uint32_t kAnsVideoTracks = 4, kAnsAudioTracks = 8, kAnsTimeScale = 12,
                               kAnsDuration = 16, kAnsRate = 20, kAnsTimeCode = 28;
}  // namespace info
namespace text {  // 7
inline constexpr std::uint32_t kAnsText = 4, kMaxChars = 260;
}  // namespace text
namespace vformat {  // 256
inline constexpr std::uint32_t kTrack = 16, kCount = 4;
inline constexpr std::uint32_t kAnsRate = 4, kAnsDurationNum = 12, kAnsFrames = 20, kAnsCodec = 24,
                               kAnsHeight = 28, kAnsAlpha = 32, kAnsFields = 36, kAnsWidth = 40,
                               kAnsBits = 44;
}  // namespace vformat
namespace vsetup {  // 257
inline constexpr std::uint32_t kTrack = 16, kRate = 20, kAspect = 28, kWidth = 36, kHeight = 40,
                               kCodec = 44, kCount = 32;
}  // namespace vsetup
namespace frame {  // 258 (and the answer of 259)
inline constexpr std::uint32_t kTrack = 16, kFrame = 20, kPixelFormat = 24, kCount = 12;
inline constexpr std::uint32_t kAnsOffset = 4, kAnsWidth = 8, kAnsHeight = 12, kAnsRowBytes = 16,
                               kAnsPixelFormat = 20, kAnsHint = 24, kAnsFields = 28;
}  // namespace frame
namespace scaled {  // 259
inline constexpr std::uint32_t kTrack = 16, kFrame = 20, kMaxWidth = 24, kMaxHeight = 28,
                               kCount = 16;
}  // namespace scaled
namespace frameinfo {  // 260
inline constexpr std::uint32_t kTrack = 16, kFrame = 20, kCount = 8;
inline constexpr std::uint32_t kAnsTimeCode = 4, kAnsTimeCodeRate = 8, kAnsDropFrame = 12,
                               kAnsUserBits = 16, kAnsKeyFrame = 20, kAnsPictureType = 24;
}  // namespace frameinfo
namespace aformat {  // 512
inline constexpr std::uint32_t kTrack = 16, kCount = 4;
inline constexpr std::uint32_t kAnsRate = 4, kAnsChannels = 8, kAnsBits = 12, kAnsMask = 16,
                               kAnsSamplesLow = 20, kAnsSamplesHigh = 24;
}  // namespace aformat
namespace asetup {  // 513
inline constexpr std::uint32_t kTrack = 16, kRate = 20, kChannels = 24, kBits = 28, kTag = 32,
                               kCount = 20;
}  // namespace asetup
namespace aread {  // 514
inline constexpr std::uint32_t kTrack = 16, kFirstLow = 20, kFirstHigh = 24, kFrames = 28,
                               kCount = 16;
inline constexpr std::uint32_t kAnsOffset = 4, kAnsFrames = 8;
}  // namespace aread
namespace awrite {  // 515: the samples are at offset 0 of the result block
inline constexpr std::uint32_t kTrack = 16, kFrames = 20, kCount = 8;
inline constexpr std::uint32_t kAnsTotalLow = 4, kAnsTotalHigh = 8;
}  // namespace awrite
namespace refcreate {  // 4096
inline constexpr std::uint32_t kRate = 16, kWidth = 24, kHeight = 28, kPath = 32, kFixed = 16;
inline constexpr std::uint32_t kAnsMovie = 4;
}  // namespace refcreate
namespace refcompression {  // 4097
inline constexpr std::uint32_t kCodec = 16, kQuality = 20, kAlpha = 24, kCount = 12;
}  // namespace refcompression
namespace refmedia {  // 4098: u16 values at 24 and 28 (upper halves 0)
inline constexpr std::uint32_t kKind = 16, kTrack = 20, kChannels = 24, kBits = 28, kFirst = 32,
                               kLength = 36, kStart = 40, kPath = 44, kFixed = 28;
}  // namespace refmedia
namespace refframe {  // 4099: width × height × 4 bytes of RGBA at offset 0 of the result block
inline constexpr std::uint32_t kTrack = 16, kFrame = 20, kWidth = 24, kHeight = 28, kCount = 16;
}  // namespace refframe
namespace refsound {  // 4100: 96 bytes of fields, then the path
inline constexpr std::uint32_t kTrack = 16, kFirstLow = 20, kFirstHigh = 24, kLength = 28,
                               kStart = 32, kFormat = 40, kFormatBytes = 40, kPath = 112,
                               kFixed = 96;
}  // namespace refsound
namespace reftimecode {  // 4101
inline constexpr std::uint32_t kTrack = 16, kTimeCode = 20, kRate = 24, kDropFrame = 28,
                               kCount = 16;
}  // namespace reftimecode
namespace reffinish {  // 4102
inline constexpr std::uint32_t kSelfContained = 16, kCount = 4;
}  // namespace reffinish

// Payload count of a request whose path of `length` characters follows `fixed` bytes.
constexpr std::uint32_t PathPayload(std::uint32_t fixed, std::uint32_t length) {
  return fixed + 2 * (length + 1);
}
static_assert(PathPayload(open::kFixed, 10) == 22);
static_assert(PathPayload(refsound::kFixed, 0) == 98);

// ---- Pixel formats (four-character codes read from the most significant byte) --------------
constexpr std::uint32_t FourCC(char a, char b, char c, char d) {
  return static_cast<std::uint32_t>(static_cast<unsigned char>(a)) << 24 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(b)) << 16 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(c)) << 8 |
         static_cast<std::uint32_t>(static_cast<unsigned char>(d));
}
inline constexpr std::uint32_t kPixRGB24 = 24;   // R G B
inline constexpr std::uint32_t kPixRGBA32 = 32;  // R G B A
inline constexpr std::uint32_t kPixRGBA = FourCC('R', 'G', 'B', 'A');
inline constexpr std::uint32_t kPixBGR24 = FourCC('2', '4', 'B', 'G');
inline constexpr std::uint32_t kPix2vuy = FourCC('2', 'v', 'u', 'y');
inline constexpr std::uint32_t kPixBGRA = FourCC('B', 'G', 'R', 'A');
inline constexpr std::uint32_t kPixB48r = FourCC('b', '4', '8', 'r');  // 16-bit big-endian RGB
inline constexpr std::uint32_t kPixB64a = FourCC('b', '6', '4', 'a');  // 16-bit big-endian ARGB
inline constexpr std::uint32_t kPixV210 = FourCC('v', '2', '1', '0');
static_assert(kPix2vuy == 0x32767579u && kPixV210 == 0x76323130u && kPixB64a == 0x62363461u);

// Bytes per pixel of a packed pixel format; 0 for the others (v210 packs 6 pixels in 16 bytes).
constexpr std::uint32_t PixelBytes(std::uint32_t code) {
  switch (code) {
    case kPixRGB24:
    case kPixBGR24:
      return 3;
    case kPixRGBA32:
    case kPixRGBA:
    case kPixBGRA:
      return 4;
    case kPix2vuy:
      return 2;
    case kPixB48r:
      return 6;
    case kPixB64a:
      return 8;
    default:
      return 0;
  }
}

// ---- Little-endian access, bounds checked by the caller ------------------------------------
inline std::uint32_t Get32(const void* block, std::uint32_t offset) {
  const auto* p = static_cast<const unsigned char*>(block) + offset;
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}
inline void Put32(void* block, std::uint32_t offset, std::uint32_t v) {
  auto* p = static_cast<unsigned char*>(block) + offset;
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}
inline std::uint64_t Get64(const void* block, std::uint32_t offset) {
  return Get32(block, offset) | static_cast<std::uint64_t>(Get32(block, offset + 4)) << 32;
}
inline void Put64(void* block, std::uint32_t offset, std::uint64_t v) {
  Put32(block, offset, static_cast<std::uint32_t>(v));
  Put32(block, offset + 4, static_cast<std::uint32_t>(v >> 32));
}
inline double GetF64(const void* block, std::uint32_t offset) {
  const std::uint64_t bits = Get64(block, offset);
  double d;
  std::memcpy(&d, &bits, 8);
  return d;
}
inline void PutF64(void* block, std::uint32_t offset, double d) {
  std::uint64_t bits;
  std::memcpy(&bits, &d, 8);
  Put64(block, offset, bits);
}

}  // namespace vx::qt
