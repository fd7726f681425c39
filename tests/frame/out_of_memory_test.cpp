// Allocation failures inside the component come out of its interfaces as E_OUTOFMEMORY. This
// program replaces the global allocator: while a test arms it, the Nth allocation of the arming
// thread fails, and the test walks N upwards until the whole call sequence gets through.
#include <atomic>
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "base/module.h"
#include "frame/class_factory.h"
#include "test_util.h"
#include "vx/com_ptr.h"
#include "vx/parser.h"

namespace {

thread_local long t_allocationsLeft = -1;  // -1: not armed
thread_local bool t_failed = false;

void* Allocate(std::size_t n) {
  if (t_allocationsLeft == 0) {
    t_failed = true;
    return nullptr;
  }
  if (t_allocationsLeft > 0) --t_allocationsLeft;
  return std::malloc(n ? n : 1);
}

void* AllocateOrThrow(std::size_t n) {
  if (void* p = Allocate(n)) return p;
  throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t n) {
  return AllocateOrThrow(n);
}
void* operator new[](std::size_t n) {
  return AllocateOrThrow(n);
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
  return Allocate(n);
}
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
  return Allocate(n);
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}

namespace {

constexpr GUID kDpx = {
    0xB980120D, 0xCF7D, 0x49D4, {0x93, 0x3F, 0x46, 0x7E, 0x7B, 0x54, 0x11, 0x11}};

// Makes a DPX parser through the class object and opens a numbered sequence, the path a host
// takes; stops at the first failure and answers it.
HRESULT OpenThroughTheFactory(const VxString& pattern) {
  vx::ComPtr<IClassFactory> factory;
  HRESULT hr = vx::frame::GetClassObject(kDpx, IID_IClassFactory, factory.put_void());
  if (FAILED(hr)) return hr;
  vx::ComPtr<IVxMediaFileParser> parser;
  hr = factory->CreateInstance(nullptr, IID_IVxMediaFileParser, parser.put_void());
  if (FAILED(hr)) return hr;
  return parser->Open(pattern.c_str(), 0);
}

TEST(OutOfMemory, EveryAllocationFailureComesOutAsAStatus) {
  vxtest::TempDir dir;
  for (int i = 1; i <= 3; ++i)
    vxtest::WriteFile(dir / ("shot.000" + std::to_string(i) + ".dpx"), {0});
  const VxString pattern = vxtest::Wide(dir / "shot.####.dpx");
  const std::int32_t objects = vx::module::ObjectCount();

  int outOfMemory = 0, notBuilt = 0;
  HRESULT hr = E_FAIL;
  long n = 0;
  for (; n < 100000; ++n) {
    t_failed = false;
    t_allocationsLeft = n;
    hr = OpenThroughTheFactory(pattern);
    t_allocationsLeft = -1;
    if (!t_failed) break;  // every allocation was granted: the sequence went through
    SCOPED_TRACE("failing allocation " + std::to_string(n));
    // The factory's own parser allocation answers E_NOINTERFACE, as a host expects of it.
    ASSERT_TRUE(hr == E_OUTOFMEMORY || hr == E_NOINTERFACE) << std::hex << hr;
    (hr == E_OUTOFMEMORY ? outOfMemory : notBuilt) += 1;
    // Whatever failed, nothing the component made stays alive.
    ASSERT_EQ(vx::module::ObjectCount(), objects);
  }
  EXPECT_EQ(hr, S_OK);
  EXPECT_EQ(notBuilt, 1);
  // Factory, parser state and the sequence's file list all allocate: most failures are inside
  // Open, below the parser's interface.
#ifdef _WIN32
  // The SDK DLL carries its own runtime, so the file list's allocations are out of this program's
  // reach there.
  constexpr int kFailuresInsideOpen = 1;
#else
  constexpr int kFailuresInsideOpen = 3;
#endif
  EXPECT_GT(outOfMemory, kFailuresInsideOpen) << "allocations tried: " << n;
  EXPECT_EQ(vx::module::ObjectCount(), objects);
}

}  // namespace
