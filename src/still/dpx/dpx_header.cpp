#include "still/dpx/dpx_header.h"

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "still/dpx/dpx_format.h"

namespace vx::dpx {
namespace {

bool Defined(const std::uint8_t* p) {
  return !(p[0] == 0xFF && p[1] == 0xFF && p[2] == 0xFF && p[3] == 0xFF);
}

// Frame rates outside (1e-9, 8000) are not believed; others snap to the host's exact rates.
double FrameRateFrom(const std::uint8_t* p, bool big) {
  if (!Defined(p)) return -1.0;
  const double v = LoadFloat(p, big);
  if (!(v > 1e-9 && v < 8000.0)) return -1.0;
  const double rate = VxGetTimeFormatFromSampleRate(v).Rate();
  return rate > 0.0 ? rate : -1.0;
}

// Copies a fixed-width text field up to its first NUL.
std::string Field(const std::uint8_t* p, std::size_t width) {
  std::size_t n = 0;
  while (n < width && p[n] != 0) ++n;
  return std::string(reinterpret_cast<const char*>(p), n);
}

std::uint32_t EolPadding(std::uint32_t stored) {
  return stored >= 0x7FFFFFFFu ? 0 : stored;
}

}  // namespace

bool ParseDpxHeader(const std::uint8_t* d, std::size_t size, DpxHeaderState* out) {
  if (d == nullptr || out == nullptr || size < kGenericHeaderSize) return false;
  DpxHeaderState s;
  s.isDpx = true;
  if (std::memcmp(d, kMagicBig, 4) == 0) {
    s.bigEndian = true;
  } else if (std::memcmp(d, kMagicLittle, 4) == 0) {
    s.bigEndian = false;
  } else {
    return false;
  }
  const bool big = s.bigEndian;
  const std::uint32_t count = Load16(d + kOffElementCount, big);
  if (count > kMaxElements) return false;
  s.width = Load32(d + kOffPixelsPerLine, big);
  s.height = Load32(d + kOffLinesPerElement, big);

  bool separateRed = false;
  bool separateAlpha = false;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint8_t* e = d + ElementOffset(i);
    const std::uint32_t bits = e[kElBitSize];
    const std::uint32_t packing = Load16(e + kElPacking, big);
    const std::uint32_t desc = e[kElDescriptor];
    if (!(bits == 1 || bits == 8 || bits == 10 || bits == 12 || bits == 16 || bits == 32)) {
      continue;
    }
    if (packing >= 3) continue;
    int slot = 0;
    std::uint32_t components = 1;
    switch (desc) {
      case kDescRed:
        ++s.redSeen;
        separateRed = true;
        slot = 0;
        break;
      case kDescGreen:
        ++s.greenOrLumaSeen;
        slot = 1;
        break;
      case kDescBlue:
        ++s.blueSeen;
        slot = 2;
        break;
      case kDescAlpha:
        ++s.alphaSeen;
        s.hasAlpha = 1;
        separateAlpha = true;
        slot = 3;
        break;
      case kDescLuma:
        ++s.redSeen;
        ++s.greenOrLumaSeen;
        ++s.blueSeen;
        break;
      case kDescRGB:
      case kDescBGR:
        ++s.redSeen;
        ++s.greenOrLumaSeen;
        ++s.blueSeen;
        components = 3;
        if (desc == kDescBGR) s.reversedOrder = 1;
        break;
      case kDescRGBA:
      case kDescABGR:
        ++s.redSeen;
        ++s.greenOrLumaSeen;
        ++s.blueSeen;
        ++s.alphaSeen;
        s.hasAlpha = 1;
        components = 4;
        if (desc == kDescABGR) s.reversedOrder = 1;
        break;
      default:
        continue;
    }
    if (bits > s.maxBits) s.maxBits = bits;
    DpxElementInfo& info = s.elements[slot];
    info.dataOffset = Load32(e + kElDataOffset, big);
    // Some writers leave the element's offset empty and give only the file's image offset.
    if (info.dataOffset == 0 || info.dataOffset == kUndef32) {
      info.dataOffset = Load32(d + kOffImageOffset, big);
    }
    info.eolPadding = EolPadding(Load32(e + kElEolPadding, big));
    info.spare = 0;
    info.components = components;
    info.bitDepth = bits;
    info.transfer = e[kElTransfer];
    info.packing = packing;
    info.descriptor = desc;
    ++s.elementCount;
  }
  // An interleaved colour element is followed by its alpha element in slot 1.
  if (separateAlpha && !separateRed) s.elements[1] = s.elements[3];
  if (s.redSeen != 1 || s.greenOrLumaSeen != 1 || s.blueSeen != 1 || s.alphaSeen > 1) {
    return false;
  }
  s.orientation = Load16(d + kOffOrientation, big);
  if (s.orientation > 7) return false;

  const std::uint8_t* ah = d + kOffAspectH;
  const std::uint8_t* av = d + kOffAspectV;
  const std::uint32_t h = Load32(ah, big);
  const std::uint32_t v = Load32(av, big);
  if (!Defined(ah) || !Defined(av) || h == 0 || v == 0) {
    s.aspectKnown = false;
    s.pixelAspect = 1.0;
  } else {
    s.aspectKnown = true;
    s.pixelAspect = static_cast<double>(h) / static_cast<double>(v);
  }
  if (d[kOffInputDevice] != 0) {
    std::memcpy(s.inputDevice, d + kOffInputDevice, kLenInputDevice);
    s.inputDevice[kLenInputDevice - 1] = 0;
  }

  if (size < kGenericHeaderSize + kFilmHeaderSize) return false;
  if (d[kOffFilmType] != 0) {
    // The host's edge-code text: "MM TT OO-PPPPPP+CCCC".
    const std::string text = Field(d + kOffFilmMfgId, 2) + ' ' + Field(d + kOffFilmType, 2) + ' ' +
                             Field(d + kOffFilmPerfOffset, 2) + '-' + Field(d + kOffFilmPrefix, 6) +
                             '+' + Field(d + kOffFilmCount, 4);
    s.edgeCode.InitFromString(text.c_str());
  }
  if (std::memcmp(d + kOffFilmReserved, kPerfTag, sizeof kPerfTag) == 0) {
    int perf = 0;
    switch (d[kOffPerfType]) {
      case '1':
        perf = 1;
        break;
      case '2':
        perf = 3;
        break;
      case '3':
        perf = 4;
        break;
      case '4':
        perf = 5;
        break;
      default:
        perf = 0;
    }
    s.edgeCode.InitPos(perf);
  }

  if (size < kHeaderSize) return false;
  s.frameRate = FrameRateFrom(d + kOffTvFrameRate, big);
  const std::uint8_t interlace = d[kOffInterlace];
  const std::uint8_t field = d[kOffFieldNumber];
  if (interlace == 0xFF) {
    s.fieldMode = 3;
  } else if (interlace != 0) {
    s.fieldMode = field != 0 ? (field & 1) : 2;
  } else {
    s.fieldMode = 2;
  }
  auto level = [&](std::uint32_t off, double fallback) {
    return Defined(d + off) ? static_cast<double>(LoadFloat(d + off, big)) : fallback;
  };
  s.blackLevel = level(kOffBlackLevel, 0.0);
  s.whiteLevel = level(kOffWhiteLevel, MaxCode(s.maxBits));
  s.blackGain = level(kOffBlackGain, 4.5);
  s.gamma = level(kOffGamma, 2.2222223);
  s.breakPoint = level(kOffBreakPoint, 0.018);
  s.timeCode = Load32(d + kOffTimeCode, big);
  s.userBits = Load32(d + kOffUserBits, big);
  *out = std::move(s);
  return true;
}

std::uint64_t CineonHeaderBytes(const std::uint8_t* d, std::size_t size) {
  if (d == nullptr || size < kCinFirstRead) return 0;
  bool big;
  if (Load32(d, false) == kCineonMagic) {
    big = false;
  } else if (Load32(d, true) == kCineonMagic) {
    big = true;
  } else {
    return 0;
  }
  const std::int64_t generic = Load32(d + kCinOffGenericSize, big);
  // The generic header is 1024 bytes; a length far beyond that is a broken field, not a reason
  // to read (and allocate) as much as the file holds.
  if (generic > kCinMaxGenericSize) return 0;
  const std::int64_t rest = generic - kCinFirstRead;
  return kCinFirstRead + static_cast<std::uint64_t>(rest < 0 ? 832 : rest) + kCinIndustrySize;
}

bool ParseCineonHeader(const std::uint8_t* d, std::size_t size, DpxHeaderState* out) {
  if (out == nullptr) return false;
  const std::uint64_t need = CineonHeaderBytes(d, size);
  if (need == 0 || size < need) return false;
  DpxHeaderState s;
  s.isDpx = false;
  s.bigEndian = Load32(d, false) != kCineonMagic;
  const bool big = s.bigEndian;
  if (d[kCinOffInterleave] != 0 || d[kCinOffSigned] != 0 || d[kCinOffSense] != 0) return false;
  s.orientation = d[kCinOffOrientation];
  if (s.orientation > 7) return false;
  const std::uint32_t bits = d[kCinOffBits];
  s.width = Load32(d + kCinOffPixelsPerLine, big);
  s.height = Load32(d + kCinOffLines, big);
  s.frameRate = FrameRateFrom(d + kCinOffFrameRate, big);
  s.fieldMode = 3;

  DpxElementInfo& info = s.elements[0];
  info.dataOffset = Load32(d + kCinOffImageOffset, big);
  info.eolPadding = EolPadding(Load32(d + kCinOffEolPadding, big));
  switch (d[kCinOffPacking]) {
    case 0:
      info.packing = kPackPacked;
      break;
    case 5:
      info.packing = kPackFillA;
      break;
    case 6:
      info.packing = kPackFillB;
      break;
    default:
      return false;
  }
  switch (d[kCinOffChannels]) {
    case 1:
      info.descriptor = kDescLuma;
      info.components = 1;
      break;
    case 3:
      info.descriptor = kDescRGB;
      info.components = 3;
      break;
    case 4:
      info.descriptor = kDescRGBA;
      info.components = 4;
      s.hasAlpha = 1;
      s.alphaSeen = 1;
      break;
    default:
      return false;
  }
  s.redSeen = s.greenOrLumaSeen = s.blueSeen = 1;
  if (bits == 8) {
    info.transfer = kTransferLinear;
    s.blackLevel = 0.0;
    s.whiteLevel = 255.0;
  } else if (bits == 10) {
    info.transfer = kTransferLogarithmic;
    s.whiteLevel = 1023.0;
  } else {
    return false;
  }
  info.bitDepth = bits;
  s.maxBits = bits;
  s.elementCount = 1;
  *out = std::move(s);
  return true;
}

bool ReadDpxHeaderFile(vx::os::FileHandle file, bool dpx, DpxHeaderState* out) {
  if (file == vx::os::kNoFile) return false;
  std::vector<std::uint8_t> buf(kHeaderSize);
  std::uint32_t done = 0;
  if (dpx) {
    if (!vx::os::ReadAt(file, 0, buf.data(), kHeaderSize, &done)) return false;
    return ParseDpxHeader(buf.data(), done, out);
  }
  if (!vx::os::ReadAt(file, 0, buf.data(), kCinFirstRead, &done) || done < kCinFirstRead) {
    return false;
  }
  const std::uint64_t need = CineonHeaderBytes(buf.data(), done);
  std::uint64_t fileSize = 0;
  if (need == 0 || !vx::os::Size(file, &fileSize) || need > fileSize) return false;
  buf.resize(need);
  if (!vx::os::ReadAt(file, 0, buf.data(), static_cast<std::uint32_t>(need), &done)) return false;
  return ParseCineonHeader(buf.data(), done, out);
}

std::uint64_t DpxLineBytes(std::uint32_t bits, std::uint32_t packing, std::uint64_t width,
                           std::uint32_t components, bool eightBitFlag) {
  const std::uint64_t n = width * components;
  std::uint64_t bytes = 0;
  switch (bits) {
    case 1:
      bytes = (n + 7) / 8;
      break;
    case 10:
      bytes = packing != kPackPacked ? (n + 2) / 3 * 4 : (n * 10 + 31) / 32 * 4;
      break;
    case 12:
      bytes = packing != kPackPacked ? n * 2 : (n * 12 + 31) / 32 * 4;
      break;
    case 8:
    case 16:
    case 32:
    case 64:
      bytes = bits / 8 * n;
      break;
    default:
      return 0;
  }
  if ((bits == 8) != eightBitFlag) bytes = (bytes + 3) / 4 * 4;
  return bytes;
}

std::uint64_t CineonLineBytes(std::uint32_t bits, std::uint64_t width, std::uint32_t components) {
  const std::uint64_t perPixel = (std::uint64_t{bits} * components + 7) / 8;
  // Four 10-bit channels: 40 bits a pixel, three samples to a word.
  if (perPixel == 5) return (width * 16 * 2 + 3) / 6;
  return width * perPixel;
}

}  // namespace vx::dpx
