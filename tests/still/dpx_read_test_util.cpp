#include "dpx_read_test_util.h"

namespace dpxtest {
namespace {

void SetBit(std::vector<std::uint32_t>& words, std::size_t bit) {
  words[bit / 32] |= 1u << (bit % 32);
}

std::vector<std::uint8_t> WordsToBytes(const std::vector<std::uint32_t>& words, bool big) {
  std::vector<std::uint8_t> out;
  for (std::uint32_t w : words) {
    for (int i = 0; i < 4; ++i)
      out.push_back(static_cast<std::uint8_t>(w >> (big ? 24 - 8 * i : 8 * i)));
  }
  return out;
}

}  // namespace

std::vector<std::uint8_t> Encode16(const std::vector<std::uint32_t>& s, bool big) {
  std::vector<std::uint8_t> out;
  for (std::uint32_t v : s) {
    out.push_back(static_cast<std::uint8_t>(big ? v >> 8 : v & 0xFF));
    out.push_back(static_cast<std::uint8_t>(big ? v & 0xFF : v >> 8));
  }
  return out;
}

Bytes MakeDpxHeader(const DpxHeaderRecipe& recipe) {
  Bytes b(2048, recipe.big);
  b.Text(0, recipe.big ? "SDPX" : "XPDS");
  b.U32(4, 2048);
  b.Text(8, "V2.0");
  b.U32(24, 1664);
  b.U32(28, 384);
  b.U32(660, 0xFFFFFFFF);
  b.U16(768, recipe.orientation);
  b.U16(770, recipe.elementCountOverride != 0xFFFF
                 ? recipe.elementCountOverride
                 : static_cast<std::uint16_t>(recipe.elements.size()));
  b.U32(772, recipe.width);
  b.U32(776, recipe.height);
  for (std::size_t i = 0; i < recipe.elements.size() && i < 8; ++i) {
    const Element& e = recipe.elements[i];
    const std::size_t o = 780 + 72 * i;
    b.Fill(o + 8, 4, 0xFF);  // reference quantities undefined
    b.U32(o + 12, (1u << (e.bits >= 32 ? 31 : e.bits)) - 1);
    b.Fill(o + 16, 4, 0xFF);
    b.U8(o + 20, e.descriptor);
    b.U8(o + 21, e.transfer);
    b.U8(o + 22, e.transfer);
    b.U8(o + 23, e.bits);
    b.U16(o + 24, e.packing);
    b.U32(o + 28, e.offset);
    b.U32(o + 32, e.eolPadding);
  }
  b.Fill(1408, 24, 0xFF);  // offsets, centres, original size
  b.Fill(1620, 8, 0xFF);   // border
  b.Fill(1628, 16, 0xFF);  // aspect and scanned size
  b.Fill(1712, 20, 0xFF);  // film numeric fields
  b.Fill(1920, 8, 0xFF);   // time code, user bits
  b.Fill(1928, 3, 0xFF);   // interlace, field, standard
  b.Fill(1932, 40, 0xFF);  // every float of the television header
  return b;
}

Bytes MakeCineonHeader(const CineonRecipe& recipe) {
  Bytes b(2048, recipe.big);
  b.U32(0, 0x802A5FD7);
  b.U32(4, recipe.dataOffset);
  b.U32(8, recipe.genericLength);
  b.U32(12, 1024);
  b.U8(192, recipe.orientation);
  b.U8(193, recipe.channels);
  for (int c = 0; c < recipe.channels && c < 8; ++c) {
    b.U8(196 + 28 * c, static_cast<std::uint8_t>(c));
    b.U8(198 + 28 * c, recipe.bits);
    b.U32(200 + 28 * c, recipe.width);
    b.U32(204 + 28 * c, recipe.height);
  }
  b.U8(681, recipe.packing);
  b.F32(1072, 24.0f);
  return b;
}

std::vector<std::uint8_t> EncodePacked(const std::vector<std::uint32_t>& s, int bits, bool big) {
  std::vector<std::uint32_t> words((s.size() * bits + 31) / 32, 0);
  for (std::size_t i = 0; i < s.size(); ++i) {
    for (int j = 0; j < bits; ++j) {
      if (s[i] >> j & 1) SetBit(words, i * bits + j);
    }
  }
  return WordsToBytes(words, big);
}

std::vector<std::uint8_t> EncodeFilled10(const std::vector<std::uint32_t>& s, bool methodA,
                                         bool big) {
  std::vector<std::uint32_t> words((s.size() + 2) / 3, 0);
  for (std::size_t i = 0; i < s.size(); ++i) {
    // First sample of a word in the highest datum position.
    const int lowBit = (methodA ? 2 : 0) + 10 * (2 - static_cast<int>(i % 3));
    for (int j = 0; j < 10; ++j) {
      if (s[i] >> j & 1) SetBit(words, (i / 3) * 32 + lowBit + j);
    }
  }
  return WordsToBytes(words, big);
}

std::vector<std::uint8_t> EncodeFilled12(const std::vector<std::uint32_t>& s, bool methodA,
                                         bool big) {
  std::vector<std::uint32_t> words;
  for (std::uint32_t v : s) words.push_back((v & 0xFFF) << (methodA ? 4 : 0));
  return Encode16(words, big);
}

std::vector<std::uint8_t> Encode1(const std::vector<std::uint32_t>& s) {
  std::vector<std::uint8_t> out((s.size() + 7) / 8, 0);
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] & 1) out[i / 8] = static_cast<std::uint8_t>(out[i / 8] | 1u << (i % 8));
  }
  return out;
}

std::vector<std::uint8_t> EncodeFloat(const std::vector<float>& s, bool big) {
  std::vector<std::uint32_t> words;
  for (float f : s) {
    std::uint32_t u;
    std::memcpy(&u, &f, 4);
    words.push_back(u);
  }
  return WordsToBytes(words, big);
}

}  // namespace dpxtest
