// 1920 x 1080 movies read frame by frame through the FFmpeg media library into host buffers,
// against libavcodec's bare demux + decode loop (same threads, no conversion) and the `ffmpeg
// -f null` command on the same file in the same run. Files: DNxHR HQ in MOV and MXF, 10-bit
// v210 in MOV and AVI, made once in the temp folder. Each peer prints "<peer>_over_ours": its
// time over the library's for the same file (above 1: the library is faster).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "vx/parser.h"  // before bench_peer.h, which uses the open flags
#include "bench_peer.h"
#include "movie/ffmpeg/ffmedia.h"
#include "vx/com_ptr.h"
#include "vx/sdk.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

namespace {

namespace fm = vx::ffmedia;
constexpr int kWidth = 1920, kHeight = 1080, kFrames = 24;

struct BenchFile {
  const char* name;
  const char* make;
};
const BenchFile kFiles[] = {
    {"vx_bench_dnxhr_hq.mov", "-c:v dnxhd -profile:v dnxhr_hq -pix_fmt yuv422p"},
    {"vx_bench_dnxhr_hq.mxf", "-c:v dnxhd -profile:v dnxhr_hq -pix_fmt yuv422p"},
    {"vx_bench_v210.mov", "-c:v v210"},
    {"vx_bench_v210.avi", "-c:v v210"},
};

std::string PathOf(int file) {
  const auto p = std::filesystem::temp_directory_path() / kFiles[file].name;
  std::error_code ec;
  if (!std::filesystem::exists(p, ec)) {
    const std::string cmd = "ffmpeg -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 -t " +
                            std::to_string(kFrames / 25.0 - 0.001) + " " + kFiles[file].make +
                            " '" + p.string() + "'";
    if (std::system(cmd.c_str()) != 0) return "";
  }
  return p.string();
}

// file -> ms per frame (wall, processor) of the library's YCbCr case on it; the last run of a
// case is the measured one (the ones before it only size the iteration count).
std::map<int, vxbench::Times> g_ours;

void Record(benchmark::State& state, const vxbench::Times& t) {
  state.counters["ms_per_frame"] = t.wall;
  state.counters["cpu_ms_per_frame"] = t.cpu;
  state.counters["fps"] = t.wall > 0 ? 1000.0 / t.wall : 0.0;
}

// args: file, layout (fm::PixelLayout), host image (1: an RGBA16 IVxImage, 0: a plain buffer).
void Ours(benchmark::State& state) {
  const int file = static_cast<int>(state.range(0));
  const auto layout = static_cast<fm::PixelLayout>(state.range(1));
  const std::string path = PathOf(file);
  fm::MediaReader reader;
  if (path.empty() || reader.Open(path) != fm::Status::kOk) return state.SkipWithError("open");
  const std::int64_t frames = reader.Info().video.at(0).frames;
  std::vector<std::uint8_t> plain;
  vx::ComPtr<IVxImage> image;
  std::uint8_t* dst = nullptr;
  std::ptrdiff_t stride = 0;
  if (state.range(2)) {
    VxCreateImage(kWidth, kHeight, VX_PF_RGBA16, image.put());
    dst = image->GetBuffer();
    stride = image->GetRowStride();
  } else {
    stride = static_cast<std::ptrdiff_t>(fm::MinRowBytes(layout, kWidth));
    plain.resize(static_cast<std::size_t>(stride) * kHeight);
    dst = plain.data();
  }
  const vxbench::Stopwatch watch;
  for (auto _ : state) {
    for (std::int64_t k = 0; k < frames; ++k) {
      if (reader.ReadFrame(0, k, layout, dst, stride) != fm::Status::kOk)
        return state.SkipWithError("read");
    }
    benchmark::DoNotOptimize(dst);
  }
  vxbench::Times t = watch.PerIteration(state);
  t.wall /= static_cast<double>(frames);
  t.cpu /= static_cast<double>(frames);
  Record(state, t);
  if (!state.range(2)) g_ours[file] = t;
}

// libavcodec alone: demux and decode every frame, nothing converted.
void BareDecode(benchmark::State& state) {
  const int file = static_cast<int>(state.range(0));
  const std::string path = PathOf(file);
  std::int64_t frames = 0;
  const vxbench::Stopwatch watch;
  for (auto _ : state) {
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0 ||
        avformat_find_stream_info(fmt, nullptr) < 0)
      return state.SkipWithError("open");
    const int si = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const AVCodec* codec = avcodec_find_decoder(fmt->streams[si]->codecpar->codec_id);
    AVCodecContext* c = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(c, fmt->streams[si]->codecpar);
    c->thread_count = 0;
    c->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
    avcodec_open2(c, codec, nullptr);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* f = av_frame_alloc();
    frames = 0;
    auto drain = [&] {
      while (avcodec_receive_frame(c, f) >= 0) {
        ++frames;
        av_frame_unref(f);
      }
    };
    while (av_read_frame(fmt, pkt) >= 0) {
      if (pkt->stream_index == si) {
        avcodec_send_packet(c, pkt);
        drain();
      }
      av_packet_unref(pkt);
    }
    avcodec_send_packet(c, nullptr);
    drain();
    av_frame_free(&f);
    av_packet_free(&pkt);
    avcodec_free_context(&c);
    avformat_close_input(&fmt);
  }
  vxbench::Times t = watch.PerIteration(state);
  t.wall /= static_cast<double>(frames ? frames : 1);
  t.cpu /= static_cast<double>(frames ? frames : 1);
  Record(state, t);
  if (g_ours.count(file)) {
    vxbench::Ratio(state, "bare_decode_over_ours", t.wall, g_ours[file].wall);
    vxbench::Ratio(state, "bare_decode_over_ours_cpu", t.cpu, g_ours[file].cpu);
  }
}

// The command-line tool as a process (its processor time is not counted here: wall only).
void FfmpegNull(benchmark::State& state) {
  const int file = static_cast<int>(state.range(0));
  const std::string cmd = "ffmpeg -v error -i '" + PathOf(file) + "' -map 0:v:0 -f null -";
  const auto t0 = std::chrono::steady_clock::now();
  for (auto _ : state) {
    if (std::system(cmd.c_str()) != 0) return state.SkipWithError("ffmpeg");
  }
  const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - t0;
  const double ms = spent.count() / static_cast<double>(state.iterations()) / kFrames;
  state.counters["ms_per_frame"] = ms;
  state.counters["fps"] = 1000.0 / ms;
  if (g_ours.count(file)) vxbench::Ratio(state, "ffmpeg_null_over_ours", ms, g_ours[file].wall);
}

constexpr auto kUYVY = static_cast<std::int64_t>(fm::PixelLayout::kUYVY8);
constexpr auto kV210 = static_cast<std::int64_t>(fm::PixelLayout::kV210);
constexpr auto kRGBA16 = static_cast<std::int64_t>(fm::PixelLayout::kRGBA16);

void Register() {
  // Per file: the library into the YCbCr layout the codec holds, then into an RGBA16 host
  // image, then the peers.
  const std::int64_t native[] = {kUYVY, kUYVY, kV210, kV210};
  for (int file = 0; file < 4; ++file) {
    const std::string n = kFiles[file].name;
    benchmark::RegisterBenchmark(("Ours/" + n + "/ycbcr").c_str(), Ours)
        ->Args({file, native[file], 0})
        ->Unit(benchmark::kMillisecond)
        ->MinTime(2.0);
    benchmark::RegisterBenchmark(("Ours/" + n + "/rgba16_host_image").c_str(), Ours)
        ->Args({file, kRGBA16, 1})
        ->Unit(benchmark::kMillisecond)
        ->MinTime(2.0);
    benchmark::RegisterBenchmark(("BareDecode/" + n).c_str(), BareDecode)
        ->Args({file})
        ->Unit(benchmark::kMillisecond)
        ->MinTime(2.0);
    benchmark::RegisterBenchmark(("FfmpegNull/" + n).c_str(), FfmpegNull)
        ->Args({file})
        ->Unit(benchmark::kMillisecond)
        ->MinTime(2.0);
  }
}

}  // namespace

int main(int argc, char** argv) {
  Register();
  // The machine is shared: the load at the start goes with the figures.
  std::ifstream load("/proc/loadavg");
  std::string avg;
  if (std::getline(load, avg)) benchmark::AddCustomContext("loadavg", avg);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
