// RED look settings and the sidecar files that keep them beside a clip (RLX, RSX, RMD).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "vx/vxchar.h"

namespace vx::red {

// 24 consecutive 32-bit fields; index 11 holds the ISO as an integer, the rest are floats.
struct RedLook {
  enum Field : int {
    kKelvin = 1,
    kTint = 2,
    kExposure = 3,
    kRed = 4,
    kGreen = 5,
    kBlue = 6,
    kSaturation = 7,
    kContrast = 8,
    kBrightness = 9,
    kDrx = 10,
    kIso = 11,
    kBlackX = 14,
    kBlackY = 15,
    kToeX = 16,
    kToeY = 17,
    kMidX = 18,
    kMidY = 19,
    kKneeX = 20,
    kKneeY = 21,
    kWhiteX = 22,
    kWhiteY = 23,
  };
  std::array<float, 24> field{};

  std::int32_t Iso() const {
    std::int32_t v;
    std::memcpy(&v, &field[kIso], sizeof v);
    return v;
  }
  void SetIso(std::int32_t v) { std::memcpy(&field[kIso], &v, sizeof v); }
};
static_assert(sizeof(RedLook) == 96);

// The common settings-file parser; RedRLX, RedRSX and RedRMD are its variants by extension.
class RedSettingsPrsr {
 public:
  virtual ~RedSettingsPrsr() = default;

  // False when the file cannot be created (nothing is left behind then).
  virtual bool Write(const VxChar* path, const RedLook& look, float blackLevel) const;
  // Fills the fields whose keys the file's top-level dictionary holds (keys compared without
  // case, unknown keys and non-numeric values skipped). False when the file cannot be read or
  // is no property list.
  virtual bool Read(const VxChar* path, RedLook* look, float* blackLevel) const;
  bool ReadText(const char* text, std::size_t size, RedLook* look, float* blackLevel) const;
  virtual bool Supported() const { return true; }

  // The variant for a path's extension (.RLX, .RSX, .RMD, any case); null for any other.
  static std::unique_ptr<RedSettingsPrsr> ForPath(const VxChar* path);
};

class RedRLX : public RedSettingsPrsr {};
class RedRSX : public RedSettingsPrsr {};
// Recognised by its extension; its contents are not supported.
class RedRMD : public RedSettingsPrsr {
 public:
  bool Write(const VxChar*, const RedLook&, float) const override { return false; }
  bool Read(const VxChar*, RedLook*, float*) const override { return false; }
  bool Supported() const override { return false; }
};

// What the R3D parser reports as its sidecar extensions.
inline constexpr const VxChar* kRedSidecarExtensions = VXT("rlx; rsx; rmd");

}  // namespace vx::red
