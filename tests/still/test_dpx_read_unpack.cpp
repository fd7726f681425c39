// Sample unpackers against bytes built bit by bit, scaling, orientation and channel placement.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "dpx_read_test_util.h"
#include "base/worker_pool.h"
#include "still/dpx/dpx_unpack.h"

using namespace vx::dpx;

namespace {

std::vector<std::uint32_t> RandomCodes(std::size_t n, int bits, std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<std::uint32_t> v(n);
  const std::uint32_t max = (1u << bits) - 1;
  for (auto& x : v) x = rng() & max;
  // Keep the extremes in play: all ones and zero catch masking and shifting faults.
  if (n > 0) v[0] = max;
  if (n > 1) v[n - 1] = 0;
  return v;
}

struct Format {
  int bits;
  std::uint32_t packing;
  const char* name;
};

std::vector<std::uint8_t> Encode(const Format& f, const std::vector<std::uint32_t>& s, bool big) {
  switch (f.bits) {
    case 1:
      return dpxtest::Encode1(s);
    case 8: {
      std::vector<std::uint8_t> out;
      for (auto v : s) out.push_back(static_cast<std::uint8_t>(v));
      return out;
    }
    case 10:
      return f.packing == 0 ? dpxtest::EncodePacked(s, 10, big)
                            : dpxtest::EncodeFilled10(s, f.packing == 1, big);
    case 12:
      return f.packing == 0 ? dpxtest::EncodePacked(s, 12, big)
                            : dpxtest::EncodeFilled12(s, f.packing == 1, big);
    default:
      return dpxtest::Encode16(s, big);
  }
}

}  // namespace

TEST(DpxUnpack, EveryDepthPackingOrderAndWidth) {
  const Format formats[] = {{1, 0, "1"},     {8, 0, "8"},     {10, 0, "10 packed"},
                            {10, 1, "10 A"}, {10, 2, "10 B"}, {12, 0, "12 packed"},
                            {12, 1, "12 A"}, {12, 2, "12 B"}, {16, 0, "16"}};
  std::uint32_t seed = 1;
  for (const Format& f : formats) {
    for (bool big : {true, false}) {
      for (std::uint32_t components : {1u, 3u, 4u}) {
        for (std::uint32_t width : {1u, 2u, 3u, 5u, 7u}) {
          const std::size_t n = std::size_t{width} * components;
          const auto codes = RandomCodes(n, f.bits, seed++);
          const auto bytes = Encode(f, codes, big);
          DpxSampleLayout layout;
          layout.bits = static_cast<std::uint32_t>(f.bits);
          layout.packing = f.packing;
          layout.components = components;
          layout.bigEndian = big;
          ASSERT_EQ(DpxSampleBytes(layout, n), bytes.size()) << f.name << " n=" << n;
          // Exactly sized: the sanitizers catch any read past the line.
          std::vector<std::uint8_t> exact(bytes);
          std::vector<std::uint16_t> out(n, 0xBEEF);
          UnpackCodes(exact.data(), layout, n, out.data());
          for (std::size_t i = 0; i < n; ++i) {
            ASSERT_EQ(out[i], codes[i]) << f.name << (big ? " BE" : " LE") << " width " << width
                                        << "x" << components << " sample " << i;
          }
        }
      }
    }
  }
}

TEST(DpxUnpack, ScalingTo16BitsAndFloat) {
  for (std::uint32_t v = 0; v < 256; ++v) EXPECT_EQ(CodeTo16(v, 8), v * 257);
  EXPECT_EQ(CodeTo16(0, 10), 0);
  EXPECT_EQ(CodeTo16(1023, 10), 65535);
  EXPECT_EQ(CodeTo16(512, 10), 32800);  // 32800.03
  EXPECT_EQ(CodeTo16(1, 10), 64);       // 64.06
  EXPECT_EQ(CodeTo16(2, 10), 128);      // 128.12
  EXPECT_EQ(CodeTo16(4095, 12), 65535);
  EXPECT_EQ(CodeTo16(2047, 12), 32759);  // 32759.498
  EXPECT_EQ(CodeTo16(1, 1), 65535);
  EXPECT_EQ(CodeTo16(40000, 16), 40000);
  EXPECT_FLOAT_EQ(CodeToFloat(1023, 10), 1.0f);
  EXPECT_FLOAT_EQ(CodeToFloat(512, 10), 512.0f / 1023.0f);
  EXPECT_FLOAT_EQ(CodeToFloat(4095, 12), 1.0f);
  EXPECT_FLOAT_EQ(CodeToFloat(65535, 16), 1.0f);
  // Monotonic and exact at both ends for every depth: no 8-bit detour.
  for (std::uint32_t bits : {10u, 12u, 16u}) {
    const std::uint32_t max = (1u << bits) - 1;
    for (std::uint32_t v = 1; v <= max; ++v) {
      ASSERT_GT(CodeTo16(v, bits), CodeTo16(v - 1, bits)) << bits << " " << v;
    }
  }
}

namespace {

std::uint8_t Code(std::uint32_t x, std::uint32_t y, std::uint32_t c) {
  return static_cast<std::uint8_t>(100 * y + 10 * x + c);
}

// A 3x2 8-bit RGB element with distinct values per pixel and channel.
struct SmallImage {
  std::vector<std::uint8_t> data;
  DpxElementJob job;
  SmallImage(std::uint32_t components, std::uint32_t width = 3, std::uint32_t height = 2) {
    const std::uint32_t stride = (width * components + 3) / 4 * 4;
    data.assign(std::size_t{stride} * height, 0);
    for (std::uint32_t y = 0; y < height; ++y) {
      for (std::uint32_t x = 0; x < width; ++x) {
        for (std::uint32_t c = 0; c < components; ++c) {
          data[y * stride + x * components + c] = Code(x, y, c);
        }
      }
    }
    job.data = data.data();
    job.size = data.size();
    job.rowStride = stride;
    job.layout.bits = 8;
    job.layout.packing = 0;
    job.layout.components = components;
  }
};

}  // namespace

TEST(DpxDecode, EveryOrientation) {
  // Stored: 3 samples a line, 2 lines. Codes 0-3 show it 3 wide and 2 high, mirrored as the
  // code says; 4-7 show it turned, 2 wide (one column a line) and 3 high.
  for (std::uint32_t orientation = 0; orientation < 8; ++orientation) {
    SCOPED_TRACE("orientation " + std::to_string(orientation));
    const bool columns = orientation >= 4;
    const std::uint32_t w = columns ? 2 : 3, h = columns ? 3 : 2;
    SmallImage img(3);
    std::vector<std::uint16_t> px(std::size_t{w} * h * 4, 0);
    DpxTarget t{reinterpret_cast<std::uint8_t*>(px.data()), w * 8, w, h, 4, false};
    ASSERT_TRUE(DpxDecode(&img.job, 1, t, orientation, 3, nullptr));
    // Mirrored lines (1, 3; 5, 7 for columns) and line order (2, 3; 6, 7).
    const bool flipA = orientation % 2 == 1, flipB = orientation % 4 >= 2;
    for (std::uint32_t y = 0; y < h; ++y)
      for (std::uint32_t x = 0; x < w; ++x) {
        std::uint32_t sample = columns ? y : x, line = columns ? x : y;
        if (columns ? flipB : flipA) sample = 2 - sample;
        if (columns ? flipA : flipB) line = 1 - line;
        for (std::uint32_t c = 0; c < 3; ++c)
          EXPECT_EQ(px[(y * w + x) * 4 + c], Code(sample, line, c) * 257) << x << "," << y;
        EXPECT_EQ(px[(y * w + x) * 4 + 3], 65535);
      }
  }
  // The element must still hold its 2 lines of 3: a 3x2 target would need 3 lines of 2.
  SmallImage img(3);
  img.job.size = 12 + 8;
  std::vector<std::uint16_t> px(2 * 3 * 3, 0);
  DpxTarget t{reinterpret_cast<std::uint8_t*>(px.data()), 2 * 3 * 2, 2, 3, 3, false};
  EXPECT_FALSE(DpxDecode(&img.job, 1, t, 4, -1, nullptr));
}

TEST(DpxDecode, ChannelOrdersAlphaAndLuma) {
  {
    // BGR into RGBA: reversed, alpha filled opaque.
    SmallImage img(3);
    img.job.channelOf[0] = 2;
    img.job.channelOf[1] = 1;
    img.job.channelOf[2] = 0;
    std::vector<float> px(3 * 2 * 4, -1.0f);
    DpxTarget t{reinterpret_cast<std::uint8_t*>(px.data()), 3 * 4 * 4, 3, 2, 4, true};
    ASSERT_TRUE(DpxDecode(&img.job, 1, t, 0, 3, nullptr));
    EXPECT_FLOAT_EQ(px[0], Code(0, 0, 2) / 255.0f);
    EXPECT_FLOAT_EQ(px[2], Code(0, 0, 0) / 255.0f);
    EXPECT_FLOAT_EQ(px[3], 1.0f);
    EXPECT_FLOAT_EQ(px[4 * 4 + 1], Code(1, 1, 1) / 255.0f);
  }
  {
    // ABGR into RGB: alpha dropped.
    SmallImage img(4);
    const std::int8_t map[4] = {3, 2, 1, 0};
    std::copy(map, map + 4, img.job.channelOf);
    std::vector<std::uint16_t> px(3 * 2 * 3, 1);
    DpxTarget t{reinterpret_cast<std::uint8_t*>(px.data()), 3 * 3 * 2, 3, 2, 3, false};
    ASSERT_TRUE(DpxDecode(&img.job, 1, t, 0, -1, nullptr));
    EXPECT_EQ(px[0], Code(0, 0, 3) * 257);
    EXPECT_EQ(px[1], Code(0, 0, 2) * 257);
    EXPECT_EQ(px[2], Code(0, 0, 1) * 257);
  }
  {
    // Luma spread over RGB, planar alpha from a second element.
    SmallImage luma(1), alpha(1);
    luma.job.replicateLuma = true;
    alpha.job.channelOf[0] = 3;
    alpha.data[0] = 77;
    DpxElementJob jobs[2] = {luma.job, alpha.job};
    std::vector<std::uint16_t> px(3 * 2 * 4, 1);
    DpxTarget t{reinterpret_cast<std::uint8_t*>(px.data()), 3 * 4 * 2, 3, 2, 4, false};
    ASSERT_TRUE(DpxDecode(jobs, 2, t, 0, -1, nullptr));
    for (int c = 0; c < 3; ++c) EXPECT_EQ(px[4 + c], Code(1, 0, 0) * 257);
    EXPECT_EQ(px[3], 77 * 257);
  }
}

TEST(DpxDecode, FloatSamplesClampInto16Bits) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> v = {0.5f, 1.5f, -1.0f, nan, std::numeric_limits<float>::infinity(),
                                0.25f};
  const auto bytes = dpxtest::EncodeFloat(v, true);
  DpxElementJob job;
  job.data = bytes.data();
  job.size = bytes.size();
  job.rowStride = bytes.size();
  job.layout = {32, 0, 3, true};
  std::vector<std::uint16_t> px(6);
  DpxTarget t{reinterpret_cast<std::uint8_t*>(px.data()), 12, 2, 1, 3, false};
  ASSERT_TRUE(DpxDecode(&job, 1, t, 0, -1, nullptr));
  EXPECT_EQ(px, (std::vector<std::uint16_t>{32768, 65535, 0, 0, 65535, 16384}));
}

TEST(DpxDecode, ShortDataIsRefusedWithoutWriting) {
  SmallImage img(3);
  img.job.size = 12 + 8;  // second line's nine samples one byte short
  std::vector<std::uint16_t> px(3 * 2 * 3, 0x1234);
  DpxTarget t{reinterpret_cast<std::uint8_t*>(px.data()), 3 * 3 * 2, 3, 2, 3, false};
  EXPECT_FALSE(DpxDecode(&img.job, 1, t, 0, -1, nullptr));
  for (auto v : px) ASSERT_EQ(v, 0x1234);
  // A stride that runs the lines past the data.
  SmallImage wide(3);
  wide.job.rowStride = 1 << 20;
  EXPECT_FALSE(DpxDecode(&wide.job, 1, t, 0, -1, nullptr));
  EXPECT_FALSE(DpxJobFits(wide.job, 3, 2));
  EXPECT_TRUE(DpxJobFits(wide.job, 3, 1));
}

TEST(DpxDecode, ThreadedMatchesSingle) {
  // 10-bit method A lines across more pixels than the threading threshold.
  const std::uint32_t w = 301, h = 257;
  const auto codes = RandomCodes(std::size_t{w} * 3 * h, 10, 99);
  std::vector<std::uint8_t> bytes;
  for (std::uint32_t y = 0; y < h; ++y) {
    std::vector<std::uint32_t> line(codes.begin() + y * w * 3, codes.begin() + (y + 1) * w * 3);
    const auto enc = dpxtest::EncodeFilled10(line, true, true);
    bytes.insert(bytes.end(), enc.begin(), enc.end());
  }
  DpxElementJob job;
  job.data = bytes.data();
  job.size = bytes.size();
  job.rowStride = bytes.size() / h;
  job.layout = {10, 1, 3, true};
  std::vector<std::uint16_t> one(std::size_t{w} * h * 4), two(one.size());
  DpxTarget t{reinterpret_cast<std::uint8_t*>(one.data()), w * 8, w, h, 4, false};
  ASSERT_TRUE(DpxDecode(&job, 1, t, 2, 3, nullptr));
  t.pixels = reinterpret_cast<std::uint8_t*>(two.data());
  vx::WorkerPool pool(3);
  ASSERT_TRUE(DpxDecode(&job, 1, t, 2, 3, &pool));
  EXPECT_EQ(one, two);
  // Spot check: bottom-to-top, so the first stored line is the last row.
  EXPECT_EQ(one[(std::size_t{h - 1} * w) * 4], CodeTo16(codes[0], 10));
  EXPECT_EQ(one[3], 65535);
}
