// CVxRedProcessHelper: the pool of RedDecoder processes (or accelerator-card jobs) that all R3D
// parsers of a process share. Frames after the one asked for are decoded ahead, one per slot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "red/r3d/red_library.h"
#include "vx/platform.h"
#include "vx/sdk.h"

inline constexpr IID IID_IVxRedProcessHelper = {
    0x0D0A65EA, 0xF572, 0x45F5, {0x8F, 0x43, 0xD1, 0x42, 0x03, 0xA2, 0x92, 0xA8}};

struct IVxRedProcessHelper : IUnknown {
  // The frame number `*buffer` holds, -1 (and null) on failure. `request` is 688 bytes.
  virtual std::int32_t STDMETHODCALLTYPE DecodeFrame(const void* request, void** buffer) = 0;
  // 0 when a ready slot held `frame` (it becomes free), 1 when none did.
  virtual std::int32_t STDMETHODCALLTYPE ReleaseFrame(std::int32_t frame) = 0;
  virtual void STDMETHODCALLTYPE Lock() = 0;
  virtual void STDMETHODCALLTYPE Unlock() = 0;
  virtual BYTE STDMETHODCALLTYPE IsRocketMode() = 0;
  virtual std::int32_t STDMETHODCALLTYPE Reserved(void* a, void* b, void* c) = 0;
};

namespace vx::red {

inline constexpr std::uint64_t kInstructionBytes = 688;
inline constexpr std::uint64_t kResultBytes = 0x6978200;  // 110,592,512
inline constexpr std::uint32_t kDecodeWaitMs = 100000;
// A frame's share of a slot: width × height × 8 + 512 bytes.
inline std::uint64_t SlotFrameBytes(std::uint32_t w, std::uint32_t h) {
  return std::uint64_t{w} * h * 8 + 512;
}

// Pool size for a processor count: half of them, 1 to 32.
std::uint32_t RedPoolSize(std::uint32_t processors);
// Threads each of a pool's decoder processes decodes with. Playing, a pool of N slots keeps
// N - 1 frames in flight (the host holds the last one until it releases it), so those share
// the processors; a single slot has them all.
int RedDecodeThreads(std::uint32_t processors, std::uint32_t slots);

// The names of a slot's shared blocks and events.
enum class RedObject { kInstruction, kResult, kStart, kEnd, kTerminate };
VxString RedObjectName(RedObject object, std::uint32_t hostPid, std::uint32_t slot);
// CRC-32, polynomial 0x04C11DB7 most significant bit first, from 0xFFFFFFFF, not inverted.
std::uint32_t RedSettingsCrc(const std::uint8_t* data, std::size_t size);

// One slot's record; 20 bytes on the 32-bit build, as the pool's array layout has it.
struct RedSlot {
  std::uint32_t index;
  std::uint32_t busy;
  std::int32_t frame;
  std::uint32_t ready;
  std::uint8_t* buffer;
};
#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(sizeof(RedSlot) == 20);
#endif

// Whether the card may be used; read at Start. The R3D import's card setting writes it.
void SetRedRocketEnabled(bool enabled);
bool RedRocketEnabled();

class CVxRedProcessHelper final : public IVxGeneric, public IVxRedProcessHelper {
 public:
  CVxRedProcessHelper();  // holds one reference
  CVxRedProcessHelper(const CVxRedProcessHelper&) = delete;
  CVxRedProcessHelper& operator=(const CVxRedProcessHelper&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  HRESULT STDMETHODCALLTYPE Start() override;
  HRESULT STDMETHODCALLTYPE Stop() override;

  std::int32_t STDMETHODCALLTYPE DecodeFrame(const void* request, void** buffer) override;
  std::int32_t STDMETHODCALLTYPE ReleaseFrame(std::int32_t frame) override;
  void STDMETHODCALLTYPE Lock() override;
  void STDMETHODCALLTYPE Unlock() override;
  BYTE STDMETHODCALLTYPE IsRocketMode() override;
  std::int32_t STDMETHODCALLTYPE Reserved(void*, void*, void*) override { return 1; }

  // Settings for tests and benchmarks, before Start: the decoding library, the processor count
  // the pool size follows (0: this machine's), a fixed pool size (0: the rule) and the wait.
  void SetLibrary(RedLibrary* library) { library_ = library; }
  void SetProcessorCount(std::uint32_t n) { processors_ = n; }
  void SetPoolSize(std::uint32_t n) { forcedSize_ = n; }
  void SetWaitMs(std::uint32_t ms) { waitMs_ = ms; }
  std::uint32_t PoolSize() const { return static_cast<std::uint32_t>(slots_.size()); }
  const RedSlot& Slot(std::size_t i) const { return slots_[i]; }
  RedClip* Clip() const { return clip_.get(); }

 private:
  struct Channel {
    os::SharedMemory instruction;
    os::SharedMemory result;
    std::uint8_t* resultView = nullptr;  // aligned to 16
    std::uint64_t resultUsable = 0;
    os::EventHandle start = nullptr;
    os::EventHandle end = nullptr;
    os::EventHandle terminate = nullptr;
    std::vector<VxString> names;  // instruction, result, start, end, terminate
    std::unique_ptr<std::uint8_t[]> buffer;
    std::uint64_t capacity = 0;
    RedJob jobs[2];  // the two job arrays' entries of this slot
    int nextJob = 0;
    volatile std::int32_t jobFailed = 0;
  };

  ~CVxRedProcessHelper();
  HRESULT StartPool();
  void StopPool();
  HRESULT Drain();
  bool WaitSlot(std::size_t i);  // wait for the end event; false on time-out or a failed job
  void FinishSlot(std::size_t i, std::uint64_t frameBytes);
  std::int32_t GiveUp(std::size_t i);
  bool Schedule(std::size_t i, const std::uint8_t* request, std::int32_t frame, int shift,
                RedPixels pixels, std::size_t rowBytes, std::size_t bytes);
  std::int32_t Decode(const std::uint8_t* request, void** buffer);
  static void JobDone(RedJob* job, bool ok);

  volatile std::int32_t refs_ = 1;
  RedLibrary* library_;
  std::uint32_t processors_ = 0;
  std::uint32_t forcedSize_ = 0;
  std::uint32_t waitMs_ = kDecodeWaitMs;
  std::uint32_t allowed_ = 0;
  bool rocket_ = false;
  bool started_ = false;
  RedCardVersions versions_{};
  std::vector<RedSlot> slots_;
  std::vector<std::unique_ptr<Channel>> channels_;
  std::unique_ptr<RedClip> clip_;
  std::uint64_t frameBytes_ = 0;  // of the current settings
  RedPixels pixels_ = RedPixels::kRgb16;
  os::CriticalSection poolLock_;
  os::CriticalSection stateLock_;
};

}  // namespace vx::red
