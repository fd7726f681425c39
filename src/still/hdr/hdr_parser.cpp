#include "still/hdr/hdr_parser.h"

#include <algorithm>
#include <atomic>
#include <cmath>
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
#include "vx/platform.h"

using namespace vx::hdr;

namespace {

// Enough for any header seen in practice; a longer one is read again from the whole file.
constexpr std::size_t kHeaderPrefix = 64u << 10;
// Pixels one byte of scanlines may stand for. The run-length scheme gives at most 16; only the
// older repeat-pixel runs go further (a black 4K line is 12 bytes), and a picture claiming more
// than this is refused before anything is allocated for it.
constexpr std::uint64_t kMaxPixelsPerByte = 1024;
// Rows per band below which splitting a frame is not worth the hand-over.
constexpr std::int64_t kMinParallelPixels = 1 << 16;

// Bands of rows for the shared pool: one for small pictures, else a few per worker.
int BandCount(std::int32_t width, std::int32_t height) {
  if (static_cast<std::int64_t>(width) * height < kMinParallelPixels) return 1;
  return std::min<int>(height, vx::WorkerPool::Shared().Concurrency() * 4);
}

bool ParseNumbers(const std::string& text, double* out, int n) {
  const char* p = text.c_str();
  for (int i = 0; i < n; ++i) {
    char* end = nullptr;
    out[i] = std::strtod(p, &end);
    if (end == p || !std::isfinite(out[i])) return false;
    p = end;
  }
  return true;
}

}  // namespace

CVxHdrFileParser::CVxHdrFileParser() = default;
CVxHdrFileParser::~CVxHdrFileParser() = default;

HRESULT CVxHdrFileParser::QueryInterface(REFIID riid, void** ppv) {
  return vx::Guarded([&]() -> HRESULT {
    if (!ppv) return E_POINTER;
    if (riid == IID_IVxParserSourceInfo) {
      *ppv = static_cast<IVxParserSourceInfo*>(this);
    } else if (riid == IID_IVxColorManagedParser) {
      *ppv = static_cast<IVxColorManagedParser*>(this);
    } else {
      return CVxStillPictureParser::QueryInterface(riid, ppv);
    }
    AddRef();
    return S_OK;
  });
}

// ---- Header ---------------------------------------------------------------------------------

HRESULT CVxHdrFileParser::LoadHeader(bool whole) {
  const VxString& name = CurrentFileName();
  if (name.empty()) return E_FAIL;
  vx::os::UniqueFile file(vx::os::OpenRead(name.c_str()));
  std::uint64_t size = 0;
  if (!file || !vx::os::Size(file.get(), &size)) return E_FAIL;
  for (;;) {
    const std::uint64_t bytes = whole ? size : std::min<std::uint64_t>(size, kHeaderPrefix);
    if (bytes > SIZE_MAX / 2) return E_OUTOFMEMORY;  // more than a 32-bit process can hold
    file_.resize(static_cast<std::size_t>(bytes));
    if (!vx::fileio::ReadAll(file.get(), 0, file_.data(), bytes)) return E_FAIL;
    HdrHeader parsed;
    switch (ParseHdrHeader(file_.data(), file_.size(), bytes == size, &parsed)) {
      case HeaderResult::Ok:
        header_ = std::move(parsed);
        return S_OK;
      case HeaderResult::Malformed:
        return E_FAIL;
      case HeaderResult::NeedMore:
        whole = true;
        break;
    }
  }
}

HRESULT CVxHdrFileParser::EnsureHeader() {
  if (!vx::os::IsFile(CurrentFileName().c_str())) {
    if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
  }
  return LoadHeader(false);
}

// ---- Stream queries -------------------------------------------------------------------------

HRESULT CVxHdrFileParser::GetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    const int frames = FrameCount();
    f.frameCount = static_cast<DWORD>(frames > 0 ? frames : 1);
    f.width = static_cast<DWORD>(header_.width);
    f.height = static_cast<DWORD>(header_.height);
    f.channels = 3;  // no alpha in the file; the native image is RGBA all the same
    f.bitsPerPixel = 96;
    f.hasAlpha = 0;
    f.planes = 1;
    f.frameRate = -1.0;
    f.pixelAspect = -1.0;
    f.fieldMode = VX_FIELD_PROGRESSIVE;
    f.pixelFormat = VX_PF_RGBAF32;
    std::memcpy(record, &f, sizeof f);
    return S_OK;
  });
}

HRESULT CVxHdrFileParser::SetOption(void* option, DWORD kind) {
  return vx::Guarded([&]() -> HRESULT {
    if (!option) return E_POINTER;
    if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
    const std::string text = vx::ToUtf8(static_cast<const VxChar*>(option));
    const std::size_t eq = text.find('=');
    if (eq == std::string::npos) return S_FALSE;
    const std::string name = text.substr(0, eq), value = text.substr(eq + 1);
    char* end = nullptr;
    if (name == "exposure") {
      const double stops = std::strtod(value.c_str(), &end);
      // Beyond +-128 stops every value leaves the float range anyway.
      if (value.empty() || *end || !std::isfinite(stops) || std::fabs(stops) > 128.0)
        return E_INVALIDARG;
      exposure_ = stops;
      return S_OK;
    }
    if (name == "linear") {
      if (value != "0" && value != "1") return E_INVALIDARG;
      linearOutput_ = value == "1";
      return S_OK;
    }
    return S_FALSE;
  });
}

HRESULT CVxHdrFileParser::GetCompressionName(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    if (!buffer || size < 1) return E_INVALIDARG;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    // Named after the first scanline; writers use one scheme for all of them.
    const std::size_t at = header_.dataOffset;
    const bool rle = file_.size() >= at + 4 && file_[at] == 2 && file_[at + 1] == 2 &&
                     ((file_[at + 2] << 8) | file_[at + 3]) == header_.width;
    return CopyName(rle ? VXT("RGBE, run-length") : VXT("RGBE, flat"), buffer, size);
  });
}

// ---- Pictures -------------------------------------------------------------------------------

HRESULT CVxHdrFileParser::Decode(IVxImage* image) {
  const std::int32_t w = header_.width, h = header_.height;
  float factors[256];
  ExponentFactors(exposure_, factors);
  BYTE* pixels = image->GetBuffer();
  const std::size_t stride = static_cast<std::size_t>(image->GetRowStride());
  const int bands = BandCount(w, h);
  std::atomic<bool> ok{true};
  auto band = [&](int b) {
    const std::int32_t y0 = static_cast<std::int32_t>(static_cast<std::int64_t>(h) * b / bands);
    const std::int32_t y1 =
        static_cast<std::int32_t>(static_cast<std::int64_t>(h) * (b + 1) / bands);
    std::vector<std::uint8_t> rgbe(static_cast<std::size_t>(w) * 4);
    for (std::int32_t y = y0; y < y1; ++y) {
      const std::size_t from = starts_[static_cast<std::size_t>(y)];
      const std::size_t to = starts_[static_cast<std::size_t>(y) + 1];
      if (!DecodeScanline(file_.data() + from, to - from, w, rgbe.data())) {
        ok = false;
        return;
      }
      RgbeToFloat(rgbe.data(), w, factors,
                  reinterpret_cast<float*>(pixels + stride * static_cast<std::size_t>(y)));
    }
  };
  if (bands == 1) {
    band(0);
  } else {
    vx::WorkerPool::Shared().ParallelFor(bands, band);
  }
  return ok ? S_OK : E_FAIL;
}

HRESULT CVxHdrFileParser::ReadImage(IVxImage** image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    if (HRESULT hr = LoadHeader(true); FAILED(hr)) return hr;
    const std::int32_t w = header_.width, h = header_.height;
    const std::uint64_t data = file_.size() - header_.dataOffset;
    if (static_cast<std::uint64_t>(w) * static_cast<std::uint64_t>(h) > data * kMaxPixelsPerByte)
      return E_FAIL;
    // Every scanline is checked before the caller's image is touched.
    if (!IndexScanlines(file_.data(), file_.size(), header_.dataOffset, w, h, &starts_))
      return E_FAIL;

    IVxImage* dst = *image;
    if (dst && dst->GetPixelFormat() == VX_PF_RGBAF32) {
      if (dst->GetWidth() != w || dst->GetHeight() != h) {
        if (HRESULT hr = dst->Allocate(w, h, VX_PF_RGBAF32); FAILED(hr)) return hr;
      }
      return Decode(dst);
    }
    vx::ComPtr<IVxImage> decoded;
    if (HRESULT hr = VxCreateImage(w, h, VX_PF_RGBAF32, decoded.put()); FAILED(hr)) return hr;
    if (HRESULT hr = Decode(decoded.get()); FAILED(hr)) return hr;
    if (!dst) {
      *image = decoded.detach();
      return S_OK;
    }
    VxPixelFormat f = dst->GetPixelFormat();
    if (f == VX_PF_UNKNOWN) f = VX_PF_RGBAF32;
    if (dst->GetWidth() != w || dst->GetHeight() != h || dst->GetPixelFormat() == VX_PF_UNKNOWN) {
      if (HRESULT hr = dst->Allocate(w, h, f); FAILED(hr)) return hr;
    }
    return VxConvertImage(decoded.get(), dst);
  });
}

HRESULT CVxHdrFileParser::WriteImage(IVxImage* image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    const VxString path = OutputFileName(frame);
    if (path.empty()) return E_INVALIDARG;
    const int w = image->GetWidth(), h = image->GetHeight();
    if (w < 1 || h < 1) return E_INVALIDARG;
    // Our own float copy: the LUT steps work in place and the host's picture stays as it was.
    vx::ComPtr<IVxImage> rgba;
    if (HRESULT hr = VxCreateImage(w, h, VX_PF_RGBAF32, rgba.put()); FAILED(hr)) return hr;
    if (HRESULT hr = VxConvertImage(image, rgba.get()); FAILED(hr)) return hr;
    BYTE* pixels = rgba->GetBuffer();
    const std::size_t stride = static_cast<std::size_t>(rgba->GetRowStride());
    if (!linearOutput_) {
      DWORD display = 0, linear = 0;
      if (FAILED(VxGetPresetLUTId(VX_PRESET_LUT_DISPLAY, &display)) ||
          FAILED(VxGetPresetLUTId(VX_PRESET_LUT_LINEAR, &linear)))
        return E_FAIL;
      for (int y = 0; y < h; ++y) {
        float* row = reinterpret_cast<float*>(pixels + stride * static_cast<std::size_t>(y));
        if (FAILED(VxLUTHelperApplyReverse1DLut(display, row, static_cast<std::size_t>(w), 4)) ||
            FAILED(VxLUTHelperApplyForward1DLut(linear, row, static_cast<std::size_t>(w), 4)))
          return E_FAIL;
      }
    }
    // Bands encode side by side into their own buffers, written in order.
    const int bands = BandCount(w, h);
    std::vector<std::vector<std::uint8_t>> encoded(static_cast<std::size_t>(bands));
    auto band = [&](int b) {
      const int y0 = static_cast<int>(static_cast<std::int64_t>(h) * b / bands);
      const int y1 = static_cast<int>(static_cast<std::int64_t>(h) * (b + 1) / bands);
      std::vector<std::uint8_t> scratch;
      std::vector<std::uint8_t>& out = encoded[static_cast<std::size_t>(b)];
      out.reserve(static_cast<std::size_t>(y1 - y0) * static_cast<std::size_t>(w) * 4);
      for (int y = y0; y < y1; ++y)
        EncodeScanline(
            reinterpret_cast<const float*>(pixels + stride * static_cast<std::size_t>(y)), w,
            &scratch, &out);
    };
    if (bands == 1) {
      band(0);
    } else {
      vx::WorkerPool::Shared().ParallelFor(bands, band);
    }
    const std::string header = HdrHeaderText(w, h);
    bool ok = vx::fileio::WriteReplacing(path.c_str(), [&](const VxChar* temp) {
      vx::os::UniqueFile file(vx::os::Create(temp));
      if (!file) return false;
      std::uint64_t at = 0;
      auto put = [&](const void* data, std::size_t n) {
        if (!vx::fileio::WriteAll(file.get(), at, data, n)) return false;
        at += n;
        return true;
      };
      if (!put(header.data(), header.size())) return false;
      for (const auto& part : encoded)
        if (!put(part.data(), part.size())) return false;
      return true;
    });
    if (!ok) return E_FAIL;
    return S_OK;
  });
}

// ---- Source information and colour ----------------------------------------------------------

HRESULT CVxHdrFileParser::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(false); FAILED(hr)) return hr;
  VxMetadataRecord r = vx::md::EmptyRecord();
  r.present |= VX_MD_TRANSFER;
  r.transfer = VX_TRANSFER_LINEAR;
  double values[8];
  // The file gives a pixel's height over its width.
  if (!header_.pixelAspect.empty() && ParseNumbers(header_.pixelAspect, values, 1) &&
      values[0] > 0.0) {
    r.present |= VX_MD_ASPECT;
    r.pixelAspect = 1.0 / values[0];
  }
  if (!header_.primaries.empty() && ParseNumbers(header_.primaries, values, 8)) {
    r.present |= VX_MD_CHROMATICITIES;
    std::copy(values, values + 8, r.chromaticities);
  }
  if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
  if (!header_.format.empty()) vx::md::SetText(out, "hdr:format", header_.format);
  if (!header_.exposure.empty()) vx::md::SetText(out, "hdr:exposure", header_.exposure);
  if (!header_.primaries.empty()) vx::md::SetText(out, "hdr:primaries", header_.primaries);
  return S_OK;
}

HRESULT CVxHdrFileParser::GetTransferCharacteristic(DWORD* code) {
  return vx::Guarded([&]() -> HRESULT {
    if (!code) return E_POINTER;
    *code = VX_TRANSFER_LINEAR - 1;  // the DPX table's code, as the interface speaks it
    return S_OK;
  });
}

HRESULT CVxHdrFileParser::GetLevels(VxLevelSet* levels) {
  return vx::Guarded([&]() -> HRESULT {
    if (!levels) return E_POINTER;
    if (!levelsImposed_) {
      *levels = {1.0, 0.0, 0.0, 0.0, 1.0};
      return S_FALSE;  // the file has none
    }
    *levels = levels_;
    return S_OK;
  });
}

HRESULT CVxHdrFileParser::SetLevels(const VxLevelSet* levels) {
  return vx::Guarded([&]() -> HRESULT {
    if (!levels) return E_POINTER;
    levels_ = *levels;
    levelsImposed_ = true;
    return S_OK;
  });
}

HRESULT CVxHdrFileParser::GetBitDepth(DWORD* bits) {
  return vx::Guarded([&]() -> HRESULT {
    if (!bits) return E_POINTER;
    *bits = 32;
    return S_OK;
  });
}
