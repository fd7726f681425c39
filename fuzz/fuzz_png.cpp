// Whole PNG files through CVxPNGFileParser as a host drives it: our chunk walk (texts inflated,
// colour chunks), libpng's decode through its error path into a host image, and the metadata
// record. Bad input must end in a status, never a crash or a leak.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_seeds.h"
#include "still/png/png_codec.h"
#include "still/png/png_parser.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/platform.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<Bytes> Seeds() {
  // Our own writer's files: every colour type at both depths, with texts, gAMA, cHRM and pHYs.
  std::vector<Bytes> seeds;
  for (int channels = 1; channels <= 4; ++channels) {
    for (int depth : {8, 16}) {
      vx::png::PngWriteInfo info;
      info.width = 5;
      info.height = 3;
      info.channels = channels;
      info.bitDepth = depth;
      info.texts = {
          {"Title", "seed"}, {"Comment", std::string(1500, 'c')}, {"Author", "Caf\xC3\xA9"}};
      info.aspect = channels == 2 ? 1.5 : 0;
      info.gamma = channels == 3 ? 45455 : 0;
      info.srgb = channels == 4;
      Bytes rows(std::size_t{5} * 3 * channels * depth / 8);
      for (std::size_t i = 0; i < rows.size(); ++i) rows[i] = static_cast<std::uint8_t>(i * 37);
      Bytes file;
      if (vx::png::EncodePng(info, rows.data(), &file)) seeds.push_back(file);
    }
  }
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), ".png");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const VxString path = fuzz::ProcessFile("fuzz_png", ".png");
  if (!fuzz::Store(path, data, size)) return 0;
  auto parser = fuzz::NewParser<CVxPNGFileParser>();
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return 0;
  fuzz::AskAfterOpen(parser.get(), 0);
  // The native picture, or a caller's image: straight into the 8/16-bit layouts, else converted.
  static const VxPixelFormat kFormats[] = {VX_PF_UNKNOWN, VX_PF_BGRA8, VX_PF_RGBA16,
                                           VX_PF_GRAY8,   VX_PF_RGB16, VX_PF_RGBAF32};
  fuzz::ReadPicture(parser.get(), kFormats[size % 6]);
  return 0;
}
