// Host image and sound buffer objects, and conversion between the host's pixel formats.
#include <atomic>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <vector>

#include "com_object.h"
#include "vx/sdk.h"

namespace {

struct Layout {
  int channels = 0;
  int sampleBytes = 0;
  bool isFloat = false;
  bool alpha = false;
  bool gray = false;
  bool bgr = false;
};

bool LayoutOf(VxPixelFormat f, Layout* l) {
  switch (f) {
    case VX_PF_RGB8:
      *l = {3, 1, false, false, false, false};
      return true;
    case VX_PF_RGBA8:
      *l = {4, 1, false, true, false, false};
      return true;
    case VX_PF_BGRA8:
      *l = {4, 1, false, true, false, true};
      return true;
    case VX_PF_RGB16:
      *l = {3, 2, false, false, false, false};
      return true;
    case VX_PF_RGBA16:
      *l = {4, 2, false, true, false, false};
      return true;
    case VX_PF_RGBF32:
      *l = {3, 4, true, false, false, false};
      return true;
    case VX_PF_RGBAF32:
      *l = {4, 4, true, true, false, false};
      return true;
    case VX_PF_GRAY8:
      *l = {1, 1, false, false, true, false};
      return true;
    case VX_PF_GRAY16:
      *l = {1, 2, false, false, true, false};
      return true;
    case VX_PF_GRAYF32:
      *l = {1, 4, true, false, true, false};
      return true;
    case VX_PF_UNKNOWN:
      break;
  }
  return false;
}

class Image final : public vx::sdk::ComObject<IVxImage, IID_IVxImage> {
 public:
  int STDMETHODCALLTYPE GetWidth() override { return width_; }
  int STDMETHODCALLTYPE GetHeight() override { return height_; }
  VxPixelFormat STDMETHODCALLTYPE GetPixelFormat() override { return format_; }
  int STDMETHODCALLTYPE GetRowStride() override { return stride_; }
  BYTE* STDMETHODCALLTYPE GetBuffer() override { return pixels_.get(); }

  // The old picture stays intact when the new one cannot be had.
  HRESULT STDMETHODCALLTYPE Allocate(int width, int height, VxPixelFormat format) override {
    if (width < 0 || height < 0) return E_INVALIDARG;
    Layout l;
    const bool known = LayoutOf(format, &l);
    if (!known && format != VX_PF_UNKNOWN) return E_INVALIDARG;
    if (!known && width > 0 && height > 0) return E_INVALIDARG;
    const std::uint64_t row = static_cast<std::uint64_t>(width) * l.channels * l.sampleBytes;
    const std::uint64_t stride = (row + 3) & ~std::uint64_t{3};
    if (stride > static_cast<std::uint64_t>(std::numeric_limits<int>::max())) return E_INVALIDARG;
    const std::uint64_t total = stride * static_cast<std::uint64_t>(height);
    if (total > std::numeric_limits<std::size_t>::max() / 2) return E_OUTOFMEMORY;
    std::unique_ptr<BYTE[]> pixels;
    if (total) {
      pixels.reset(new (std::nothrow) BYTE[static_cast<std::size_t>(total)]);
      if (!pixels) return E_OUTOFMEMORY;
      std::memset(pixels.get(), 0, static_cast<std::size_t>(total));
    }
    pixels_ = std::move(pixels);
    width_ = width;
    height_ = height;
    format_ = format;
    stride_ = static_cast<int>(stride);
    return S_OK;
  }
  double STDMETHODCALLTYPE GetPixelAspect() override { return aspect_; }
  void STDMETHODCALLTYPE SetPixelAspect(double aspect) override { aspect_ = aspect; }
  int STDMETHODCALLTYPE GetFieldMode() override { return fieldMode_; }
  void STDMETHODCALLTYPE SetFieldMode(int mode) override { fieldMode_ = mode; }
  void STDMETHODCALLTYPE GetTiming(CVxTime* start, CVxTime* duration) override {
    if (start) *start = start_;
    if (duration) *duration = duration_;
  }
  void STDMETHODCALLTYPE SetTiming(CVxTime start, CVxTime duration) override {
    start_ = start;
    duration_ = duration;
  }

 private:
  ~Image() = default;
  int width_ = 0, height_ = 0, stride_ = 0;
  VxPixelFormat format_ = VX_PF_UNKNOWN;
  std::unique_ptr<BYTE[]> pixels_;
  double aspect_ = 1.0;
  int fieldMode_ = VX_FIELD_PROGRESSIVE;
  CVxTime start_, duration_;
};

// ---- Row conversion -------------------------------------------------------------------------
// Integer to integer goes through 16-bit RGBA so 8 -> 16 -> 8 is lossless; anything touching
// float goes through float RGBA. Rows are converted whole: the format switch runs per row.

// Rec. 709 luma in 16.16 fixed point; the weights sum to exactly 65536 so white stays white.
constexpr std::uint32_t kLumaR = 13933, kLumaG = 46871, kLumaB = 4732;
static_assert(kLumaR + kLumaG + kLumaB == 65536);

template <typename S>
S Load(const BYTE* p) {
  S v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
template <typename S>
void Store(BYTE* p, S v) {
  std::memcpy(p, &v, sizeof v);
}

// Sample sizes are template arguments and the layout's switches are decided once per row, so
// the pixel loops hold no format branches but the alpha test.
template <int SB>
std::uint16_t Widen(const BYTE* p) {
  if constexpr (SB == 1)
    return static_cast<std::uint16_t>(*p * 257u);
  else
    return Load<std::uint16_t>(p);
}

template <int SB>
void UnpackInt(const BYTE* src, int n, const Layout& l, std::uint16_t* out) {
  if (l.gray) {
    for (int x = 0; x < n; ++x, src += SB, out += 4) {
      out[0] = out[1] = out[2] = Widen<SB>(src);
      out[3] = 0xFFFF;
    }
    return;
  }
  const int step = l.channels * SB, ri = l.bgr ? 2 * SB : 0, bi = l.bgr ? 0 : 2 * SB;
  for (int x = 0; x < n; ++x, src += step, out += 4) {
    out[0] = Widen<SB>(src + ri);
    out[1] = Widen<SB>(src + SB);
    out[2] = Widen<SB>(src + bi);
    out[3] = l.alpha ? Widen<SB>(src + 3 * SB) : 0xFFFF;
  }
}

template <int SB>
void Narrow(BYTE* p, std::uint32_t v) {
  if constexpr (SB == 1)
    *p = static_cast<BYTE>((v * 255u + 32767u) / 65535u);
  else
    Store<std::uint16_t>(p, static_cast<std::uint16_t>(v));
}

template <int SB>
void PackInt(const std::uint16_t* in, int n, const Layout& l, bool srcGray, BYTE* dst) {
  if (l.gray) {
    for (int x = 0; x < n; ++x, dst += SB, in += 4) {
      const std::uint32_t y =
          srcGray ? in[0] : (in[0] * kLumaR + in[1] * kLumaG + in[2] * kLumaB + 32768u) >> 16;
      Narrow<SB>(dst, y);
    }
    return;
  }
  const int step = l.channels * SB, ri = l.bgr ? 2 * SB : 0, bi = l.bgr ? 0 : 2 * SB;
  for (int x = 0; x < n; ++x, dst += step, in += 4) {
    Narrow<SB>(dst + ri, in[0]);
    Narrow<SB>(dst + SB, in[1]);
    Narrow<SB>(dst + bi, in[2]);
    if (l.alpha) Narrow<SB>(dst + 3 * SB, in[3]);
  }
}

template <int SB>
float ToFloat(const BYTE* p) {
  if constexpr (SB == 1)
    return static_cast<float>(*p) / 255.0f;
  else if constexpr (SB == 2)
    return static_cast<float>(Load<std::uint16_t>(p)) / 65535.0f;
  else
    return Load<float>(p);
}

template <int SB>
void UnpackFloat(const BYTE* src, int n, const Layout& l, float* out) {
  if (l.gray) {
    for (int x = 0; x < n; ++x, src += SB, out += 4) {
      out[0] = out[1] = out[2] = ToFloat<SB>(src);
      out[3] = 1.0f;
    }
    return;
  }
  const int step = l.channels * SB, ri = l.bgr ? 2 * SB : 0, bi = l.bgr ? 0 : 2 * SB;
  for (int x = 0; x < n; ++x, src += step, out += 4) {
    out[0] = ToFloat<SB>(src + ri);
    out[1] = ToFloat<SB>(src + SB);
    out[2] = ToFloat<SB>(src + bi);
    out[3] = l.alpha ? ToFloat<SB>(src + 3 * SB) : 1.0f;
  }
}

// Clamped to [0, 1] with NaN taken as 0 (every comparison with NaN is false), then rounded.
// Float targets keep the value as it is.
template <int SB>
void FromFloat(BYTE* p, float v) {
  if constexpr (SB == 4) {
    Store<float>(p, v);
  } else {
    const float c = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;
    if constexpr (SB == 1)
      *p = static_cast<BYTE>(c * 255.0f + 0.5f);
    else
      Store<std::uint16_t>(p, static_cast<std::uint16_t>(c * 65535.0f + 0.5f));
  }
}

template <int SB>
void PackFloat(const float* in, int n, const Layout& l, bool srcGray, BYTE* dst) {
  if (l.gray) {
    for (int x = 0; x < n; ++x, dst += SB, in += 4) {
      // Double keeps the weights' sum at 1 so white converts to exactly 1.0.
      const float y =
          srcGray ? in[0] : static_cast<float>(0.2126 * in[0] + 0.7152 * in[1] + 0.0722 * in[2]);
      FromFloat<SB>(dst, y);
    }
    return;
  }
  const int step = l.channels * SB, ri = l.bgr ? 2 * SB : 0, bi = l.bgr ? 0 : 2 * SB;
  for (int x = 0; x < n; ++x, dst += step, in += 4) {
    FromFloat<SB>(dst + ri, in[0]);
    FromFloat<SB>(dst + SB, in[1]);
    FromFloat<SB>(dst + bi, in[2]);
    if (l.alpha) FromFloat<SB>(dst + 3 * SB, in[3]);
  }
}

void UnpackIntRow(const BYTE* src, int n, const Layout& l, std::uint16_t* out) {
  if (l.sampleBytes == 1)
    UnpackInt<1>(src, n, l, out);
  else
    UnpackInt<2>(src, n, l, out);
}
void PackIntRow(const std::uint16_t* in, int n, const Layout& l, bool srcGray, BYTE* dst) {
  if (l.sampleBytes == 1)
    PackInt<1>(in, n, l, srcGray, dst);
  else
    PackInt<2>(in, n, l, srcGray, dst);
}
void UnpackFloatRow(const BYTE* src, int n, const Layout& l, float* out) {
  switch (l.sampleBytes) {
    case 1:
      UnpackFloat<1>(src, n, l, out);
      break;
    case 2:
      UnpackFloat<2>(src, n, l, out);
      break;
    default:
      UnpackFloat<4>(src, n, l, out);
      break;
  }
}
void PackFloatRow(const float* in, int n, const Layout& l, bool srcGray, BYTE* dst) {
  switch (l.sampleBytes) {
    case 1:
      PackFloat<1>(in, n, l, srcGray, dst);
      break;
    case 2:
      PackFloat<2>(in, n, l, srcGray, dst);
      break;
    default:
      PackFloat<4>(in, n, l, srcGray, dst);
      break;
  }
}

// ---- Sound buffer ---------------------------------------------------------------------------
class AudioBuffer final : public vx::sdk::ComObject<IVxAudioBuffer, IID_IVxAudioBuffer> {
 public:
  AudioBuffer(const WAVEFORMATEX& format, std::unique_ptr<BYTE[]> data, DWORD capacity)
      : format_(format), data_(std::move(data)), capacity_(capacity) {}

  HRESULT STDMETHODCALLTYPE GetFormat(WAVEFORMATEX* format) override {
    if (!format) return E_POINTER;
    *format = format_;
    return S_OK;
  }
  BYTE* STDMETHODCALLTYPE GetBuffer() override { return data_.get(); }
  DWORD STDMETHODCALLTYPE GetCapacity() override { return capacity_; }
  DWORD STDMETHODCALLTYPE GetLength() override { return length_; }
  HRESULT STDMETHODCALLTYPE SetLength(DWORD bytes) override {
    if (bytes > capacity_) return E_INVALIDARG;
    length_ = bytes;
    return S_OK;
  }

 private:
  ~AudioBuffer() = default;
  WAVEFORMATEX format_;
  std::unique_ptr<BYTE[]> data_;
  DWORD capacity_;
  DWORD length_ = 0;
};

}  // namespace

int VxPixelFormatChannels(VxPixelFormat f) {
  Layout l;
  return LayoutOf(f, &l) ? l.channels : 0;
}

int VxPixelFormatBytesPerPixel(VxPixelFormat f) {
  Layout l;
  return LayoutOf(f, &l) ? l.channels * l.sampleBytes : 0;
}

const char* VxPixelFormatName(VxPixelFormat f) {
  switch (f) {
    case VX_PF_RGB8:
      return "RGB8";
    case VX_PF_RGBA8:
      return "RGBA8";
    case VX_PF_BGRA8:
      return "BGRA8";
    case VX_PF_RGB16:
      return "RGB16";
    case VX_PF_RGBA16:
      return "RGBA16";
    case VX_PF_RGBF32:
      return "RGBF32";
    case VX_PF_RGBAF32:
      return "RGBAF32";
    case VX_PF_GRAY8:
      return "GRAY8";
    case VX_PF_GRAY16:
      return "GRAY16";
    case VX_PF_GRAYF32:
      return "GRAYF32";
    case VX_PF_UNKNOWN:
      break;
  }
  return "unknown";
}

HRESULT VxCreateImage(int width, int height, VxPixelFormat format, IVxImage** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  auto* image = new (std::nothrow) Image;
  if (!image) return E_OUTOFMEMORY;
  const HRESULT hr = image->Allocate(width, height, format);
  if (FAILED(hr)) {
    image->Release();
    return hr;
  }
  *out = image;
  return S_OK;
}

HRESULT VxConvertImage(IVxImage* src, IVxImage* dst) {
  if (!src || !dst) return E_POINTER;
  const int w = src->GetWidth(), h = src->GetHeight();
  if (w != dst->GetWidth() || h != dst->GetHeight()) return E_INVALIDARG;
  Layout ls, ld;
  const VxPixelFormat fs = src->GetPixelFormat(), fd = dst->GetPixelFormat();
  if (w > 0 && h > 0) {
    if (!LayoutOf(fs, &ls) || !LayoutOf(fd, &ld)) return E_INVALIDARG;
    const BYTE* sp = src->GetBuffer();
    BYTE* dp = dst->GetBuffer();
    if (!sp || !dp) return E_UNEXPECTED;
    const std::ptrdiff_t ss = src->GetRowStride(), ds = dst->GetRowStride();
    const auto rowBytes = static_cast<std::size_t>(w) * ld.channels * ld.sampleBytes;
    if (src != dst || fs != fd) {
      try {
        if (fs == fd) {
          for (int y = 0; y < h; ++y) std::memmove(dp + y * ds, sp + y * ss, rowBytes);
        } else if (!ls.isFloat && !ld.isFloat) {
          std::vector<std::uint16_t> row(static_cast<std::size_t>(w) * 4);
          for (int y = 0; y < h; ++y) {
            UnpackIntRow(sp + y * ss, w, ls, row.data());
            PackIntRow(row.data(), w, ld, ls.gray, dp + y * ds);
          }
        } else {
          std::vector<float> row(static_cast<std::size_t>(w) * 4);
          for (int y = 0; y < h; ++y) {
            UnpackFloatRow(sp + y * ss, w, ls, row.data());
            PackFloatRow(row.data(), w, ld, ls.gray, dp + y * ds);
          }
        }
      } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
      }
    }
  }
  if (src != dst) {
    dst->SetPixelAspect(src->GetPixelAspect());
    dst->SetFieldMode(src->GetFieldMode());
    CVxTime start, duration;
    src->GetTiming(&start, &duration);
    dst->SetTiming(start, duration);
  }
  return S_OK;
}

HRESULT VxCreateAudioBuffer(const WAVEFORMATEX* format, DWORD capacityBytes, IVxAudioBuffer** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  if (!format) return E_POINTER;
  std::unique_ptr<BYTE[]> data;
  if (capacityBytes) {
    data.reset(new (std::nothrow) BYTE[capacityBytes]);
    if (!data) return E_OUTOFMEMORY;
    std::memset(data.get(), 0, capacityBytes);
  }
  auto* buffer = new (std::nothrow) AudioBuffer(*format, std::move(data), capacityBytes);
  if (!buffer) return E_OUTOFMEMORY;
  *out = buffer;
  return S_OK;
}
