// RED clips: playing a 4096 × 2160 clip at half size with prefetch through the decoder pool
// (RedDecoder processes, the request, the result block and the copies), at the pool size this
// machine's rule gives and at forced sizes, against FFmpeg decoding the same frames at the same
// reduction in one process with one thread (`ffmpeg -lowres 1 -threads 1 -f null`).
// The same decodes inside this process give the floor of the channel's cost.
// VX_BENCH_RED_FRAMES sets the clip length (default 200). Run with
// --benchmark_enable_random_interleaving and repetitions on a shared machine.
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
#include "vx/com_ptr.h"

namespace {

struct Clip {
  std::filesystem::path path;
  int frames = 0;
  Clip() {
    const char* n = std::getenv("VX_BENCH_RED_FRAMES");
    frames = n ? std::atoi(n) : 200;
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
  const std::size_t rowBytes = 2048 * 6;
  vx::ComPtr<IVxImage> host;
  VxCreateImage(2048, 1080, VX_PF_RGB16, host.put());
  std::uint8_t request[vx::red::kRequestBytes];
  double copySeconds = 0, waitSeconds = 0;
  const VxString path = vx::FromUtf8(clip.path.string());
  for (auto _ : state) {
    for (int f = 0; f < clip.frames; ++f) {
      vx::red::FillRequest(settings, path, f, request);
      helper->Lock();
      void* buffer = nullptr;
      const auto t0 = std::chrono::steady_clock::now();
      const std::int32_t got = helper->DecodeFrame(request, &buffer);
      const auto t1 = std::chrono::steady_clock::now();
      if (got == f) {
        // The parser's copy into the host image, row by row.
        for (int y = 0; y < 1080; ++y)
          std::memcpy(host->GetBuffer() + static_cast<std::ptrdiff_t>(y) * host->GetRowStride(),
                      static_cast<const std::uint8_t*>(buffer) + y * rowBytes, rowBytes);
        helper->ReleaseFrame(got);
      }
      copySeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - t1).count();
      waitSeconds += std::chrono::duration<double>(t1 - t0).count();
      helper->Unlock();
      if (got != f) {
        state.SkipWithError("decode failed");
        break;
      }
    }
  }
  state.counters["slots"] = helper->PoolSize();
  // Per frame: time inside DecodeFrame (waits and the slot's copy) and the host image copy.
  const double frames = static_cast<double>(state.iterations()) * clip.frames;
  state.counters["decode_ms"] = 1000 * waitSeconds / frames;
  state.counters["copy_ms"] = 1000 * copySeconds / frames;
  state.counters["fps"] = benchmark::Counter(static_cast<double>(clip.frames),
                                             benchmark::Counter::kIsIterationInvariantRate);
  helper->Stop();
  helper->Release();
}
// 0: the product's rule (one slot on two processors), then forced sizes.
BENCHMARK(PoolPlayback)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// What a host does: the R3D parser at half size with prefetch, frames into a 16-bit RGB image of
// the stream's size, over the pool the parser starts (the product's rule).
void ThroughParser(benchmark::State& state) {
  const Clip& clip = TheClip();
  auto parser = vx::ComPtr<IVxMediaFileParser>::Share(new vx::red::CVxMediaFileParserR3D);
  vx::ComPtr<IVxImageStreamParser> picture;
  vx::ComPtr<IVxImage> image;
  const VxString path = vx::FromUtf8(clip.path.string());
  for (const VxChar* o : {VXT("decode=half"), VXT("prefetch=1"), VXT("format=rgb16")})
    parser->SetOption(const_cast<VxChar*>(o), VX_OPTION_TEXT);
  if (parser->Open(path.c_str(), 1) != S_OK ||
      parser->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, picture.put_void()) !=
          S_OK ||
      VxCreateImage(2048, 1080, VX_PF_RGB16, image.put()) != S_OK)
    return state.SkipWithError("the parser did not open the clip");
  for (auto _ : state) {
    for (int f = 0; f < clip.frames; ++f) {
      IVxImage* raw = image.get();
      if (picture->ReadImage(&raw, f) != S_OK) {
        state.SkipWithError("read failed");
        break;
      }
    }
  }
  state.counters["fps"] = benchmark::Counter(static_cast<double>(clip.frames),
                                             benchmark::Counter::kIsIterationInvariantRate);
  picture.reset();
  parser->Close();
  // Its pool takes the names the other rows' pools use: gone before the next row starts.
  vx::red::ReleaseOwnRedHelper();
}
BENCHMARK(ThroughParser)->Unit(benchmark::kMillisecond)->UseRealTime();

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
