// vxhost info on a sound stream: its format as the host receives it, its length as a duration and
// as a time code at the host's rate, the Broadcast Wave fields and the "VXMD" chunk.
#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "host.h"

namespace vxhost {

HRESULT GetSoundStream(IVxMediaFileParser* parser, SoundStream* out) {
  BOOL has = FALSE;
  if (FAILED(parser->HasStream(VX_STREAM_SOUND, &has)) || !has) return S_FALSE;
  // Room for any extra bytes a 16-bit cbSize can announce.
  out->format.assign(sizeof(WAVEFORMATEX) + 0xFFFF, 0);
  VxAudioStreamFormat record{kVxAudioStreamFormatSize,
                             reinterpret_cast<WAVEFORMATEX*>(out->format.data())};
  if (HRESULT hr = parser->GetStreamFormat(VX_STREAM_SOUND, 0, &record); FAILED(hr)) return hr;
  std::memcpy(&out->wf, out->format.data(), sizeof out->wf);
  out->format.resize(sizeof(WAVEFORMATEX) + out->wf.cbSize);
  if (out->wf.nChannels == 0 || out->wf.nBlockAlign == 0 || out->wf.nSamplesPerSec == 0)
    return E_FAIL;
  if (HRESULT hr =
          parser->GetStream(VX_STREAM_SOUND, 0, IID_IVxAudioStreamParser, out->stream.put_void());
      FAILED(hr))
    return hr;
  LONG range[2] = {0, 0};
  if (HRESULT hr = out->stream->GetLength(range); FAILED(hr)) return hr;
  out->frames = static_cast<std::int64_t>(range[1]) - range[0];
  // A 32-bit length saturates; the time range carries an RF64 file's full count.
  CVxTime start, end;
  if (range[1] == 0x7FFFFFFF && parser->GetTimeRange(VX_STREAM_SOUND, &start, &end) == S_OK)
    out->frames = CVxTime(end.Ticks() - start.Ticks())
                      .ToFrame({static_cast<std::int32_t>(out->wf.nSamplesPerSec), 1});
  return S_OK;
}

namespace {

// SPEAKER_* bits of the extensible channel mask, from bit 0 up.
constexpr const char* kSpeakers[] = {"FL", "FR", "FC", "LFE", "BL",  "BR",  "FLC", "FRC", "BC",
                                     "SL", "SR", "TC", "TFL", "TFC", "TFR", "TBL", "TBC", "TBR"};

std::string ChannelMaskText(std::uint32_t mask) {
  char hex[16];
  std::snprintf(hex, sizeof hex, "0x%X", static_cast<unsigned>(mask));
  std::string names;
  for (unsigned bit = 0; bit < 32; ++bit) {
    if (!(mask >> bit & 1)) continue;
    names += names.empty() ? "" : " ";
    names += bit < std::size(kSpeakers) ? std::string(kSpeakers[bit]) : "bit" + std::to_string(bit);
  }
  return names.empty() ? hex : std::string(hex) + " (" + names + ")";
}

std::string FormatName(const SoundStream& s) {
  switch (s.wf.wFormatTag) {
    case WAVE_FORMAT_PCM:
      return "PCM";
    case WAVE_FORMAT_IEEE_FLOAT:
      return "IEEE float";
    case WAVE_FORMAT_EXTENSIBLE:
      if (s.format.size() >= 40) {
        const unsigned sub = s.format[24] | s.format[25] << 8;
        if (sub == WAVE_FORMAT_PCM) return "extensible PCM";
        if (sub == WAVE_FORMAT_IEEE_FLOAT) return "extensible float";
        return "extensible, sub-format " + std::to_string(sub);
      }
      return "extensible";
    default:
      return "format " + std::to_string(s.wf.wFormatTag);
  }
}

// `samples` at `rate` as H:MM:SS.mmm (milliseconds truncated); hours padded to `hourDigits`.
std::string ClockText(std::uint64_t samples, std::uint32_t rate, int hourDigits) {
  const std::uint64_t seconds = samples / rate;
  const std::uint64_t ms = samples % rate * 1000 / rate;
  char text[48];
  std::snprintf(text, sizeof text, "%0*" PRIu64 ":%02u:%02u.%03u", hourDigits, seconds / 3600,
                static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60),
                static_cast<unsigned>(ms));
  return text;
}

// Non-drop time code of `samples` at the host's frame rate; empty past 99 hours.
std::string TimeCodeAt(std::uint64_t samples, std::uint32_t sampleRate, const VxTimeFormat& fps) {
  if (samples > static_cast<std::uint64_t>(INT64_MAX) || sampleRate > INT32_MAX) return {};
  const std::int64_t frame =
      CVxTime(static_cast<std::int64_t>(samples), {static_cast<std::int32_t>(sampleRate), 1})
          .ToFrame(fps);
  // Non-drop counting runs at the nominal whole rate (30 for 29.97).
  const std::int64_t n = std::max<std::int64_t>(1, std::llround(fps.Rate()));
  const DWORD bcd =
      VxConstructLTCInBCD(static_cast<int>(std::min<std::int64_t>(frame / (n * 3600), 100)),
                          static_cast<int>(frame / (n * 60) % 60), static_cast<int>(frame / n % 60),
                          static_cast<int>(frame % n));
  return bcd == 0xFFFFFFFFu ? std::string() : TimeCodeText(bcd, false);
}

std::string RateText(double fps) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", fps);
  std::string t = text;
  while (t.back() == '0') t.pop_back();
  if (t.back() == '.') t.pop_back();
  return t + " fps non-drop";
}

// Bytes of a base64 text.
std::size_t Base64Bytes(const std::string& text) {
  std::size_t pad = 0;
  while (pad < 2 && pad < text.size() && text[text.size() - 1 - pad] == '=') ++pad;
  return text.size() / 4 * 3 - (text.size() % 4 == 0 ? pad : 0) + text.size() % 4 * 3 / 4;
}

// The Broadcast Wave record, the "VXMD" chunk and any other text the sound carries.
HRESULT AddMetadata(InfoContext& c, const SoundStream& s, const VxTimeFormat& fps, Json& out) {
  ComPtr<IVxParserSourceInfo> source;
  if (FAILED(c.parser->QueryInterface(IID_IVxParserSourceInfo, source.put_void())) || !source)
    return S_OK;
  ComPtr<IVxMetadata> md;
  if (HRESULT hr = VxCreateMetadata(md.put()); FAILED(hr)) return hr;
  if (HRESULT hr = source->GetMetadata(-1, md.get()); FAILED(hr)) return hr;
  const VxMetadataRecord r = vx::md::GetRecord(md.get());
  Json bwf = Json::object(), other = Json::object();
  // Names and dates are the Broadcast Wave record's only when the file has one (AIFF has them
  // as plain texts).
  Json& named = (r.present & VX_MD_TIMEREFERENCE) ? bwf : other;
  std::size_t vxmd = 0;
  bool hasVxmd = false;
  int count = 0;
  md->GetTextCount(&count);
  for (int i = 0; i < count; ++i) {
    VxChar *wkey = nullptr, *wvalue = nullptr;
    if (md->GetTextAt(i, &wkey, &wvalue) == S_OK) {
      const std::string key = vx::ToUtf8(wkey), value = vx::ToUtf8(wvalue);
      if (key == "vxmd:data") {
        hasVxmd = true;
        vxmd = Base64Bytes(value);
      } else if (key == vx::md::kDate) {
        // "YYYY-MM-DDTHH:MM:SS", as much as the file gave.
        const std::size_t t = value.find('T');
        named["date"] = CleanText(value.substr(0, t));
        if (t != std::string::npos) named["time"] = CleanText(value.substr(t + 1));
      } else if (key == vx::md::kDescription || key == vx::md::kOriginator) {
        named[key] = CleanText(value);
      } else if (key == vx::md::kOriginatorReference) {
        named["reference"] = CleanText(value);
      } else if (key.rfind("bext:", 0) == 0) {
        std::string name = key.substr(5);
        std::replace(name.begin(), name.end(), '-', ' ');
        bwf[CleanText(name)] = CleanText(value);
      } else {
        other[CleanText(key)] = CleanText(value);
      }
    }
    VxSysFreeString(wkey);
    VxSysFreeString(wvalue);
  }
  if (r.present & VX_MD_TIMEREFERENCE) {
    bwf["time reference"] = r.timeReference;
    bwf["time of day"] = ClockText(r.timeReference, s.wf.nSamplesPerSec, 2);
    if (std::string tc = TimeCodeAt(r.timeReference, s.wf.nSamplesPerSec, fps); !tc.empty())
      bwf["start time code"] = tc;
  }
  if (!bwf.empty()) out["broadcast wave"] = std::move(bwf);
  out["VXMD chunk"] = hasVxmd ? Json{{"present", true}, {"bytes", vxmd}} : Json{{"present", false}};
  if (!other.empty()) out["texts"] = std::move(other);
  return S_OK;
}

HRESULT SoundSection(InfoContext& c, Json& out) {
  SoundStream s;
  HRESULT hr = GetSoundStream(c.parser, &s);
  if (hr == S_FALSE) return S_OK;
  if (hr == E_NOTIMPL) {
    out["sound"] = "format not reported";
    return S_OK;
  }
  if (FAILED(hr)) return hr;
  const WAVEFORMATEX& wf = s.wf;
  Json j{{"format tag", wf.wFormatTag}, {"format", FormatName(s)}};
  VxChar name[256] = {};
  if (c.parser->GetCompressionName(name, 256) == S_OK && name[0]) {
    // The file's own coding, when the host receives it decoded.
    const std::string compression = vx::ToUtf8(name);
    if (compression != "PCM") j["compression"] = CleanText(compression);
  }
  j["channels"] = wf.nChannels;
  if (wf.wFormatTag == WAVE_FORMAT_EXTENSIBLE && s.format.size() >= 24) {
    j["channel mask"] = ChannelMaskText(s.format[20] | s.format[21] << 8 | s.format[22] << 16 |
                                        static_cast<std::uint32_t>(s.format[23]) << 24);
    j["valid bits"] = s.format[18] | s.format[19] << 8;
  }
  j["sample rate"] = wf.nSamplesPerSec;
  j["bits per sample"] = wf.wBitsPerSample;
  j["block align"] = wf.nBlockAlign;
  j["frames"] = s.frames;
  const auto frames = static_cast<std::uint64_t>(std::max<std::int64_t>(0, s.frames));
  j["duration"] = ClockText(frames, wf.nSamplesPerSec, 1);
  const VxTimeFormat fps = VxGetTimeFormatFromSampleRate(c.rate);
  if (fps.rateNum > 0) {
    if (std::string tc = TimeCodeAt(frames, wf.nSamplesPerSec, fps); !tc.empty())
      j["duration time code"] = tc;
    j["time code rate"] = RateText(fps.Rate());
  }
  if (hr = AddMetadata(c, s, fps, j); FAILED(hr) && hr != E_NOTIMPL) return hr;
  out["sound"] = std::move(j);
  return S_OK;
}

}  // namespace

VXHOST_INFO_SECTION(20, SoundSection);

}  // namespace vxhost
