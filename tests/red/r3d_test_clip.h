// Test clips: a writer of the R3D container as libavformat's "r3d" demuxer reads it (a "RED1"
// header atom, one "REDV" atom a frame holding a JPEG 2000 codestream from libopenjp2, and an
// optional "RDMT" metadata atom), split over "_001", "_002"... files when asked.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace redtest {

// The picture of frame `f`: 16-bit samples, RGB interleaved, `w` × `h`. Lossless coding keeps it.
std::uint16_t PatternSample(int f, std::uint32_t x, std::uint32_t y, int c);

// Lossless (5/3) codestream of frame `f`'s picture with `levels` resolution levels, its samples
// the pattern's low `precision` bits.
std::vector<std::uint8_t> EncodeFrame(int f, std::uint32_t w, std::uint32_t h, int levels = 6,
                                      int precision = 16);

struct ClipPlan {
  std::uint32_t width = 64;
  std::uint32_t height = 32;
  int frames = 4;
  std::uint16_t rateNumerator = 24000;
  std::uint16_t rateDenominator = 1001;
  std::string metadata;      // "key=value\n" lines; empty: no metadata atom
  int framesPerPart = 0;     // 0: one file
  bool samePicture = false;  // every frame holds frame 0's codestream (quick big clips)
  int precision = 16;        // bits a sample
};

// Writes the clip (the first part at `path`, named "..._001.R3D" when split) and answers the
// paths written.
std::vector<std::filesystem::path> WriteClip(const std::filesystem::path& path,
                                             const ClipPlan& plan);

}  // namespace redtest
