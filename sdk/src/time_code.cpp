// Host time, frame-rate formats, SMPTE time code words and film edge code.
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

#include "vx/sdk.h"

namespace {

// 64x64 -> 128-bit multiply and 128/64 divide without a compiler 128-bit type (the 32-bit
// Windows compiler has none). Magnitudes only; callers handle signs.
struct U128 {
  std::uint64_t hi = 0, lo = 0;
};

U128 Mul(std::uint64_t a, std::uint64_t b) {
  const std::uint64_t a0 = a & 0xFFFFFFFFu, a1 = a >> 32, b0 = b & 0xFFFFFFFFu, b1 = b >> 32;
  const std::uint64_t p00 = a0 * b0, p01 = a0 * b1, p10 = a1 * b0, p11 = a1 * b1;
  const std::uint64_t mid = (p00 >> 32) + (p01 & 0xFFFFFFFFu) + (p10 & 0xFFFFFFFFu);
  U128 r;
  r.lo = (mid << 32) | (p00 & 0xFFFFFFFFu);
  r.hi = p11 + (p01 >> 32) + (p10 >> 32) + (mid >> 32);
  return r;
}

// Quotient (saturated to 64 bits) and whether a remainder was left.
std::uint64_t Div(U128 n, std::uint64_t d, bool* inexact) {
  if (n.hi >= d) {  // quotient does not fit
    *inexact = false;
    return std::numeric_limits<std::uint64_t>::max();
  }
  std::uint64_t rem = n.hi, q = 0;
  for (int i = 63; i >= 0; --i) {
    const bool carry = (rem >> 63) != 0;
    rem = (rem << 1) | ((n.lo >> i) & 1u);
    q <<= 1;
    if (carry || rem >= d) {
      rem -= d;
      q |= 1;
    }
  }
  *inexact = rem != 0;
  return q;
}

// a * b / d for non-negative b and positive d, rounded toward minus infinity (ceil = false) or
// plus infinity (ceil = true); saturates at the int64 range.
std::int64_t MulDiv(std::int64_t a, std::uint64_t b, std::uint64_t d, bool ceil) {
  const bool negative = a < 0;
  const std::uint64_t mag =
      negative ? static_cast<std::uint64_t>(-(a + 1)) + 1 : static_cast<std::uint64_t>(a);
  bool inexact = false;
  std::uint64_t q = Div(Mul(mag, b), d, &inexact);
  // Rounding away from zero is needed for floor of a negative or ceil of a positive.
  if (inexact && negative != ceil && q != std::numeric_limits<std::uint64_t>::max()) ++q;
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (!negative)
    return q > kMax ? std::numeric_limits<std::int64_t>::max() : static_cast<std::int64_t>(q);
  if (q > kMax) return std::numeric_limits<std::int64_t>::min();
  return -static_cast<std::int64_t>(q);
}

bool ValidFormat(const VxTimeFormat& f) {
  return f.rateNum > 0 && f.rateDen > 0;
}

}  // namespace

VxTimeFormat VxGetTimeFormatFromSampleRate(double rate) {
  VxTimeFormat f;
  f.rateNum = 0;
  f.rateDen = 1;
  // rate * 1000 has to fit the 32-bit numerator.
  if (!(rate > 0.0) || !(rate < 2000000.0)) return f;
  // NTSC-family rates are written with three decimals but mean N*1000/1001 exactly.
  for (int n : {24, 30, 48, 60, 120}) {
    if (std::fabs(rate - n * 1000.0 / 1001.0) <= 0.001) {
      f.rateNum = n * 1000;
      f.rateDen = 1001;
      return f;
    }
  }
  const auto milli = static_cast<std::int64_t>(std::llround(rate * 1000.0));
  if (milli <= 0) return f;
  const std::int64_t g = std::gcd(milli, std::int64_t{1000});
  f.rateNum = static_cast<std::int32_t>(milli / g);
  f.rateDen = static_cast<std::int32_t>(1000 / g);
  return f;
}

// Start of a frame is the first tick that belongs to it, so ToFrame maps it back exactly even
// for rates that do not divide the time base.
CVxTime::CVxTime(std::int64_t frame, const VxTimeFormat& format) {
  if (!ValidFormat(format)) return;
  const std::uint64_t perFrame =
      static_cast<std::uint64_t>(kVxTicksPerSecond) * static_cast<std::uint64_t>(format.rateDen);
  ticks_ = MulDiv(frame, perFrame, static_cast<std::uint64_t>(format.rateNum), /*ceil=*/true);
}

std::int64_t CVxTime::ToFrame(const VxTimeFormat& format) const {
  if (!ValidFormat(format)) return 0;
  const std::uint64_t perFrame =
      static_cast<std::uint64_t>(kVxTicksPerSecond) * static_cast<std::uint64_t>(format.rateDen);
  return MulDiv(ticks_, static_cast<std::uint64_t>(format.rateNum), perFrame, /*ceil=*/false);
}

DWORD VxConstructLTCInBCD(int hours, int minutes, int seconds, int frames) {
  const int fields[4] = {hours, minutes, seconds, frames};
  DWORD word = 0;
  for (int v : fields) {
    if (v < 0 || v > 99) return 0xFFFFFFFFu;  // the "not given" value of time code fields
    word = (word << 8) | static_cast<DWORD>((v / 10) << 4 | (v % 10));
  }
  return word;
}

bool VxParseLTCInBCD(DWORD bcd, int* hours, int* minutes, int* seconds, int* frames) {
  int values[4];
  for (int i = 0; i < 4; ++i) {
    const unsigned byte = (bcd >> (24 - 8 * i)) & 0xFFu;
    const unsigned tens = byte >> 4, units = byte & 0xFu;
    if (tens > 9 || units > 9) return false;
    values[i] = static_cast<int>(tens * 10 + units);
  }
  if (hours) *hours = values[0];
  if (minutes) *minutes = values[1];
  if (seconds) *seconds = values[2];
  if (frames) *frames = values[3];
  return true;
}

namespace {

std::string Trimmed(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\0' || c == '\r' || c == '\n'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return std::string(s);
}

// Takes the text up to `sep` (or all of it when absent) and moves past the separator.
std::string_view Field(std::string_view* rest, char sep) {
  const std::size_t at = rest->find(sep);
  std::string_view field = rest->substr(0, at);
  rest->remove_prefix(at == std::string_view::npos ? rest->size() : at + 1);
  return field;
}

}  // namespace

// Header fields may be blank-padded ("K " for "K"), so the three leading fields are taken as
// words when there are three of them; otherwise by position between single separators, which
// keeps empty fields in their places.
bool EdgeCode::InitFromString(const char* text) {
  manufacturer.clear();
  filmType.clear();
  perfOffset.clear();
  prefix.clear();
  count.clear();
  valid_ = false;
  if (!text) return false;
  std::string_view rest(text);
  const std::size_t headEnd = rest.find_first_of("-+");
  std::string_view head = rest.substr(0, headEnd);
  rest.remove_prefix(headEnd == std::string_view::npos ? rest.size() : headEnd);

  std::vector<std::string_view> words;
  for (std::string_view h = head; !h.empty();) {
    const std::size_t start = h.find_first_not_of(" \t");
    if (start == std::string_view::npos) break;
    h.remove_prefix(start);
    const std::size_t end = h.find_first_of(" \t");
    words.push_back(h.substr(0, end));
    h.remove_prefix(end == std::string_view::npos ? h.size() : end);
  }
  if (words.size() == 3) {
    manufacturer = Trimmed(words[0]);
    filmType = Trimmed(words[1]);
    perfOffset = Trimmed(words[2]);
  } else {
    manufacturer = Trimmed(Field(&head, ' '));
    filmType = Trimmed(Field(&head, ' '));
    perfOffset = Trimmed(head);
  }
  if (!rest.empty() && rest.front() == '-') {
    rest.remove_prefix(1);
    prefix = Trimmed(Field(&rest, '+'));
  } else if (!rest.empty()) {
    rest.remove_prefix(1);  // '+': no prefix
  }
  count = Trimmed(rest);
  valid_ = !manufacturer.empty() || !filmType.empty() || !prefix.empty() || !count.empty();
  return valid_;
}

void EdgeCode::InitPos(int type) {
  perfType = type;
}

std::string EdgeCode::ToString() const {
  if (!valid_) return std::string();
  return manufacturer + ' ' + filmType + ' ' + perfOffset + '-' + prefix + '+' + count;
}
