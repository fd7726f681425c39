// Checked size arithmetic for every place where values read from a file become sizes, offsets or
// allocation lengths. A false result means "the file lies": callers answer E_FAIL.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace vx {

template <class T>
[[nodiscard]] constexpr bool CheckedMul(T a, T b, T* out) {
  static_assert(std::is_integral_v<T>);
  return !__builtin_mul_overflow(a, b, out);
}
template <class T>
[[nodiscard]] constexpr bool CheckedAdd(T a, T b, T* out) {
  static_assert(std::is_integral_v<T>);
  return !__builtin_add_overflow(a, b, out);
}

// a · b · c (and so on) in 64 bits; false on overflow.
[[nodiscard]] constexpr bool CheckedProduct(std::uint64_t* out, std::uint64_t a) {
  *out = a;
  return true;
}
template <class... Rest>
[[nodiscard]] constexpr bool CheckedProduct(std::uint64_t* out, std::uint64_t a, std::uint64_t b,
                                            Rest... rest) {
  std::uint64_t ab = 0;
  return CheckedMul(a, b, &ab) && CheckedProduct(out, ab, static_cast<std::uint64_t>(rest)...);
}

// True when [offset, offset + length) lies inside a file (or buffer) of `size` bytes.
[[nodiscard]] constexpr bool RangeInside(std::uint64_t offset, std::uint64_t length,
                                         std::uint64_t size) {
  return offset <= size && length <= size - offset;
}

// A 64-bit size that must also fit this process's size_t (32-bit builds) to be allocated.
[[nodiscard]] constexpr bool FitsSizeT(std::uint64_t v) {
  return v <= std::numeric_limits<std::size_t>::max();
}

// Largest buffer a parser allocates from sizes a file claims before it has seen that many bytes:
// a header that promises more than this is checked against the file's real size first.
inline constexpr std::uint64_t kMaxFileClaimedAllocation = std::uint64_t{1} << 31;

}  // namespace vx
