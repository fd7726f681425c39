#include "still/tiff/tiff_parser.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "fileio/whole_file.h"
#include "base/checked.h"
#include "base/guard.h"
#include "base/text.h"
#include "base/worker_pool.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/platform.h"

using namespace vx::tiff;

namespace {

bool ReadFileWhole(const VxChar* name, std::vector<std::uint8_t>* out) {
  vx::os::UniqueFile file(vx::os::OpenRead(name));
  std::uint64_t size = 0;
  if (!file || !vx::os::Size(file.get(), &size) || size < 8 || size > 0xFFFFFFFFu ||
      !vx::FitsSizeT(size))
    return false;
  out->resize(static_cast<std::size_t>(size));
  constexpr std::uint64_t kPiece = 1u << 30;
  for (std::uint64_t at = 0; at < size; at += kPiece) {
    const auto n = static_cast<std::uint32_t>(std::min(kPiece, size - at));
    std::uint32_t done = 0;
    if (!vx::os::ReadAt(file.get(), at, out->data() + at, n, &done) || done != n) return false;
  }
  return true;
}

VxPixelFormat NativeFormat(Depth d) {
  return d == Depth::kFloat ? VX_PF_RGBAF32 : d == Depth::k16 ? VX_PF_RGBA16 : VX_PF_RGBA8;
}

// "YYYY:MM:DD HH:MM:SS" and back to the record's "YYYY-MM-DDTHH:MM:SS".
std::string DateFromTiff(const std::string& t) {
  unsigned y, mo, d, h, mi, s;
  if (std::sscanf(t.c_str(), "%4u:%2u:%2u %2u:%2u:%2u", &y, &mo, &d, &h, &mi, &s) != 6) return t;
  char text[32];
  std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u", y, mo, d, h, mi, s);
  return text;
}

std::string DateToTiff(const std::string& t) {
  unsigned y, mo, d, h = 0, mi = 0, s = 0;
  const int n = std::sscanf(t.c_str(), "%4u-%2u-%2uT%2u:%2u:%2u", &y, &mo, &d, &h, &mi, &s);
  if (n != 3 && n != 6) return {};
  char text[32];
  std::snprintf(text, sizeof text, "%04u:%02u:%02u %02u:%02u:%02u", y % 10000, mo % 100, d % 100,
                h % 100, mi % 100, s % 100);
  return text;
}

std::string NowTiff() {
  using namespace std::chrono;
  const auto now = floor<seconds>(system_clock::now());
  const auto day = floor<days>(now);
  const year_month_day ymd{day};
  const hh_mm_ss hms{now - day};
  char text[32];
  std::snprintf(text, sizeof text, "%04d:%02u:%02u %02d:%02d:%02d", static_cast<int>(ymd.year()),
                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                static_cast<int>(hms.hours().count()), static_cast<int>(hms.minutes().count()),
                static_cast<int>(hms.seconds().count()));
  return text;
}

double AspectOf(const TiffPage& p) {
  if (p.xres > 0 && p.yres > 0 && std::isfinite(p.xres) && std::isfinite(p.yres))
    return static_cast<double>(p.xres) / p.yres;
  return 0.0;
}

}  // namespace

CVxTIFFFileParser::CVxTIFFFileParser() = default;
CVxTIFFFileParser::~CVxTIFFFileParser() = default;

// Without libtiff (the Windows cross builds) nothing opens.
HRESULT CVxTIFFFileParser::Open(const VxChar* name, DWORD flags) {
  if (!Available()) return E_NOTIMPL;
  loaded_ = false;
  return CVxStillImageParser::Open(name, flags);
}

HRESULT CVxTIFFFileParser::OpenFileList(IVxFileList* list, DWORD flags) {
  if (!Available()) return E_NOTIMPL;
  loaded_ = false;
  return CVxStillImageParser::OpenFileList(list, flags);
}

// ---- Pages ----------------------------------------------------------------------------------

HRESULT CVxTIFFFileParser::LoadPage(int page, bool reread) {
  const VxString& name = CurrentFileName();
  if (name.empty()) return E_FAIL;
  const bool sameFile = loaded_ && name == loadedName_;
  if (sameFile && page == loadedPage_ && !reread) return S_OK;
  if (!sameFile || reread) {
    loaded_ = false;
    if (!ReadFileWhole(name.c_str(), &data_)) return E_FAIL;
  }
  TiffPage parsed;
  std::string error;
  if (!ReadTiffPage(data_.data(), data_.size(), page, &parsed, &error)) {
    loaded_ = false;
    return E_FAIL;
  }
  page_ = std::move(parsed);
  loadedName_ = name;
  loadedPage_ = page;
  loaded_ = true;
  return S_OK;
}

HRESULT CVxTIFFFileParser::EnsurePage() {
  // A pattern names no file of its own: take the sequence's first existing file.
  if (!vx::os::IsFile(CurrentFileName().c_str())) {
    if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
  }
  if (HRESULT hr = LoadPage(loaded_ && CurrentFileName() == loadedName_ ? loadedPage_ : 0, false);
      FAILED(hr))
    return hr;
  if (FrameCount() <= 1) pages_ = page_.pages;
  return S_OK;
}

HRESULT CVxTIFFFileParser::SelectFrame(std::int32_t frame, int* page) {
  *page = 0;
  if (FrameCount() > 1) return SelectFile(frame);
  if (frame < 0) return SelectFile(-1);
  if (HRESULT hr = SelectFile(0); FAILED(hr)) return hr;
  *page = frame;
  return S_OK;
}

// ---- Stream queries -------------------------------------------------------------------------

HRESULT CVxTIFFFileParser::GetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    if (HRESULT hr = EnsurePage(); FAILED(hr)) return hr;
    const TiffPage& p = page_;
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    const int frames = FrameCount() > 1 ? FrameCount() : pages_;
    f.frameCount = static_cast<DWORD>(frames > 0 ? frames : 1);
    f.width = p.ShownWidth();
    f.height = p.ShownHeight();
    f.channels = p.HasAlpha() ? 4 : p.Grey() ? 1 : 3;
    const Depth d = p.NativeDepth();
    f.bitsPerPixel = f.channels * (d == Depth::kFloat ? 32 : d == Depth::k16 ? 16 : 8);
    f.hasAlpha = p.HasAlpha() ? 1 : 0;
    f.planes = 1;
    f.frameRate = -1.0;
    const double aspect = AspectOf(p);
    f.pixelAspect = aspect > 0 ? aspect : -1.0;
    f.fieldMode = VX_FIELD_PROGRESSIVE;
    f.pixelFormat = NativeFormat(d);
    std::memcpy(record, &f, sizeof f);
    return S_OK;
  });
}

HRESULT CVxTIFFFileParser::SetOption(void* option, DWORD kind) {
  return vx::Guarded([&]() -> HRESULT {
    if (!option) return E_POINTER;
    if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
    std::string name, value;
    if (!SplitTextOption(option, &name, &value)) return E_INVALIDARG;
    if (name == "compression") {
      if (value == "none") {
        writeCompression_ = Compression::kNone;
      } else if (value == "lzw") {
        writeCompression_ = Compression::kLzw;
      } else if (value == "deflate" || value == "zip") {
        writeCompression_ = Compression::kDeflate;
      } else if (value == "packbits") {
        writeCompression_ = Compression::kPackBits;
      } else {
        return E_INVALIDARG;
      }
      return S_OK;
    }
    if (name == "depth") {
      // A source's 10 or 12 bits go to 16, 32-bit samples are float.
      const int bits = value == "32f" ? 32 : std::atoi(value.c_str());
      if (bits < 1 || bits > 32) return E_INVALIDARG;
      writeDepth_ = bits <= 8 ? 8 : bits <= 16 ? 16 : 32;
      return S_OK;
    }
    return S_FALSE;
  });
}

HRESULT CVxTIFFFileParser::GetCompressionName(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    if (!buffer || size < 1) return E_INVALIDARG;
    if (HRESULT hr = EnsurePage(); FAILED(hr)) return hr;
    return CopyName(vx::FromUtf8(CompressionName(page_.compression)).c_str(), buffer, size);
  });
}

// ---- Pictures -------------------------------------------------------------------------------

HRESULT CVxTIFFFileParser::ReadImage(IVxImage** image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    int page = 0;
    if (HRESULT hr = SelectFrame(frame, &page); FAILED(hr)) return hr;
    // The file is read again, so a picture replaced on disk is seen; every check on it comes
    // before the caller's image is touched.
    if (HRESULT hr = LoadPage(page, true); FAILED(hr)) return hr;
    const TiffPage& p = page_;
    const int w = p.ShownWidth(), h = p.ShownHeight();
    const Depth native = p.NativeDepth();
    const double fileAspect = AspectOf(p);
    const double aspect = AspectImposed() ? PixelAspect() : fileAspect > 0 ? fileAspect : 1.0;
    auto decode = [&](IVxImage* dst, Depth depth) -> HRESULT {
      TiffTarget t;
      t.pixels = dst->GetBuffer();
      t.rowStride = dst->GetRowStride();
      t.depth = depth;
      if (!t.pixels) return E_FAIL;
      std::string error;
      if (!DecodeTiff(data_.data(), data_.size(), page, p, t, &vx::WorkerPool::Shared(), &error))
        return E_FAIL;
      dst->SetPixelAspect(aspect);
      dst->SetFieldMode(VX_FIELD_PROGRESSIVE);
      return S_OK;
    };

    IVxImage* dst = *image;
    const VxPixelFormat f = dst ? dst->GetPixelFormat() : VX_PF_UNKNOWN;
    // Integer pictures unpack straight into 8- or 16-bit RGBA, float ones into float RGBA.
    const bool direct =
        !p.rgbaInterface &&
        (native == Depth::kFloat ? f == VX_PF_RGBAF32 : f == VX_PF_RGBA8 || f == VX_PF_RGBA16);
    if (dst && (direct || f == NativeFormat(native))) {
      if (dst->GetWidth() != w || dst->GetHeight() != h) {
        if (HRESULT hr = dst->Allocate(w, h, f); FAILED(hr)) return hr;
      }
      return decode(dst, f == VX_PF_RGBAF32  ? Depth::kFloat
                         : f == VX_PF_RGBA16 ? Depth::k16
                                             : Depth::k8);
    }
    vx::ComPtr<IVxImage> decoded;
    if (HRESULT hr = VxCreateImage(w, h, NativeFormat(native), decoded.put()); FAILED(hr))
      return hr;
    if (HRESULT hr = decode(decoded.get(), native); FAILED(hr)) return hr;
    if (!dst) {
      *image = decoded.detach();
      return S_OK;
    }
    const VxPixelFormat target = f == VX_PF_UNKNOWN ? NativeFormat(native) : f;
    if (dst->GetWidth() != w || dst->GetHeight() != h || f == VX_PF_UNKNOWN) {
      if (HRESULT hr = dst->Allocate(w, h, target); FAILED(hr)) return hr;
    }
    return VxConvertImage(decoded.get(), dst);
  });
}

HRESULT CVxTIFFFileParser::WriteImage(IVxImage* image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (!IsWriting()) return E_UNEXPECTED;
    const int w = image->GetWidth(), h = image->GetHeight();
    if (w < 1 || h < 1 || w > (1 << 20) || h > (1 << 20)) return E_INVALIDARG;
    const VxPixelFormat f = image->GetPixelFormat();
    const int channels = VxPixelFormatChannels(f);
    int bits = writeDepth_;
    if (bits == 0) {
      bits = f == VX_PF_RGBF32 || f == VX_PF_RGBAF32 || f == VX_PF_GRAYF32 ? 32
             : f == VX_PF_RGB16 || f == VX_PF_RGBA16 || f == VX_PF_GRAY16  ? 16
                                                                           : 8;
    }
    const bool grey = channels == 1;
    bool alpha = channels == 4 && AlphaImposed();
    // The file's layout as a host picture: grey, RGB or RGBA of the chosen depth.
    auto formatOf = [&](bool withAlpha) {
      if (grey) return bits == 32 ? VX_PF_GRAYF32 : bits == 16 ? VX_PF_GRAY16 : VX_PF_GRAY8;
      if (withAlpha) return bits == 32 ? VX_PF_RGBAF32 : bits == 16 ? VX_PF_RGBA16 : VX_PF_RGBA8;
      return bits == 32 ? VX_PF_RGBF32 : bits == 16 ? VX_PF_RGB16 : VX_PF_RGB8;
    };
    vx::ComPtr<IVxImage> converted;
    IVxImage* src = image;
    // An alpha that is everywhere opaque is not written (unless the host asked for one).
    if (channels == 4 && !alpha) {
      vx::ComPtr<IVxImage> probe;
      IVxImage* a = image;
      if (f != VX_PF_RGBA16) {
        if (HRESULT hr = VxCreateImage(w, h, VX_PF_RGBA16, probe.put()); FAILED(hr)) return hr;
        if (HRESULT hr = VxConvertImage(image, probe.get()); FAILED(hr)) return hr;
        a = probe.get();
      }
      const std::uint8_t* px = a->GetBuffer();
      const std::int64_t stride = a->GetRowStride();
      for (int y = 0; y < h && !alpha && px; ++y) {
        const std::uint8_t* row = px + y * stride;
        for (int x = 0; x < w; ++x) {
          std::uint16_t v;
          std::memcpy(&v, row + 8 * x + 6, 2);
          if (v != 65535) {
            alpha = true;
            break;
          }
        }
      }
    }
    const VxPixelFormat want = formatOf(alpha);
    if (f != want) {
      if (HRESULT hr = VxCreateImage(w, h, want, converted.put()); FAILED(hr)) return hr;
      if (HRESULT hr = VxConvertImage(image, converted.get()); FAILED(hr)) return hr;
      src = converted.get();
    }
    const std::uint8_t* pixels = src->GetBuffer();
    if (!pixels) return E_FAIL;

    TiffWriteInfo info;
    info.width = w;
    info.height = h;
    info.channels = grey ? 1 : alpha ? 4 : 3;
    info.depth = bits == 32 ? Depth::kFloat : bits == 16 ? Depth::k16 : Depth::k8;
    info.compression = writeCompression_;
    info.dateTime = NowTiff();
    double aspect = AspectImposed() ? PixelAspect() : 0.0;
    if (IVxMetadata* md = WriteMetadata()) {
      const VxMetadataRecord r = vx::md::GetRecord(md);
      if (!AspectImposed() && (r.present & VX_MD_ASPECT)) aspect = r.pixelAspect;
      info.description = vx::md::GetText(md, vx::md::kDescription);
      info.artist = vx::md::GetText(md, vx::md::kOriginator);
      info.copyright = vx::md::GetText(md, vx::md::kCopyright);
      const std::string date = DateToTiff(vx::md::GetText(md, vx::md::kDate));
      if (!date.empty()) info.dateTime = date;
    }
    if (aspect > 0.0 && aspect < 1e6) info.aspect = aspect;

    std::vector<std::uint8_t> bytes;
    std::string error;
    if (!EncodeTiff(info, pixels, src->GetRowStride(), &bytes, &error)) return E_FAIL;
    const VxString path = OutputFileName(frame);
    if (!vx::fileio::WriteReplacing(path.c_str(), {bytes})) return E_FAIL;
    return S_OK;
  });
}

// ---- Metadata -------------------------------------------------------------------------------

HRESULT CVxTIFFFileParser::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  int page = 0;
  if (frame < 0) {
    if (HRESULT hr = EnsurePage(); FAILED(hr)) return hr;
    if (HRESULT hr = LoadPage(0, false); FAILED(hr)) return hr;
  } else {
    if (HRESULT hr = SelectFrame(frame, &page); FAILED(hr)) return hr;
    if (HRESULT hr = LoadPage(page, false); FAILED(hr)) return hr;
  }
  const TiffPage& p = page_;
  VxMetadataRecord r = vx::md::EmptyRecord();
  r.present |= VX_MD_FIELDMODE;
  r.fieldMode = VX_FIELD_PROGRESSIVE;
  if (const double aspect = AspectOf(p); aspect > 0) {
    r.present |= VX_MD_ASPECT;
    r.pixelAspect = aspect;
  }
  if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
  auto text = [&](std::string_view key, const std::string& value) {
    if (!value.empty()) vx::md::SetText(out, key, value);
  };
  text(vx::md::kDescription, p.description);
  text(vx::md::kCreator, p.software);
  text(vx::md::kOriginator, p.artist);
  text(vx::md::kCopyright, p.copyright);
  text(vx::md::kDate, p.dateTime.empty() ? std::string() : DateFromTiff(p.dateTime));
  text(vx::md::kProject, p.documentName);
  text("tiff:pages", std::to_string(p.pages));
  text("tiff:compression", CompressionName(p.compression));
  text("tiff:predictor", p.predictor == 2   ? "horizontal"
                         : p.predictor == 3 ? "floating-point"
                                            : "none");
  text("tiff:sample-format", p.sampleFormat == 3 ? "float" : p.sampleFormat == 2 ? "int" : "uint");
  text("tiff:bits", std::to_string(p.bits));
  text("tiff:photometric", PhotometricName(p.photometric));
  text("tiff:planar", p.planar == 2 ? "separate" : "contig");
  text("tiff:layout", p.tiled ? "tiles" : "strips");
  static const char* const kOrientation[] = {
      "",         "top-left",  "top-right",    "bottom-right", "bottom-left",
      "left-top", "right-top", "right-bottom", "left-bottom"};
  text("tiff:orientation", kOrientation[p.orientation]);
  if (p.alpha)
    text("tiff:alpha", p.alpha == 1 ? "associated" : p.alpha == 2 ? "unassociated" : "unspecified");
  if (p.xres > 0 && p.yres > 0) {
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%g x %g per %s", static_cast<double>(p.xres),
                  static_cast<double>(p.yres),
                  p.resolutionUnit == 3   ? "centimetre"
                  : p.resolutionUnit == 2 ? "inch"
                                          : "unit");
    text("tiff:resolution", buffer);
  }
  return S_OK;
}
