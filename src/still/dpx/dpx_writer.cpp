#include "still/dpx/dpx_writer.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "fileio/whole_file.h"
#include "base/checked.h"
#include "base/guard.h"
#include "base/text.h"
#include "base/worker_pool.h"
#include "still/dpx/dpx_format.h"
#include "still/dpx/dpx_header.h"
#include "still/dpx/dpx_metadata.h"
#include "still/dpx/dpx_pack.h"
#include "vx/platform.h"

namespace vx::dpx {
namespace {

constexpr const VxChar* kErrorCaption = VXT("Error Message");
constexpr const VxChar* kLutLoadError =
    VXT("Dpx Parser Write error: Cannot create the 3D LUT unsupported format!");
constexpr const VxChar* kLutApplyError =
    VXT("Dpx Parser Write error: Cannot apply the 3D LUT, the output will not have any 3D LUT "
        "apply!");
constexpr char kCreator[] = "Halden Vx";

bool FormatHasAlpha(VxPixelFormat f) {
  return f == VX_PF_RGBA8 || f == VX_PF_BGRA8 || f == VX_PF_RGBA16 || f == VX_PF_RGBAF32;
}

std::uint32_t FormatBits(VxPixelFormat f) {
  switch (f) {
    case VX_PF_RGB8:
    case VX_PF_RGBA8:
    case VX_PF_BGRA8:
    case VX_PF_GRAY8:
      return 8;
    case VX_PF_RGB16:
    case VX_PF_RGBA16:
    case VX_PF_GRAY16:
      return 16;
    default:
      return 32;
  }
}

// Largest value of one sample of the format (1.0 for float formats).
float FormatMax(VxPixelFormat f) {
  const std::uint32_t bits = FormatBits(f);
  return bits == 8 ? 255.0f : bits == 16 ? 65535.0f : 1.0f;
}

bool KnownFormat(VxPixelFormat f) {
  return f >= VX_PF_RGB8 && f <= VX_PF_GRAYF32;
}

// One line of the image as RGBA floats times `scale`; a missing alpha becomes `opaque`.
void RowToRgba(const std::uint8_t* row, VxPixelFormat f, std::size_t width, float scale,
               float opaque, float* out) {
  auto conv = [&](auto* src, int channels, bool bgra) {
    for (std::size_t x = 0; x < width; ++x, src += channels, out += 4) {
      if (channels == 1) {
        out[0] = out[1] = out[2] = static_cast<float>(src[0]) * scale;
        out[3] = opaque;
        continue;
      }
      out[0] = static_cast<float>(src[bgra ? 2 : 0]) * scale;
      out[1] = static_cast<float>(src[1]) * scale;
      out[2] = static_cast<float>(src[bgra ? 0 : 2]) * scale;
      out[3] = channels == 4 ? static_cast<float>(src[3]) * scale : opaque;
    }
  };
  switch (f) {
    case VX_PF_RGB8:
      conv(row, 3, false);
      break;
    case VX_PF_RGBA8:
      conv(row, 4, false);
      break;
    case VX_PF_BGRA8:
      conv(row, 4, true);
      break;
    case VX_PF_GRAY8:
      conv(row, 1, false);
      break;
    case VX_PF_RGB16:
      conv(reinterpret_cast<const std::uint16_t*>(row), 3, false);
      break;
    case VX_PF_RGBA16:
      conv(reinterpret_cast<const std::uint16_t*>(row), 4, false);
      break;
    case VX_PF_GRAY16:
      conv(reinterpret_cast<const std::uint16_t*>(row), 1, false);
      break;
    case VX_PF_RGBF32:
      conv(reinterpret_cast<const float*>(row), 3, false);
      break;
    case VX_PF_RGBAF32:
      conv(reinterpret_cast<const float*>(row), 4, false);
      break;
    case VX_PF_GRAYF32:
      conv(reinterpret_cast<const float*>(row), 1, false);
      break;
    default:
      break;
  }
}

void SetElements(DpxLayout layout, DpxOutputPlan* plan) {
  auto add = [plan](std::uint8_t descriptor, std::initializer_list<std::uint8_t> order) {
    DpxElementPlan& e = plan->elements[plan->elementCount++];
    e.descriptor = descriptor;
    e.components = static_cast<std::uint32_t>(order.size());
    std::copy(order.begin(), order.end(), e.order);
  };
  switch (layout) {
    case DpxLayout::PackedRGBA:
      add(kDescRGBA, {0, 1, 2, 3});
      break;
    case DpxLayout::PlanarRGBA:
      add(kDescRed, {0});
      add(kDescGreen, {1});
      add(kDescBlue, {2});
      add(kDescAlpha, {3});
      break;
    case DpxLayout::PackedABGR:
      add(kDescABGR, {3, 2, 1, 0});
      break;
    case DpxLayout::RGBPlusAlpha:
      add(kDescRGB, {0, 1, 2});
      add(kDescAlpha, {3});
      break;
    case DpxLayout::BGRPlusAlpha:
      add(kDescBGR, {2, 1, 0});
      add(kDescAlpha, {3});
      break;
    case DpxLayout::PlanarRGB:
      add(kDescRed, {0});
      add(kDescGreen, {1});
      add(kDescBlue, {2});
      break;
    case DpxLayout::PackedBGR:
      add(kDescBGR, {2, 1, 0});
      break;
    case DpxLayout::PackedRGB:
    default:
      add(kDescRGB, {0, 1, 2});
      break;
  }
}

std::string CreationTime() {
  using namespace std::chrono;
  const auto now = floor<seconds>(system_clock::now());
  const auto day = floor<days>(now);
  const year_month_day ymd{day};
  const hh_mm_ss hms{now - day};
  char text[32];
  std::snprintf(text, sizeof text, "%04d:%02d:%02d:%02d:%02d:%02dZ", static_cast<int>(ymd.year()),
                static_cast<int>(static_cast<unsigned>(ymd.month())),
                static_cast<int>(static_cast<unsigned>(ymd.day())),
                static_cast<int>(hms.hours().count()), static_cast<int>(hms.minutes().count()),
                static_cast<int>(hms.seconds().count()));
  return text;
}

struct ElementLayout {
  std::uint64_t lineBytes = 0;
  std::uint64_t usedBytes = 0;  // bytes the samples of a line fill
  std::uint64_t dataOffset = 0;
};

void FillHeader(std::uint8_t* h, const DpxOutputPlan& plan, const ElementLayout* layouts,
                std::uint32_t width, std::uint32_t height, std::uint64_t fileSize, double frameRate,
                const DpxWriteInfo& info) {
  const bool big = plan.bigEndian;
  auto u32 = [&](std::uint32_t off, std::uint32_t v) { Store32(h + off, v, big); };
  auto f32 = [&](std::uint32_t off, double v) { StoreFloat(h + off, static_cast<float>(v), big); };
  std::memset(h, 0, kHeaderSize);

  std::memcpy(h + kOffMagic, big ? kMagicBig : kMagicLittle, 4);
  u32(kOffImageOffset, kHeaderSize);
  std::memcpy(h + kOffVersion, kVersion, 8);
  u32(kOffFileSize, static_cast<std::uint32_t>(fileSize));
  u32(kOffDittoKey, 0);
  u32(kOffGenericSize, kGenericHeaderSize);
  u32(kOffIndustrySize, kIndustryHeaderSize);
  u32(kOffUserSize, 0);
  const std::string created = CreationTime();
  std::memcpy(h + kOffCreationTime, created.data(),
              std::min<std::size_t>(created.size(), kLenCreationTime - 1));
  std::memcpy(h + kOffCreator, kCreator, sizeof kCreator - 1);
  u32(kOffEncryptionKey, kUndef32);

  Store16(h + kOffOrientation, 0, big);
  Store16(h + kOffElementCount, static_cast<std::uint16_t>(plan.elementCount), big);
  u32(kOffPixelsPerLine, width);
  u32(kOffLinesPerElement, height);
  const bool density = plan.transferCode == kTransferPrintingDensity;
  for (std::uint32_t i = 0; i < plan.elementCount; ++i) {
    std::uint8_t* e = h + ElementOffset(i);
    Store32(e + kElDataSign, 0, big);
    Store32(e + kElRefLowCode, 0, big);
    Store32(e + kElRefHighCode, static_cast<std::uint32_t>((std::uint64_t{1} << plan.bits) - 1),
            big);
    if (density) {
      StoreFloat(e + kElRefLowQuantity, 0.0f, big);
      StoreFloat(e + kElRefHighQuantity, 2.048f, big);
    } else {
      Store32(e + kElRefLowQuantity, kUndef32, big);
      Store32(e + kElRefHighQuantity, kUndef32, big);
    }
    e[kElDescriptor] = plan.elements[i].descriptor;
    e[kElTransfer] = plan.transferCode;
    e[kElColorimetric] = plan.colorimetricCode;
    e[kElBitSize] = static_cast<std::uint8_t>(plan.bits);
    Store16(e + kElPacking, static_cast<std::uint16_t>(plan.packing), big);
    Store16(e + kElEncoding, 0, big);
    Store32(e + kElDataOffset, static_cast<std::uint32_t>(layouts[i].dataOffset), big);
    Store32(e + kElEolPadding, 0, big);
    Store32(e + kElEoiPadding, 0, big);
  }

  for (std::uint32_t off = kOffXOffset; off <= kOffYOriginalSize; off += 4) u32(off, kUndef32);
  std::memcpy(h + kOffInputDevice, info.inputDevice.data(),
              std::min<std::size_t>(info.inputDevice.size(), kLenInputDevice));
  std::memset(h + kOffBorder, 0xFF, 8);
  std::uint32_t an = 0, ad = 0;
  if (info.aspectKnown && AspectFraction(info.pixelAspect, &an, &ad)) {
    u32(kOffAspectH, an);
    u32(kOffAspectV, ad);
  } else {
    u32(kOffAspectH, kUndef32);
    u32(kOffAspectV, kUndef32);
  }
  u32(kOffXScannedSize, kUndef32);
  u32(kOffYScannedSize, kUndef32);

  for (std::uint32_t off = kOffFramePosition; off <= kOffShutterAngle; off += 4) u32(off, kUndef32);

  u32(kOffTimeCode, info.timeCode);
  u32(kOffUserBits, kUndef32);
  const bool rateKnown = frameRate > 0.0 && std::isfinite(frameRate);
  const bool interlaced = info.fieldMode == 0 || info.fieldMode == 1;
  h[kOffInterlace] = interlaced ? 1 : 0;
  h[kOffFieldNumber] = interlaced ? (info.fieldMode != 0 ? 1 : 2) : 0;
  h[kOffVideoStandard] = 0;
  u32(kOffHSampling, kUndef32);
  if (rateKnown) {
    f32(kOffVSampling, interlaced ? 2.0 * frameRate : frameRate);
    f32(kOffTvFrameRate, frameRate);
  } else {
    u32(kOffVSampling, kUndef32);
    u32(kOffTvFrameRate, kUndef32);
  }
  u32(kOffTimeOffset, kUndef32);
  if (plan.transferChoice == 1 || plan.transferChoice == 3) {
    const VxLevelSet& l = info.levels;
    f32(kOffGamma, l.gamma);
    f32(kOffBlackLevel, l.blackLevel);
    f32(kOffBlackGain, l.blackGain);
    f32(kOffBreakPoint, l.breakPoint);
    f32(kOffWhiteLevel, l.whiteLevel < 0.0 ? MaxCode(plan.bits) : l.whiteLevel);
  } else {
    for (std::uint32_t off = kOffGamma; off <= kOffWhiteLevel; off += 4) u32(off, kUndef32);
  }
  u32(kOffIntegrationTime, kUndef32);
  ApplyDpxMetadata(info.metadata, h, big, plan.elementCount);
}

enum class Outcome { Ok, LutFailed, WriteFailed };

struct Job {
  IVxImage* image;
  DpxOutputPlan plan;
  const DpxWriteInfo* info;
  double frameRate;
  ElementLayout layouts[4];
  std::uint64_t fileSize;
};

// Where each component of an element comes from in a source pixel; -1 is an opaque alpha the
// source lacks.
struct ElementSource {
  int index[4] = {-1, -1, -1, -1};
  std::uint32_t components = 0;
};

ElementSource SourceOf(const DpxElementPlan& e, VxPixelFormat f) {
  const int channels = VxPixelFormatChannels(f);
  const bool bgra = f == VX_PF_BGRA8;
  ElementSource s;
  s.components = e.components;
  for (std::uint32_t k = 0; k < e.components; ++k) {
    const int c = e.order[k];
    if (channels == 1)
      s.index[k] = c == 3 ? -1 : 0;
    else if (c == 3)
      s.index[k] = channels == 4 ? 3 : -1;
    else
      s.index[k] = bgra && c != 1 ? 2 - c : c;
  }
  return s;
}

// One line of `components` values per pixel out of a source line of `step` samples per pixel.
template <std::uint32_t N, class S, class T, class Map>
void GatherLine(const S* src, std::size_t width, int step, const int* index, T opaque, Map map,
                T* out) {
  for (std::size_t x = 0; x < width; ++x, src += step, out += N)
    for (std::uint32_t k = 0; k < N; ++k) out[k] = index[k] < 0 ? opaque : map(src[index[k]]);
}
template <class S, class T, class Map>
void Gather(const S* src, std::size_t width, int step, const ElementSource& e, T opaque, Map map,
            T* out) {
  switch (e.components) {
    case 1:
      GatherLine<1>(src, width, step, e.index, opaque, map, out);
      break;
    case 3:
      GatherLine<3>(src, width, step, e.index, opaque, map, out);
      break;
    default:
      GatherLine<4>(src, width, step, e.index, opaque, map, out);
      break;
  }
}

// Per-thread line buffers and the band being packed, kept between frames so a sequence does not
// fault in fresh pages for every frame.
struct BandScratch {
  std::vector<std::uint16_t> codes;
  std::vector<float> floats, rgba;
  std::vector<std::uint8_t> band;
};
BandScratch& Scratch() {
  thread_local BandScratch scratch;
  return scratch;
}

// How a frame's samples become code values: a table for 8- and 16-bit sources (the same rounding
// as the float path, looked up instead of computed), the float path for float sources and LUTs.
struct Conversion {
  VxPixelFormat format = VX_PF_UNKNOWN;
  std::uint32_t bits = 10;
  float maxCode = 1023.0f;
  float scale = 1.0f;   // source sample to code value
  float opaque = 1.0f;  // a missing alpha, in code values
  std::vector<std::uint16_t> codeOf;
  std::vector<float> floatOf;
  const VxLUT3D* lut = nullptr;
};

Conversion MakeConversion(VxPixelFormat format, std::uint32_t bits, const VxLUT3D* lut) {
  Conversion c;
  c.format = format;
  c.bits = bits;
  c.maxCode = static_cast<float>(MaxCode(bits));
  const float srcMax = FormatMax(format);
  // With a LUT the line is normalised first and scaled to code values after the LUT.
  c.scale = lut ? 1.0f / srcMax : c.maxCode / srcMax;
  c.opaque = lut ? 1.0f : c.maxCode;
  c.lut = lut;
  if (!lut && FormatBits(format) <= 16) {
    const std::size_t n = static_cast<std::size_t>(srcMax) + 1;
    if (bits == 32) {
      c.floatOf.resize(n);
      for (std::size_t v = 0; v < n; ++v) c.floatOf[v] = static_cast<float>(v) * c.scale;
    } else {
      c.codeOf.resize(n);
      for (std::size_t v = 0; v < n; ++v)
        c.codeOf[v] =
            static_cast<std::uint16_t>(ToCode(static_cast<float>(v) * c.scale, c.maxCode));
    }
  }
  return c;
}

// The export most frames take: three 10-bit samples filled into one word per pixel, straight
// from the source samples through the code table.
template <class S, bool Big, unsigned Base>
void Pack10FilledRGB(const S* src, std::size_t width, int step, const int* index,
                     const std::uint16_t* codeOf, std::uint8_t* out) {
  const int r = index[0], g = index[1], b = index[2];
  for (std::size_t x = 0; x < width; ++x, src += step, out += 4) {
    const std::uint32_t w = std::uint32_t{codeOf[src[r]]} << (Base + 20) |
                            std::uint32_t{codeOf[src[g]]} << (Base + 10) |
                            std::uint32_t{codeOf[src[b]]} << Base;
    Store32(out, w, Big);
  }
}
// Samples that fill whole bytes (8 bits) or 16-bit words (12-bit filled, 16 bits), each stored
// straight from the code table.
template <std::uint32_t N, class S, class Put>
void PackWhole(const S* src, std::size_t width, int step, const int* index, std::uint16_t opaque,
               const std::uint16_t* codeOf, Put put) {
  for (std::size_t x = 0, i = 0; x < width; ++x, src += step)
    for (std::uint32_t k = 0; k < N; ++k, ++i)
      put(i, index[k] < 0 ? opaque : codeOf[src[index[k]]]);
}
template <class S, class Put>
void PackWholeAny(const S* src, std::size_t width, int step, const ElementSource& e,
                  std::uint16_t opaque, const std::uint16_t* codeOf, Put put) {
  switch (e.components) {
    case 1:
      PackWhole<1>(src, width, step, e.index, opaque, codeOf, put);
      break;
    case 3:
      PackWhole<3>(src, width, step, e.index, opaque, codeOf, put);
      break;
    default:
      PackWhole<4>(src, width, step, e.index, opaque, codeOf, put);
      break;
  }
}

// The common exports straight from the source samples: false when the line needs the general
// path (packed 10 and 12 bits, 1 bit, four-component 10-bit words).
template <class S>
bool PackFast(const S* src, std::size_t width, int step, const ElementSource& e,
              const DpxOutputPlan& plan, const std::uint16_t* codeOf, std::uint8_t* out) {
  const auto opaque = static_cast<std::uint16_t>(MaxCode(plan.bits));
  const bool big = plan.bigEndian;
  if (plan.bits == 8) {
    PackWholeAny(src, width, step, e, opaque, codeOf,
                 [out](std::size_t i, std::uint16_t v) { out[i] = static_cast<std::uint8_t>(v); });
    return true;
  }
  if (plan.bits == 16 || (plan.bits == 12 && plan.packing != kPackPacked)) {
    const unsigned shift = plan.bits == 12 && plan.packing == kPackFillA ? 4 : 0;
    if (big)
      PackWholeAny(src, width, step, e, opaque, codeOf,
                   [out, shift](std::size_t i, std::uint16_t v) {
                     StoreBE16(out + 2 * i, static_cast<std::uint16_t>(v << shift));
                   });
    else
      PackWholeAny(src, width, step, e, opaque, codeOf,
                   [out, shift](std::size_t i, std::uint16_t v) {
                     StoreLE16(out + 2 * i, static_cast<std::uint16_t>(v << shift));
                   });
    return true;
  }
  if (plan.bits != 10 || plan.packing == kPackPacked || e.components != 3 || e.index[0] < 0 ||
      e.index[1] < 0 || e.index[2] < 0)
    return false;
  const bool a = plan.packing == kPackFillA;
  if (big)
    a ? Pack10FilledRGB<S, true, 2>(src, width, step, e.index, codeOf, out)
      : Pack10FilledRGB<S, true, 0>(src, width, step, e.index, codeOf, out);
  else
    a ? Pack10FilledRGB<S, false, 2>(src, width, step, e.index, codeOf, out)
      : Pack10FilledRGB<S, false, 0>(src, width, step, e.index, codeOf, out);
  return true;
}

// Packs one image line into element `e`'s bytes. False when the LUT cannot be applied.
bool PackLine(const Conversion& c, const std::uint8_t* row, std::size_t width,
              const DpxOutputPlan& plan, const DpxElementPlan& e, const ElementSource& src,
              BandScratch& s, std::uint8_t* out) {
  const int step = VxPixelFormatChannels(c.format);
  const std::size_t count = width * e.components;
  const bool isFloat = plan.bits == 32;
  if (c.lut) {
    s.rgba.resize(width * 4);
    RowToRgba(row, c.format, width, c.scale, c.opaque, s.rgba.data());
    if (FAILED(VxLUTHelperApply3DLut(c.lut, s.rgba.data(), width, 4))) return false;
    if (c.maxCode != 1.0f)
      for (float& v : s.rgba) v *= c.maxCode;
    s.floats.resize(count);
    GatherChannels(s.rgba.data(), width, e.order, e.components, s.floats.data());
    return PackSamples(s.floats.data(), count, plan.bits, plan.packing, plan.bigEndian, out);
  }
  const std::uint32_t srcBits = FormatBits(c.format);
  if (isFloat) {
    s.floats.resize(count);
    float* f = s.floats.data();
    if (srcBits == 8) {
      Gather(
          row, width, step, src, c.opaque, [&](std::uint8_t v) { return c.floatOf[v]; }, f);
    } else if (srcBits == 16) {
      Gather(
          reinterpret_cast<const std::uint16_t*>(row), width, step, src, c.opaque,
          [&](std::uint16_t v) { return c.floatOf[v]; }, f);
    } else {
      Gather(
          reinterpret_cast<const float*>(row), width, step, src, c.opaque,
          [&](float v) { return v * c.scale; }, f);
    }
    PackFloats(f, count, plan.bigEndian, out);
    return true;
  }
  if (srcBits == 8 && PackFast(row, width, step, src, plan, c.codeOf.data(), out)) return true;
  if (srcBits == 16 && PackFast(reinterpret_cast<const std::uint16_t*>(row), width, step, src, plan,
                                c.codeOf.data(), out))
    return true;
  s.codes.resize(count);
  std::uint16_t* codes = s.codes.data();
  const auto opaque = static_cast<std::uint16_t>(c.maxCode);
  if (srcBits == 8) {
    Gather(
        row, width, step, src, opaque, [&](std::uint8_t v) { return c.codeOf[v]; }, codes);
  } else if (srcBits == 16) {
    Gather(
        reinterpret_cast<const std::uint16_t*>(row), width, step, src, opaque,
        [&](std::uint16_t v) { return c.codeOf[v]; }, codes);
  } else {
    Gather(
        reinterpret_cast<const float*>(row), width, step, src, opaque,
        [&](float v) { return static_cast<std::uint16_t>(ToCode(v * c.scale, c.maxCode)); }, codes);
  }
  return PackCodes(codes, count, plan.bits, plan.packing, plan.bigEndian, out);
}

// Writes the whole file under `tmp`. The lines are split into bands on the shared pool; each band
// is packed into a per-thread buffer and written with one positioned write per element, so
// packing and writing of different bands overlap.
Outcome WriteAttempt(const Job& job, const VxChar* tmp, const VxLUT3D* lut) {
  IVxImage* image = job.image;
  const std::uint32_t width = static_cast<std::uint32_t>(image->GetWidth());
  const std::uint32_t height = static_cast<std::uint32_t>(image->GetHeight());
  const VxPixelFormat format = image->GetPixelFormat();
  const std::uint8_t* pixels = image->GetBuffer();
  const std::int64_t stride = image->GetRowStride();
  if (!pixels) return Outcome::WriteFailed;
  const DpxOutputPlan& plan = job.plan;

  std::uint8_t header[kHeaderSize];
  FillHeader(header, plan, job.layouts, width, height, job.fileSize, job.frameRate, *job.info);
  const Conversion conv = MakeConversion(format, plan.bits, lut);
  ElementSource sources[4];
  std::uint64_t lineTotal = 0;
  for (std::uint32_t i = 0; i < plan.elementCount; ++i) {
    sources[i] = SourceOf(plan.elements[i], format);
    lineTotal += job.layouts[i].lineBytes;
  }

  os::UniqueFile f(os::Create(tmp));
  if (!f) return Outcome::WriteFailed;
  std::uint32_t done = 0;
  if (!os::WriteAt(f.get(), 0, header, kHeaderSize, &done) || done != kHeaderSize) {
    f.reset();
    os::Remove(tmp);
    return Outcome::WriteFailed;
  }
  // Bands of about a megabyte, at least a few per thread so a slow one does not hold the rest.
  WorkerPool& pool = WorkerPool::Shared();
  const std::uint64_t byBytes = std::max<std::uint64_t>(1, (lineTotal * height) >> 20);
  const std::uint64_t bands64 =
      std::min<std::uint64_t>(height, std::max<std::uint64_t>(byBytes, 4 * pool.Concurrency()));
  const int bands = static_cast<int>(bands64);
  std::atomic<int> failure{static_cast<int>(Outcome::Ok)};
  auto packBand = [&](int band) {
    if (failure.load(std::memory_order_relaxed) != static_cast<int>(Outcome::Ok)) return;
    const std::uint32_t y0 = static_cast<std::uint32_t>(std::uint64_t{height} * band / bands);
    const std::uint32_t y1 = static_cast<std::uint32_t>(std::uint64_t{height} * (band + 1) / bands);
    BandScratch& s = Scratch();
    for (std::uint32_t i = 0; i < plan.elementCount; ++i) {
      const ElementLayout& l = job.layouts[i];
      const std::uint64_t bytes = l.lineBytes * (y1 - y0);
      if (s.band.size() < bytes) s.band.resize(static_cast<std::size_t>(bytes));
      for (std::uint32_t y = y0; y < y1; ++y) {
        std::uint8_t* line = s.band.data() + (y - y0) * l.lineBytes;
        if (!PackLine(conv, pixels + static_cast<std::int64_t>(y) * stride, width, plan,
                      plan.elements[i], sources[i], s, line)) {
          failure = static_cast<int>(Outcome::LutFailed);
          return;
        }
        // Bytes past the last sample (the rounding of 8-bit lines) are zero in the file.
        std::memset(line + l.usedBytes, 0, l.lineBytes - l.usedBytes);
      }
      std::uint32_t put = 0;
      if (!os::WriteAt(f.get(), l.dataOffset + y0 * l.lineBytes, s.band.data(),
                       static_cast<std::uint32_t>(bytes), &put) ||
          put != bytes) {
        failure = static_cast<int>(Outcome::WriteFailed);
        return;
      }
    }
  };
  try {
    pool.ParallelFor(bands, packBand);
  } catch (...) {
    f.reset();
    os::Remove(tmp);
    throw;
  }
  f.reset();
  const auto result = static_cast<Outcome>(failure.load());
  if (result != Outcome::Ok) os::Remove(tmp);
  return result;
}

}  // namespace

std::uint8_t TransferCodeForChoice(int choice) {
  switch (choice) {
    case 0:
      return kTransferLinear;
    case 3:
      return kTransferRec709;
    case 4:
      return kTransferPrintingDensity;
    default:
      return kTransferUser;
  }
}

bool AspectFraction(double aspect, std::uint32_t* horizontal, std::uint32_t* vertical) {
  if (!(aspect > 0.0) || !(aspect * 10000.0 < 4294967296.0)) return false;
  std::uint32_t n = static_cast<std::uint32_t>(std::floor(aspect * 10000.0));
  std::uint32_t d = 10000;
  if (n == 0) return false;
  while (n % 10 == 0 && d % 10 == 0) {
    n /= 10;
    d /= 10;
  }
  while (n % 2 == 0 && d % 2 == 0) {
    n /= 2;
    d /= 2;
  }
  *horizontal = n;
  *vertical = d;
  return true;
}

DpxOutputPlan PlanDpxOutput(const DpxExportSettings& settings, const DpxWriteInfo& info,
                            VxPixelFormat format) {
  DpxOutputPlan plan;
  std::uint32_t bits = static_cast<std::uint32_t>(settings.bitDepth);
  if (bits == 0) bits = info.sourceBits ? info.sourceBits : FormatBits(format);
  switch (bits) {
    case 1:
    case 8:
    case 10:
    case 12:
    case 16:
    case 32:
      break;
    default:
      // The next depth that holds every source value; past 16 bits only float does.
      bits = bits > 16 ? 32 : bits > 12 ? 16 : bits > 10 ? 12 : bits > 8 ? 10 : 8;
  }
  plan.bits = bits;
  int packing = settings.packing >= 0 ? settings.packing : info.sourcePacking;
  plan.packing = packing >= 0 && packing <= 2 ? static_cast<std::uint32_t>(packing) : 0;
  DpxLayout layout = settings.layout != DpxLayout::Keep ? settings.layout : info.sourceLayout;
  if (layout == DpxLayout::Keep)
    layout = FormatHasAlpha(format) ? DpxLayout::PackedRGBA : DpxLayout::PackedRGB;
  plan.layout = layout;
  plan.transferChoice =
      settings.transferChoice >= 0 ? settings.transferChoice : info.transferChoice;
  plan.transferCode = TransferCodeForChoice(plan.transferChoice);
  if (settings.transferCode >= 0) {
    plan.transferCode = static_cast<std::uint8_t>(settings.transferCode);
  } else if (settings.transferChoice < 0 && info.transferCode >= 0) {
    plan.transferCode = static_cast<std::uint8_t>(info.transferCode);
  }
  const bool keepColorimetric =
      settings.transferCode < 0 && settings.transferChoice < 0 && info.colorimetricCode >= 0;
  plan.colorimetricCode =
      keepColorimetric ? static_cast<std::uint8_t>(info.colorimetricCode) : plan.transferCode;
  plan.bigEndian = settings.bigEndian;
  SetElements(layout, &plan);
  return plan;
}

namespace {

HRESULT WriteDpxFileImpl(const VxChar* path, IVxImage* image, const DpxExportSettings& settings,
                         const DpxWriteInfo& info) {
  const int width = image->GetWidth();
  const int height = image->GetHeight();
  const VxPixelFormat format = image->GetPixelFormat();
  if (width <= 0 || height <= 0 || !KnownFormat(format) || !*path) return E_INVALIDARG;
  std::int64_t rowBytes = 0;
  if (!CheckedMul<std::int64_t>(width, VxPixelFormatBytesPerPixel(format), &rowBytes) ||
      image->GetRowStride() < rowBytes)
    return E_INVALIDARG;

  Job job{image, PlanDpxOutput(settings, info, format), &info, info.frameRate, {}, 0};
  // Every offset and the file size are 32-bit fields.
  std::uint64_t offset = kHeaderSize;
  for (std::uint32_t i = 0; i < job.plan.elementCount; ++i) {
    ElementLayout& l = job.layouts[i];
    l.lineBytes = DpxLineBytes(job.plan.bits, job.plan.packing, static_cast<std::uint32_t>(width),
                               job.plan.elements[i].components, false);
    l.usedBytes = DpxLineBytes(job.plan.bits, job.plan.packing, static_cast<std::uint32_t>(width),
                               job.plan.elements[i].components, job.plan.bits == 8);
    l.dataOffset = offset;
    std::uint64_t bytes = 0;
    if (!CheckedProduct(&bytes, l.lineBytes, static_cast<std::uint64_t>(height)) ||
        !CheckedAdd(offset, bytes, &offset) || offset > 0xFFFFFFFFu)
      return E_INVALIDARG;
  }
  job.fileSize = offset;
  double projectRate = 0.0;
  if (VxGetProjectProperty(VXT("Project Frame Rate"), &projectRate) && projectRate > 0.0)
    job.frameRate = projectRate;

  struct LutFree {
    void operator()(VxLUT3D* l) const { VxFreeLUT(l); }
  };
  std::unique_ptr<VxLUT3D, LutFree> lut;
  if (!settings.lutPath.empty()) {
    VxLUT3D* loaded = nullptr;
    if (SUCCEEDED(VxGetPresetLUT(settings.lutPath.c_str(), &loaded)) && loaded)
      lut.reset(loaded);
    else
      VxMessageBox(kErrorCaption, kLutLoadError);
  }
  const bool ok = fileio::WriteReplacing(path, [&](const VxChar* temp) {
    Outcome outcome = WriteAttempt(job, temp, lut.get());
    if (outcome == Outcome::LutFailed) {
      VxMessageBox(kErrorCaption, kLutApplyError);
      outcome = WriteAttempt(job, temp, nullptr);
    }
    return outcome == Outcome::Ok;
  });
  if (!ok) return E_FAIL;
  return S_OK;
}

}  // namespace

HRESULT WriteDpxFile(const VxChar* path, IVxImage* image, const DpxExportSettings& settings,
                     const DpxWriteInfo& info) {
  if (!path || !image) return E_POINTER;
  return Guarded([&] { return WriteDpxFileImpl(path, image, settings, info); });
}

}  // namespace vx::dpx
