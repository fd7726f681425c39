// The still-image parser base, driven directly.
#include "frame/still_image_parser.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "base/module.h"
#include "test_util.h"

namespace {

// The base with its helpers in reach.
class Still : public CVxStillImageParser {
 public:
  using CVxStillImageParser::AlphaImposed, CVxStillImageParser::AspectImposed,
      CVxStillImageParser::CopyName, CVxStillImageParser::CurrentFileName,
      CVxStillImageParser::FileList, CVxStillImageParser::Flags, CVxStillImageParser::FrameCount,
      CVxStillImageParser::IsWriting, CVxStillImageParser::OutputFileName,
      CVxStillImageParser::PixelAspect, CVxStillImageParser::SelectFile;
};

// Holds one reference for the test's lifetime, as the factory hands objects out.
class StillTest : public ::testing::Test {
 protected:
  void SetUp() override {
    before_ = vx::module::ObjectCount();
    p = new Still;
    EXPECT_EQ(vx::module::ObjectCount(), before_ + 1);
    EXPECT_EQ(p->AddRef(), 1u);
  }
  void TearDown() override {
    EXPECT_EQ(p->Release(), 0u);
    EXPECT_EQ(vx::module::ObjectCount(), before_);
  }

  // Hands the parser a host record that is deliberately misaligned for its double.
  HRESULT Impose(double aspect, DWORD alpha, DWORD size, DWORD kind) {
    tagVxImageStreamFormat f{};
    f.cbSize = size;
    f.pixelAspect = aspect;
    f.hasAlpha = alpha;
    std::vector<std::uint8_t> bytes(sizeof f + 1);
    std::memcpy(bytes.data() + 1, &f, sizeof f);
    return p->SetStreamFormat(kind, 0, bytes.data() + 1);
  }

  static IVxFileList* List(const std::vector<VxString>& names) {
    std::vector<const VxChar*> ptrs;
    for (const auto& n : names) ptrs.push_back(n.c_str());
    IVxFileList* list = nullptr;
    EXPECT_EQ(VxCreateFileList(ptrs.data(), static_cast<int>(ptrs.size()), &list), S_OK);
    return list;
  }

  Still* p = nullptr;

 private:
  std::int32_t before_ = 0;
};

TEST_F(StillTest, InterfacesShareOneObject) {
  void *unk = nullptr, *media = nullptr, *image = nullptr;
  ASSERT_EQ(p->QueryInterface(IID_IUnknown, &unk), S_OK);
  ASSERT_EQ(p->QueryInterface(IID_IVxMediaFileParser, &media), S_OK);
  ASSERT_EQ(p->QueryInterface(IID_IVxImageStreamParser, &image), S_OK);
  EXPECT_EQ(unk, media);
  EXPECT_EQ(media, static_cast<IVxMediaFileParser*>(p));
  EXPECT_EQ(image, static_cast<IVxImageStreamParser*>(p));
  // The picture view's IUnknown is the object's: counts go to one place.
  auto* view = static_cast<IVxImageStreamParser*>(image);
  EXPECT_EQ(view->AddRef(), 5u);
  EXPECT_EQ(view->Release(), 4u);
  void* back = nullptr;
  ASSERT_EQ(view->QueryInterface(IID_IVxMediaFileParser, &back), S_OK);
  EXPECT_EQ(back, media);
  for (int i = 0; i < 4; ++i) p->Release();

  void* other = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(p->QueryInterface(IID_IVxAudioStreamParser, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(p->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
  // GetStream: the picture stream 0 is the object itself; anything else clears the output.
  other = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(p->GetStream(1, 1, IID_IVxImageStreamParser, &other), E_INVALIDARG);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(p->GetStream(2, 0, IID_IVxAudioStreamParser, &other), E_INVALIDARG);
  ASSERT_EQ(p->GetStream(1, 0, IID_IVxImageStreamParser, &other), S_OK);
  EXPECT_EQ(other, static_cast<IVxImageStreamParser*>(p));
  p->Release();
}

TEST_F(StillTest, OpenLiteralOrAsASequence) {
  EXPECT_EQ(p->Open(VXT("/nowhere/shot.0001.dpx"), 0x30000002u), S_OK);
  EXPECT_EQ(p->FileList(), nullptr);
  EXPECT_EQ(p->Flags(), 2u);
  EXPECT_TRUE(p->IsWriting());
  EXPECT_EQ(p->FrameCount(), 1);
  EXPECT_EQ(p->CurrentFileName(), VXT("/nowhere/shot.0001.dpx"));
  EXPECT_EQ(p->OutputFileName(7), VXT("/nowhere/shot.0001.dpx"));  // taken literally
  EXPECT_EQ(p->Open(nullptr, 0), E_POINTER);
  // Reopening on the name it holds (formats do) must not read freed text.
  EXPECT_EQ(p->Open(p->CurrentFileName().c_str(), 0), S_OK);
  EXPECT_EQ(p->CurrentFileName(), VXT("/nowhere/shot.0001.dpx"));

  // A numbered pattern opens as its sequence.
  vxtest::TempDir dir;
  for (int i = 1; i <= 3; ++i)
    vxtest::WriteFile(dir / ("shot.000" + std::to_string(i) + ".dpx"), {1, 2, 3});
  VxString pattern = vxtest::Wide(dir / "shot.####.dpx");
  EXPECT_EQ(p->OpenEx(pattern.c_str(), 0x20000000u | 0x40u, 12345), S_OK);
  ASSERT_NE(p->FileList(), nullptr);
  EXPECT_EQ(p->FrameCount(), 3);
  EXPECT_EQ(p->Flags(), 0x40u);
  EXPECT_EQ(p->SelectFile(2), S_OK);
  EXPECT_EQ(p->CurrentFileName(), vxtest::Wide(dir / "shot.0003.dpx"));
  EXPECT_EQ(p->SelectFile(3), E_INVALIDARG);

  // Reopening replaces the list; Close drops it and the flags.
  EXPECT_EQ(p->Open(pattern.c_str(), VX_OPEN_NO_PATTERN), S_OK);
  EXPECT_EQ(p->FileList(), nullptr);
  EXPECT_EQ(p->Open(pattern.c_str(), 0x40u), S_OK);
  EXPECT_EQ(p->Close(), S_OK);
  EXPECT_EQ(p->FileList(), nullptr);
  EXPECT_EQ(p->Flags(), 0u);
  // Writing to a pattern names one file per frame.
  VxString out = vxtest::Wide(dir / "out.####.dpx");
  EXPECT_EQ(p->Open(out.c_str(), VX_OPEN_WRITE), S_OK);
  EXPECT_EQ(p->OutputFileName(12), vxtest::Wide(dir / "out.0012.dpx"));
}

TEST_F(StillTest, OpenFileListHoldsOneReference) {
  EXPECT_EQ(p->OpenFileList(nullptr, 0), E_POINTER);
  IVxFileList* a = List({VXT("a.0001.dpx"), VXT("a.0002.dpx")});
  IVxFileList* b = List({VXT("b.dpx")});
  ASSERT_TRUE(a && b);
  EXPECT_EQ(p->OpenFileList(a, 0x30000004u), S_OK);
  EXPECT_EQ(p->Flags(), 4u);
  EXPECT_EQ(p->FileList(), a);
  EXPECT_EQ(p->FrameCount(), 2);
  EXPECT_EQ(p->OpenFileList(a, 0), S_OK);  // the same list: no second reference
  EXPECT_EQ(a->AddRef(), 3u);
  a->Release();
  EXPECT_EQ(p->OpenFileList(b, 0), S_OK);  // another: the first one let go
  EXPECT_EQ(a->AddRef(), 2u);
  a->Release();
  // A handed-over list names the export files itself.
  EXPECT_EQ(p->OutputFileName(0), VXT("b.dpx"));
  EXPECT_EQ(p->Close(), S_OK);
  EXPECT_EQ(b->AddRef(), 2u);
  b->Release();
  EXPECT_EQ(a->Release(), 0u);
  EXPECT_EQ(b->Release(), 0u);
}

// What SetStreamFormat takes from the host's record: the aspect only when positive (NaN, 0 and
// negatives keep what was there), alpha from every accepted call, nothing from refused records.
TEST_F(StillTest, ImposedAspectAndAlpha) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Step {
    double aspect;
    DWORD alpha, size, kind;
    HRESULT result;
    double aspectAfter;
    bool imposed, alphaAfter;
  };
  const Step steps[] = {
      {nan, 0, 56, 1, S_OK, 1.0, false, false},
      {0.0, 1, 56, 1, S_OK, 1.0, false, true},
      {-2.0, 0, 56, 1, S_OK, 1.0, false, false},
      {1.5, 1, 56, 1, S_OK, 1.5, true, true},
      {nan, 0, 56, 1, S_OK, 1.5, true, false},
      {2.0, 1, 55, 1, E_INVALIDARG, 1.5, true, false},
      {2.0, 1, 8, 1, E_INVALIDARG, 1.5, true, false},
      {2.0, 1, 56, 2, E_INVALIDARG, 1.5, true, false},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(testing::Message() << s.aspect << " size " << s.size << " kind " << s.kind);
    EXPECT_EQ(Impose(s.aspect, s.alpha, s.size, s.kind), s.result);
    EXPECT_EQ(p->PixelAspect(), s.aspectAfter);
    EXPECT_EQ(p->AspectImposed(), s.imposed);
    EXPECT_EQ(p->AlphaImposed(), s.alphaAfter);
  }
  EXPECT_EQ(p->SetStreamFormat(1, 0, nullptr), E_POINTER);
}

TEST_F(StillTest, SelectFile) {
  vxtest::TempDir dir;
  std::filesystem::create_directory(dir / "f.0002.dpx");
  vxtest::WriteFile(dir / "f.0004.dpx", {0});
  vxtest::WriteFile(dir / "f.0005.dpx", {0});
  std::vector<VxString> names;
  for (int i = 1; i <= 5; ++i)
    names.push_back(vxtest::Wide(dir / ("f.000" + std::to_string(i) + ".dpx")));
  IVxFileList* list = List(names);
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(p->OpenFileList(list, 0), S_OK);
  list->Release();
  // -1 takes the first file there is; explicit indices need not exist.
  for (auto [index, want] : {std::pair{-1, 3}, {0, 0}, {4, 4}}) {
    EXPECT_EQ(p->SelectFile(index), S_OK);
    EXPECT_EQ(p->CurrentFileName(), names[want]) << index;
  }
  EXPECT_EQ(p->SelectFile(5), E_INVALIDARG);
  EXPECT_EQ(p->SelectFile(-3), E_INVALIDARG);

  // Without a list only 0 and -1 select; an empty list selects nothing and keeps the name.
  ASSERT_EQ(p->Open(VXT("keep.dpx"), VX_OPEN_NO_PATTERN), S_OK);
  EXPECT_EQ(p->SelectFile(0), S_OK);
  EXPECT_EQ(p->SelectFile(-1), S_OK);
  EXPECT_EQ(p->SelectFile(1), E_INVALIDARG);
  EXPECT_EQ(p->SelectFile(-2), E_INVALIDARG);
  IVxFileList* empty = List({});
  ASSERT_NE(empty, nullptr);
  ASSERT_EQ(p->OpenFileList(empty, 0), S_OK);
  empty->Release();
  EXPECT_EQ(p->FrameCount(), 0);
  EXPECT_EQ(p->SelectFile(3), S_OK);
  EXPECT_EQ(p->SelectFile(-1), S_OK);
  EXPECT_EQ(p->CurrentFileName(), VXT("keep.dpx"));
}

TEST(StillCopyName, TruncatesAndTerminates) {
  VxChar buf[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(Still::CopyName(VXT("ABCDEF"), buf, 4), S_OK);
  EXPECT_EQ(VxString(buf), VXT("ABC"));
  EXPECT_EQ(Still::CopyName(VXT("AB"), buf, 4), S_OK);
  EXPECT_EQ(VxString(buf), VXT("AB"));
  EXPECT_EQ(Still::CopyName(VXT("A"), buf, 1), S_OK);
  EXPECT_EQ(buf[0], 0);
  for (auto [to, size] : {std::pair<VxChar*, int>{nullptr, 4}, {buf, 0}, {buf, -1}})
    EXPECT_EQ(Still::CopyName(VXT("A"), to, size), E_INVALIDARG) << size;
}

}  // namespace
