// The built vxhost, run as a user runs it, each time against a registry of its own.
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "test_util.h"

namespace {

using vxtest::HostRun;

int CountLines(const std::string& text) {
  int n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

class VxHost : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef _WIN32
    GTEST_SKIP() << "runs the host through a POSIX shell";
#else
    host_ = vxtest::BinDir() / "vxhost";
    ASSERT_TRUE(std::filesystem::exists(host_)) << host_;
#endif
  }

  HostRun Host(const std::string& args) {
    return vxtest::RunHost(dir.path(), args);
  }

  vxtest::TempDir dir;

 private:
  std::filesystem::path host_;
};

TEST_F(VxHost, HelpListsCommands) {
  HostRun r = Host("--help");
  EXPECT_EQ(r.code, 0);
  for (const char* command : {"register", "unregister", "formats", "info"}) {
    EXPECT_NE(r.out.find(command), std::string::npos) << command;
  }
}

TEST_F(VxHost, FirstRunRegistersAndListsTheCatalogue) {
  ASSERT_FALSE(std::filesystem::exists(dir / "registry.json"));
  HostRun r = Host("formats");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(std::filesystem::exists(dir / "registry.json"));
  EXPECT_NE(r.out.find("31 parsers"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("HALDEN VX (VIDEO HAL)"), std::string::npos);
  EXPECT_NE(r.out.find("{B980120D-CF7D-49D4-933F-467E7B541111}"), std::string::npos);

  r = Host("formats --json");
  ASSERT_EQ(r.code, 0) << r.err;
  std::size_t rows = 0;
  for (std::size_t at = r.out.find("\"clsid\""); at != std::string::npos;
       at = r.out.find("\"clsid\"", at + 1)) {
    ++rows;
  }
  EXPECT_EQ(rows, 31u);
  // GIF is the one import-only still format.
  std::size_t gif = r.out.find("\"GIF\"");
  ASSERT_NE(gif, std::string::npos);
  EXPECT_NE(r.out.find("\"export\": false", gif), std::string::npos);
}

TEST_F(VxHost, UnregisterEmptiesAndRegisterRefills) {
  ASSERT_EQ(Host("register").code, 0);
  HostRun r = Host("unregister");
  EXPECT_EQ(r.code, 0) << r.err;
  r = Host("unregister");  // nothing left to remove: the failure is reported
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(CountLines(r.err), 1) << r.err;
  EXPECT_EQ(Host("register").code, 0);
}

TEST_F(VxHost, BadModuleIsReported) {
  HostRun r = Host("formats --module '" + (dir / "missing.so").string() + "'");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("missing.so"), std::string::npos);
}

TEST_F(VxHost, FileErrorsAreOneLineAndExitOne) {
  vxtest::WriteFile(dir / "notes.xyz", {'h', 'i'});
  HostRun r = Host("info notes.xyz");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err.rfind("notes.xyz: no parser registered for .XYZ files", 0), 0u) << r.err;
  EXPECT_NE(r.err.find("vxhost register"), std::string::npos) << r.err;

  r = Host("info absent.dpx");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "absent.dpx: cannot open: no such file\n");

  // A file with no usable header.
  vxtest::WriteFile(dir / "junk.dpx", std::vector<std::uint8_t>(100, 0x55));
  r = Host("info junk.dpx");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(CountLines(r.err), 1) << r.err;
  EXPECT_EQ(r.err.rfind("junk.dpx: not a readable DPX file", 0), 0u) << r.err;
}

TEST_F(VxHost, RowWithoutParserSaysSo) {
  vxtest::WriteFile(dir / "a.gen", {'G', 'E', 'N', 0});
  HostRun r = Host("info a.gen");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "a.gen: no parser built for HALDEN VX (VIDEO HAL) files yet\n");
}

TEST_F(VxHost, EveryFailedFileIsReported) {
  vxtest::WriteFile(dir / "notes.xyz", {'h', 'i'});
  HostRun r = Host("info notes.xyz absent.dpx --json");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(CountLines(r.err), 2) << r.err;
  EXPECT_NE(r.out.find("\"error\": \"cannot open: no such file\""), std::string::npos) << r.out;
}

TEST_F(VxHost, DescribesFilesAndSequences) {
  auto sample = vxtest::CorpusDir() / "dpx" / "dpx_nuke_10bits_rgb.dpx";
  if (vxtest::CorpusDir().empty() || !std::filesystem::exists(sample)) {
    GTEST_SKIP() << "no corpus";
  }
  for (int i = 1; i <= 3; ++i) {
    std::filesystem::copy_file(sample, dir / ("shot.000" + std::to_string(i) + ".dpx"));
  }
  HostRun r = Host("info shot.0002.dpx --json");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(r.err.empty()) << r.err;
  EXPECT_NE(r.out.find("\"parser\": \"DPX\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"size\": \"512x512\""), std::string::npos) << r.out;

  r = Host("info 'shot.####.dpx'");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("frames: 3"), std::string::npos) << r.out;
}

}  // namespace
