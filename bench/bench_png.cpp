// Reading a 4096 x 2160 16-bit RGB PNG written by OpenImageIO through the parser into the host's
// RGBA16 image, against libpng's own decode of the same file (png_read_row into one buffer, no
// transforms: the floor any libpng reader stands on) and OpenImageIO reading it into 16-bit RGB,
// in the same run. Our case reports "ours_over_libpng", OpenImageIO's "oiio_over_ours". The
// writer is timed at zlib levels 1, 3 and 6 for the choice of the default level.
#include <benchmark/benchmark.h>
#include <png.h>

#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <random>
#include <vector>

#include "still/png/png_parser.h"
#include "bench_peer.h"
#include "vx/com_ptr.h"
#include "vx/sdk.h"

#ifdef VX_HAVE_OIIO
#include <OpenImageIO/imageio.h>
#endif

namespace {

constexpr int kWidth = 4096;
constexpr int kHeight = 2160;

// Smooth gradients deflate packs well beside blocks of noise it cannot, a third of the picture.
std::vector<std::uint16_t> Paint() {
  std::vector<std::uint16_t> px(std::size_t{kWidth} * kHeight * 3);
  std::mt19937 rng(7);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      std::uint16_t* p = &px[(std::size_t{kWidth} * y + x) * 3];
      const bool noise = ((x / 256) + (y / 216)) % 3 == 0;
      const std::uint32_t r = rng();
      p[0] = noise ? static_cast<std::uint16_t>(r) : static_cast<std::uint16_t>(x * 16);
      p[1] = noise ? static_cast<std::uint16_t>(r >> 16) : static_cast<std::uint16_t>(y * 30);
      p[2] = static_cast<std::uint16_t>((x + y) * 8);
    }
  }
  return px;
}

std::filesystem::path MakeFile() {
  const auto path = std::filesystem::temp_directory_path() / "vx_bench_png_4k.png";
  bool ok = false;
#ifdef VX_HAVE_OIIO
  const std::vector<std::uint16_t> pixels = Paint();
  ok = vxbench::OiioWrite(path, kWidth, kHeight, 3, OIIO::TypeDesc::UINT16, pixels.data());
#endif
  return ok ? path : std::filesystem::path{};
}

const std::filesystem::path& File() {
  static const std::filesystem::path path = MakeFile();
  return path;
}

double& LibpngTime() {
  static double ms = 0.0;
  return ms;
}
double& OurTime() {
  static double ms = 0.0;
  return ms;
}

// libpng alone, C-style so its error jump crosses no destructor.
bool LibpngDecode(const char* path, std::uint8_t* pixels) {
  std::FILE* f = std::fopen(path, "rb");
  if (!f) return false;
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png ? png_create_info_struct(png) : nullptr;
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    std::fclose(f);
    return false;
  }
  png_init_io(png, f);
  png_read_info(png, info);
  const std::size_t rowBytes = png_get_rowbytes(png, info);
  for (png_uint_32 y = 0; y < png_get_image_height(png, info); ++y)
    png_read_row(png, pixels + rowBytes * y, nullptr);
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  std::fclose(f);
  return rowBytes == std::size_t{kWidth} * 6;
}

void BM_PngLibpngRead4K(benchmark::State& state) {
  const auto& path = File();
  std::vector<std::uint8_t> pixels(std::size_t{kWidth} * kHeight * 6);
  if (path.empty()) {
    state.SkipWithError("no file");
    return;
  }
  const vxbench::Stopwatch watch;
  for (auto _ : state) {
    if (!LibpngDecode(path.string().c_str(), pixels.data())) {
      state.SkipWithError("libpng read failed");
      break;
    }
    benchmark::DoNotOptimize(pixels.data());
  }
  LibpngTime() = watch.PerIteration(state).cpu;
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

// Open, then ReadImage into the host's RGBA16 image, as a host reads a frame.
void BM_PngParserRead4K(benchmark::State& state) {
  const auto& path = File();
  vx::ComPtr<IVxImage> image;
  if (path.empty() || FAILED(VxCreateImage(kWidth, kHeight, VX_PF_RGBA16, image.put()))) {
    state.SkipWithError("no file or image");
    return;
  }
  // Processor time: the decodes are single-threaded, and on a shared machine the wall clock
  // mostly measures the others.
  OurTime() = vxbench::TimeParserRead<CVxPNGFileParser>(state, path, image.get()).cpu;
  vxbench::Ratio(state, "ours_over_libpng", OurTime(), LibpngTime());
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

#ifdef VX_HAVE_OIIO
void BM_PngOiioRead4K(benchmark::State& state) {
  const auto& path = File();
  std::vector<std::uint16_t> pixels(std::size_t{kWidth} * kHeight * 3);
  const double ms =
      vxbench::TimeOiioRead(state, path, kWidth, kHeight, 3, OIIO::TypeDesc::UINT16, pixels.data())
          .cpu;
  vxbench::Ratio(state, "oiio_over_ours", ms, OurTime());
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
#endif

// The picture read once, then written at zlib level state.range(0); reports the file's bytes.
void BM_PngParserWrite4K(benchmark::State& state) {
  const auto& path = File();
  vx::ComPtr<IVxImage> image;
  auto reader = vx::ComPtr<CVxPNGFileParser>::Share(new CVxPNGFileParser());
  IVxImage* raw = nullptr;
  if (path.empty() ||
      FAILED(reader->Open(vx::FromUtf8(path.string()).c_str(), VX_OPEN_NO_PATTERN)) ||
      FAILED(reader->ReadImage(&raw, 0))) {
    state.SkipWithError("no picture");
    return;
  }
  image = vx::ComPtr<IVxImage>::Adopt(raw);
  const auto out = std::filesystem::temp_directory_path() / "vx_bench_png_out.png";
  const VxString level = vx::FromUtf8("level=" + std::to_string(state.range(0)));
  for (auto _ : state) {
    auto writer = vx::ComPtr<CVxPNGFileParser>::Share(new CVxPNGFileParser());
    if (FAILED(
            writer->Open(vx::FromUtf8(out.string()).c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN)) ||
        writer->SetOption(const_cast<VxChar*>(level.c_str()), VX_OPTION_TEXT) != S_OK ||
        FAILED(writer->WriteImage(image.get(), 0))) {
      state.SkipWithError("write failed");
      break;
    }
  }
  state.counters["bytes"] = static_cast<double>(std::filesystem::file_size(out));
  std::filesystem::remove(out);
}

}  // namespace

// libpng, ours, OpenImageIO in that order, each reading the time before it.
BENCHMARK(BM_PngLibpngRead4K)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PngParserRead4K)->Unit(benchmark::kMillisecond)->UseRealTime();
#ifdef VX_HAVE_OIIO
BENCHMARK(BM_PngOiioRead4K)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
BENCHMARK(BM_PngParserWrite4K)
    ->Arg(1)
    ->Arg(3)
    ->Arg(6)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

int main(int argc, char** argv) {
  return vxbench::RunAndRemove(argc, argv, &File);
}
