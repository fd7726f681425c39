// Whole QuillPic files through CVxQuillPicFileParser: header, packet chain, the three line
// codings, decoding into the native image or a caller's image of another format. A picture that
// decodes is written back and must read again to the same pixels. Bad input must end in a
// status, never a crash.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_seeds.h"
#include "still/quillpic/quillpic_parser.h"
#include "vx/com_ptr.h"
#include "vx/platform.h"
#include "fuzz_input.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

vx::ComPtr<IVxImage> Read(const VxString& path, VxPixelFormat format) {
  auto parser = fuzz::NewParser<CVxQuillPicFileParser>();
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return {};
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &f);
  vx::ComPtr<IVxImage> image;
  if (format != VX_PF_UNKNOWN && FAILED(VxCreateImage(0, 0, format, image.put()))) return {};
  IVxImage* p = image.detach();
  const HRESULT hr = parser->ReadImage(&p, 0);
  image = vx::ComPtr<IVxImage>::Adopt(p);
  VxChar name[64];
  parser->GetCompressionName(name, 64);
  return SUCCEEDED(hr) ? image : vx::ComPtr<IVxImage>();
}

bool Write(const VxString& path, IVxImage* image) {
  auto parser = fuzz::NewParser<CVxQuillPicFileParser>();
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN))) return false;
  const bool ok = SUCCEEDED(parser->WriteImage(image, 0));
  parser->Close();
  return ok;
}

Bytes Header(std::uint16_t w, std::uint16_t h) {
  Bytes b(104, 0);
  const std::uint8_t head[] = {0x53, 0x80, 0xF6, 0x34, 0x40, 0x6D, 0x70, 0xA4};
  std::memcpy(b.data(), head, sizeof head);
  std::memcpy(b.data() + 88, "PICT", 4);
  b[92] = static_cast<std::uint8_t>(w >> 8), b[93] = static_cast<std::uint8_t>(w);
  b[94] = static_cast<std::uint8_t>(h >> 8), b[95] = static_cast<std::uint8_t>(h);
  b[96] = 0x3F, b[97] = 0x80, b[101] = 3;
  return b;
}

std::vector<Bytes> Seeds() {
  std::vector<Bytes> seeds;
  // Files our writer makes, with and without alpha.
  const VxString path = fuzz::ProcessFile("fuzz_quillpic", ".seed.pic");
  for (VxPixelFormat format : {VX_PF_RGBA8, VX_PF_RGB8}) {
    vx::ComPtr<IVxImage> image;
    if (FAILED(VxCreateImage(40, 6, format, image.put()))) continue;
    const int bpp = VxPixelFormatBytesPerPixel(format);
    for (int y = 0; y < 6; ++y) {
      for (int x = 0; x < 40; ++x) {
        std::uint8_t* p = image->GetBuffer() + y * image->GetRowStride() + x * bpp;
        for (int c = 0; c < bpp; ++c)
          p[c] = static_cast<std::uint8_t>(x < 20 ? 30 * c : x * (c + 3) + y);
      }
    }
    if (!Write(path, image.get())) continue;
    std::ifstream in(std::filesystem::path(vx::ToUtf8(path)), std::ios::binary);
    seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  vx::os::Remove(path.c_str());
  // Hand-laid ones our writer never makes: uncompressed and pure run-length packets, alpha
  // alone, the 16-bit count form.
  auto add = [&](std::uint16_t w, std::uint16_t h, const Bytes& rest) {
    Bytes b = Header(w, h);
    b.insert(b.end(), rest.begin(), rest.end());
    seeds.push_back(b);
  };
  add(2, 2, {0x01, 8, 0,    0xE0, 0x00, 8, 1,  0x10, 1,  2, 3,    4, 5,
             6,    2, 0xCC, 7,    8,    9, 10, 11,   12, 1, 0xDD, 1, 0xEE});
  add(3, 1, {0x00, 8, 1, 0xE0, 1, 10, 11, 12, 2, 13, 14, 15});
  add(4, 1, {0x00, 8, 2, 0x10, 0x00, 0xAA, 0x82, 0xBB});
  add(300, 2,
      {0x00, 8, 2, 0xE0, 0x80, 0x01, 0x2C, 5, 6, 7, 0x80, 0x01, 0x00, 1, 2, 3, 0x7F, 0x2B, 0x00});
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), ".pic");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // One file per fuzzing process, rewritten for every input.
  static const VxString path = fuzz::ProcessFile("fuzz_quillpic", ".pic");
  static const VxString again = fuzz::ProcessFile("fuzz_quillpic", ".again.pic");
  if (!fuzz::Store(path, data, size)) return 0;
  static const VxPixelFormat kFormats[] = {VX_PF_UNKNOWN, VX_PF_RGBA8, VX_PF_RGB8, VX_PF_RGBA16};
  const VxPixelFormat want = kFormats[size ? data[size - 1] % 4 : 0];
  vx::ComPtr<IVxImage> image = Read(path, want);
  if (!image || want == VX_PF_RGBA16) return 0;
  const int w = image->GetWidth(), h = image->GetHeight();
  if (std::int64_t{w} * h > 1 << 16) return 0;
  // Our own file of what was read reads back to the same pixels.
  if (!Write(again, image.get())) std::abort();
  vx::ComPtr<IVxImage> back = Read(again, image->GetPixelFormat());
  if (!back || back->GetWidth() != w || back->GetHeight() != h) std::abort();
  const int bpp = VxPixelFormatBytesPerPixel(image->GetPixelFormat());
  for (int y = 0; y < h; ++y) {
    if (std::memcmp(image->GetBuffer() + std::ptrdiff_t{y} * image->GetRowStride(),
                    back->GetBuffer() + std::ptrdiff_t{y} * back->GetRowStride(),
                    static_cast<std::size_t>(w) * bpp) != 0)
      std::abort();
  }
  return 0;
}
