// Whole TIFF files through CVxTIFFFileParser as a host drives it: libtiff's directory reading and
// decompressors (their error paths end as statuses), our checks, unpacking of every layout into a
// host image, every page, and the metadata record. Bad input must end in a status, never a crash.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_seeds.h"
#include "still/tiff/tiff_codec.h"
#include "still/tiff/tiff_parser.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/platform.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// Our own writer's files of each depth and compression, grey, RGB and RGBA.
std::vector<Bytes> Seeds() {
  std::vector<Bytes> seeds;
  std::uint8_t pixels[7 * 5 * 16];
  for (std::size_t i = 0; i < sizeof pixels; ++i) pixels[i] = static_cast<std::uint8_t>(i * 29);
  using vx::tiff::Compression;
  using vx::tiff::Depth;
  const Compression compressions[] = {Compression::kNone, Compression::kLzw, Compression::kDeflate,
                                      Compression::kPackBits};
  const Depth depths[] = {Depth::k8, Depth::k16, Depth::kFloat};
  int n = 0;
  for (Compression c : compressions) {
    for (Depth d : depths) {
      vx::tiff::TiffWriteInfo info;
      info.width = 7;
      info.height = 5;
      info.channels = n % 3 == 0 ? 1 : n % 3 == 1 ? 3 : 4;
      info.depth = d;
      info.compression = c;
      info.aspect = n % 2 ? 1.5 : 0.0;
      info.description = "seed";
      ++n;
      Bytes file;
      std::string error;
      const int bytes = d == Depth::k8 ? 1 : d == Depth::k16 ? 2 : 4;
      if (vx::tiff::EncodeTiff(info, pixels, 7 * info.channels * bytes, &file, &error))
        seeds.push_back(file);
    }
  }
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), ".tif");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const VxString path = fuzz::ProcessFile("fuzz_tiff", ".tif");
  if (!fuzz::Store(path, data, size)) return 0;
  auto parser = fuzz::NewParser<CVxTIFFFileParser>();
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return 0;
  tagVxImageStreamFormat format{};
  format.cbSize = sizeof format;
  if (FAILED(parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &format))) return 0;
  fuzz::AskAfterOpen(parser.get(), 0);
  // The native picture, or a caller's image: straight into RGBA8/RGBA16/float, converted else.
  static const VxPixelFormat kFormats[] = {VX_PF_UNKNOWN, VX_PF_RGBA8, VX_PF_RGBA16, VX_PF_RGBAF32,
                                           VX_PF_RGB16};
  const int frames = format.frameCount > 3 ? 3 : static_cast<int>(format.frameCount);
  for (int frame = 0; frame < frames; ++frame)
    fuzz::ReadPicture(parser.get(), kFormats[(size + static_cast<std::size_t>(frame)) % 5], frame);
  return 0;
}
