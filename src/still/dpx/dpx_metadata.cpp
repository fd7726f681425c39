#include "still/dpx/dpx_metadata.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "base/bytes.h"
#include "still/dpx/dpx_format.h"
#include "vx/platform.h"

namespace vx::dpx {
namespace {

enum class Kind : std::uint8_t { Text, U32, F32, U16, U8 };

// One header field that travels as a text of the record. Numbers are written in decimal
// ("%.9g" for floats, enough to give the same f32 back).
struct Field {
  const char* key;
  std::uint32_t offset;
  Kind kind;
  std::uint32_t width;  // text fields
};

// DPX fields carried as they are. The creator, file name and creation time are the writer's own,
// and the input device travels through the writer's settings; they are handled apart.
constexpr Field kDpxFields[] = {
    {md::kProject, kOffProject, Kind::Text, kLenProject},
    {md::kCopyright, kOffCopyright, Kind::Text, kLenCopyright},
    {md::kDescription, kOffElements + kElDescription, Kind::Text, kLenElDescription},
    {"dpx:low-quantity", kOffElements + kElRefLowQuantity, Kind::F32, 0},
    {"dpx:high-quantity", kOffElements + kElRefHighQuantity, Kind::F32, 0},
    {"dpx:x-offset", kOffXOffset, Kind::U32, 0},
    {"dpx:y-offset", kOffYOffset, Kind::U32, 0},
    {"dpx:x-center", kOffXCenter, Kind::F32, 0},
    {"dpx:y-center", kOffYCenter, Kind::F32, 0},
    {"dpx:x-original-size", kOffXOriginalSize, Kind::U32, 0},
    {"dpx:y-original-size", kOffYOriginalSize, Kind::U32, 0},
    {"dpx:source-file-name", kOffSourceFileName, Kind::Text, kLenSourceFileName},
    {"dpx:source-time", kOffSourceTime, Kind::Text, kLenSourceTime},
    {"dpx:input-serial", kOffInputSerial, Kind::Text, kLenInputSerial},
    {"dpx:border-left", kOffBorder, Kind::U16, 0},
    {"dpx:border-right", kOffBorder + 2, Kind::U16, 0},
    {"dpx:border-top", kOffBorder + 4, Kind::U16, 0},
    {"dpx:border-bottom", kOffBorder + 6, Kind::U16, 0},
    {"dpx:x-scanned-size", kOffXScannedSize, Kind::F32, 0},
    {"dpx:y-scanned-size", kOffYScannedSize, Kind::F32, 0},
    {"dpx:film-format", kOffFilmFormat, Kind::Text, 32},
    {"dpx:frame-position", kOffFramePosition, Kind::U32, 0},
    {"dpx:sequence-length", kOffSequenceLength, Kind::U32, 0},
    {"dpx:held-count", kOffHeldCount, Kind::U32, 0},
    {"dpx:film-frame-rate", kOffFilmFrameRate, Kind::F32, 0},
    {"dpx:shutter-angle", kOffShutterAngle, Kind::F32, 0},
    {"dpx:frame-id", kOffFrameId, Kind::Text, 32},
    {"dpx:slate", kOffSlate, Kind::Text, 100},
    {"dpx:video-signal", kOffVideoStandard, Kind::U8, 0},
    {"dpx:horizontal-sampling-rate", kOffHSampling, Kind::F32, 0},
    {"dpx:time-offset", kOffTimeOffset, Kind::F32, 0},
    {"dpx:integration-time", kOffIntegrationTime, Kind::F32, 0},
};

// Cineon fields with the same meaning as a DPX one share its key, so Cineon → DPX keeps them.
constexpr std::uint32_t kCinOffFileName = 32, kCinOffDate = 132, kCinOffTime = 144;
constexpr std::uint32_t kCinOffWhite = 420, kCinOffLabel = 452;
constexpr std::uint32_t kCinOffFilmMfg = 1024;
constexpr Field kCineonFields[] = {
    {md::kDescription, kCinOffLabel, Kind::Text, 200},
    {"dpx:x-offset", 712, Kind::U32, 0},
    {"dpx:y-offset", 716, Kind::U32, 0},
    {"dpx:source-file-name", 720, Kind::Text, 100},
    {md::kInputDevice, 844, Kind::Text, 64},
    {"cineon:input-model", 908, Kind::Text, 32},
    {"dpx:input-serial", 940, Kind::Text, 32},
    {"cineon:x-pitch", 972, Kind::F32, 0},
    {"cineon:y-pitch", 976, Kind::F32, 0},
    {"cineon:gamma", 980, Kind::F32, 0},
    {"dpx:film-format", 1036, Kind::Text, 32},
    {"dpx:frame-position", 1068, Kind::U32, 0},
    {"dpx:frame-id", 1076, Kind::Text, 32},
    {"dpx:slate", 1108, Kind::Text, 200},
};

bool AllBitsSet(const std::uint8_t* p, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i)
    if (p[i] != 0xFF) return false;
  return true;
}

// A text field up to its first NUL, trailing blanks dropped; empty when unset.
std::string TextAt(const std::uint8_t* p, std::size_t width) {
  if (p[0] == 0xFF) return {};
  std::size_t n = 0;
  while (n < width && p[n] != 0) ++n;
  while (n > 0 && p[n - 1] == ' ') --n;
  return std::string(reinterpret_cast<const char*>(p), n);
}

std::string FloatText(float v) {
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", static_cast<double>(v));
  return text;
}

// The field's value as text; empty when the header leaves it undefined.
std::string ReadField(const Field& f, const std::uint8_t* h, bool big) {
  const std::uint8_t* p = h + f.offset;
  switch (f.kind) {
    case Kind::Text:
      return TextAt(p, f.width);
    case Kind::U8:
      return p[0] == kUndef8 ? std::string() : std::to_string(p[0]);
    case Kind::U16:
      return AllBitsSet(p, 2) ? std::string() : std::to_string(Load16(p, big));
    case Kind::U32:
      return AllBitsSet(p, 4) ? std::string() : std::to_string(Load32(p, big));
    case Kind::F32: {
      const float v = LoadFloat(p, big);
      return AllBitsSet(p, 4) || !std::isfinite(v) ? std::string() : FloatText(v);
    }
  }
  return {};
}

template <class T>
bool ParseNumber(std::string_view text, T* out) {
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, *out);
  return ec == std::errc() && ptr == end;
}

void WriteField(const Field& f, std::string_view value, std::uint8_t* h, bool big) {
  std::uint8_t* p = h + f.offset;
  switch (f.kind) {
    case Kind::Text:
      std::memset(p, 0, f.width);
      std::memcpy(p, value.data(), std::min<std::size_t>(value.size(), f.width));
      return;
    case Kind::U8: {
      unsigned v = 0;
      if (ParseNumber(value, &v) && v < 0xFF) p[0] = static_cast<std::uint8_t>(v);
      return;
    }
    case Kind::U16: {
      std::uint16_t v = 0;
      if (ParseNumber(value, &v) && v != kUndef16) Store16(p, v, big);
      return;
    }
    case Kind::U32: {
      std::uint32_t v = 0;
      if (ParseNumber(value, &v)) Store32(p, v, big);
      return;
    }
    case Kind::F32: {
      float v = 0;
      if (ParseNumber(value, &v) && std::isfinite(v)) StoreFloat(p, v, big);
      return;
    }
  }
}

void AddFields(const Field* fields, std::size_t count, const std::uint8_t* h, std::size_t size,
               bool big, IVxMetadata* md) {
  for (std::size_t i = 0; i < count; ++i) {
    const Field& f = fields[i];
    const std::uint32_t width = f.kind == Kind::Text  ? f.width
                                : f.kind == Kind::U8  ? 1
                                : f.kind == Kind::U16 ? 2
                                                      : 4;
    if (f.offset + width > size) continue;
    const std::string value = ReadField(f, h, big);
    if (!value.empty()) md::SetText(md, f.key, value);
  }
}

// "YYYY:MM:DD:HH:MM:SS..." (DPX and Cineon) and "YYYY-MM-DDTHH:MM:SS" (the record) hold the same
// digits at the same places; `sep` gives the other form's separators.
std::string Redate(std::string_view text, const char sep[5]) {
  if (text.size() < 19) return std::string(text);
  std::string out(text.substr(0, 19));
  const std::size_t at[] = {4, 7, 10, 13, 16};
  for (int i = 0; i < 5; ++i) {
    const char c = out[at[i]];
    if (c != ':' && c != '-' && c != 'T' && c != ' ') return std::string(text);
    out[at[i]] = sep[i];
  }
  return out;
}
constexpr char kRecordDate[5] = {'-', '-', 'T', ':', ':'};
constexpr char kDpxDate[5] = {':', ':', ':', ':', ':'};

// Well-known edge code text from the five film-header fields.
void AddEdgeCode(const std::string& mfg, const std::string& type, const std::string& perfs,
                 const std::string& prefix, const std::string& count, IVxMetadata* md) {
  if (type.empty()) return;
  EdgeCode edge;
  const std::string text = mfg + ' ' + type + ' ' + perfs + '-' + prefix + '+' + count;
  if (edge.InitFromString(text.c_str())) md::SetText(md, md::kEdgeCode, edge.ToString());
}

constexpr std::uint32_t kLevelOffsets[5] = {kOffGamma, kOffBlackLevel, kOffBlackGain,
                                            kOffBreakPoint, kOffWhiteLevel};

}  // namespace

bool DpxTransferCode(DWORD transfer, std::uint8_t* code) {
  // The record's transfer table is DPX's, one place up.
  if (transfer < VX_TRANSFER_USER || transfer > VX_TRANSFER_Z_HOMOGENEOUS) return false;
  *code = static_cast<std::uint8_t>(transfer - 1);
  return true;
}

namespace {
// DPX colorimetric codes by record value; 0xFF where DPX has none.
constexpr std::uint8_t kColorimetricToDpx[VX_COLORIMETRIC_COUNT] = {0xFF, 0, 1,  5,    6,    7,
                                                                    8,    9, 10, 0xFF, 0xFF, 0xFF};
}  // namespace

bool DpxColorimetricCode(DWORD colorimetric, std::uint8_t* code) {
  if (colorimetric >= VX_COLORIMETRIC_COUNT || kColorimetricToDpx[colorimetric] == 0xFF)
    return false;
  *code = kColorimetricToDpx[colorimetric];
  return true;
}

void AddDpxHeaderMetadata(const std::uint8_t* h, bool big, IVxMetadata* md) {
  AddFields(kDpxFields, std::size(kDpxFields), h, kHeaderSize, big, md);
  const std::string name = TextAt(h + kOffFileName, kLenFileName);
  if (!name.empty()) md::SetText(md, md::kFileName, name);
  const std::string creator = TextAt(h + kOffCreator, kLenCreator);
  if (!creator.empty()) md::SetText(md, md::kCreator, creator);
  const std::string date = TextAt(h + kOffCreationTime, kLenCreationTime);
  if (!date.empty()) md::SetText(md, md::kDate, Redate(date, kRecordDate));

  VxMetadataRecord r = md::GetRecord(md);
  for (DWORD code = 0; code < VX_COLORIMETRIC_COUNT; ++code) {
    std::uint8_t dpx = 0;
    if (DpxColorimetricCode(code, &dpx) && dpx == h[kOffElements + kElColorimetric]) {
      r.present |= VX_MD_COLORIMETRIC;
      r.colorimetric = code;
    }
  }
  // Levels only when the file gives some; the defaults of the others fill the gaps.
  bool anyLevel = false;
  for (std::uint32_t off : kLevelOffsets) anyLevel |= !AllBitsSet(h + off, 4);
  if (!anyLevel) r.present &= ~DWORD{VX_MD_LEVELS};
  md->SetRecord(&r);
}

void AddCineonHeaderMetadata(const std::uint8_t* h, std::size_t size, bool big, IVxMetadata* md) {
  AddFields(kCineonFields, std::size(kCineonFields), h, size, big, md);
  if (size < kCinOffFilmMfg + 12) return;
  const std::string name = TextAt(h + kCinOffFileName, 100);
  if (!name.empty()) md::SetText(md, md::kFileName, name);
  const std::string date = TextAt(h + kCinOffDate, 12), time = TextAt(h + kCinOffTime, 12);
  if (!date.empty())
    md::SetText(md, md::kDate, Redate(time.empty() ? date : date + ':' + time, kRecordDate));
  const std::string sourceDate = TextAt(h + 820, 12), sourceTime = TextAt(h + 832, 12);
  if (!sourceDate.empty())
    md::SetText(md, "dpx:source-time",
                sourceTime.empty() ? sourceDate : sourceDate + ':' + sourceTime);

  // Log-coded Cineon is a film scan in printing density, which is what DPX calls it.
  VxMetadataRecord r = md::GetRecord(md);
  if ((r.present & VX_MD_TRANSFER) && r.transfer == VX_TRANSFER_LOG) {
    r.transfer = VX_TRANSFER_PRINTING_DENSITY;
    r.present |= VX_MD_COLORIMETRIC;
    r.colorimetric = VX_COLORIMETRIC_PRINTING_DENSITY;
  }
  // White, red, green, blue in the file; red, green, blue, white in the record.
  double xy[8];
  bool all = true;
  for (int i = 0; i < 8; ++i) {
    const std::uint8_t* p = h + kCinOffWhite + 4 * i;
    const float v = LoadFloat(p, big);
    all &= !AllBitsSet(p, 4) && std::isfinite(v) && v > 0.0f && v < 1.0f;
    xy[(i + 6) % 8] = v;
  }
  if (all) {
    r.present |= VX_MD_CHROMATICITIES;
    std::memcpy(r.chromaticities, xy, sizeof xy);
  }
  md->SetRecord(&r);

  const std::uint8_t* film = h + kCinOffFilmMfg;
  auto byte = [](std::uint8_t v) { return v == kUndef8 ? std::string() : std::to_string(v); };
  auto word = [&](const std::uint8_t* p) {
    return AllBitsSet(p, 4) ? std::string() : std::to_string(Load32(p, big));
  };
  AddEdgeCode(byte(film[0]), byte(film[1]), byte(film[2]), word(film + 4), word(film + 8), md);
}

HRESULT AddFileHeaderMetadata(const VxChar* path, bool isDpx, IVxMetadata* md) {
  os::UniqueFile file(os::OpenRead(path));
  if (!file) return E_FAIL;
  std::uint8_t h[kHeaderSize];
  std::uint32_t got = 0;
  if (!os::ReadAt(file.get(), 0, h, kHeaderSize, &got) || got < 4) return S_FALSE;
  if (!md::HasText(md, md::kFileName)) {
    std::string name = ToUtf8(path);
    const std::size_t slash = name.find_last_of("/\\");
    if (slash != std::string::npos) name.erase(0, slash + 1);
    md::SetText(md, md::kFileName, name);
  }
  if (isDpx) {
    if (got < kHeaderSize) return S_FALSE;
    AddDpxHeaderMetadata(h, std::memcmp(h, kMagicBig, 4) == 0, md);
    return S_OK;
  }
  const bool big = LoadLE32(h) != kCineonMagic;
  AddCineonHeaderMetadata(h, got, big, md);
  return S_OK;
}

void ApplyDpxMetadata(IVxMetadata* md, std::uint8_t* h, bool big, std::uint32_t elementCount) {
  if (!md) return;
  for (const Field& f : kDpxFields) {
    const std::string value = md::GetText(md, f.key);
    if (!value.empty()) WriteField(f, value, h, big);
  }
  // What the picture was made from: the source's own lineage when it has one, else the source.
  const Field sourceName{"", kOffSourceFileName, Kind::Text, kLenSourceFileName};
  const Field sourceTime{"", kOffSourceTime, Kind::Text, kLenSourceTime};
  if (!md::HasText(md, "dpx:source-file-name") && md::HasText(md, md::kFileName))
    WriteField(sourceName, md::GetText(md, md::kFileName), h, big);
  if (!md::HasText(md, "dpx:source-time") && md::HasText(md, md::kDate))
    WriteField(sourceTime, Redate(md::GetText(md, md::kDate), kDpxDate), h, big);
  // Quantities describe every element alike.
  for (std::uint32_t i = 1; i < elementCount && i < kMaxElements; ++i) {
    std::memcpy(h + ElementOffset(i) + kElRefLowQuantity, h + kOffElements + kElRefLowQuantity, 4);
    std::memcpy(h + ElementOffset(i) + kElRefHighQuantity, h + kOffElements + kElRefHighQuantity,
                4);
  }

  EdgeCode edge;
  if (edge.InitFromString(md::GetText(md, md::kEdgeCode).c_str())) {
    const std::pair<const std::string*, std::uint32_t> parts[] = {
        {&edge.manufacturer, kOffFilmMfgId},
        {&edge.filmType, kOffFilmType},
        {&edge.perfOffset, kOffFilmPerfOffset},
        {&edge.prefix, kOffFilmPrefix},
        {&edge.count, kOffFilmCount}};
    const std::uint32_t widths[] = {2, 2, 2, 6, 4};
    for (int i = 0; i < 5; ++i)
      WriteField({"", parts[i].second, Kind::Text, widths[i]}, *parts[i].first, h, big);
  }

  const VxMetadataRecord r = md::GetRecord(md);
  if (r.present & VX_MD_USERBITS) Store32(h + kOffUserBits, r.userBits, big);
  if (r.present & VX_MD_LEVELS) {
    const double values[5] = {r.levels.gamma, r.levels.blackLevel, r.levels.blackGain,
                              r.levels.breakPoint, r.levels.whiteLevel};
    for (int i = 0; i < 5; ++i)
      if (std::isfinite(values[i]))
        StoreFloat(h + kLevelOffsets[i], static_cast<float>(values[i]), big);
  }
}

}  // namespace vx::dpx
