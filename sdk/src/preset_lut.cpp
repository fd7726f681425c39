// The host's preset 1D transfer curves: linear and the sRGB display curve.
#include <cmath>
#include <cstddef>

#include "vx/sdk.h"

namespace {

// Ids are the preset numbers themselves; only the presets below exist.
bool Known(DWORD id) {
  return id == VX_PRESET_LUT_LINEAR || id == VX_PRESET_LUT_DISPLAY;
}

// sRGB encode and decode on |v|, the sign carried over, so values outside [0, 1] (over-range
// whites, negative lobes of a wide-gamut conversion) go through the curve's natural extension.
float SrgbEncode(float v) {
  const float a = std::fabs(v);
  const float e = a <= 0.0031308f ? a * 12.92f : 1.055f * std::pow(a, 1.0f / 2.4f) - 0.055f;
  return v < 0.0f ? -e : e;
}

float SrgbDecode(float v) {
  const float a = std::fabs(v);
  const float d = a <= 0.04045f ? a / 12.92f : std::pow((a + 0.055f) / 1.055f, 2.4f);
  return v < 0.0f ? -d : d;
}

HRESULT Apply(DWORD id, float* pixels, std::size_t count, int channels, float (*curve)(float)) {
  if (!Known(id) || (channels != 3 && channels != 4)) return E_INVALIDARG;
  if (!pixels) return count ? E_POINTER : S_OK;
  if (id == VX_PRESET_LUT_LINEAR) return S_OK;
  for (std::size_t i = 0; i < count; ++i) {
    float* p = pixels + i * static_cast<std::size_t>(channels);
    p[0] = curve(p[0]);
    p[1] = curve(p[1]);
    p[2] = curve(p[2]);
  }
  return S_OK;
}

}  // namespace

HRESULT VxGetPresetLUTId(DWORD preset, DWORD* id) {
  if (!id) return E_POINTER;
  if (!Known(preset)) return E_INVALIDARG;
  *id = preset;
  return S_OK;
}

HRESULT VxLUTHelperApplyForward1DLut(DWORD id, float* pixels, std::size_t count, int channels) {
  return Apply(id, pixels, count, channels, SrgbEncode);
}

HRESULT VxLUTHelperApplyReverse1DLut(DWORD id, float* pixels, std::size_t count, int channels) {
  return Apply(id, pixels, count, channels, SrgbDecode);
}
