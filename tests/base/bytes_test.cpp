#include "base/bytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<std::uint8_t> Hex(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::uint8_t> out;
  unsigned v = 0;
  while (in >> std::hex >> v) out.push_back(static_cast<std::uint8_t>(v));
  return out;
}

// Input bytes are 00 01 02 ... in every case. The counts run past whole vectors (16 bytes; 48
// for 24-bit values) so the tails are swapped too, and a misplaced byte of a value that
// straddles two vectors shows.
struct SwapCase {
  int width;
  std::size_t count;
  const char* expected;
};

const SwapCase kSwapCases[] = {
    {2, 9, "01 00 03 02 05 04 07 06 09 08 0b 0a 0d 0c 0f 0e 11 10"},
    {3, 5, "02 01 00 05 04 03 08 07 06 0b 0a 09 0e 0d 0c"},
    {3, 17,
     "02 01 00 05 04 03 08 07 06 0b 0a 09 0e 0d 0c 11 10 0f 14 13 12 17 16 15 1a 19 18 1d 1c 1b "
     "20 1f 1e 23 22 21 26 25 24 29 28 27 2c 2b 2a 2f 2e 2d 32 31 30"},
    {3, 33,
     "02 01 00 05 04 03 08 07 06 0b 0a 09 0e 0d 0c 11 10 0f 14 13 12 17 16 15 1a 19 18 1d 1c 1b "
     "20 1f 1e 23 22 21 26 25 24 29 28 27 2c 2b 2a 2f 2e 2d 32 31 30 35 34 33 38 37 36 3b 3a 39 "
     "3e 3d 3c 41 40 3f 44 43 42 47 46 45 4a 49 48 4d 4c 4b 50 4f 4e 53 52 51 56 55 54 59 58 57 "
     "5c 5b 5a 5f 5e 5d 62 61 60"},
    {4, 5, "03 02 01 00 07 06 05 04 0b 0a 09 08 0f 0e 0d 0c 13 12 11 10"},
    {8, 3, "07 06 05 04 03 02 01 00 0f 0e 0d 0c 0b 0a 09 08 17 16 15 14 13 12 11 10"},
    {3, 0, ""},
    {5, 3, "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e"},  // no such width: left alone
};

TEST(Bytes, SwapInPlaceSwapsEachValueAndNothingAround) {
  for (const SwapCase& c : kSwapCases) {
    SCOPED_TRACE("width " + std::to_string(c.width) + ", count " + std::to_string(c.count));
    const std::vector<std::uint8_t> expected = Hex(c.expected);
    ASSERT_EQ(expected.size(), c.count * static_cast<std::size_t>(c.width));
    // One guard byte before (so the data starts unaligned) and four after.
    std::vector<std::uint8_t> buffer(1 + expected.size() + 4, 0xEE);
    for (std::size_t i = 0; i < expected.size(); ++i) buffer[1 + i] = static_cast<std::uint8_t>(i);
    vx::SwapInPlace(buffer.data() + 1, c.count, c.width);
    EXPECT_EQ(std::vector<std::uint8_t>(buffer.begin() + 1, buffer.end() - 4), expected);
    EXPECT_EQ(buffer.front(), 0xEE);
    EXPECT_EQ(std::vector<std::uint8_t>(buffer.end() - 4, buffer.end()),
              std::vector<std::uint8_t>(4, 0xEE));
  }
}

// File pixels in either order to host RGBA16: odd counts leave a pixel for the scalar tail, and
// the destination offsets put the vector stores on, beside and off a 16-byte boundary.
TEST(Bytes, WidenRgb16ToRgba16OrdersEachSampleAndFillsAlpha) {
  for (const bool big : {true, false})
    for (const bool alpha : {false, true}) {
      for (const std::size_t count : {1u, 2u, 5u, 16u, 33u}) {
        for (const std::size_t offset : {0u, 8u, 2u}) {
          SCOPED_TRACE(std::to_string(big) + std::to_string(alpha) + " " + std::to_string(count) +
                       " " + std::to_string(offset));
          const std::size_t inStep = alpha ? 8 : 6;
          std::vector<std::uint8_t> in(count * inStep + 16, 0xAB);
          for (std::size_t i = 0; i < count * inStep; ++i) in[i] = static_cast<std::uint8_t>(i * 7);
          alignas(16) std::uint8_t out[16 + 33 * 8 + 8];
          std::memset(out, 0xEE, sizeof out);
          vx::WidenRgb16ToRgba16(in.data(), out + offset, count, alpha, big);
          for (std::size_t p = 0; p < count; ++p) {
            for (std::size_t c = 0; c < 4; ++c) {
              std::uint16_t got;
              std::memcpy(&got, out + offset + p * 8 + c * 2, 2);
              const std::size_t at = p * inStep + c * 2;
              const int hi = in[at + (big ? 0 : 1)], lo = in[at + (big ? 1 : 0)];
              const std::uint16_t want =
                  (c == 3 && !alpha) ? 0xFFFF : static_cast<std::uint16_t>(hi << 8 | lo);
              ASSERT_EQ(got, want) << "pixel " << p << " sample " << c;
            }
          }
          for (std::size_t i = 0; i < offset; ++i) EXPECT_EQ(out[i], 0xEE);
          EXPECT_EQ(out[offset + count * 8], 0xEE);
        }
      }
    }
}

}  // namespace
