// RED clips: playing a 4096 × 2160 clip at half size with prefetch through the decoder pool
// (RedDecoder processes, the request, the result block and the copies), at the pool size this
// machine's rule gives and at forced sizes, against FFmpeg decoding the same frames at the same
// reduction in one process with one thread (`ffmpeg -lowres 1 -threads 1 -f null`).
// The same decodes inside this process, on as many threads as a decoder process uses, give the
// floor of the channel's cost; a stand-in decoder that decodes nothing gives the channel alone.
// VX_BENCH_RED_FRAMES sets the clip length (default 200). Run with
// --benchmark_enable_random_interleaving and repetitions on a shared machine.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
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
#include "vx/platform.h"

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
    // Written back before any timing starts, so the first case does not share the machine with
    // the kernel's writeback of gigabytes.
    if (std::system("sync") != 0) std::fprintf(stderr, "sync failed\n");
  }
  ~Clip() { std::filesystem::remove(path); }
};

const Clip& TheClip() {
  static Clip clip;
  return clip;
}

std::uint32_t Processors() {
  return std::max(1u, std::thread::hardware_concurrency());
}

// Decoder processes inherit the thread count through the environment; 0 leaves the rule's.
void SetDecoderThreads(int threads) {
  if (threads > 0)
    setenv("VX_RED_DECODER_THREADS", std::to_string(threads).c_str(), 1);
  else
    unsetenv("VX_RED_DECODER_THREADS");
}

// Args: pool size (0: the product's rule) and threads a decoder process (0: the rule's share).
void PoolPlayback(benchmark::State& state) {
  const Clip& clip = TheClip();
  const auto slots = static_cast<std::uint32_t>(state.range(0));
  SetDecoderThreads(static_cast<int>(state.range(1)));
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
  state.counters["threads"] = state.range(1) > 0
                                  ? static_cast<double>(state.range(1))
                                  : vx::red::RedDecodeThreads(Processors(), helper->PoolSize());
  // Per frame: time inside DecodeFrame (waits and the slot's copy) and the host image copy.
  const double frames = static_cast<double>(state.iterations()) * clip.frames;
  state.counters["decode_ms"] = 1000 * waitSeconds / frames;
  state.counters["copy_ms"] = 1000 * copySeconds / frames;
  state.counters["fps"] = benchmark::Counter(static_cast<double>(clip.frames),
                                             benchmark::Counter::kIsIterationInvariantRate);
  helper->Stop();
  helper->Release();
  SetDecoderThreads(0);
  unsetenv("VX_RED_DECODER_DIR");
}
// The product's rule (one slot of two threads on two processors), forced sizes with the
// threads the rule gives them, then one-thread decoders, which compare with the one-thread
// decode in this process.
BENCHMARK(PoolPlayback)
    ->Args({0, 0})
    ->Args({2, 0})
    ->Args({4, 0})
    ->Args({1, 1})
    ->Args({2, 1})
    ->Args({4, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The channel alone: one slot served by the tests' stand-in decoder, which answers at once, so
// the time is the request, the two events, the slot's copy and the host image copy.
void ChannelOnly(benchmark::State& state) {
  const VxString exe = vx::os::ExecutablePath();
  const std::string dir = vx::ToUtf8(exe.substr(0, exe.find_last_of(VXT("/")))) + "/redtest";
  if (!std::filesystem::exists(dir + "/RedDecoder"))
    return state.SkipWithError("no stand-in decoder (build the tests)");
  setenv("VX_RED_DECODER_DIR", dir.c_str(), 1);
  PoolPlayback(state);
}
BENCHMARK(ChannelOnly)->Args({1, 0})->Unit(benchmark::kMillisecond)->UseRealTime();

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
// and copies are measured against. Arg: threads (0: as many as a decoder process of the rule).
void LibraryInProcess(benchmark::State& state) {
  const Clip& clip = TheClip();
  const int threads = state.range(0) > 0 ? static_cast<int>(state.range(0))
                                         : vx::red::RedDecodeThreads(
                                               Processors(), vx::red::RedPoolSize(Processors()));
  vx::red::DefaultRedLibrary().SetDecodeThreads(threads);
  state.counters["threads"] = threads;
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
  vx::red::DefaultRedLibrary().SetDecodeThreads(1);
}
BENCHMARK(LibraryInProcess)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

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
