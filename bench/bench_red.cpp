// RED clips: playing a 4096 × 2160 clip at half size with prefetch through the decoder pool
// (RedDecoder processes, the request, the result block and the copies), at the pool size this
// machine's rule gives and at forced sizes, against FFmpeg decoding the same frames at the same
// reduction in one process with one thread (`ffmpeg -lowres 1 -threads 1 -f null`).
// The same decodes inside this process give the floor of the channel's cost.
// VX_BENCH_RED_FRAMES sets the clip length (default 48).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "r3d_test_clip.h"
#include "red/r3d/r3d_parser.h"
#include "red/r3d/red_process_helper.h"
#include "red/r3d/red_request.h"

namespace {

struct Clip {
  std::filesystem::path path;
  int frames = 0;
  Clip() {
    const char* n = std::getenv("VX_BENCH_RED_FRAMES");
    frames = n ? std::atoi(n) : 48;
    path = std::filesystem::temp_directory_path() / "vx_bench_red_4k.R3D";
    redtest::ClipPlan plan;
    plan.width = 4096;
    plan.height = 2160;
    plan.frames = frames;
    plan.samePicture = true;
    redtest::WriteClip(path, plan);
  }
  ~Clip() { std::filesystem::remove(path); }
};

const Clip& TheClip() {
  static Clip clip;
  return clip;
}

void PoolPlayback(benchmark::State& state) {
  const Clip& clip = TheClip();
  const auto slots = static_cast<std::uint32_t>(state.range(0));
  auto* helper = new vx::red::CVxRedProcessHelper();
  helper->SetPoolSize(slots);  // 0: the product's rule
  if (FAILED(helper->Start())) {
    state.SkipWithError("pool did not start");
    helper->Release();
    return;
  }
  vx::red::R3DSettings settings;
  settings.decodeMode = vx::red::kDecodeHalfGood;
  settings.prefetch = true;
  const std::size_t bytes = 2048 * 1080 * 6;
  std::vector<std::uint8_t> host(bytes);
  std::uint8_t request[vx::red::kRequestBytes];
  const VxString path = vx::FromUtf8(clip.path.string());
  for (auto _ : state) {
    for (int f = 0; f < clip.frames; ++f) {
      vx::red::FillRequest(settings, path, f, request);
      helper->Lock();
      void* buffer = nullptr;
      const std::int32_t got = helper->DecodeFrame(request, &buffer);
      if (got == f) {
        std::memcpy(host.data(), buffer, bytes);
        helper->ReleaseFrame(got);
      }
      helper->Unlock();
      if (got != f) {
        state.SkipWithError("decode failed");
        break;
      }
    }
  }
  state.counters["slots"] = helper->PoolSize();
  state.counters["fps"] = benchmark::Counter(static_cast<double>(clip.frames),
                                             benchmark::Counter::kIsIterationInvariantRate);
  helper->Stop();
  helper->Release();
}
BENCHMARK(PoolPlayback)->Arg(0)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same decodes in this process through the decoding library: the floor the pool's channel
// and copies are measured against.
void LibraryInProcess(benchmark::State& state) {
  const Clip& clip = TheClip();
  auto red = vx::red::DefaultRedLibrary().OpenClip(vx::FromUtf8(clip.path.string()).c_str());
  if (!red) {
    state.SkipWithError("clip did not open");
    return;
  }
  std::vector<std::uint8_t> out(2048 * 1080 * 6);
  for (auto _ : state) {
    for (int f = 0; f < clip.frames; ++f) {
      if (!red->Decode(f, 1, vx::red::RedPixels::kRgb16, out.data(), out.size())) {
        state.SkipWithError("decode failed");
        break;
      }
    }
  }
  state.counters["fps"] = benchmark::Counter(static_cast<double>(clip.frames),
                                             benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(LibraryInProcess)->Unit(benchmark::kMillisecond)->UseRealTime();

void FfmpegOneProcess(benchmark::State& state) {
  const Clip& clip = TheClip();
  const std::string cmd =
      "ffmpeg -v error -threads 1 -lowres 1 -i '" + clip.path.string() + "' -f null - 2>/dev/null";
  for (auto _ : state) {
    if (std::system(cmd.c_str()) != 0) {
      state.SkipWithError("ffmpeg failed");
      break;
    }
  }
  state.counters["fps"] = benchmark::Counter(static_cast<double>(clip.frames),
                                             benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(FfmpegOneProcess)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
