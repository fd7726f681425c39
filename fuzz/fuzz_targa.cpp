// Whole Targa files through CVxTargaFileParser as a host drives it: header, colour map, footer
// and extension, run-length walk and decoding into a host image, and the metadata record. Bad
// input must end in a status, never a crash.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_seeds.h"
#include "still/targa/targa_format.h"
#include "still/targa/targa_parser.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/platform.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes Header(std::uint8_t type, std::uint8_t w, std::uint8_t h, std::uint8_t bits,
             std::uint8_t descriptor, std::uint8_t mapLength = 0, std::uint8_t entryBits = 0) {
  return {0,    static_cast<std::uint8_t>(mapLength ? 1 : 0),
          type, 1,
          0,    mapLength,
          0,    entryBits,
          0,    0,
          0,    0,
          w,    0,
          h,    0,
          bits, descriptor};
}

Bytes Seeded(Bytes head, std::size_t bytes, std::uint8_t start) {
  for (std::size_t i = 0; i < bytes; ++i) head.push_back(static_cast<std::uint8_t>(start + 37 * i));
  return head;
}

std::vector<Bytes> Seeds() {
  std::vector<Bytes> seeds;
  // Our own writer's files: run-length 32-bit with an extension, uncompressed 24-bit top first.
  std::uint8_t pixels[6 * 4 * 4];
  for (std::size_t i = 0; i < sizeof pixels; ++i) pixels[i] = static_cast<std::uint8_t>(i / 8 * 40);
  for (int variant = 0; variant < 2; ++variant) {
    vx::targa::TargaWriteInfo info;
    info.rle = variant == 0;
    info.alpha = variant == 0;
    info.topToBottom = variant == 1;
    info.imageId = "seed";
    info.comment = "one\ntwo";
    info.aspect[0] = info.aspect[1] = 1;
    Bytes file;
    vx::targa::EncodeTarga(info, pixels, 24, false, 6, 4, nullptr, &file);
    seeds.push_back(file);
  }
  // Hand-laid: colour-mapped run-length with 16-bit entries, 16-bit indices, grey run-length,
  // 16-bit true colour right to left.
  seeds.push_back(Seeded(Header(9, 4, 3, 8, 0x21, 3, 16), 6 + 12, 0x80));
  seeds.push_back(Seeded(Header(1, 3, 2, 16, 0x20, 4, 32), 16 + 12, 0));
  seeds.push_back(Seeded(Header(11, 5, 2, 8, 0), 10, 0x81));
  seeds.push_back(Seeded(Header(2, 3, 3, 16, 0x31), 18, 5));
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), ".tga");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const VxString path = fuzz::ProcessFile("fuzz_targa", ".tga");
  if (!fuzz::Store(path, data, size)) return 0;
  auto parser = fuzz::NewParser<CVxTargaFileParser>();
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return 0;
  fuzz::AskAfterOpen(parser.get(), 0);
  // The native picture, or a caller's image: straight into BGRA/RGBA, converted for others.
  static const VxPixelFormat kFormats[] = {VX_PF_UNKNOWN, VX_PF_BGRA8, VX_PF_RGBA8, VX_PF_RGB16};
  fuzz::ReadPicture(parser.get(), kFormats[size % 4]);
  return 0;
}
