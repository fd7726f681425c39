#include "still/dpx/dpx_parser.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "fileio/whole_file.h"
#include "base/checked.h"
#include "base/guard.h"
#include "base/worker_pool.h"
#include "vx/com_ptr.h"
#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_metadata.h"
#include "still/dpx/dpx_report.h"
#include "still/dpx/dpx_unpack.h"

using namespace vx::dpx;

namespace {

constexpr DWORD kPictureCapabilities = 170;
// A sequence whose files carry no rate is timed at the film rate.
constexpr double kDefaultFrameRate = 24.0;

// Orientations 4-7 store the picture's columns as lines.
std::uint32_t PictureWidth(const DpxHeaderState& s) {
  return s.orientation >= 4 ? s.height : s.width;
}
std::uint32_t PictureHeight(const DpxHeaderState& s) {
  return s.orientation >= 4 ? s.width : s.height;
}

bool IsLuma(const DpxHeaderState& s) {
  return s.elements[0].descriptor == kDescLuma;
}

// The export layout that reproduces a file's element layout (Keep for luma, which has none).
DpxLayout SourceLayout(const DpxHeaderState& s) {
  const bool alpha = s.SeparateAlpha() != nullptr;
  if (s.Planar()) return alpha ? DpxLayout::PlanarRGBA : DpxLayout::PlanarRGB;
  switch (s.elements[0].descriptor) {
    case kDescRGB:
      return alpha ? DpxLayout::RGBPlusAlpha : DpxLayout::PackedRGB;
    case kDescBGR:
      return alpha ? DpxLayout::BGRPlusAlpha : DpxLayout::PackedBGR;
    case kDescRGBA:
      return DpxLayout::PackedRGBA;
    case kDescABGR:
      return DpxLayout::PackedABGR;
    default:
      return DpxLayout::Keep;
  }
}

}  // namespace

CVxDPXFileParser::CVxDPXFileParser(int mode) : isDpx_(mode != 0) {
  state_.isDpx = isDpx_;
}

CVxDPXFileParser::~CVxDPXFileParser() = default;

HRESULT CVxDPXFileParser::QueryInterface(REFIID riid, void** ppv) {
  return vx::Guarded([&]() -> HRESULT {
    if (!ppv) return E_POINTER;
    if (riid == IID_IVxParserSourceInfo) {
      *ppv = static_cast<IVxParserSourceInfo*>(this);
    } else if (riid == IID_IVxColorManagedParser) {
      *ppv = static_cast<IVxColorManagedParser*>(this);
    } else if (riid == IID_IVxParserLUTInfo) {
      *ppv = static_cast<IVxParserLUTInfo*>(this);
    } else {
      return CVxStillImageParser::QueryInterface(riid, ppv);
    }
    AddRef();
    return S_OK;
  });
}

// ---- Header ---------------------------------------------------------------------------------

HRESULT CVxDPXFileParser::LoadHeader(vx::os::UniqueFile* keep) {
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
    DpxHeaderState parsed;
    if (!file || !ReadDpxHeaderFile(file.get(), isDpx_, &parsed)) return E_FAIL;
    state_ = std::move(parsed);
    loadedName_ = name;
    loaded_ = true;
  }
  if (!file) return E_FAIL;
  if (keep) *keep = std::move(file);
  return S_OK;
}

HRESULT CVxDPXFileParser::EnsureHeader() {
  // A pattern names no file of its own: take the sequence's first existing file.
  if (!vx::os::IsFile(CurrentFileName().c_str())) {
    if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
  }
  return LoadHeader(nullptr);
}

double CVxDPXFileParser::FrameRate() const {
  return imposedRate_ > 0.0 ? imposedRate_ : state_.frameRate;
}

std::int32_t CVxDPXFileParser::FieldMode() const {
  return imposedField_ >= 0 ? imposedField_ : state_.fieldMode;
}

VxPixelFormat CVxDPXFileParser::NativeFormat() const {
  const bool isFloat = state_.maxBits >= 32;
  if (IsLuma(state_) && !state_.hasAlpha) return isFloat ? VX_PF_GRAYF32 : VX_PF_GRAY16;
  if (state_.hasAlpha) return isFloat ? VX_PF_RGBAF32 : VX_PF_RGBA16;
  return isFloat ? VX_PF_RGBF32 : VX_PF_RGB16;
}

// ---- Stream queries -------------------------------------------------------------------------

HRESULT CVxDPXFileParser::SetStreamFormat(DWORD kind, DWORD index, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    const auto* bytes = static_cast<const unsigned char*>(record);
    double rate;
    std::int32_t field;
    std::memcpy(&rate, bytes + offsetof(tagVxImageStreamFormat, frameRate), sizeof rate);
    std::memcpy(&field, bytes + offsetof(tagVxImageStreamFormat, fieldMode), sizeof field);
    if (rate > 0.0 && rate < 8000.0) imposedRate_ = rate;
    if (field >= VX_FIELD_LOWER_FIRST && field <= VX_FIELD_UNKNOWN) imposedField_ = field;
    return CVxStillImageParser::SetStreamFormat(kind, index, record);
  });
}

HRESULT CVxDPXFileParser::GetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    const int frames = FrameCount();
    f.frameCount = static_cast<DWORD>(frames > 0 ? frames : 1);
    f.width = PictureWidth(state_);
    f.height = PictureHeight(state_);
    f.channels = state_.hasAlpha ? 4 : 3;
    f.bitsPerPixel = state_.maxBits * f.channels;
    f.hasAlpha = state_.hasAlpha ? 1 : 0;
    f.planes = 1;
    f.frameRate = FrameRate();
    f.pixelAspect = state_.aspectKnown ? state_.pixelAspect : -1.0;
    f.fieldMode = FieldMode();
    f.pixelFormat = NativeFormat();
    std::memcpy(record, &f, sizeof f);
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::GetStreamCapabilities(DWORD /*mode*/, DWORD kind, DWORD* caps) {
  return vx::Guarded([&]() -> HRESULT {
    if (!caps) return E_POINTER;
    *caps = kind == VX_STREAM_PICTURE ? kPictureCapabilities : 0;
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::GetTimeRange(DWORD kind, CVxTime* start, CVxTime* end) {
  return vx::Guarded([&]() -> HRESULT {
    if (!start || !end) return E_POINTER;
    *start = CVxTime();
    *end = CVxTime();
    if (kind != VX_STREAM_PICTURE) return S_FALSE;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    const double rate = FrameRate() > 0.0 ? FrameRate() : kDefaultFrameRate;
    const int frames = std::max(FrameCount(), 1);
    *end = CVxTime(frames, VxGetTimeFormatFromSampleRate(rate));
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::SetOption(void* option, DWORD kind) {
  return vx::Guarded([&]() -> HRESULT {
    if (!option) return E_POINTER;
    if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
    return ApplyDpxOption(static_cast<const VxChar*>(option), &export_, &import_);
  });
}

HRESULT CVxDPXFileParser::GetCompressionName(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    if (!buffer || size < 1) return E_INVALIDARG;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    const DpxHeaderState& s = state_;
    const bool separateAlpha = s.SeparateAlpha() != nullptr;
    std::string order;
    if (s.Planar()) {
      order = separateAlpha ? "R+G+B+A" : "R+G+B";
    } else if (IsLuma(s)) {
      order = separateAlpha ? "Y+A" : "Y";
    } else {
      order = s.reversedOrder ? "BGR" : "RGB";
      if (separateAlpha) {
        order += "+A";
      } else if (s.hasAlpha) {
        order += "A";
      }
    }
    // Packing only changes the bytes of 10- and 12-bit data, so only those name it.
    static const char* const kPacking[] = {"Packed", "Fill Method A", "Fill Method B"};
    const std::uint32_t packing = s.elements[0].packing;
    const bool namePacking = (s.maxBits == 10 || s.maxBits == 12) && packing < 3;
    char text[96];
    std::snprintf(text, sizeof text, "%d bit %s%s%s", static_cast<int>(s.maxBits), order.c_str(),
                  namePacking ? ", " : "", namePacking ? kPacking[packing] : "");
    return CopyName(vx::FromUtf8(text).c_str(), buffer, size);
  });
}

// ---- Pictures -------------------------------------------------------------------------------

HRESULT CVxDPXFileParser::ReadElements(vx::os::FileHandle file) {
  const DpxHeaderState& s = state_;
  // Which elements feed which channels.
  struct Source {
    const DpxElementInfo* info;
    std::int8_t map[4];
  };
  Source sources[4];
  int count = 0;
  if (s.Planar()) {
    for (int slot = 0; slot < 3; ++slot) {
      sources[count++] = {&s.elements[slot], {static_cast<std::int8_t>(slot), -1, -1, -1}};
    }
  } else {
    const DpxElementInfo& e = s.elements[0];
    Source src{&e, {0, 1, 2, 3}};
    if (s.reversedOrder && e.components == 3) {
      src.map[0] = 2;
      src.map[2] = 0;
    } else if (s.reversedOrder && e.components == 4) {
      src.map[0] = 3;
      src.map[1] = 2;
      src.map[2] = 1;
      src.map[3] = 0;
    }
    sources[count++] = src;
  }
  if (const DpxElementInfo* alpha = s.SeparateAlpha()) {
    sources[count++] = {alpha, {3, -1, -1, -1}};
  }

  jobCount_ = 0;
  std::uint64_t fileSize = 0;
  if (!vx::os::Size(file, &fileSize)) return E_FAIL;
  for (int i = 0; i < count; ++i) {
    const DpxElementInfo& e = *sources[i].info;
    DpxElementJob& job = jobs_[i];
    job = DpxElementJob();
    job.layout.bits = e.bitDepth;
    job.layout.packing = e.packing;
    job.layout.components = e.components;
    job.layout.bigEndian = s.bigEndian;
    std::memcpy(job.channelOf, sources[i].map, sizeof job.channelOf);
    const std::uint64_t line =
        isDpx_ ? DpxLineBytes(e.bitDepth, e.packing, s.width, e.components, false)
               : CineonLineBytes(e.bitDepth, s.width, e.components);
    const std::uint64_t need = DpxSampleBytes(job.layout, std::uint64_t{s.width} * e.components);
    // The last line needs only its samples; the others their whole stride.
    auto span = [&](std::uint64_t stride, std::uint64_t* bytes) {
      constexpr std::uint64_t kMaxRead = std::numeric_limits<std::uint32_t>::max();
      return vx::CheckedProduct(bytes, s.height - 1, stride) &&
             vx::CheckedAdd(*bytes, need, bytes) && *bytes <= kMaxRead;
    };
    std::uint64_t stride = line + e.eolPadding;
    const std::uint64_t available = e.dataOffset <= fileSize ? fileSize - e.dataOffset : 0;
    // Writers disagree on whether a line ends on a 32-bit word: some leave 8-bit lines unpadded,
    // some pad 16-bit ones. When the data holds exactly the lines of the other length (and not
    // those of ours), the file was written that way.
    const std::uint64_t padded = (need + 3) & ~std::uint64_t{3};
    if (isDpx_ && e.eolPadding == 0 && padded != need) {
      const std::uint64_t other = line == need ? padded : need;
      std::uint64_t ours = 0, theirs = 0;
      if (vx::CheckedProduct(&theirs, other, s.height) && theirs == available &&
          !(vx::CheckedProduct(&ours, line, s.height) && ours == available)) {
        stride = other;
      }
    }
    std::uint64_t bytes = 0;
    if (!span(stride, &bytes)) return E_FAIL;
    if (bytes > available) return E_FAIL;  // truncated
    job.rowStride = stride;
    std::vector<std::uint8_t>& buffer = buffers_[i];
    if (buffer.size() < bytes) buffer.resize(bytes);
    if (!vx::fileio::ReadAllParallel(file, e.dataOffset, buffer.data(), bytes)) return E_FAIL;
    job.data = buffer.data();
    job.size = static_cast<std::size_t>(bytes);
  }
  jobCount_ = count;
  return S_OK;
}

HRESULT CVxDPXFileParser::DecodeInto(IVxImage* image) {
  const DpxHeaderState& s = state_;
  const VxPixelFormat format = image->GetPixelFormat();
  DpxTarget target;
  target.pixels = image->GetBuffer();
  target.rowStride = image->GetRowStride();
  target.width = PictureWidth(s);
  target.height = PictureHeight(s);
  target.channels = static_cast<std::uint32_t>(VxPixelFormatChannels(format));
  target.isFloat = format == VX_PF_RGBAF32 || format == VX_PF_RGBF32 || format == VX_PF_GRAYF32;
  for (int i = 0; i < jobCount_; ++i) {
    jobs_[i].replicateLuma =
        jobs_[i].layout.components == 1 && IsLuma(s) && i == 0 && target.channels >= 3;
  }
  const int fill = target.channels == 4 && !s.hasAlpha ? 3 : -1;
  if (!DpxDecode(jobs_, jobCount_, target, s.orientation, fill, &vx::WorkerPool::Shared()))
    return E_FAIL;
  return S_OK;
}

HRESULT CVxDPXFileParser::ReadImage(IVxImage** image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!image) return E_POINTER;
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    vx::os::UniqueFile file;
    if (HRESULT hr = LoadHeader(&file); FAILED(hr)) return hr;

    const DpxHeaderState& s = state_;
    constexpr std::uint32_t kIntMax = static_cast<std::uint32_t>(std::numeric_limits<int>::max());
    if (s.width == 0 || s.height == 0 || s.width > kIntMax || s.height > kIntMax) return E_FAIL;
    const int w = static_cast<int>(PictureWidth(s)), h = static_cast<int>(PictureHeight(s));
    VxPixelFormat native = NativeFormat();
    // The host asked for an alpha channel the file lacks: hand it an opaque one.
    if (AlphaImposed() && native == VX_PF_RGB16) native = VX_PF_RGBA16;
    if (AlphaImposed() && native == VX_PF_RGBF32) native = VX_PF_RGBAF32;
    const double aspect = AspectImposed() ? PixelAspect() : s.aspectKnown ? s.pixelAspect : 1.0;
    const int field = FieldMode();
    // Every check on the file comes before the caller's image is touched.
    if (HRESULT hr = ReadElements(file.get()); FAILED(hr)) return hr;

    IVxImage* dst = *image;
    bool direct = false;
    if (dst) {
      const VxPixelFormat f = dst->GetPixelFormat();
      direct = f == VX_PF_RGBA16 || f == VX_PF_RGB16 || f == VX_PF_RGBAF32 || f == VX_PF_RGBF32 ||
               ((f == VX_PF_GRAY16 || f == VX_PF_GRAYF32) && IsLuma(s));
    }
    if (dst && direct) {
      // Decode straight into the caller's pixels, after everything that can fail on the file.
      if (dst->GetWidth() != w || dst->GetHeight() != h) {
        if (HRESULT hr = dst->Allocate(w, h, dst->GetPixelFormat()); FAILED(hr)) return hr;
      }
      if (HRESULT hr = DecodeInto(dst); FAILED(hr)) return hr;
      dst->SetPixelAspect(aspect);
      dst->SetFieldMode(field);
      return S_OK;
    }
    vx::ComPtr<IVxImage> decoded;
    if (HRESULT hr = VxCreateImage(w, h, native, decoded.put()); FAILED(hr)) return hr;
    if (HRESULT hr = DecodeInto(decoded.get()); FAILED(hr)) return hr;
    decoded->SetPixelAspect(aspect);
    decoded->SetFieldMode(field);
    if (!dst) {
      *image = decoded.detach();
      return S_OK;
    }
    // Another format: convert from the native picture.
    VxPixelFormat f = dst->GetPixelFormat();
    if (f == VX_PF_UNKNOWN) f = native;
    if (dst->GetWidth() != w || dst->GetHeight() != h || dst->GetPixelFormat() == VX_PF_UNKNOWN) {
      if (HRESULT hr = dst->Allocate(w, h, f); FAILED(hr)) return hr;
    }
    return VxConvertImage(decoded.get(), dst);
  });
}

HRESULT CVxDPXFileParser::SetFlag(DWORD which, DWORD value) {
  return vx::Guarded([&]() -> HRESULT {
    // Flag 0 marks the stream's frames as carrying no time code.
    return CVxStillImageParser::SetFlag(which, value);
  });
}

// ---- Source information ---------------------------------------------------------------------

HRESULT CVxDPXFileParser::GetTimeCode(std::int32_t frame, DWORD* bcd) {
  return vx::Guarded([&]() -> HRESULT {
    if (!bcd) return E_POINTER;
    *bcd = 0;
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(nullptr); FAILED(hr)) return hr;
    int hh, mm, ss, ff;
    if (state_.timeCode == kUndef32 || StreamFlag() ||
        !VxParseLTCInBCD(state_.timeCode, &hh, &mm, &ss, &ff)) {
      return S_FALSE;
    }
    *bcd = VxConstructLTCInBCD(hh, mm, ss, ff);
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::GetEdgeCode(std::int32_t frame, EdgeCode* code) {
  return vx::Guarded([&]() -> HRESULT {
    if (!code) return E_POINTER;
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(nullptr); FAILED(hr)) return hr;
    *code = state_.edgeCode;
    return state_.edgeCode.IsValid() ? S_OK : S_FALSE;
  });
}

HRESULT CVxDPXFileParser::GetUserBits(std::int32_t frame, DWORD* bits) {
  return vx::Guarded([&]() -> HRESULT {
    if (!bits) return E_POINTER;
    *bits = 0;
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(nullptr); FAILED(hr)) return hr;
    if (state_.userBits == kUndef32) return S_FALSE;
    *bits = state_.userBits;
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::GetFrameRate(double* fps) {
  return vx::Guarded([&]() -> HRESULT {
    if (!fps) return E_POINTER;
    *fps = -1.0;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    *fps = FrameRate();
    return *fps > 0.0 ? S_OK : S_FALSE;
  });
}

HRESULT CVxDPXFileParser::GetFieldMode(std::int32_t* mode) {
  return vx::Guarded([&]() -> HRESULT {
    if (!mode) return E_POINTER;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    *mode = FieldMode();
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::GetInputDevice(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    if (!buffer || size < 1) return E_INVALIDARG;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    if (HRESULT hr = CopyName(vx::FromUtf8(state_.inputDevice).c_str(), buffer, size); FAILED(hr)) {
      return hr;
    }
    return state_.inputDevice[0] ? S_OK : S_FALSE;
  });
}

HRESULT CVxDPXFileParser::GetHeaderReport(VxChar* buffer, int capacity) {
  return vx::Guarded([&]() -> HRESULT {
    if (!buffer || capacity < kReportMinCapacity) return E_INVALIDARG;
    if (!CurrentFileName().empty() && !vx::os::IsFile(CurrentFileName().c_str())) {
      if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
    }
    const VxString& name = CurrentFileName();
    return DpxHeaderReport(name.empty() ? nullptr : name.c_str(), buffer, capacity);
  });
}

HRESULT CVxDPXFileParser::GetMetadata(std::int32_t frame, IVxMetadata* out) {
  if (!out) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(nullptr); FAILED(hr)) return hr;
    const DpxHeaderState& s = state_;
    VxMetadataRecord r = vx::md::EmptyRecord();
    int hh, mm, ss, ff;
    if (s.timeCode != kUndef32 && !StreamFlag() &&
        VxParseLTCInBCD(s.timeCode, &hh, &mm, &ss, &ff)) {
      r.present |= VX_MD_TIMECODE;
      r.timeCode = s.timeCode;
      if (FrameRate() > 0.0) r.timeCodeRate = VxGetTimeFormatFromSampleRate(FrameRate());
    }
    if (s.userBits != kUndef32) {
      r.present |= VX_MD_USERBITS;
      r.userBits = s.userBits;
    }
    if (FrameRate() > 0.0) {
      r.present |= VX_MD_FRAMERATE;
      r.frameRate = VxGetTimeFormatFromSampleRate(FrameRate());
    }
    r.present |= VX_MD_FIELDMODE;
    r.fieldMode = FieldMode();
    if (s.aspectKnown) {
      r.present |= VX_MD_ASPECT;
      r.pixelAspect = s.pixelAspect;
    }
    // The DPX transfer table is the record's, one place up.
    if (s.elements[0].transfer <= 12) {
      r.present |= VX_MD_TRANSFER;
      r.transfer = s.elements[0].transfer + 1;
    }
    r.present |= VX_MD_LEVELS;
    r.levels = {s.gamma, s.blackLevel, s.blackGain, s.breakPoint, s.whiteLevel};
    out->Clear();
    if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
    if (s.edgeCode.IsValid()) vx::md::SetText(out, vx::md::kEdgeCode, s.edgeCode.ToString());
    if (s.inputDevice[0]) vx::md::SetText(out, vx::md::kInputDevice, s.inputDevice);
    // What a DPX writer needs to lay the picture out as this file was.
    vx::md::SetText(out, "dpx:bits", std::to_string(s.maxBits));
    vx::md::SetText(out, "dpx:packing", std::to_string(s.elements[0].packing));
    if (SourceLayout(s) != DpxLayout::Keep)
      vx::md::SetText(out, "dpx:layout", LayoutOptionName(SourceLayout(s)));
    const HRESULT hr = AddFileHeaderMetadata(CurrentFileName().c_str(), s.isDpx, out);
    return FAILED(hr) ? hr : S_OK;
  });
}

// ---- Colour management ----------------------------------------------------------------------

HRESULT CVxDPXFileParser::GetTransferCharacteristic(DWORD* code) {
  return vx::Guarded([&]() -> HRESULT {
    if (!code) return E_POINTER;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    *code = state_.elements[0].transfer;
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::GetLevels(VxLevelSet* levels) {
  return vx::Guarded([&]() -> HRESULT {
    if (!levels) return E_POINTER;
    if (levelsImposed_) {
      *levels = imposedLevels_;
      return S_OK;
    }
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    *levels = {state_.gamma, state_.blackLevel, state_.blackGain, state_.breakPoint,
               state_.whiteLevel};
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::SetLevels(const VxLevelSet* levels) {
  return vx::Guarded([&]() -> HRESULT {
    if (!levels) return E_POINTER;
    imposedLevels_ = *levels;
    levelsImposed_ = true;
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::GetBitDepth(DWORD* bits) {
  return vx::Guarded([&]() -> HRESULT {
    if (!bits) return E_POINTER;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    *bits = state_.maxBits;
    return S_OK;
  });
}

// ---- Export LUT -----------------------------------------------------------------------------

HRESULT CVxDPXFileParser::GetLUTPath(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CopyName(export_.lutPath.c_str(), buffer, size); FAILED(hr)) return hr;
    return export_.lutPath.empty() ? S_FALSE : S_OK;
  });
}

HRESULT CVxDPXFileParser::SetLUTPath(const VxChar* path) {
  return vx::Guarded([&]() -> HRESULT {
    export_.lutPath = path ? VxString(path) : VxString();
    return S_OK;
  });
}

HRESULT CVxDPXFileParser::HasLUT(BOOL* has) {
  return vx::Guarded([&]() -> HRESULT {
    if (!has) return E_POINTER;
    *has = export_.lutPath.empty() ? FALSE : TRUE;
    return S_OK;
  });
}
