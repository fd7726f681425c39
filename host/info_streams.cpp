// vxhost info: what every parser answers through the media-file interface: the picture format,
// frame count, time range, compression. Sound has its own section (info_sound.cpp).
#include "host.h"

namespace vxhost {
namespace {

const char* FieldModeName(std::int32_t mode) {
  switch (mode) {
    case VX_FIELD_LOWER_FIRST:
      return "lower field first";
    case VX_FIELD_UPPER_FIRST:
      return "upper field first";
    case VX_FIELD_PROGRESSIVE:
      return "progressive";
    default:
      return "unknown";
  }
}

Json TimeRange(IVxMediaFileParser* parser, DWORD kind) {
  CVxTime start, end;
  HRESULT hr = parser->GetTimeRange(kind, &start, &end);
  if (hr != S_OK) return nullptr;
  return Json{{"start", start.Seconds()},
              {"end", end.Seconds()},
              {"length in ticks", end.Ticks() - start.Ticks()}};
}

HRESULT PictureSection(InfoContext& c, Json& out) {
  BOOL has = FALSE;
  if (FAILED(c.parser->HasStream(VX_STREAM_PICTURE, &has)) || !has) return S_OK;
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  HRESULT hr = c.parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &f);
  if (hr == E_NOTIMPL) {
    out["picture"] = "format not reported";
    return S_OK;
  }
  if (FAILED(hr)) return hr;
  Json p{{"size", std::to_string(f.width) + "x" + std::to_string(f.height)},
         {"frames", f.frameCount},
         {"channels", f.channels},
         {"bits per pixel", f.bitsPerPixel},
         {"alpha", f.hasAlpha != 0},
         {"pixel format", VxPixelFormatName(static_cast<VxPixelFormat>(f.pixelFormat))}};
  p["frame rate"] = f.frameRate > 0 ? Json(f.frameRate) : Json("unknown");
  p["pixel aspect"] = f.pixelAspect > 0 ? Json(f.pixelAspect) : Json("unknown");
  p["field mode"] = FieldModeName(f.fieldMode);
  if (Json range = TimeRange(c.parser, VX_STREAM_PICTURE); !range.is_null()) {
    p["time range"] = range;
  }
  DWORD caps = 0;
  if (c.parser->GetStreamCapabilities(0, VX_STREAM_PICTURE, &caps) == S_OK) {
    p["capabilities"] = caps;
  }
  out["picture"] = std::move(p);
  return S_OK;
}

HRESULT Compression(InfoContext& c, Json& out) {
  if (out.contains("sound")) return S_OK;  // the sound section names it beside the format
  VxChar name[256] = {};
  if (c.parser->GetCompressionName(name, 256) == S_OK && name[0]) {
    out["compression"] = vx::ToUtf8(name);
  }
  return S_OK;
}

}  // namespace

VXHOST_INFO_SECTION(10, PictureSection);
VXHOST_INFO_SECTION(30, Compression);

}  // namespace vxhost
