// A scripted decoding library for the tests: clips named by their path's file name
// ("f<frames>_<width>x<height>[anything]"), a card whose probe outcome and failing frames are
// set by the test, and card jobs that finish on threads of their own.
#pragma once

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "red/r3d/red_library.h"

namespace redtest {

using namespace vx::red;

class FakeClip final : public RedClip {
 public:
  explicit FakeClip(const RedClipInfo& info) : info_(info) {}
  const RedClipInfo& Info() const override { return info_; }
  bool Metadata(std::string_view, std::string*) const override { return false; }
  // Every byte of the picture is the frame number's low byte.
  bool Decode(std::int32_t frame, int shift, RedPixels pixels, std::uint8_t* out,
              std::size_t outBytes) override {
    const std::size_t need = std::size_t{ShiftedSize(info_.width, shift)} *
                             ShiftedSize(info_.height, shift) * RedPixelBytes(pixels);
    if (need > outBytes) return false;
    std::memset(out, frame & 0xFF, need);
    return true;
  }

 private:
  RedClipInfo info_;
};

enum class Card { kNone, kPassed, kTooOld, kBroken };

class FakeLibrary final : public RedLibrary {
 public:
  ~FakeLibrary() override { Join(); }
  std::unique_ptr<RedClip> OpenClip(const VxChar* path) override {
    const std::string p = vx::ToUtf8(path);
    const std::size_t slash = p.find_last_of("/\\");
    const std::string name = slash == std::string::npos ? p : p.substr(slash + 1);
    RedClipInfo info;
    int frames = 0;
    unsigned w = 0, h = 0;
    if (std::sscanf(name.c_str(), "f%d_%ux%u", &frames, &w, &h) != 3) return nullptr;
    info.frameCount = frames;
    info.width = w;
    info.height = h;
    ++opened;
    return std::make_unique<FakeClip>(info);
  }
  bool ProbeCard(RedCardVersions* v, int* check) override {
    if (card == Card::kNone) return false;
    const RedCardVersions reported = {
        {1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}, {13, 14, 15, 16}};
    *v = reported;
    *check = card == Card::kPassed   ? kCardCheckPassed
             : card == Card::kTooOld ? kCardCheckTooOld
                                     : 3;
    return true;
  }
  bool OpenCardDecoder() override { return cardOpen = true; }
  void CloseCard() override {
    Join();
    cardOpen = false;
    ++closes;
  }
  bool SubmitJob(RedJob* job) override {
    if (!cardOpen) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    jobs.push_back(job);
    threads_.emplace_back([this, job] {
      bool ok = !failFrames.count(job->frame) &&
                job->clip->Decode(job->frame, job->shift, job->pixels, job->out, job->bytes);
      ++decodes;
      job->done(job, ok);
    });
    return true;
  }
  void Join() {
    std::vector<std::thread> threads;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      threads.swap(threads_);
    }
    for (auto& t : threads) t.join();
  }

  Card card = Card::kNone;
  bool cardOpen = false;
  int closes = 0;
  int opened = 0;
  std::set<std::int32_t> failFrames;
  std::atomic<int> decodes{0};
  std::vector<RedJob*> jobs;

 private:
  std::mutex mutex_;
  std::vector<std::thread> threads_;
};

}  // namespace redtest
