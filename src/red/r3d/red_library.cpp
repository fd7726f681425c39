#include "red/r3d/red_library.h"

namespace vx::red {

int DecodeModeShift(std::uint32_t mode) {
  switch (mode) {
    case kDecodeFullPremium:
      return 0;
    case kDecodeHalfPremium:
    case kDecodeHalfGood:
      return 1;
    case kDecodeQuarterGood:
      return 2;
    case kDecodeEighthGood:
      return 3;
    case kDecodeSixteenthGood:
      return 4;
    default:
      return -1;
  }
}

#if !defined(VX_HAVE_OPENJP2)
namespace {
class NoLibrary final : public RedLibrary {
 public:
  std::unique_ptr<RedClip> OpenClip(const VxChar*) override { return nullptr; }
  bool ProbeCard(RedCardVersions*, int*) override { return false; }
  bool OpenCardDecoder() override { return false; }
  void CloseCard() override {}
  bool SubmitJob(RedJob*) override { return false; }
};
}  // namespace

RedLibrary& DefaultRedLibrary() {
  static NoLibrary library;
  return library;
}
#endif

}  // namespace vx::red
