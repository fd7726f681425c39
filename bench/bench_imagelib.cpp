// Reading a 4096 x 2160 picture through the codec-family parser into the host's 16-bit RGBA image,
// against OpenImageIO reading the same file into the same layout in the same run: a 16-bit RGBA
// run-length SGI, a 24-bit BMP and an 8-bit RGBA RLA written by OpenImageIO. Each OpenImageIO
// case runs right after ours and reports "oiio_over_ours", its time per picture over ours.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "imagelib/base/qi_image.h"
#include "imagelib/bmp/qi_image_bmp.h"
#include "imagelib/ceil/ceil_parser.h"
#include "imagelib/sgi/qi_image_sgi.h"
#include "bench_peer.h"
#include "vx/com_ptr.h"
#include "vx/sdk.h"

#ifdef VX_HAVE_OIIO
#include <OpenImageIO/imageio.h>
#endif

namespace {

constexpr int kWidth = 4096;
constexpr int kHeight = 2160;
constexpr int kSgiCode = 5;
constexpr int kRlaCode = 6;
constexpr int kBmpCode = 9;

// Flat bands a run-length coder packs (steps of a gradient 32 pixels wide, the alpha a ramp by
// lines) beside blocks of noise it cannot, a third of the picture, so both kinds of run are timed.
template <class Image, class T>
void Paint(Image* image, T top) {
  std::mt19937 rng(7);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const bool noise = ((x / 256) + (y / 216)) % 3 == 0;
      const auto band = static_cast<T>(static_cast<std::uint64_t>(x / 32) * top / 127);
      const auto ramp = static_cast<T>(static_cast<std::uint64_t>(y) * top / (kHeight - 1));
      if (noise) {
        image->setPixel16(x, y, static_cast<std::uint16_t>(rng()),
                          static_cast<std::uint16_t>(rng()), static_cast<std::uint16_t>(rng()),
                          static_cast<std::uint16_t>(rng()));
      } else if constexpr (sizeof(T) == 2) {
        image->setPixel16(x, y, band, static_cast<T>(top - band), ramp, ramp);
      } else {
        image->setPixel8(x, y, band, static_cast<T>(top - band), ramp, 255);
      }
    }
  }
}

// Writes the picture once, the SGI and BMP with our own file classes and the RLA with
// OpenImageIO; an empty path when that fails.
std::filesystem::path MakeFile(int code) {
  const char* name = code == kSgiCode   ? "vx_bench_imagelib_4k.sgi"
                     : code == kRlaCode ? "vx_bench_imagelib_4k.rla"
                                        : "vx_bench_imagelib_4k.bmp";
  const auto path = std::filesystem::temp_directory_path() / name;
  const VxString wide = vx::FromUtf8(path.string());
  bool ok = false;
  if (code == kRlaCode) {
#ifdef VX_HAVE_OIIO
    QI_ImageRGBA8 picture(kWidth, kHeight);
    Paint(&picture, std::uint8_t{255});
    std::vector<std::uint8_t> pixels(std::size_t{kWidth} * kHeight * 4);
    for (int y = 0; y < kHeight; ++y) {
      for (int x = 0; x < kWidth; ++x) {
        std::uint8_t* p = &pixels[(std::size_t{kWidth} * y + x) * 4];
        picture.getPixel8(x, y, p, p + 1, p + 2, p + 3);
      }
    }
    ok = vxbench::OiioWrite(path, kWidth, kHeight, 4, OIIO::TypeDesc::UINT8, pixels.data());
#endif
  } else if (code == kSgiCode) {
    QI_ImageRGBA16 picture(kWidth, kHeight);
    Paint(&picture, std::uint16_t{65535});
    QI_ImageSGI file;
    file.setWidth(kWidth);
    file.setHeight(kHeight);
    file.setPixelType(QI_PIXEL_RGBA);
    file.setBitsPerChannel(16);
    file.setCompression(QI_COMPRESSION_RLE);
    ok = file.open(wide.c_str(), VXT("wb")) && file.writeHeader() && file.write(&picture);
    file.close();
  } else {
    QI_ImageRGBA8 picture(kWidth, kHeight);
    Paint(&picture, std::uint8_t{255});
    QI_ImageBMP file;
    file.setWidth(kWidth);
    file.setHeight(kHeight);
    file.setPixelType(QI_PIXEL_RGB);
    ok = file.open(wide.c_str(), VXT("wb")) && file.writeHeader() && file.write(&picture);
    file.close();
  }
  return ok ? path : std::filesystem::path{};
}

const std::filesystem::path& File(int code) {
  static const std::filesystem::path sgi = MakeFile(kSgiCode);
  static const std::filesystem::path bmp = MakeFile(kBmpCode);
  static const std::filesystem::path rla = MakeFile(kRlaCode);
  return code == kSgiCode ? sgi : code == kRlaCode ? rla : bmp;
}

// Milliseconds per picture of our reads, by format code, for the OpenImageIO run that follows.
std::map<std::int64_t, double>& OurTimes() {
  static std::map<std::int64_t, double> times;
  return times;
}

// arg: format code. Open, then ReadImage into the host's RGBA16 image, as a host reads a frame.
void BM_ParserRead4K(benchmark::State& state) {
  const auto& path = File(static_cast<int>(state.range(0)));
  vx::ComPtr<IVxImage> image;
  if (path.empty() || FAILED(VxCreateImage(kWidth, kHeight, VX_PF_RGBA16, image.put()))) {
    state.SkipWithError("no file or image");
    return;
  }
  OurTimes()[state.range(0)] = vxbench::TimeParserRead<CVxMediaFileParserCEIL>(
                                   state, path, image.get(), static_cast<int>(state.range(0)))
                                   .wall;
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

#ifdef VX_HAVE_OIIO
// The same file into the same RGBA16 layout, the fastest way OpenImageIO offers: a 16-bit file
// read as UINT16 straight into the RGBA16 buffer. An 8-bit file (the BMP, three channels) read
// as its own UINT8 and widened (v * 257) by a plain loop, which here is about twice as fast as
// asking OpenImageIO for UINT16 (with or without an 8-byte pixel stride); the 8-bit RLA likewise,
// its four channels read as UINT8 and widened. The alpha of a
// three-channel file is set once before the loop, so OpenImageIO is not charged for filling it.
void BM_OiioRead4K(benchmark::State& state) {
  const auto& path = File(static_cast<int>(state.range(0)));
  constexpr std::size_t kPixels = std::size_t{kWidth} * kHeight;
  std::vector<std::uint16_t> pixels(kPixels * 4, 65535);
  std::vector<std::uint8_t> narrow(kPixels * 4);
  const vxbench::OiioHeader file = vxbench::ReadOiioHeader(path);
  const int channels = std::min(file.channels, 4);
  const bool bytes = file.format == OIIO::TypeDesc::UINT8;
  const std::size_t step = static_cast<std::size_t>(channels);
  if (file.width != kWidth || file.height != kHeight) {
    state.SkipWithError("OpenImageIO sees another size");
    return;
  }
  const vxbench::Stopwatch watch;
  for (auto _ : state) {
    if (!(bytes ? vxbench::OiioRead(path, channels, OIIO::TypeDesc::UINT8, narrow.data())
                : vxbench::OiioRead(path, channels, OIIO::TypeDesc::UINT16, pixels.data(), 8))) {
      state.SkipWithError("OpenImageIO read failed");
      break;
    }
    if (bytes) {
      for (std::size_t i = 0; i < kPixels; ++i) {
        for (std::size_t c = 0; c < step; ++c)
          pixels[4 * i + c] = static_cast<std::uint16_t>(narrow[step * i + c] * 257);
      }
    }
    benchmark::DoNotOptimize(pixels.data());
  }
  const auto ours = OurTimes().find(state.range(0));
  if (ours != OurTimes().end())
    vxbench::Ratio(state, "oiio_over_ours", watch.PerIteration(state).wall, ours->second);
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
#endif

void Cases(benchmark::internal::Benchmark* b) {
  b->ArgName("code")->Arg(kSgiCode)->Arg(kBmpCode);
#ifdef VX_HAVE_OIIO
  b->Arg(kRlaCode);  // written by OpenImageIO
#endif
  b->Unit(benchmark::kMillisecond)->UseRealTime();
}

void Register() {
  // Google Benchmark runs a family's cases in a row: ours come first and OpenImageIO's read our
  // times. With repetitions, compare the medians of the two families.
  Cases(benchmark::RegisterBenchmark("BM_ParserRead4K", BM_ParserRead4K));
#ifdef VX_HAVE_OIIO
  Cases(benchmark::RegisterBenchmark("BM_OiioRead4K", BM_OiioRead4K));
#endif
}

}  // namespace

int main(int argc, char** argv) {
  Register();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  for (const int code : {kSgiCode, kBmpCode, kRlaCode}) {
    const auto& path = File(code);
    if (!path.empty()) std::filesystem::remove(path);
  }
  return 0;
}
