#include "vx/vxchar.h"

#include <cstdint>

namespace vx {

std::size_t StrLen(const VxChar* s) {
  if (!s) return 0;
  std::size_t n = 0;
  while (s[n]) ++n;
  return n;
}

std::string ToUtf8(VxStringView text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint32_t c = static_cast<std::uint16_t>(text[i]);
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size()) {
      std::uint32_t lo = static_cast<std::uint16_t>(text[i + 1]);
      if (lo >= 0xDC00 && lo <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (lo - 0xDC00);
        ++i;
      } else {
        c = 0xFFFD;
      }
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

VxString FromUtf8(std::string_view text) {
  VxString out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    auto b = static_cast<std::uint8_t>(text[i]);
    std::uint32_t c;
    int extra;
    if (b < 0x80) {
      c = b;
      extra = 0;
    } else if ((b & 0xE0) == 0xC0) {
      c = b & 0x1F;
      extra = 1;
    } else if ((b & 0xF0) == 0xE0) {
      c = b & 0x0F;
      extra = 2;
    } else if ((b & 0xF8) == 0xF0) {
      c = b & 0x07;
      extra = 3;
    } else {
      out += static_cast<VxChar>(0xFFFD);
      ++i;
      continue;
    }
    bool ok = true;
    for (int k = 1; k <= extra; ++k) {
      if (i + k >= text.size()) {
        ok = false;
        break;
      }
      auto cb = static_cast<std::uint8_t>(text[i + k]);
      if ((cb & 0xC0) != 0x80) {
        ok = false;
        break;
      }
      c = (c << 6) | (cb & 0x3F);
    }
    if (!ok) {
      out += static_cast<VxChar>(0xFFFD);
      ++i;
      continue;
    }
    i += 1 + extra;
    // Overlong forms would let e.g. "/" or NUL hide in a longer encoding.
    static constexpr std::uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
    if (c < kMinimum[extra]) {
      out += static_cast<VxChar>(0xFFFD);
    } else if (c >= 0x10000 && c <= 0x10FFFF) {
      c -= 0x10000;
      out += static_cast<VxChar>(0xD800 + (c >> 10));
      out += static_cast<VxChar>(0xDC00 + (c & 0x3FF));
    } else if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
      out += static_cast<VxChar>(0xFFFD);
    } else {
      out += static_cast<VxChar>(c);
    }
  }
  return out;
}

}  // namespace vx
