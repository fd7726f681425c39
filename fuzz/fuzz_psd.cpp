// Whole Photoshop files through CVxMediaFileParserPSD as a host drives it: header, colour mode
// data, image resources, layer records and their tagged blocks, the RLE count table and rows,
// decoding into a host image, and the metadata record. Bad input must end in a status, never a
// crash.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "fuzz_seeds.h"
#include "still/psd/psd_format.h"
#include "still/psd/psd_parser.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/platform.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void Be(Bytes* b, std::uint64_t v, int n) {
  for (int i = n - 1; i >= 0; --i) b->push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

// A header and empty sections up to the picture, for the hand-laid seeds.
Bytes Head(int version, unsigned channels, unsigned w, unsigned h, unsigned depth, unsigned mode,
           const Bytes& colour, const Bytes& resources, const Bytes& layers) {
  Bytes b = {'8', 'B', 'P', 'S'};
  Be(&b, version, 2);
  Be(&b, 0, 6);
  Be(&b, channels, 2);
  Be(&b, h, 4);
  Be(&b, w, 4);
  Be(&b, depth, 2);
  Be(&b, mode, 2);
  Be(&b, colour.size(), 4);
  b.insert(b.end(), colour.begin(), colour.end());
  Be(&b, resources.size(), 4);
  b.insert(b.end(), resources.begin(), resources.end());
  Be(&b, layers.size(), version == 2 ? 8 : 4);
  b.insert(b.end(), layers.begin(), layers.end());
  return b;
}

std::vector<Bytes> Seeds() {
  std::vector<Bytes> seeds;
  // Our own writer's files: RGBA 8-bit (with its layer record), RGB 16-bit.
  std::uint8_t pixels[6 * 4 * 8];
  for (std::size_t i = 0; i < sizeof pixels; ++i) pixels[i] = static_cast<std::uint8_t>(i / 8 * 40);
  for (int variant = 0; variant < 2; ++variant) {
    vx::psd::PsdWriteInfo info;
    info.width = 6;
    info.height = 4;
    info.depth = variant == 0 ? 8 : 16;
    info.alpha = variant == 0;
    Bytes file;
    vx::psd::EncodePsd(info, pixels, variant == 0 ? 24 : 48, nullptr, &file);
    seeds.push_back(file);
  }
  // Hand-laid: PSB RLE with 4-byte counts; indexed with a table and a transparent index;
  // 32-bit grey; a layer with a Unicode name in a 16-bit document's Lr16 block.
  Bytes psb = Head(2, 1, 4, 2, 8, 1, {}, {}, {});
  Be(&psb, 1, 2);
  Be(&psb, 3, 4);
  Be(&psb, 5, 4);
  psb.insert(psb.end(), {0xFD, 7, 0x80, 0x03, 1, 2, 3, 4});
  seeds.push_back(psb);
  Bytes table(768, 0x40);
  Bytes res = {'8', 'B', 'I', 'M', 0x04, 0x17, 0, 0, 0, 0, 0, 2, 0, 1};
  Bytes indexed = Head(1, 1, 3, 2, 8, 2, table, res, {});
  Be(&indexed, 0, 2);
  indexed.insert(indexed.end(), {0, 1, 2, 3, 4, 5});
  seeds.push_back(indexed);
  Bytes grey = Head(1, 1, 2, 1, 32, 1, {}, {}, {});
  Be(&grey, 0, 2);
  grey.insert(grey.end(), {0x3F, 0x80, 0, 0, 0x3E, 0x80, 0, 0});
  seeds.push_back(grey);
  Bytes record(16 + 2, 0);
  record.insert(record.end(), {'8', 'B', 'I', 'M', 'n', 'o', 'r', 'm', 255, 0, 8, 0});
  Bytes extra = {0,   0,   0,   0,   0, 0, 0, 0, 3, 'a', 'b', 'c', '8', 'B', 'I', 'M',
                 'l', 'u', 'n', 'i', 0, 0, 0, 8, 0, 0,   0,   2,   0,   'x', 0,   'y'};
  Be(&record, extra.size(), 4);
  record.insert(record.end(), extra.begin(), extra.end());
  Bytes info;
  Be(&info, 0xFFFF, 2);
  info.insert(info.end(), record.begin(), record.end());
  Bytes layers;
  Be(&layers, 0, 4);
  Be(&layers, 0, 4);
  layers.insert(layers.end(), {'8', 'B', 'I', 'M', 'L', 'r', '1', '6'});
  Be(&layers, info.size(), 4);
  layers.insert(layers.end(), info.begin(), info.end());
  Bytes deep = Head(1, 2, 1, 1, 16, 1, {}, {}, layers);
  Be(&deep, 0, 2);
  deep.insert(deep.end(), {0x12, 0x34, 0x80, 0});
  seeds.push_back(deep);
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), ".psd");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const VxString path = fuzz::ProcessFile("fuzz_psd", ".psd");
  if (!fuzz::Store(path, data, size)) return 0;
  auto parser = fuzz::NewParser<CVxMediaFileParserPSD>();
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return 0;
  fuzz::AskAfterOpen(parser.get(), 0);
  // The native picture, or a caller's image: straight in, converted for others.
  static const VxPixelFormat kFormats[] = {VX_PF_UNKNOWN, VX_PF_RGBA8, VX_PF_RGBA16, VX_PF_BGRA8};
  fuzz::ReadPicture(parser.get(), kFormats[size % 4]);
  return 0;
}
