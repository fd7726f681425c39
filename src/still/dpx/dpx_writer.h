// The DPX writer: one host image into one DPX file, header and image elements.
#pragma once

#include <cstdint>
#include <string>

#include "still/dpx/dpx_settings.h"
#include "vx/parser.h"
#include "vx/sdk.h"

namespace vx::dpx {

// What the writer knows about the frame beyond its pixels (usually taken from the source).
struct DpxWriteInfo {
  double frameRate = -1.0;  // frames per second; not positive when unknown
  std::int32_t fieldMode = VX_FIELD_PROGRESSIVE;
  std::uint32_t timeCode = 0xFFFFFFFFu;  // SMPTE BCD word; all bits set for none
  bool aspectKnown = false;
  double pixelAspect = 1.0;
  std::string inputDevice;  // written back into the orientation header (at most 32 bytes)
  // Written for transfer choices 1 and 3 only. A negative white level means the output depth's
  // largest code value (1.0 for float).
  VxLevelSet levels{2.2222223, 0.0, 4.5, 0.018, -1.0};
  int transferChoice = 0;  // used when the export settings keep the transfer choice
  // The source's exact DPX codes (-1 unknown); they win over transferChoice when the settings
  // keep the transfer. The colorimetric code otherwise follows the transfer code.
  int transferCode = -1;
  int colorimetricCode = -1;
  // Whatever else of the source the header can hold (names, film, television fields); may be null.
  IVxMetadata* metadata = nullptr;
  // The source, for the settings' "keep" values. 0 / Keep / -1 when unknown: the depth then
  // follows the image's pixel format, the layout its alpha, the packing is Packed.
  std::uint32_t sourceBits = 0;
  DpxLayout sourceLayout = DpxLayout::Keep;
  int sourcePacking = -1;
};

// One image element as the writer lays it out.
struct DpxElementPlan {
  std::uint8_t descriptor = 0;
  std::uint32_t components = 0;
  std::uint8_t order[4] = {};  // RGBA channel of each component
};

// The settings with every "keep" resolved against the source and the image.
struct DpxOutputPlan {
  std::uint32_t bits = 10;
  std::uint32_t packing = 0;
  DpxLayout layout = DpxLayout::PackedRGB;
  int transferChoice = 0;
  std::uint8_t transferCode = 2;
  std::uint8_t colorimetricCode = 2;
  bool bigEndian = true;
  std::uint32_t elementCount = 0;
  DpxElementPlan elements[4];
};

// Transfer characteristic code of a transfer choice: 0 → 2 (linear), 3 → 6 (ITU-R 709-4),
// 4 → 1 (printing density), others → 0 (user defined).
std::uint8_t TransferCodeForChoice(int choice);

// Pixel aspect as the header's fraction: n = floor(aspect × 10000), d = 10000, divided by 10
// while n is a multiple of 10, then halved while both are even. False when the aspect cannot be
// written (not positive, not finite, too large); the fields are then left undefined.
bool AspectFraction(double aspect, std::uint32_t* horizontal, std::uint32_t* vertical);

DpxOutputPlan PlanDpxOutput(const DpxExportSettings& settings, const DpxWriteInfo& info,
                            VxPixelFormat format);

// Writes `image` (row 0 on top) as a DPX file. The file appears whole or not at all: it is
// written under a temporary name beside `path` and renamed over it at the end. The frame rate
// is the host's "Project Frame Rate" property when set, else info.frameRate. A LUT named by the
// settings is applied before packing; when it cannot be loaded or applied the user is told
// (caption "Error Message") and the frame is written without it.
// E_POINTER for a null path or image, E_INVALIDARG for an empty image, an unknown pixel format or
// a file too large for the format's 32-bit offsets, E_FAIL when the file cannot be written.
HRESULT WriteDpxFile(const VxChar* path, IVxImage* image, const DpxExportSettings& settings,
                     const DpxWriteInfo& info);

}  // namespace vx::dpx
