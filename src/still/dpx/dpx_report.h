// Readable description of a DPX file's whole header, as shown in the parser's text view.
#pragma once

#include "vx/com.h"
#include "vx/vxchar.h"

namespace vx::dpx {

// Smallest buffer, in characters, the report accepts.
inline constexpr int kReportMinCapacity = 768;

// Writes the report of `fileName` into `buffer` (capacity in characters, NUL-terminated).
// Lines end in "\r\n". A missing file name, a short file or a bad magic end the text with one
// line and still succeed. A text longer than the buffer is cut where a piece no longer fits and
// the last character is NUL. E_POINTER for a null buffer, E_INVALIDARG for a capacity below
// kReportMinCapacity (nothing is written then).
HRESULT DpxHeaderReport(const VxChar* fileName, VxChar* buffer, int capacity);

// The same from header bytes already in memory (`size` below 2048 reads as a short file).
HRESULT DpxHeaderReportFromBytes(const VxChar* fileName, const unsigned char* data,
                                 std::size_t size, VxChar* buffer, int capacity);

}  // namespace vx::dpx
