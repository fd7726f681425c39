// What DPX and Cineon headers say beyond the picture, as the metadata record and its texts, and
// back into a DPX header: the part of a conversion that keeps names, film and video fields.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vx/metadata.h"

namespace vx::dpx {

// Adds to `md` the header fields the parser state does not keep: names, dates, colorimetric
// code, element description and quantities, orientation, film and television fields. Texts
// already in `md` with the same key are replaced. `h` holds the first 2048 bytes.
void AddDpxHeaderMetadata(const std::uint8_t* h, bool big, IVxMetadata* md);
// The same for a Cineon header; `size` bytes of it are at `h` (fields past it are skipped).
void AddCineonHeaderMetadata(const std::uint8_t* h, std::size_t size, bool big, IVxMetadata* md);
// Reads the header of `path` and adds what the two functions above add. S_FALSE when the file
// is too short to hold one (the record is left as it is).
HRESULT AddFileHeaderMetadata(const VxChar* path, bool isDpx, IVxMetadata* md);

// DPX transfer and colorimetric codes of a record value; false when DPX has no code for it.
bool DpxTransferCode(DWORD transfer, std::uint8_t* code);
bool DpxColorimetricCode(DWORD colorimetric, std::uint8_t* code);

// Stores into a header the writer has filled whatever of `md` DPX holds. The writer's own
// fields (sizes, offsets, descriptors, depth, packing, creator, creation time) stay.
void ApplyDpxMetadata(IVxMetadata* md, std::uint8_t* h, bool big, std::uint32_t elementCount);

}  // namespace vx::dpx
