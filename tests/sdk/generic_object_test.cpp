#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "sdk_test_util.h"
#include "vx/platform.h"
#include "vx/sdk.h"

namespace {

constexpr CLSID kObject = {0x6E1D0001, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0xAB, 0x01}};
constexpr CLSID kRefused = {0x6E1D0001, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0xAB, 0x02}};
constexpr CLSID kUnknown = {0x6E1D0001, 0, 0x4000, {0x80, 0, 0, 0, 0, 0, 0xAB, 0x03}};

struct Counts {
  int created = 0, started = 0, stopped = 0, live = 0;
  bool operator==(const Counts&) const = default;
  Counts operator-(const Counts& o) const {
    return {created - o.created, started - o.started, stopped - o.stopped, live - o.live};
  }
};

// The test module, loaded here too so the test can read its counters and hand an address
// inside it to the registration calls, as a module does with its instance handle.
class TestModule {
 public:
  TestModule() {
    const auto path =
        vxtest::BinDir() / (std::string("vx_sdk_test_generic") + vx::os::ModuleSuffix());
    handle_ = vx::os::LoadModule(vxtest::Wide(path).c_str());
    if (!handle_) return;
    counts_ = reinterpret_cast<CountsFn>(vx::os::ModuleSymbol(handle_, "TestGenericCounts"));
    instance_ = reinterpret_cast<HINSTANCE>(vx::os::ModuleSymbol(handle_, "DllGetClassObject"));
  }
  ~TestModule() {
    if (handle_) vx::os::FreeModule(handle_);
  }
  bool ok() const { return handle_ && counts_ && instance_; }
  HINSTANCE instance() const { return instance_; }
  Counts counts() const {
    Counts c;
    counts_(&c.created, &c.started, &c.stopped, &c.live);
    return c;
  }

 private:
  using CountsFn = void (*)(int*, int*, int*, int*);
  vx::os::ModuleHandle handle_ = nullptr;
  CountsFn counts_ = nullptr;
  HINSTANCE instance_ = nullptr;
};

// The instances are per process: every test starts and ends with none.
class GenericObjects : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(module_.ok()) << vx::os::LastModuleError();
    VxReleaseGenericObjects();
    base_ = module_.counts();
  }
  void TearDown() override { VxReleaseGenericObjects(); }
  sdktest::ScopedRegistry reg_;
  TestModule module_;
  Counts base_;
};

TEST_F(GenericObjects, OneStartedInstancePerProcessUntilReleased) {
  ASSERT_EQ(VxRegisterGenericObj(kObject, VXT("Test object"), 1, module_.instance()), S_OK);
  IVxGeneric *a = nullptr, *b = nullptr;
  ASSERT_EQ(VxQueryGenericObject(kObject, &a), S_OK);
  ASSERT_EQ(VxQueryGenericObject(kObject, &b), S_OK);
  EXPECT_EQ(a, b);
  a->Release();
  b->Release();
  // Made and started once; the SDK still holds it.
  EXPECT_EQ(module_.counts() - base_, (Counts{1, 1, 0, 1}));
  VxReleaseGenericObjects();
  EXPECT_EQ(module_.counts() - base_, (Counts{1, 1, 1, 0}));
  VxReleaseGenericObjects();  // nothing left: no second Stop
  EXPECT_EQ(module_.counts() - base_, (Counts{1, 1, 1, 0}));

  // A later request makes a fresh instance.
  ASSERT_EQ(VxQueryGenericObject(kObject, &a), S_OK);
  EXPECT_EQ(module_.counts().created - base_.created, 2);
  a->Release();
}

TEST_F(GenericObjects, ConcurrentFirstRequestsShareOneInstance) {
  ASSERT_EQ(CBRegisterCOMObject(kObject, module_.instance(), VXT("Test object")), S_OK);
  constexpr int kThreads = 8;
  std::vector<IVxGeneric*> got(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&got, i] { VxQueryGenericObject(kObject, &got[i]); });
  for (auto& t : threads) t.join();
  for (IVxGeneric* g : got) {
    EXPECT_EQ(g, got[0]);
    if (g) g->Release();
  }
  EXPECT_NE(got[0], nullptr);
  EXPECT_EQ(module_.counts() - base_, (Counts{1, 1, 0, 1}));
}

TEST_F(GenericObjects, FailuresHandOutNothing) {
  IVxGeneric* g = reinterpret_cast<IVxGeneric*>(1);
  EXPECT_EQ(VxQueryGenericObject(kUnknown, &g), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(g, nullptr);
  EXPECT_EQ(VxQueryGenericObject(kObject, nullptr), E_POINTER);

  // Registered, but the factory refuses: its code comes back.
  ASSERT_EQ(VxRegisterGenericObj(kRefused, VXT("Refused"), 0, module_.instance()), S_OK);
  EXPECT_EQ(VxQueryGenericObject(kRefused, &g), E_OUTOFMEMORY);
  EXPECT_EQ(g, nullptr);

  // The module named in the registry is gone.
  const std::string text = "{\"entries\": [{\"kind\": \"genericObject\", \"clsid\": \"" +
                           vx::GuidToString(kUnknown) + "\", \"module\": \"/nonexistent/x.so\"}]}";
  vxtest::WriteFile(reg_.path(), std::vector<std::uint8_t>(text.begin(), text.end()));
  EXPECT_EQ(VxQueryGenericObject(kUnknown, &g), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(g, nullptr);
  EXPECT_EQ(module_.counts().created, base_.created);
}

}  // namespace
