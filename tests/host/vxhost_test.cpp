// The built vxhost, run as a user runs it, each time against a registry of its own.
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

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

TEST_F(VxHost, FirstRunRegistersAndListsTheCatalogue) {
  ASSERT_FALSE(std::filesystem::exists(dir / "registry.json"));
  HostRun r = Host("formats");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(std::filesystem::exists(dir / "registry.json"));
  EXPECT_NE(r.out.find("31 parsers"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("HALDEN VX (VIDEO HAL)"), std::string::npos);
  EXPECT_NE(r.out.find("{B980120D-CF7D-49D4-933F-467E7B541111}"), std::string::npos);
  // GIF is the one import-only still format.
  r = Host("formats --json");
  std::size_t gif = r.out.find("\"GIF\"");
  ASSERT_NE(gif, std::string::npos);
  EXPECT_NE(r.out.find("\"export\": false", gif), std::string::npos);
  r = Host("--help");
  for (const char* command : {"register", "unregister", "formats", "info"})
    EXPECT_NE(r.out.find(command), std::string::npos) << command;
}
// Rows in a `formats --json` answer.
std::size_t JsonRows(const std::string& out) {
  std::size_t rows = 0;
  for (std::size_t at = out.find("\"clsid\""); at != std::string::npos;
       at = out.find("\"clsid\"", at + 1))
    ++rows;
  return rows;
}

TEST_F(VxHost, RegistryFollowsRegisterUnregisterAndRepairsItself) {
  ASSERT_EQ(Host("register").code, 0);
  HostRun r = Host("unregister");
  EXPECT_EQ(r.code, 0) << r.err;
  r = Host("unregister");  // nothing left to remove: the failure is reported
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(CountLines(r.err), 1) << r.err;
  ASSERT_EQ(Host("register").code, 0);

  // A row lost from the registry (edited by hand, or an older module's registration) comes back
  // on the next run, and the rows people did not lose keep their place.
  const auto path = dir / "registry.json";
  auto doc = nlohmann::json::parse(std::ifstream(path));
  auto& entries = doc["entries"];
  ASSERT_EQ(entries[2]["name"], "TIFF");
  entries.erase(2);
  std::ofstream(path) << doc.dump(2);
  r = Host("formats --json");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(JsonRows(r.out), 31u);
  EXPECT_NE(r.out.find("\"TIFF\""), std::string::npos);
  EXPECT_EQ(nlohmann::json::parse(std::ifstream(path))["entries"][0]["name"], "AVI");
}

// Hosts started at the same moment on a machine that never registered: each registers or waits
// for another's registration, and none may list a half-registered module.
TEST_F(VxHost, ConcurrentFirstRunsAllSeeTheWholeCatalogue) {
  constexpr int kHosts = 8, kRounds = 5;
  const std::string host = vxtest::Quote(vxtest::BinDir() / "vxhost");
  for (int round = 0; round < kRounds; ++round) {
    const auto registry = dir / ("registry" + std::to_string(round) + ".json");
    std::string cmd = "cd " + vxtest::Quote(dir.path()) + " && for i in";
    for (int i = 0; i < kHosts; ++i) cmd += " " + std::to_string(i);
    cmd += "; do (VXHOST_REGISTRY=" + vxtest::Quote(registry) + " " + host +
           " formats --json > out$i 2> err$i; echo $? > rc$i) & done; wait";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
    for (int i = 0; i < kHosts; ++i) {
      auto text = [&](const char* stem) {
        const auto bytes = vxtest::ReadFile(dir / (stem + std::to_string(i)));
        return std::string(bytes.begin(), bytes.end());
      };
      SCOPED_TRACE("round " + std::to_string(round) + ", host " + std::to_string(i));
      EXPECT_EQ(text("rc"), "0\n") << text("err");
      EXPECT_EQ(JsonRows(text("out")), 31u);
    }
  }
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

  // Each failed file has its line; JSON output says what went wrong with each.
  r = Host("info notes.xyz absent.dpx --json");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(CountLines(r.err), 2) << r.err;
  EXPECT_NE(r.out.find("\"error\": \"cannot open: no such file\""), std::string::npos) << r.out;

  r = Host("formats --module '" + (dir / "missing.so").string() + "'");
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("missing.so"), std::string::npos);
}

TEST_F(VxHost, RowWithoutParserSaysSo) {
  vxtest::WriteFile(dir / "a.gen", {'G', 'E', 'N', 0});
  HostRun r = Host("info a.gen");
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "a.gen: no parser built for HALDEN VX (VIDEO HAL) files yet\n");
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
