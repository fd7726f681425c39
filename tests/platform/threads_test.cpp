#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "platform_test_util.h"

using namespace vx::os;

namespace {

TEST(Locks, CriticalSectionSerialisesAndIsRecursive) {
  CriticalSection cs;
  long counter = 0;  // plain on purpose: only the lock protects it
  auto work = [&] {
    for (int i = 0; i < 100000; ++i) {
      Lock outer(cs);
      Lock inner(cs);  // re-entering from the owning thread must not deadlock
      ++counter;
    }
  };
  std::thread a(work), b(work);
  a.join();
  b.join();
  EXPECT_EQ(counter, 200000);
}

TEST(Atomics, ReturnValuesFollowTheirContractsAndNoIncrementIsLost) {
  volatile std::int32_t v = 5;
  EXPECT_EQ(AtomicIncrement(&v), 6);
  EXPECT_EQ(AtomicDecrement(&v), 5);
  EXPECT_EQ(AtomicExchange(&v, 9), 5);
  EXPECT_EQ(AtomicCompareExchange(&v, 1, 8), 9);  // no match: unchanged, old returned
  EXPECT_EQ(AtomicLoad(&v), 9);
  EXPECT_EQ(AtomicCompareExchange(&v, 1, 9), 9);
  EXPECT_EQ(AtomicLoad(&v), 1);

  // Concurrent increments are not lost.
  v = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 50000; ++i) {
        AtomicIncrement(&v);
        AtomicIncrement(&v);
        AtomicDecrement(&v);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(AtomicLoad(&v), 200000);
}

TEST(Pages, RoundingAndZeroedAllocation) {
  const std::size_t page = PageSize();
  ASSERT_GE(page, 4096u);
  EXPECT_EQ(page & (page - 1), 0u);
  EXPECT_EQ(RoundToPage(0), 0u);
  EXPECT_EQ(RoundToPage(1), page);
  EXPECT_EQ(RoundToPage(page), page);
  EXPECT_EQ(RoundToPage(page + 1), 2 * page);
  EXPECT_EQ(RoundToPage((5ull << 32) + 1), (5ull << 32) + page);

  const std::size_t bytes = 3 * page + 5;
  auto* p = static_cast<unsigned char*>(AllocatePages(bytes));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % page, 0u);
  for (std::size_t i = 0; i < 4 * page; ++i) ASSERT_EQ(p[i], 0) << i;
  std::memset(p, 0xAB, 4 * page);  // the rounded-up tail is ours too
  FreePages(p, bytes);
  EXPECT_EQ(AllocatePages(0), nullptr);
  FreePages(nullptr, 10);
}

TEST(Modules, LoadLookUpLocateAndFail) {
#ifdef _WIN32
  const VxChar* const library = VXT("msvcrt.dll");  // its C library holds the maths too
  const char* const stem = "msvcrt";
#else
  const VxChar* const library = VXT("libm.so.6");
  const char* const stem = "libm";
#endif
  ModuleHandle m = LoadModule(library);
  ASSERT_NE(m, nullptr) << LastModuleError();
  void* cosine = ModuleSymbol(m, "cos");
  ASSERT_NE(cosine, nullptr);
  EXPECT_EQ(ModuleSymbol(m, "no_such_symbol_here"), nullptr);
  EXPECT_FALSE(LastModuleError().empty());
  const std::filesystem::path where = vx::ToUtf8(ModulePathOf(cosine));
  EXPECT_TRUE(where.is_absolute()) << where;
  EXPECT_EQ(where.filename().string().rfind(stem, 0), 0u) << where;
  FreeModule(m);
#ifdef _WIN32
  EXPECT_STREQ(ModuleSuffix(), ".dll");
#else
  EXPECT_STREQ(ModuleSuffix(), ".so");
#endif

  // The main program is a module too; failures name what failed.
  static int inThisProgram = 0;
  EXPECT_EQ(ModulePathOf(&inThisProgram), ExecutablePath());
  const std::filesystem::path exe = vx::ToUtf8(ExecutablePath());
  EXPECT_TRUE(exe.is_absolute());
  EXPECT_EQ(exe.stem(), "vx_tests_platform");
  EXPECT_TRUE(ModulePathOf(nullptr).empty());
  EXPECT_EQ(LoadModule(VXT("/nonexistent/libnothing.so")), nullptr);
  EXPECT_NE(LastModuleError().find("libnothing"), std::string::npos);
  FreeModule(nullptr);
}

TEST(Environment, UnsetVariableLeavesTheValueAlone) {
  std::string v = "untouched";
  EXPECT_FALSE(GetEnv("VX_SURELY_NOT_SET_ANYWHERE", &v));
  EXPECT_EQ(v, "untouched");
  EXPECT_FALSE(GetEnv(nullptr, &v));
  ASSERT_TRUE(GetEnv("PATH", &v));
  EXPECT_FALSE(v.empty());
}

}  // namespace
