// Raw 4:2:2 files through CVxYUVFileParser as a host drives it. Input byte 0 picks the layout,
// the caller's pixel format and whether a size option is given; bytes 1-2 give that size (it
// may not fit the file); the rest is the file. A picture that reads is written back, so the
// encoder sees every raster the decoder takes. Bad input must end in a status, never a crash.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_seeds.h"
#include "still/yuv/yuv_parser.h"
#include "vx/com_ptr.h"
#include "vx/platform.h"

namespace {

constexpr std::size_t kHead = 3;

VxString TempName(const char* ext) {
  return vx::FromUtf8((std::filesystem::temp_directory_path() /
                       ("fuzz_yuv." + std::to_string(vx::os::CurrentProcessId()) + ext))
                          .string());
}

std::vector<std::vector<std::uint8_t>> Seeds() {
  std::vector<std::vector<std::uint8_t>> seeds;
  // 8 x 2 UYVY with its size given, a 10-bit planar 4 x 2, a file one byte short, an odd width.
  std::vector<std::uint8_t> uyvy = {0x04, 8, 2};
  for (int i = 0; i < 8; ++i) uyvy.insert(uyvy.end(), {128, 16, 128, 235});
  seeds.push_back(uyvy);
  std::vector<std::uint8_t> planar = {0x05, 4, 2};
  for (int i = 0; i < 8; ++i) planar.insert(planar.end(), {0xAC, 0x03});
  for (int i = 0; i < 8; ++i) planar.insert(planar.end(), {0x00, 0x02});
  seeds.push_back(planar);
  seeds.push_back(std::vector<std::uint8_t>(uyvy.begin(), uyvy.end() - 1));
  seeds.push_back({0x04, 7, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14});
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), ".yuv");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kHead) return 0;
  const std::uint8_t pick = data[0];
  static const VxString in = TempName(".in"), out = TempName(".out");
  {
    vx::os::UniqueFile f(vx::os::Create(in.c_str()));
    std::uint32_t done = 0;
    if (!f ||
        !vx::os::WriteAt(f.get(), 0, data + kHead, static_cast<std::uint32_t>(size - kHead), &done))
      return 0;
  }
  const int mode = pick & 1;
  auto parser = vx::ComPtr<CVxYUVFileParser>::Adopt(new CVxYUVFileParser(mode));
  parser->AddRef();  // the object starts at zero references
  if (FAILED(parser->Open(in.c_str(), VX_OPEN_NO_PATTERN))) return 0;
  if (pick & 4) {
    const std::string size = "size=" + std::to_string(data[1]) + "x" + std::to_string(data[2]);
    const VxString text = vx::FromUtf8(size);
    parser->SetOption(const_cast<VxChar*>(text.c_str()), VX_OPTION_TEXT);
  }
  tagVxImageStreamFormat format{};
  format.cbSize = sizeof format;
  parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &format);
  static const VxPixelFormat kFormats[] = {VX_PF_UNKNOWN, VX_PF_RGB8,   VX_PF_RGBA16,
                                           VX_PF_RGBF32,  VX_PF_GRAY16, VX_PF_RGBA8};
  vx::ComPtr<IVxImage> image;
  const VxPixelFormat want = kFormats[(pick >> 3) % 6];
  if (want != VX_PF_UNKNOWN && FAILED(VxCreateImage(0, 0, want, image.put()))) return 0;
  IVxImage* p = image.detach();
  const HRESULT hr = parser->ReadImage(&p, 0);
  image = vx::ComPtr<IVxImage>::Adopt(p);
  vx::ComPtr<IVxMetadata> md;
  if (SUCCEEDED(VxCreateMetadata(md.put()))) parser->GetMetadata(0, md.get());
  if (FAILED(hr) || !image) return 0;
  auto writer = vx::ComPtr<CVxYUVFileParser>::Adopt(new CVxYUVFileParser(mode ^ (pick >> 1 & 1)));
  writer->AddRef();
  if (SUCCEEDED(writer->Open(out.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN)))
    writer->WriteImage(image.get(), 0);
  return 0;
}
