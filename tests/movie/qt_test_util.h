// What the QuickTime tests share: a manager started on the channel test decoder, movie
// descriptions in a temp folder, and the decoder's picture pattern written out by hand.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "movie/qt/qt_manager.h"
#include "test_util.h"
#include "vx/platform.h"

namespace qttest {

using vxtest::Wide;

inline std::filesystem::path TestDecoder() {
#ifdef _WIN32
  return vxtest::BinDir() / "qttest" / "QuickTimeDecoder" / "QTDecoder.exe";
#else
  return vxtest::BinDir() / "qttest" / "QuickTimeDecoder" / "QTDecoder";
#endif
}

inline void UseTestDecoder() {
  vx::qt::SetDecoderProgramForTesting(Wide(TestDecoder()));
}

// Waits up to 5 s for a process to be gone.
inline bool WaitGone(std::uint32_t pid) {
  for (int i = 0; i < 500; ++i) {
    if (!vx::os::ProcessIsRunning(pid)) return true;
    vx::os::SleepMs(10);
  }
  return false;
}

inline std::string ReadText(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline std::uint32_t Fnv1a(const unsigned char* p, std::size_t n) {
  std::uint32_t h = 2166136261u;
  for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 16777619u;
  return h;
}

struct Rgba {
  std::uint8_t r, g, b, a;
};
// The test decoder's frames: R = x + 3 frame + 17 track, G = 2y + frame, B = x xor y,
// A = x + y with alpha (255 without), all modulo 256.
inline Rgba Pattern(int track, int frame, int x, int y, bool alpha) {
  return {static_cast<std::uint8_t>(x + 3 * frame + 17 * track),
          static_cast<std::uint8_t>(2 * y + frame), static_cast<std::uint8_t>(x ^ y),
          static_cast<std::uint8_t>(alpha ? x + y : 255)};
}

// A started manager on the test decoder, stopped (and its decoder gone) after each test.
class DecoderFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(TestDecoder())) GTEST_SKIP() << "no test decoder built";
    UseTestDecoder();
    vx::qt::SetTimeLimitMs(0);
    manager_ = new CVxQTManager;
    manager_->AddRef();
    ASSERT_EQ(manager_->Start(), S_OK);
  }
  void TearDown() override {
    if (!manager_) return;
    const std::uint32_t pid = manager_->DecoderProcessId();
    manager_->Stop();
    manager_->Release();
    manager_ = nullptr;
    if (pid) {
      EXPECT_TRUE(WaitGone(pid)) << "decoder left running";
    }
    vx::qt::SetTimeLimitMs(0);
    vx::qt::SetDecoderProgramForTesting({});
  }
  CVxQTManager* manager() { return manager_; }
  const vxtest::TempDir& dir() const { return dir_; }
  VxString WriteMovie(const std::string& name, const std::string& text) {
    const auto p = dir_ / name;
    std::ofstream(p, std::ios::binary) << text;
    return Wide(p);
  }

 private:
  vxtest::TempDir dir_;
  CVxQTManager* manager_ = nullptr;
};

}  // namespace qttest
