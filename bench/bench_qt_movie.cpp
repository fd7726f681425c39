// What the QuickTime path costs on real movies: 1920 × 1080 ProRes 422 HQ (MOV) and H.264 (MP4),
// 100 frames each, read frame by frame through CVxMediaFileParserQT and the QTDecoder program into
// a host image, against `ffmpeg -threads 0 -i FILE -f null -` on the same file in the same run
// (the decoder program lets FFmpeg choose its thread count too). Two more rows split the cost:
// ffmpeg converting to RGBA as well (the layout the host image asks for), and the FFmpeg media
// library decoding into the same layout inside this process (the decoder program without its
// channel).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "movie/ffmpeg/ffmedia.h"
#include "movie/qt/qt_manager.h"
#include "movie/qt/qt_parser.h"
#include "vx/com_ptr.h"
#include "vx/platform.h"

namespace {

constexpr int kW = 1920, kH = 1080, kFrames = 100;

struct Movies {
  std::filesystem::path dir, files[2];
  bool ok = true;
  Movies() {
    dir = std::filesystem::temp_directory_path() / "vx_bench_qt_movie";
    std::filesystem::create_directories(dir);
    const char* names[2] = {"prores_hq.mov", "h264.mp4"};
    const char* codecs[2] = {"-c:v prores_ks -profile:v 3 -pix_fmt yuv422p10le",
                             "-c:v libx264 -preset veryfast -g 25 -bf 2 -pix_fmt yuv420p"};
    for (int i = 0; i < 2; ++i) {
      files[i] = dir / names[i];
      const std::string cmd =
          "ffmpeg -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 "
          "-frames:v " +
          std::to_string(kFrames) + " " + codecs[i] + " '" + files[i].string() + "'";
      ok = ok && std::system(cmd.c_str()) == 0;
    }
  }
  ~Movies() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
};

const Movies& TheMovies() {
  static Movies movies;
  return movies;
}

std::filesystem::path Decoder() {
  const std::filesystem::path exe(vx::ToUtf8(vx::os::ExecutablePath()));
  return exe.parent_path() / "QuickTimeDecoder" / "QTDecoder";
}

void Fps(benchmark::State& state) {
  state.counters["fps"] =
      benchmark::Counter(kFrames, benchmark::Counter::kIsIterationInvariantRate);
}

void ThroughParser(benchmark::State& state) {
  const Movies& movies = TheMovies();
  if (!movies.ok) return state.SkipWithError("ffmpeg could not make the movies");
  vx::qt::SetDecoderProgramForTesting(vx::FromUtf8(Decoder().string()));
  auto* manager = new CVxQTManager;
  manager->AddRef();
  {
    auto parser = vx::ComPtr<IVxMediaFileParser>::Share(new CVxMediaFileParserQT);
    vx::ComPtr<IVxImageStreamParser> picture;
    vx::ComPtr<IVxImage> image;
    const VxString path = vx::FromUtf8(movies.files[state.range(0)].string());
    if (manager->Start() != S_OK || parser->Open(path.c_str(), 1) != S_OK ||
        parser->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, picture.put_void()) !=
            S_OK ||
        VxCreateImage(kW, kH, VX_PF_RGBA8, image.put()) != S_OK) {
      state.SkipWithError("the decoder program did not open the movie");
    } else {
      for (auto _ : state) {
        for (int f = 0; f < kFrames; ++f) {
          IVxImage* raw = image.get();
          if (picture->ReadImage(&raw, f) != S_OK) {
            state.SkipWithError("read failed");
            break;
          }
          benchmark::DoNotOptimize(raw->GetBuffer());
        }
      }
      Fps(state);
    }
    picture.reset();
    parser->Close();
  }
  manager->Stop();
  manager->Release();
  vx::qt::SetDecoderProgramForTesting({});
}

void InProcess(benchmark::State& state) {
  const Movies& movies = TheMovies();
  if (!movies.ok) return state.SkipWithError("ffmpeg could not make the movies");
  vx::ffmedia::MediaReader reader;
  if (reader.Open(movies.files[state.range(0)].string()) != vx::ffmedia::Status::kOk)
    return state.SkipWithError("open failed");
  std::vector<std::uint8_t> rgba(static_cast<std::size_t>(kW) * kH * 4);
  for (auto _ : state) {
    for (int f = 0; f < kFrames; ++f) {
      if (reader.ReadFrame(0, f, vx::ffmedia::PixelLayout::kRGBA8, rgba.data(), kW * 4) !=
          vx::ffmedia::Status::kOk) {
        state.SkipWithError("read failed");
        break;
      }
      benchmark::DoNotOptimize(rgba.data());
    }
  }
  Fps(state);
}

// range(1): 0 ffmpeg's own output format, 1 converted to RGBA as well.
void Ffmpeg(benchmark::State& state) {
  const Movies& movies = TheMovies();
  if (!movies.ok) return state.SkipWithError("ffmpeg could not make the movies");
  const std::string cmd = "ffmpeg -v error -threads 0 -i '" +
                          movies.files[state.range(0)].string() + "'" +
                          (state.range(1) ? " -pix_fmt rgba" : "") + " -f null - 2>/dev/null";
  for (auto _ : state) {
    if (std::system(cmd.c_str()) != 0) {
      state.SkipWithError("ffmpeg failed");
      break;
    }
  }
  Fps(state);
}

// 0: ProRes 422 HQ, 1: H.264. Peer and ours alternate so a load change hits both alike.
BENCHMARK(ThroughParser)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Ffmpeg)->Args({0, 0})->Args({1, 0})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Ffmpeg)->Args({0, 1})->Args({1, 1})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(InProcess)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
