#include "red/r3d/red_process_helper.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>

#include "base/guard.h"
#include "base/module.h"
#include "red/r3d/red_request.h"

namespace vx::red {

namespace {

// Shared by every pool of the module: the last request's settings and clip.
std::uint32_t gFingerprint = 0;
bool gHaveFingerprint = false;
VxString gLastClip;
volatile std::int32_t gRocketEnabled = 0;

#if defined(_WIN32)
constexpr const VxChar* kDecoderProgram = VXT("RedDecoder.exe");
#else
constexpr const VxChar* kDecoderProgram = VXT("RedDecoder");
#endif

// The folder of the host's own executable; tests may name another (VX_RED_DECODER_DIR).
VxString DecoderFolder() {
  std::string dir;
  if (os::GetEnv("VX_RED_DECODER_DIR", &dir) && !dir.empty()) return FromUtf8(dir);
  VxString exe = os::ExecutablePath();
  const std::size_t cut = exe.find_last_of(VXT("/\\"));
  return cut == VxString::npos ? VxString() : exe.substr(0, cut);
}

// Decoders of an earlier pool of this process still holding a slot's events: named objects
// live while anyone holds them, so a new pool would join them, and the old decoder would take
// its requests (answering into its own, old result block) or a new one its terminate signal.
bool HeldByEarlierDecoder(const std::vector<VxString>& names) {
  for (std::size_t e = 2; e < 5; ++e) {
    if (os::EventHandle h = os::OpenEvent(names[e].c_str())) {
      os::CloseEvent(h);
      return true;
    }
  }
  return false;
}

// An ending decoder finishes the frame in hand and sees its terminate event within its poll.
constexpr std::uint32_t kEndingDecoderWaitMs = 5000;

}  // namespace

std::uint32_t RedPoolSize(std::uint32_t processors) {
  return std::clamp<std::uint32_t>(processors / 2, 1, 32);
}

int RedDecodeThreads(std::uint32_t processors, std::uint32_t slots) {
  const std::uint32_t inFlight = slots > 1 ? slots - 1 : 1;
  return static_cast<int>(std::max<std::uint32_t>(1, (processors + inFlight - 1) / inFlight));
}

VxString RedObjectName(RedObject object, std::uint32_t hostPid, std::uint32_t slot) {
  static const char* const kFormats[] = {"Red_Mem_Instruct_%d_%d", "Red_Mem_Result_%d_%d",
                                         "Red_Event_StartFrame_%d_%d", "Red_Event_EndFrame_%d_%d",
                                         "Red_Event_TermApp_%d_%d"};
  char text[96];
  std::snprintf(text, sizeof text, kFormats[static_cast<int>(object)], static_cast<int>(hostPid),
                static_cast<int>(slot));
  return FromUtf8(text);
}

std::uint32_t RedSettingsCrc(const std::uint8_t* data, std::size_t size) {
  std::uint32_t crc = 0xFFFFFFFFu;
  for (std::size_t i = 0; i < size; ++i) {
    crc ^= std::uint32_t{data[i]} << 24;
    for (int b = 0; b < 8; ++b) crc = (crc & 0x80000000u) ? (crc << 1) ^ 0x04C11DB7u : crc << 1;
  }
  return crc;
}

void SetRedRocketEnabled(bool enabled) {
  os::AtomicExchange(&gRocketEnabled, enabled ? 1 : 0);
}
bool RedRocketEnabled() {
  return os::AtomicLoad(&gRocketEnabled) != 0;
}

CVxRedProcessHelper::CVxRedProcessHelper() : library_(&DefaultRedLibrary()) {
  module::AddObject();
}

CVxRedProcessHelper::~CVxRedProcessHelper() {
  StopPool();
  module::RemoveObject();
}

HRESULT STDMETHODCALLTYPE CVxRedProcessHelper::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IVxGeneric) {
    *ppv = static_cast<IVxGeneric*>(this);
  } else if (riid == IID_IVxRedProcessHelper) {
    *ppv = static_cast<IVxRedProcessHelper*>(this);
  } else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG STDMETHODCALLTYPE CVxRedProcessHelper::AddRef() {
  return static_cast<ULONG>(os::AtomicIncrement(&refs_));
}

ULONG STDMETHODCALLTYPE CVxRedProcessHelper::Release() {
  const std::int32_t n = os::AtomicDecrement(&refs_);
  if (n == 0) delete this;
  return static_cast<ULONG>(n);
}

HRESULT STDMETHODCALLTYPE CVxRedProcessHelper::Start() {
  return Guarded([&] {
    os::Lock lock(stateLock_);
    StopPool();
    const HRESULT hr = StartPool();
    if (FAILED(hr)) StopPool();
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxRedProcessHelper::Stop() {
  return Guarded([&] {
    os::Lock lock(stateLock_);
    StopPool();
    return S_OK;
  });
}

HRESULT CVxRedProcessHelper::StartPool() {
  const std::uint32_t processors =
      processors_ ? processors_ : std::max(1u, std::thread::hardware_concurrency());
  std::uint32_t n = RedPoolSize(processors);
  rocket_ = false;

  RedCardVersions v;
  int check = -1;
  if (library_->ProbeCard(&v, &check)) {
    versions_ = v;
    if (check == kCardCheckPassed && RedRocketEnabled() && library_->OpenCardDecoder()) {
      n = 8;
      rocket_ = true;
    } else if (check == kCardCheckTooOld) {
      char text[640];
      std::snprintf(text, sizeof text,
                    "Driver and/or firmware incorrect, versions installed:\n\n"
                    "Driver version   : %d.%d.%d.%d\nFirmware version : %d.%d.%d.%d\n\n"
                    "Minimum versions required:\n\n"
                    "Driver version   : %d.%d.%d.%d\nFirmware version : %d.%d.%d.%d\n"
                    "The R3D parser is passing to CPU Mode.",
                    int(v.driver[0]), int(v.driver[1]), int(v.driver[2]), int(v.driver[3]),
                    int(v.firmware[0]), int(v.firmware[1]), int(v.firmware[2]), int(v.firmware[3]),
                    int(v.minDriver[0]), int(v.minDriver[1]), int(v.minDriver[2]),
                    int(v.minDriver[3]), int(v.minFirmware[0]), int(v.minFirmware[1]),
                    int(v.minFirmware[2]), int(v.minFirmware[3]));
      VxMessageBox(VXT("Red Rocket Error"), FromUtf8(text).c_str());
    } else if (check != kCardCheckPassed) {
      VxMessageBox(VXT("Cannot open Red Rocket"),
                   VXT("Unexpected error, the R3D parser will use the CPU mode"));
    }
    if (!rocket_) library_->CloseCard();
  }
  if (forcedSize_) n = std::min<std::uint32_t>(forcedSize_, 32);

  slots_.assign(n, RedSlot{});
  channels_.clear();
  channels_.reserve(n);
  for (std::uint32_t i = 0; i < n; ++i) {
    slots_[i] = RedSlot{i, 0, -1, 0, nullptr};
    channels_.push_back(std::make_unique<Channel>());
  }
  allowed_ = n;
  started_ = true;

  const std::uint32_t pid = os::CurrentProcessId();
  std::uint32_t waited = 0;
  for (std::uint32_t i = 0; i < n; ++i) {
    Channel& c = *channels_[i];
    for (RedObject o : {RedObject::kInstruction, RedObject::kResult, RedObject::kStart,
                        RedObject::kEnd, RedObject::kTerminate})
      c.names.push_back(RedObjectName(o, pid, i));
    // One that never ends (hung, not dead) is not waited for past the bound.
    while (waited < kEndingDecoderWaitMs && HeldByEarlierDecoder(c.names)) {
      os::SleepMs(5);
      waited += 5;
    }
    if (!os::CreateSharedMemory(c.names[0].c_str(), kInstructionBytes, &c.instruction) ||
        !os::CreateSharedMemory(c.names[1].c_str(), kResultBytes, &c.result))
      return E_OUTOFMEMORY;
    const auto base = reinterpret_cast<std::uintptr_t>(c.result.view);
    const std::uintptr_t aligned = (base + 15) & ~std::uintptr_t{15};
    c.resultView = static_cast<std::uint8_t*>(c.result.view) + (aligned - base);
    c.resultUsable = kResultBytes - (aligned - base);
    c.start = os::CreateEvent(c.names[2].c_str(), false);
    c.end = os::CreateEvent(c.names[3].c_str(), false);
    c.terminate = os::CreateEvent(c.names[4].c_str(), false);
    if (!c.start || !c.end || !c.terminate) return E_HANDLE;
  }
  if (rocket_) return S_OK;

  const VxString folder = DecoderFolder();
  for (std::uint32_t i = 0; i < n; ++i) {
    const Channel& c = *channels_[i];
    const std::string args = std::to_string(i) + ' ' + ToUtf8(c.names[0]) + ' ' +
                             ToUtf8(c.names[1]) + ' ' + ToUtf8(c.names[2]) + ' ' +
                             ToUtf8(c.names[3]) + ' ' + ToUtf8(c.names[4]) + ' ' +
                             std::to_string(pid);
    // Not watched: a decoder that fails to start shows as a slot whose waits time out.
    os::ProcessHandle p =
        os::LaunchProcess(folder.c_str(), kDecoderProgram, FromUtf8(args).c_str());
    if (p) os::CloseProcess(p);
  }
  return S_OK;
}

void CVxRedProcessHelper::StopPool() {
  // A card job still running writes into a slot's buffer: wait for it before freeing.
  if (rocket_) {
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      if (slots_[i].busy) WaitSlot(i);
    }
  }
  for (auto& c : channels_) {
    if (c->terminate) os::SetEvent(c->terminate);
  }
  if (rocket_) library_->CloseCard();
  for (auto& c : channels_) {
    for (os::EventHandle* e : {&c->start, &c->end, &c->terminate}) {
      if (*e) os::CloseEvent(*e);
      *e = nullptr;
    }
    os::CloseSharedMemory(&c->instruction);
    os::CloseSharedMemory(&c->result);
  }
  channels_.clear();
  slots_.clear();
  clip_.reset();
  gLastClip.clear();
  gHaveFingerprint = false;
  rocket_ = false;
  started_ = false;
  allowed_ = 0;
}

std::int32_t STDMETHODCALLTYPE CVxRedProcessHelper::ReleaseFrame(std::int32_t frame) {
  for (RedSlot& s : slots_) {
    if (s.ready && s.frame == frame) {
      s.ready = 0;
      s.frame = -1;
      return 0;
    }
  }
  return 1;
}

void STDMETHODCALLTYPE CVxRedProcessHelper::Lock() {
  poolLock_.Enter();
}
void STDMETHODCALLTYPE CVxRedProcessHelper::Unlock() {
  poolLock_.Leave();
}
BYTE STDMETHODCALLTYPE CVxRedProcessHelper::IsRocketMode() {
  return rocket_ ? 1 : 0;
}

bool CVxRedProcessHelper::WaitSlot(std::size_t i) {
  Channel& c = *channels_[i];
  if (os::WaitEvent(c.end, waitMs_) != os::Wait::Signaled) return false;
  return !(rocket_ && os::AtomicExchange(&c.jobFailed, 0));
}

void CVxRedProcessHelper::FinishSlot(std::size_t i, std::uint64_t frameBytes) {
  Channel& c = *channels_[i];
  // Card jobs decode straight into the slot's buffer; decoder processes into the result block.
  if (!rocket_) std::memcpy(c.buffer.get(), c.resultView, static_cast<std::size_t>(frameBytes));
  slots_[i].busy = 0;
  slots_[i].ready = 1;
}

// A slot whose wait failed is free again: its end event is spent (or never comes), and waiting
// on it once more would only stall the next request as long again.
std::int32_t CVxRedProcessHelper::GiveUp(std::size_t i) {
  slots_[i].busy = 0;
  slots_[i].ready = 0;
  slots_[i].frame = -1;
  return -1;
}

HRESULT CVxRedProcessHelper::Drain() {
  HRESULT hr = S_OK;
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    if (!slots_[i].busy) continue;
    if (!WaitSlot(i)) hr = E_UNEXPECTED;
    slots_[i].busy = 0;
  }
  for (RedSlot& s : slots_) {
    s.ready = 0;
    s.frame = -1;
  }
  return hr;
}

void CVxRedProcessHelper::JobDone(RedJob* job, bool ok) {
  auto* c = static_cast<Channel*>(job->context);
  if (!ok) os::AtomicExchange(&c->jobFailed, 1);
  os::SetEvent(c->end);
}

bool CVxRedProcessHelper::Schedule(std::size_t i, const std::uint8_t* request, std::int32_t frame,
                                   int shift, RedPixels pixels, std::size_t rowBytes,
                                   std::size_t bytes) {
  Channel& c = *channels_[i];
  // A completion left over from a slot given up on must not answer this one.
  os::ResetEvent(c.end);
  if (rocket_) {
    RedJob& job = c.jobs[c.nextJob];
    c.nextJob ^= 1;
    job = RedJob{};
    job.clip = clip_.get();
    job.frame = frame;
    job.tag = ReqU32(request, kReqTag);
    job.shift = shift;
    job.pixels = pixels;
    job.out = c.buffer.get();
    job.rowBytes = rowBytes;
    job.bytes = bytes;
    for (std::size_t w = 0; w < kReqSettingsWords; ++w)
      job.settings[w] = ReqU32(request, kReqLook + 4 * w);
    job.done = &JobDone;
    job.context = &c;
    os::AtomicExchange(&c.jobFailed, 0);
    if (!library_->SubmitJob(&job)) return false;
  } else {
    auto* block = static_cast<std::uint8_t*>(c.instruction.view);
    std::memcpy(block, request, kRequestBytes);
    SetReqU32(block, kReqFrame, static_cast<std::uint32_t>(frame));
    os::SetEvent(c.start);
  }
  slots_[i].busy = 1;
  slots_[i].frame = frame;
  return true;
}

std::int32_t STDMETHODCALLTYPE CVxRedProcessHelper::DecodeFrame(const void* request,
                                                                void** buffer) {
  if (buffer) *buffer = nullptr;
  if (!request || !buffer) return -1;
  return GuardedValue<std::int32_t>(
      -1, [&] { return Decode(static_cast<const std::uint8_t*>(request), buffer); });
}

std::int32_t CVxRedProcessHelper::Decode(const std::uint8_t* request, void** buffer) {
  if (!started_ || slots_.empty()) return -1;
  const std::int32_t f = static_cast<std::int32_t>(ReqU32(request, kReqFrame));

  // 1. A new clip: everything in flight belongs to the old one.
  const VxString path = RequestClipPath(request);
  if (!clip_ || path != gLastClip) {
    Drain();
    clip_.reset();
    gLastClip = path;
    gHaveFingerprint = false;
    clip_ = library_->OpenClip(path.c_str());
    if (!clip_) {
      gLastClip.clear();
      return -1;
    }
  }
  const RedClipInfo& info = clip_->Info();
  if (f < 0 || f >= info.frameCount) return -1;

  // 2. The output size.
  const int shift = DecodeModeShift(ReqU32(request, kReqDecodeMode));
  if (shift < 0) return -1;
  const std::uint32_t w = ShiftedSize(info.width, shift);
  const std::uint32_t h = ShiftedSize(info.height, shift);
  const std::uint64_t frameBytes = SlotFrameBytes(w, h);
  if (frameBytes + 16 > kResultBytes) return -1;
  const RedPixels pixels = ReqU32(request, kReqPixels) == 2 ? RedPixels::kBgra8 : RedPixels::kRgb16;
  const std::size_t rowBytes = w * RedPixelBytes(pixels);
  const std::size_t bytes = rowBytes * h;

  // 3. The settings fingerprint: size, mode, prefetch flag and the image-processing fields.
  std::uint8_t fp[8 + 4 + 1 + (kReqPixels - kReqLook)];
  StoreLE32(fp, w);
  StoreLE32(fp + 4, h);
  std::memcpy(fp + 8, request + kReqDecodeMode, 4);
  fp[12] = request[kReqPrefetch];
  std::memcpy(fp + 13, request + kReqLook, kReqPixels - kReqLook);
  const std::uint32_t crc = RedSettingsCrc(fp, sizeof fp);
  if (!gHaveFingerprint || crc != gFingerprint) {
    Drain();
    gFingerprint = crc;
    gHaveFingerprint = true;
  }
  // The pixel format decides the layout in the buffers too: a change of it drains as well.
  if (frameBytes != frameBytes_ || pixels != pixels_) {
    Drain();
    frameBytes_ = frameBytes;
    pixels_ = pixels;
  }
  for (std::size_t i = 0; i < channels_.size(); ++i) {
    Channel& c = *channels_[i];
    if (c.capacity < frameBytes) {
      slots_[i].buffer = nullptr;
      c.buffer.reset();
      c.capacity = 0;
      c.buffer.reset(new std::uint8_t[static_cast<std::size_t>(frameBytes)]);
      c.capacity = frameBytes;
      slots_[i].buffer = c.buffer.get();
    }
  }

  // 4. Prefetch or one frame.
  const bool prefetch = request[kReqPrefetch] != 0;
  allowed_ = prefetch ? static_cast<std::uint32_t>(slots_.size()) : 1;
  struct Restore {
    CVxRedProcessHelper* self;
    ~Restore() { self->allowed_ = static_cast<std::uint32_t>(self->slots_.size()); }
  } restore{this};

  // 5. F in flight or done already?
  std::int32_t found = -1;
  for (std::size_t i = 0; i < slots_.size(); ++i) {
    RedSlot& s = slots_[i];
    if (s.frame != f || (!s.busy && !s.ready)) continue;
    if (s.busy) {
      if (!WaitSlot(i)) return GiveUp(i);
      FinishSlot(i, frameBytes);
    }
    found = static_cast<std::int32_t>(i);
    break;
  }
  if (found < 0) Drain();

  // 6. Where scheduling goes on: after the highest frame held, when that is past F.
  std::int32_t g = f;
  bool anyFree = false;
  std::int32_t m = -1;
  for (const RedSlot& s : slots_) {
    if (!s.busy && !s.ready) anyFree = true;
    if ((s.busy || s.ready) && s.frame > m) m = s.frame;
  }
  if (anyFree && m >= 0 && m + 1 > f) g = m + 1;

  // 7. Fill the free slots the mode allows, never past the clip's end.
  for (std::size_t i = 0; i < allowed_ && g < info.frameCount; ++i) {
    if (slots_[i].busy || slots_[i].ready) continue;
    if (!Schedule(i, request, g, shift, pixels, rowBytes, bytes)) return -1;
    ++g;
  }

  // 8. F was not there: wait for everything scheduled, then take it.
  if (found < 0) {
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      if (!slots_[i].busy) continue;
      if (!WaitSlot(i)) return GiveUp(i);
      FinishSlot(i, frameBytes);
    }
    for (std::size_t i = 0; i < slots_.size(); ++i) {
      if (slots_[i].ready && slots_[i].frame == f) {
        found = static_cast<std::int32_t>(i);
        break;
      }
    }
    if (found < 0) return -1;
  }
  *buffer = slots_[static_cast<std::size_t>(found)].buffer;
  return f;
}

}  // namespace vx::red
