// Whole Radiance HDR files through CVxHdrFileParser: header lines, resolution line, run-length,
// flat and repeat-pixel scanlines, decoding into the native picture or a caller's image of
// another format, and the metadata record. Bad input must end in a status, never a crash.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_seeds.h"
#include "still/hdr/hdr_codec.h"
#include "still/hdr/hdr_parser.h"
#include "vx/com_ptr.h"
#include "vx/platform.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes Text(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

// A varied picture as our writer lays it out.
Bytes Written(int width, int height) {
  const std::string head = vx::hdr::HdrHeaderText(width, height);
  Bytes file(head.begin(), head.end()), scratch;
  std::vector<float> row(static_cast<std::size_t>(width) * 4);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      float* p = &row[static_cast<std::size_t>(x) * 4];
      p[0] = static_cast<float>((x / 5) % 3) * 0.5f;
      p[1] = static_cast<float>(x * y) / 7.0f;
      p[2] = y % 2 ? 100.0f : 0.001f;
      p[3] = 1.0f;
    }
    vx::hdr::EncodeScanline(row.data(), width, &scratch, &file);
  }
  return file;
}

std::vector<Bytes> Seeds() {
  std::vector<Bytes> seeds = {Written(20, 3), Written(7, 2), Written(130, 2)};
  const Bytes head = Text(
      "#?RADIANCE\nEXPOSURE=2\nPRIMARIES=0.64 0.33 0.3 0.6 0.15 0.06 0.3127 "
      "0.329\nFORMAT=32-bit_rle_rgbe\n\n");
  // Repeat-pixel runs, flat pixels, a run-length line with literals and runs.
  Bytes old = head + Text("-Y 2 +X 9\n");
  for (std::uint8_t b : {200, 100, 50, 130, 1, 1, 1, 3, 1, 1, 1, 0, 9, 9, 9, 129, 1, 1, 1, 4})
    old.push_back(b);
  for (int i = 0; i < 9; ++i)
    for (std::uint8_t b : {10, 20, 30, 140}) old.push_back(b);
  seeds.push_back(old);
  Bytes rle = head + Text("-Y 1 +X 8\n");
  for (std::uint8_t b : {2, 2, 0, 8, 3, 1, 2, 3, 133, 9, 136, 7, 2, 5, 6, 134, 4, 136, 128})
    rle.push_back(b);
  seeds.push_back(rle);
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), ".hdr");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const VxString path = fuzz::ProcessFile("fuzz_hdr", ".hdr");
  if (!fuzz::Store(path, data, size)) return 0;
  auto parser = fuzz::NewParser<CVxHdrFileParser>();
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return 0;
  fuzz::AskAfterOpen(parser.get(), -1);
  // The native picture, or a caller's image of another format (converted on the way).
  static const VxPixelFormat kFormats[] = {VX_PF_UNKNOWN, VX_PF_RGBAF32, VX_PF_RGBA16};
  fuzz::ReadPicture(parser.get(), kFormats[size % 3]);
  return 0;
}
