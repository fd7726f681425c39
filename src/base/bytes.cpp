#include "base/bytes.h"

#include <algorithm>

// Sample swaps run over every block a big-endian sound read hands the host, so on x86 they use
// SSSE3's byte shuffle when the processor has it (chosen once, at run time; the build targets
// plain SSE2 and 32-bit Windows too). Other processors and the tails take the scalar loops.
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
#include <emmintrin.h>
#include <tmmintrin.h>
#define VX_SWAP_SSSE3 1
#endif

namespace vx {
namespace {

void SwapScalar(std::uint8_t* p, std::size_t count, int width) {
  switch (width) {
    case 2:
      for (std::size_t i = 0; i < count; ++i, p += 2)
        StoreRaw(p, Swap16(LoadRaw<std::uint16_t>(p)));
      break;
    case 3:
      for (std::size_t i = 0; i < count; ++i, p += 3) std::swap(p[0], p[2]);
      break;
    case 4:
      for (std::size_t i = 0; i < count; ++i, p += 4)
        StoreRaw(p, Swap32(LoadRaw<std::uint32_t>(p)));
      break;
    case 8:
      for (std::size_t i = 0; i < count; ++i, p += 8)
        StoreRaw(p, Swap64(LoadRaw<std::uint64_t>(p)));
      break;
    default:
      break;
  }
}

#ifdef VX_SWAP_SSSE3

bool HasSsse3() {
  static const bool has = __builtin_cpu_supports("ssse3");
  return has;
}

// 2, 4 or 8 bytes: every value lies inside one 16-byte vector. Answers the values done.
__attribute__((target("ssse3"))) std::size_t SwapVectors(std::uint8_t* p, std::size_t count,
                                                         int width) {
  __m128i order;
  if (width == 2)
    order = _mm_setr_epi8(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14);
  else if (width == 4)
    order = _mm_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
  else
    order = _mm_setr_epi8(7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8);
  const std::size_t vectors = count * static_cast<std::size_t>(width) / 16;
  auto* v = reinterpret_cast<__m128i*>(p);
  for (std::size_t i = 0; i < vectors; ++i)
    _mm_storeu_si128(v + i, _mm_shuffle_epi8(_mm_loadu_si128(v + i), order));
  return vectors * 16 / static_cast<std::size_t>(width);
}

// 3 bytes: sixteen values are three vectors, and values 5 and 10 straddle two of them, so each
// output vector gathers from its neighbours too (-1 picks a zero). Answers the values done.
__attribute__((target("ssse3"))) std::size_t Swap24Vectors(std::uint8_t* p, std::size_t count) {
  const __m128i a0 = _mm_setr_epi8(2, 1, 0, 5, 4, 3, 8, 7, 6, 11, 10, 9, 14, 13, 12, -1);
  const __m128i b0 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 1);
  const __m128i a1 = _mm_setr_epi8(-1, 15, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i b1 = _mm_setr_epi8(0, -1, 4, 3, 2, 7, 6, 5, 10, 9, 8, 13, 12, 11, -1, 15);
  const __m128i c1 = _mm_setr_epi8(-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, 0, -1);
  const __m128i b2 = _mm_setr_epi8(14, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1);
  const __m128i c2 = _mm_setr_epi8(-1, 3, 2, 1, 6, 5, 4, 9, 8, 7, 12, 11, 10, 15, 14, 13);
  const std::size_t blocks = count / 16;
  auto* v = reinterpret_cast<__m128i*>(p);
  for (std::size_t i = 0; i < blocks; ++i, v += 3) {
    const __m128i a = _mm_loadu_si128(v), b = _mm_loadu_si128(v + 1), c = _mm_loadu_si128(v + 2);
    _mm_storeu_si128(v, _mm_or_si128(_mm_shuffle_epi8(a, a0), _mm_shuffle_epi8(b, b0)));
    _mm_storeu_si128(v + 1,
                     _mm_or_si128(_mm_or_si128(_mm_shuffle_epi8(a, a1), _mm_shuffle_epi8(b, b1)),
                                  _mm_shuffle_epi8(c, c1)));
    _mm_storeu_si128(v + 2, _mm_or_si128(_mm_shuffle_epi8(b, b2), _mm_shuffle_epi8(c, c2)));
  }
  return blocks * 16;
}

// Two pixels a vector. Once `out` sits on a 16-byte boundary the stores stream: a 4K picture is
// larger than any cache, and filling lines we will not read again would double the traffic.
// Answers the pixels done.
__attribute__((target("ssse3"))) std::size_t WidenVectors(const std::uint8_t* in, std::uint8_t* out,
                                                          std::size_t count, bool alpha, bool big) {
  if ((reinterpret_cast<std::uintptr_t>(out) & 15) != 0) return 0;
  const int step = alpha ? 16 : 12;
  const __m128i order =
      big ? (alpha ? _mm_setr_epi8(1, 0, 3, 2, 5, 4, 7, 6, 9, 8, 11, 10, 13, 12, 15, 14)
                   : _mm_setr_epi8(1, 0, 3, 2, 5, 4, -1, -1, 7, 6, 9, 8, 11, 10, -1, -1))
          : (alpha ? _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15)
                   : _mm_setr_epi8(0, 1, 2, 3, 4, 5, -1, -1, 6, 7, 8, 9, 10, 11, -1, -1));
  const __m128i fill = alpha ? _mm_setzero_si128() : _mm_setr_epi16(0, 0, 0, -1, 0, 0, 0, -1);
  const std::size_t pairs = count / 2;
  auto* to = reinterpret_cast<__m128i*>(out);
  for (std::size_t i = 0; i < pairs; ++i, in += step) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    _mm_stream_si128(to + i, _mm_or_si128(_mm_shuffle_epi8(v, order), fill));
  }
  _mm_sfence();
  return pairs * 2;
}

#endif

}  // namespace

namespace {

void WidenScalar(const std::uint8_t* in, std::uint8_t* out, std::size_t count, bool alpha,
                 bool big) {
  const std::size_t inStep = alpha ? 8 : 6;
  for (std::size_t i = 0; i < count; ++i, in += inStep, out += 8) {
    StoreRaw(out, Load16(in, big));
    StoreRaw(out + 2, Load16(in + 2, big));
    StoreRaw(out + 4, Load16(in + 4, big));
    StoreRaw(out + 6, alpha ? Load16(in + 6, big) : std::uint16_t{0xFFFF});
  }
}

}  // namespace

void WidenRgb16ToRgba16(const std::uint8_t* in, std::uint8_t* out, std::size_t count, bool alpha,
                        bool big) {
  const std::size_t inStep = alpha ? 8 : 6;
  std::size_t done = 0;
#ifdef VX_SWAP_SSSE3
  // Rows of 8-byte pixels that start half way into a vector take one pixel first.
  const std::size_t lead = (reinterpret_cast<std::uintptr_t>(out) & 15) == 8 ? 1 : 0;
  if (HasSsse3() && count > lead) {
    WidenScalar(in, out, lead, alpha, big);
    done = lead + WidenVectors(in + lead * inStep, out + lead * 8, count - lead, alpha, big);
  }
#endif
  WidenScalar(in + done * inStep, out + done * 8, count - done, alpha, big);
}

void SwapInPlace(void* data, std::size_t count, int width) {
  auto* p = static_cast<std::uint8_t*>(data);
  std::size_t done = 0;
#ifdef VX_SWAP_SSSE3
  if (HasSsse3()) {
    if (width == 3)
      done = Swap24Vectors(p, count);
    else if (width == 2 || width == 4 || width == 8)
      done = SwapVectors(p, count, width);
  }
#endif
  if (width > 0) SwapScalar(p + done * static_cast<std::size_t>(width), count - done, width);
}

}  // namespace vx
