// What `vxhost convert` carries from a DPX or Cineon header into the DPX it writes. The sources
// are laid out byte by byte from the tables here and the output is read at fixed offsets, so the
// expectations owe nothing to our own reader or writer.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes U32(std::uint32_t v) {
  return {std::uint8_t(v >> 24), std::uint8_t(v >> 16), std::uint8_t(v >> 8), std::uint8_t(v)};
}
Bytes F32(float f) {
  std::uint32_t u;
  std::memcpy(&u, &f, 4);
  return U32(u);
}
Bytes Str(const std::string& s, std::size_t width) {
  Bytes b(width, 0);
  std::memcpy(b.data(), s.data(), std::min(s.size(), width));
  return b;
}
Bytes Cat(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// A big-endian field: where it sits and its bytes.
struct Field {
  const char* what;
  std::size_t offset;
  Bytes bytes;
};
using Fields = std::vector<Field>;

Bytes Lay(std::size_t size, const Fields& fields) {
  Bytes b(size, 0);
  for (const Field& f : fields) std::copy(f.bytes.begin(), f.bytes.end(), b.begin() + f.offset);
  return b;
}

// The file-structure fields of a 4x2 8-bit RGB DPX with its pixels; they are the writer's own.
const Fields kDpxFrame = {{"magic", 0, Str("SDPX", 4)},
                          {"data offset", 4, U32(2048)},
                          {"version", 8, Str("V2.0", 8)},
                          {"file size", 16, U32(2048 + 24)},
                          {"generic size", 24, U32(1664)},
                          {"industry size", 28, U32(384)},
                          {"elements", 770, {0, 1}},
                          {"width", 772, U32(4)},
                          {"height", 776, U32(2)},
                          {"high code", 792, U32(255)},
                          {"RGB, 8 bits", 800, {50}},
                          {"bit size", 803, {8}},
                          {"element data", 808, U32(2048)},
                          {"unknown video", 1932, U32(0xFFFFFFFF)},
                          {"v sampling", 1936, U32(0xFFFFFFFF)}};

// Fields a conversion keeps as they are.
const Fields kDpxKept = {
    {"project", 260, Str("Reel 7 grade", 200)},
    {"copyright", 460, Str("(c) nobody", 200)},
    {"low quantity", 788, F32(0.0f)},
    {"high quantity", 796, F32(2.048f)},
    {"transfer, colorimetric: printing density", 801, {1, 1}},
    {"description", 820, Str("scan element", 32)},
    {"offsets", 1408, Cat(U32(10), U32(20))},
    {"centre", 1416, Cat(F32(1.5f), F32(2.5f))},
    {"original size", 1424, Cat(U32(4096), U32(3112))},
    {"input device", 1556, Str("ScanStation", 32)},
    {"input serial", 1588, Str("SN-42", 32)},
    {"border", 1620, {0, 1, 0, 2, 0, 3, 0, 4}},
    {"aspect 1:1", 1628, Cat(U32(1), U32(1))},
    {"scanned size", 1636, Cat(F32(24.89f), F32(18.66f))},
    {"edge code", 1664, Str("8234121234567890", 16)},
    {"film format", 1680, Str("Academy", 32)},
    {"position, length, held", 1712, Cat(Cat(U32(100), U32(200)), U32(1))},
    {"film rate, shutter", 1724, Cat(F32(24.0f), F32(180.0f))},
    {"frame id", 1732, Str("F0001", 32)},
    {"slate", 1764, Str("slate text", 100)},
    {"time code, user bits", 1920, Cat(U32(0x01020304), U32(0xDEADBEEF))},
    {"progressive", 1928, {0, 0}},
    {"frame rate, time offset", 1940, Cat(F32(24.0f), F32(0.5f))},
    {"gamma, black level", 1948, Cat(F32(1.7f), F32(95.0f))},
    {"black gain, break point", 1956, Cat(F32(0.6f), F32(0.2f))},
    {"white level, integration", 1964, Cat(F32(685.0f), F32(0.02f))},
    {"pixels", 2048, {7,   17,  27,  37,  47,  57,  67,  77,  87,  97,  107, 117,
                      127, 137, 147, 157, 167, 177, 187, 197, 207, 217, 227, 237}}};

// A big-endian 2x1 10-bit RGB Cineon (method A words) as a film scanner writes it.
const Fields kCineon = {
    {"magic", 0, U32(0x802A5FD7)},
    {"data offset, generic, industry", 4, Cat(Cat(U32(2048), U32(1024)), U32(1024))},
    {"version", 24, Str("V4.5", 4)},
    {"file name", 32, Str("roll.cin", 8)},
    {"date, time", 132, Cat(Str("2023:01:02", 12), Str("03:04:05", 8))},
    {"channels", 193, {3}},
    {"channel 0", 198, Cat({10, 0}, Cat(U32(2), U32(1)))},
    {"channel 1", 226, Cat({10, 0}, Cat(U32(2), U32(1)))},
    {"channel 2", 254, Cat({10, 0}, Cat(U32(2), U32(1)))},
    {"method A", 681, {5}},
    {"source name", 720, Str("neg.cin", 8)},
    {"input device", 844, Str("Telecine X", 10)},
    {"maker, type, perfs", 1024, {21, 3, 2}},
    {"prefix, count", 1028, Cat(U32(123456), U32(789))},
    {"film rate", 1072, F32(24.0f)},
    {"pixels", 2048, Cat(U32(100u << 22 | 500u << 12 | 1000u << 2), U32(1023u << 22 | 445u << 2))}};

void Check(const Bytes& out, const Fields& fields) {
  ASSERT_GE(out.size(), 2048u);
  for (const Field& f : fields) {
    ASSERT_LE(f.offset + f.bytes.size(), out.size()) << f.what;
    EXPECT_EQ(Bytes(out.begin() + f.offset, out.begin() + f.offset + f.bytes.size()), f.bytes)
        << f.what << " at " << f.offset;
  }
}

class ConvertMetadata : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef _WIN32
    GTEST_SKIP() << "runs vxhost through a POSIX shell";
#endif
    Fields source = kDpxFrame;
    source.insert(source.end(), kDpxKept.begin(), kDpxKept.end());
    source.push_back({"file name", 36, Str("A001.dpx", 8)});
    source.push_back({"creation time", 136, Str("2024:03:05:06:07:08Z", 20)});
    source.push_back({"creator", 160, Str("scanner-sw", 10)});
    vxtest::WriteFile(dir / "a.dpx", Lay(2048 + 24, source));
    vxtest::WriteFile(dir / "a.cin", Lay(2048 + 8, kCineon));
  }
  Bytes Convert(const std::string& args, const std::string& out) {
    const vxtest::HostRun r = vxtest::RunHost(dir.path(), "convert " + args + " " + out);
    EXPECT_EQ(r.code, 0) << args << ": " << r.err;
    return vxtest::ReadFile(dir / out);
  }
  vxtest::TempDir dir;
};

TEST_F(ConvertMetadata, DpxToDpxKeepsEveryFieldAndThePixels) {
  const Bytes out = Convert("a.dpx", "b.dpx");
  Check(out, kDpxKept);
  Check(out, {{"creator is the writer", 160, Str("Halden Vx", 100)},
              {"source file name", 1432, Str("A001.dpx", 100)},
              {"source time", 1532, Str("2024:03:05:06:07:08", 24)}});
}

TEST_F(ConvertMetadata, CineonToDpxStaysAFilmScan) {
  Check(Convert("a.cin", "b.dpx"),
        {{"10 bits", 803, {10}},
         {"transfer, colorimetric: printing density", 801, {1, 1}},
         {"source file name", 1432, Str("neg.cin", 100)},
         {"source time", 1532, Str("2023:01:02:03:04:05", 24)},
         {"input device", 1556, Str("Telecine X", 32)},
         {"edge code", 1664, Cat(Str("21", 2), Cat(Str("3", 2), Str("2", 2)))},
         {"prefix, count", 1670, Cat(Str("123456", 6), Str("789", 4))},
         {"frame rate", 1940, F32(24.0f)},
         {"pixels", 2048,
          Cat(U32(100u << 22 | 500u << 12 | 1000u << 2), U32(1023u << 22 | 445u << 2))}});
}

TEST_F(ConvertMetadata, TransferInWordsOverridesTheSourceAndColorimetricFollows) {
  const std::pair<const char*, std::uint8_t> cases[] = {
      {"linear", 2}, {"rec709", 6}, {"log", 3}, {"user", 0}};
  for (const auto& [word, code] : cases) {
    const std::string out = std::string("t-") + word + ".dpx";
    Check(Convert(std::string("a.dpx --transfer ") + word, out), {{word, 801, {code, code}}});
  }
}

}  // namespace
