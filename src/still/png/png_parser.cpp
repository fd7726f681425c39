#include "still/png/png_parser.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "fileio/whole_file.h"
#include "base/checked.h"
#include "base/guard.h"
#include "base/text.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/platform.h"

using namespace vx::png;

namespace {

// PNG's registered keywords and the record's keys they stand for.
struct KeyPair {
  const char* png;
  const char* record;
};
constexpr KeyPair kKeys[] = {
    {"Title", vx::md::kDescription},  {"Author", vx::md::kOriginator},
    {"Software", vx::md::kCreator},   {"Comment", vx::md::kComment},
    {"Creation Time", vx::md::kDate}, {"Copyright", vx::md::kCopyright},
};

// What the reader reports about the file itself; never written back as texts.
constexpr const char* kOwnKeys[] = {"png:color-type", "png:bit-depth", "png:interlace",
                                    "png:gamma",      "png:icc-name",  "png:srgb-intent",
                                    "png:time"};

bool IsOwnKey(std::string_view key) {
  return std::any_of(std::begin(kOwnKeys), std::end(kOwnKeys),
                     [&](const char* k) { return key == k; });
}

bool EqualNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

double AspectOf(const PngInfo& info) {
  return info.hasPhys ? static_cast<double>(info.physY) / info.physX : 1.0;
}

bool IsDeep(VxPixelFormat f) {
  return f == VX_PF_RGB16 || f == VX_PF_RGBA16 || f == VX_PF_GRAY16 || f == VX_PF_RGBF32 ||
         f == VX_PF_RGBAF32 || f == VX_PF_GRAYF32;
}

bool IsGrey(VxPixelFormat f) {
  return f == VX_PF_GRAY8 || f == VX_PF_GRAY16 || f == VX_PF_GRAYF32;
}

// Host samples (host byte order) of one row into file order, big-endian for 16 bits.
// `pick` lists the source channels written.
template <typename T>
void PackRow(const std::uint8_t* from, int width, int srcChannels, const int* pick, int channels,
             std::uint8_t* to) {
  const T* s = reinterpret_cast<const T*>(from);
  for (int x = 0; x < width; ++x, s += srcChannels) {
    for (int c = 0; c < channels; ++c) {
      const T v = s[pick[c]];
      if constexpr (sizeof(T) == 1) {
        *to++ = v;
      } else {
        *to++ = static_cast<std::uint8_t>(v >> 8);
        *to++ = static_cast<std::uint8_t>(v);
      }
    }
  }
}

}  // namespace

CVxPNGFileParser::CVxPNGFileParser() = default;
CVxPNGFileParser::~CVxPNGFileParser() = default;

#if VX_HAVE_LIBPNG
HRESULT CVxPNGFileParser::OpenEx(const VxChar* name, DWORD flags, DWORD reserved) {
  return CVxStillImageParser::OpenEx(name, flags, reserved);
}
HRESULT CVxPNGFileParser::OpenFileList(IVxFileList* list, DWORD flags) {
  return CVxStillImageParser::OpenFileList(list, flags);
}
HRESULT CVxPNGFileParser::Open(const VxChar* name, DWORD flags) {
  return CVxStillImageParser::Open(name, flags);
}
#else
HRESULT CVxPNGFileParser::OpenEx(const VxChar* name, DWORD, DWORD) {
  return name ? E_NOTIMPL : E_POINTER;
}
HRESULT CVxPNGFileParser::OpenFileList(IVxFileList* list, DWORD) {
  return list ? E_NOTIMPL : E_POINTER;
}
HRESULT CVxPNGFileParser::Open(const VxChar* name, DWORD) {
  return name ? E_NOTIMPL : E_POINTER;
}
#endif

// ---- File -----------------------------------------------------------------------------------

HRESULT CVxPNGFileParser::Load() {
  const VxString& name = CurrentFileName();
  if (name.empty()) return E_FAIL;
  // The state is replaced only by a file that walked whole.
  loaded_ = false;
  loadedName_.clear();
  vx::os::UniqueFile file(vx::os::OpenRead(name.c_str()));
  std::uint64_t size = 0;
  if (!file || !vx::os::Size(file.get(), &size) || size > 0xFFFFFFFFu || !vx::FitsSizeT(size))
    return E_FAIL;
  file_.resize(static_cast<std::size_t>(size));
  std::uint32_t done = 0;
  if (size > 0 &&
      (!vx::os::ReadAt(file.get(), 0, file_.data(), static_cast<std::uint32_t>(size), &done) ||
       done != size))
    return E_FAIL;
  PngInfo parsed;
  if (!ParsePng(file_.data(), file_.size(), &parsed)) return E_FAIL;
  info_ = std::move(parsed);
  loadedName_ = name;
  loaded_ = true;
  return S_OK;
}

HRESULT CVxPNGFileParser::EnsureLoaded() {
  // A pattern names no file of its own: take the sequence's first existing file.
  if (!vx::os::IsFile(CurrentFileName().c_str())) {
    if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
  }
  if (loaded_ && loadedName_ == CurrentFileName()) return S_OK;
  return Load();
}

// ---- Stream queries -------------------------------------------------------------------------

HRESULT CVxPNGFileParser::GetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    if (HRESULT hr = EnsureLoaded(); FAILED(hr)) return hr;
    const PngInfo& p = info_;
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    const int frames = FrameCount();
    f.frameCount = static_cast<DWORD>(frames > 0 ? frames : 1);
    f.width = static_cast<std::int32_t>(p.width);
    f.height = static_cast<std::int32_t>(p.height);
    f.channels = (p.Grey() ? 1 : 3) + (p.Alpha() ? 1 : 0);
    const int depth = p.bitDepth == 16 ? 16 : 8;
    f.bitsPerPixel = static_cast<DWORD>(depth) * f.channels;
    f.hasAlpha = p.Alpha() ? 1 : 0;
    f.planes = 1;
    f.frameRate = -1.0;
    f.pixelAspect = p.hasPhys ? AspectOf(p) : -1.0;
    f.fieldMode = VX_FIELD_PROGRESSIVE;
    f.pixelFormat = depth == 16 ? VX_PF_RGBA16 : VX_PF_RGBA8;
    std::memcpy(record, &f, sizeof f);
    return S_OK;
  });
}

HRESULT CVxPNGFileParser::SetOption(void* option, DWORD kind) {
  return vx::Guarded([&]() -> HRESULT {
    if (!option) return E_POINTER;
    if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
    std::string text = vx::ToUtf8(static_cast<const VxChar*>(option));
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    const std::size_t eq = text.find('=');
    if (eq == std::string::npos) return E_INVALIDARG;
    const std::string name = text.substr(0, eq), value = text.substr(eq + 1);
    if (name == "level") {
      if (value.size() != 1 || value[0] < '0' || value[0] > '9') return E_INVALIDARG;
      level_ = value[0] - '0';
      return S_OK;
    }
    if (name == "compression") {
      if (value == "none") {
        level_ = 0;
      } else if (value == "deflate" || value == "zip") {
        if (level_ == 0) level_ = 6;
      } else {
        return E_INVALIDARG;
      }
      return S_OK;
    }
    return S_FALSE;
  });
}

HRESULT CVxPNGFileParser::GetCompressionName(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    if (!buffer || size < 1) return E_INVALIDARG;
    if (HRESULT hr = EnsureLoaded(); FAILED(hr)) return hr;
    char text[64];
    std::snprintf(text, sizeof text, "%d bit %s, deflate%s", info_.bitDepth, info_.ColorTypeName(),
                  info_.interlaced ? ", Adam7" : "");
    return CopyName(vx::FromUtf8(text).c_str(), buffer, size);
  });
}

// ---- Pictures -------------------------------------------------------------------------------

HRESULT CVxPNGFileParser::ReadImage(IVxImage** image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    if (HRESULT hr = Load(); FAILED(hr)) return hr;
    const int w = static_cast<int>(info_.width), h = static_cast<int>(info_.height);
    const double aspect = AspectImposed() ? PixelAspect() : AspectOf(info_);
    // Only decoding finds a broken deflate stream: a picture that fails halfway is cleared, so
    // the caller never keeps half of it.
    auto decode = [&](IVxImage* dst) -> HRESULT {
      PngTarget t;
      t.pixels = dst->GetBuffer();
      t.rowStride = dst->GetRowStride();
      t.format = dst->GetPixelFormat();
      if (!t.pixels) return E_FAIL;
      if (!DecodePng(file_.data(), file_.size(), info_, t)) {
        const std::size_t rowBytes = static_cast<std::size_t>(w) *
                                     static_cast<std::size_t>(VxPixelFormatBytesPerPixel(t.format));
        for (int y = 0; y < h; ++y) std::memset(t.pixels + t.rowStride * y, 0, rowBytes);
        return E_FAIL;
      }
      dst->SetPixelAspect(aspect);
      dst->SetFieldMode(VX_FIELD_PROGRESSIVE);
      return S_OK;
    };

    IVxImage* dst = *image;
    const VxPixelFormat f = dst ? dst->GetPixelFormat() : VX_PF_UNKNOWN;
    if (dst && CanDecodeInto(info_, f)) {
      if (dst->GetWidth() != w || dst->GetHeight() != h) {
        if (HRESULT hr = dst->Allocate(w, h, f); FAILED(hr)) return hr;
      }
      return decode(dst);
    }
    const VxPixelFormat native = info_.bitDepth == 16 ? VX_PF_RGBA16 : VX_PF_RGBA8;
    vx::ComPtr<IVxImage> decoded;
    if (HRESULT hr = VxCreateImage(w, h, native, decoded.put()); FAILED(hr)) return hr;
    if (HRESULT hr = decode(decoded.get()); FAILED(hr)) return hr;
    if (!dst) {
      *image = decoded.detach();
      return S_OK;
    }
    const VxPixelFormat target = f == VX_PF_UNKNOWN ? native : f;
    if (dst->GetWidth() != w || dst->GetHeight() != h || f == VX_PF_UNKNOWN) {
      if (HRESULT hr = dst->Allocate(w, h, target); FAILED(hr)) return hr;
    }
    return VxConvertImage(decoded.get(), dst);
  });
}

HRESULT CVxPNGFileParser::WriteImage(IVxImage* image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (!IsWriting()) return E_UNEXPECTED;
    const int w = image->GetWidth(), h = image->GetHeight();
    if (w < 1 || h < 1) return E_INVALIDARG;
    const VxPixelFormat f = image->GetPixelFormat();
    const bool deep = IsDeep(f), greySource = IsGrey(f);
    const VxPixelFormat work =
        greySource ? (deep ? VX_PF_GRAY16 : VX_PF_GRAY8) : (deep ? VX_PF_RGBA16 : VX_PF_RGBA8);
    vx::ComPtr<IVxImage> converted;
    IVxImage* src = image;
    if (f != work) {
      if (HRESULT hr = VxCreateImage(w, h, work, converted.put()); FAILED(hr)) return hr;
      if (HRESULT hr = VxConvertImage(image, converted.get()); FAILED(hr)) return hr;
      src = converted.get();
    }
    const std::uint8_t* pixels = src->GetBuffer();
    const std::int64_t stride = src->GetRowStride();
    if (!pixels) return E_FAIL;

    // Alpha only when some pixel is not opaque (or the host asked for it); grey when the
    // picture is grey or every pixel has R = G = B.
    const int srcChannels = greySource ? 1 : 4;
    bool alpha = AlphaImposed(), grey = greySource;
    if (!greySource) {
      bool colour = false;
      for (int y = 0; y < h && !(alpha && colour); ++y) {
        const std::uint8_t* row = pixels + stride * y;
        for (int x = 0; x < w; ++x) {
          std::uint32_t v[4];
          for (int c = 0; c < 4; ++c) {
            v[c] = deep ? reinterpret_cast<const std::uint16_t*>(row)[4 * x + c] : row[4 * x + c];
          }
          if (v[3] != (deep ? 65535u : 255u)) alpha = true;
          if (v[0] != v[1] || v[1] != v[2]) colour = true;
        }
      }
      grey = !colour;
    }
    PngWriteInfo info;
    info.width = w;
    info.height = h;
    info.bitDepth = deep ? 16 : 8;
    info.channels = (grey ? 1 : 3) + (alpha ? 1 : 0);
    info.level = level_;
    static constexpr int kPick[5][4] = {{0}, {0}, {0, 3}, {0, 1, 2}, {0, 1, 2, 3}};
    // A grey host picture has no alpha of its own: an asked-for alpha is opaque.
    const int* pick = kPick[info.channels];
    std::vector<std::uint8_t> rows;
    const std::size_t rowBytes =
        static_cast<std::size_t>(w) * static_cast<std::size_t>(info.channels * info.bitDepth / 8);
    rows.resize(rowBytes * static_cast<std::size_t>(h));
    for (int y = 0; y < h; ++y) {
      std::uint8_t* to = rows.data() + rowBytes * static_cast<std::size_t>(y);
      if (greySource && alpha) {
        const std::uint8_t* row = pixels + stride * y;
        for (int x = 0; x < w; ++x) {
          if (deep) {
            const std::uint16_t v = reinterpret_cast<const std::uint16_t*>(row)[x];
            *to++ = static_cast<std::uint8_t>(v >> 8);
            *to++ = static_cast<std::uint8_t>(v);
            *to++ = 255;
            *to++ = 255;
          } else {
            *to++ = row[x];
            *to++ = 255;
          }
        }
      } else if (deep) {
        PackRow<std::uint16_t>(pixels + stride * y, w, srcChannels, pick, info.channels, to);
      } else {
        PackRow<std::uint8_t>(pixels + stride * y, w, srcChannels, pick, info.channels, to);
      }
    }

    double aspect = AspectImposed() ? PixelAspect() : 0.0;
    info.texts.emplace_back("Software", "vxprsr");
    if (IVxMetadata* md = WriteMetadata()) {
      const VxMetadataRecord r = vx::md::GetRecord(md);
      if (!AspectImposed() && (r.present & VX_MD_ASPECT)) aspect = r.pixelAspect;
      if (r.present & VX_MD_TRANSFER) {
        if (r.transfer == VX_TRANSFER_SRGB) {
          info.srgb = true;
          const std::string intent = vx::md::GetText(md, "png:srgb-intent");
          static constexpr const char* kIntents[] = {"perceptual", "relative", "saturation",
                                                     "absolute"};
          for (int i = 0; i < 4; ++i)
            if (intent == kIntents[i]) info.srgbIntent = i;
        } else if (r.transfer == VX_TRANSFER_LINEAR) {
          info.gamma = 100000;
        } else if (r.transfer == VX_TRANSFER_GAMMA && (r.present & VX_MD_LEVELS) &&
                   r.levels.gamma > 0.01 && r.levels.gamma < 100) {
          info.gamma = static_cast<std::uint32_t>(std::lround(100000 / r.levels.gamma));
        }
      }
      if (!info.srgb && (r.present & VX_MD_CHROMATICITIES)) {
        info.hasChrm = true;
        std::copy(std::begin(r.chromaticities), std::end(r.chromaticities), info.chrm);
      }
      int count = 0;
      md->GetTextCount(&count);
      for (int i = 0; i < count; ++i) {
        VxChar* k = nullptr;
        VxChar* v = nullptr;
        if (FAILED(md->GetTextAt(i, &k, &v))) continue;
        const std::string key = k ? vx::ToUtf8(k) : std::string();
        const std::string value = v ? vx::ToUtf8(v) : std::string();
        VxSysFreeString(k);
        VxSysFreeString(v);
        if (key == vx::md::kCreator) continue;  // the Software text is ours
        std::string keyword;
        for (const KeyPair& p : kKeys)
          if (key == p.record) keyword = p.png;
        if (keyword.empty() && key.rfind("png:", 0) == 0 && !IsOwnKey(key)) keyword = key.substr(4);
        if (!keyword.empty()) info.texts.emplace_back(keyword, value);
      }
    }
    if (aspect > 0.0) info.aspect = aspect;

    std::vector<std::uint8_t> bytes;
    if (!EncodePng(info, rows.data(), &bytes)) return E_FAIL;
    const VxString path = OutputFileName(frame);
    if (!vx::fileio::WriteReplacing(path.c_str(), {bytes})) return E_FAIL;
    return S_OK;
  });
}

// ---- Metadata -------------------------------------------------------------------------------

HRESULT CVxPNGFileParser::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  if (HRESULT hr = frame < 0 ? EnsureLoaded() : Load(); FAILED(hr)) return hr;
  const PngInfo& p = info_;
  VxMetadataRecord r = vx::md::EmptyRecord();
  r.present |= VX_MD_FIELDMODE;
  r.fieldMode = VX_FIELD_PROGRESSIVE;
  if (p.hasPhys) {
    r.present |= VX_MD_ASPECT;
    r.pixelAspect = AspectOf(p);
  }
  if (p.srgbIntent >= 0) {
    r.present |= VX_MD_TRANSFER | VX_MD_COLORIMETRIC;
    r.transfer = VX_TRANSFER_SRGB;
    r.colorimetric = VX_COLORIMETRIC_REC709;
  } else if (p.gamma == 100000) {
    r.present |= VX_MD_TRANSFER;
    r.transfer = VX_TRANSFER_LINEAR;
  } else if (p.gamma > 0 && p.iccName.empty()) {
    r.present |= VX_MD_TRANSFER | VX_MD_LEVELS;
    r.transfer = VX_TRANSFER_GAMMA;
    r.levels.gamma = 100000.0 / p.gamma;
    r.levels.whiteLevel = p.bitDepth == 16 ? 65535 : 255;
  }
  if (p.hasChrm) {
    r.present |= VX_MD_CHROMATICITIES;
    std::copy(std::begin(p.chrm), std::end(p.chrm), r.chromaticities);
  }
  if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
  auto text = [&](std::string_view key, const std::string& value) {
    if (!value.empty()) vx::md::SetText(out, key, value);
  };
  text("png:color-type", p.ColorTypeName());
  text("png:bit-depth", std::to_string(p.bitDepth));
  text("png:interlace", p.interlaced ? "adam7" : "none");
  if (p.gamma) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.5f", p.gamma / 100000.0);
    text("png:gamma", buffer);
  }
  text("png:icc-name", p.iccName);
  static constexpr const char* kIntents[] = {"perceptual", "relative", "saturation", "absolute"};
  if (p.srgbIntent >= 0 && p.srgbIntent < 4) text("png:srgb-intent", kIntents[p.srgbIntent]);
  text("png:time", p.time);
  for (const auto& [key, value] : p.texts) {
    std::string mapped = "png:" + key;
    // Writers differ in case ("comment", "Comment"): the registered keywords match either way.
    for (const KeyPair& k : kKeys)
      if (EqualNoCase(key, k.png)) mapped = k.record;
    if (IsOwnKey(mapped)) continue;
    text(mapped, value);
  }
  return S_OK;
}
