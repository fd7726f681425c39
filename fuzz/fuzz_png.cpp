// Whole PNG files through CVxPNGFileParser as a host drives it: our chunk walk (texts inflated,
// colour chunks), libpng's decode through its error path into a host image, and the metadata
// record. Bad input must end in a status, never a crash or a leak.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

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
  // One file per fuzzing process, rewritten for every input.
  static const VxString path =
      vx::FromUtf8((std::filesystem::temp_directory_path() /
                    ("fuzz_png." + std::to_string(vx::os::CurrentProcessId()) + ".png"))
                       .string());
  {
    vx::os::UniqueFile f(vx::os::Create(path.c_str()));
    std::uint32_t done = 0;
    if (!f || !vx::os::WriteAt(f.get(), 0, data, static_cast<std::uint32_t>(size), &done)) return 0;
  }
  auto parser = vx::ComPtr<CVxPNGFileParser>::Adopt(new CVxPNGFileParser());
  parser->AddRef();  // the object starts at zero references
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return 0;
  tagVxImageStreamFormat format{};
  format.cbSize = sizeof format;
  parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &format);
  vx::ComPtr<IVxMetadata> md;
  if (SUCCEEDED(VxCreateMetadata(md.put()))) parser->GetMetadata(0, md.get());
  // The native picture, or a caller's image: straight into the 8/16-bit layouts, else converted.
  static const VxPixelFormat kFormats[] = {VX_PF_UNKNOWN, VX_PF_BGRA8, VX_PF_RGBA16,
                                           VX_PF_GRAY8,   VX_PF_RGB16, VX_PF_RGBAF32};
  vx::ComPtr<IVxImage> image;
  const VxPixelFormat want = kFormats[size % 6];
  if (want != VX_PF_UNKNOWN && FAILED(VxCreateImage(0, 0, want, image.put()))) return 0;
  IVxImage* p = image.detach();
  parser->ReadImage(&p, 0);
  image = vx::ComPtr<IVxImage>::Adopt(p);
  VxChar name[64];
  parser->GetCompressionName(name, 64);
  return 0;
}
