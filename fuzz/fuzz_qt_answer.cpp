// Answers of a hostile QuickTime decoder: the input is the result block (exactly as long as the
// input, so any read past it is caught), byte 0 picks the caller's image. Frame answers must end
// in a status without reading outside the block; the format answers decode fixed fields only.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "movie/qt/qt_manager.h"
#include "vx/sdk.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::uint8_t pick = data[0];
  const std::vector<unsigned char> block(data + 1, data + size);
  const VxPixelFormat targets[] = {VX_PF_UNKNOWN, VX_PF_RGBA8, VX_PF_RGBA16, VX_PF_RGB8,
                                   VX_PF_RGBAF32};
  IVxImage* image = nullptr;
  const VxPixelFormat target = targets[pick % 5];
  if (target != VX_PF_UNKNOWN && VxCreateImage(0, 0, target, &image) != S_OK) return 0;
  vx::qt::DeliverFrame(block.data(), block.size(), &image);
  if (image) image->Release();
  if (block.size() >= 48) {
    VxQTVideoFormat video;
    vx::qt::VideoFormatFromAnswer(block.data(), &video);
    VxQTWaveFormat wave;
    std::uint64_t samples = 0;
    vx::qt::WaveFormatFromAnswer(block.data(), &wave, &samples);
  }
  return 0;
}
