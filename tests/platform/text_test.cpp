#include <gtest/gtest.h>

#include "vx/vxchar.h"

namespace {

TEST(Text, Utf16ToUtf8CoversAllLengths) {
  const VxChar s[] = {0x41, 0xE9, 0x20AC, 0xD83D, 0xDE00, 0};
  EXPECT_EQ(vx::ToUtf8(s), "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(vx::FromUtf8("A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), VxString(s));
}

TEST(Text, SurrogatePairsAtRangeEdges) {
  const VxChar lowest[] = {0xD800, 0xDC00, 0};   // U+10000
  const VxChar highest[] = {0xDBFF, 0xDFFF, 0};  // U+10FFFF
  EXPECT_EQ(vx::ToUtf8(lowest), "\xF0\x90\x80\x80");
  EXPECT_EQ(vx::ToUtf8(highest), "\xF4\x8F\xBF\xBF");
  EXPECT_EQ(vx::FromUtf8("\xF0\x90\x80\x80"), VxString(lowest));
  EXPECT_EQ(vx::FromUtf8("\xF4\x8F\xBF\xBF"), VxString(highest));
}

TEST(Text, LoneSurrogatesBecomeReplacementCharacters) {
  const VxChar loneHigh[] = {0xD800, 0x41, 0};
  const VxChar loneLow[] = {0x41, 0xDC00, 0};
  const VxChar highAtEnd[] = {0x41, 0xDBFF, 0};
  EXPECT_EQ(vx::ToUtf8(loneHigh),
            "\xEF\xBF\xBD"
            "A");
  EXPECT_EQ(vx::ToUtf8(loneLow), "A\xEF\xBF\xBD");
  EXPECT_EQ(vx::ToUtf8(highAtEnd), "A\xEF\xBF\xBD");
}

TEST(Text, InvalidUtf8BecomesReplacementCharacters) {
  const VxString fffd(1, static_cast<VxChar>(0xFFFD));
  EXPECT_EQ(vx::FromUtf8("\x80"), fffd);  // stray continuation
  EXPECT_EQ(vx::FromUtf8("\xC3"), fffd);  // truncated at end
  EXPECT_EQ(vx::FromUtf8("\xE2\x82"
                         "A"),
            fffd + fffd + VXT("A"));
  EXPECT_EQ(vx::FromUtf8("\xFF"
                         "B"),
            fffd + VXT("B"));
  EXPECT_EQ(vx::FromUtf8("\xED\xA0\x80"), fffd);      // encoded surrogate
  EXPECT_EQ(vx::FromUtf8("\xF4\x90\x80\x80"), fffd);  // above U+10FFFF
  // An embedded NUL is data, not an end.
  EXPECT_EQ(vx::FromUtf8(std::string_view("a\0b", 3)).size(), 3u);
}

}  // namespace

namespace {

TEST(Text, OverlongUtf8IsRejected) {
  const VxString fffd(1, static_cast<VxChar>(0xFFFD));
  EXPECT_EQ(vx::FromUtf8("\xC0\xAF"), fffd);          // "/" in two bytes
  EXPECT_EQ(vx::FromUtf8("\xC0\x80"), fffd);          // NUL in two bytes
  EXPECT_EQ(vx::FromUtf8("\xE0\x80\xAF"), fffd);      // "/" in three bytes
  EXPECT_EQ(vx::FromUtf8("\xF0\x8F\xBF\xBF"), fffd);  // U+FFFF in four bytes
  EXPECT_EQ(vx::FromUtf8("\xEF\xBF\xBF"), VxString(1, static_cast<VxChar>(0xFFFF)));
}

}  // namespace
