#include "win.h"

namespace vx::os {

CriticalSection::CriticalSection() : impl_(new CRITICAL_SECTION) {
  ::InitializeCriticalSection(static_cast<CRITICAL_SECTION*>(impl_));
}

CriticalSection::~CriticalSection() {
  auto* cs = static_cast<CRITICAL_SECTION*>(impl_);
  ::DeleteCriticalSection(cs);
  delete cs;
}

void CriticalSection::Enter() {
  ::EnterCriticalSection(static_cast<CRITICAL_SECTION*>(impl_));
}
void CriticalSection::Leave() {
  ::LeaveCriticalSection(static_cast<CRITICAL_SECTION*>(impl_));
}

// LONG is 32 bits on every Windows ABI, so the counters are the OS's own interlocked type.
static_assert(sizeof(LONG) == sizeof(std::int32_t));

namespace {
volatile LONG* L(volatile std::int32_t* v) {
  return reinterpret_cast<volatile LONG*>(v);
}
}  // namespace

std::int32_t AtomicIncrement(volatile std::int32_t* v) {
  return ::InterlockedIncrement(L(v));
}
std::int32_t AtomicDecrement(volatile std::int32_t* v) {
  return ::InterlockedDecrement(L(v));
}
std::int32_t AtomicExchange(volatile std::int32_t* v, std::int32_t value) {
  return ::InterlockedExchange(L(v), value);
}
std::int32_t AtomicCompareExchange(volatile std::int32_t* v, std::int32_t exchange,
                                   std::int32_t comparand) {
  return ::InterlockedCompareExchange(L(v), exchange, comparand);
}
std::int32_t AtomicLoad(const volatile std::int32_t* v) {
  return __atomic_load_n(v, __ATOMIC_SEQ_CST);
}

}  // namespace vx::os
