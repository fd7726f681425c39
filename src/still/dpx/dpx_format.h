// On-disk layout of DPX and Cineon headers: offsets, codes and the largest code value of a depth,
// shared by the reader, the writer and the header report.
#pragma once

#include <cstdint>
#include <cstring>

#include "base/bytes.h"

namespace vx::dpx {

// ---- Sizes --------------------------------------------------------------------------------
inline constexpr std::uint32_t kHeaderSize = 2048;         // generic + film + television
inline constexpr std::uint32_t kGenericHeaderSize = 1664;  // file info + image + source
inline constexpr std::uint32_t kFilmHeaderSize = 256;
inline constexpr std::uint32_t kTvHeaderSize = 128;
inline constexpr std::uint32_t kIndustryHeaderSize = kFilmHeaderSize + kTvHeaderSize;  // 384
inline constexpr std::uint32_t kMaxElements = 8;
inline constexpr std::uint32_t kElementSize = 72;

// Magic as the first four bytes of the file.
inline constexpr char kMagicBig[4] = {'S', 'D', 'P', 'X'};
inline constexpr char kMagicLittle[4] = {'X', 'P', 'D', 'S'};
inline constexpr char kVersion[8] = {'V', '2', '.', '0', 0, 0, 0, 0};

// Fields that are not given carry all bits set.
inline constexpr std::uint32_t kUndef32 = 0xFFFFFFFFu;
inline constexpr std::uint16_t kUndef16 = 0xFFFFu;
inline constexpr std::uint8_t kUndef8 = 0xFFu;

// ---- File information header --------------------------------------------------------------
inline constexpr std::uint32_t kOffMagic = 0;
inline constexpr std::uint32_t kOffImageOffset = 4;
inline constexpr std::uint32_t kOffVersion = 8;  // 8 chars
inline constexpr std::uint32_t kOffFileSize = 16;
inline constexpr std::uint32_t kOffDittoKey = 20;
inline constexpr std::uint32_t kOffGenericSize = 24;
inline constexpr std::uint32_t kOffIndustrySize = 28;
inline constexpr std::uint32_t kOffUserSize = 32;
inline constexpr std::uint32_t kOffFileName = 36;  // 100 chars
inline constexpr std::uint32_t kLenFileName = 100;
inline constexpr std::uint32_t kOffCreationTime = 136;  // 24 chars
inline constexpr std::uint32_t kLenCreationTime = 24;
inline constexpr std::uint32_t kOffCreator = 160;  // 100 chars
inline constexpr std::uint32_t kLenCreator = 100;
inline constexpr std::uint32_t kOffProject = 260;  // 200 chars
inline constexpr std::uint32_t kLenProject = 200;
inline constexpr std::uint32_t kOffCopyright = 460;  // 200 chars
inline constexpr std::uint32_t kLenCopyright = 200;
inline constexpr std::uint32_t kOffEncryptionKey = 660;

// ---- Image information header -------------------------------------------------------------
inline constexpr std::uint32_t kOffOrientation = 768;   // u16
inline constexpr std::uint32_t kOffElementCount = 770;  // u16
inline constexpr std::uint32_t kOffPixelsPerLine = 772;
inline constexpr std::uint32_t kOffLinesPerElement = 776;
inline constexpr std::uint32_t kOffElements = 780;  // + 72 * i

// Offsets inside one 72-byte image element.
inline constexpr std::uint32_t kElDataSign = 0;
inline constexpr std::uint32_t kElRefLowCode = 4;
inline constexpr std::uint32_t kElRefLowQuantity = 8;  // f32
inline constexpr std::uint32_t kElRefHighCode = 12;
inline constexpr std::uint32_t kElRefHighQuantity = 16;  // f32
inline constexpr std::uint32_t kElDescriptor = 20;       // u8
inline constexpr std::uint32_t kElTransfer = 21;         // u8
inline constexpr std::uint32_t kElColorimetric = 22;     // u8
inline constexpr std::uint32_t kElBitSize = 23;          // u8
inline constexpr std::uint32_t kElPacking = 24;          // u16
inline constexpr std::uint32_t kElEncoding = 26;         // u16
inline constexpr std::uint32_t kElDataOffset = 28;
inline constexpr std::uint32_t kElEolPadding = 32;
inline constexpr std::uint32_t kElEoiPadding = 36;
inline constexpr std::uint32_t kElDescription = 40;  // 32 chars
inline constexpr std::uint32_t kLenElDescription = 32;

constexpr std::uint32_t ElementOffset(std::uint32_t i) {
  return kOffElements + kElementSize * i;
}

// ---- Image source (orientation) header ----------------------------------------------------
inline constexpr std::uint32_t kOffXOffset = 1408;
inline constexpr std::uint32_t kOffYOffset = 1412;
inline constexpr std::uint32_t kOffXCenter = 1416;  // f32
inline constexpr std::uint32_t kOffYCenter = 1420;  // f32
inline constexpr std::uint32_t kOffXOriginalSize = 1424;
inline constexpr std::uint32_t kOffYOriginalSize = 1428;
inline constexpr std::uint32_t kOffSourceFileName = 1432;  // 100 chars
inline constexpr std::uint32_t kLenSourceFileName = 100;
inline constexpr std::uint32_t kOffSourceTime = 1532;  // 24 chars
inline constexpr std::uint32_t kLenSourceTime = 24;
inline constexpr std::uint32_t kOffInputDevice = 1556;  // 32 chars
inline constexpr std::uint32_t kLenInputDevice = 32;
inline constexpr std::uint32_t kOffInputSerial = 1588;  // 32 chars
inline constexpr std::uint32_t kLenInputSerial = 32;
inline constexpr std::uint32_t kOffBorder = 1620;  // 4 x u16: L, R, T, B
inline constexpr std::uint32_t kOffAspectH = 1628;
inline constexpr std::uint32_t kOffAspectV = 1632;
inline constexpr std::uint32_t kOffXScannedSize = 1636;
inline constexpr std::uint32_t kOffYScannedSize = 1640;

// ---- Film industry header -----------------------------------------------------------------
inline constexpr std::uint32_t kOffFilm = 1664;
inline constexpr std::uint32_t kOffFilmMfgId = 1664;       // 2 chars
inline constexpr std::uint32_t kOffFilmType = 1666;        // 2 chars
inline constexpr std::uint32_t kOffFilmPerfOffset = 1668;  // 2 chars
inline constexpr std::uint32_t kOffFilmPrefix = 1670;      // 6 chars
inline constexpr std::uint32_t kOffFilmCount = 1676;       // 4 chars
inline constexpr std::uint32_t kOffFilmFormat = 1680;      // 32 chars
inline constexpr std::uint32_t kOffFramePosition = 1712;
inline constexpr std::uint32_t kOffSequenceLength = 1716;
inline constexpr std::uint32_t kOffHeldCount = 1720;
inline constexpr std::uint32_t kOffFilmFrameRate = 1724;  // f32
inline constexpr std::uint32_t kOffShutterAngle = 1728;   // f32
inline constexpr std::uint32_t kOffFrameId = 1732;        // 32 chars
inline constexpr std::uint32_t kOffSlate = 1764;          // 100 chars
inline constexpr std::uint32_t kOffFilmReserved = 1864;   // 56 bytes
// A reserved area starting with this tag carries a perforation type digit at kOffPerfType.
inline constexpr char kPerfTag[6] = {'A', 'R', 'R', 'I', '0', '1'};
inline constexpr std::uint32_t kOffPerfType = 1883;

// ---- Television industry header -----------------------------------------------------------
inline constexpr std::uint32_t kOffTv = 1920;
inline constexpr std::uint32_t kOffTimeCode = 1920;
inline constexpr std::uint32_t kOffUserBits = 1924;
inline constexpr std::uint32_t kOffInterlace = 1928;        // u8
inline constexpr std::uint32_t kOffFieldNumber = 1929;      // u8
inline constexpr std::uint32_t kOffVideoStandard = 1930;    // u8
inline constexpr std::uint32_t kOffHSampling = 1932;        // f32
inline constexpr std::uint32_t kOffVSampling = 1936;        // f32
inline constexpr std::uint32_t kOffTvFrameRate = 1940;      // f32, temporal sampling rate
inline constexpr std::uint32_t kOffTimeOffset = 1944;       // f32
inline constexpr std::uint32_t kOffGamma = 1948;            // f32
inline constexpr std::uint32_t kOffBlackLevel = 1952;       // f32
inline constexpr std::uint32_t kOffBlackGain = 1956;        // f32
inline constexpr std::uint32_t kOffBreakPoint = 1960;       // f32
inline constexpr std::uint32_t kOffWhiteLevel = 1964;       // f32
inline constexpr std::uint32_t kOffIntegrationTime = 1968;  // f32

// ---- Codes --------------------------------------------------------------------------------
enum Descriptor : std::uint8_t {
  kDescUser = 0,
  kDescRed = 1,
  kDescGreen = 2,
  kDescBlue = 3,
  kDescAlpha = 4,
  kDescLuma = 6,
  kDescRGB = 50,
  kDescRGBA = 51,
  kDescABGR = 52,
  kDescBGR = 53,  // three components, blue first: our own code beside the standard's
};

enum Transfer : std::uint8_t {
  kTransferUser = 0,
  kTransferPrintingDensity = 1,
  kTransferLinear = 2,
  kTransferLogarithmic = 3,
  kTransferRec709 = 6,
};

enum Packing : std::uint16_t {
  kPackPacked = 0,  // samples packed back to back into 32-bit words
  kPackFillA = 1,   // filled to 32-bit words, padding at the bottom
  kPackFillB = 2,   // filled to 32-bit words, padding at the top
};

// ---- Cineon -------------------------------------------------------------------------------
inline constexpr std::uint32_t kCineonMagic = 0x802A5FD7u;
inline constexpr std::uint32_t kCinOffMagic = 0;
inline constexpr std::uint32_t kCinOffImageOffset = 4;
inline constexpr std::uint32_t kCinOffGenericSize = 8;
inline constexpr std::uint32_t kCinFirstRead = 192;
inline constexpr std::uint32_t kCinOffOrientation = 192;  // u8
inline constexpr std::uint32_t kCinOffChannels = 193;     // u8
inline constexpr std::uint32_t kCinOffBits = 198;         // u8, channel 0
inline constexpr std::uint32_t kCinOffPixelsPerLine = 200;
inline constexpr std::uint32_t kCinOffLines = 204;
inline constexpr std::uint32_t kCinOffInterleave = 680;  // u8
inline constexpr std::uint32_t kCinOffPacking = 681;     // u8
inline constexpr std::uint32_t kCinOffSigned = 682;      // u8
inline constexpr std::uint32_t kCinOffSense = 683;       // u8
inline constexpr std::uint32_t kCinOffEolPadding = 684;
inline constexpr std::uint32_t kCinOffFrameRate = 1072;    // f32
inline constexpr std::uint32_t kCinDefaultGeneric = 1024;  // 192 + 832 when the length is bad
inline constexpr std::uint32_t kCinIndustrySize = 1024;
inline constexpr std::uint32_t kCinMaxGenericSize = 64 * 1024;  // longer lengths fail
inline constexpr std::uint32_t kCinTotalHeader = 2048;  // largest header read in the usual case

// Byte order: every multi-byte field goes through base/bytes.h (Load32(p, big), StoreFloat(...)).

// Largest code value of a depth; float samples (32 bits) run to 1.0.
constexpr double MaxCode(std::uint32_t bits) {
  return bits >= 32 ? 1.0 : static_cast<double>((std::uint64_t{1} << bits) - 1);
}

}  // namespace vx::dpx
