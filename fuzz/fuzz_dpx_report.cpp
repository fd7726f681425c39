// The DPX header report over arbitrary header bytes and buffer sizes: it must never read or
// write out of bounds and must always leave a terminated text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "still/dpx/dpx_report.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  // The first two bytes pick the capacity, from below the minimum to a roomy buffer.
  const int capacity = 700 + (data[0] | data[1] << 8) % 12000;
  data += 2;
  size -= 2;
  std::vector<VxChar> buffer(static_cast<std::size_t>(capacity) + 1, u'#');
  const HRESULT hr =
      vx::dpx::DpxHeaderReportFromBytes(VXT("fuzz.dpx"), data, size, buffer.data(), capacity);
  if (capacity < vx::dpx::kReportMinCapacity) {
    if (hr != E_INVALIDARG || buffer[0] != u'#') std::abort();
    return 0;
  }
  if (hr != S_OK || buffer[static_cast<std::size_t>(capacity)] != u'#') std::abort();
  bool terminated = false;
  for (int i = 0; i < capacity && !terminated; ++i)
    terminated = buffer[static_cast<std::size_t>(i)] == 0;
  if (!terminated) std::abort();
  return 0;
}
