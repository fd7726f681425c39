#include "base/text.h"

#include <atomic>

#include "vx/platform.h"

namespace vx {

VxString TemporaryNameBeside(const VxChar* path) {
  static std::atomic<std::uint64_t> counter{0};
  return FromUtf8(ToUtf8(path) + "." + std::to_string(os::CurrentProcessId()) + "." +
                  std::to_string(counter.fetch_add(1)) + ".tmp");
}

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int Sextet(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}
}  // namespace

std::string Base64Encode(const std::uint8_t* data, std::size_t size) {
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  for (std::size_t i = 0; i < size; i += 3) {
    const std::size_t n = size - i < 3 ? size - i : 3;
    std::uint32_t v = std::uint32_t{data[i]} << 16;
    if (n > 1) v |= std::uint32_t{data[i + 1]} << 8;
    if (n > 2) v |= data[i + 2];
    for (std::size_t k = 0; k < 4; ++k) out += k <= n ? kAlphabet[(v >> (18 - 6 * k)) & 63] : '=';
  }
  return out;
}

bool Base64Decode(std::string_view text, std::vector<std::uint8_t>* out) {
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  if (text.size() % 4 == 1) return false;
  out->clear();
  out->reserve(text.size() * 3 / 4);
  std::uint32_t v = 0;
  int bits = 0;
  for (char c : text) {
    const int s = Sextet(c);
    if (s < 0) return false;
    v = (v << 6) | static_cast<std::uint32_t>(s);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out->push_back(static_cast<std::uint8_t>(v >> bits));
    }
  }
  return true;
}

}  // namespace vx
