#include "still/targa/targa_parser.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "fileio/whole_file.h"
#include "base/checked.h"
#include "base/guard.h"
#include "base/text.h"
#include "base/worker_pool.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"

using namespace vx::targa;

namespace {

std::string DateText(const std::uint16_t d[6]) {
  // month, day, year, hour, minute, second
  if (d[2] == 0 || d[0] < 1 || d[0] > 12 || d[1] < 1 || d[1] > 31) return {};
  char text[48];
  if (d[3] < 24 && d[4] < 60 && d[5] < 60) {
    std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u", d[2], d[0], d[1], d[3], d[4],
                  d[5]);
  } else {
    std::snprintf(text, sizeof text, "%04u-%02u-%02u", d[2], d[0], d[1]);
  }
  return text;
}

// Days since 1970-01-01 to year, month, day (proleptic Gregorian), so no non-reentrant C call.
void CivilFromDays(std::int64_t z, int* y, unsigned* m, unsigned* d) {
  z += 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *d = doy - (153 * mp + 2) / 5 + 1;
  *m = mp < 10 ? mp + 3 : mp - 9;
  *y = static_cast<int>(static_cast<std::int64_t>(yoe) + era * 400 + (*m <= 2));
}

void NowUtc(std::uint16_t d[6]) {
  const std::int64_t t = static_cast<std::int64_t>(std::time(nullptr));
  const std::int64_t days = t >= 0 ? t / 86400 : (t - 86399) / 86400;
  const std::int64_t secs = t - days * 86400;
  int y;
  unsigned m, day;
  CivilFromDays(days, &y, &m, &day);
  d[0] = static_cast<std::uint16_t>(m);
  d[1] = static_cast<std::uint16_t>(day);
  d[2] = static_cast<std::uint16_t>(y);
  d[3] = static_cast<std::uint16_t>(secs / 3600);
  d[4] = static_cast<std::uint16_t>(secs / 60 % 60);
  d[5] = static_cast<std::uint16_t>(secs % 60);
}

bool ParseNumbers(const std::string& text, unsigned* v, int count, const char* format) {
  if (count == 3) return std::sscanf(text.c_str(), format, &v[0], &v[1], &v[2]) == 3;
  return std::sscanf(text.c_str(), format, &v[0], &v[1], &v[2], &v[3]) == 4;
}

}  // namespace

CVxTargaFileParser::CVxTargaFileParser() = default;
CVxTargaFileParser::~CVxTargaFileParser() = default;

// ---- Header ---------------------------------------------------------------------------------

HRESULT CVxTargaFileParser::LoadHeader(vx::os::UniqueFile* keep) {
  if (keep) keep->reset();
  const VxString& name = CurrentFileName();
  if (name.empty()) return E_FAIL;
  const bool same = loaded_ && name == loadedName_;
  if (same && !keep) return S_OK;
  vx::os::UniqueFile file(vx::os::OpenRead(name.c_str()));
  if (!same) {
    // The state is replaced only by a header that parsed whole.
    loaded_ = false;
    loadedName_.clear();
    TargaHeader parsed;
    std::vector<std::uint32_t> map;
    if (!file || !ReadTargaHeader(file.get(), &parsed, &map)) return E_FAIL;
    header_ = std::move(parsed);
    map_ = std::move(map);
    loadedName_ = name;
    loaded_ = true;
  }
  if (!file) return E_FAIL;
  if (keep) *keep = std::move(file);
  return S_OK;
}

HRESULT CVxTargaFileParser::EnsureHeader() {
  // A pattern names no file of its own: take the sequence's first existing file.
  if (!vx::os::IsFile(CurrentFileName().c_str())) {
    if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
  }
  return LoadHeader(nullptr);
}

HRESULT CVxTargaFileParser::ReadData(vx::os::FileHandle file) {
  const TargaHeader& h = header_;
  std::uint64_t size = 0;
  if (!vx::os::Size(file, &size) || size < h.dataOffset) return E_FAIL;
  // Uncompressed lines are exactly their bytes; run-length data is read to the end of the file,
  // as only the walk over its packets tells where it stops.
  std::uint64_t bytes = size - h.dataOffset;
  if (!h.Rle())
    bytes = std::uint64_t{h.width} * h.height * static_cast<std::uint64_t>(h.PixelBytes());
  if (bytes > size - h.dataOffset || !vx::FitsSizeT(bytes) || bytes > 0xFFFFFFFFu) return E_FAIL;
  dataBytes_ = 0;
  if (data_.size() < bytes) {
    data_.clear();
    data_.resize(static_cast<std::size_t>(bytes));
  }
  if (!vx::fileio::ReadAllParallel(file, h.dataOffset, data_.data(), bytes)) return E_FAIL;
  if (!CheckTargaData(h, data_.data(), static_cast<std::size_t>(bytes))) return E_FAIL;
  dataBytes_ = static_cast<std::size_t>(bytes);
  return S_OK;
}

// ---- Stream queries -------------------------------------------------------------------------

HRESULT CVxTargaFileParser::GetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    const TargaHeader& h = header_;
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    const int frames = FrameCount();
    f.frameCount = static_cast<DWORD>(frames > 0 ? frames : 1);
    f.width = h.width;
    f.height = h.height;
    const bool alpha = h.UsesAlpha();
    f.channels = h.Grey() && !alpha ? 1 : alpha ? 4 : 3;
    f.bitsPerPixel = 8 * f.channels;
    f.hasAlpha = alpha ? 1 : 0;
    f.planes = 1;
    f.frameRate = -1.0;
    f.pixelAspect = -1.0;
    if (h.ext.aspect[0] && h.ext.aspect[1])
      f.pixelAspect = static_cast<double>(h.ext.aspect[0]) / h.ext.aspect[1];
    f.fieldMode = VX_FIELD_PROGRESSIVE;
    f.pixelFormat = VX_PF_BGRA8;
    std::memcpy(record, &f, sizeof f);
    return S_OK;
  });
}

HRESULT CVxTargaFileParser::SetOption(void* option, DWORD kind) {
  return vx::Guarded([&]() -> HRESULT {
    if (!option) return E_POINTER;
    if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
    std::string name, value;
    if (!SplitTextOption(option, &name, &value)) return E_INVALIDARG;
    if (name == "compression") {
      if (value == "rle") {
        writeRle_ = true;
      } else if (value == "none") {
        writeRle_ = false;
      } else {
        return E_INVALIDARG;
      }
      return S_OK;
    }
    if (name == "origin") {
      if (value == "bottom-left") {
        writeTopToBottom_ = false;
      } else if (value == "top-left") {
        writeTopToBottom_ = true;
      } else {
        return E_INVALIDARG;
      }
      return S_OK;
    }
    return S_FALSE;
  });
}

HRESULT CVxTargaFileParser::GetCompressionName(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    if (!buffer || size < 1) return E_INVALIDARG;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    const TargaHeader& h = header_;
    const char* kind = h.Mapped() ? "colour-mapped" : h.Grey() ? "grey" : "true colour";
    char text[64];
    std::snprintf(text, sizeof text, "%d bit %s, %s", h.pixelBits, kind, h.Rle() ? "RLE" : "none");
    return CopyName(vx::FromUtf8(text).c_str(), buffer, size);
  });
}

// ---- Pictures -------------------------------------------------------------------------------

HRESULT CVxTargaFileParser::ReadImage(IVxImage** image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    vx::os::UniqueFile file;
    if (HRESULT hr = LoadHeader(&file); FAILED(hr)) return hr;
    // Every check on the file comes before the caller's image is touched.
    if (HRESULT hr = ReadData(file.get()); FAILED(hr)) return hr;
    file.reset();
    const TargaHeader& h = header_;
    const int w = h.width, hgt = h.height;
    const double aspect = AspectImposed() ? PixelAspect()
                          : h.ext.aspect[0] && h.ext.aspect[1]
                              ? static_cast<double>(h.ext.aspect[0]) / h.ext.aspect[1]
                              : 1.0;
    auto decode = [&](IVxImage* dst) -> HRESULT {
      TargaTarget t;
      t.pixels = dst->GetBuffer();
      t.rowStride = dst->GetRowStride();
      t.rgba = dst->GetPixelFormat() == VX_PF_RGBA8;
      if (!DecodeTarga(h, map_, data_.data(), dataBytes_, t, &vx::WorkerPool::Shared()))
        return E_FAIL;
      dst->SetPixelAspect(aspect);
      dst->SetFieldMode(VX_FIELD_PROGRESSIVE);
      return S_OK;
    };

    IVxImage* dst = *image;
    const VxPixelFormat f = dst ? dst->GetPixelFormat() : VX_PF_UNKNOWN;
    // A map index can only be checked while decoding, so a mapped picture goes through a
    // picture of our own and never leaves the caller's half drawn.
    if (dst && (f == VX_PF_BGRA8 || f == VX_PF_RGBA8) && !h.Mapped()) {
      if (dst->GetWidth() != w || dst->GetHeight() != hgt) {
        if (HRESULT hr = dst->Allocate(w, hgt, f); FAILED(hr)) return hr;
      }
      return decode(dst);
    }
    vx::ComPtr<IVxImage> decoded;
    if (HRESULT hr = VxCreateImage(w, hgt, VX_PF_BGRA8, decoded.put()); FAILED(hr)) return hr;
    if (HRESULT hr = decode(decoded.get()); FAILED(hr)) return hr;
    if (!dst) {
      *image = decoded.detach();
      return S_OK;
    }
    const VxPixelFormat target = f == VX_PF_UNKNOWN ? VX_PF_BGRA8 : f;
    if (dst->GetWidth() != w || dst->GetHeight() != hgt || f == VX_PF_UNKNOWN) {
      if (HRESULT hr = dst->Allocate(w, hgt, target); FAILED(hr)) return hr;
    }
    return VxConvertImage(decoded.get(), dst);
  });
}

HRESULT CVxTargaFileParser::WriteImage(IVxImage* image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (!IsWriting()) return E_UNEXPECTED;
    const int w = image->GetWidth(), h = image->GetHeight();
    if (w < 1 || h < 1 || w > 65535 || h > 65535) return E_INVALIDARG;
    VxPixelFormat f = image->GetPixelFormat();
    vx::ComPtr<IVxImage> converted;
    IVxImage* src = image;
    if (f != VX_PF_BGRA8 && f != VX_PF_RGBA8) {
      if (HRESULT hr = VxCreateImage(w, h, VX_PF_BGRA8, converted.put()); FAILED(hr)) return hr;
      if (HRESULT hr = VxConvertImage(image, converted.get()); FAILED(hr)) return hr;
      src = converted.get();
    }
    const std::uint8_t* pixels = src->GetBuffer();
    const std::int64_t stride = src->GetRowStride();
    if (!pixels) return E_FAIL;

    TargaWriteInfo info;
    info.rle = writeRle_;
    info.topToBottom = writeTopToBottom_;
    // 32-bit only when the picture has an alpha that is not everywhere opaque (or the host
    // asked for one).
    const int channels = VxPixelFormatChannels(f);
    info.alpha = AlphaImposed() && channels == 4;
    if (channels == 4 && !info.alpha) {
      for (int y = 0; y < h && !info.alpha; ++y) {
        const std::uint8_t* row = pixels + y * stride;
        for (int x = 0; x < w; ++x) {
          if (row[4 * x + 3] != 255) {
            info.alpha = true;
            break;
          }
        }
      }
    }
    NowUtc(info.date);
    double aspect = AspectImposed() ? PixelAspect() : 0.0;
    if (IVxMetadata* md = WriteMetadata()) {
      const VxMetadataRecord r = vx::md::GetRecord(md);
      if (!AspectImposed() && (r.present & VX_MD_ASPECT)) aspect = r.pixelAspect;
      info.imageId = vx::md::GetText(md, vx::md::kDescription);
      info.author = vx::md::GetText(md, vx::md::kOriginator);
      info.comment = vx::md::GetText(md, vx::md::kComment);
      info.job = vx::md::GetText(md, "targa:job");
      unsigned v[4] = {};
      if (ParseNumbers(vx::md::GetText(md, "targa:job-time"), v, 3, "%u:%u:%u"))
        for (int i = 0; i < 3; ++i)
          info.jobTime[i] = static_cast<std::uint16_t>(std::min(v[i], 65535u));
      if (ParseNumbers(vx::md::GetText(md, "targa:key-color"), v, 4, "%u,%u,%u,%u"))
        info.keyColor = (std::min(v[3], 255u) << 24) | (std::min(v[0], 255u) << 16) |
                        (std::min(v[1], 255u) << 8) | std::min(v[2], 255u);
      const std::string gamma = vx::md::GetText(md, "targa:gamma");
      if (!gamma.empty()) Fraction(std::atof(gamma.c_str()), info.gamma);
    }
    if (aspect > 0.0) Fraction(aspect, info.aspect);

    std::vector<std::uint8_t> bytes;
    if (!EncodeTarga(info, pixels, stride, src->GetPixelFormat() == VX_PF_RGBA8, w, h,
                     &vx::WorkerPool::Shared(), &bytes))
      return E_FAIL;
    const VxString path = OutputFileName(frame);
    if (!vx::fileio::WriteReplacing(path.c_str(), {bytes})) return E_FAIL;
    return S_OK;
  });
}

// ---- Metadata -------------------------------------------------------------------------------

HRESULT CVxTargaFileParser::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(nullptr); FAILED(hr)) return hr;
  const TargaHeader& h = header_;
  const TargaExtension& x = h.ext;
  VxMetadataRecord r = vx::md::EmptyRecord();
  r.present |= VX_MD_FIELDMODE;
  r.fieldMode = VX_FIELD_PROGRESSIVE;
  if (x.aspect[0] && x.aspect[1]) {
    r.present |= VX_MD_ASPECT;
    r.pixelAspect = static_cast<double>(x.aspect[0]) / x.aspect[1];
  }
  if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
  auto text = [&](std::string_view key, const std::string& value) {
    if (!value.empty()) vx::md::SetText(out, key, value);
  };
  text(vx::md::kDescription, h.imageId);
  text(vx::md::kCreator, x.software);
  text(vx::md::kOriginator, x.author);
  text(vx::md::kComment, x.comment);
  text(vx::md::kDate, DateText(x.date));
  text("targa:origin", OriginName(h.descriptor));
  text("targa:alpha", AlphaKindName(h.Alpha()));
  if (!x.present) return S_OK;
  text("targa:software-version", x.softwareVersion);
  text("targa:job", x.job);
  char buffer[48];
  if (x.jobTime[0] || x.jobTime[1] || x.jobTime[2]) {
    std::snprintf(buffer, sizeof buffer, "%u:%02u:%02u", x.jobTime[0], x.jobTime[1], x.jobTime[2]);
    text("targa:job-time", buffer);
  }
  if (x.gamma[0] && x.gamma[1]) {
    std::snprintf(buffer, sizeof buffer, "%.4g", static_cast<double>(x.gamma[0]) / x.gamma[1]);
    text("targa:gamma", buffer);
  }
  if (x.keyColor) {
    // R, G, B, A
    std::snprintf(buffer, sizeof buffer, "%u,%u,%u,%u", x.keyColor >> 16 & 255,
                  x.keyColor >> 8 & 255, x.keyColor & 255, x.keyColor >> 24);
    text("targa:key-color", buffer);
  }
  return S_OK;
}
