#include "still/quillpic/quillpic_parser.h"

#include <algorithm>
#include <chrono>
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

using namespace vx::quillpic;

namespace {

constexpr DWORD kPictureCaps = 0x80;
constexpr DWORD kPictureWriteCaps = 0xA0;
constexpr DWORD kWriteMode = 2;
constexpr float kWriterVersion = 3.71f;
constexpr char kCommentFormat[] = "Written by Halden Vx\n%s%s";
// Lines per band of the parallel decode and encode.
constexpr std::uint32_t kBandLines = 64;

const char* const kFieldWords[] = {"no fields", "odd field", "even field", "both fields"};
const char* const kTypeWords[] = {"uncompressed", "run-length", "mixed run-length"};

// Comments are free bytes: UTF-8 when they read as such, else Latin-1.
std::string CommentText(const char* bytes) {
  const std::string raw(bytes);
  const VxString wide = vx::FromUtf8(raw);
  if (vx::ToUtf8(wide) == raw) return raw;
  std::string out;
  for (unsigned char c : raw) {
    if (c < 0x80) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back(static_cast<char>(0xC0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return out;
}

std::string ChannelLetters(std::uint8_t mask) {
  std::string s;
  if (mask & kRed) s += 'R';
  if (mask & kGreen) s += 'G';
  if (mask & kBlue) s += 'B';
  if (mask & kAlpha) s += 'A';
  return s == "RGB" || s == "RGBA" ? s : s.empty() ? "-" : s;
}

std::string PacketsText(const std::vector<QuillPicPacket>& packets) {
  std::string s;
  for (const QuillPicPacket& p : packets) {
    if (!s.empty()) s += " + ";
    s += ChannelLetters(p.mask) + " " + kTypeWords[p.type];
  }
  return s;
}

// "YYYY-MM-DD HH:MM:SS UTC" of now.
std::string UtcNow() {
  using namespace std::chrono;
  const auto now = floor<seconds>(system_clock::now());
  const auto day = floor<days>(now);
  const year_month_day ymd(day);
  const hh_mm_ss time(now - day);
  char text[40];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u %02d:%02d:%02d UTC",
                static_cast<int>(ymd.year()), static_cast<unsigned>(ymd.month()),
                static_cast<unsigned>(ymd.day()), static_cast<int>(time.hours().count()),
                static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()));
  return text;
}

// The writer's comment: the time of writing, then the file's own name, cut to the 79 bytes the
// field holds (at a character boundary).
void FillComment(const VxString& path, char out[kCommentBytes + 1]) {
  std::string name = vx::ToUtf8(path);
  const std::size_t slash = name.find_last_of("/\\");
  if (slash != std::string::npos) name.erase(0, slash + 1);
  const std::string second = "\n" + name;
  char text[256];
  std::snprintf(text, sizeof text, kCommentFormat, UtcNow().c_str(), second.c_str());
  std::size_t length = strnlen(text, kCommentBytes - 1);
  while (length > 0 && length < std::strlen(text) &&
         (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80)
    --length;
  std::memset(out, 0, kCommentBytes + 1);
  std::memcpy(out, text, length);
}

}  // namespace

CVxQuillPicFileParser::CVxQuillPicFileParser() = default;
CVxQuillPicFileParser::~CVxQuillPicFileParser() = default;

// Code 1 is the odd field alone, whose first line is the picture's top one; code 3 holds both
// fields, taken odd (upper) first.
std::int32_t CVxQuillPicFileParser::FieldModeOf(std::uint32_t code) {
  switch (code) {
    case 0:
      return VX_FIELD_PROGRESSIVE;
    case 1:
    case 3:
      return VX_FIELD_UPPER_FIRST;
    case 2:
      return VX_FIELD_LOWER_FIRST;
    default:
      return VX_FIELD_UNKNOWN;
  }
}

std::uint16_t CVxQuillPicFileParser::FieldsCodeOf(std::int32_t mode) {
  switch (mode) {
    case VX_FIELD_UPPER_FIRST:
      return 3;
    case VX_FIELD_LOWER_FIRST:
      return 2;
    default:
      return 0;
  }
}

// ---- Header ---------------------------------------------------------------------------------

HRESULT CVxQuillPicFileParser::LoadHeader(vx::os::UniqueFile* keep) {
  if (keep) keep->reset();
  const VxString& name = CurrentFileName();
  if (name.empty()) return E_FAIL;
  const bool same = loaded_ && name == loadedName_;
  if (same && !keep) return S_OK;
  vx::os::UniqueFile file(vx::os::OpenRead(name.c_str()));
  if (!file) return E_FAIL;
  if (!same) {
    loaded_ = false;
    loadedName_.clear();
    std::uint64_t size = 0;
    if (!vx::os::Size(file.get(), &size)) return E_FAIL;
    std::uint8_t bytes[kHeaderBytes + kMaxPackets * kPacketBytes];
    const auto want = static_cast<std::uint32_t>(std::min<std::uint64_t>(size, sizeof bytes));
    std::uint32_t got = 0;
    if (!vx::os::ReadAt(file.get(), 0, bytes, want, &got) || got != want) return E_FAIL;
    QuillPicHeader header;
    if (HRESULT hr = ParseHeader(bytes, got, &header); FAILED(hr)) return hr;
    if (header.width == 0 || header.height == 0) return E_FAIL;
    std::vector<QuillPicPacket> packets;
    std::size_t used = 0;
    if (HRESULT hr = ParsePackets(bytes + kHeaderBytes, got - kHeaderBytes, &packets, &used);
        FAILED(hr))
      return hr;
    header_ = header;
    packets_ = std::move(packets);
    dataOffset_ = kHeaderBytes + used;
    loadedName_ = name;
    loaded_ = true;
  }
  if (keep) *keep = std::move(file);
  return S_OK;
}

HRESULT CVxQuillPicFileParser::EnsureHeader() {
  // A pattern names no file of its own: take the sequence's first existing file.
  if (!vx::os::IsFile(CurrentFileName().c_str())) {
    if (HRESULT hr = SelectFile(-1); FAILED(hr)) return hr;
  }
  return LoadHeader(nullptr);
}

bool CVxQuillPicFileParser::HasAlpha() const {
  return std::any_of(packets_.begin(), packets_.end(),
                     [](const QuillPicPacket& p) { return (p.mask & kAlpha) != 0; });
}

double CVxQuillPicFileParser::Aspect() const {
  const double r = header_.ratio;
  return std::isfinite(r) && r > 0.0 ? r : 1.0;
}

// ---- Stream queries -------------------------------------------------------------------------

HRESULT CVxQuillPicFileParser::GetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    tagVxImageStreamFormat f{};
    f.cbSize = sizeof f;
    const int frames = FrameCount();
    f.frameCount = static_cast<DWORD>(frames > 0 ? frames : 1);
    f.width = header_.width;
    f.height = header_.height;
    f.hasAlpha = HasAlpha() ? 1 : 0;
    f.channels = f.hasAlpha ? 4 : 3;
    f.bitsPerPixel = 8 * f.channels;
    f.planes = 1;
    f.frameRate = -1.0;
    f.pixelAspect = Aspect();
    f.fieldMode = FieldModeOf(header_.fields);
    f.pixelFormat = f.hasAlpha ? VX_PF_RGBA8 : VX_PF_RGB8;
    std::memcpy(record, &f, sizeof f);
    return S_OK;
  });
}

HRESULT CVxQuillPicFileParser::GetStreamCapabilities(DWORD mode, DWORD kind, DWORD* caps) {
  if (!caps) return E_POINTER;
  *caps = kind != VX_STREAM_PICTURE ? 0 : mode == kWriteMode ? kPictureWriteCaps : kPictureCaps;
  return S_OK;
}

// The format has no settings: only the metadata record is taken.
HRESULT CVxQuillPicFileParser::SetOption(void* option, DWORD kind) {
  if (!option) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
    return S_FALSE;
  });
}

HRESULT CVxQuillPicFileParser::GetCompressionName(VxChar* buffer, int size) {
  return vx::Guarded([&]() -> HRESULT {
    if (!buffer || size < 1) return E_INVALIDARG;
    if (HRESULT hr = EnsureHeader(); FAILED(hr)) return hr;
    return CopyName(vx::FromUtf8("8 bit " + PacketsText(packets_)).c_str(), buffer, size);
  });
}

// ---- Reading --------------------------------------------------------------------------------

HRESULT CVxQuillPicFileParser::DecodeInto(IVxImage* image) {
  const std::uint32_t width = header_.width, height = header_.height;
  const int pixelBytes = VxPixelFormatBytesPerPixel(image->GetPixelFormat());
  std::uint8_t* base = image->GetBuffer();
  const std::ptrdiff_t stride = image->GetRowStride();
  if (!base) return E_FAIL;
  std::uint8_t covered = 0;
  for (const QuillPicPacket& p : packets_) covered |= p.mask;
  const std::uint8_t needed = pixelBytes == 4 ? kMaskRGB | kAlpha : kMaskRGB;
  // Channels no packet carries: black, and opaque.
  const bool prefill = (covered & needed) != needed;
  const int bands = static_cast<int>((height + kBandLines - 1) / kBandLines);
  vx::WorkerPool::Shared().ParallelFor(bands, [&](int band) {
    const std::uint32_t first = static_cast<std::uint32_t>(band) * kBandLines;
    const std::uint32_t last = std::min(height, first + kBandLines);
    for (std::uint32_t y = first; y < last; ++y) {
      std::uint8_t* row = base + stride * static_cast<std::ptrdiff_t>(y);
      if (prefill) {
        std::memset(row, 0, std::size_t{width} * pixelBytes);
        if (pixelBytes == 4 && !(covered & kAlpha)) {
          for (std::uint32_t x = 0; x < width; ++x) row[4 * std::size_t{x} + 3] = 255;
        }
      }
      DecodeLine(data_.data(), lineStarts_[y], lineStarts_[y + 1], packets_, width, row,
                 pixelBytes);
    }
  });
  return S_OK;
}

HRESULT CVxQuillPicFileParser::ReadImage(IVxImage** image, std::int32_t frame) {
  if (!image) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
    vx::os::UniqueFile file;
    if (HRESULT hr = LoadHeader(&file); FAILED(hr)) return hr;
    std::uint64_t size = 0;
    if (!vx::os::Size(file.get(), &size) || size < dataOffset_) return E_FAIL;
    const std::uint64_t bytes = size - dataOffset_;
    if (bytes > SIZE_MAX) return E_OUTOFMEMORY;
    data_.resize(static_cast<std::size_t>(bytes));
    if (!vx::fileio::ReadAll(file.get(), dataOffset_, data_.data(), bytes)) return E_FAIL;
    // Every run is checked before the caller's image is touched.
    if (!ScanLines(data_.data(), data_.size(), packets_, header_.width, header_.height,
                   &lineStarts_))
      return E_FAIL;

    const int w = header_.width, h = header_.height;
    const VxPixelFormat native = HasAlpha() || AlphaImposed() ? VX_PF_RGBA8 : VX_PF_RGB8;
    const double aspect = AspectImposed() ? PixelAspect() : Aspect();
    const std::int32_t field = FieldModeOf(header_.fields);
    IVxImage* dst = *image;
    const VxPixelFormat want = dst ? dst->GetPixelFormat() : VX_PF_UNKNOWN;
    if (dst && (want == VX_PF_RGBA8 || want == VX_PF_RGB8)) {
      if (dst->GetWidth() != w || dst->GetHeight() != h) {
        if (HRESULT hr = dst->Allocate(w, h, want); FAILED(hr)) return hr;
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
    if (dst->GetWidth() != w || dst->GetHeight() != h || want == VX_PF_UNKNOWN) {
      if (HRESULT hr = dst->Allocate(w, h, want == VX_PF_UNKNOWN ? native : want); FAILED(hr))
        return hr;
    }
    return VxConvertImage(decoded.get(), dst);
  });
}

// ---- Metadata -------------------------------------------------------------------------------

HRESULT CVxQuillPicFileParser::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  if (HRESULT hr = frame < 0 ? EnsureHeader() : LoadHeader(nullptr); FAILED(hr)) return hr;
  VxMetadataRecord r = vx::md::EmptyRecord();
  r.present |= VX_MD_FIELDMODE;
  r.fieldMode = FieldModeOf(header_.fields);
  const double ratio = header_.ratio;
  if (std::isfinite(ratio) && ratio > 0.0) {
    r.present |= VX_MD_ASPECT;
    r.pixelAspect = ratio;
  }
  if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
  const std::string comment = CommentText(header_.comment);
  if (!comment.empty()) vx::md::SetText(out, vx::md::kComment, comment);
  char text[64];
  std::snprintf(text, sizeof text, "%u (%s)", header_.fields,
                header_.fields < 4 ? kFieldWords[header_.fields] : "unknown");
  vx::md::SetText(out, "quillpic:fields", text);
  std::snprintf(text, sizeof text, "%g", static_cast<double>(header_.version));
  vx::md::SetText(out, "quillpic:version", text);
  const std::uint32_t id = header_.identifier;
  bool printable = true;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const unsigned c = (id >> shift) & 0xFF;
    if (c < 0x20 || c > 0x7E) printable = false;
  }
  if (printable) {
    std::snprintf(text, sizeof text, "%c%c%c%c", static_cast<char>(id >> 24),
                  static_cast<char>(id >> 16), static_cast<char>(id >> 8), static_cast<char>(id));
  } else {
    std::snprintf(text, sizeof text, "0x%08X", id);
  }
  vx::md::SetText(out, "quillpic:identifier", text);
  vx::md::SetText(out, "quillpic:packets", PacketsText(packets_));
  return S_OK;
}

// ---- Writing --------------------------------------------------------------------------------

HRESULT CVxQuillPicFileParser::WriteImage(IVxImage* image, std::int32_t frame) {
  if (!image) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (!IsWriting()) return E_UNEXPECTED;
    const int w = image->GetWidth(), h = image->GetHeight();
    if (w <= 0 || h <= 0 || w > 65535 || h > 65535) return E_INVALIDARG;
    const VxPixelFormat format = image->GetPixelFormat();
    const bool alpha = VxPixelFormatChannels(format) == 4 || AlphaImposed();
    const VxPixelFormat want = alpha ? VX_PF_RGBA8 : VX_PF_RGB8;
    vx::ComPtr<IVxImage> converted;
    IVxImage* src = image;
    if (format != want) {
      if (HRESULT hr = VxCreateImage(w, h, want, converted.put()); FAILED(hr)) return hr;
      if (HRESULT hr = VxConvertImage(image, converted.get()); FAILED(hr)) return hr;
      src = converted.get();
    }

    // Beyond its pixels a frame carries what the host imposed, else what the record says.
    IVxMetadata* md = WriteMetadata();
    const VxMetadataRecord r = md ? vx::md::GetRecord(md) : vx::md::EmptyRecord();
    double aspect = image->GetPixelAspect();
    if (r.present & VX_MD_ASPECT) aspect = r.pixelAspect;
    if (AspectImposed()) aspect = PixelAspect();
    if (!(std::isfinite(aspect) && aspect > 0.0)) aspect = 1.0;
    const std::int32_t field = (r.present & VX_MD_FIELDMODE) ? r.fieldMode : image->GetFieldMode();
    std::uint16_t fields = FieldsCodeOf(field);
    // A QuillPic source's own code is kept when it says the same (odd field alone, say).
    if (md) {
      const std::string code = vx::md::GetText(md, "quillpic:fields");
      if (!code.empty()) {
        const long given = std::strtol(code.c_str(), nullptr, 10);
        if (given >= 0 && given <= 3 && FieldModeOf(static_cast<std::uint32_t>(given)) == field)
          fields = static_cast<std::uint16_t>(given);
      }
    }

    const VxString path = OutputFileName(frame);
    QuillPicHeader header;
    header.version = kWriterVersion;
    FillComment(path, header.comment);
    header.identifier = kIdentifier;
    header.width = static_cast<std::uint16_t>(w);
    header.height = static_cast<std::uint16_t>(h);
    header.ratio = static_cast<float>(aspect);
    header.fields = fields;

    std::vector<std::uint8_t> file(kHeaderBytes);
    StoreHeader(header, file.data());
    const QuillPicPacket packets[] = {MakePacket(kMaskRGB, kMixedRun, alpha),
                                      MakePacket(kAlpha, kMixedRun, false)};
    for (int i = 0; i < (alpha ? 2 : 1); ++i) {
      file.insert(file.end(),
                  {packets[i].chained, packets[i].bits, packets[i].type, packets[i].mask});
    }
    // Lines code independently: bands of them side by side, joined in order.
    const int pixelBytes = alpha ? 4 : 3;
    const std::uint8_t* base = src->GetBuffer();
    const std::ptrdiff_t stride = src->GetRowStride();
    if (!base) return E_FAIL;
    const int bands = static_cast<int>((h + kBandLines - 1) / kBandLines);
    std::vector<std::vector<std::uint8_t>> coded(static_cast<std::size_t>(bands));
    vx::WorkerPool::Shared().ParallelFor(bands, [&](int band) {
      const int first = band * static_cast<int>(kBandLines);
      const int last = std::min(h, first + static_cast<int>(kBandLines));
      std::vector<std::uint8_t>& out = coded[static_cast<std::size_t>(band)];
      out.reserve(static_cast<std::size_t>(last - first) * w * pixelBytes / 2);
      for (int y = first; y < last; ++y) {
        const std::uint8_t* row = base + stride * y;
        EncodeLine(row, pixelBytes, static_cast<std::uint32_t>(w), kMaskRGB, &out);
        if (alpha) EncodeLine(row, pixelBytes, static_cast<std::uint32_t>(w), kAlpha, &out);
      }
    });
    for (const auto& band : coded) file.insert(file.end(), band.begin(), band.end());

    if (!vx::fileio::WriteReplacing(path.c_str(), {file})) return E_FAIL;
    return S_OK;
  });
}
