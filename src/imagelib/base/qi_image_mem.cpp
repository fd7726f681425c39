// The root of the family and the memory images.
#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <typeinfo>

#include "base/checked.h"
#include "imagelib/base/qi_image.h"

namespace {

using vx::CheckedProduct;
using vx::FitsSizeT;

// RGBA component offsets inside a pixel of each byte layout.
constexpr int kRGBA[4] = {0, 1, 2, 3};
constexpr int kABGR[4] = {3, 2, 1, 0};

// Scaling and truncation of v * max; the clamp comes first so NaN and out-of-range floats end at
// 0 or max instead of an undefined conversion.
template <class T, int kMax>
T FromFloat(float v) {
  const float s = static_cast<float>(v * static_cast<float>(kMax));
  if (!(s > 0.0f)) return 0;
  if (s >= static_cast<float>(kMax)) return static_cast<T>(kMax);
  return static_cast<T>(s);
}
std::uint8_t To8(float v) {
  return FromFloat<std::uint8_t, 255>(v);
}
std::uint16_t To16(float v) {
  return FromFloat<std::uint16_t, 65535>(v);
}
float FromByte(std::uint8_t v) {
  return v / 255.0f;
}
float FromWord(std::uint16_t v) {
  return v / 65535.0f;
}
std::uint16_t Widen(std::uint8_t v) {
  return static_cast<std::uint16_t>(v * 257);
}
std::uint8_t Narrow(std::uint16_t v) {
  return static_cast<std::uint8_t>(v >> 8);
}
std::uint8_t Same8(std::uint8_t v) {
  return v;
}
std::uint16_t Same16(std::uint16_t v) {
  return v;
}

// Hands out the four components of `p` (zeros without a pixel) to the non-null outputs.
template <class S, class T, class Conv>
void Give(const S* p, const int* order, Conv conv, T* r, T* g, T* b, T* a) {
  T* out[4] = {r, g, b, a};
  for (int k = 0; k < 4; ++k) {
    if (out[k]) *out[k] = conv(p ? p[order[k]] : S{0});
  }
}

template <class S>
void Take(void* p, const int* order, S r, S g, S b, S a) {
  if (!p) return;
  S* q = static_cast<S*>(p);
  q[order[0]] = r;
  q[order[1]] = g;
  q[order[2]] = b;
  q[order[3]] = a;
}

template <class T>
void Put(T* p, T v) {
  if (p) *p = v;
}

// Copies one component from a caller's pointer, which need not be aligned.
template <class T>
T Component(const void* p, T missing) {
  if (!p) return missing;
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// Replaces `*buffer` by one for w x h pixels of `bytes` each (none when either is below 1). A
// size that does not fit, or an allocation that fails, leaves no buffer.
void Reallocate(void** buffer, std::size_t* pixels, std::int32_t w, std::int32_t h,
                std::uint64_t bytes, bool zeroed) {
  std::uint64_t total = 0;
  const bool any = w >= 1 && h >= 1;
  const bool fits =
      any &&
      CheckedProduct(&total, static_cast<std::uint64_t>(w), static_cast<std::uint64_t>(h), bytes) &&
      FitsSizeT(total);
  void* next = nullptr;
  if (fits) {
    next = zeroed ? std::calloc(static_cast<std::size_t>(total), 1)
                  : std::realloc(*buffer, static_cast<std::size_t>(total));
  }
  // A successful realloc has taken the old block over; anything else leaves it to free.
  if (!next || zeroed) std::free(*buffer);
  *buffer = next;
  *pixels = next ? static_cast<std::size_t>(total / bytes) : 0;
}

// Pixels a caller's buffer for a width x height image holds (the caller vouches for its size).
std::size_t WrappedPixels(std::int32_t w, std::int32_t h, const void* buffer) {
  std::uint64_t n = 0;
  const bool any =
      buffer && w >= 1 && h >= 1 &&
      CheckedProduct(&n, static_cast<std::uint64_t>(w), static_cast<std::uint64_t>(h)) &&
      FitsSizeT(n);
  return any ? static_cast<std::size_t>(n) : 0;
}

// a + i, wrapping instead of overflowing: a result outside int32 lands outside every image.
std::int32_t Offset(std::int32_t a, std::int32_t i) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(i));
}

// The region rule of copyTo/copyFrom: w and h are cut to what lies inside a width x height image
// from (x, y) (result 0 when cut); then move(x + i, y + j, i, j) runs for every pixel.
template <class Move>
std::int16_t Region(std::int32_t width, std::int32_t height, std::int32_t x, std::int32_t y,
                    std::int32_t w, std::int32_t h, Move move) {
  std::int16_t result = 1;
  if (std::int64_t{x} + w > width) {
    w = static_cast<std::int32_t>(std::max<std::int64_t>(0, std::int64_t{width} - x));
    result = 0;
  }
  if (std::int64_t{y} + h > height) {
    h = static_cast<std::int32_t>(std::max<std::int64_t>(0, std::int64_t{height} - y));
    result = 0;
  }
  if (h < 1) return result;
  for (std::int32_t j = 0; j < h; ++j) {
    for (std::int32_t i = 0; i < w; ++i) move(Offset(x, i), Offset(y, j), i, j);
  }
  return result;
}

}  // namespace

// ---- QI_Image ----

QI_Image::~QI_Image() = default;

std::int16_t QI_Image::setWidth(std::int32_t n) {
  width_ = n;
  return 1;
}
std::int16_t QI_Image::setHeight(std::int32_t n) {
  height_ = n;
  return 1;
}
std::int16_t QI_Image::setChannels(std::int32_t n) {
  channels_ = n;
  return 1;
}
std::int16_t QI_Image::setBitsPerChannel(std::int32_t n) {
  bitsPerChannel_ = n;
  return 1;
}
std::int16_t QI_Image::setBytesPerChannel(std::int32_t n) {
  bitsPerChannel_ = static_cast<std::int32_t>(static_cast<std::uint32_t>(n) * 8u);
  return 1;
}
std::int16_t QI_Image::setPixelType(std::int32_t code) {
  pixelType_ = code;
  return 1;
}

// ---- QI_ImageMem ----

void* QI_ImageMem::getBuffer() {
  return buffer_;
}

std::int16_t QI_ImageMem::copyTo(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                                 QI_ImageMem* dest, std::int32_t dx, std::int32_t dy) {
  if (!dest) return 0;
  return Region(width_, height_, x, y, w, h, [&](auto px, auto py, auto i, auto j) {
    float r, g, b, a;
    getPixelF(px, py, &r, &g, &b, &a);
    dest->setPixelF(Offset(dx, i), Offset(dy, j), r, g, b, a);
  });
}

std::int16_t QI_ImageMem::copyFrom(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                                   QI_ImageMem* src, std::int32_t sx, std::int32_t sy) {
  if (!src) return 0;
  return Region(width_, height_, x, y, w, h, [&](auto px, auto py, auto i, auto j) {
    float r, g, b, a;
    src->getPixelF(Offset(sx, i), Offset(sy, j), &r, &g, &b, &a);
    setPixelF(px, py, r, g, b, a);
  });
}

void QI_ImageMem::getGray(std::int32_t x, std::int32_t y, float* out) {
  float r = 0.0f, g = 0.0f, b = 0.0f;
  getPixelF(x, y, &r, &g, &b, nullptr);
  if (out) *out = 0.30f * r + 0.59f * g + 0.11f * b;
}

void QI_ImageMem::getPixel(std::int32_t x, std::int32_t y, void* r, void* g, void* b, void* a,
                           std::int32_t depth) {
  switch (depth) {
    case QI_DEPTH_8:
      getPixel8(x, y, static_cast<std::uint8_t*>(r), static_cast<std::uint8_t*>(g),
                static_cast<std::uint8_t*>(b), static_cast<std::uint8_t*>(a));
      break;
    case QI_DEPTH_16:
      getPixel16(x, y, static_cast<std::uint16_t*>(r), static_cast<std::uint16_t*>(g),
                 static_cast<std::uint16_t*>(b), static_cast<std::uint16_t*>(a));
      break;
    case QI_DEPTH_FLOAT:
      getPixelF(x, y, static_cast<float*>(r), static_cast<float*>(g), static_cast<float*>(b),
                static_cast<float*>(a));
      break;
    default:
      break;
  }
}

void QI_ImageMem::setGray(std::int32_t x, std::int32_t y, float v) {
  setPixelF(x, y, v, v, v, 1.0f);
}

void QI_ImageMem::setPixel(std::int32_t x, std::int32_t y, const void* r, const void* g,
                           const void* b, const void* a, std::int32_t depth) {
  switch (depth) {
    case QI_DEPTH_8:
      setPixel8(x, y, Component<std::uint8_t>(r, 0), Component<std::uint8_t>(g, 0),
                Component<std::uint8_t>(b, 0), Component<std::uint8_t>(a, 255));
      break;
    case QI_DEPTH_16:
      setPixel16(x, y, Component<std::uint16_t>(r, 0), Component<std::uint16_t>(g, 0),
                 Component<std::uint16_t>(b, 0), Component<std::uint16_t>(a, 65535));
      break;
    case QI_DEPTH_FLOAT:
      setPixelF(x, y, Component<float>(r, 0.0f), Component<float>(g, 0.0f),
                Component<float>(b, 0.0f), Component<float>(a, 1.0f));
      break;
    default:
      break;
  }
}

std::int32_t QI_ImageMem::getIndex(std::int32_t, std::int32_t) {
  return 0;
}
void QI_ImageMem::setIndex(std::int32_t, std::int32_t, std::int32_t) {}
void QI_ImageMem::getMapEntry(std::int32_t, std::uint8_t*, std::uint8_t*, std::uint8_t*) {}
void QI_ImageMem::setMapEntry(std::int32_t, std::uint8_t, std::uint8_t, std::uint8_t) {}
void QI_ImageMem::reserved25() {}
void QI_ImageMem::reserved26() {}
std::int32_t QI_ImageMem::reserved27() {
  return 0;
}
void QI_ImageMem::reserved28() {}

// ---- The 8-bit layouts: RGBA8 and ABGR differ only in the order of the bytes ----

#define QI_BYTE_LAYOUT(Class, order)                                                              \
  void Class::getPixelF(std::int32_t x, std::int32_t y, float* r, float* g, float* b, float* a) { \
    Give(static_cast<const std::uint8_t*>(pixelAt(x, y, 4)), order, FromByte, r, g, b, a);        \
  }                                                                                               \
  void Class::getPixel16(std::int32_t x, std::int32_t y, std::uint16_t* r, std::uint16_t* g,      \
                         std::uint16_t* b, std::uint16_t* a) {                                    \
    Give(static_cast<const std::uint8_t*>(pixelAt(x, y, 4)), order, Widen, r, g, b, a);           \
  }                                                                                               \
  void Class::getPixel8(std::int32_t x, std::int32_t y, std::uint8_t* r, std::uint8_t* g,         \
                        std::uint8_t* b, std::uint8_t* a) {                                       \
    Give(static_cast<const std::uint8_t*>(pixelAt(x, y, 4)), order, Same8, r, g, b, a);           \
  }                                                                                               \
  void Class::setPixelF(std::int32_t x, std::int32_t y, float r, float g, float b, float a) {     \
    Take(pixelAt(x, y, 4), order, To8(r), To8(g), To8(b), To8(a));                                \
  }                                                                                               \
  void Class::setPixel16(std::int32_t x, std::int32_t y, std::uint16_t r, std::uint16_t g,        \
                         std::uint16_t b, std::uint16_t a) {                                      \
    Take(pixelAt(x, y, 4), order, Narrow(r), Narrow(g), Narrow(b), Narrow(a));                    \
  }                                                                                               \
  void Class::setPixel8(std::int32_t x, std::int32_t y, std::uint8_t r, std::uint8_t g,           \
                        std::uint8_t b, std::uint8_t a) {                                         \
    Take(pixelAt(x, y, 4), order, r, g, b, a);                                                    \
  }                                                                                               \
  std::int16_t Class::copyTo(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,      \
                             QI_ImageMem* dest, std::int32_t dx, std::int32_t dy) {               \
    if (!dest) return 0;                                                                          \
    return Region(width_, height_, x, y, w, h, [&](auto px, auto py, auto i, auto j) {            \
      std::uint8_t c[4];                                                                          \
      getPixel8(px, py, &c[0], &c[1], &c[2], &c[3]);                                              \
      dest->setPixel8(Offset(dx, i), Offset(dy, j), c[0], c[1], c[2], c[3]);                      \
    });                                                                                           \
  }                                                                                               \
  std::int16_t Class::copyFrom(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,    \
                               QI_ImageMem* src, std::int32_t sx, std::int32_t sy) {              \
    if (!src) return 0;                                                                           \
    return Region(width_, height_, x, y, w, h, [&](auto px, auto py, auto i, auto j) {            \
      std::uint8_t c[4];                                                                          \
      src->getPixel8(Offset(sx, i), Offset(sy, j), &c[0], &c[1], &c[2], &c[3]);                   \
      setPixel8(px, py, c[0], c[1], c[2], c[3]);                                                  \
    });                                                                                           \
  }

QI_BYTE_LAYOUT(QI_ImageRGBA8, kRGBA)
QI_BYTE_LAYOUT(QI_ImageABGR, kABGR)
#undef QI_BYTE_LAYOUT

// ---- QI_ImageRGBA8 ----

QI_ImageRGBA8::QI_ImageRGBA8(std::int32_t width, std::int32_t height) {
  width_ = width;
  height_ = height;
  channels_ = 4;
  pixelType_ = QI_PIXEL_RGBA;
  Reallocate(&buffer_, &pixels_, width, height, 4, true);
}

QI_ImageRGBA8::QI_ImageRGBA8(std::int32_t width, std::int32_t height, void* buffer, bool topFirst)
    : external_(true) {
  topFirst_ = topFirst;
  width_ = width;
  height_ = height;
  channels_ = 4;
  pixelType_ = QI_PIXEL_RGBA;
  buffer_ = buffer;
  pixels_ = WrappedPixels(width, height, buffer);
}

QI_ImageRGBA8::~QI_ImageRGBA8() {
  if (!external_) std::free(buffer_);
}

void QI_ImageRGBA8::resize(std::int32_t w, std::int32_t h) {
  if (external_) {
    buffer_ = nullptr;
    pixels_ = 0;
    return;
  }
  Reallocate(&buffer_, &pixels_, w, h, 4, false);
  setWidth(w);
  setHeight(h);
}

// ---- QI_ImageABGR ----

QI_ImageABGR::QI_ImageABGR(std::int32_t width, std::int32_t height) {
  width_ = width;
  height_ = height;
  channels_ = 4;
  pixelType_ = QI_PIXEL_ABGR;
  Reallocate(&buffer_, &pixels_, width, height, 4, true);
}

QI_ImageABGR::~QI_ImageABGR() {
  std::free(buffer_);
}

void QI_ImageABGR::resize(std::int32_t w, std::int32_t h) {
  Reallocate(&buffer_, &pixels_, w, h, 4, false);
  setWidth(w);
  setHeight(h);
}

std::int16_t QI_ImageABGR::copyBlock(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                                     QI_ImageABGR* dest, std::int32_t dx, std::int32_t dy) {
  if (!dest) return 0;
  std::int16_t result = 1;
  if (std::int64_t{x} + w > width_) {
    w = static_cast<std::int32_t>(std::max<std::int64_t>(0, std::int64_t{width_} - x));
    result = 0;
  }
  if (std::int64_t{y} + h > height_) {
    h = static_cast<std::int32_t>(std::max<std::int64_t>(0, std::int64_t{height_} - y));
    result = 0;
  }
  // Rows are cut to the destination's width too: a memmove has no per-pixel check to fall back on.
  if (dx >= 0 && std::int64_t{dx} + w > dest->width_) {
    w = static_cast<std::int32_t>(std::max<std::int64_t>(0, std::int64_t{dest->width_} - dx));
    result = 0;
  }
  if (h < 1 || w < 1) return result;
  for (std::int32_t j = 0; j < h; ++j) {
    // A row is moved only when both its ends lie inside both images.
    const std::int32_t sy = Offset(y, j), ty = Offset(dy, j);
    void* from = pixelAt(x, sy, 4);
    void* to = dest->pixelAt(dx, ty, 4);
    if (!from || !to || !pixelAt(Offset(x, w - 1), sy, 4) ||
        !dest->pixelAt(Offset(dx, w - 1), ty, 4)) {
      result = 0;
      continue;
    }
    std::memmove(to, from, static_cast<std::size_t>(w) * 4);
  }
  return result;
}

// ---- QI_ImageRGBA16 ----

QI_ImageRGBA16::QI_ImageRGBA16(std::int32_t width, std::int32_t height) {
  width_ = width;
  height_ = height;
  channels_ = 4;
  bitsPerChannel_ = 16;
  pixelType_ = QI_PIXEL_RGBA;
  Reallocate(&buffer_, &pixels_, width, height, 8, true);
}

QI_ImageRGBA16::QI_ImageRGBA16(std::int32_t width, std::int32_t height, void* buffer, bool topFirst)
    : external_(true) {
  topFirst_ = topFirst;
  width_ = width;
  height_ = height;
  channels_ = 4;
  bitsPerChannel_ = 16;
  pixelType_ = QI_PIXEL_RGBA;
  buffer_ = buffer;
  pixels_ = WrappedPixels(width, height, buffer);
}

QI_ImageRGBA16::~QI_ImageRGBA16() {
  if (!external_) std::free(buffer_);
}

void QI_ImageRGBA16::resize(std::int32_t w, std::int32_t h) {
  if (external_) {
    buffer_ = nullptr;
    pixels_ = 0;
    return;
  }
  Reallocate(&buffer_, &pixels_, w, h, 8, false);
  setWidth(w);
  setHeight(h);
}

void QI_ImageRGBA16::getPixelF(std::int32_t x, std::int32_t y, float* r, float* g, float* b,
                               float* a) {
  Give(static_cast<const std::uint16_t*>(pixelAt(x, y, 8)), kRGBA, FromWord, r, g, b, a);
}
void QI_ImageRGBA16::getPixel16(std::int32_t x, std::int32_t y, std::uint16_t* r, std::uint16_t* g,
                                std::uint16_t* b, std::uint16_t* a) {
  Give(static_cast<const std::uint16_t*>(pixelAt(x, y, 8)), kRGBA, Same16, r, g, b, a);
}
void QI_ImageRGBA16::getPixel8(std::int32_t x, std::int32_t y, std::uint8_t* r, std::uint8_t* g,
                               std::uint8_t* b, std::uint8_t* a) {
  Give(static_cast<const std::uint16_t*>(pixelAt(x, y, 8)), kRGBA, Narrow, r, g, b, a);
}
void QI_ImageRGBA16::setPixelF(std::int32_t x, std::int32_t y, float r, float g, float b, float a) {
  Take(pixelAt(x, y, 8), kRGBA, To16(r), To16(g), To16(b), To16(a));
}
void QI_ImageRGBA16::setPixel16(std::int32_t x, std::int32_t y, std::uint16_t r, std::uint16_t g,
                                std::uint16_t b, std::uint16_t a) {
  Take(pixelAt(x, y, 8), kRGBA, r, g, b, a);
}
void QI_ImageRGBA16::setPixel8(std::int32_t x, std::int32_t y, std::uint8_t r, std::uint8_t g,
                               std::uint8_t b, std::uint8_t a) {
  Take(pixelAt(x, y, 8), kRGBA, Widen(r), Widen(g), Widen(b), Widen(a));
}

std::int16_t QI_ImageRGBA16::copyTo(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                                    QI_ImageMem* dest, std::int32_t dx, std::int32_t dy) {
  if (!dest) return 0;
  return Region(width_, height_, x, y, w, h, [&](auto px, auto py, auto i, auto j) {
    std::uint16_t c[4];
    getPixel16(px, py, &c[0], &c[1], &c[2], &c[3]);
    dest->setPixel16(Offset(dx, i), Offset(dy, j), c[0], c[1], c[2], c[3]);
  });
}

std::int16_t QI_ImageRGBA16::copyFrom(std::int32_t x, std::int32_t y, std::int32_t w,
                                      std::int32_t h, QI_ImageMem* src, std::int32_t sx,
                                      std::int32_t sy) {
  if (!src) return 0;
  return Region(width_, height_, x, y, w, h, [&](auto px, auto py, auto i, auto j) {
    std::uint16_t c[4];
    src->getPixel16(Offset(sx, i), Offset(sy, j), &c[0], &c[1], &c[2], &c[3]);
    setPixel16(px, py, c[0], c[1], c[2], c[3]);
  });
}

// ---- QI_ImageCMAP ----

QI_ImageCMAP::QI_ImageCMAP(std::int32_t mapSize, std::int32_t width, std::int32_t height) {
  width_ = width;
  height_ = height;
  channels_ = 1;
  pixelType_ = QI_PIXEL_CMAP;
  if (mapSize >= 1) {
    const auto n = static_cast<std::size_t>(mapSize);
    red_ = static_cast<std::uint8_t*>(std::calloc(n, 1));
    green_ = static_cast<std::uint8_t*>(std::calloc(n, 1));
    blue_ = static_cast<std::uint8_t*>(std::calloc(n, 1));
    if (red_ && green_ && blue_) {
      maxIndex_ = mapSize - 1;
    } else {
      std::free(red_);
      std::free(green_);
      std::free(blue_);
      red_ = green_ = blue_ = nullptr;
    }
  }
  Reallocate(&buffer_, &pixels_, width, height, 2, true);
}

QI_ImageCMAP::~QI_ImageCMAP() {
  std::free(red_);
  std::free(green_);
  std::free(blue_);
  std::free(buffer_);
}

void QI_ImageCMAP::resize(std::int32_t w, std::int32_t h) {
  Reallocate(&buffer_, &pixels_, w, h, 2, false);
  setWidth(w);
  setHeight(h);
}

// Only indices 0..maxIndex reach the map; without a map maxIndex is -1 and none does.
#define QI_MAPPED(i) \
  (static_cast<std::uint32_t>(i) <= static_cast<std::uint32_t>(maxIndex_) && maxIndex_ >= 0)

void QI_ImageCMAP::getPixel8(std::int32_t x, std::int32_t y, std::uint8_t* r, std::uint8_t* g,
                             std::uint8_t* b, std::uint8_t* a) {
  const auto* p = static_cast<const std::uint16_t*>(pixelAt(x, y, 2));
  const bool mapped = p && QI_MAPPED(*p);
  Put(r, mapped ? red_[*p] : std::uint8_t{0});
  Put(g, mapped ? green_[*p] : std::uint8_t{0});
  Put(b, mapped ? blue_[*p] : std::uint8_t{0});
  Put(a, p ? std::uint8_t{255} : std::uint8_t{0});
}

void QI_ImageCMAP::getPixel16(std::int32_t x, std::int32_t y, std::uint16_t* r, std::uint16_t* g,
                              std::uint16_t* b, std::uint16_t* a) {
  std::uint8_t c[4];
  QI_ImageCMAP::getPixel8(x, y, &c[0], &c[1], &c[2], &c[3]);
  Give(c, kRGBA, Widen, r, g, b, a);
}

void QI_ImageCMAP::getPixelF(std::int32_t x, std::int32_t y, float* r, float* g, float* b,
                             float* a) {
  std::uint8_t c[4];
  QI_ImageCMAP::getPixel8(x, y, &c[0], &c[1], &c[2], &c[3]);
  Give(c, kRGBA, FromByte, r, g, b, a);
}

// Colours are not matched against the map: a colour-mapped image takes indices (setIndex) only.
void QI_ImageCMAP::setPixelF(std::int32_t, std::int32_t, float, float, float, float) {}
void QI_ImageCMAP::setPixel16(std::int32_t, std::int32_t, std::uint16_t, std::uint16_t,
                              std::uint16_t, std::uint16_t) {}
void QI_ImageCMAP::setPixel8(std::int32_t, std::int32_t, std::uint8_t, std::uint8_t, std::uint8_t,
                             std::uint8_t) {}

std::int32_t QI_ImageCMAP::getIndex(std::int32_t x, std::int32_t y) {
  const auto* p = static_cast<const std::uint16_t*>(pixelAt(x, y, 2));
  return p ? *p : 0;
}

void QI_ImageCMAP::setIndex(std::int32_t x, std::int32_t y, std::int32_t index) {
  if (auto* p = static_cast<std::uint16_t*>(pixelAt(x, y, 2))) {
    *p = static_cast<std::uint16_t>(index);
  }
}

void QI_ImageCMAP::getMapEntry(std::int32_t i, std::uint8_t* r, std::uint8_t* g, std::uint8_t* b) {
  const bool mapped = QI_MAPPED(i);
  Put(r, mapped ? red_[i] : std::uint8_t{0});
  Put(g, mapped ? green_[i] : std::uint8_t{0});
  Put(b, mapped ? blue_[i] : std::uint8_t{0});
}

void QI_ImageCMAP::setMapEntry(std::int32_t i, std::uint8_t r, std::uint8_t g, std::uint8_t b) {
  if (!QI_MAPPED(i)) return;
  red_[i] = r;
  green_[i] = g;
  blue_[i] = b;
}
#undef QI_MAPPED

// ---- Line stores ----

namespace {

template <class T, class S>
T Convert(S v) {
  if constexpr (sizeof(T) == sizeof(S))
    return v;
  else if constexpr (sizeof(T) == 2)
    return Widen(v);
  else
    return Narrow(v);
}

// One line of 1, 3 or 4 interleaved samples into RGBA pixels of T, alpha full where the line
// has none.
template <class T, class S>
void Expand(T* out, const S* in, std::int32_t channels, std::size_t n) {
  constexpr T kFull = static_cast<T>(~T{0});
  if (channels == 4 && sizeof(T) == sizeof(S)) {
    std::memcpy(out, in, n * 4 * sizeof(T));
  } else if (channels == 4) {
    if constexpr (sizeof(S) == 1 && sizeof(T) == 2 && std::endian::native == std::endian::little) {
      // A pixel at a time: its four bytes spread to 16-bit lanes, then v * 257 as v | v << 8.
      for (std::size_t x = 0; x < n; ++x) {
        std::uint32_t four;
        std::memcpy(&four, in + 4 * x, 4);
        std::uint64_t v = (four | std::uint64_t{four} << 16) & 0x0000FFFF0000FFFFu;
        v = (v | v << 8) & 0x00FF00FF00FF00FFu;
        v |= v << 8;
        std::memcpy(out + 4 * x, &v, 8);
      }
    } else {
      for (std::size_t i = 0; i < n * 4; ++i) out[i] = Convert<T>(in[i]);
    }
  } else if (channels == 3) {
    for (std::size_t x = 0; x < n; ++x, in += 3, out += 4) {
      out[0] = Convert<T>(in[0]);
      out[1] = Convert<T>(in[1]);
      out[2] = Convert<T>(in[2]);
      out[3] = kFull;
    }
  } else {
    for (std::size_t x = 0; x < n; ++x, out += 4) {
      out[0] = out[1] = out[2] = Convert<T>(in[x]);
      out[3] = kFull;
    }
  }
}

}  // namespace

// A row of an exact QI_ImageRGBA8/QI_ImageRGBA16 as one span of `width` pixels, or null when any
// of it lies outside the image or its buffer (rows are contiguous in either row order).
struct qi::LineAccess {
  static void* Row(QI_ImageMem* image, std::int32_t row, std::int32_t width, std::size_t bytes) {
    void* first = image->pixelAt(0, row, bytes);
    return first && image->pixelAt(width - 1, row, bytes) ? first : nullptr;
  }
};

namespace {

template <class S>
void StoreLine(QI_ImageMem* dest, std::int32_t row, const S* samples, std::int32_t channels,
               std::int32_t width, bool throughSetPixel) {
  if (!dest || !samples || width < 1 || (channels != 1 && channels != 3 && channels != 4)) return;
  const auto n = static_cast<std::size_t>(width);
  const std::type_info& type = typeid(*dest);
  if (type == typeid(QI_ImageRGBA16)) {
    if (void* p = qi::LineAccess::Row(dest, row, width, 8)) {
      Expand(static_cast<std::uint16_t*>(p), samples, channels, n);
      return;
    }
  } else if (type == typeid(QI_ImageRGBA8)) {
    if (void* p = qi::LineAccess::Row(dest, row, width, 4)) {
      Expand(static_cast<std::uint8_t*>(p), samples, channels, n);
      return;
    }
  }
  constexpr S kFull = static_cast<S>(~S{0});
  const std::size_t step = static_cast<std::size_t>(channels);
  for (std::size_t x = 0; x < n; ++x) {
    const S* r = samples + x * step;
    const S* g = channels >= 3 ? r + 1 : r;
    const S* b = channels >= 3 ? r + 2 : r;
    const S* a = channels == 4 ? r + 3 : nullptr;
    const auto xi = static_cast<std::int32_t>(x);
    if (throughSetPixel)
      dest->setPixel(xi, row, r, g, b, a, sizeof(S) == 1 ? QI_DEPTH_8 : QI_DEPTH_16);
    else if constexpr (sizeof(S) == 1)
      dest->setPixel8(xi, row, *r, *g, *b, a ? *a : kFull);
    else
      dest->setPixel16(xi, row, *r, *g, *b, a ? *a : kFull);
  }
}

}  // namespace

void qi::StoreLine8(QI_ImageMem* dest, std::int32_t row, const std::uint8_t* samples,
                    std::int32_t channels, std::int32_t width, bool throughSetPixel) {
  StoreLine(dest, row, samples, channels, width, throughSetPixel);
}

void qi::StoreLine16(QI_ImageMem* dest, std::int32_t row, const std::uint16_t* samples,
                     std::int32_t channels, std::int32_t width, bool throughSetPixel) {
  StoreLine(dest, row, samples, channels, width, throughSetPixel);
}
