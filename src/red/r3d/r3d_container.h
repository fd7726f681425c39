// The R3D container: big-endian atoms (u32 size, four-character tag). A clip starts with a
// "RED1" header atom (frame size, rate); "REDV" atoms hold one JPEG 2000 codestream per frame,
// "REDA" atoms audio, and a "RDMT" atom "key=value" lines of clip metadata. A spanned clip is
// the files "<name>_001.R3D", "<name>_002.R3D"... read as one.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "vx/vxchar.h"

namespace vx::red {

struct R3DFrameRef {
  std::uint32_t part = 0;    // which file of the clip
  std::uint64_t offset = 0;  // of the codestream
  std::uint32_t size = 0;    // of the codestream
};

struct R3DIndex {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t rateNumerator = 0;
  std::uint32_t rateDenominator = 1;
  std::vector<VxString> parts;  // the clip's files in order
  std::vector<R3DFrameRef> frames;
  std::map<std::string, std::string> metadata;
};

// Walks the clip's atoms (every part of a spanned clip). False when the first file is no clip,
// a later part disagrees with the first, or no frame is complete; a truncated last atom ends
// the walk. Reads only atom headers, the clip header and metadata atoms.
bool ReadR3DIndex(const VxChar* path, R3DIndex* out);

// "clip_001.R3D" → "clip_002.R3D" (same case, same digit count); empty when the name carries no
// part number.
VxString NextR3DPart(VxStringView path);

}  // namespace vx::red
