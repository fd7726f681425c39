// vxhost info: what parsers say beyond the stream formats: the metadata record of the first
// frame (time code, edge code, colour, levels, names) and colour levels.
#include <cstdio>

#include "host.h"

namespace vxhost {

std::string TimeCodeText(DWORD bcd, bool dropFrame) {
  int h, m, s, f;
  if (!VxParseLTCInBCD(bcd, &h, &m, &s, &f)) return "invalid";
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d%c%02d", h, m, s, dropFrame ? ';' : ':', f);
  return text;
}

namespace {

std::string RateText(const VxTimeFormat& r) {
  if (r.rateDen == 1) return std::to_string(r.rateNum);
  char text[48];
  std::snprintf(text, sizeof text, "%d/%d (%.3f)", r.rateNum, r.rateDen, r.Rate());
  return text;
}

Json MetadataJson(IVxMetadata* md) {
  const VxMetadataRecord r = vx::md::GetRecord(md);
  Json s = Json::object();
  if (r.present & VX_MD_TIMECODE) {
    s["time code"] = TimeCodeText(r.timeCode, r.dropFrame != 0);
    if (r.timeCodeRate.rateNum > 0) s["time code rate"] = RateText(r.timeCodeRate);
  }
  if (r.present & VX_MD_USERBITS) {
    char text[16];
    std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(r.userBits));
    s["user bits"] = text;
  }
  if (r.present & VX_MD_FRAMERATE) s["frame rate"] = RateText(r.frameRate);
  if (r.present & VX_MD_ASPECT) s["pixel aspect"] = r.pixelAspect;
  if (r.present & VX_MD_TRANSFER) {
    const char* name = VxTransferName(r.transfer);
    s["transfer"] = name ? name : std::to_string(r.transfer);
  }
  if (r.present & VX_MD_COLORIMETRIC) {
    const char* name = VxColorimetricName(r.colorimetric);
    s["colorimetric"] = name ? name : std::to_string(r.colorimetric);
  }
  if (r.present & VX_MD_LEVELS) {
    s["levels"] = Json{{"gamma", r.levels.gamma},
                       {"black level", r.levels.blackLevel},
                       {"black gain", r.levels.blackGain},
                       {"break point", r.levels.breakPoint},
                       {"white level", r.levels.whiteLevel}};
  }
  if (r.present & VX_MD_CHROMATICITIES) {
    const double* c = r.chromaticities;
    s["chromaticities"] = Json{{"red", {c[0], c[1]}},
                               {"green", {c[2], c[3]}},
                               {"blue", {c[4], c[5]}},
                               {"white", {c[6], c[7]}}};
  }
  if (r.present & VX_MD_TIMEREFERENCE) s["time reference"] = r.timeReference;
  int count = 0;
  md->GetTextCount(&count);
  for (int i = 0; i < count; ++i) {
    VxChar *key = nullptr, *value = nullptr;
    if (md->GetTextAt(i, &key, &value) == S_OK)
      s[CleanText(vx::ToUtf8(key))] = CleanText(vx::ToUtf8(value));
    VxSysFreeString(key);
    VxSysFreeString(value);
  }
  return s;
}

// Parsers that predate the record answer the one-field queries only.
Json OneFieldJson(IVxParserSourceInfo* source) {
  Json s = Json::object();
  DWORD bcd = 0;
  if (source->GetTimeCode(0, &bcd) == S_OK) s["time code"] = TimeCodeText(bcd, false);
  EdgeCode edge;
  if (source->GetEdgeCode(0, &edge) == S_OK && edge.IsValid())
    s["edge code"] = CleanText(edge.ToString());
  double fps = 0;
  if (source->GetFrameRate(&fps) == S_OK) s["frame rate"] = fps;
  VxChar device[256] = {};
  if (source->GetInputDevice(device, 256) == S_OK && device[0])
    s["input device"] = CleanText(vx::ToUtf8(device));
  return s;
}

HRESULT Source(InfoContext& c, Json& out) {
  // A sound file's record is the sound section's to describe.
  if (out.contains("sound") && out["sound"].is_object() && !out.contains("picture")) return S_OK;
  ComPtr<IVxParserSourceInfo> source;
  if (FAILED(c.parser->QueryInterface(IID_IVxParserSourceInfo, source.put_void())) || !source)
    return S_OK;
  ComPtr<IVxMetadata> md;
  if (HRESULT hr = VxCreateMetadata(md.put()); FAILED(hr)) return hr;
  Json s;
  HRESULT hr = source->GetMetadata(0, md.get());
  if (hr == E_NOTIMPL) {
    s = OneFieldJson(source.get());
  } else if (FAILED(hr)) {
    return hr;
  } else {
    s = MetadataJson(md.get());
  }
  if (!s.empty()) out["source"] = std::move(s);
  return S_OK;
}

HRESULT Levels(InfoContext& c, Json& out) {
  ComPtr<IVxColorManagedParser> color;
  if (FAILED(c.parser->QueryInterface(IID_IVxColorManagedParser, color.put_void())) || !color)
    return S_OK;
  Json l = Json::object();
  DWORD depth = 0;
  if (color->GetBitDepth(&depth) == S_OK) l["bit depth"] = depth;
  if (!out.contains("source") || !out["source"].contains("levels")) {
    VxLevelSet levels{};
    if (color->GetLevels(&levels) == S_OK) {
      l["gamma"] = levels.gamma;
      l["black level"] = levels.blackLevel;
      l["black gain"] = levels.blackGain;
      l["break point"] = levels.breakPoint;
      l["white level"] = levels.whiteLevel;
    }
  }
  if (!l.empty()) out["colour"] = std::move(l);
  return S_OK;
}

}  // namespace

VXHOST_INFO_SECTION(40, Source);
VXHOST_INFO_SECTION(50, Levels);

}  // namespace vxhost
