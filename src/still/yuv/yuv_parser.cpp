#include "still/yuv/yuv_parser.h"

#include <cstring>
#include <string>
#include <string_view>

#include "fileio/whole_file.h"
#include "base/guard.h"
#include "base/text.h"
#include "base/worker_pool.h"
#include "vx/com_ptr.h"

using namespace vx::yuv;

namespace {

std::string BaseName(const VxString& path) {
  std::string name = vx::ToUtf8(path);
  const std::size_t cut = name.find_last_of("/\\");
  return cut == std::string::npos ? name : name.substr(cut + 1);
}

// What the raster says about the picture beyond its pixels: the two standard-definition rasters
// are interlaced television frames (NTSC lower field first, PAL upper first).
struct RasterFacts {
  double frameRate;  // -1 when the raster does not tell
  std::int32_t fieldMode;
  DWORD transfer;
  DWORD colorimetric;
};

RasterFacts FactsOf(YuvRaster r) {
  if (r.width == 720 && r.height == 486)
    return {30000.0 / 1001.0, VX_FIELD_LOWER_FIRST, VX_TRANSFER_REC601_525,
            VX_COLORIMETRIC_REC601_525};
  if (r.width == 720 && r.height == 576)
    return {25.0, VX_FIELD_UPPER_FIRST, VX_TRANSFER_REC601_625, VX_COLORIMETRIC_REC601_625};
  if (IsStandardDefinition(r))
    return {-1.0, VX_FIELD_UNKNOWN, VX_TRANSFER_REC601_525, VX_COLORIMETRIC_REC601_525};
  return {-1.0, VX_FIELD_PROGRESSIVE, VX_TRANSFER_REC709, VX_COLORIMETRIC_REC709};
}

bool IsDirectFormat(VxPixelFormat f) {
  return f == VX_PF_RGB8 || f == VX_PF_RGBA8 || f == VX_PF_RGB16 || f == VX_PF_RGBA16;
}

RgbPicture PictureOf(IVxImage* image) {
  RgbPicture p;
  const VxPixelFormat f = image->GetPixelFormat();
  p.pixels = image->GetBuffer();
  p.rowStride = image->GetRowStride();
  p.channels = VxPixelFormatChannels(f);
  p.deep = f == VX_PF_RGB16 || f == VX_PF_RGBA16;
  return p;
}

}  // namespace

CVxYUVFileParser::CVxYUVFileParser(int mode)
    : layout_(mode == 1 ? YuvLayout::Planar10 : YuvLayout::Uyvy8) {}

CVxYUVFileParser::~CVxYUVFileParser() = default;

VxPixelFormat CVxYUVFileParser::NativeFormat() const {
  return layout_ == YuvLayout::Uyvy8 ? VX_PF_RGB8 : VX_PF_RGB16;
}

HRESULT CVxYUVFileParser::Probe(vx::os::UniqueFile* keep, YuvRaster* raster) {
  const VxString& name = CurrentFileName();
  if (name.empty()) return E_FAIL;
  vx::os::UniqueFile file(vx::os::OpenRead(name.c_str()));
  std::uint64_t size = 0;
  if (!file || !vx::os::Size(file.get(), &size)) return E_FAIL;
  if (size_.width) {
    // A given raster reads the file's first frame; a file too short for it is truncated.
    const std::uint64_t bytes = FrameBytes(layout_, size_);
    if (bytes == 0 || size < bytes) return E_FAIL;
    *raster = size_;
  } else if (!RasterFromFileSize(layout_, size, raster)) {
    return E_FAIL;
  }
  if (keep) *keep = std::move(file);
  return S_OK;
}

HRESULT CVxYUVFileParser::EnsureFile() {
  // A pattern names no file of its own: take the sequence's first existing file.
  if (!vx::os::IsFile(CurrentFileName().c_str())) {
    if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
  }
  return S_OK;
}

// ---- Stream queries -------------------------------------------------------------------------

HRESULT CVxYUVFileParser::GetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    if (HRESULT hr = EnsureFile(); FAILED(hr)) return hr;
    YuvRaster r;
    if (HRESULT hr = Probe(nullptr, &r); FAILED(hr)) return hr;
    const RasterFacts facts = FactsOf(r);
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    const int frames = FrameCount();
    f.frameCount = static_cast<DWORD>(frames > 0 ? frames : 1);
    f.width = r.width;
    f.height = r.height;
    f.channels = 3;
    f.bitsPerPixel = layout_ == YuvLayout::Uyvy8 ? 24 : 48;
    f.planes = 1;
    f.frameRate = facts.frameRate;
    f.pixelAspect = -1.0;
    f.fieldMode = facts.fieldMode;
    f.pixelFormat = NativeFormat();
    std::memcpy(record, &f, sizeof f);
    return S_OK;
  });
}

HRESULT CVxYUVFileParser::SetOption(void* option, DWORD kind) {
  return vx::Guarded([&]() -> HRESULT {
    if (!option) return E_POINTER;
    if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
    const std::string text = vx::ToUtf8(static_cast<const VxChar*>(option));
    const std::size_t eq = text.find('=');
    if (eq == std::string::npos || std::string_view(text).substr(0, eq) != "size") return S_FALSE;
    const std::string_view value = std::string_view(text).substr(eq + 1);
    // An empty value goes back to finding the raster from the file size.
    YuvRaster r;
    if (!value.empty() && !ParseRaster(value, &r)) return E_INVALIDARG;
    size_ = value.empty() ? YuvRaster() : r;
    return S_OK;
  });
}

HRESULT CVxYUVFileParser::GetCompressionName(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    const VxChar* name = layout_ == YuvLayout::Uyvy8 ? VXT("8 bit 4:2:2 UYVY")
                                                     : VXT("10 bit 4:2:2 planar, 16-bit words");
    return CopyName(name, buffer, size);
  });
}

// ---- Pictures -------------------------------------------------------------------------------

HRESULT CVxYUVFileParser::ReadImage(IVxImage** image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    vx::os::UniqueFile file;
    YuvRaster r;
    if (HRESULT hr = Probe(&file, &r); FAILED(hr)) return hr;
    const std::uint64_t bytes = FrameBytes(layout_, r);
    if (bytes == 0) return E_FAIL;
    // The size was checked against the file, so the buffer is one the file justifies.
    if (frame_.size() < bytes) frame_.resize(bytes);
    std::uint32_t done = 0;
    if (!vx::os::ReadAt(file.get(), 0, frame_.data(), static_cast<std::uint32_t>(bytes), &done) ||
        done != bytes)
      return E_FAIL;
    const RasterFacts facts = FactsOf(r);
    const int w = static_cast<int>(r.width), h = static_cast<int>(r.height);
    const double aspect = AspectImposed() ? PixelAspect() : 1.0;
    auto finish = [&](IVxImage* img) {
      img->SetPixelAspect(aspect);
      img->SetFieldMode(facts.fieldMode);
    };

    IVxImage* dst = *image;
    VxPixelFormat native = NativeFormat();
    if (AlphaImposed()) native = native == VX_PF_RGB8 ? VX_PF_RGBA8 : VX_PF_RGBA16;
    if (dst && IsDirectFormat(dst->GetPixelFormat())) {
      if (dst->GetWidth() != w || dst->GetHeight() != h) {
        if (HRESULT hr = dst->Allocate(w, h, dst->GetPixelFormat()); FAILED(hr)) return hr;
      }
      DecodeFrame(layout_, frame_.data(), r, PictureOf(dst), &vx::WorkerPool::Shared());
      finish(dst);
      return S_OK;
    }
    vx::ComPtr<IVxImage> decoded;
    // A 16-bit picture for a caller's float or grey image, so nothing passes through 8 bits.
    const VxPixelFormat via = dst ? VX_PF_RGB16 : native;
    if (HRESULT hr = VxCreateImage(w, h, via, decoded.put()); FAILED(hr)) return hr;
    DecodeFrame(layout_, frame_.data(), r, PictureOf(decoded.get()), &vx::WorkerPool::Shared());
    finish(decoded.get());
    if (!dst) {
      *image = decoded.detach();
      return S_OK;
    }
    VxPixelFormat f = dst->GetPixelFormat();
    if (f == VX_PF_UNKNOWN) f = native;
    if (dst->GetWidth() != w || dst->GetHeight() != h || dst->GetPixelFormat() == VX_PF_UNKNOWN) {
      if (HRESULT hr = dst->Allocate(w, h, f); FAILED(hr)) return hr;
    }
    return VxConvertImage(decoded.get(), dst);
  });
}

HRESULT CVxYUVFileParser::WriteImage(IVxImage* image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (!IsWriting()) return E_UNEXPECTED;
    const int w = image->GetWidth(), h = image->GetHeight();
    if (w <= 0 || h <= 0) return E_INVALIDARG;
    const YuvRaster r{static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h)};
    const std::uint64_t bytes = FrameBytes(layout_, r);
    if (bytes == 0) return E_INVALIDARG;  // an odd width has no 4:2:2 frame
    vx::ComPtr<IVxImage> rgb;
    IVxImage* source = image;
    const VxPixelFormat f = image->GetPixelFormat();
    if (!IsDirectFormat(f)) {
      if (HRESULT hr = VxCreateImage(w, h, VX_PF_RGB16, rgb.put()); FAILED(hr)) return hr;
      if (HRESULT hr = VxConvertImage(image, rgb.get()); FAILED(hr)) return hr;
      source = rgb.get();
    }
    std::vector<std::uint8_t> out(bytes);
    EncodeFrame(layout_, PictureOf(source), r, out.data(), &vx::WorkerPool::Shared());
    const VxString path = OutputFileName(frame);
    if (!vx::fileio::WriteReplacing(path.c_str(), {out})) return E_FAIL;
    return S_OK;
  });
}

// ---- Source information ---------------------------------------------------------------------

HRESULT CVxYUVFileParser::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  if (frame < 0) {
    if (HRESULT hr = EnsureFile(); FAILED(hr)) return hr;
  }
  YuvRaster r;
  if (HRESULT hr = Probe(nullptr, &r); FAILED(hr)) return hr;
  const RasterFacts facts = FactsOf(r);
  VxMetadataRecord rec = vx::md::EmptyRecord();
  rec.present = VX_MD_FIELDMODE | VX_MD_TRANSFER | VX_MD_COLORIMETRIC | VX_MD_LEVELS;
  rec.fieldMode = facts.fieldMode;
  rec.transfer = facts.transfer;
  rec.colorimetric = facts.colorimetric;
  // Video range: black and white at 16 and 235 in 8-bit codes, four times that in 10-bit ones.
  const double scale = layout_ == YuvLayout::Uyvy8 ? 1.0 : 4.0;
  rec.levels = {1.0 / 0.45, 16.0 * scale, 0.0, 0.0, 235.0 * scale};
  if (facts.frameRate > 0.0) {
    rec.present |= VX_MD_FRAMERATE;
    rec.frameRate = VxGetTimeFormatFromSampleRate(facts.frameRate);
  }
  if (HRESULT hr = out->SetRecord(&rec); FAILED(hr)) return hr;
  vx::md::SetText(out, "yuv:layout", LayoutName(layout_));
  vx::md::SetText(out, "yuv:matrix", IsStandardDefinition(r) ? "rec601" : "rec709");
  const std::string name = BaseName(CurrentFileName());
  if (!name.empty()) vx::md::SetText(out, vx::md::kFileName, name);
  return S_OK;
}
