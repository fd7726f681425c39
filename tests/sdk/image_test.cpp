#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "vx/sdk.h"

namespace {

// Owning pointer for the tests' images.
struct Img {
  IVxImage* p = nullptr;
  Img(int w, int h, VxPixelFormat f) { EXPECT_EQ(VxCreateImage(w, h, f, &p), S_OK); }
  Img(Img&& o) noexcept : p(o.p) { o.p = nullptr; }  // and so not copyable
  ~Img() {
    if (p) p->Release();
  }
  IVxImage* operator->() const { return p; }
  template <typename T>
  T* Row(int y) const {
    return reinterpret_cast<T*>(p->GetBuffer() +
                                static_cast<std::ptrdiff_t>(y) * p->GetRowStride());
  }
};

Img Convert(const Img& src, VxPixelFormat to) {
  Img dst(src->GetWidth(), src->GetHeight(), to);
  EXPECT_EQ(VxConvertImage(src.p, dst.p), S_OK);
  return dst;
}

TEST(Image, LayoutFailedAllocateAndRefusedConversions) {
  Img img(3, 2, VX_PF_RGB8);
  EXPECT_EQ(img->GetRowStride(), 12);  // 9 bytes padded to 4
  EXPECT_EQ(img->GetPixelFormat(), VX_PF_RGB8);
  EXPECT_EQ(img->GetFieldMode(), VX_FIELD_PROGRESSIVE);
  EXPECT_EQ(img->GetPixelAspect(), 1.0);
  for (int i = 0; i < 24; ++i) EXPECT_EQ(img->GetBuffer()[i], 0);  // starts black
  img->GetBuffer()[0] = 77;
  EXPECT_EQ(img->Allocate(-1, 2, VX_PF_RGB8), E_INVALIDARG);
  EXPECT_EQ(img->Allocate(4, 4, VX_PF_UNKNOWN), E_INVALIDARG);
  EXPECT_EQ(img->Allocate(std::numeric_limits<int>::max(), 2, VX_PF_RGBAF32), E_INVALIDARG);
  EXPECT_EQ(img->GetWidth(), 3);
  EXPECT_EQ(img->GetBuffer()[0], 77);

  IVxImage* empty = nullptr;
  ASSERT_EQ(VxCreateImage(0, 0, VX_PF_UNKNOWN, &empty), S_OK);
  EXPECT_EQ(empty->GetBuffer(), nullptr);
  EXPECT_EQ(empty->Allocate(5, 1, VX_PF_RGBA16), S_OK);
  EXPECT_EQ(empty->GetRowStride(), 40);
  EXPECT_EQ(empty->Release(), 0u);
  EXPECT_EQ(VxCreateImage(2, 2, static_cast<VxPixelFormat>(42), &empty), E_INVALIDARG);
  EXPECT_EQ(empty, nullptr);

  // Conversion refuses mismatched sizes and nulls.
  Img a(2, 2, VX_PF_RGB8), b(2, 3, VX_PF_RGB8);
  EXPECT_EQ(VxConvertImage(a.p, b.p), E_INVALIDARG);
  EXPECT_EQ(VxConvertImage(nullptr, b.p), E_POINTER);
  EXPECT_EQ(VxConvertImage(a.p, nullptr), E_POINTER);
  EXPECT_EQ(VxConvertImage(a.p, a.p), S_OK);
}

TEST(Convert, IntegerDepthsScaleRoundAndRoundTripEveryValue) {
  Img g8(256, 1, VX_PF_GRAY8);
  for (int v = 0; v < 256; ++v) g8.Row<std::uint8_t>(0)[v] = static_cast<std::uint8_t>(v);
  Img g16 = Convert(g8, VX_PF_GRAY16);
  for (int v = 0; v < 256; ++v) ASSERT_EQ(g16.Row<std::uint16_t>(0)[v], v * 257) << v;
  Img again = Convert(g16, VX_PF_GRAY8);
  EXPECT_EQ(std::memcmp(again.Row<std::uint8_t>(0), g8.Row<std::uint8_t>(0), 256), 0);
  Img viaFloat = Convert(Convert(g8, VX_PF_GRAYF32), VX_PF_GRAY8);
  EXPECT_EQ(std::memcmp(viaFloat.Row<std::uint8_t>(0), g8.Row<std::uint8_t>(0), 256), 0);

  // Sixteen to eight rounds; float keeps every sixteen-bit value.
  Img all16(65536, 1, VX_PF_GRAY16);
  for (int v = 0; v < 65536; ++v) all16.Row<std::uint16_t>(0)[v] = static_cast<std::uint16_t>(v);
  Img down = Convert(all16, VX_PF_GRAY8);
  for (int v = 0; v < 65536; ++v)
    ASSERT_EQ(down.Row<std::uint8_t>(0)[v], (v * 255 + 32767) / 65535) << v;
  Img back = Convert(Convert(all16, VX_PF_GRAYF32), VX_PF_GRAY16);
  EXPECT_EQ(std::memcmp(back.Row<std::uint16_t>(0), all16.Row<std::uint16_t>(0), 65536 * 2), 0);
}

TEST(Convert, FloatClampsRoundsAndMapsNanToZero) {
  Img f(7, 1, VX_PF_GRAYF32);
  const float in[7] = {-0.5f,         1.5f,           std::nanf(""),
                       0.5f / 255.0f, 0.49f / 255.0f, std::numeric_limits<float>::infinity(),
                       0.5f};
  std::memcpy(f.Row<float>(0), in, sizeof in);
  Img b = Convert(f, VX_PF_GRAY8);
  const std::uint8_t want8[7] = {0, 255, 0, 1, 0, 255, 128};
  EXPECT_EQ(std::memcmp(b.Row<std::uint8_t>(0), want8, 7), 0);
  Img w = Convert(f, VX_PF_GRAY16);
  for (auto [i, want] : {std::pair{0, 0}, {1, 65535}, {2, 0}, {6, 32768}})
    EXPECT_EQ(w.Row<std::uint16_t>(0)[i], want) << i;
  // Float to float keeps values outside [0, 1]: only integer targets clamp.
  Img rgb = Convert(f, VX_PF_RGBF32);
  EXPECT_EQ(rgb.Row<float>(0)[3], 1.5f);
}

TEST(Convert, ChannelOrderAlphaAndGrey) {
  Img rgb(2, 1, VX_PF_RGB8);
  const std::uint8_t px[6] = {10, 20, 30, 0, 255, 0};
  std::memcpy(rgb.Row<std::uint8_t>(0), px, 6);

  Img bgra = Convert(rgb, VX_PF_BGRA8);
  const std::uint8_t wantBgra[8] = {30, 20, 10, 255, 0, 255, 0, 255};  // missing alpha: opaque
  EXPECT_EQ(std::memcmp(bgra.Row<std::uint8_t>(0), wantBgra, 8), 0);
  Img rgba16 = Convert(bgra, VX_PF_RGBA16);
  const std::uint16_t wantRgba16[8] = {2570, 5140, 7710, 65535, 0, 65535, 0, 65535};
  EXPECT_EQ(std::memcmp(rgba16.Row<std::uint16_t>(0), wantRgba16, 16), 0);
  EXPECT_EQ(Convert(rgb, VX_PF_RGBAF32).Row<float>(0)[3], 1.0f);

  // Rec. 709 weights: pure green is 0.7152.
  EXPECT_EQ(Convert(rgb, VX_PF_GRAY8).Row<std::uint8_t>(0)[1], 182);
  EXPECT_NEAR(Convert(rgb, VX_PF_GRAYF32).Row<float>(0)[1], 0.7152f, 1e-6f);

  Img white(1, 1, VX_PF_RGBF32);
  for (int i = 0; i < 3; ++i) white.Row<float>(0)[i] = 1.0f;
  EXPECT_EQ(Convert(white, VX_PF_GRAYF32).Row<float>(0)[0], 1.0f);
  EXPECT_EQ(Convert(white, VX_PF_GRAY16).Row<std::uint16_t>(0)[0], 65535);
  Img white16(1, 1, VX_PF_RGB16);
  for (int i = 0; i < 3; ++i) white16.Row<std::uint16_t>(0)[i] = 65535;
  EXPECT_EQ(Convert(white16, VX_PF_GRAY16).Row<std::uint16_t>(0)[0], 65535);

  Img g(1, 1, VX_PF_GRAY16);
  g.Row<std::uint16_t>(0)[0] = 1234;
  Img spread = Convert(g, VX_PF_RGBA16);
  const std::uint16_t wantSpread[4] = {1234, 1234, 1234, 65535};
  EXPECT_EQ(std::memcmp(spread.Row<std::uint16_t>(0), wantSpread, 8), 0);
}

TEST(Convert, RespectsRowPaddingAndCopiesPictureProperties) {
  Img src(3, 3, VX_PF_RGB8);  // 9-byte rows in 12-byte strides
  for (int y = 0; y < 3; ++y)
    for (int i = 0; i < 9; ++i) src.Row<std::uint8_t>(y)[i] = static_cast<std::uint8_t>(y * 9 + i);
  src->SetPixelAspect(0.9);
  src->SetFieldMode(VX_FIELD_UPPER_FIRST);
  src->SetTiming(CVxTime(100), CVxTime(50));
  Img dst = Convert(src, VX_PF_RGBA8);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 3; ++x)
      for (int c = 0; c < 3; ++c) ASSERT_EQ(dst.Row<std::uint8_t>(y)[x * 4 + c], y * 9 + x * 3 + c);
  EXPECT_EQ(dst->GetPixelAspect(), 0.9);
  EXPECT_EQ(dst->GetFieldMode(), VX_FIELD_UPPER_FIRST);
  CVxTime start, duration;
  dst->GetTiming(&start, &duration);
  EXPECT_EQ(start.Ticks(), 100);
  EXPECT_EQ(duration.Ticks(), 50);

  Img same = Convert(src, VX_PF_RGB8);
  for (int y = 0; y < 3; ++y)
    EXPECT_EQ(std::memcmp(same.Row<std::uint8_t>(y), src.Row<std::uint8_t>(y), 9), 0);
}

TEST(AudioBuffer, HoldsFormatAndBoundsItsLength) {
  const WAVEFORMATEX fmt{WAVE_FORMAT_PCM, 2, 48000, 288000, 6, 24, 0};  // 48 kHz 24-bit stereo
  IVxAudioBuffer* buf = nullptr;
  ASSERT_EQ(VxCreateAudioBuffer(&fmt, 600, &buf), S_OK);
  WAVEFORMATEX got{};
  ASSERT_EQ(buf->GetFormat(&got), S_OK);
  EXPECT_EQ(std::memcmp(&got, &fmt, sizeof fmt), 0);
  EXPECT_EQ(buf->GetCapacity(), 600u);
  EXPECT_EQ(buf->GetLength(), 0u);
  EXPECT_EQ(buf->GetBuffer()[599], 0);
  EXPECT_EQ(buf->SetLength(600), S_OK);
  EXPECT_EQ(buf->SetLength(601), E_INVALIDARG);
  EXPECT_EQ(buf->GetLength(), 600u);
  EXPECT_EQ(buf->Release(), 0u);
  EXPECT_EQ(VxCreateAudioBuffer(nullptr, 10, &buf), E_POINTER);
  EXPECT_EQ(buf, nullptr);
}

}  // namespace
