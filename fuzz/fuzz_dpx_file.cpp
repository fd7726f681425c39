// Whole files through CVxDPXFileParser as a host drives it: header, element reads with the
// line-length rules, decoding and conversion. The first bytes of the input fill a plausible DPX
// or Cineon header (so that most inputs get past it), the rest is the picture data. Bad input
// must end in a status, never a crash.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "still/dpx/dpx_parser.h"
#include "vx/com_ptr.h"
#include "vx/platform.h"
#include "fuzz_input.h"

namespace {

constexpr std::size_t kHead = 24;  // input bytes that describe the header

std::vector<std::uint8_t> MakeFile(const std::uint8_t* in, std::size_t size, bool dpx, bool big) {
  std::vector<std::uint8_t> f(2048, 0);
  const std::uint32_t width = 1 + in[1] % 40, height = 1 + in[2] % 20, orientation = in[3] % 9;
  if (dpx) {
    static const std::uint8_t kDesc[] = {1, 2, 3, 4, 6, 50, 51, 52, 53, 100};
    static const std::uint8_t kBits[] = {1, 8, 10, 12, 16, 32, 64};
    std::memcpy(f.data(), big ? "SDPX" : "XPDS", 4);
    const std::uint32_t count = 1 + in[0] % 4;
    vx::Store16(&f[768], static_cast<std::uint16_t>(orientation), big);
    vx::Store16(&f[770], static_cast<std::uint16_t>(count), big);
    vx::Store32(&f[772], width, big);
    vx::Store32(&f[776], height, big);
    for (std::uint32_t i = 0; i < count; ++i) {
      std::uint8_t* e = &f[780 + 72 * i];
      e[20] = kDesc[in[4 + i] % 10];
      e[23] = kBits[in[8 + i] % 7];
      vx::Store16(e + 24, static_cast<std::uint16_t>(in[12 + i] % 4), big);
      vx::Store32(e + 28, 2048 + 4u * in[16 + i], big);
      vx::Store32(e + 32, in[20 + i] < 200 ? 0 : in[20 + i] % 16, big);
    }
  } else {
    static const std::uint8_t kChannels[] = {1, 3, 4, 2};
    static const std::uint8_t kPacking[] = {0, 5, 6, 1};
    vx::Store32(&f[0], 0x802A5FD7, big);
    vx::Store32(&f[4], 2048 + 4u * in[16], big);
    vx::Store32(&f[8], in[17] < 200 ? 1024 : 64u * in[17], big);
    f[192] = static_cast<std::uint8_t>(orientation);
    f[193] = kChannels[in[4] % 4];
    f[198] = (in[8] & 1) ? 10 : 8;
    vx::Store32(&f[200], width, big);
    vx::Store32(&f[204], height, big);
    f[681] = kPacking[in[12] % 4];
  }
  f.insert(f.end(), in + kHead, in + size);
  return f;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < kHead + 1) return 0;
  const std::uint8_t pick = data[0];
  const auto file = MakeFile(data + 1, size - 1, (pick & 1) != 0, (pick & 2) != 0);
  static const VxString path = fuzz::ProcessFile("fuzz_dpx_file", ".dpx");
  if (!fuzz::Store(path, file.data(), file.size())) return 0;
  auto parser = fuzz::NewParser<CVxDPXFileParser>((pick & 1) ? 1 : 0);
  if (FAILED(parser->Open(path.c_str(), VX_OPEN_NO_PATTERN))) return 0;
  fuzz::AskAfterOpen(parser.get(), 0);
  // The native picture, or a caller's image of another format (converted on the way).
  static const VxPixelFormat kFormats[] = {VX_PF_UNKNOWN, VX_PF_RGBA16, VX_PF_RGBF32, VX_PF_RGBA8,
                                           VX_PF_GRAY16};
  fuzz::ReadPicture(parser.get(), kFormats[(pick >> 2) % 5]);
  return 0;
}
