// Decoding a 4096 x 2160 raw 4:2:2 frame through the YUV parser into a reused host image, as a
// host does for each frame, against FFmpeg's libswscale converting the same bytes (read from the
// same file each time) into packed RGB of the same depth, Rec. 709 video range. The parser runs
// first; each peer run prints "swscale_over_ours", its time over the parser's.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <random>
#include <vector>

#include "still/yuv/yuv_parser.h"
#include "vx/com_ptr.h"
#include "vx/platform.h"

#ifdef VX_HAVE_SWSCALE
extern "C" {
#include <libswscale/swscale.h>
}
#endif

namespace {

constexpr int kWidth = 4096, kHeight = 2160;

// A frame of random codes inside the video range, made once in /tmp.
std::filesystem::path TestFile(int mode) {
  const auto p =
      std::filesystem::temp_directory_path() / (mode ? "vx_bench_4k.yuv16" : "vx_bench_4k.yuv");
  const std::uintmax_t bytes = std::uintmax_t{kWidth} * kHeight * (mode ? 4 : 2);
  std::error_code ec;
  if (std::filesystem::file_size(p, ec) == bytes) return p;
  std::mt19937 rng(5);
  std::vector<std::uint8_t> data(bytes);
  if (mode == 0) {
    for (auto& b : data) b = static_cast<std::uint8_t>(16 + rng() % 220);
  } else {
    for (std::size_t i = 0; i < bytes; i += 2) {
      const std::uint32_t v = 64 + rng() % 877;
      data[i] = static_cast<std::uint8_t>(v);
      data[i + 1] = static_cast<std::uint8_t>(v >> 8);
    }
  }
  std::ofstream(p, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(bytes));
  return p;
}

double g_oursMs[2] = {0, 0};  // per frame, from the parser's run

void Ours(benchmark::State& state) {
  const int mode = static_cast<int>(state.range(0));
  const VxString name = vx::FromUtf8(TestFile(mode).string());
  auto parser = vx::ComPtr<CVxYUVFileParser>::Adopt(new CVxYUVFileParser(mode));
  parser->AddRef();
  if (FAILED(parser->Open(name.c_str(), VX_OPEN_NO_PATTERN))) return state.SkipWithError("open");
  vx::ComPtr<IVxImage> image;
  VxCreateImage(kWidth, kHeight, mode ? VX_PF_RGB16 : VX_PF_RGB8, image.put());
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) {
    IVxImage* p = image.get();
    if (FAILED(parser->ReadImage(&p, 0))) return state.SkipWithError("read");
    benchmark::ClobberMemory();
  }
  const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - t0;
  g_oursMs[mode] = spent.count() / static_cast<double>(state.iterations());
}

BENCHMARK(Ours)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef VX_HAVE_SWSCALE
void Swscale(benchmark::State& state) {
  const int mode = static_cast<int>(state.range(0));
  const VxString name = vx::FromUtf8(TestFile(mode).string());
  const AVPixelFormat in = mode ? AV_PIX_FMT_YUV422P10LE : AV_PIX_FMT_UYVY422;
  const AVPixelFormat out = mode ? AV_PIX_FMT_RGB48LE : AV_PIX_FMT_RGB24;
  SwsContext* sws = sws_getContext(kWidth, kHeight, in, kWidth, kHeight, out, SWS_BICUBIC, nullptr,
                                   nullptr, nullptr);
  if (!sws) return state.SkipWithError("swscale");
  int* inv = nullptr;
  int* table = nullptr;
  int srcRange = 0, dstRange = 0, brightness = 0, contrast = 0, saturation = 0;
  sws_getColorspaceDetails(sws, &inv, &srcRange, &table, &dstRange, &brightness, &contrast,
                           &saturation);
  const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
  sws_setColorspaceDetails(sws, bt709, 0, table, 1, brightness, contrast, saturation);
  const std::size_t bytes = std::size_t{kWidth} * kHeight * (mode ? 4 : 2);
  std::vector<std::uint8_t> data(bytes), rgb(std::size_t{kWidth} * kHeight * (mode ? 6 : 3));
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) {
    vx::os::UniqueFile f(vx::os::OpenRead(name.c_str()));
    std::uint32_t done = 0;
    if (!f || !vx::os::ReadAt(f.get(), 0, data.data(), static_cast<std::uint32_t>(bytes), &done))
      return state.SkipWithError("read");
    const std::uint8_t* src[3];
    int srcStride[3];
    if (mode) {
      src[0] = data.data();
      src[1] = src[0] + std::size_t{kWidth} * kHeight * 2;
      src[2] = src[1] + std::size_t{kWidth} * kHeight;
      srcStride[0] = kWidth * 2;
      srcStride[1] = srcStride[2] = kWidth;
    } else {
      src[0] = data.data();
      src[1] = src[2] = nullptr;
      srcStride[0] = kWidth * 2;
      srcStride[1] = srcStride[2] = 0;
    }
    std::uint8_t* dst[1] = {rgb.data()};
    const int dstStride[1] = {kWidth * (mode ? 6 : 3)};
    sws_scale(sws, src, srcStride, 0, kHeight, dst, dstStride);
    benchmark::ClobberMemory();
  }
  const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - t0;
  sws_freeContext(sws);
  if (g_oursMs[mode] > 0)
    state.counters["swscale_over_ours"] =
        spent.count() / static_cast<double>(state.iterations()) / g_oursMs[mode];
}
BENCHMARK(Swscale)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

}  // namespace

BENCHMARK_MAIN();
