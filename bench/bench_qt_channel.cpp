// What the QuickTime channel costs a frame: 1920 x 1080 frames read through CVxQTManager from
// the channel test decoder (which serves one prepared picture, so the decoder's own work is one
// copy into the result block), against a copy of the same bytes into a host image. The real
// decoder's figure adds its decode time on top of the channel's.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "movie/qt/qt_manager.h"
#include "vx/platform.h"

namespace {

constexpr int kW = 1920, kH = 1080;

std::filesystem::path Decoder() {
  const std::filesystem::path exe(vx::ToUtf8(vx::os::ExecutablePath()));
#ifdef _WIN32
  return exe.parent_path() / "qttest" / "QuickTimeDecoder" / "QTDecoder.exe";
#else
  return exe.parent_path() / "qttest" / "QuickTimeDecoder" / "QTDecoder";
#endif
}

void BM_ChannelFrame(benchmark::State& state) {
  const auto movie = std::filesystem::temp_directory_path() / "bench_qt_channel.mov";
  std::ofstream(movie) << "video 1920 1080 25 100000\nstill\n";
  vx::qt::SetDecoderProgramForTesting(vx::FromUtf8(Decoder().string()));
  auto* m = new CVxQTManager;
  m->AddRef();
  DWORD handle = 0, v = 0, a = 0;
  if (m->Start() != S_OK ||
      m->Open(vx::FromUtf8(movie.string()).c_str(), &handle, &v, &a) != S_OK) {
    state.SkipWithError("no test decoder");
    m->Release();
    return;
  }
  IVxImage* image = nullptr;
  VxCreateImage(kW, kH, VX_PF_RGBA8, &image);
  DWORD frame = 0;
  for (auto _ : state) {
    if (m->ReadFrame(handle, 0, frame++ % 100000, &image, FALSE, 1) != S_OK) {
      state.SkipWithError("read failed");
      break;
    }
    benchmark::DoNotOptimize(image->GetBuffer());
  }
  state.counters["fps"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  image->Release();
  m->CloseMovie(handle);
  m->Stop();
  m->Release();
  std::filesystem::remove(movie);
}

// The floor: the decoder's copy into the block and ours out of it, nothing else.
void BM_TwoCopies(benchmark::State& state) {
  std::vector<unsigned char> picture(static_cast<std::size_t>(kW) * kH * 4, 7),
      block(picture.size());
  IVxImage* image = nullptr;
  VxCreateImage(kW, kH, VX_PF_RGBA8, &image);
  for (auto _ : state) {
    std::memcpy(block.data(), picture.data(), picture.size());
    for (int y = 0; y < kH; ++y)
      std::memcpy(image->GetBuffer() + static_cast<std::ptrdiff_t>(y) * image->GetRowStride(),
                  block.data() + static_cast<std::size_t>(y) * kW * 4,
                  static_cast<std::size_t>(kW) * 4);
    benchmark::DoNotOptimize(image->GetBuffer());
  }
  state.counters["fps"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  image->Release();
}

BENCHMARK(BM_ChannelFrame)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_TwoCopies)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
