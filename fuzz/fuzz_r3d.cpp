// R3D clips through the decoding library: the container walk (header, frame and metadata
// atoms, spanned parts) and the first frame's JPEG 2000 decode at a decode mode picked from the
// input. Bad input must end in a refusal, never a crash, hang or read out of bounds.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_seeds.h"
#include "r3d_test_clip.h"
#include "red/r3d/r3d_parser.h"
#include "red/r3d/red_library.h"
#include "vx/com_ptr.h"
#include "vx/platform.h"
#include "fuzz_input.h"

namespace {

#if defined(VX_TEST_OPENJP2)
std::vector<std::uint8_t> Seed(const redtest::ClipPlan& plan, const char* name) {
  const auto dir = std::filesystem::temp_directory_path();
  const auto path = dir / name;
  const auto written = redtest::WriteClip(path, plan);
  std::vector<std::uint8_t> bytes;
  for (const auto& p : written) {
    vx::os::UniqueFile f(vx::os::OpenRead(vx::FromUtf8(p.string()).c_str()));
    std::uint64_t size = 0;
    if (f && vx::os::Size(f.get(), &size)) {
      bytes.resize(static_cast<std::size_t>(size));
      std::uint32_t done = 0;
      vx::os::ReadAt(f.get(), 0, bytes.data(), static_cast<std::uint32_t>(size), &done);
    }
    std::filesystem::remove(p);
    break;  // the first part is the seed
  }
  return bytes;
}
#endif

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
#if defined(VX_TEST_OPENJP2)
  redtest::ClipPlan small;
  small.width = 16;
  small.height = 8;
  small.frames = 2;
  small.metadata = "timecode=01:00:00:00\niso=800\nwhite_balance_kelvin=5600\n";
  redtest::ClipPlan odd;
  odd.width = 13;
  odd.height = 5;
  odd.frames = 1;
  redtest::ClipPlan twelve = small;
  twelve.precision = 12;
  WriteSeedsIntoEmptyCorpus(*argc, *argv,
                            {Seed(small, "fuzz_r3d_seed0.R3D"), Seed(odd, "fuzz_r3d_seed1.R3D"),
                             Seed(twelve, "fuzz_r3d_seed2.R3D")},
                            ".R3D");
#else
  (void)argc;
  (void)argv;
#endif
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const VxString path = fuzz::ProcessFile("fuzz_r3d", ".R3D");
  if (!fuzz::Store(path, data, size)) return 0;
  // The parser's open (metadata look, sidecar search, stream format) without decoding...
  auto parser = fuzz::NewParser<vx::red::CVxMediaFileParserR3D>();
  if (FAILED(parser->Open(path.c_str(), 0))) return 0;
  tagVxImageStreamFormat format{};
  format.cbSize = sizeof format;
  parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &format);
  vx::ComPtr<IVxMetadata> md;
  if (SUCCEEDED(VxCreateMetadata(md.put()))) parser->GetMetadata(0, md.get());
  // ...and the first frame in this process, as a decoder process would decode it.
  auto clip = vx::red::DefaultRedLibrary().OpenClip(path.c_str());
  if (!clip) return 0;
  const int shift = static_cast<int>(size % 5);
  const auto pixels = size % 2 ? vx::red::RedPixels::kBgra8 : vx::red::RedPixels::kRgb16;
  const std::size_t bytes = std::size_t{vx::red::ShiftedSize(clip->Info().width, shift)} *
                            vx::red::ShiftedSize(clip->Info().height, shift) *
                            vx::red::RedPixelBytes(pixels);
  if (bytes > (64u << 20)) return 0;  // a huge header alone is no finding
  std::vector<std::uint8_t> out(bytes);
  clip->Decode(0, shift, pixels, out.data(), out.size());
  return 0;
}
