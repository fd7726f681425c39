#include "red/r3d/r3d_container.h"

#include <utility>

#include "base/bytes.h"
#include "vx/platform.h"

namespace vx::red {

namespace {

constexpr std::uint32_t kRed1HeaderBytes = 324;  // atom header included
constexpr std::uint32_t kRedvPrefix = 12;        // time stamp, frame number, version, flags
constexpr std::uint32_t kMaxMetadataBytes = 1 << 20;
constexpr std::size_t kMaxFrames = 10'000'000;
constexpr std::uint32_t kMaxSide = 65535;

std::uint32_t Tag(const char (&t)[5]) {
  return LoadBE32(t);
}

bool ReadExact(os::FileHandle f, std::uint64_t at, void* buf, std::uint32_t n) {
  std::uint32_t done = 0;
  return os::ReadAt(f, at, buf, n, &done) && done == n;
}

void ParseMetadata(const std::string& text, std::map<std::string, std::string>* out) {
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(at, end - at);
    const std::size_t eq = line.find('=');
    if (eq != std::string::npos && eq > 0) (*out)[line.substr(0, eq)] = line.substr(eq + 1);
    at = end + 1;
  }
}

// One file of the clip: its header must match `out`'s size when `first` is false.
bool ReadPart(const VxChar* path, std::uint32_t part, bool first, R3DIndex* out) {
  os::UniqueFile f(os::OpenRead(path));
  std::uint64_t size = 0;
  if (!f || !os::Size(f.get(), &size)) return false;
  std::uint8_t h[kRed1HeaderBytes];
  if (size < kRed1HeaderBytes || !ReadExact(f.get(), 0, h, kRed1HeaderBytes)) return false;
  const std::uint32_t headerSize = LoadBE32(h);
  if (LoadBE32(h + 4) != Tag("RED1") || headerSize < kRed1HeaderBytes || headerSize > size)
    return false;
  const std::uint32_t width = LoadBE32(h + 52);
  const std::uint32_t height = LoadBE32(h + 56);
  const std::uint32_t rateNum = LoadBE16(h + 62);
  const std::uint32_t rateDen = LoadBE16(h + 64);
  if (width == 0 || height == 0 || width > kMaxSide || height > kMaxSide || rateNum == 0 ||
      rateDen == 0)
    return false;
  if (first) {
    out->width = width;
    out->height = height;
    out->rateNumerator = rateNum;
    out->rateDenominator = rateDen;
  } else if (width != out->width || height != out->height) {
    return false;
  }

  std::uint64_t at = headerSize;
  std::uint8_t a[8 + kRedvPrefix];
  while (at + 8 <= size) {
    if (!ReadExact(f.get(), at, a, 8)) break;
    const std::uint32_t atomSize = LoadBE32(a);
    const std::uint32_t tag = LoadBE32(a + 4);
    if (atomSize < 8 || atomSize > size - at) break;  // damaged or cut short: the clip ends
    if (tag == Tag("REDV") && atomSize > 8 + kRedvPrefix) {
      if (out->frames.size() >= kMaxFrames) break;
      out->frames.push_back({part, at + 8 + kRedvPrefix, atomSize - 8 - kRedvPrefix});
    } else if (tag == Tag("RDMT") && first && atomSize - 8 <= kMaxMetadataBytes) {
      std::string text(atomSize - 8, '\0');
      if (!ReadExact(f.get(), at + 8, text.data(), atomSize - 8)) break;
      ParseMetadata(text, &out->metadata);
    }
    at += atomSize;
  }
  return true;
}

}  // namespace

VxString NextR3DPart(VxStringView path) {
  const std::size_t dot = path.rfind(VXT('.'));
  if (dot == VxStringView::npos || dot < 4) return {};
  std::size_t digits = dot;
  while (digits > 0 && path[digits - 1] >= VXT('0') && path[digits - 1] <= VXT('9')) --digits;
  if (dot - digits != 3 || digits == 0 || path[digits - 1] != VXT('_')) return {};
  int n = (path[digits] - VXT('0')) * 100 + (path[digits + 1] - VXT('0')) * 10 +
          (path[digits + 2] - VXT('0'));
  if (++n > 999) return {};
  VxString next(path);
  next[digits] = static_cast<VxChar>(VXT('0') + n / 100);
  next[digits + 1] = static_cast<VxChar>(VXT('0') + n / 10 % 10);
  next[digits + 2] = static_cast<VxChar>(VXT('0') + n % 10);
  return next;
}

bool ReadR3DIndex(const VxChar* path, R3DIndex* out) {
  if (!path || !out) return false;
  R3DIndex index;
  if (!ReadPart(path, 0, true, &index)) return false;
  index.parts.push_back(path);
  for (VxString next = NextR3DPart(path); !next.empty() && os::IsFile(next.c_str());
       next = NextR3DPart(next)) {
    if (!ReadPart(next.c_str(), static_cast<std::uint32_t>(index.parts.size()), false, &index))
      return false;
    index.parts.push_back(next);
  }
  if (index.frames.empty()) return false;
  *out = std::move(index);
  return true;
}

}  // namespace vx::red
