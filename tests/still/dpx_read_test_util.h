// Hand-made DPX and Cineon headers and sample bytes for the reader tests. Offsets are written out
// as numbers here on purpose, independent of the reader's own constants.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace dpxtest {

class Bytes {
 public:
  Bytes(std::size_t size, bool big) : data(size, 0), big_(big) {}
  void U8(std::size_t off, std::uint8_t v) { data.at(off) = v; }
  void U16(std::size_t off, std::uint16_t v) { Put(off, v, 2); }
  void U32(std::size_t off, std::uint32_t v) { Put(off, v, 4); }
  void F32(std::size_t off, float f) {
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    U32(off, u);
  }
  void Text(std::size_t off, const std::string& s) {
    std::memcpy(data.data() + off, s.data(), s.size());
  }
  void Fill(std::size_t off, std::size_t n, std::uint8_t v) {
    std::memset(data.data() + off, v, n);
  }
  std::vector<std::uint8_t> data;

 private:
  void Put(std::size_t off, std::uint32_t v, int n) {
    for (int i = 0; i < n; ++i)
      data.at(off + i) = static_cast<std::uint8_t>(v >> (big_ ? 8 * (n - 1 - i) : 8 * i));
  }
  bool big_;
};

struct Element {
  std::uint8_t descriptor = 50;
  std::uint8_t bits = 10;
  std::uint16_t packing = 1;
  std::uint8_t transfer = 2;
  std::uint32_t offset = 2048;
  std::uint32_t eolPadding = 0;
};

// A whole 2048-byte DPX header with every optional field undefined.
struct DpxHeaderRecipe {
  bool big = true;
  std::uint32_t width = 4;
  std::uint32_t height = 2;
  std::uint16_t orientation = 0;
  std::vector<Element> elements{Element{}};
  std::uint16_t elementCountOverride = 0xFFFF;  // stored count when not 0xFFFF
};

Bytes MakeDpxHeader(const DpxHeaderRecipe& recipe);

struct CineonRecipe {
  bool big = true;
  std::uint32_t width = 4;
  std::uint32_t height = 2;
  std::uint8_t channels = 3;
  std::uint8_t bits = 10;
  std::uint8_t packing = 5;
  std::uint8_t orientation = 0;
  std::uint32_t genericLength = 1024;
  std::uint32_t dataOffset = 2048;
};

Bytes MakeCineonHeader(const CineonRecipe& recipe);

// Independent sample encoders, built bit by bit.
// Samples of `bits` bits through 32-bit words, lowest bit first, words in the given order.
std::vector<std::uint8_t> EncodePacked(const std::vector<std::uint32_t>& s, int bits, bool big);
// 10-bit, three samples per 32-bit word; method A leaves the two bottom bits spare.
std::vector<std::uint8_t> EncodeFilled10(const std::vector<std::uint32_t>& s, bool methodA,
                                         bool big);
// 12-bit samples in 16-bit words, top (A) or bottom (B).
std::vector<std::uint8_t> EncodeFilled12(const std::vector<std::uint32_t>& s, bool methodA,
                                         bool big);
std::vector<std::uint8_t> Encode16(const std::vector<std::uint32_t>& s, bool big);
std::vector<std::uint8_t> Encode1(const std::vector<std::uint32_t>& s);
std::vector<std::uint8_t> EncodeFloat(const std::vector<float>& s, bool big);

}  // namespace dpxtest
