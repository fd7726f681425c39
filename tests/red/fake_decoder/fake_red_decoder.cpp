// A stand-in RedDecoder for the pool tests: it serves the channel as the real program does but
// "decodes" by stamping the result block with the request's frame, mode and pixel format, and it
// logs every decode ("slot frame" lines) to $VX_RED_TEST_LOG. $VX_RED_TEST_HANG_FRAME makes it
// exit without answering when asked for that frame, as a decoder killed mid-frame would.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vx/platform.h"

namespace {

std::uint32_t Load32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
         std::uint32_t{p[3]} << 24;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 8) return 2;
  using namespace vx::os;
  SharedMemory instruction, result;
  if (!OpenSharedMemory(vx::FromUtf8(argv[2]).c_str(), 688, &instruction) ||
      !OpenSharedMemory(vx::FromUtf8(argv[3]).c_str(), 0x6978200, &result))
    return 3;
  EventHandle start = OpenEvent(vx::FromUtf8(argv[4]).c_str());
  EventHandle end = OpenEvent(vx::FromUtf8(argv[5]).c_str());
  EventHandle term = OpenEvent(vx::FromUtf8(argv[6]).c_str());
  if (!start || !end || !term) return 4;
  const char* log = std::getenv("VX_RED_TEST_LOG");
  const char* hang = std::getenv("VX_RED_TEST_HANG_FRAME");
  int code = 0;
  // Never outlive a test run by long, whatever happens to the test.
  for (int idle = 0; idle < 600; ++idle) {
    if (WaitEvent(term, 0) == Wait::Signaled) break;
    if (WaitEvent(start, 100) != Wait::Signaled) continue;
    idle = 0;
    const auto* req = static_cast<const std::uint8_t*>(instruction.view);
    const std::int32_t frame = static_cast<std::int32_t>(Load32(req + 524));
    if (hang && std::atoi(hang) == frame) {
      code = 5;
      break;
    }
    auto* out = static_cast<std::uint8_t*>(result.view);
    std::memcpy(out, req + 524, 4);
    std::memcpy(out + 4, req + 0, 4);
    std::memcpy(out + 8, req + 644, 4);
    if (log) {
      if (std::FILE* f = std::fopen(log, "ab")) {
        std::fprintf(f, "%s %d\n", argv[1], static_cast<int>(frame));
        std::fclose(f);
      }
    }
    SetEvent(end);
  }
  CloseEvent(start);
  CloseEvent(end);
  CloseEvent(term);
  CloseSharedMemory(&instruction);
  CloseSharedMemory(&result);
  return code;
}
