#include "still/dpx/dpx_parser.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <thread>

#include "base/guard.h"
#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_report.h"
#include "still/dpx/dpx_unpack.h"
#include "still/dpx/dpx_writer.h"

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

// One positioned read of a whole element; a large one is split in two halves read side by side,
// since copying out of the page cache is a good share of a frame's time.
bool ReadWhole(vx::os::FileHandle file, std::uint64_t offset, std::uint8_t* out,
               std::uint64_t bytes) {
  auto read = [file](std::uint64_t at, std::uint8_t* to, std::uint64_t n) {
    std::uint32_t done = 0;
    return vx::os::ReadAt(file, at, to, static_cast<std::uint32_t>(n), &done) && done == n;
  };
  constexpr std::uint64_t kSplitAbove = 4u << 20;
  if (bytes <= kSplitAbove) return read(offset, out, bytes);
  const std::uint64_t half = bytes / 2;
  bool second = false;
  std::thread worker;
  try {
    worker = std::thread([&] { second = read(offset + half, out + half, bytes - half); });
  } catch (...) {
    return read(offset, out, bytes);
  }
  const bool first = read(offset, out, half);
  worker.join();
  return first && second;
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

int DecodeThreads() {
  const unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 2 : static_cast<int>(std::min(n, 8u));
}

// Host image with a reference the guard drops.
struct ImageRef {
  IVxImage* p = nullptr;
  ~ImageRef() {
    if (p) p->Release();
  }
};

}  // namespace

CVxDPXFileParser::CVxDPXFileParser(int mode) : isDpx_(mode != 0) {
  state_.isDpx = isDpx_;
}

CVxDPXFileParser::~CVxDPXFileParser() = default;

HRESULT CVxDPXFileParser::QueryInterface(REFIID riid, void** ppv) {
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
}

// ---- Header ---------------------------------------------------------------------------------

HRESULT CVxDPXFileParser::LoadHeader(vx::os::FileHandle* keep) {
  if (keep) *keep = vx::os::kNoFile;
  const VxString& name = CurrentFileName();
  if (name.empty()) return E_FAIL;
  const bool same = loaded_ && name == loadedName_;
  if (same && !keep) return S_OK;
  const vx::os::FileHandle file = vx::os::OpenRead(name.c_str());
  if (file == vx::os::kNoFile) {
    loaded_ = false;
    loadedName_.clear();
    return E_FAIL;
  }
  if (!same) {
    DpxHeaderState parsed;
    if (!ReadDpxHeaderFile(file, isDpx_, &parsed)) {
      vx::os::Close(file);
      loaded_ = false;
      loadedName_.clear();
      return E_FAIL;
    }
    state_ = std::move(parsed);
    loadedName_ = name;
    loaded_ = true;
  }
  if (keep) {
    *keep = file;
  } else {
    vx::os::Close(file);
  }
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
  if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
  const auto* bytes = static_cast<const unsigned char*>(record);
  double rate;
  std::int32_t field;
  std::memcpy(&rate, bytes + offsetof(tagVxImageStreamFormat, frameRate), sizeof rate);
  std::memcpy(&field, bytes + offsetof(tagVxImageStreamFormat, fieldMode), sizeof field);
  if (rate > 0.0 && rate < 8000.0) imposedRate_ = rate;
  if (field >= VX_FIELD_LOWER_FIRST && field <= VX_FIELD_UNKNOWN) imposedField_ = field;
  return CVxStillImageParser::SetStreamFormat(kind, index, record);
}

HRESULT CVxDPXFileParser::GetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
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
}

HRESULT CVxDPXFileParser::GetStreamCapabilities(DWORD /*mode*/, DWORD kind, DWORD* caps) {
  if (!caps) return E_POINTER;
  *caps = kind == VX_STREAM_PICTURE ? kPictureCapabilities : 0;
  return S_OK;
}

HRESULT CVxDPXFileParser::GetTimeRange(DWORD kind, CVxTime* start, CVxTime* end) {
  if (!start || !end) return E_POINTER;
  *start = CVxTime();
  *end = CVxTime();
  if (kind != VX_STREAM_PICTURE) return S_FALSE;
  if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
  const double rate = FrameRate() > 0.0 ? FrameRate() : kDefaultFrameRate;
  const int frames = std::max(FrameCount(), 1);
  *end = CVxTime(frames, VxGetTimeFormatFromSampleRate(rate));
  return S_OK;
}

HRESULT CVxDPXFileParser::SetOption(void* option, DWORD kind) {
  if (!option) return E_POINTER;
  if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
  return ApplyDpxOption(static_cast<const VxChar*>(option), &export_, &import_);
}

HRESULT CVxDPXFileParser::GetCompressionName(VxChar* buffer, int size) {
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
    job.rowStride = line + e.eolPadding;
    const std::uint64_t need = DpxSampleBytes(job.layout, std::uint64_t{s.width} * e.components);
    // The last line needs only its samples; the others their whole stride.
    const std::uint64_t rows = s.height - 1;
    constexpr std::uint64_t kMaxRead = std::numeric_limits<std::uint32_t>::max();
    if (need > kMaxRead || (job.rowStride != 0 && rows > (kMaxRead - need) / job.rowStride)) {
      return E_FAIL;
    }
    const std::uint64_t bytes = rows * job.rowStride + need;
    if (e.dataOffset > fileSize || bytes > fileSize - e.dataOffset) return E_FAIL;  // truncated
    std::vector<std::uint8_t>& buffer = buffers_[i];
    if (buffer.size() < bytes) {
      try {
        buffer.resize(bytes);
      } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
      }
    }
    if (!ReadWhole(file, e.dataOffset, buffer.data(), bytes)) return E_FAIL;
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
  if (!DpxDecode(jobs_, jobCount_, target, s.orientation, fill, DecodeThreads())) return E_FAIL;
  return S_OK;
}

HRESULT CVxDPXFileParser::ReadImage(IVxImage** image, std::int32_t frame) {
  if (!image) return E_POINTER;
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  vx::os::FileHandle file = vx::os::kNoFile;
  if (HRESULT hr = LoadHeader(&file); FAILED(hr)) return hr;
  struct Closer {
    vx::os::FileHandle f;
    ~Closer() { vx::os::Close(f); }
  } closer{file};

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
  if (HRESULT hr = ReadElements(file); FAILED(hr)) return hr;

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
  ImageRef decoded;
  if (HRESULT hr = VxCreateImage(w, h, native, &decoded.p); FAILED(hr)) return hr;
  if (HRESULT hr = DecodeInto(decoded.p); FAILED(hr)) return hr;
  decoded.p->SetPixelAspect(aspect);
  decoded.p->SetFieldMode(field);
  if (!dst) {
    *image = decoded.p;
    decoded.p = nullptr;
    return S_OK;
  }
  // Another format: convert from the native picture.
  VxPixelFormat f = dst->GetPixelFormat();
  if (f == VX_PF_UNKNOWN) f = native;
  if (dst->GetWidth() != w || dst->GetHeight() != h || dst->GetPixelFormat() == VX_PF_UNKNOWN) {
    if (HRESULT hr = dst->Allocate(w, h, f); FAILED(hr)) return hr;
  }
  return VxConvertImage(decoded.p, dst);
}

HRESULT CVxDPXFileParser::WriteImage(IVxImage* image, std::int32_t frame) {
  if (!image) return E_POINTER;
  if (!isDpx_) return E_NOTIMPL;  // Cineon is read only
  DpxWriteInfo info;
  info.frameRate = FrameRate();
  info.fieldMode = imposedField_ >= 0 ? imposedField_ : VX_FIELD_PROGRESSIVE;
  if (loaded_) {
    info.timeCode = state_.timeCode;
    info.aspectKnown = state_.aspectKnown;
    info.pixelAspect = state_.pixelAspect;
    info.inputDevice = state_.inputDevice;
    info.levels = {state_.gamma, state_.blackLevel, state_.blackGain, state_.breakPoint,
                   state_.whiteLevel};
    info.sourceBits = state_.maxBits;
    info.sourcePacking = static_cast<int>(state_.elements[0].packing);
    info.sourceLayout = SourceLayout(state_);
    info.transferChoice = state_.elements[0].transfer == kTransferRec709            ? 3
                          : state_.elements[0].transfer == kTransferPrintingDensity ? 4
                          : state_.elements[0].transfer == kTransferLinear          ? 0
                                                                                    : 1;
  }
  if (IVxMetadata* md = WriteMetadata()) {
    const VxMetadataRecord r = vx::md::GetRecord(md);
    if (r.present & VX_MD_TIMECODE) info.timeCode = r.timeCode;
    if (r.present & VX_MD_ASPECT) {
      info.aspectKnown = true;
      info.pixelAspect = r.pixelAspect;
    }
    if (r.present & VX_MD_LEVELS) info.levels = r.levels;
    if (r.present & VX_MD_TRANSFER) {
      info.transferChoice = r.transfer == VX_TRANSFER_REC709               ? 3
                            : r.transfer == VX_TRANSFER_PRINTING_DENSITY ? 4
                            : r.transfer == VX_TRANSFER_LINEAR           ? 0
                                                                         : 1;
    }
    info.inputDevice = vx::md::GetText(md, vx::md::kInputDevice);
    const std::string bits = vx::md::GetText(md, "dpx:bits");
    if (!bits.empty()) info.sourceBits = static_cast<std::uint32_t>(std::atoi(bits.c_str()));
    const std::string packing = vx::md::GetText(md, "dpx:packing");
    if (!packing.empty()) info.sourcePacking = std::atoi(packing.c_str());
    DpxExportSettings layout;
    if (ApplyDpxOption(vx::FromUtf8("layout=" + vx::md::GetText(md, "dpx:layout")).c_str(),
                       &layout, nullptr) == S_OK)
      info.sourceLayout = layout.layout;
  }
  if (AspectImposed()) {
    info.aspectKnown = true;
    info.pixelAspect = PixelAspect();
  }
  if (levelsImposed_) info.levels = imposedLevels_;
  return WriteDpxFile(OutputFileName(frame).c_str(), image, export_, info);
}

HRESULT CVxDPXFileParser::SetFlag(DWORD which, DWORD value) {
  // Flag 0 marks the stream's frames as carrying no time code.
  return CVxStillImageParser::SetFlag(which, value);
}

// ---- Source information ---------------------------------------------------------------------

HRESULT CVxDPXFileParser::GetTimeCode(std::int32_t frame, DWORD* bcd) {
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
}

HRESULT CVxDPXFileParser::GetEdgeCode(std::int32_t frame, EdgeCode* code) {
  if (!code) return E_POINTER;
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(nullptr); FAILED(hr)) return hr;
  *code = state_.edgeCode;
  return state_.edgeCode.IsValid() ? S_OK : S_FALSE;
}

HRESULT CVxDPXFileParser::GetUserBits(std::int32_t frame, DWORD* bits) {
  if (!bits) return E_POINTER;
  *bits = 0;
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(nullptr); FAILED(hr)) return hr;
  if (state_.userBits == kUndef32) return S_FALSE;
  *bits = state_.userBits;
  return S_OK;
}

HRESULT CVxDPXFileParser::GetFrameRate(double* fps) {
  if (!fps) return E_POINTER;
  *fps = -1.0;
  if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
  *fps = FrameRate();
  return *fps > 0.0 ? S_OK : S_FALSE;
}

HRESULT CVxDPXFileParser::GetFieldMode(std::int32_t* mode) {
  if (!mode) return E_POINTER;
  if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
  *mode = FieldMode();
  return S_OK;
}

HRESULT CVxDPXFileParser::GetInputDevice(VxChar* buffer, int size) {
  if (!buffer || size < 1) return E_INVALIDARG;
  if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
  if (HRESULT hr = CopyName(vx::FromUtf8(state_.inputDevice).c_str(), buffer, size); FAILED(hr)) {
    return hr;
  }
  return state_.inputDevice[0] ? S_OK : S_FALSE;
}

HRESULT CVxDPXFileParser::GetHeaderReport(VxChar* buffer, int capacity) {
  if (!buffer || capacity < kReportMinCapacity) return E_INVALIDARG;
  if (!CurrentFileName().empty() && !vx::os::IsFile(CurrentFileName().c_str())) {
    if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
  }
  const VxString& name = CurrentFileName();
  return DpxHeaderReport(name.empty() ? nullptr : name.c_str(), buffer, capacity);
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
    return S_OK;
  });
}

// ---- Colour management ----------------------------------------------------------------------

HRESULT CVxDPXFileParser::GetTransferCharacteristic(DWORD* code) {
  if (!code) return E_POINTER;
  if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
  *code = state_.elements[0].transfer;
  return S_OK;
}

HRESULT CVxDPXFileParser::GetLevels(VxLevelSet* levels) {
  if (!levels) return E_POINTER;
  if (levelsImposed_) {
    *levels = imposedLevels_;
    return S_OK;
  }
  if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
  *levels = {state_.gamma, state_.blackLevel, state_.blackGain, state_.breakPoint,
             state_.whiteLevel};
  return S_OK;
}

HRESULT CVxDPXFileParser::SetLevels(const VxLevelSet* levels) {
  if (!levels) return E_POINTER;
  imposedLevels_ = *levels;
  levelsImposed_ = true;
  return S_OK;
}

HRESULT CVxDPXFileParser::GetBitDepth(DWORD* bits) {
  if (!bits) return E_POINTER;
  if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
  *bits = state_.maxBits;
  return S_OK;
}

// ---- Export LUT -----------------------------------------------------------------------------

HRESULT CVxDPXFileParser::GetLUTPath(VxChar* buffer, int size) {
  if (HRESULT hr = CopyName(export_.lutPath.c_str(), buffer, size); FAILED(hr)) return hr;
  return export_.lutPath.empty() ? S_FALSE : S_OK;
}

HRESULT CVxDPXFileParser::SetLUTPath(const VxChar* path) {
  export_.lutPath = path ? VxString(path) : VxString();
  return S_OK;
}

HRESULT CVxDPXFileParser::HasLUT(BOOL* has) {
  if (!has) return E_POINTER;
  *has = export_.lutPath.empty() ? FALSE : TRUE;
  return S_OK;
}
