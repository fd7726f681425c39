#include "qt_decoder_loop.h"

#include <cstdio>
#include <cstdlib>

#include "movie/qt/qt_channel.h"
#include "vx/platform.h"

namespace vx::qt::decoder {
namespace {

std::uint32_t g_hostPid = 0;
os::EventHandle g_terminate = nullptr;

}  // namespace

void HangUntilTold() {
  for (;;) {
    if (os::WaitEvent(g_terminate, 100) == os::Wait::Signaled) std::exit(0);
    if (!os::ProcessIsRunning(g_hostPid)) std::exit(0);
  }
}

bool ReadText(const unsigned char* ins, std::uint32_t offset, std::uint32_t count,
              std::string* out) {
  const std::uint32_t end = kInsPayload + count;
  if (count > kMaxPayload || offset >= end) return false;
  VxString s;
  for (std::uint32_t p = offset; p + 1 < end; p += 2) {
    const auto c = static_cast<VxChar>(ins[p] | ins[p + 1] << 8);
    if (!c) {
      *out = vx::ToUtf8(s);
      return true;
    }
    s += c;
  }
  return false;
}

int Run(int argc, char** argv, ServeFn serve) {
  if (argc != 7) {
    std::fprintf(stderr, "usage: QTDecoder INSTRUCTION RESULT START END TERMINATE HOSTPID\n");
    return 2;
  }
  g_hostPid = static_cast<std::uint32_t>(std::strtoul(argv[6], nullptr, 10));
  os::SharedMemory ins{}, res{};
  if (!os::OpenSharedMemory(vx::FromUtf8(argv[1]).c_str(), 0, &ins) ||
      !os::OpenSharedMemory(vx::FromUtf8(argv[2]).c_str(), kResultBytes, &res) ||
      ins.size < kInstructionBytes)
    return 1;
  os::EventHandle start = os::OpenEvent(vx::FromUtf8(argv[3]).c_str());
  os::EventHandle end = os::OpenEvent(vx::FromUtf8(argv[4]).c_str());
  g_terminate = os::OpenEvent(vx::FromUtf8(argv[5]).c_str());
  if (!start || !end || !g_terminate) return 1;
  auto* insView = static_cast<unsigned char*>(ins.view);
  auto* resView = static_cast<unsigned char*>(res.view);
  for (;;) {
    if (os::WaitEvent(g_terminate, 0) == os::Wait::Signaled) break;
    const os::Wait w = os::WaitEvent(start, 200);
    if (w == os::Wait::Timeout) {
      if (!os::ProcessIsRunning(g_hostPid)) break;
      continue;
    }
    if (w != os::Wait::Signaled) break;
    Put32(resView, kResStatus, static_cast<std::uint32_t>(serve(insView, resView)));
    os::SetEvent(end);
  }
  os::CloseEvent(start);
  os::CloseEvent(end);
  os::CloseEvent(g_terminate);
  os::CloseSharedMemory(&ins);
  os::CloseSharedMemory(&res);
  return 0;
}

}  // namespace vx::qt::decoder
