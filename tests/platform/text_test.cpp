#include <gtest/gtest.h>

#include "vx/vxchar.h"

namespace {

// UTF-8 and UTF-16 spellings of the same text, each converting into the other.
TEST(Text, ValidTextConvertsBothWaysAndInvalidUnitsAreReplaced) {
  struct Row {
    std::string utf8;
    VxString utf16;
  };
  const Row rows[] = {
      {"A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", {0x41, 0xE9, 0x20AC, 0xD83D, 0xDE00}},  // 1-4 bytes
      {"\xF0\x90\x80\x80", {0xD800, 0xDC00}},  // U+10000, the lowest pair
      {"\xF4\x8F\xBF\xBF", {0xDBFF, 0xDFFF}},  // U+10FFFF, the highest
      {"\xEF\xBF\xBF", {0xFFFF}},
      {std::string("a\0b", 3), {0x61, 0, 0x62}},  // an embedded NUL is data, not an end
  };
  for (const Row& r : rows) {
    EXPECT_EQ(vx::ToUtf8(r.utf16), r.utf8);
    EXPECT_EQ(vx::FromUtf8(r.utf8), r.utf16);
  }

  // What cannot be converted becomes U+FFFD, one per bad unit, and the rest survives.
  const VxChar R = 0xFFFD;
  const std::pair<VxString, std::string> badUtf16[] = {
      {{0xD800, 0x41}, "\xEF\xBF\xBD\x41"},  // lone high surrogate
      {{0x41, 0xDC00}, "A\xEF\xBF\xBD"},     // lone low
      {{0x41, 0xDBFF}, "A\xEF\xBF\xBD"},     // high at the end
  };
  for (const auto& [in, out] : badUtf16) EXPECT_EQ(vx::ToUtf8(in), out);
  const std::pair<std::string, VxString> badUtf8[] = {
      {"\x80", {R}},                   // stray continuation
      {"\xC3", {R}},                   // truncated at the end
      {"\xE2\x82\x41", {R, R, 0x41}},  // truncated in the middle
      {"\xFF\x42", {R, 0x42}},         // never a lead byte
      {"\xED\xA0\x80", {R}},           // encoded surrogate
      {"\xF4\x90\x80\x80", {R}},       // above U+10FFFF
      {"\xC0\xAF", {R}},               // overlong "/" in two bytes
      {"\xC0\x80", {R}},               // overlong NUL
      {"\xE0\x80\xAF", {R}},           // overlong "/" in three bytes
      {"\xF0\x8F\xBF\xBF", {R}},       // overlong U+FFFF in four bytes
  };
  for (const auto& [in, out] : badUtf8)
    EXPECT_EQ(vx::FromUtf8(in), out) << testing::PrintToString(in);
}

}  // namespace
