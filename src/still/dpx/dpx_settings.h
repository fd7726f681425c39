// Import and export settings of the DPX parser, and the "name=value" option text that sets them
// (SetOption with VX_OPTION_TEXT, vxhost convert).
#pragma once

#include <cstdint>

#include "vx/com.h"
#include "vx/vxchar.h"

namespace vx::dpx {

// The layouts the export dialog offers. Keep (0) means "as the source was laid out".
enum class DpxLayout : int {
  Keep = 0,
  PackedRGBA,    // one element, descriptor 51
  PlanarRGBA,    // elements 1, 2, 3, 4
  PackedABGR,    // one element, descriptor 52
  RGBPlusAlpha,  // element 50, then element 4
  BGRPlusAlpha,  // element 53, then element 4
  PackedRGB,     // one element, descriptor 50
  PlanarRGB,     // elements 1, 2, 3
  PackedBGR,     // one element, descriptor 53
};

bool LayoutHasAlpha(DpxLayout layout);
// The dialog's label ("Packed RGBA", ...); "Keep source" for Keep.
const char* LayoutLabel(DpxLayout layout);
// The option value ("packed-rgba", ...); "keep" for Keep.
const char* LayoutOptionName(DpxLayout layout);

struct DpxExportSettings {
  int bitDepth = 0;  // 0 keeps the source's depth; else 8, 10, 12, 16 or 32 (float)
  DpxLayout layout = DpxLayout::Keep;
  int packing = -1;  // -1 keeps the source's packing (Packed when it has none); else 0, 1, 2
  // -1 takes the choice the write info carries; else the dialog's transfer choice:
  // 0 linear, 3 ITU-R 709-4, 4 printing density, anything else user defined.
  int transferChoice = -1;
  // A DPX transfer code named in words ("transfer=printing-density"); wins over the choice.
  int transferCode = -1;
  // Big-endian ("SDPX") is what most writers produce and every reader takes, so it is the
  // default; little-endian is there for tools that want native order on x86.
  bool bigEndian = true;
  VxString lutPath;  // 3D LUT applied before packing; empty for none
};

struct DpxImportSettings {
  VxString inputLutPath;  // LUT handed to the host's colour settings on import
};

// Applies one "name=value" option (spaces around either part ignored, names case-insensitive):
//   depth=keep|8|10|12|16|32   layout=keep|packed-rgba|planar-rgba|packed-abgr|rgb+alpha|
//   bgr+alpha|packed-rgb|planar-rgb|packed-bgr   packing=keep|packed|a|b|0|1|2
//   transfer=keep|N   endian=big|little   lut=PATH   input-lut=PATH
// S_OK when applied, S_FALSE for a name this parser does not have, E_INVALIDARG for a bad value
// or a text without '=', E_POINTER for a null text or a null settings object the name needs.
// Nothing is changed unless the result is S_OK.
HRESULT ApplyDpxOption(const VxChar* text, DpxExportSettings* exportSettings,
                       DpxImportSettings* importSettings);

}  // namespace vx::dpx
