#include "still/dpx/dpx_report.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "still/dpx/dpx_format.h"
#include "vx/platform.h"

namespace vx::dpx {
namespace {

// Appends whole pieces; the first piece that does not fit stops the text for good.
class ReportText {
 public:
  ReportText(VxChar* buffer, int capacity) : buf_(buffer), cap_(capacity) { buf_[0] = 0; }

  void Wide(VxStringView piece) {
    if (overflow_) return;
    if (piece.size() >= static_cast<std::size_t>(cap_ - pos_)) {
      overflow_ = true;
      buf_[cap_ - 1] = 0;
      return;
    }
    for (VxChar c : piece) buf_[pos_++] = c;
    buf_[pos_] = 0;
  }

  // Header text is bytes; each byte becomes one character so nothing in the file can make the
  // report fail.
  void Printf(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    if (overflow_) return;
    char piece[512];
    va_list args;
    va_start(args, format);
    int n = std::vsnprintf(piece, sizeof piece, format, args);
    va_end(args);
    if (n < 0) return;
    if (n >= static_cast<int>(sizeof piece)) n = sizeof piece - 1;
    VxChar wide[sizeof piece];
    for (int i = 0; i < n; ++i) wide[i] = static_cast<unsigned char>(piece[i]);
    Wide(VxStringView(wide, static_cast<std::size_t>(n)));
  }

 private:
  VxChar* buf_;
  int cap_;
  int pos_ = 0;
  bool overflow_ = false;
};

const char* const kOrientations[] = {
    "left to right, top to bottom", "right to left, top to bottom", "left to right, bottom to top",
    "right to left, bottom to top", "top to bottom, left to right", "top to bottom, right to left",
    "bottom to top, left to right", "bottom to top, right to left",
};

struct CodeText {
  unsigned code;
  const char* text;
};

constexpr CodeText kDescriptors[] = {
    {0, "user defined"},
    {1, "red (R)"},
    {2, "green (G)"},
    {3, "blue (B)"},
    {4, "alpha (matte)"},
    {6, "luminance (Y)"},
    {7, "chrominance (Cb,Cr, subsampled by 2)"},
    {8, "depth (Z)"},
    {9, "composite video"},
    {50, "RGB"},
    {51, "RGBA"},
    {52, "ABGR"},
    {53, "BGR"},
    {100, "CbYCrY (4:2:2)"},
    {101, "CbYACrYA (4:2:2:4)"},
    {102, "CbYCr (4:4:4)"},
    {103, "CbYCrA (4:4:4:4)"},
    {150, "user defined, 2 components"},
    {151, "user defined, 3 components"},
    {152, "user defined, 4 components"},
    {153, "user defined, 5 components"},
    {154, "user defined, 6 components"},
    {155, "user defined, 7 components"},
    {156, "user defined, 8 components"},
};

const char* const kCharacteristics[] = {
    "user defined",
    "printing density",
    "linear",
    "logarithmic",
    "unspecified video",
    "SMPTE 274M",
    "ITU-R 709-4",
    "ITU-R 601-5 system B or G (625)",
    "ITU-R 601-5 system M (525)",
    "Composite video (NTSC)",
    "Composite video (PAL)",
    "Z (depth) - linear",
    "Z (depth) - homogeneous",
    "unknown",
};

// The encoding texts run on into the packing texts: a code past the encoding's own three
// entries lands on the packing table's first entry.
const char* const kPackingAndEncoding[] = {
    "none",
    "run-length (RLE)",
    "unknown",
    "packed into 32-bit words",
    "filled to 32-bit words, method A",
    "filled to 32-bit words, method B",
    "unknown",
};
const char* const* const kPackings = kPackingAndEncoding + 3;

constexpr CodeText kVideoStandards[] = {
    {0, "undefined"},
    {1, "NTSC"},
    {2, "PAL"},
    {3, "PAL-M"},
    {4, "SECAM"},
    {50, "YCbCr ITU-R 601-5 525-line, 2:1 interlace, 4:3 aspect ratio"},
    {51, "YCbCr ITU-R 601-5 625-line, 2:1 interlace, 4:3 aspect ratio"},
    {100, "YCbCr ITU-R 601-5 525-line, 2:1 interlace, 16:9 aspect ratio"},
    {101, "YCbCr ITU-R 601-5 625-line, 2:1 interlace, 16:9 aspect ratio"},
    {150, "YCbCr ITU-R 1050-line, 2:1 interlace, 16:9 aspect ratio)"},
    {151, "YCbCr ITU-R 1125-line, 2:1 interlace, 16:9 aspect ratio (SMPTE 274M)"},
    {152, "YCbCr ITU-R 1250-line, 2:1 interlace, 16:9 aspect ratio"},
    {153, "YCbCr ITU-R 1125-line, 2:1 interlace, 16:9 aspect ratio (SMPTE 240M)"},
    {200, "YCbCr 525-line, 1:1 progressive, 16:9 aspect ratio"},
    {201, "YCbCr 625-line, 1:1 progressive, 16:9 aspect ratio"},
    {202, "YCbCr 750-line, 1:1 progressive, 16:9 aspect ratio (SMPTE 296M)"},
    {203, "YCbCr 1125-line, 1:1 progressive, 16:9 aspect ratio (SMPTE 274M)"},
};

template <std::size_t N>
const char* Lookup(const CodeText (&table)[N], unsigned code) {
  for (const auto& e : table)
    if (e.code == code) return e.text;
  return nullptr;
}

class Report {
 public:
  Report(ReportText& out, const std::uint8_t* h, bool big) : out_(out), h_(h), big_(big) {}

  std::uint32_t U32(std::uint32_t off) const { return Load32(h_ + off, big_); }
  std::uint16_t U16(std::uint32_t off) const { return Load16(h_ + off, big_); }
  std::uint8_t U8(std::uint32_t off) const { return h_[off]; }

  void Text(const char* label, std::uint32_t off, std::uint32_t width) {
    if (h_[off] == 0) return;
    char value[256];
    std::memcpy(value, h_ + off, width);
    value[width] = 0;
    out_.Printf("  %s: %s\r\n", label, value);
  }
  void Unsigned(const char* label, std::uint32_t off) {
    const std::uint32_t v = U32(off);
    if (v != kUndef32) out_.Printf("  %s: %u\r\n", label, v);
  }
  void Byte(const char* label, std::uint32_t off) {
    const std::uint8_t v = U8(off);
    if (v != kUndef8) out_.Printf("  %s: %u\r\n", label, v);
  }
  void Float(const char* label, std::uint32_t off) {
    if (U32(off) != kUndef32) out_.Printf("  %s: %f\r\n", label, LoadFloat(h_ + off, big_));
  }

  void FileInformation();
  void ImageInformation();
  void Element(std::uint32_t index);
  void SourceInformation();
  void Film();
  void Television();

 private:
  ReportText& out_;
  const std::uint8_t* h_;
  bool big_;
};

void Report::FileInformation() {
  out_.Printf("[ File information header ]\r\n\r\n");
  out_.Printf("  generic header size: %u bytes\r\n", U32(kOffGenericSize));
  out_.Printf("  industry header size: %u bytes\r\n", U32(kOffIndustrySize));
  out_.Printf("  user data size: %u bytes\r\n", U32(kOffUserSize));
  out_.Printf("  offset to data: %u bytes\r\n", U32(kOffImageOffset));
  Text("format version", kOffVersion, 8);
  out_.Printf("  file size: %u bytes\r\n", U32(kOffFileSize));
  out_.Printf("  ditto key: %s\r\n", U32(kOffDittoKey) ? "true" : "false");
  Text("file name (internal)", kOffFileName, kLenFileName);
  Text("creation time", kOffCreationTime, kLenCreationTime);
  Text("creator", kOffCreator, kLenCreator);
  Text("project name", kOffProject, kLenProject);
  Text("copyright", kOffCopyright, kLenCopyright);
  Unsigned("encryption key", kOffEncryptionKey);
}

void Report::ImageInformation() {
  out_.Printf("\r\n[ Image information header ]\r\n\r\n");
  const std::uint16_t orientation = U16(kOffOrientation);
  out_.Printf("  orientation: %s\r\n", orientation < 8        ? kOrientations[orientation]
                                       : orientation == 65535 ? "undefined"
                                                              : "unknown");
  out_.Printf("  size in pixels: %ux%u\r\n", U32(kOffPixelsPerLine), U32(kOffLinesPerElement));
  const std::uint16_t count = U16(kOffElementCount);
  out_.Printf("  nb of elements: %u\r\n", count);
  for (std::uint32_t i = 0; i < count && i < kMaxElements; ++i) Element(i);
}

void Report::Element(std::uint32_t index) {
  const std::uint32_t e = ElementOffset(index);
  out_.Printf("\r\n[ Image element %u ]\r\n\r\n", index);
  out_.Printf("  data sign: %s\r\n", U32(e + kElDataSign) ? "signed" : "unsigned");
  Unsigned("low data code value", e + kElRefLowCode);
  Float("low quantity represented", e + kElRefLowQuantity);
  Unsigned("high data code value", e + kElRefHighCode);
  Float("high quantity represented", e + kElRefHighQuantity);
  const std::uint8_t descriptor = U8(e + kElDescriptor);
  if (const char* text = Lookup(kDescriptors, descriptor))
    out_.Printf("  descriptor: %s\r\n", text);
  else
    out_.Printf("  descriptor: unknown (%u)\r\n", descriptor);
  const std::uint8_t transfer = U8(e + kElTransfer);
  const std::uint8_t colorimetric = U8(e + kElColorimetric);
  out_.Printf("  transfer characteristic: %s\r\n", kCharacteristics[transfer > 12 ? 13 : transfer]);
  out_.Printf("  colorimetric specification: %s\r\n",
              kCharacteristics[colorimetric > 12 ? 13 : colorimetric]);
  const std::uint8_t bits = U8(e + kElBitSize);
  if (bits != kUndef8) out_.Printf("  bit depth: %u%s\r\n", bits, bits > 16 ? " (float)" : "");
  const std::uint16_t packing = U16(e + kElPacking);
  out_.Printf("  packing: %s\r\n", kPackings[packing > 3 ? 3 : packing]);
  const std::uint16_t encoding = U16(e + kElEncoding);
  out_.Printf("  encoding: %s\r\n", kPackingAndEncoding[encoding > 3 ? 3 : encoding]);
  out_.Printf("  offset to data: %u\r\n", U32(e + kElDataOffset));
  out_.Printf("  end-of-line padding: %u\r\n", U32(e + kElEolPadding));
  out_.Printf("  end-of-image padding: %u\r\n", U32(e + kElEoiPadding));
  Text("description", e + kElDescription, kLenElDescription);
}

void Report::SourceInformation() {
  out_.Printf("\r\n[ Image source information header ]\r\n\r\n");
  Unsigned("X offset", kOffXOffset);
  Unsigned("Y offset", kOffYOffset);
  Float("X center", kOffXCenter);
  Float("Y center", kOffYCenter);
  Unsigned("X original size", kOffXOriginalSize);
  Unsigned("Y original size", kOffYOriginalSize);
  Text("source image file name", kOffSourceFileName, kLenSourceFileName);
  Text("source image creation time", kOffSourceTime, kLenSourceTime);
  Text("input device name", kOffInputDevice, kLenInputDevice);
  Text("input device serial number", kOffInputSerial, kLenInputSerial);
  out_.Printf("  border validity (L,R,T,B):");
  for (std::uint32_t i = 0; i < 4; ++i) {
    const std::uint16_t v = U16(kOffBorder + 2 * i);
    const char* lead = i == 0 ? " " : ", ";
    const char* tail = i == 3 ? "\r\n" : "";
    if (v == kUndef16)
      out_.Printf("%s?%s", lead, tail);
    else
      out_.Printf("%s%u%s", lead, v, tail);
  }
  out_.Printf("  pixel aspect ratio:");
  const std::uint32_t ah = U32(kOffAspectH), av = U32(kOffAspectV);
  if (ah == kUndef32)
    out_.Printf(" ?");
  else
    out_.Printf(" %u", ah);
  if (av == kUndef32)
    out_.Printf("/?\r\n");
  else
    out_.Printf("/%u\r\n", av);
  Unsigned("X scanned size", kOffXScannedSize);
  Unsigned("Y scanned size", kOffYScannedSize);
}

void Report::Film() {
  out_.Printf("\r\n[ Motion-picture film information header ]\r\n\r\n");
  Text("film mfg. ID code", kOffFilmMfgId, 2);
  Text("film type", kOffFilmType, 2);
  Text("offset in perfs", kOffFilmPerfOffset, 2);
  Text("prefix", kOffFilmPrefix, 6);
  Text("count", kOffFilmCount, 4);
  Text("format", kOffFilmFormat, 32);
  Unsigned("frame position in sequence", kOffFramePosition);
  Unsigned("sequence length", kOffSequenceLength);
  Unsigned("held count", kOffHeldCount);
  Float("frame rate", kOffFilmFrameRate);
  Float("shutter angle (deg)", kOffShutterAngle);
  Text("frame ID", kOffFrameId, 32);
  Text("slate information", kOffSlate, 100);
}

void Report::Television() {
  out_.Printf("\r\n[ Television information header ]\r\n\r\n");
  const std::uint32_t tc = U32(kOffTimeCode);
  if (tc != kUndef32) {
    char d[8];
    for (int i = 0; i < 8; ++i) d[i] = static_cast<char>('0' + ((tc >> (28 - 4 * i)) & 0xF));
    out_.Printf("  time code: %c%c:%c%c:%c%c.%c%c\r\n", d[0], d[1], d[2], d[3], d[4], d[5], d[6],
                d[7]);
  }
  const std::uint32_t userBits = U32(kOffUserBits);
  if (userBits != kUndef32) out_.Printf("  user bits: 0x%8x\r\n", userBits);
  const std::uint8_t interlace = U8(kOffInterlace);
  if (interlace != kUndef8) out_.Printf("  interlace: %s\r\n", interlace ? "2:1" : "progressive");
  Byte("first field", kOffFieldNumber);
  const std::uint8_t standard = U8(kOffVideoStandard);
  if (standard != kUndef8) {
    if (const char* text = Lookup(kVideoStandards, standard))
      out_.Printf("  video signal standard: %s\r\n", text);
    else
      out_.Printf("  video signal standard: unknown (%u)\r\n", standard);
  }
  Float("horizontal sampling rate (Hz)", kOffHSampling);
  Float("vertical sampling rate (Hz)", kOffVSampling);
  Float("frame rate", kOffTvFrameRate);
  Float("time offset from sync to first pixel (ms)", kOffTimeOffset);
  Float("gamma", kOffGamma);
  Float("black level code value", kOffBlackLevel);
  Float("black gain", kOffBlackGain);
  Float("breakpoint", kOffBreakPoint);
  Float("reference white level code value", kOffWhiteLevel);
  Float("integration time (s)", kOffIntegrationTime);
}

}  // namespace

HRESULT DpxHeaderReportFromBytes(const VxChar* fileName, const unsigned char* data,
                                 std::size_t size, VxChar* buffer, int capacity) {
  if (!buffer) return E_POINTER;
  if (capacity < kReportMinCapacity) return E_INVALIDARG;
  ReportText out(buffer, capacity);
  if (!fileName || !*fileName) {
    out.Printf("No file selected\r\n");
    return S_OK;
  }
  out.Wide(VXT("File name: ") + VxString(fileName) + VXT("\r\n"));
  if (!data || size < kHeaderSize) {
    out.Printf("Read error\r\n");
    return S_OK;
  }
  if (std::memcmp(data, kMagicBig, 4) != 0 && std::memcmp(data, kMagicLittle, 4) != 0) {
    out.Printf("Invalid magic number header (not a DPX file).\r\n");
    return S_OK;
  }
  const bool big = data[0] == 'S';
  out.Printf("Endianness: %s", big ? "big\r\n\r\n" : "little\r\n\r\n");
  Report report(out, data, big);
  report.FileInformation();
  report.ImageInformation();
  report.SourceInformation();
  report.Film();
  report.Television();
  return S_OK;
}

HRESULT DpxHeaderReport(const VxChar* fileName, VxChar* buffer, int capacity) {
  if (!buffer) return E_POINTER;
  if (capacity < kReportMinCapacity) return E_INVALIDARG;
  std::uint8_t header[kHeaderSize];
  std::uint32_t got = 0;
  if (fileName && *fileName) {
    const os::FileHandle f = os::OpenRead(fileName);
    if (f != os::kNoFile) {
      if (!os::ReadAt(f, 0, header, kHeaderSize, &got)) got = 0;
      os::Close(f);
    }
  }
  return DpxHeaderReportFromBytes(fileName, header, got, buffer, capacity);
}

}  // namespace vx::dpx
