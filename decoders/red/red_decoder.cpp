// RedDecoder SLOT INSTRUCTION RESULT START END TERMINATE HOSTPID
//
// One slot of the RED decoder pool: on each start event, decodes the frame of the request in
// the instruction block into the result block (16-byte aligned) in the requested pixel format
// and sets the end event. Ends on the terminate event and when the host process is gone.
// It decodes with its share of the processors among the pool's slots, which it counts by their
// instruction blocks (all made before any decoder starts); VX_RED_DECODER_THREADS sets another
// count (benchmarks compare a one-thread decode with one in the host process).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "red/r3d/red_library.h"
#include "red/r3d/red_process_helper.h"
#include "red/r3d/red_request.h"
#include "vx/platform.h"

namespace {

using namespace vx;
using namespace vx::red;

struct Channel {
  os::SharedMemory instruction, result;
  os::EventHandle start = nullptr, end = nullptr, terminate = nullptr;
  ~Channel() {
    for (os::EventHandle e : {start, end, terminate}) {
      if (e) os::CloseEvent(e);
    }
    os::CloseSharedMemory(&instruction);
    os::CloseSharedMemory(&result);
  }
};

class Server {
 public:
  explicit Server(Channel& c) : c_(c) {
    const auto base = reinterpret_cast<std::uintptr_t>(c.result.view);
    const std::uintptr_t aligned = (base + 15) & ~std::uintptr_t{15};
    out_ = static_cast<std::uint8_t*>(c.result.view) + (aligned - base);
    outBytes_ = static_cast<std::size_t>(kResultBytes - (aligned - base));
  }

  void Serve() {
    std::uint8_t request[kRequestBytes];
    std::memcpy(request, c_.instruction.view, kRequestBytes);
    std::size_t written = 0;
    if (!DecodeRequest(request, &written)) {
      // No status travels back: an empty picture never passes for another frame.
      std::memset(out_, 0, written);
    }
    os::SetEvent(c_.end);
  }

 private:
  bool DecodeRequest(const std::uint8_t* request, std::size_t* written) {
    const VxString path = RequestClipPath(request);
    if (!clip_ || path != path_) {
      clip_.reset();
      path_ = path;
      clip_ = DefaultRedLibrary().OpenClip(path.c_str());
    }
    const int shift = DecodeModeShift(ReqU32(request, kReqDecodeMode));
    if (!clip_ || shift < 0) return false;
    const RedPixels pixels =
        ReqU32(request, kReqPixels) == 2 ? RedPixels::kBgra8 : RedPixels::kRgb16;
    const RedClipInfo& info = clip_->Info();
    const std::size_t bytes = std::size_t{ShiftedSize(info.width, shift)} *
                              ShiftedSize(info.height, shift) * RedPixelBytes(pixels);
    if (bytes > outBytes_) return false;
    *written = bytes;
    const auto frame = static_cast<std::int32_t>(ReqU32(request, kReqFrame));
    return clip_->Decode(frame, shift, pixels, out_, outBytes_);
  }

  Channel& c_;
  std::uint8_t* out_ = nullptr;
  std::size_t outBytes_ = 0;
  VxString path_;
  std::unique_ptr<RedClip> clip_;
};

std::uint32_t CountSlots(std::uint32_t host) {
  std::uint32_t n = 0;
  for (; n < 32; ++n) {
    os::SharedMemory m;
    if (!os::OpenSharedMemory(RedObjectName(RedObject::kInstruction, host, n).c_str(),
                              kInstructionBytes, &m))
      break;
    os::CloseSharedMemory(&m);
  }
  return std::max(1u, n);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 8) return 2;
  Channel c;
  if (!os::OpenSharedMemory(FromUtf8(argv[2]).c_str(), kInstructionBytes, &c.instruction) ||
      !os::OpenSharedMemory(FromUtf8(argv[3]).c_str(), kResultBytes, &c.result))
    return 3;
  c.start = os::OpenEvent(FromUtf8(argv[4]).c_str());
  c.end = os::OpenEvent(FromUtf8(argv[5]).c_str());
  c.terminate = os::OpenEvent(FromUtf8(argv[6]).c_str());
  if (!c.start || !c.end || !c.terminate) return 4;
  const auto host = static_cast<std::uint32_t>(std::strtoul(argv[7], nullptr, 10));

  // Every frame allocates the codec's same large buffers again.
  os::KeepFreedMemory();
  std::string threads;
  const int forced =
      os::GetEnv("VX_RED_DECODER_THREADS", &threads) ? std::atoi(threads.c_str()) : 0;
  DefaultRedLibrary().SetDecodeThreads(
      forced > 0
          ? forced
          : RedDecodeThreads(std::max(1u, std::thread::hardware_concurrency()), CountSlots(host)));

  Server server(c);
  for (;;) {
    // The terminate event first: after a Stop, a new pool of the same host takes these names.
    if (os::WaitEvent(c.terminate, 0) == os::Wait::Signaled) break;
    // Short: a pool started again in this host waits for us to go before it takes the names.
    const os::Wait w = os::WaitEvent(c.start, 100);
    if (w == os::Wait::Signaled) {
      server.Serve();
    } else if (w == os::Wait::Failed || !os::ProcessIsRunning(host)) {
      break;
    }
  }
  return 0;
}
