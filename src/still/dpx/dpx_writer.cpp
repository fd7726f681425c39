#include "still/dpx/dpx_writer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "still/dpx/dpx_format.h"
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
constexpr std::size_t kChunkBytes = 1u << 20;

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
  std::uint64_t dataOffset = 0;
};

void FillHeader(std::uint8_t* h, const DpxOutputPlan& plan, const ElementLayout* layouts,
                std::uint32_t width, std::uint32_t height, std::uint64_t fileSize, double frameRate,
                const DpxWriteInfo& info) {
  const bool big = plan.bigEndian;
  auto u32 = [&](std::uint32_t off, std::uint32_t v) { StoreU32(h + off, v, big); };
  auto f32 = [&](std::uint32_t off, double v) { StoreF32(h + off, static_cast<float>(v), big); };
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

  StoreU16(h + kOffOrientation, 0, big);
  StoreU16(h + kOffElementCount, static_cast<std::uint16_t>(plan.elementCount), big);
  u32(kOffPixelsPerLine, width);
  u32(kOffLinesPerElement, height);
  const bool density = plan.transferCode == kTransferPrintingDensity;
  for (std::uint32_t i = 0; i < plan.elementCount; ++i) {
    std::uint8_t* e = h + ElementOffset(i);
    StoreU32(e + kElDataSign, 0, big);
    StoreU32(e + kElRefLowCode, 0, big);
    StoreU32(e + kElRefHighCode, static_cast<std::uint32_t>((std::uint64_t{1} << plan.bits) - 1),
             big);
    if (density) {
      StoreF32(e + kElRefLowQuantity, 0.0f, big);
      StoreF32(e + kElRefHighQuantity, 2.048f, big);
    } else {
      StoreU32(e + kElRefLowQuantity, kUndef32, big);
      StoreU32(e + kElRefHighQuantity, kUndef32, big);
    }
    e[kElDescriptor] = plan.elements[i].descriptor;
    e[kElTransfer] = plan.transferCode;
    e[kElColorimetric] = plan.transferCode;
    e[kElBitSize] = static_cast<std::uint8_t>(plan.bits);
    StoreU16(e + kElPacking, static_cast<std::uint16_t>(plan.packing), big);
    StoreU16(e + kElEncoding, 0, big);
    StoreU32(e + kElDataOffset, static_cast<std::uint32_t>(layouts[i].dataOffset), big);
    StoreU32(e + kElEolPadding, 0, big);
    StoreU32(e + kElEoiPadding, 0, big);
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
}

enum class Outcome { Ok, LutFailed, WriteFailed };

struct Job {
  const VxChar* path;
  IVxImage* image;
  DpxOutputPlan plan;
  const DpxWriteInfo* info;
  double frameRate;
};

// Writes the whole file under `tmp`. Rows are converted once and packed into every element's
// chunk, so planar layouts cost no extra conversion.
Outcome WriteAttempt(const Job& job, const VxChar* tmp, const VxLUT3D* lut) {
  IVxImage* image = job.image;
  const std::uint32_t width = static_cast<std::uint32_t>(image->GetWidth());
  const std::uint32_t height = static_cast<std::uint32_t>(image->GetHeight());
  const VxPixelFormat format = image->GetPixelFormat();
  const std::uint8_t* pixels = image->GetBuffer();
  const std::int64_t stride = image->GetRowStride();
  if (!pixels) return Outcome::WriteFailed;
  const DpxOutputPlan& plan = job.plan;

  ElementLayout layouts[4];
  std::uint64_t offset = kHeaderSize, lineTotal = 0;
  for (std::uint32_t i = 0; i < plan.elementCount; ++i) {
    layouts[i].lineBytes =
        LineBytes(width, plan.elements[i].components, plan.bits, plan.packing, false);
    layouts[i].dataOffset = offset;
    offset += layouts[i].lineBytes * height;
    lineTotal += layouts[i].lineBytes;
  }
  const std::uint64_t fileSize = offset;

  std::uint8_t header[kHeaderSize];
  FillHeader(header, plan, layouts, width, height, fileSize, job.frameRate, *job.info);

  const float maxCode = MaxCode(plan.bits);
  const float srcMax = FormatMax(format);
  // With a LUT the row is normalised first and scaled to code values after the LUT.
  const float scale = lut ? 1.0f / srcMax : maxCode / srcMax;
  const float opaque = lut ? 1.0f : maxCode;
  const std::size_t rows = std::max<std::size_t>(1, kChunkBytes / lineTotal);
  std::vector<float> rgba(std::size_t{width} * 4);
  std::vector<float> samples(std::size_t{width} * 4);
  std::vector<std::uint8_t> chunks[4];
  for (std::uint32_t i = 0; i < plan.elementCount; ++i)
    chunks[i].assign(layouts[i].lineBytes * rows, 0);

  const os::FileHandle f = os::Create(tmp);
  if (f == os::kNoFile) return Outcome::WriteFailed;
  Outcome result = Outcome::Ok;
  std::uint32_t done = 0;
  if (!os::WriteAt(f, 0, header, kHeaderSize, &done) || done != kHeaderSize)
    result = Outcome::WriteFailed;
  for (std::uint32_t y0 = 0; y0 < height && result == Outcome::Ok; y0 += rows) {
    const std::uint32_t n = static_cast<std::uint32_t>(std::min<std::size_t>(rows, height - y0));
    for (std::uint32_t r = 0; r < n && result == Outcome::Ok; ++r) {
      RowToRgba(pixels + (y0 + r) * stride, format, width, scale, opaque, rgba.data());
      if (lut) {
        if (FAILED(VxLUTHelperApply3DLut(lut, rgba.data(), width, 4))) {
          result = Outcome::LutFailed;
          break;
        }
        if (maxCode != 1.0f)
          for (float& v : rgba) v *= maxCode;
      }
      for (std::uint32_t i = 0; i < plan.elementCount; ++i) {
        const DpxElementPlan& e = plan.elements[i];
        GatherChannels(rgba.data(), width, e.order, e.components, samples.data());
        PackSamples(samples.data(), std::size_t{width} * e.components, plan.bits, plan.packing,
                    plan.bigEndian, chunks[i].data() + r * layouts[i].lineBytes);
      }
    }
    for (std::uint32_t i = 0; i < plan.elementCount && result == Outcome::Ok; ++i) {
      const std::uint32_t bytes = static_cast<std::uint32_t>(layouts[i].lineBytes * n);
      if (!os::WriteAt(f, layouts[i].dataOffset + y0 * layouts[i].lineBytes, chunks[i].data(),
                       bytes, &done) ||
          done != bytes)
        result = Outcome::WriteFailed;
    }
  }
  os::Close(f);
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
  if (image->GetRowStride() < width * VxPixelFormatBytesPerPixel(format)) return E_INVALIDARG;

  Job job{path, image, PlanDpxOutput(settings, info, format), &info, info.frameRate};
  std::uint64_t size = kHeaderSize;
  for (std::uint32_t i = 0; i < job.plan.elementCount; ++i)
    size += LineBytes(static_cast<std::uint32_t>(width), job.plan.elements[i].components,
                      job.plan.bits, job.plan.packing, false) *
            static_cast<std::uint64_t>(height);
  if (size > 0xFFFFFFFFu) return E_INVALIDARG;
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
  const std::string tmpName = ToUtf8(path) + "." + std::to_string(os::CurrentProcessId()) + ".tmp";
  const VxString tmp = FromUtf8(tmpName);
  Outcome outcome = WriteAttempt(job, tmp.c_str(), lut.get());
  if (outcome == Outcome::LutFailed) {
    VxMessageBox(kErrorCaption, kLutApplyError);
    outcome = WriteAttempt(job, tmp.c_str(), nullptr);
  }
  if (outcome != Outcome::Ok) return E_FAIL;
  if (!os::Replace(tmp.c_str(), path)) {
    os::Remove(tmp.c_str());
    return E_FAIL;
  }
  return S_OK;
}

}  // namespace

HRESULT WriteDpxFile(const VxChar* path, IVxImage* image, const DpxExportSettings& settings,
                     const DpxWriteInfo& info) {
  if (!path || !image) return E_POINTER;
  // Buffers are allocated before the temporary file exists, so running out of memory leaves
  // nothing behind.
  try {
    return WriteDpxFileImpl(path, image, settings, info);
  } catch (const std::bad_alloc&) {
    return E_OUTOFMEMORY;
  }
}

}  // namespace vx::dpx
