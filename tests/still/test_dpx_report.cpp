// The DPX header report: whole texts compared for headers built byte by byte.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "dpx_read_test_util.h"
#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_report.h"
#include "test_util.h"

using namespace vx;
using namespace vx::dpx;

namespace {

// The test header: every optional field undefined or empty, one 10-bit RGB method A element, 4x2.
dpxtest::Bytes Header(bool big) {
  dpxtest::DpxHeaderRecipe recipe;
  recipe.big = big;
  return dpxtest::MakeDpxHeader(recipe);
}

std::string Report(const std::vector<std::uint8_t>& bytes, int capacity = 16384,
                   const VxChar* name = VXT("shot.dpx")) {
  std::vector<VxChar> buf(static_cast<std::size_t>(capacity), u'#');
  EXPECT_EQ(DpxHeaderReportFromBytes(name, bytes.data(), bytes.size(), buf.data(), capacity), S_OK);
  return vx::ToUtf8(buf.data());
}

const char kElement0[] =
    "\r\n[ Image element 0 ]\r\n\r\n"
    "  data sign: unsigned\r\n"
    "  low data code value: 0\r\n"
    "  high data code value: 1023\r\n"
    "  descriptor: RGB\r\n"
    "  transfer characteristic: linear\r\n"
    "  colorimetric specification: linear\r\n"
    "  bit depth: 10\r\n"
    "  packing: filled to 32-bit words, method A\r\n"
    "  encoding: none\r\n"
    "  offset to data: 2048\r\n"
    "  end-of-line padding: 0\r\n"
    "  end-of-image padding: 0\r\n";

const char kTailEmpty[] =
    "\r\n[ Image source information header ]\r\n\r\n"
    "  border validity (L,R,T,B): ?, ?, ?, ?\r\n"
    "  pixel aspect ratio: ?/?\r\n"
    "\r\n[ Motion-picture film information header ]\r\n\r\n"
    "\r\n[ Television information header ]\r\n\r\n";

std::string Head(const char* endianness) {
  return std::string("File name: shot.dpx\r\n") + "Endianness: " + endianness + "\r\n\r\n" +
         "[ File information header ]\r\n\r\n"
         "  generic header size: 1664 bytes\r\n"
         "  industry header size: 384 bytes\r\n"
         "  user data size: 0 bytes\r\n"
         "  offset to data: 2048 bytes\r\n"
         "  format version: V2.0\r\n"
         "  file size: 0 bytes\r\n"
         "  ditto key: false\r\n"
         "\r\n[ Image information header ]\r\n\r\n"
         "  orientation: left to right, top to bottom\r\n"
         "  size in pixels: 4x2\r\n"
         "  nb of elements: 1\r\n";
}

TEST(DpxReport, MinimalHeaderBothByteOrders) {
  EXPECT_EQ(Report(Header(true).data), Head("big") + kElement0 + kTailEmpty);
  EXPECT_EQ(Report(Header(false).data), Head("little") + kElement0 + kTailEmpty);
}

TEST(DpxReport, EveryFieldFilled) {
  auto h = Header(true);
  h.U32(kOffDittoKey, 1);
  h.Text(kOffFileName, "internal.dpx");
  h.Text(kOffCreationTime, "2024:01:02:03:04:05Z");
  h.Text(kOffCreator, "Halden Vx");
  h.Text(kOffProject, "Project X");
  h.Text(kOffCopyright, "(c) nobody");
  h.U32(kOffEncryptionKey, 7);
  h.U16(kOffOrientation, 5);
  const std::uint32_t e = ElementOffset(0);
  h.U32(e + kElDataSign, 1);
  h.F32(e + kElRefLowQuantity, 0.0f);
  h.F32(e + kElRefHighQuantity, 2.048f);
  h.data[e + kElBitSize] = 32;
  h.Text(e + kElDescription, "beauty");
  h.U32(kOffXOffset, 1);
  h.U32(kOffYOffset, 2);
  h.F32(kOffXCenter, 1.5f);
  h.F32(kOffYCenter, 2.5f);
  h.U32(kOffXOriginalSize, 2048);
  h.U32(kOffYOriginalSize, 1556);
  h.Text(kOffSourceFileName, "src.dpx");
  h.Text(kOffSourceTime, "2023:12:31:23:59:59Z");
  h.Text(kOffInputDevice, "Scanner 7");
  h.Text(kOffInputSerial, "SN-1");
  h.U16(kOffBorder, 1);
  h.U16(kOffBorder + 4, 3);
  h.U16(kOffBorder + 6, 4);
  h.U32(kOffAspectH, 9);
  h.U32(kOffAspectV, 10);
  h.U32(kOffXScannedSize, 36);
  h.Text(kOffFilmMfgId, "KO");
  h.Text(kOffFilmType, "19");
  h.Text(kOffFilmPerfOffset, "07");
  h.Text(kOffFilmPrefix, "123456");
  h.Text(kOffFilmCount, "7890");
  h.Text(kOffFilmFormat, "Academy");
  h.U32(kOffFramePosition, 12);
  h.U32(kOffHeldCount, 2);
  h.F32(kOffFilmFrameRate, 24.0f);
  h.F32(kOffShutterAngle, 180.0f);
  h.Text(kOffFrameId, "F12");
  h.Text(kOffSlate, "take 3");
  h.U32(kOffTimeCode, 0x01020304);
  h.U32(kOffUserBits, 0xAB);
  h.data[kOffInterlace] = 1;
  h.data[kOffFieldNumber] = 2;
  h.data[kOffVideoStandard] = 150;
  h.F32(kOffTvFrameRate, 25.0f);
  h.F32(kOffGamma, 2.2f);
  const std::string want =
      "File name: shot.dpx\r\nEndianness: big\r\n\r\n"
      "[ File information header ]\r\n\r\n"
      "  generic header size: 1664 bytes\r\n"
      "  industry header size: 384 bytes\r\n"
      "  user data size: 0 bytes\r\n"
      "  offset to data: 2048 bytes\r\n"
      "  format version: V2.0\r\n"
      "  file size: 0 bytes\r\n"
      "  ditto key: true\r\n"
      "  file name (internal): internal.dpx\r\n"
      "  creation time: 2024:01:02:03:04:05Z\r\n"
      "  creator: Halden Vx\r\n"
      "  project name: Project X\r\n"
      "  copyright: (c) nobody\r\n"
      "  encryption key: 7\r\n"
      "\r\n[ Image information header ]\r\n\r\n"
      "  orientation: top to bottom, right to left\r\n"
      "  size in pixels: 4x2\r\n"
      "  nb of elements: 1\r\n"
      "\r\n[ Image element 0 ]\r\n\r\n"
      "  data sign: signed\r\n"
      "  low data code value: 0\r\n"
      "  low quantity represented: 0.000000\r\n"
      "  high data code value: 1023\r\n"
      "  high quantity represented: 2.048000\r\n"
      "  descriptor: RGB\r\n"
      "  transfer characteristic: linear\r\n"
      "  colorimetric specification: linear\r\n"
      "  bit depth: 32 (float)\r\n"
      "  packing: filled to 32-bit words, method A\r\n"
      "  encoding: none\r\n"
      "  offset to data: 2048\r\n"
      "  end-of-line padding: 0\r\n"
      "  end-of-image padding: 0\r\n"
      "  description: beauty\r\n"
      "\r\n[ Image source information header ]\r\n\r\n"
      "  X offset: 1\r\n"
      "  Y offset: 2\r\n"
      "  X center: 1.500000\r\n"
      "  Y center: 2.500000\r\n"
      "  X original size: 2048\r\n"
      "  Y original size: 1556\r\n"
      "  source image file name: src.dpx\r\n"
      "  source image creation time: 2023:12:31:23:59:59Z\r\n"
      "  input device name: Scanner 7\r\n"
      "  input device serial number: SN-1\r\n"
      "  border validity (L,R,T,B): 1, ?, 3, 4\r\n"
      "  pixel aspect ratio: 9/10\r\n"
      "  X scanned size: 36\r\n"
      "\r\n[ Motion-picture film information header ]\r\n\r\n"
      "  film mfg. ID code: KO\r\n"
      "  film type: 19\r\n"
      "  offset in perfs: 07\r\n"
      "  prefix: 123456\r\n"
      "  count: 7890\r\n"
      "  format: Academy\r\n"
      "  frame position in sequence: 12\r\n"
      "  held count: 2\r\n"
      "  frame rate: 24.000000\r\n"
      "  shutter angle (deg): 180.000000\r\n"
      "  frame ID: F12\r\n"
      "  slate information: take 3\r\n"
      "\r\n[ Television information header ]\r\n\r\n"
      "  time code: 01:02:03.04\r\n"
      "  user bits: 0x      ab\r\n"
      "  interlace: 2:1\r\n"
      "  first field: 2\r\n"
      "  video signal standard: YCbCr ITU-R 1050-line, 2:1 interlace, 16:9 aspect ratio)\r\n"
      "  frame rate: 25.000000\r\n"
      "  gamma: 2.200000\r\n";
  EXPECT_EQ(Report(h.data), want);
}

TEST(DpxReport, OddCodes) {
  const std::uint32_t e = ElementOffset(0);
  enum Kind { U8, U16 };
  const struct {
    std::uint32_t off;
    Kind kind;
    std::uint16_t value;
    const char* line;  // the line that must appear; null: no "bit depth" line at all
  } cases[] = {
      // An encoding of 3 or more runs on into the packing texts.
      {e + kElEncoding, U16, 5, "  encoding: packed into 32-bit words\r\n"},
      {e + kElEncoding, U16, 3, "  encoding: packed into 32-bit words\r\n"},
      {e + kElEncoding, U16, 2, "  encoding: unknown\r\n"},
      {e + kElEncoding, U16, 1, "  encoding: run-length (RLE)\r\n"},
      {e + kElPacking, U16, 7, "  packing: unknown\r\n"},
      {e + kElDescriptor, U8, 77, "  descriptor: unknown (77)\r\n"},
      {e + kElTransfer, U8, 13, "  transfer characteristic: unknown\r\n"},
      {e + kElColorimetric, U8, 12, "  colorimetric specification: Z (depth) - homogeneous\r\n"},
      {e + kElBitSize, U8, 16, "  bit depth: 16\r\n"},
      {e + kElBitSize, U8, 255, nullptr},
      {kOffOrientation, U16, 9, "  orientation: unknown\r\n"},
      {kOffOrientation, U16, 65535, "  orientation: undefined\r\n"},
      {kOffInterlace, U8, 0, "  interlace: progressive\r\n"},
      {kOffVideoStandard, U8, 42, "  video signal standard: unknown (42)\r\n"}};
  for (const auto& c : cases) {
    auto h = Header(false);
    if (c.kind == U8)
      h.data[c.off] = static_cast<std::uint8_t>(c.value);
    else
      h.U16(c.off, c.value);
    const std::string text = Report(h.data);
    if (c.line)
      EXPECT_NE(text.find(c.line), std::string::npos) << c.line << "---\n" << text;
    else
      EXPECT_EQ(text.find("bit depth"), std::string::npos) << text;
  }
}

TEST(DpxReport, TwelveElementsPrintEight) {
  auto h = Header(true);
  h.U16(kOffElementCount, 12);
  const std::string text = Report(h.data);
  EXPECT_NE(text.find("  nb of elements: 12\r\n"), std::string::npos);
  EXPECT_NE(text.find("[ Image element 7 ]"), std::string::npos);
  EXPECT_EQ(text.find("[ Image element 8 ]"), std::string::npos);
  // Element 7 ends right before the source header.
  EXPECT_NE(text.find("  end-of-image padding: 0\r\n\r\n[ Image source"), std::string::npos);
}

TEST(DpxReport, FatalConditionsEndTheText) {
  EXPECT_EQ(Report(Header(true).data, 1000, nullptr), "No file selected\r\n");
  EXPECT_EQ(Report(Header(true).data, 1000, VXT("")), "No file selected\r\n");
  const auto whole = Header(true);
  const std::vector<std::uint8_t> shortFile(whole.data.begin(), whole.data.begin() + 2047);
  EXPECT_EQ(Report(shortFile), "File name: shot.dpx\r\nRead error\r\n");
  auto h = Header(true);
  h.Text(0, "SDPY");
  EXPECT_EQ(Report(h.data),
            "File name: shot.dpx\r\nInvalid magic number header (not a DPX file).\r\n");
}

TEST(DpxReport, CapacityRules) {
  std::vector<VxChar> buf(1000, u'#');
  const auto bytes = Header(true).data;
  EXPECT_EQ(DpxHeaderReportFromBytes(VXT("a"), bytes.data(), bytes.size(), buf.data(), 767),
            E_INVALIDARG);
  EXPECT_EQ(buf[0], u'#');  // nothing written
  EXPECT_EQ(DpxHeaderReport(VXT("a"), buf.data(), 767), E_INVALIDARG);
  EXPECT_EQ(DpxHeaderReport(VXT("a"), nullptr, 4096), E_POINTER);
  // Cut where a piece no longer fits; the last character is the terminator.
  buf.assign(1000, u'#');
  EXPECT_EQ(DpxHeaderReportFromBytes(VXT("shot.dpx"), bytes.data(), bytes.size(), buf.data(), 768),
            S_OK);
  EXPECT_EQ(buf[767], 0);
  EXPECT_EQ(buf[768], u'#');
  const std::string cut = vx::ToUtf8(buf.data());
  const std::string whole = Report(bytes);
  ASSERT_LT(cut.size(), 768u);
  EXPECT_EQ(whole.compare(0, cut.size(), cut), 0);
  // Whole pieces only: the cut falls at the end of a line here.
  EXPECT_EQ(cut.substr(cut.size() - 2), "\r\n");
}

}  // namespace
