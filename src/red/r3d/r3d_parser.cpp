#include "red/r3d/r3d_parser.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "base/bytes.h"
#include "base/guard.h"
#include "base/module.h"
#include "red/r3d/red_request.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/platform.h"

namespace vx::red {

namespace {

// The request carries the path to decoder processes that run in their own folder.
VxString AbsolutePath(const VxChar* name) {
  std::error_code ec;
#ifdef _WIN32
  const std::filesystem::path full = std::filesystem::absolute(std::filesystem::path(name), ec);
  return ec ? VxString(name) : VxString(full.wstring());
#else
  const std::filesystem::path full =
      std::filesystem::absolute(std::filesystem::path(ToUtf8(name)), ec);
  return ec ? VxString(name) : FromUtf8(full.string());
#endif
}

// The helper's class id, as the module registers it.
constexpr GUID kRedHelperClsid = {
    0x0D0A65E9, 0xF572, 0x45F5, {0x8F, 0x43, 0xD1, 0x42, 0x03, 0xA2, 0x92, 0xA8}};

std::mutex gHelperMutex;
IVxRedProcessHelper* gHelper = nullptr;     // one reference held
CVxRedProcessHelper* gOwnHelper = nullptr;  // when gHelper is this module's own

struct MetadataField {
  const char* key;
  int field;
};
constexpr MetadataField kClipLook[] = {
    {"brightness", RedLook::kBrightness},     {"contrast", RedLook::kContrast},
    {"digital_gain_blue", RedLook::kBlue},    {"digital_gain_green", RedLook::kGreen},
    {"digital_gain_red", RedLook::kRed},      {"exposure_compensation", RedLook::kExposure},
    {"saturation", RedLook::kSaturation},     {"white_balance_kelvin", RedLook::kKelvin},
    {"white_balance_tint", RedLook::kTint},   {"user_curve_black_x", RedLook::kBlackX},
    {"user_curve_black_y", RedLook::kBlackY}, {"user_curve_low_x", RedLook::kToeX},
    {"user_curve_low_y", RedLook::kToeY},     {"user_curve_mid_x", RedLook::kMidX},
    {"user_curve_mid_y", RedLook::kMidY},     {"user_curve_high_x", RedLook::kKneeX},
    {"user_curve_high_y", RedLook::kKneeY},   {"user_curve_white_x", RedLook::kWhiteX},
    {"user_curve_white_y", RedLook::kWhiteY},
};

// The sidecar keys, for the look settings given as options.
constexpr MetadataField kOptionLook[] = {
    {"kelvin", RedLook::kKelvin},
    {"tint", RedLook::kTint},
    {"exposure", RedLook::kExposure},
    {"red", RedLook::kRed},
    {"green", RedLook::kGreen},
    {"blue", RedLook::kBlue},
    {"saturation", RedLook::kSaturation},
    {"contrast", RedLook::kContrast},
    {"brightness", RedLook::kBrightness},
    {"DRX", RedLook::kDrx},
    {"blackX", RedLook::kBlackX},
    {"blackY", RedLook::kBlackY},
    {"toeX", RedLook::kToeX},
    {"toeY", RedLook::kToeY},
    {"midX", RedLook::kMidX},
    {"midY", RedLook::kMidY},
    {"kneeX", RedLook::kKneeX},
    {"kneeY", RedLook::kKneeY},
    {"whiteX", RedLook::kWhiteX},
    {"whiteY", RedLook::kWhiteY},
};

bool ParseDouble(const std::string& text, double* v) {
  if (text.empty()) return false;
  char* end = nullptr;
  *v = std::strtod(text.c_str(), &end);
  return end && *end == '\0';
}
bool ParseInt(const std::string& text, std::int32_t* v) {
  if (text.empty()) return false;
  char* end = nullptr;
  const long n = std::strtol(text.c_str(), &end, 10);
  if (!end || *end != '\0' || n < INT32_MIN || n > INT32_MAX) return false;
  *v = static_cast<std::int32_t>(n);
  return true;
}

// "hh:mm:ss:ff" (or ';' before the frames) as SMPTE BCD; false for anything else.
bool TimeCodeBcd(const std::string& text, DWORD* bcd, bool* drop) {
  unsigned h, m, s, f;
  char sep;
  if (std::sscanf(text.c_str(), "%2u:%2u:%2u%c%2u", &h, &m, &s, &sep, &f) != 5) return false;
  if ((sep != ':' && sep != ';') || h > 23 || m > 59 || s > 59 || f > 99) return false;
  *bcd = (h / 10) << 28 | (h % 10) << 24 | (m / 10) << 20 | (m % 10) << 16 | (s / 10) << 12 |
         (s % 10) << 8 | (f / 10) << 4 | (f % 10);
  *drop = sep == ';';
  return true;
}

const struct {
  const char* name;
  std::uint32_t mode;
} kModes[] = {{"full", kDecodeFullPremium},  {"half-premium", kDecodeHalfPremium},
              {"half", kDecodeHalfGood},     {"quarter", kDecodeQuarterGood},
              {"eighth", kDecodeEighthGood}, {"sixteenth", kDecodeSixteenthGood}};

}  // namespace

IVxRedProcessHelper* SharedRedHelper() {
  std::lock_guard<std::mutex> lock(gHelperMutex);
  if (gHelper) return gHelper;
  ComPtr<IVxGeneric> generic;
  if (SUCCEEDED(VxQueryGenericObject(kRedHelperClsid, generic.put())) && generic) {
    void* p = nullptr;
    if (SUCCEEDED(generic->QueryInterface(IID_IVxRedProcessHelper, &p)) && p) {
      gHelper = static_cast<IVxRedProcessHelper*>(p);
      return gHelper;
    }
  }
  auto* own = new CVxRedProcessHelper();
  if (FAILED(own->Start())) {
    own->Release();
    return nullptr;
  }
  gOwnHelper = own;
  gHelper = own;
  return gHelper;
}

void ReleaseOwnRedHelper() {
  std::lock_guard<std::mutex> lock(gHelperMutex);
  if (!gOwnHelper) return;
  gOwnHelper->Stop();
  gOwnHelper->Release();
  gOwnHelper = nullptr;
  gHelper = nullptr;
}

std::int32_t LoadLookFromClip(const RedClip& clip, RedLook* look) {
  std::string text;
  for (const MetadataField& m : kClipLook) {
    double v;
    if (clip.Metadata(m.key, &text) && ParseDouble(text, &v))
      look->field[static_cast<std::size_t>(m.field)] = static_cast<float>(v);
  }
  std::int32_t iso;
  if (clip.Metadata("iso", &text) && ParseInt(text, &iso)) look->SetIso(iso);
  std::int32_t preference = 0;
  if (clip.Metadata("user_timecode_preference", &text)) ParseInt(text, &preference);
  return preference;
}

bool FillRequest(const R3DSettings& s, const VxString& clipPath, std::int32_t frame,
                 std::uint8_t* r) {
  std::memset(r, 0, kRequestBytes);
  SetReqU32(r, kReqDecodeMode, s.decodeMode);
  if (!SetRequestClipPath(r, clipPath)) return false;
  SetReqU32(r, kReqFrame, static_cast<std::uint32_t>(frame));
  for (int i = 1; i < 24; ++i) {
    std::memcpy(r + kReqLook + 4 * (static_cast<std::size_t>(i) - 1), &s.look.field[i], 4);
  }
  std::uint32_t black;
  std::memcpy(&black, &s.blackLevel, 4);
  SetReqU32(r, kReqBlackLevel, black);
  SetReqU32(r, kReqPixels, static_cast<std::uint32_t>(s.pixels));
  r[kReqPrefetch] = s.prefetch ? 1 : 0;
  return true;
}

VxString FindSidecar(const VxString& clipPath) {
  const std::size_t dot = clipPath.rfind(VXT('.'));
  const std::size_t slash = clipPath.find_last_of(VXT("/\\"));
  if (dot == VxString::npos || (slash != VxString::npos && dot < slash)) return {};
  std::vector<VxString> stems = {clipPath.substr(0, dot)};
  // A spanned clip's settings are named after the clip, without the part number.
  if (dot >= 4 && clipPath[dot - 4] == VXT('_')) stems.push_back(clipPath.substr(0, dot - 4));
  for (const VxString& stem : stems) {
    for (const VxChar* ext :
         {VXT(".RLX"), VXT(".rlx"), VXT(".RSX"), VXT(".rsx"), VXT(".RMD"), VXT(".rmd")}) {
      VxString candidate = stem + ext;
      if (os::IsFile(candidate.c_str())) return candidate;
    }
  }
  return {};
}

CVxMediaFileParserR3D::CVxMediaFileParserR3D() {
  module::AddObject();
}

CVxMediaFileParserR3D::~CVxMediaFileParserR3D() {
  module::RemoveObject();
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IVxMediaFileParser) {
    *ppv = static_cast<IVxMediaFileParser*>(this);
  } else if (riid == IID_IVxImageStreamParser) {
    *ppv = static_cast<IVxImageStreamParser*>(this);
  } else if (riid == IID_IVxParserSourceInfo) {
    *ppv = static_cast<IVxParserSourceInfo*>(this);
  } else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG STDMETHODCALLTYPE CVxMediaFileParserR3D::AddRef() {
  return static_cast<ULONG>(++refs_);
}

ULONG STDMETHODCALLTYPE CVxMediaFileParserR3D::Release() {
  const std::int32_t n = --refs_;
  if (n == 0) delete this;
  return static_cast<ULONG>(n);
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::OpenEx(const VxChar* name, DWORD flags, DWORD) {
  return Open(name, flags);
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::OpenFileList(IVxFileList* list, DWORD flags) {
  if (!list) return E_POINTER;
  return Guarded([&]() -> HRESULT {
    VxChar* name = nullptr;
    if (HRESULT hr = list->GetFileName(0, &name); FAILED(hr)) return hr;
    const VxString copy = name ? VxString(name) : VxString();
    VxSysFreeString(name);
    return Open(copy.c_str(), flags);
  });
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::Open(const VxChar* name, DWORD flags) {
  if (!name) return E_POINTER;
  return Guarded([&]() -> HRESULT {
    if (flags & VX_OPEN_WRITE) return E_NOTIMPL;
#if !defined(VX_HAVE_OPENJP2)
    return E_NOTIMPL;  // this build has no frame decoder
#endif
    Close();
    std::unique_ptr<RedClip> clip = DefaultRedLibrary().OpenClip(name);
    if (!clip) return E_FAIL;
    // The clip's look first; a settings file beside it has the last word.
    R3DSettings s = settings_;
    s.look = RedLook{};
    s.blackLevel = 0;
    s.timeCodePreference = LoadLookFromClip(*clip, &s.look);
    settings_ = s;
    path_ = AbsolutePath(name);
    clip_ = std::move(clip);
    sidecar_ = FindSidecar(path_);
    sidecarRead_ = !sidecar_.empty() && LoadSidecar(sidecar_);
    return S_OK;
  });
}

bool CVxMediaFileParserR3D::LoadSidecar(const VxString& path) {
  auto prsr = RedSettingsPrsr::ForPath(path.c_str());
  return prsr && prsr->Read(path.c_str(), &settings_.look, &settings_.blackLevel);
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::Close() {
  return Guarded([&]() -> HRESULT {
    clip_.reset();
    path_.clear();
    sidecar_.clear();
    sidecarRead_ = false;
    return S_OK;
  });
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::Prepare(DWORD) {
  return E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::HasStream(DWORD kind, BOOL* has) {
  if (!has) return E_POINTER;
  *has = kind == VX_STREAM_PICTURE && clip_ ? TRUE : FALSE;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::SetStreamFormat(DWORD, DWORD, void*) {
  return E_NOTIMPL;
}

std::uint32_t CVxMediaFileParserR3D::Width() const {
  return ShiftedSize(clip_->Info().width, DecodeModeShift(settings_.decodeMode));
}
std::uint32_t CVxMediaFileParserR3D::Height() const {
  return ShiftedSize(clip_->Info().height, DecodeModeShift(settings_.decodeMode));
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::GetStreamFormat(DWORD kind, DWORD index,
                                                                 void* record) {
  if (!record) return E_POINTER;
  return Guarded([&]() -> HRESULT {
    if (kind != VX_STREAM_PICTURE || index != 0) return E_INVALIDARG;
    DWORD size;
    std::memcpy(&size, record, sizeof size);
    if (size != sizeof(tagVxImageStreamFormat)) return E_INVALIDARG;
    if (!clip_) return E_UNEXPECTED;
    const RedClipInfo& info = clip_->Info();
    const bool bgra = settings_.pixels == RedPixels::kBgra8;
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    f.frameCount = static_cast<DWORD>(info.frameCount);
    f.width = Width();
    f.height = Height();
    f.channels = bgra ? 4 : 3;
    f.bitsPerPixel = bgra ? 32 : 48;
    f.hasAlpha = 0;
    f.planes = 1;
    f.frameRate = static_cast<double>(info.rateNumerator) / info.rateDenominator;
    f.pixelAspect = 1.0;
    f.fieldMode = VX_FIELD_PROGRESSIVE;
    f.pixelFormat = bgra ? VX_PF_BGRA8 : VX_PF_RGB16;
    std::memcpy(record, &f, sizeof f);
    return S_OK;
  });
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::GetStream(DWORD kind, DWORD index, REFIID riid,
                                                           void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (kind != VX_STREAM_PICTURE || index != 0) return E_INVALIDARG;
  return QueryInterface(riid, ppv);
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::GetStreamCapabilities(DWORD, DWORD, DWORD*) {
  return E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::GetTimeRange(DWORD kind, CVxTime* start,
                                                              CVxTime* end) {
  if (!start || !end) return E_POINTER;
  *start = CVxTime();
  *end = CVxTime();
  if (kind != VX_STREAM_PICTURE || !clip_) return S_FALSE;
  return Guarded([&]() -> HRESULT {
    const RedClipInfo& info = clip_->Info();
    const VxTimeFormat rate{static_cast<std::int32_t>(info.rateNumerator),
                            static_cast<std::int32_t>(info.rateDenominator)};
    *end = CVxTime(info.frameCount, rate);
    return S_OK;
  });
}

HRESULT CVxMediaFileParserR3D::SetText(const std::string& name, const std::string& value) {
  if (name == "decode") {
    for (const auto& m : kModes) {
      if (value == m.name) {
        settings_.decodeMode = m.mode;
        return S_OK;
      }
    }
    return E_INVALIDARG;
  }
  if (name == "format") {
    if (value != "rgb16" && value != "bgra8") return E_INVALIDARG;
    settings_.pixels = value == "bgra8" ? RedPixels::kBgra8 : RedPixels::kRgb16;
    return S_OK;
  }
  if (name == "prefetch" || name == "card") {
    if (value != "0" && value != "1") return E_INVALIDARG;
    if (name == "prefetch") {
      settings_.prefetch = value == "1";
    } else {
      SetRedRocketEnabled(value == "1");
    }
    return S_OK;
  }
  if (name == "sidecar") {
    const VxString path = FromUtf8(value);
    auto prsr = RedSettingsPrsr::ForPath(path.c_str());
    if (!prsr) return E_INVALIDARG;
    if (!prsr->Supported()) return E_NOTIMPL;
    R3DSettings s = settings_;
    if (!prsr->Read(path.c_str(), &s.look, &s.blackLevel)) return E_FAIL;
    settings_ = s;
    sidecar_ = path;
    sidecarRead_ = true;
    return S_OK;
  }
  double v;
  if (name == "blackLevel") {
    if (!ParseDouble(value, &v)) return E_INVALIDARG;
    settings_.blackLevel = static_cast<float>(v);
    return S_OK;
  }
  for (const MetadataField& m : kOptionLook) {
    if (name != m.key) continue;
    if (!ParseDouble(value, &v)) return E_INVALIDARG;
    settings_.look.field[static_cast<std::size_t>(m.field)] = static_cast<float>(v);
    return S_OK;
  }
  return S_FALSE;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::SetOption(void* option, DWORD kind) {
  if (!option) return E_POINTER;
  if (kind != VX_OPTION_TEXT) return S_FALSE;
  return Guarded([&]() -> HRESULT {
    const std::string text = ToUtf8(static_cast<const VxChar*>(option));
    const std::size_t eq = text.find('=');
    if (eq == std::string::npos) return E_INVALIDARG;
    return SetText(text.substr(0, eq), text.substr(eq + 1));
  });
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::GetCompressionName(VxChar* buffer, int size) {
  if (!buffer || size < 1) return E_INVALIDARG;
  const VxStringView name = VXT("REDCODE (JPEG 2000)");
  const std::size_t n = std::min<std::size_t>(name.size(), static_cast<std::size_t>(size - 1));
  std::memcpy(buffer, name.data(), n * sizeof(VxChar));
  buffer[n] = 0;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::ReadImage(IVxImage** image, std::int32_t frame) {
  if (!image) return E_POINTER;
  return Guarded([&]() -> HRESULT {
    if (!clip_) return E_UNEXPECTED;
    if (frame < 0 || frame >= clip_->Info().frameCount) return E_INVALIDARG;
    IVxRedProcessHelper* helper = SharedRedHelper();
    if (!helper) return E_FAIL;
    std::uint8_t request[kRequestBytes];
    if (!FillRequest(settings_, path_, frame, request)) return E_FAIL;

    const int w = static_cast<int>(Width());
    const int h = static_cast<int>(Height());
    const VxPixelFormat native = settings_.pixels == RedPixels::kBgra8 ? VX_PF_BGRA8 : VX_PF_RGB16;
    const std::size_t rowBytes = static_cast<std::size_t>(w) * RedPixelBytes(settings_.pixels);

    // The target: the caller's image when it is empty or of our format and size, else ours
    // converted into it afterwards.
    ComPtr<IVxImage> target;
    if (*image && (*image)->GetWidth() == 0) {
      if (HRESULT hr = (*image)->Allocate(w, h, native); FAILED(hr)) return hr;
    }
    const bool direct = *image && (*image)->GetWidth() == w && (*image)->GetHeight() == h &&
                        (*image)->GetPixelFormat() == native;
    if (direct) {
      target = ComPtr<IVxImage>::Share(*image);
    } else if (HRESULT hr = VxCreateImage(w, h, native, target.put()); FAILED(hr)) {
      return hr;
    }
    const int stride = target->GetRowStride();
    BYTE* dst = target->GetBuffer();
    if (!dst || stride < 0 || static_cast<std::size_t>(stride) < rowBytes) return E_FAIL;

    helper->Lock();
    void* buffer = nullptr;
    const std::int32_t got = helper->DecodeFrame(request, &buffer);
    if (got == frame && buffer) {
      const auto* src = static_cast<const std::uint8_t*>(buffer);
      for (int y = 0; y < h; ++y)
        std::memcpy(dst + static_cast<std::size_t>(y) * stride, src + y * rowBytes, rowBytes);
      helper->ReleaseFrame(got);
    }
    helper->Unlock();
    if (got != frame || !buffer) return E_FAIL;

    const RedClipInfo& info = clip_->Info();
    const VxTimeFormat rate{static_cast<std::int32_t>(info.rateNumerator),
                            static_cast<std::int32_t>(info.rateDenominator)};
    target->SetTiming(CVxTime(frame, rate),
                      CVxTime(CVxTime(frame + 1, rate).Ticks() - CVxTime(frame, rate).Ticks()));
    target->SetFieldMode(VX_FIELD_PROGRESSIVE);
    if (direct) return S_OK;
    if (*image) return VxConvertImage(target.get(), *image);
    *image = target.detach();
    return S_OK;
  });
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::WriteImage(IVxImage*, std::int32_t) {
  return E_NOTIMPL;
}
HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::ImageOp5(void*) {
  return E_NOTIMPL;
}
HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::SetFlag(DWORD, DWORD) {
  return E_NOTIMPL;
}
HRESULT STDMETHODCALLTYPE CVxMediaFileParserR3D::ImageOp7(void*) {
  return E_NOTIMPL;
}

HRESULT CVxMediaFileParserR3D::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (!clip_) return E_UNEXPECTED;
  const RedClipInfo& info = clip_->Info();
  if (frame >= info.frameCount) return E_INVALIDARG;
  VxMetadataRecord r = md::EmptyRecord();
  r.present |= VX_MD_FRAMERATE | VX_MD_FIELDMODE | VX_MD_ASPECT;
  r.frameRate = {static_cast<std::int32_t>(info.rateNumerator),
                 static_cast<std::int32_t>(info.rateDenominator)};
  r.fieldMode = VX_FIELD_PROGRESSIVE;
  r.pixelAspect = 1.0;
  const std::string& tc = settings_.timeCodePreference == 1 && !info.edgeTimeCode.empty()
                              ? info.edgeTimeCode
                              : info.timeCode;
  DWORD bcd;
  bool drop;
  if (TimeCodeBcd(tc, &bcd, &drop)) {
    // The first frame's time code counted on by the frame number, at the clip's rate.
    const std::int32_t fps = static_cast<std::int32_t>(
        (info.rateNumerator + info.rateDenominator - 1) / info.rateDenominator);
    auto digit = [&](int shift) { return static_cast<std::int64_t>((bcd >> shift) & 0xF); };
    std::int64_t total = ((digit(28) * 10 + digit(24)) * 3600 + (digit(20) * 10 + digit(16)) * 60 +
                          (digit(12) * 10 + digit(8))) *
                             fps +
                         digit(4) * 10 + digit(0);
    total += frame < 0 ? 0 : frame;
    const std::int64_t ff = total % fps, secs = total / fps;
    const std::int64_t ss = secs % 60, mm = secs / 60 % 60, hh = secs / 3600 % 24;
    r.present |= VX_MD_TIMECODE;
    r.timeCode =
        static_cast<DWORD>((hh / 10) << 28 | (hh % 10) << 24 | (mm / 10) << 20 | (mm % 10) << 16 |
                           (ss / 10) << 12 | (ss % 10) << 8 | (ff / 10) << 4 | (ff % 10));
    r.timeCodeRate = {fps, 1};
    r.dropFrame = drop ? 1 : 0;
  }
  if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
  char text[64];
  for (const MetadataField& m : kOptionLook) {
    std::snprintf(text, sizeof text, "%g",
                  static_cast<double>(settings_.look.field[static_cast<std::size_t>(m.field)]));
    md::SetText(out, std::string("red:") + m.key, text);
  }
  std::snprintf(text, sizeof text, "%g", static_cast<double>(settings_.blackLevel));
  md::SetText(out, "red:blackLevel", text);
  md::SetText(out, "red:iso", std::to_string(settings_.look.Iso()));
  md::SetText(out, "red:sidecar-extensions", ToUtf8(kRedSidecarExtensions));
  if (!sidecar_.empty()) {
    md::SetText(out, "red:sidecar", ToUtf8(sidecar_) + (sidecarRead_ ? "" : " (not supported)"));
  }
  return S_OK;
}

}  // namespace vx::red
