#include "still/psd/psd_parser.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fileio/whole_file.h"
#include "base/guard.h"
#include "base/text.h"
#include "base/worker_pool.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"

using namespace vx::psd;

CVxMediaFileParserPSD::CVxMediaFileParserPSD() = default;
CVxMediaFileParserPSD::~CVxMediaFileParserPSD() = default;

// ---- Header ---------------------------------------------------------------------------------

HRESULT CVxMediaFileParserPSD::LoadHeader(vx::os::UniqueFile* keep) {
  if (keep) keep->reset();
  const VxString& name = CurrentFileName();
  if (name.empty()) return E_FAIL;
  const bool same = loaded_ && name == loadedName_;
  if (same && !keep) return S_OK;
  vx::os::UniqueFile file(vx::os::OpenRead(name.c_str()));
  if (!same) {
    // The state is replaced only by a document that parsed whole.
    loaded_ = false;
    loadedName_.clear();
    PsdDocument parsed;
    if (!file || !ReadPsdDocument(file.get(), &parsed)) return E_FAIL;
    doc_ = std::move(parsed);
    loadedName_ = name;
    loaded_ = true;
  }
  if (!file) return E_FAIL;
  if (keep) *keep = std::move(file);
  return S_OK;
}

HRESULT CVxMediaFileParserPSD::EnsureHeader() {
  if (!vx::os::IsFile(CurrentFileName().c_str())) {
    if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
  }
  return LoadHeader(nullptr);
}

VxPixelFormat CVxMediaFileParserPSD::NativeFormat() const {
  return doc_.depth == 32 ? VX_PF_RGBAF32 : doc_.depth == 16 ? VX_PF_RGBA16 : VX_PF_RGBA8;
}

double CVxMediaFileParserPSD::Aspect() const {
  if (doc_.pixelAspect > 0.0) return doc_.pixelAspect;
  if (doc_.xResolution > 0.0 && doc_.yResolution > 0.0) return doc_.yResolution / doc_.xResolution;
  return 1.0;
}

// ---- Stream queries -------------------------------------------------------------------------

HRESULT CVxMediaFileParserPSD::GetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    const int frames = FrameCount();
    f.frameCount = static_cast<DWORD>(frames > 0 ? frames : 1);
    f.width = static_cast<int>(doc_.width);
    f.height = static_cast<int>(doc_.height);
    const bool alpha = doc_.alpha || doc_.transparentIndex >= 0;
    const bool grey = doc_.mode == kGrey || doc_.mode == kDuotone || doc_.mode == kBitmap;
    f.channels = grey && !alpha ? 1 : alpha ? 4 : 3;
    f.bitsPerPixel = static_cast<int>(f.channels * (doc_.depth == 1 ? 8 : doc_.depth));
    f.hasAlpha = alpha ? 1 : 0;
    f.planes = 1;
    f.frameRate = -1.0;
    f.pixelAspect = Aspect();
    f.fieldMode = VX_FIELD_PROGRESSIVE;
    f.pixelFormat = NativeFormat();
    std::memcpy(record, &f, sizeof f);
    return S_OK;
  });
}

HRESULT CVxMediaFileParserPSD::SetOption(void* option, DWORD kind) {
  return vx::Guarded([&]() -> HRESULT {
    if (!option) return E_POINTER;
    if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
    std::string name, value;
    if (!SplitTextOption(option, &name, &value)) return E_INVALIDARG;
    if (name == "compression") return value == "rle" ? S_OK : E_INVALIDARG;
    if (name == "depth") {
      // A source's depth the host offers maps onto the nearest written one.
      const int bits = std::atoi(value.c_str());
      if (bits < 1 || bits > 16) return E_INVALIDARG;
      writeDepth_ = bits <= 8 ? 8 : 16;
      return S_OK;
    }
    return S_FALSE;
  });
}

HRESULT CVxMediaFileParserPSD::GetCompressionName(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    if (!buffer || size < 1) return E_INVALIDARG;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    return CopyName(doc_.compression == kRle ? VXT("RLE") : VXT("none"), buffer, size);
  });
}

// ---- Pictures -------------------------------------------------------------------------------

HRESULT CVxMediaFileParserPSD::ReadImage(IVxImage** image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    vx::os::UniqueFile file;
    if (HRESULT hr = LoadHeader(&file); FAILED(hr)) return hr;
    vx::WorkerPool& pool = vx::WorkerPool::Shared();
    // Every row is checked before the caller's image is touched.
    if (!ReadPsdPicture(file.get(), doc_, &picture_, &pool)) return E_FAIL;
    file.reset();
    const int w = static_cast<int>(doc_.width), h = static_cast<int>(doc_.height);
    const double aspect = AspectImposed() ? PixelAspect() : Aspect();
    const VxPixelFormat native = NativeFormat();
    auto decode = [&](IVxImage* dst) -> HRESULT {
      if (!DecodePsd(doc_, picture_, dst->GetBuffer(), dst->GetRowStride(), &pool)) return E_FAIL;
      dst->SetPixelAspect(aspect);
      dst->SetFieldMode(VX_FIELD_PROGRESSIVE);
      return S_OK;
    };
    IVxImage* dst = *image;
    const VxPixelFormat f = dst ? dst->GetPixelFormat() : VX_PF_UNKNOWN;
    if (dst && f == native) {
      if (dst->GetWidth() != w || dst->GetHeight() != h) {
        if (HRESULT hr = dst->Allocate(w, h, f); FAILED(hr)) return hr;
      }
      return decode(dst);
    }
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

HRESULT CVxMediaFileParserPSD::WriteImage(IVxImage* image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (!IsWriting()) return E_UNEXPECTED;
    const int w = image->GetWidth(), h = image->GetHeight();
    if (w < 1 || h < 1 || w > 30000 || h > 30000) return E_INVALIDARG;
    const VxPixelFormat f = image->GetPixelFormat();
    PsdWriteInfo info;
    info.width = w;
    info.height = h;
    const bool deep = f == VX_PF_RGB16 || f == VX_PF_RGBA16 || f == VX_PF_GRAY16 ||
                      f == VX_PF_RGBF32 || f == VX_PF_RGBAF32 || f == VX_PF_GRAYF32;
    info.depth = writeDepth_ ? writeDepth_ : deep ? 16 : 8;
    const VxPixelFormat want = info.depth == 16 ? VX_PF_RGBA16 : VX_PF_RGBA8;
    vx::ComPtr<IVxImage> converted;
    IVxImage* src = image;
    if (f != want) {
      if (HRESULT hr = VxCreateImage(w, h, want, converted.put()); FAILED(hr)) return hr;
      if (HRESULT hr = VxConvertImage(image, converted.get()); FAILED(hr)) return hr;
      src = converted.get();
    }
    const std::uint8_t* pixels = src->GetBuffer();
    const std::int64_t stride = src->GetRowStride();
    if (!pixels) return E_FAIL;
    // RGBA only when the picture has an alpha that is not everywhere opaque (or the host asked
    // for one).
    const int channels = VxPixelFormatChannels(f);
    info.alpha = AlphaImposed() && channels == 4;
    for (int y = 0; y < h && channels == 4 && !info.alpha; ++y) {
      if (info.depth == 8) {
        const std::uint8_t* row = pixels + y * stride;
        for (int x = 0; x < w && !info.alpha; ++x) info.alpha = row[4 * x + 3] != 255;
      } else {
        const auto* row = reinterpret_cast<const std::uint16_t*>(pixels + y * stride);
        for (int x = 0; x < w && !info.alpha; ++x) info.alpha = row[4 * x + 3] != 65535;
      }
    }
    double aspect = AspectImposed() ? PixelAspect() : 0.0;
    if (IVxMetadata* md = WriteMetadata()) {
      const VxMetadataRecord r = vx::md::GetRecord(md);
      if (!AspectImposed() && (r.present & VX_MD_ASPECT)) aspect = r.pixelAspect;
      const double dpi = std::atof(vx::md::GetText(md, "psd:resolution").c_str());
      if (dpi > 0.0) info.resolution = dpi;
    }
    if (aspect > 0.0) info.pixelAspect = aspect;

    std::vector<std::uint8_t> bytes;
    if (!EncodePsd(info, pixels, stride, &vx::WorkerPool::Shared(), &bytes)) return E_FAIL;
    const VxString path = OutputFileName(frame);
    if (!vx::fileio::WriteReplacing(path.c_str(), {bytes})) return E_FAIL;
    return S_OK;
  });
}

// ---- Metadata -------------------------------------------------------------------------------

HRESULT CVxMediaFileParserPSD::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(nullptr); FAILED(hr)) return hr;
  VxMetadataRecord r = vx::md::EmptyRecord();
  r.present |= VX_MD_FIELDMODE;
  r.fieldMode = VX_FIELD_PROGRESSIVE;
  if (doc_.pixelAspect > 0.0 || (doc_.xResolution > 0.0 && doc_.yResolution > 0.0)) {
    r.present |= VX_MD_ASPECT;
    r.pixelAspect = Aspect();
  }
  if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
  auto text = [&](std::string_view key, const std::string& value) {
    if (!value.empty()) vx::md::SetText(out, key, value);
  };
  text(vx::md::kCreator, doc_.writer);
  text("psd:format", doc_.large ? "PSB" : "PSD");
  text("psd:mode", ModeName(doc_.mode));
  text("psd:depth", std::to_string(doc_.depth));
  text("psd:compression", doc_.compression == kRle ? "RLE" : "none");
  text("psd:channels", std::to_string(doc_.channels));
  if (doc_.xResolution > 0.0) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%g", doc_.xResolution);
    text("psd:resolution", buffer);
  }
  text("psd:layers", std::to_string(doc_.layerCount));
  if (doc_.layersPresent) {
    std::string names;
    for (const std::string& n : doc_.layerNames) names += (names.empty() ? "" : "; ") + n;
    text("psd:layer-names", names);
  }
  return S_OK;
}
