// The format codes of the codec-family parser and the file-image class each one creates.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "imagelib/base/qi_image.h"

namespace vx::ceil {

struct CeilFormat {
  std::int32_t code;
  // Null while the format has no class: the parser then holds no file image.
  std::unique_ptr<QI_ImageFile> (*make)();
  // What the format's writer can be asked for (QI_COMPRESSION_*); the first is its default.
  std::span<const std::int32_t> compressions;
};

// The row of `code`, or null for a code outside 5..19 or one of 15..18.
const CeilFormat* FindCeilFormat(std::int32_t code);

// The name of a compression code ("None", "RLE", ...); "Unknown" for any other.
const char* CompressionName(std::int32_t code);

}  // namespace vx::ceil
