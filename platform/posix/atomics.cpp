#include "vx/platform.h"

namespace vx::os {

std::int32_t AtomicIncrement(volatile std::int32_t* v) {
  return __atomic_add_fetch(v, 1, __ATOMIC_SEQ_CST);
}
std::int32_t AtomicDecrement(volatile std::int32_t* v) {
  return __atomic_sub_fetch(v, 1, __ATOMIC_SEQ_CST);
}
std::int32_t AtomicExchange(volatile std::int32_t* v, std::int32_t value) {
  return __atomic_exchange_n(v, value, __ATOMIC_SEQ_CST);
}
std::int32_t AtomicCompareExchange(volatile std::int32_t* v, std::int32_t exchange,
                                   std::int32_t comparand) {
  __atomic_compare_exchange_n(v, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return comparand;
}
std::int32_t AtomicLoad(const volatile std::int32_t* v) {
  return __atomic_load_n(v, __ATOMIC_SEQ_CST);
}

}  // namespace vx::os
