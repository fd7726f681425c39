#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sdk_test_util.h"
#include "vx/sdk.h"

namespace {

namespace fs = std::filesystem;

void Touch(const fs::path& p) {
  vxtest::WriteFile(p, {1});
}

struct Listed {
  std::vector<std::string> names;  // file names only
  std::vector<int> frames;
  std::vector<std::string> full;
};

Listed Expand(const fs::path& pattern) {
  IVxFileList* list = nullptr;
  Listed out;
  const VxString wide = vxtest::Wide(pattern);
  EXPECT_EQ(VxGetFileListFromPattern(wide.c_str(), &list), S_OK);
  if (!list) return out;
  int count = -1;
  EXPECT_EQ(list->GetCount(&count), S_OK);
  for (int i = 0; i < count; ++i) {
    VxChar* name = nullptr;
    EXPECT_EQ(list->GetFileName(i, &name), S_OK);
    int frame = -1;
    EXPECT_EQ(list->GetFrameNumber(i, &frame), S_OK);
    const std::string full = vx::ToUtf8(name);
    out.full.push_back(full);
    out.names.push_back(fs::path(full).filename().string());
    out.frames.push_back(frame);
    VxSysFreeString(name);
  }
  EXPECT_EQ(list->Release(), 0u);
  return out;
}

using Names = std::vector<std::string>;

TEST(FileList, HashAndPrintfPatternsMatchTheirDigitCounts) {
  vxtest::TempDir dir;
  for (const char* n :
       {"shot.0001.dpx", "shot.0002.dpx", "shot.0004.dpx", "shot.0010.dpx", "shot.00003.dpx",
        "shot.123.dpx", "shot.0005.dpx.bak", "shot.0006.tif", "shoot.0007.dpx", "shot.00a8.dpx"})
    Touch(dir / n);
  fs::create_directory(dir / "shot.0009.dpx");  // a folder is no frame
  const Listed l = Expand(dir / "shot.####.dpx");
  EXPECT_EQ(l.names, (Names{"shot.0001.dpx", "shot.0002.dpx", "shot.0004.dpx", "shot.0010.dpx"}));
  EXPECT_EQ(l.frames, (std::vector<int>{1, 2, 4, 10}));
  EXPECT_EQ(l.full[0], (dir / "shot.0001.dpx").string());  // the folder is kept

  for (const char* n : {"a.0001.exr", "a.0020.exr", "a.12345.exr", "a.01234.exr", "a.020.exr",
                        "b.1.exr", "b.2.exr", "b.10.exr", "b.03.exr"})
    Touch(dir / n);
  // %04d is what printf writes: four digits at least, more only without a leading zero.
  EXPECT_EQ(Expand(dir / "a.%04d.exr").names, (Names{"a.0001.exr", "a.0020.exr", "a.12345.exr"}));
  EXPECT_EQ(Expand(dir / "b.%d.exr").frames, (std::vector<int>{1, 2, 10}));
}

TEST(FileList, PlainMemberExpandsToItsSequenceOfSameWidth) {
  vxtest::TempDir dir;
  for (int w : {3, 4, 5}) {
    for (int f : {7, 9, 12, 100}) {
      char buf[32];
      std::snprintf(buf, sizeof buf, "w%d_%0*d.dpx", w, w, f);
      Touch(dir / buf);
    }
  }
  Touch(dir / "w4_12345.dpx");  // wider than its siblings: another sequence
  const Listed l3 = Expand(dir / "w3_009.dpx");
  EXPECT_EQ(l3.names, (Names{"w3_007.dpx", "w3_009.dpx", "w3_012.dpx", "w3_100.dpx"}));
  const Listed l4 = Expand(dir / "w4_0100.dpx");
  EXPECT_EQ(l4.names, (Names{"w4_0007.dpx", "w4_0009.dpx", "w4_0012.dpx", "w4_0100.dpx"}));
  EXPECT_EQ(l4.frames, (std::vector<int>{7, 9, 12, 100}));
  const Listed l5 = Expand(dir / "w5_00007.dpx");
  EXPECT_EQ(l5.frames, (std::vector<int>{7, 9, 12, 100}));
  Touch(dir / "scan.001");  // a numeric extension is the frame
  Touch(dir / "scan.002");
  EXPECT_EQ(Expand(dir / "scan.001").names, (Names{"scan.001", "scan.002"}));
}

TEST(FileList, NamesWithoutASequenceStandForThemselvesWhateverTheFolder) {
  vxtest::TempDir dir;
  for (const char* n : {"plate.dpx", "single.0042.dpx", "single.0042.tif", "clip.mp4", "clip.mp3"})
    Touch(dir / n);
  for (const char* n :
       {"plate.dpx", "missing.dpx", "single.0042.dpx", "gone.0001.dpx", "clip.mp4"}) {
    const Listed l = Expand(dir / n);
    EXPECT_EQ(l.full, std::vector<std::string>{(dir / n).string()}) << n;
  }
  EXPECT_EQ(Expand(dir / "single.0042.dpx").frames, std::vector<int>{42});
  EXPECT_TRUE(Expand(dir / "none.####.dpx").names.empty());  // a pattern names no file itself

  // Digits in the folder are not the frame.
  const fs::path take = dir / "take0002";
  fs::create_directory(take);
  fs::create_directory(dir / "take0003");
  Touch(dir / "take0003" / "plate.dpx");
  Touch(take / "plate.dpx");
  EXPECT_EQ(Expand(take / "plate.dpx").full,
            std::vector<std::string>{(take / "plate.dpx").string()});

  fs::create_directory(dir / "reel##7");
  Touch(dir / "reel##7" / "s.0001.dpx");
  Touch(dir / "reel##7" / "s.0002.dpx");
  EXPECT_EQ(Expand(dir / "reel##7" / "s.0002.dpx").frames, (std::vector<int>{1, 2}));
}

TEST(FileList, FileNameForFrame) {
  auto name = [](const VxChar* p, int f) { return vx::ToUtf8(VxFileNameForFrame(p, f)); };
  EXPECT_EQ(name(VXT("/r7/shot.####.dpx"), 12), "/r7/shot.0012.dpx");
  EXPECT_EQ(name(VXT("shot.##.dpx"), 123), "shot.123.dpx");
  EXPECT_EQ(name(VXT("shot.%04d.dpx"), 5), "shot.0005.dpx");
  EXPECT_EQ(name(VXT("shot.%d.dpx"), 5), "shot.5.dpx");
  EXPECT_EQ(name(VXT("shot.0001.dpx"), 250), "shot.0250.dpx");
  EXPECT_EQ(name(VXT("take3/plate.dpx"), 9), "take3/plate.dpx");
  EXPECT_EQ(name(nullptr, 9), "");
}

TEST(FileList, CreatedListsAndTheirContract) {
  const VxChar* names[] = {VXT("/a/x.0010.dpx"), VXT("/a/plain.dpx")};
  IVxFileList* list = nullptr;
  ASSERT_EQ(VxCreateFileList(names, 2, &list), S_OK);
  int frame = 0, count = 0;
  EXPECT_EQ(list->GetCount(&count), S_OK);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(list->GetFrameNumber(0, &frame), S_OK);
  EXPECT_EQ(frame, 10);
  EXPECT_EQ(list->GetFrameNumber(1, &frame), S_OK);
  EXPECT_EQ(frame, 1);  // no digits: its index
  VxChar* s = reinterpret_cast<VxChar*>(1);
  EXPECT_EQ(list->GetFileName(2, &s), E_INVALIDARG);
  EXPECT_EQ(s, nullptr);
  EXPECT_EQ(list->GetFileName(-1, &s), E_INVALIDARG);
  EXPECT_EQ(list->GetFrameNumber(2, &frame), E_INVALIDARG);
  EXPECT_EQ(list->GetCount(nullptr), E_POINTER);

  IUnknown* unk = nullptr;
  ASSERT_EQ(list->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&unk)), S_OK);
  void* other = &frame;
  EXPECT_EQ(list->QueryInterface(IID_IVxImage, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(unk->Release(), 1u);
  EXPECT_EQ(list->Release(), 0u);

  EXPECT_EQ(VxCreateFileList(nullptr, 1, &list), E_POINTER);
  EXPECT_EQ(VxCreateFileList(names, -1, &list), E_INVALIDARG);
  EXPECT_EQ(VxGetFileListFromPattern(nullptr, &list), E_POINTER);
  EXPECT_EQ(VxGetFileListFromPattern(VXT("x"), nullptr), E_POINTER);
}

}  // namespace
