// vxhost info: what parsers offer beyond the media-file interface, when they offer it: per-frame
// source information (time code, edge code) and colour levels.
#include <cstdio>

#include "host.h"

namespace vxhost {
namespace {

HRESULT Source(InfoContext& c, Json& out) {
  ComPtr<IVxParserSourceInfo> source;
  if (FAILED(c.parser->QueryInterface(IID_IVxParserSourceInfo, source.put_void())) || !source) {
    return S_OK;
  }
  Json s = Json::object();
  DWORD bcd = 0;
  int h, m, sec, f;
  if (source->GetTimeCode(0, &bcd) == S_OK && VxParseLTCInBCD(bcd, &h, &m, &sec, &f)) {
    char text[16];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d:%02d", h, m, sec, f);
    s["time code"] = text;
  }
  DWORD bits = 0;
  if (source->GetUserBits(0, &bits) == S_OK) {
    char text[16];
    std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(bits));
    s["user bits"] = text;
  }
  EdgeCode edge;
  if (source->GetEdgeCode(0, &edge) == S_OK && edge.IsValid()) s["edge code"] = edge.ToString();
  double fps = 0;
  if (source->GetFrameRate(&fps) == S_OK) s["frame rate"] = fps;
  VxChar device[256] = {};
  if (source->GetInputDevice(device, 256) == S_OK && device[0]) {
    s["input device"] = vx::ToUtf8(device);
  }
  if (!s.empty()) out["source"] = std::move(s);
  return S_OK;
}

HRESULT Levels(InfoContext& c, Json& out) {
  ComPtr<IVxColorManagedParser> color;
  if (FAILED(c.parser->QueryInterface(IID_IVxColorManagedParser, color.put_void())) || !color) {
    return S_OK;
  }
  Json l = Json::object();
  DWORD code = 0;
  if (color->GetTransferCharacteristic(&code) == S_OK) l["transfer"] = code;
  DWORD depth = 0;
  if (color->GetBitDepth(&depth) == S_OK) l["bit depth"] = depth;
  VxLevelSet levels{};
  if (color->GetLevels(&levels) == S_OK) {
    l["gamma"] = levels.gamma;
    l["black level"] = levels.blackLevel;
    l["black gain"] = levels.blackGain;
    l["break point"] = levels.breakPoint;
    l["white level"] = levels.whiteLevel;
  }
  if (!l.empty()) out["levels"] = std::move(l);
  return S_OK;
}

}  // namespace

VXHOST_INFO_SECTION(40, Source);
VXHOST_INFO_SECTION(50, Levels);

}  // namespace vxhost
