// Small text helpers the formats share: temporary names for writers, base64 for binary blobs
// that travel as metadata text.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "vx/vxchar.h"

namespace vx {

// A name beside `path` that no other writer of this or another process uses.
VxString TemporaryNameBeside(const VxChar* path);

std::string Base64Encode(const std::uint8_t* data, std::size_t size);
// False for anything but whole, well-formed base64 (padding optional, no white space).
bool Base64Decode(std::string_view text, std::vector<std::uint8_t>* out);

}  // namespace vx
