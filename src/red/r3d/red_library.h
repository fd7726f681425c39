// The RED decoding library as the component sees it: clips, frame decoding at a decode mode,
// and the accelerator card with its asynchronous jobs. An FFmpeg implementation serves Linux
// builds; tests script a fake one with a card.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "vx/vxchar.h"

namespace vx::red {

// The library's four-character decode modes; each is a right shift of the full size.
inline constexpr std::uint32_t kDecodeFullPremium = 0x44465250;    // "DFRP"
inline constexpr std::uint32_t kDecodeHalfPremium = 0x44485250;    // "DHRP"
inline constexpr std::uint32_t kDecodeHalfGood = 0x44485247;       // "DHRG"
inline constexpr std::uint32_t kDecodeQuarterGood = 0x44515247;    // "DQRG"
inline constexpr std::uint32_t kDecodeEighthGood = 0x44455247;     // "DERG"
inline constexpr std::uint32_t kDecodeSixteenthGood = 0x44535247;  // "DSRG"
// The shift of a decode mode, -1 for a mode outside the table.
int DecodeModeShift(std::uint32_t mode);

// Output pixel formats: 8-bit BGRA (4 bytes a pixel) or 16-bit RGB (6 bytes, native order).
enum class RedPixels : std::uint32_t { kRgb16 = 0, kBgra8 = 2 };
inline std::size_t RedPixelBytes(RedPixels p) {
  return p == RedPixels::kBgra8 ? 4 : 6;
}
// Size of a picture at a shift: the full size shifted right, at least one pixel.
inline std::uint32_t ShiftedSize(std::uint32_t full, int shift) {
  const std::uint32_t v = full >> shift;
  return v ? v : 1;
}

struct RedClipInfo {
  std::uint32_t width = 0;  // full resolution
  std::uint32_t height = 0;
  std::int32_t frameCount = 0;
  std::uint32_t rateNumerator = 0;  // frames per second as a fraction
  std::uint32_t rateDenominator = 1;
  std::string timeCode;      // "hh:mm:ss:ff" of the first frame, empty when unknown
  std::string edgeTimeCode;  // the clip's second time code ("hh:mm:ss:ff"), empty when unknown
};

class RedClip {
 public:
  virtual ~RedClip() = default;
  virtual const RedClipInfo& Info() const = 0;
  // A metadata item by name ("iso", "white_balance_kelvin", ...) as text; false when absent.
  virtual bool Metadata(std::string_view name, std::string* value) const = 0;
  // Decodes `frame` at `shift` into `out`: rows top first, tightly packed, ShiftedSize(width) ×
  // ShiftedSize(height) pixels of `pixels`. False on any fault (nothing is promised of `out`).
  virtual bool Decode(std::int32_t frame, int shift, RedPixels pixels, std::uint8_t* out,
                      std::size_t outBytes) = 0;
};

// Versions of the accelerator card: four parts each.
struct RedCardVersions {
  std::uint32_t driver[4] = {};
  std::uint32_t firmware[4] = {};
  std::uint32_t minDriver[4] = {};
  std::uint32_t minFirmware[4] = {};
};
inline constexpr int kCardCheckPassed = 0;
inline constexpr int kCardCheckTooOld = 12;

// One asynchronous card decode. The library calls `done` once, on a thread of its own.
struct RedJob {
  RedClip* clip = nullptr;
  std::int32_t frame = -1;
  std::uint32_t tag = 0;  // handed through from the request
  int shift = 0;
  RedPixels pixels = RedPixels::kRgb16;
  std::uint8_t* out = nullptr;
  std::size_t rowBytes = 0;
  std::size_t bytes = 0;
  std::uint32_t settings[39] = {};  // the request's image-processing and further settings words
  void (*done)(RedJob* job, bool ok) = nullptr;
  void* context = nullptr;
};

class RedLibrary {
 public:
  virtual ~RedLibrary() = default;
  // Null when the file is no clip this library reads.
  virtual std::unique_ptr<RedClip> OpenClip(const VxChar* path) = 0;
  // False when no card is present. Otherwise `check` is kCardCheckPassed, kCardCheckTooOld or
  // another failure code, and `versions` what the card and the library report.
  virtual bool ProbeCard(RedCardVersions* versions, int* check) = 0;
  virtual bool OpenCardDecoder() = 0;  // the card's asynchronous decoder context
  virtual void CloseCard() = 0;
  virtual bool SubmitJob(RedJob* job) = 0;  // false when the job was not taken
  // Threads one frame's decode may use (1: the calling thread only). A decoder process takes
  // its share of the processors; in the host process decodes stay on the calling thread.
  virtual void SetDecodeThreads(int threads) { (void)threads; }
};

// The library of this build: FFmpeg where it is linked, else one that opens no clip.
RedLibrary& DefaultRedLibrary();

}  // namespace vx::red
