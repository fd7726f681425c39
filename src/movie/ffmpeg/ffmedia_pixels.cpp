#include <algorithm>
#include <cstring>
#include <limits>
#include <system_error>
#include <thread>

#include "movie/ffmpeg/ffmedia_internal.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace vx::ffmedia {

namespace detail {
namespace {

std::uint32_t Load32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}
void Store32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
  p[2] = static_cast<std::uint8_t>(v >> 16);
  p[3] = static_cast<std::uint8_t>(v >> 24);
}

// The FFmpeg format a layout is, when it is one of FFmpeg's (v210 and float are ours).
AVPixelFormat AvFormat(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::kRGB24:
      return AV_PIX_FMT_RGB24;
    case PixelLayout::kBGR24:
      return AV_PIX_FMT_BGR24;
    case PixelLayout::kRGBA8:
      return AV_PIX_FMT_RGBA;
    case PixelLayout::kBGRA8:
      return AV_PIX_FMT_BGRA;
    case PixelLayout::kUYVY8:
      return AV_PIX_FMT_UYVY422;
    case PixelLayout::kRGBA16BE:
      return AV_PIX_FMT_RGBA64BE;
    case PixelLayout::kRGB16:
      return AV_PIX_FMT_RGB48;
    case PixelLayout::kRGBA16:
      return AV_PIX_FMT_RGBA64;
    case PixelLayout::kV210:
    case PixelLayout::kRGBF32:
    case PixelLayout::kRGBAF32:
      break;
  }
  return AV_PIX_FMT_NONE;
}

bool IsFullRange(AVPixelFormat f, int range) {
  if (range == AVCOL_RANGE_JPEG) return true;
  switch (f) {
    case AV_PIX_FMT_YUVJ420P:
    case AV_PIX_FMT_YUVJ422P:
    case AV_PIX_FMT_YUVJ444P:
    case AV_PIX_FMT_YUVJ440P:
    case AV_PIX_FMT_YUVJ411P:
      return true;
    default:
      return false;
  }
}

bool IsRgbLike(AVPixelFormat f) {
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(f);
  return d && (d->flags & AV_PIX_FMT_FLAG_RGB);
}

// Bits of a format's first component; 0 when unknown.
int Depth(AVPixelFormat f) {
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(f);
  return d ? d->comp[0].depth : 0;
}

void CopyRows(const std::uint8_t* src, std::ptrdiff_t srcStride, std::uint8_t* dst,
              std::ptrdiff_t dstStride, std::size_t bytes, int rows) {
  for (int y = 0; y < rows; ++y) std::memcpy(dst + y * dstStride, src + y * srcStride, bytes);
}

// One row of 8-bit 4:2:2 planes interleaved into UYVY (even widths).
void PlanarToUyvyRow(const std::uint8_t* y, const std::uint8_t* u, const std::uint8_t* v, int width,
                     std::uint8_t* dst) {
  int x = 0;
#if defined(__SSE2__)
  auto load = [](const std::uint8_t* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  };
  // A picture is larger than the caches: aligned rows are written past them, which saves
  // reading each line of the destination in first.
  const bool aligned = reinterpret_cast<std::uintptr_t>(dst) % 16 == 0;
  auto store = [aligned](std::uint8_t* p, __m128i m) {
    if (aligned) {
      _mm_stream_si128(reinterpret_cast<__m128i*>(p), m);
    } else {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(p), m);
    }
  };
  for (; x + 32 <= width; x += 32) {
    const __m128i uu = load(u + x / 2);
    const __m128i vv = load(v + x / 2);
    const __m128i y0 = load(y + x);
    const __m128i y1 = load(y + x + 16);
    const __m128i uvLo = _mm_unpacklo_epi8(uu, vv);  // Cb Cr of pixels x .. x + 15
    const __m128i uvHi = _mm_unpackhi_epi8(uu, vv);
    store(dst + 2 * x, _mm_unpacklo_epi8(uvLo, y0));
    store(dst + 2 * x + 16, _mm_unpackhi_epi8(uvLo, y0));
    store(dst + 2 * x + 32, _mm_unpacklo_epi8(uvHi, y1));
    store(dst + 2 * x + 48, _mm_unpackhi_epi8(uvHi, y1));
  }
  if (aligned) _mm_sfence();
#endif
  for (; x + 1 < width; x += 2) {
    std::uint8_t* o = dst + 2 * x;
    o[0] = u[x / 2];
    o[1] = y[x];
    o[2] = v[x / 2];
    o[3] = y[x + 1];
  }
}

constexpr int kAlign = 64;

std::uint8_t* Aligned(std::vector<std::uint8_t>& buf, std::size_t size) {
  buf.resize(size + kAlign);
  const auto p = reinterpret_cast<std::uintptr_t>(buf.data());
  return buf.data() + (kAlign - p % kAlign) % kAlign;
}

}  // namespace

Status FromAv(int err) {
  if (err >= 0) return Status::kOk;
  if (err == AVERROR(ENOMEM)) return Status::kOutOfMemory;
  if (err == AVERROR(EINVAL)) return Status::kInvalidArg;
  return Status::kFail;
}

void PackV210Row(const std::uint16_t* y, const std::uint16_t* cb, const std::uint16_t* cr,
                 int width, std::uint8_t* dst) {
  const int cw = (width + 1) / 2;
  // Codes 0-3 and 1020-1023 are reserved for timing references on the wire.
  auto Legal = [](std::uint16_t v) -> std::uint32_t {
    return std::clamp<std::uint32_t>(v, 4, 1019);
  };
  auto Y = [&](int i) -> std::uint32_t { return i < width ? Legal(y[i]) : 0u; };
  auto U = [&](int i) -> std::uint32_t { return i < cw ? Legal(cb[i]) : 0u; };
  auto V = [&](int i) -> std::uint32_t { return i < cw ? Legal(cr[i]) : 0u; };
  std::memset(dst, 0, MinRowBytes(PixelLayout::kV210, width));
  for (int x = 0; x < width; x += 6) {
    const int c = x / 2;
    std::uint8_t* p = dst + x / 6 * 16;
    Store32(p, U(c) | Y(x) << 10 | V(c) << 20);
    Store32(p + 4, Y(x + 1) | U(c + 1) << 10 | Y(x + 2) << 20);
    Store32(p + 8, V(c + 1) | Y(x + 3) << 10 | U(c + 2) << 20);
    Store32(p + 12, Y(x + 4) | V(c + 2) << 10 | Y(x + 5) << 20);
  }
}

void UnpackV210Row(const std::uint8_t* src, int width, std::uint16_t* y, std::uint16_t* cb,
                   std::uint16_t* cr) {
  const int cw = (width + 1) / 2;
  for (int x = 0; x < width; x += 6) {
    const int c = x / 2;
    const std::uint8_t* p = src + x / 6 * 16;
    std::uint32_t w[4];
    for (int i = 0; i < 4; ++i) w[i] = Load32(p + 4 * i);
    const std::uint16_t ys[6] = {static_cast<std::uint16_t>(w[0] >> 10 & 1023),
                                 static_cast<std::uint16_t>(w[1] & 1023),
                                 static_cast<std::uint16_t>(w[1] >> 20 & 1023),
                                 static_cast<std::uint16_t>(w[2] >> 10 & 1023),
                                 static_cast<std::uint16_t>(w[3] & 1023),
                                 static_cast<std::uint16_t>(w[3] >> 20 & 1023)};
    const std::uint16_t us[3] = {static_cast<std::uint16_t>(w[0] & 1023),
                                 static_cast<std::uint16_t>(w[1] >> 10 & 1023),
                                 static_cast<std::uint16_t>(w[2] >> 20 & 1023)};
    const std::uint16_t vs[3] = {static_cast<std::uint16_t>(w[0] >> 20 & 1023),
                                 static_cast<std::uint16_t>(w[2] & 1023),
                                 static_cast<std::uint16_t>(w[3] >> 10 & 1023)};
    for (int i = 0; i < 6 && x + i < width; ++i) y[x + i] = ys[i];
    for (int i = 0; i < 3 && c + i < cw; ++i) {
      cb[c + i] = us[i];
      cr[c + i] = vs[i];
    }
  }
}

namespace {

// Rows per band below which a second thread is not worth starting.
constexpr int kMinBandRows = 128;

// How many bands of rows a conversion is split into. libswscale converts on one thread, which
// for a 10-bit 1080p picture costs about as much as the codec's threaded decode. A band converts
// exactly as the whole picture would when no row is resampled from its neighbours (no vertical
// chroma subsampling on either side, as in 4:2:2 and 4:4:4) and every band starts on a multiple
// of the scaler's 8-row dither pattern; otherwise the picture stays whole.
int BandCount(AVPixelFormat src, AVPixelFormat dst, int height) {
  const AVPixFmtDescriptor* s = av_pix_fmt_desc_get(src);
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(dst);
  constexpr auto kAwkward =
      AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM | AV_PIX_FMT_FLAG_HWACCEL;
  if (!s || !d || s->log2_chroma_h || d->log2_chroma_h || (s->flags & kAwkward) ||
      (d->flags & kAwkward))
    return 1;
  const int threads =
      static_cast<int>(std::min(4u, std::max(1u, std::thread::hardware_concurrency())));
  return std::max(1, std::min(threads, height / kMinBandRows));
}

}  // namespace

PixelConverter::~PixelConverter() {
  for (SwsContext* c : sws_) sws_freeContext(c);
}

Status PixelConverter::Scale(const std::uint8_t* const src[4], const int srcStride[4],
                             AVPixelFormat srcFormat, int srcSpace, int srcRange, int width,
                             int height, std::uint8_t* const dst[4], const int dstStride[4],
                             AVPixelFormat dstFormat, int dstSpace, int dstRange) {
  if (!sws_isSupportedInput(srcFormat) || !sws_isSupportedOutput(dstFormat))
    return Status::kUnsupported;
  const int bands = BandCount(srcFormat, dstFormat, height);
  const int bandRows = bands == 1 ? height : ((height + bands - 1) / bands + 15) / 16 * 16;
  if (sws_.size() < static_cast<std::size_t>(bands)) sws_.resize(static_cast<std::size_t>(bands));
  for (int b = 0; b < bands; ++b) {
    const int rows = std::min(bandRows, height - b * bandRows);
    SwsContext*& c = sws_[static_cast<std::size_t>(b)];
    c = sws_getCachedContext(c, width, rows, srcFormat, width, rows, dstFormat, SWS_BICUBIC,
                             nullptr, nullptr, nullptr);
    if (!c) return Status::kUnsupported;
    int* invTable = nullptr;
    int* table = nullptr;
    int curSrcRange = 0;
    int curDstRange = 0;
    int brightness = 0;
    int contrast = 0;
    int saturation = 0;
    if (sws_getColorspaceDetails(c, &invTable, &curSrcRange, &table, &curDstRange, &brightness,
                                 &contrast, &saturation) >= 0) {
      sws_setColorspaceDetails(c, sws_getCoefficients(srcSpace), srcRange,
                               sws_getCoefficients(dstSpace), dstRange, brightness, contrast,
                               saturation);
    }
  }
  // libswscale's vector paths drop the last pixels of a row whose start or stride is not
  // aligned (host rows often are not): such packed rows go through aligned buffers.
  auto misaligned = [](const std::uint8_t* p, int stride) {
    return reinterpret_cast<std::uintptr_t>(p) % kAlign != 0 || stride % kAlign != 0;
  };
  const std::uint8_t* s[4] = {src[0], src[1], src[2], src[3]};
  int ss[4] = {srcStride[0], srcStride[1], srcStride[2], srcStride[3]};
  std::uint8_t* d[4] = {dst[0], dst[1], dst[2], dst[3]};
  int ds[4] = {dstStride[0], dstStride[1], dstStride[2], dstStride[3]};
  const auto rows = static_cast<std::size_t>(height);
  if (!src[1] && misaligned(src[0], srcStride[0])) {
    const int bytes = av_image_get_linesize(srcFormat, width, 0);
    if (bytes <= 0) return Status::kUnsupported;
    const int padded = (bytes + kAlign - 1) / kAlign * kAlign;
    std::uint8_t* b = Aligned(bounceSrc_, static_cast<std::size_t>(padded) * rows);
    CopyRows(src[0], srcStride[0], b, padded, static_cast<std::size_t>(bytes), height);
    s[0] = b;
    ss[0] = padded;
  }
  int dstBytes = 0;
  if (!dst[1] && misaligned(dst[0], dstStride[0])) {
    dstBytes = av_image_get_linesize(dstFormat, width, 0);
    if (dstBytes <= 0) return Status::kUnsupported;
    ds[0] = (dstBytes + kAlign - 1) / kAlign * kAlign;
    d[0] = Aligned(bounceDst_, static_cast<std::size_t>(ds[0]) * rows);
  }
  const int srcPlanes = av_pix_fmt_count_planes(srcFormat);
  const int dstPlanes = av_pix_fmt_count_planes(dstFormat);
  auto band = [&](int b) {
    const int y0 = b * bandRows;
    const int rows = std::min(bandRows, height - y0);
    const std::uint8_t* bs[4] = {};
    std::uint8_t* bd[4] = {};
    for (int p = 0; p < srcPlanes && p < 4; ++p) bs[p] = s[p] + std::ptrdiff_t{ss[p]} * y0;
    for (int p = 0; p < dstPlanes && p < 4; ++p) bd[p] = d[p] + std::ptrdiff_t{ds[p]} * y0;
    return sws_scale(sws_[static_cast<std::size_t>(b)], bs, ss, 0, rows, bd, ds) == rows;
  };
  bool ok = true;
  if (bands == 1) {
    ok = band(0);
  } else {
    std::vector<char> done(static_cast<std::size_t>(bands), 0);
    std::vector<std::thread> helpers;
    try {
      for (int b = 1; b < bands; ++b)
        helpers.emplace_back([&, b] { done[static_cast<std::size_t>(b)] = band(b); });
    } catch (const std::system_error&) {
      // No thread to be had: what did not start converts here.
    }
    for (int b = static_cast<int>(helpers.size()) + 1; b < bands; ++b)
      done[static_cast<std::size_t>(b)] = band(b);
    done[0] = band(0);
    for (std::thread& t : helpers) t.join();
    ok = std::all_of(done.begin(), done.end(), [](char v) { return v != 0; });
  }
  if (!ok) return Status::kFail;
  if (dstBytes)
    CopyRows(d[0], ds[0], dst[0], dstStride[0], static_cast<std::size_t>(dstBytes), height);
  return Status::kOk;
}

Status PixelConverter::ToLayout(const AVFrame* frame, PixelLayout layout, std::uint8_t* dst,
                                std::ptrdiff_t stride) {
  const int w = frame->width;
  const int h = frame->height;
  if (w <= 0 || h <= 0 || w > kMaxDimension || h > kMaxDimension) return Status::kFail;
  if (stride > std::numeric_limits<int>::max() / 2) return Status::kInvalidArg;
  const auto src = static_cast<AVPixelFormat>(frame->format);
  const int space = frame->colorspace;
  const int range = IsFullRange(src, frame->color_range) ? 1 : 0;
  const bool srcRgb = IsRgbLike(src);

  if (layout == PixelLayout::kV210) {
    const AVFrame* planes = frame;
    AVFrame* tmp = nullptr;
    if (src != AV_PIX_FMT_YUV422P10) {
      tmp = av_frame_alloc();
      if (!tmp) return Status::kOutOfMemory;
      tmp->format = AV_PIX_FMT_YUV422P10;
      tmp->width = w;
      tmp->height = h;
      if (av_frame_get_buffer(tmp, 0) < 0) {
        av_frame_free(&tmp);
        return Status::kOutOfMemory;
      }
      // RGB sources get the Rec. 709 matrix of HD video; YCbCr keeps its own.
      const int dstSpace = srcRgb ? AVCOL_SPC_BT709 : space;
      const Status s = Scale(frame->data, frame->linesize, src, srcRgb ? dstSpace : space, range, w,
                             h, tmp->data, tmp->linesize, AV_PIX_FMT_YUV422P10, dstSpace, 0);
      if (s != Status::kOk) {
        av_frame_free(&tmp);
        return s;
      }
      planes = tmp;
    }
    for (int y = 0; y < h; ++y) {
      PackV210Row(reinterpret_cast<const std::uint16_t*>(planes->data[0] + y * planes->linesize[0]),
                  reinterpret_cast<const std::uint16_t*>(planes->data[1] + y * planes->linesize[1]),
                  reinterpret_cast<const std::uint16_t*>(planes->data[2] + y * planes->linesize[2]),
                  w, dst + y * stride);
    }
    av_frame_free(&tmp);
    return Status::kOk;
  }

  if (layout == PixelLayout::kRGBF32 || layout == PixelLayout::kRGBAF32) {
    const std::size_t row = static_cast<std::size_t>(w) * 8;
    scratch_.resize(row * static_cast<std::size_t>(h));
    std::uint8_t* planes[4] = {scratch_.data(), nullptr, nullptr, nullptr};
    const int strides[4] = {static_cast<int>(row), 0, 0, 0};
    const Status s = Scale(frame->data, frame->linesize, src, space, range, w, h, planes, strides,
                           AV_PIX_FMT_RGBA64, space, 1);
    if (s != Status::kOk) return s;
    const int channels = layout == PixelLayout::kRGBAF32 ? 4 : 3;
    for (int y = 0; y < h; ++y) {
      const auto* in = reinterpret_cast<const std::uint16_t*>(scratch_.data() + y * row);
      auto* out = reinterpret_cast<float*>(dst + y * stride);
      for (int x = 0; x < w; ++x)
        for (int c = 0; c < channels; ++c) out[x * channels + c] = in[x * 4 + c] / 65535.0f;
    }
    return Status::kOk;
  }

  const AVPixelFormat target = AvFormat(layout);
  if (src == AV_PIX_FMT_YUV422P && range == 0 && layout == PixelLayout::kUYVY8 && w % 2 == 0) {
    // The decoders' usual 8-bit output (DNxHD/HR, MPEG-2 4:2:2, DV 50) only needs interleaving,
    // which libswscale does a good deal slower.
    for (int y = 0; y < h; ++y) {
      PlanarToUyvyRow(frame->data[0] + y * frame->linesize[0],
                      frame->data[1] + y * frame->linesize[1],
                      frame->data[2] + y * frame->linesize[2], w, dst + y * stride);
    }
    return Status::kOk;
  }
  if (src == AV_PIX_FMT_YUYV422 && layout == PixelLayout::kUYVY8 && w % 2 == 0) {
    // YUY2 is UYVY with the bytes of each pair swapped.
    for (int y = 0; y < h; ++y) {
      const std::uint8_t* in = frame->data[0] + y * frame->linesize[0];
      std::uint8_t* out = dst + y * stride;
      for (int x = 0; x < 2 * w; x += 2) {
        out[x] = in[x + 1];
        out[x + 1] = in[x];
      }
    }
    return Status::kOk;
  }
  if (target == src) {
    CopyRows(frame->data[0], frame->linesize[0], dst, stride, MinRowBytes(layout, w), h);
    return Status::kOk;
  }
  std::uint8_t* planes[4] = {dst, nullptr, nullptr, nullptr};
  const int strides[4] = {static_cast<int>(stride), 0, 0, 0};
  const bool dstYuv = layout == PixelLayout::kUYVY8;
  const int dstSpace = srcRgb && dstYuv ? AVCOL_SPC_BT709 : space;
  return Scale(frame->data, frame->linesize, src, srcRgb ? dstSpace : space, range, w, h, planes,
               strides, target, dstSpace, dstYuv ? 0 : 1);
}

Status PixelConverter::FromLayout(const std::uint8_t* src, std::ptrdiff_t stride,
                                  PixelLayout layout, AVFrame* frame) {
  const int w = frame->width;
  const int h = frame->height;
  if (stride > std::numeric_limits<int>::max() / 2) return Status::kInvalidArg;
  const auto dstFormat = static_cast<AVPixelFormat>(frame->format);
  const bool dstRgb = IsRgbLike(dstFormat);
  const int dstSpace = frame->colorspace;

  const std::uint8_t* planes[4] = {src, nullptr, nullptr, nullptr};
  int strides[4] = {static_cast<int>(stride), 0, 0, 0};
  AVPixelFormat srcFormat = AvFormat(layout);
  bool srcYuv = layout == PixelLayout::kUYVY8;
  if (layout == PixelLayout::kV210) {
    const std::size_t lw = static_cast<std::size_t>(w) * 2;
    const std::size_t cw = static_cast<std::size_t>((w + 1) / 2) * 2;
    scratch_.resize((lw + 2 * cw) * static_cast<std::size_t>(h));
    std::uint8_t* yp = scratch_.data();
    std::uint8_t* up = yp + lw * h;
    std::uint8_t* vp = up + cw * h;
    for (int y = 0; y < h; ++y) {
      UnpackV210Row(src + y * stride, w, reinterpret_cast<std::uint16_t*>(yp + y * lw),
                    reinterpret_cast<std::uint16_t*>(up + y * cw),
                    reinterpret_cast<std::uint16_t*>(vp + y * cw));
    }
    planes[0] = yp;
    planes[1] = up;
    planes[2] = vp;
    strides[0] = static_cast<int>(lw);
    strides[1] = strides[2] = static_cast<int>(cw);
    srcFormat = AV_PIX_FMT_YUV422P10;
    srcYuv = true;
  } else if (layout == PixelLayout::kRGBF32 || layout == PixelLayout::kRGBAF32) {
    // Rounded once, to the depth the encoder takes.
    const int channels = layout == PixelLayout::kRGBAF32 ? 4 : 3;
    const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(dstFormat);
    const bool deep = !d || d->comp[0].depth > 8;
    const std::size_t row = static_cast<std::size_t>(w) * (deep ? 8 : 4);
    scratch_.resize(row * static_cast<std::size_t>(h));
    for (int y = 0; y < h; ++y) {
      const auto* in = reinterpret_cast<const float*>(src + y * stride);
      std::uint8_t* out = scratch_.data() + y * row;
      for (int x = 0; x < w; ++x) {
        for (int c = 0; c < 4; ++c) {
          float v = c < channels ? in[x * channels + c] : 1.0f;
          v = v > 0.0f ? (v < 1.0f ? v : 1.0f) : 0.0f;  // NaN lands on 0
          if (deep) {
            reinterpret_cast<std::uint16_t*>(out)[x * 4 + c] =
                static_cast<std::uint16_t>(v * 65535.0f + 0.5f);
          } else {
            out[x * 4 + c] = static_cast<std::uint8_t>(v * 255.0f + 0.5f);
          }
        }
      }
    }
    planes[0] = scratch_.data();
    strides[0] = static_cast<int>(row);
    srcFormat = deep ? AV_PIX_FMT_RGBA64 : AV_PIX_FMT_RGBA;
  } else if ((layout == PixelLayout::kRGB16 || layout == PixelLayout::kRGBA16) && dstRgb &&
             Depth(dstFormat) > 0 && Depth(dstFormat) <= 8) {
    // Narrowed here, rounded: libswscale dithers from 16 to 8 bits, which moves the codes of an
    // 8-bit picture that a host image widened to 16 bits on the way.
    const int channels = layout == PixelLayout::kRGBA16 ? 4 : 3;
    const std::size_t row = static_cast<std::size_t>(w) * 4;
    scratch_.resize(row * static_cast<std::size_t>(h));
    for (int y = 0; y < h; ++y) {
      const auto* in = reinterpret_cast<const std::uint16_t*>(src + y * stride);
      std::uint8_t* out = scratch_.data() + y * row;
      for (int x = 0; x < w; ++x) {
        for (int c = 0; c < 4; ++c) {
          const std::uint32_t v = c < channels ? in[x * channels + c] : 65535u;
          out[x * 4 + c] = static_cast<std::uint8_t>((v * 255u + 32895u) >> 16);
        }
      }
    }
    planes[0] = scratch_.data();
    strides[0] = static_cast<int>(row);
    srcFormat = AV_PIX_FMT_RGBA;
  }
  if (srcFormat == dstFormat && !srcYuv) {
    const int bytes = av_image_get_linesize(srcFormat, w, 0);
    if (bytes <= 0) return Status::kUnsupported;
    CopyRows(planes[0], strides[0], frame->data[0], frame->linesize[0],
             static_cast<std::size_t>(bytes), h);
    return Status::kOk;
  }
  return Scale(planes, strides, srcFormat, dstSpace, srcYuv ? 0 : 1, w, h, frame->data,
               frame->linesize, dstFormat, dstSpace, dstRgb ? 1 : 0);
}

}  // namespace detail
}  // namespace vx::ffmedia
