// vxhost info for movies: every track the parser offers, through the media-file interface
// alone, so any movie parser (the QuickTime one and those after it) is described alike.
#include <cstdio>

#include "host.h"

namespace vxhost {
namespace {

HRESULT MovieSection(InfoContext& c, Json& out) {
  if (c.entry.mediaKind != 3) return S_OK;
  Json tracks = Json::array();
  VxChar codec[64] = {};
  if (c.parser->GetCompressionName(codec, 64) != S_OK) codec[0] = 0;
  for (DWORD i = 0; i < 64; ++i) {
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    if (c.parser->GetStreamFormat(VX_STREAM_PICTURE, i, &f) != S_OK) break;
    Json t{{"kind", "video"},
           {"index", i},
           {"size", std::to_string(f.width) + "x" + std::to_string(f.height)},
           {"frame rate", f.frameRate},
           {"frames", f.frameCount},
           {"alpha", f.hasAlpha != 0}};
    // The parser names the compression of its first picture track.
    if (i == 0 && codec[0]) t["codec"] = CleanText(vx::ToUtf8(codec));
    tracks.push_back(std::move(t));
  }
  ComPtr<IVxParserSourceInfo> info;
  DWORD bcd = 0;
  if (!tracks.empty() &&
      SUCCEEDED(c.parser->QueryInterface(IID_IVxParserSourceInfo, info.put_void())) &&
      info->GetTimeCode(0, &bcd) == S_OK && bcd != 0xFFFFFFFFu) {
    // The drop-frame flag is not in the code itself but in the metadata record.
    ComPtr<IVxMetadata> md;
    bool drop = false;
    if (SUCCEEDED(VxCreateMetadata(md.put())) && SUCCEEDED(info->GetMetadata(-1, md.get())))
      drop = vx::md::GetRecord(md.get()).dropFrame != 0;
    tracks[0]["time code"] = TimeCodeText(bcd, drop);
  }
  for (DWORD i = 0; i < 64; ++i) {
    alignas(8) BYTE buffer[64] = {};
    auto* wf = reinterpret_cast<WAVEFORMATEX*>(buffer);
    wf->cbSize = 22;
    VxAudioStreamFormat rec{kVxAudioStreamFormatSize, wf};
    if (c.parser->GetStreamFormat(VX_STREAM_SOUND, i, &rec) != S_OK) break;
    Json t{{"kind", "audio"},
           {"index", i},
           {"sample rate", wf->nSamplesPerSec},
           {"channels", wf->nChannels},
           {"bits", wf->wBitsPerSample}};
    ComPtr<IVxAudioStreamParser> sound;
    LONG range[2] = {0, 0};
    if (SUCCEEDED(
            c.parser->GetStream(VX_STREAM_SOUND, i, IID_IVxAudioStreamParser, sound.put_void())) &&
        sound->GetLength(range) == S_OK)
      t["samples"] = range[1] - range[0];
    tracks.push_back(std::move(t));
  }
  if (!tracks.empty()) out["tracks"] = std::move(tracks);
  return S_OK;
}

}  // namespace

VXHOST_INFO_SECTION(5, MovieSection);

}  // namespace vxhost
