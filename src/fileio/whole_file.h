// Whole transfers over the platform's positioned file calls, which move at most 4 GiB - 1 bytes
// a call, and the write-beside-then-rename every exporter uses so that a reader never sees a
// partial file and a failed export leaves none.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <span>

#include "vx/platform.h"
#include "vx/vxchar.h"

namespace vx::fileio {

// False unless every byte moved.
bool ReadAll(os::FileHandle f, std::uint64_t offset, void* out, std::uint64_t bytes);
bool WriteAll(os::FileHandle f, std::uint64_t offset, const void* data, std::uint64_t bytes);

// ReadAll for a picture's worth: a large read is split into pieces read side by side on the
// shared pool, since copying out of the page cache is a good share of a frame's time.
bool ReadAllParallel(os::FileHandle f, std::uint64_t offset, void* out, std::uint64_t bytes);

// `fill` writes the new contents to the temporary name it is given; when it succeeds the file
// replaces `path`, and on any failure the temporary file is removed.
bool WriteReplacing(const VxChar* path, const std::function<bool(const VxChar* temp)>& fill);
// The same for contents held in memory, written piece after piece.
bool WriteReplacing(const VxChar* path,
                    std::initializer_list<std::span<const std::uint8_t>> pieces);

}  // namespace vx::fileio
