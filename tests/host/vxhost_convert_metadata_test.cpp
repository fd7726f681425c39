// What `vxhost convert` carries from a DPX or Cineon header into the DPX it writes. The sources
// are laid out byte by byte here and the output is read at fixed offsets, so the expectations owe
// nothing to our own reader or writer.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void Be32(Bytes& b, std::size_t off, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) b[off + i] = static_cast<std::uint8_t>(v >> (24 - 8 * i));
}
void Be16(Bytes& b, std::size_t off, std::uint16_t v) {
  b[off] = static_cast<std::uint8_t>(v >> 8);
  b[off + 1] = static_cast<std::uint8_t>(v);
}
void BeF32(Bytes& b, std::size_t off, float f) {
  std::uint32_t u;
  std::memcpy(&u, &f, 4);
  Be32(b, off, u);
}
void Text(Bytes& b, std::size_t off, const std::string& s) {
  std::memcpy(b.data() + off, s.data(), s.size());
}
void Undefined(Bytes& b, std::size_t off, std::size_t n) {
  std::memset(b.data() + off, 0xFF, n);
}

// A big-endian 4x2 8-bit RGB DPX with every carried field set to a value of its own.
Bytes SourceDpx() {
  Bytes b(2048 + 24, 0);
  Text(b, 0, "SDPX");
  Be32(b, 4, 2048);
  Text(b, 8, "V2.0");
  Be32(b, 16, static_cast<std::uint32_t>(b.size()));
  Be32(b, 24, 1664);
  Be32(b, 28, 384);
  Text(b, 36, "A001.dpx");
  Text(b, 136, "2024:03:05:06:07:08Z");
  Text(b, 160, "scanner-sw");
  Text(b, 260, "Reel 7 grade");
  Text(b, 460, "(c) nobody");
  Be16(b, 770, 1);
  Be32(b, 772, 4);
  Be32(b, 776, 2);
  BeF32(b, 788, 0.0f);    // low quantity
  Be32(b, 792, 255);      // high code
  BeF32(b, 796, 2.048f);  // high quantity
  b[800] = 50;            // RGB
  b[801] = 1;             // printing density
  b[802] = 1;
  b[803] = 8;
  Be32(b, 808, 2048);
  Text(b, 820, "scan element");
  Be32(b, 1408, 10);
  Be32(b, 1412, 20);
  BeF32(b, 1416, 1.5f);
  BeF32(b, 1420, 2.5f);
  Be32(b, 1424, 4096);
  Be32(b, 1428, 3112);
  Text(b, 1556, "ScanStation");
  Text(b, 1588, "SN-42");
  for (int i = 0; i < 4; ++i) Be16(b, 1620 + 2 * i, static_cast<std::uint16_t>(i + 1));
  Be32(b, 1628, 1);
  Be32(b, 1632, 1);
  BeF32(b, 1636, 24.89f);
  BeF32(b, 1640, 18.66f);
  Text(b, 1664, "82");
  Text(b, 1666, "34");
  Text(b, 1668, "12");
  Text(b, 1670, "123456");
  Text(b, 1676, "7890");
  Text(b, 1680, "Academy");
  Be32(b, 1712, 100);
  Be32(b, 1716, 200);
  Be32(b, 1720, 1);
  BeF32(b, 1724, 24.0f);
  BeF32(b, 1728, 180.0f);
  Text(b, 1732, "F0001");
  Text(b, 1764, "slate text");
  Be32(b, 1920, 0x01020304);
  Be32(b, 1924, 0xDEADBEEF);
  Undefined(b, 1932, 8);
  BeF32(b, 1940, 24.0f);
  BeF32(b, 1944, 0.5f);
  BeF32(b, 1948, 1.7f);
  BeF32(b, 1952, 95.0f);
  BeF32(b, 1956, 0.6f);
  BeF32(b, 1960, 0.2f);
  BeF32(b, 1964, 685.0f);
  BeF32(b, 1968, 0.02f);
  for (std::size_t i = 0; i < 24; ++i) b[2048 + i] = static_cast<std::uint8_t>(10 * i + 7);
  return b;
}

// A big-endian 2x1 10-bit RGB Cineon (method A words) as a film scanner writes it.
Bytes SourceCineon() {
  Bytes b(2048 + 8, 0);
  Be32(b, 0, 0x802A5FD7);
  Be32(b, 4, 2048);
  Be32(b, 8, 1024);
  Be32(b, 12, 1024);
  Be32(b, 20, static_cast<std::uint32_t>(b.size()));
  Text(b, 24, "V4.5");
  Text(b, 32, "roll.cin");
  Text(b, 132, "2023:01:02");
  Text(b, 144, "03:04:05");
  b[193] = 3;
  for (int c = 0; c < 3; ++c) {
    b[196 + 28 * c + 2] = 10;
    Be32(b, 196 + 28 * c + 4, 2);
    Be32(b, 196 + 28 * c + 8, 1);
  }
  b[681] = 5;  // method A
  Text(b, 720, "neg.cin");
  Text(b, 844, "Telecine X");
  b[1024] = 21;
  b[1025] = 3;
  b[1026] = 2;
  Be32(b, 1028, 123456);
  Be32(b, 1032, 789);
  BeF32(b, 1072, 24.0f);
  Be32(b, 2048, 100u << 22 | 500u << 12 | 1000u << 2);
  Be32(b, 2052, 1023u << 22 | 0u << 12 | 445u << 2);
  return b;
}

struct Expect {
  const char* what;
  std::size_t offset;
  Bytes bytes;
};

Bytes Str(const std::string& s, std::size_t width) {
  Bytes b(width, 0);
  std::memcpy(b.data(), s.data(), std::min(s.size(), width));
  return b;
}
Bytes U32(std::uint32_t v) {
  Bytes b(4);
  Be32(b, 0, v);
  return b;
}
Bytes F32(float f) {
  Bytes b(4);
  BeF32(b, 0, f);
  return b;
}

void CheckFields(const Bytes& out, const std::vector<Expect>& expects) {
  ASSERT_GE(out.size(), 2048u);
  for (const Expect& e : expects) {
    const Bytes got(out.begin() + static_cast<std::ptrdiff_t>(e.offset),
                    out.begin() + static_cast<std::ptrdiff_t>(e.offset + e.bytes.size()));
    EXPECT_EQ(got, e.bytes) << e.what << " at " << e.offset;
  }
}

class ConvertMetadata : public ::testing::Test {
 protected:
  vxtest::HostRun Host(const std::string& args) { return vxtest::RunHost(dir.path(), args); }
  vxtest::TempDir dir;
};

TEST_F(ConvertMetadata, DpxToDpxKeepsEveryFieldAndThePixels) {
#ifdef _WIN32
  GTEST_SKIP() << "runs vxhost through a POSIX shell";
#endif
  const Bytes src = SourceDpx();
  vxtest::WriteFile(dir / "a.dpx", src);
  const vxtest::HostRun r = Host("convert a.dpx b.dpx");
  ASSERT_EQ(r.code, 0) << r.err;
  const Bytes out = vxtest::ReadFile(dir / "b.dpx");
  CheckFields(out, {
                       {"project", 260, Str("Reel 7 grade", 200)},
                       {"copyright", 460, Str("(c) nobody", 200)},
                       {"creator is the writer", 160, Str("Halden Vx", 100)},
                       {"transfer", 801, {1}},
                       {"colorimetric", 802, {1}},
                       {"bit size", 803, {8}},
                       {"low quantity", 788, F32(0.0f)},
                       {"high quantity", 796, F32(2.048f)},
                       {"description", 820, Str("scan element", 32)},
                       {"x offset", 1408, U32(10)},
                       {"y offset", 1412, U32(20)},
                       {"x center", 1416, F32(1.5f)},
                       {"y center", 1420, F32(2.5f)},
                       {"x original size", 1424, U32(4096)},
                       {"y original size", 1428, U32(3112)},
                       {"source file name", 1432, Str("A001.dpx", 100)},
                       {"source time", 1532, Str("2024:03:05:06:07:08", 24)},
                       {"input device", 1556, Str("ScanStation", 32)},
                       {"input serial", 1588, Str("SN-42", 32)},
                       {"border", 1620, {0, 1, 0, 2, 0, 3, 0, 4}},
                       {"aspect", 1628, {0, 0, 0, 1, 0, 0, 0, 1}},
                       {"x scanned size", 1636, F32(24.89f)},
                       {"y scanned size", 1640, F32(18.66f)},
                       {"edge code", 1664, Str("823412123456", 12)},
                       {"edge count", 1676, Str("7890", 4)},
                       {"film format", 1680, Str("Academy", 32)},
                       {"frame position", 1712, U32(100)},
                       {"sequence length", 1716, U32(200)},
                       {"held count", 1720, U32(1)},
                       {"film frame rate", 1724, F32(24.0f)},
                       {"shutter angle", 1728, F32(180.0f)},
                       {"frame id", 1732, Str("F0001", 32)},
                       {"slate", 1764, Str("slate text", 100)},
                       {"time code", 1920, U32(0x01020304)},
                       {"user bits", 1924, U32(0xDEADBEEF)},
                       {"progressive", 1928, {0, 0}},
                       {"frame rate", 1940, F32(24.0f)},
                       {"time offset", 1944, F32(0.5f)},
                       {"gamma", 1948, F32(1.7f)},
                       {"black level", 1952, F32(95.0f)},
                       {"black gain", 1956, F32(0.6f)},
                       {"break point", 1960, F32(0.2f)},
                       {"white level", 1964, F32(685.0f)},
                       {"integration time", 1968, F32(0.02f)},
                       {"pixels", 2048, Bytes(src.begin() + 2048, src.end())},
                   });
}

TEST_F(ConvertMetadata, CineonToDpxStaysAFilmScan) {
#ifdef _WIN32
  GTEST_SKIP() << "runs vxhost through a POSIX shell";
#endif
  vxtest::WriteFile(dir / "a.cin", SourceCineon());
  const vxtest::HostRun r = Host("convert a.cin b.dpx");
  ASSERT_EQ(r.code, 0) << r.err;
  const Bytes out = vxtest::ReadFile(dir / "b.dpx");
  CheckFields(out, {
                       {"10 bits", 803, {10}},
                       {"transfer: printing density", 801, {1}},
                       {"colorimetric: printing density", 802, {1}},
                       {"source file name", 1432, Str("neg.cin", 100)},
                       {"source time", 1532, Str("2023:01:02:03:04:05", 24)},
                       {"input device", 1556, Str("Telecine X", 32)},
                       {"film maker", 1664, Str("21", 2)},
                       {"film type", 1666, Str("3", 2)},
                       {"perf offset", 1668, Str("2", 2)},
                       {"prefix", 1670, Str("123456", 6)},
                       {"count", 1676, Str("789", 4)},
                       {"frame rate", 1940, F32(24.0f)},
                       {"pixels", 2048, U32(100u << 22 | 500u << 12 | 1000u << 2)},
                       {"pixels", 2052, U32(1023u << 22 | 0u << 12 | 445u << 2)},
                   });
}

TEST_F(ConvertMetadata, TransferInWordsOverridesTheSource) {
#ifdef _WIN32
  GTEST_SKIP() << "runs vxhost through a POSIX shell";
#endif
  vxtest::WriteFile(dir / "a.dpx", SourceDpx());
  struct Case {
    const char* word;
    std::uint8_t code;
  };
  for (const Case& c : {Case{"linear", 2}, Case{"rec709", 6}, Case{"log", 3}, Case{"user", 0}}) {
    const std::string out = std::string("t-") + c.word + ".dpx";
    const vxtest::HostRun r = Host(std::string("convert a.dpx ") + out + " --transfer " + c.word);
    ASSERT_EQ(r.code, 0) << c.word << ": " << r.err;
    const Bytes b = vxtest::ReadFile(dir / out);
    ASSERT_GE(b.size(), 2048u);
    EXPECT_EQ(b[801], c.code) << c.word;
    EXPECT_EQ(b[802], c.code) << c.word << " (colorimetric follows a transfer given in words)";
  }
}

}  // namespace
