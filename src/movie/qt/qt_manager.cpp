#include "movie/qt/qt_manager.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/guard.h"
#include "base/module.h"
#include "base/worker_pool.h"
#include "vx/com_ptr.h"

namespace vx::qt {
namespace {

std::atomic<std::uint32_t> g_limitOverride{0};
std::uint32_t g_envLimit = 0;  // from VX_QT_TIME_LIMIT_MS, read at Start

volatile std::int32_t g_started = 0;
CVxQTManager* g_instance = nullptr;  // the manager that set g_started

os::CriticalSection& StartLock() {
  static os::CriticalSection* cs = new os::CriticalSection;  // outlives static teardown
  return *cs;
}

VxString& ProgramOverride() {
  static VxString* path = new VxString;
  return *path;
}

constexpr std::uint32_t kShortSliceMs = 500;
constexpr std::uint32_t kTerminateWaitMs = 5000;
constexpr VxChar kCaption[] = VXT("Quick Time parser ERROR");

VxString Widen(const char* ascii) {
  VxString s;
  for (; *ascii; ++ascii) s += static_cast<VxChar>(*ascii);
  return s;
}

VxString Format(const char* format, std::uint32_t pid) {
  char buf[kNameSlot];
  std::snprintf(buf, sizeof buf, format, static_cast<int>(pid));
  return Widen(buf);
}

// Folder and file name of a full path, split at the last separator.
void SplitPath(const VxString& path, VxString* folder, VxString* name) {
  const std::size_t cut = path.find_last_of(VXT("/\\"));
  if (cut == VxString::npos) {
    folder->clear();
    *name = path;
  } else {
    *folder = path.substr(0, cut);
    *name = path.substr(cut + 1);
  }
}

}  // namespace

void SetTimeLimitMs(std::uint32_t ms) {
  g_limitOverride.store(ms);
}

std::uint32_t TimeLimitMs() {
  if (const std::uint32_t ms = g_limitOverride.load()) return ms;
  return g_envLimit ? g_envLimit : kDefaultTimeLimitMs;
}

void SetDecoderProgramForTesting(const VxString& path) {
  os::Lock lock(StartLock());
  ProgramOverride() = path;
}

VxString DecoderProgramPath() {
  {
    os::Lock lock(StartLock());
    if (!ProgramOverride().empty()) return ProgramOverride();
  }
  std::string env;
  if (os::GetEnv("VX_QTDECODER", &env) && !env.empty()) return FromUtf8(env);
  VxString folder, name;
  SplitPath(os::ExecutablePath(), &folder, &name);
#ifdef _WIN32
  return folder + VXT("\\QuickTimeDecoder\\QTDecoder.exe");
#else
  return folder + VXT("/QuickTimeDecoder/QTDecoder");
#endif
}

void VideoFormatFromAnswer(const void* r, VxQTVideoFormat* out) {
  out->frameRate = GetF64(r, vformat::kAnsRate);
  out->durationNumerator = GetF64(r, vformat::kAnsDurationNum);
  out->frameCount = Get32(r, vformat::kAnsFrames);
  out->codec = Get32(r, vformat::kAnsCodec);
  out->height = Get32(r, vformat::kAnsHeight);
  out->alpha = Get32(r, vformat::kAnsAlpha);
  out->fields = Get32(r, vformat::kAnsFields);
  out->width = Get32(r, vformat::kAnsWidth);
  out->bitsPerComponent = Get32(r, vformat::kAnsBits);
  // Time format code 31 is the host's "from the rate" format: the rate's exact fraction.
  out->timeFormat = VxGetTimeFormatFromSampleRate(out->frameRate);
  out->ticksPerSecond = kVxTicksPerSecond;
  out->bytesPerPixel = out->alpha ? 4 : 3;
  out->rowBytes = out->bytesPerPixel * out->width;
}

void WaveFormatFromAnswer(const void* r, VxQTWaveFormat* out, std::uint64_t* samples) {
  const std::uint32_t rate = Get32(r, aformat::kAnsRate);
  const std::uint32_t channels = Get32(r, aformat::kAnsChannels);
  std::uint32_t bits = Get32(r, aformat::kAnsBits);
  if (bits == 0) bits = 16;
  *out = {};
  out->format.wFormatTag = 0xFFFE;
  out->format.nChannels = static_cast<WORD>(channels);
  out->format.nSamplesPerSec = rate;
  out->format.wBitsPerSample = static_cast<WORD>(bits);
  out->format.nBlockAlign = static_cast<WORD>(bits / 8 * channels);
  out->format.nAvgBytesPerSec = out->format.nBlockAlign * rate;
  out->format.cbSize = 22;
  out->validBits = static_cast<WORD>(bits);
  out->channelMask = Get32(r, aformat::kAnsMask);
  out->subFormat = {0x00000001, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
  *samples = Get64(r, aformat::kAnsSamplesLow);
}

HostPixelFormat HostFormatOf(std::uint32_t code, std::uint32_t hint) {
  HostPixelFormat f;
  switch (code) {
    case kPixRGB24:
    case kPixBGR24:
      f.format = VX_PF_RGB8;
      break;
    case kPixRGBA32:
    case kPixRGBA:
      f.format = VX_PF_RGBA8;
      f.videoRange = hint != 1;
      break;
    case kPixBGRA:
      f.format = VX_PF_BGRA8;
      f.videoRange = hint != 1;
      break;
    case kPixB48r:
    case kPixB64a:
      f.format = VX_PF_RGBAF32;
      break;
    case kPix2vuy:
    case kPixV210:
      // The host stand-in has no CbYCrY images: the layout is known, the image format is not.
      f.ycc = true;
      f.rec709 = hint != 1024;
      break;
    default:
      break;
  }
  return f;
}

std::uint32_t PreferredPixelFormat(IVxImage* image, bool fallback, DWORD mode) {
  (void)image;  // every host image of the stand-in is RGB
  if (fallback) return kPixRGBA32;
  return mode == 4096 ? kPixB64a : kPixRGBA32;
}

HRESULT EnsureStarted() {
  os::Lock lock(StartLock());
  if (os::AtomicLoad(&g_started) == 0) {
    IVxGeneric* object = nullptr;
    if (SUCCEEDED(VxQueryGenericObject(CLSID_VxQTManager, &object)) && object) object->Release();
  }
  return os::AtomicLoad(&g_started) ? S_OK : E_FAIL;
}

HRESULT RunningManager(IVxQTParser** out) {
  if (!out) return E_POINTER;
  os::Lock lock(StartLock());
  *out = g_instance;
  if (!g_instance) return E_FAIL;
  g_instance->AddRef();
  return S_OK;
}

}  // namespace vx::qt

using namespace vx::qt;
namespace os = vx::os;

// Writes one request into the instruction block.
class QtRequest {
 public:
  QtRequest(CVxQTManager& m, std::uint32_t command, std::uint32_t movie, std::uint32_t count)
      : ins_(m.ins_) {
    Put32(ins_, kInsCommand, command);
    Put32(ins_, kInsReserved, 0);
    Put32(ins_, kInsMovie, movie);
    Put32(ins_, kInsCount, count);
    m.lastCount_ = count;
  }
  QtRequest& U32(std::uint32_t offset, std::uint32_t v) {
    Put32(ins_, offset, v);
    return *this;
  }
  QtRequest& F64(std::uint32_t offset, double v) {
    PutF64(ins_, offset, v);
    return *this;
  }
  QtRequest& Text(std::uint32_t offset, const VxChar* s, std::size_t n) {
    unsigned char* p = ins_ + offset;
    for (std::size_t i = 0; i < n; ++i) {
      const auto c = static_cast<std::uint16_t>(s[i]);
      p[2 * i] = static_cast<unsigned char>(c);
      p[2 * i + 1] = static_cast<unsigned char>(c >> 8);
    }
    p[2 * n] = p[2 * n + 1] = 0;
    return *this;
  }

 private:
  unsigned char* ins_;
};

namespace {

// The payload count of a path request, or 0 when it cannot fit the instruction block.
std::uint32_t PathCount(std::uint32_t fixed, const VxChar* path, std::size_t* length) {
  *length = 0;
  while (path[*length]) {
    if (++*length > kMaxPayload) return 0;
  }
  const std::uint64_t count = fixed + 2 * (static_cast<std::uint64_t>(*length) + 1);
  return count <= kMaxPayload ? static_cast<std::uint32_t>(count) : 0;
}

}  // namespace

CVxQTManager::CVxQTManager() {
  vx::module::AddObject();
}

CVxQTManager::~CVxQTManager() {
  if (owner_) Stop();
  Teardown();
  vx::module::RemoveObject();
}

HRESULT STDMETHODCALLTYPE CVxQTManager::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IVxGeneric) {
    *ppv = static_cast<IVxGeneric*>(this);
  } else if (riid == IID_IVxQTParser) {
    *ppv = static_cast<IVxQTParser*>(this);
  } else if (riid == IID_IVxQTRefExport) {
    *ppv = static_cast<IVxQTRefExport*>(this);
  } else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG STDMETHODCALLTYPE CVxQTManager::AddRef() {
  return static_cast<ULONG>(os::AtomicIncrement(&refs_));
}

ULONG STDMETHODCALLTYPE CVxQTManager::Release() {
  const std::int32_t n = os::AtomicDecrement(&refs_);
  if (n == 0) delete this;
  return static_cast<ULONG>(n);
}

void CVxQTManager::BuildNames() {
  const std::uint32_t pid = os::CurrentProcessId();
  const char* formats[6] = {kInstructionMapName, kResultMapName,      kStartEventName,
                            kEndEventName,       kTerminateEventName, kAbortEventName};
  for (int i = 0; i < 6; ++i) names_[i] = vx::qt::Format(formats[i], pid);
}

HRESULT STDMETHODCALLTYPE CVxQTManager::Start() {
  return vx::Guarded([&]() -> HRESULT {
    if (os::AtomicExchange(&g_started, 1) == 1) return S_OK;
    {
      os::Lock lock(StartLock());
      g_instance = this;
    }
    owner_ = true;
    std::string env;
    g_envLimit = 0;
    if (os::GetEnv("VX_QT_TIME_LIMIT_MS", &env)) {
      const unsigned long v = std::strtoul(env.c_str(), nullptr, 10);
      g_envLimit = v > 0 && v < 0xFFFFFFFFul ? static_cast<std::uint32_t>(v) : 0;
    }
    os::Lock lock(cs_);
    BuildNames();
    HRESULT mapping = S_OK;
    if (!os::CreateSharedMemory(names_[0].c_str(), os::RoundToPage(kInstructionBytes),
                                &instruction_))
      mapping = E_OUTOFMEMORY;
    if (!os::CreateSharedMemory(names_[1].c_str(), kResultBytes, &result_)) mapping = E_OUTOFMEMORY;
    res_ = static_cast<unsigned char*>(result_.view);
    ins_ = static_cast<unsigned char*>(instruction_.view);
    start_ = os::CreateEvent(names_[2].c_str(), false);
    end_ = os::CreateEvent(names_[3].c_str(), false);
    terminate_ = os::CreateEvent(names_[4].c_str(), false);
    if (!start_ || !end_ || !terminate_) return E_HANDLE;
    if (FAILED(mapping)) return mapping;
    const HRESULT hr = LaunchDecoder();
    // The failure goes to the host; a request that comes anyway tries the launch again.
    restartNeeded_ = FAILED(hr);
    return hr;
  });
}

HRESULT CVxQTManager::LaunchDecoder() {
  const VxString program = DecoderProgramPath();
  VxString folder, name;
  SplitPath(program, &folder, &name);
  char pid[16];
  std::snprintf(pid, sizeof pid, "%d", static_cast<int>(os::CurrentProcessId()));
  const VxString line = names_[0] + VXT(" ") + names_[1] + VXT(" ") + names_[2] + VXT(" ") +
                        names_[3] + VXT(" ") + names_[4] + VXT(" ") + Widen(pid);
  process_ = os::LaunchProcess(folder.c_str(), name.c_str(), line.c_str());
  return process_ ? S_OK : HRESULT_FROM_WIN32(2);  // ERROR_FILE_NOT_FOUND
}

void CVxQTManager::TerminateDecoder() {
  if (!process_) return;
  os::TerminateProcess(process_, 0);
  if (os::WaitProcess(process_, kTerminateWaitMs) != os::Wait::Signaled)
    VxMessageBox(kCaption, VXT("Unable to terminate QTDecoder.exe"));
  os::CloseProcess(process_);
  process_ = nullptr;
}

bool CVxQTManager::AbortRequested() {
  return false;  // the hook for a user's abort
}

HRESULT CVxQTManager::Execute(WaitMode mode) {
  if (restartNeeded_) {
    os::ResetEvent(end_);
    os::ResetEvent(start_);
    BuildNames();
    if (FAILED(LaunchDecoder())) {
      VxMessageBox(kCaption,
                   VXT("Quick Time parser is disabled. Unable to start QTDecoder process."));
      return E_ACCESSDENIED;
    }
    restartNeeded_ = false;
  }
  os::SetEvent(start_);
  const std::uint32_t limit = TimeLimitMs();
  const std::uint32_t slice = mode == WaitMode::kLimit         ? limit
                              : mode == WaitMode::kShortSlices ? std::min(kShortSliceMs, limit)
                                                               : os::kInfinite;
  std::uint64_t waited = 0;
  for (;;) {
    const os::Wait w =
        process_ ? os::WaitEventOrProcess(end_, process_, slice) : os::WaitEvent(end_, slice);
    if (w == os::Wait::Signaled) return S_OK;
    if (w == os::Wait::ProcessExited) {
      os::CloseProcess(process_);
      process_ = nullptr;
      restartNeeded_ = true;
      return E_FAIL;
    }
    if (w != os::Wait::Timeout) return E_FAIL;
    waited += slice;
    if (waited >= limit || AbortRequested()) break;
  }
  TerminateDecoder();
  restartNeeded_ = true;
  return E_ABORT;
}

HRESULT CVxQTManager::Transact(WaitMode mode) {
  const HRESULT hr = Execute(mode);
  if (FAILED(hr)) return hr;
  return static_cast<HRESULT>(Get32(res_, kResStatus));
}

void CVxQTManager::Teardown() {
  if (process_) {
    os::CloseProcess(process_);
    process_ = nullptr;
  }
  os::CloseSharedMemory(&instruction_);
  os::CloseSharedMemory(&result_);
  if (start_) os::CloseEvent(start_);
  if (end_) os::CloseEvent(end_);
  if (terminate_) os::CloseEvent(terminate_);
  start_ = end_ = terminate_ = nullptr;
  ins_ = res_ = nullptr;
}

HRESULT STDMETHODCALLTYPE CVxQTManager::Stop() {
  return vx::Guarded([&]() -> HRESULT {
    if (!owner_ || os::AtomicExchange(&g_started, 0) == 0) return S_OK;
    {
      os::Lock lock(StartLock());
      if (g_instance == this) g_instance = nullptr;
    }
    owner_ = false;
    os::Lock lock(cs_);
    if (terminate_) os::SetEvent(terminate_);
    Teardown();
    return S_OK;
  });
}

std::uint32_t CVxQTManager::DecoderProcessId() {
  os::Lock lock(cs_);
  return process_ ? os::ProcessIdOf(process_) : 0;
}

std::uint32_t CVxQTManager::LastPayloadCount() {
  os::Lock lock(cs_);
  return lastCount_;
}

// ---- Requests ------------------------------------------------------------------------------

template <class Body>
HRESULT CVxQTManager::Run(Body&& body) {
  return vx::Guarded([&]() -> HRESULT {
    os::Lock lock(cs_);
    if (!ins_ || !res_) return E_INVALIDARG;
    return body();
  });
}

namespace {

float Unit16(const unsigned char* p) {
  return static_cast<float>(p[0] << 8 | p[1]) / 65535.0f;
}

// Rows of a delivered frame into an image of the code's own host format.
void StoreRows(const unsigned char* src, std::uint32_t rowBytes, std::uint32_t w, std::uint32_t h,
               std::uint32_t code, IVxImage* dst) {
  BYTE* out = dst->GetBuffer();
  const int stride = dst->GetRowStride();
  for (std::uint32_t y = 0; y < h; ++y) {
    const unsigned char* s = src + static_cast<std::size_t>(y) * rowBytes;
    BYTE* d = out + static_cast<std::ptrdiff_t>(y) * stride;
    switch (code) {
      case kPixBGR24:
        for (std::uint32_t x = 0; x < w; ++x, s += 3, d += 3) {
          d[0] = s[2];
          d[1] = s[1];
          d[2] = s[0];
        }
        break;
      case kPixB48r: {
        auto* f = reinterpret_cast<float*>(d);
        for (std::uint32_t x = 0; x < w; ++x, s += 6, f += 4) {
          f[0] = Unit16(s);
          f[1] = Unit16(s + 2);
          f[2] = Unit16(s + 4);
          f[3] = 1.0f;
        }
        break;
      }
      case kPixB64a: {
        auto* f = reinterpret_cast<float*>(d);
        for (std::uint32_t x = 0; x < w; ++x, s += 8, f += 4) {
          f[0] = Unit16(s + 2);
          f[1] = Unit16(s + 4);
          f[2] = Unit16(s + 6);
          f[3] = Unit16(s);
        }
        break;
      }
      default:
        std::memcpy(d, s, static_cast<std::size_t>(w) * PixelBytes(code));
        break;
    }
  }
}

constexpr std::uint32_t kMaxSide = 65535;

}  // namespace

HRESULT vx::qt::DeliverFrame(const unsigned char* result, std::uint64_t bytes, IVxImage** image) {
  if (!result || !image || bytes < frame::kAnsFields + 4) return E_FAIL;
  const std::uint32_t offset = Get32(result, frame::kAnsOffset);
  const std::uint32_t w = Get32(result, frame::kAnsWidth);
  const std::uint32_t h = Get32(result, frame::kAnsHeight);
  const std::uint32_t rowBytes = Get32(result, frame::kAnsRowBytes);
  const std::uint32_t code = Get32(result, frame::kAnsPixelFormat);
  const HostPixelFormat hf = HostFormatOf(code, Get32(result, frame::kAnsHint));
  const std::uint32_t bpp = PixelBytes(code);
  // A hostile or broken decoder must not make us read outside the result block.
  if (hf.format == VX_PF_UNKNOWN || bpp == 0 || w == 0 || h == 0 || w > kMaxSide || h > kMaxSide)
    return E_FAIL;
  if (static_cast<std::uint64_t>(w) * bpp > rowBytes) return E_FAIL;
  const std::uint64_t end = static_cast<std::uint64_t>(offset) +
                            static_cast<std::uint64_t>(h - 1) * rowBytes +
                            static_cast<std::uint64_t>(w) * bpp;
  if (end > bytes) return E_FAIL;
  const unsigned char* src = result + offset;

  IVxImage* dst = *image;
  if (!dst) {
    HRESULT hr = VxCreateImage(static_cast<int>(w), static_cast<int>(h), hf.format, &dst);
    if (FAILED(hr)) return hr;
    StoreRows(src, rowBytes, w, h, code, dst);
    *image = dst;
    return S_OK;
  }
  VxPixelFormat format = dst->GetPixelFormat();
  if (format == VX_PF_UNKNOWN) format = hf.format;
  if (dst->GetWidth() != static_cast<int>(w) || dst->GetHeight() != static_cast<int>(h) ||
      !dst->GetBuffer()) {
    HRESULT hr = dst->Allocate(static_cast<int>(w), static_cast<int>(h), format);
    if (FAILED(hr)) return hr;
  }
  if (format == hf.format) {
    StoreRows(src, rowBytes, w, h, code, dst);
    return S_OK;
  }
  IVxImage* native = nullptr;
  HRESULT hr = VxCreateImage(static_cast<int>(w), static_cast<int>(h), hf.format, &native);
  if (FAILED(hr)) return hr;
  StoreRows(src, rowBytes, w, h, code, native);
  hr = VxConvertImage(native, dst);
  native->Release();
  return hr;
}

HRESULT STDMETHODCALLTYPE CVxQTManager::Create(const VxChar* path, DWORD videoTracks,
                                               DWORD audioTracks, double rate, DWORD* movie) {
  if (!path || !movie) return E_POINTER;
  return Run([&]() -> HRESULT {
    std::size_t n;
    const std::uint32_t count = PathCount(create::kFixed, path, &n);
    if (!count) return E_INVALIDARG;
    QtRequest(*this, kCreate, 0, count)
        .U32(create::kVideoTracks, videoTracks)
        .U32(create::kAudioTracks, audioTracks)
        .F64(create::kRate, rate)
        .Text(create::kPath, path, n);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (SUCCEEDED(hr)) *movie = Get32(res_, create::kAnsMovie);
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::Open(const VxChar* path, DWORD* movie, DWORD* videoTracks,
                                             DWORD* audioTracks) {
  if (!path || !movie || !videoTracks || !audioTracks) return E_POINTER;
  return Run([&]() -> HRESULT {
    std::size_t n;
    const std::uint32_t count = PathCount(open::kFixed, path, &n);
    if (!count) return E_INVALIDARG;
    QtRequest(*this, kOpen, 0, count).Text(open::kPath, path, n);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (SUCCEEDED(hr)) {
      *movie = Get32(res_, open::kAnsMovie);
      *videoTracks = Get32(res_, open::kAnsVideoTracks);
      *audioTracks = Get32(res_, open::kAnsAudioTracks);
    }
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::CloseMovie(DWORD movie) {
  return Run([&]() -> HRESULT {
    QtRequest(*this, kClose, movie, 0);
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::FinishSetup(DWORD movie, const VxChar* text) {
  return Run([&]() -> HRESULT {
    const VxChar empty[1] = {0};
    std::size_t n = 0;
    const std::uint32_t count = PathCount(0, text ? text : empty, &n);
    if (!count) return E_INVALIDARG;
    QtRequest(*this, kFinishSetup, movie, count).Text(kInsPayload, text ? text : empty, n);
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::GetCompression(DWORD movie, const VxChar* text,
                                                       VxQTCompression* out) {
  if (!out) return E_POINTER;
  return Run([&]() -> HRESULT {
    const VxChar empty[1] = {0};
    std::size_t n = 0;
    const std::uint32_t count = PathCount(0, text ? text : empty, &n);
    if (!count) return E_INVALIDARG;
    QtRequest(*this, kCompressionSettings, movie, count)
        .Text(compression::kText, text ? text : empty, n);
    const HRESULT hr = Transact(WaitMode::kNoLimit);
    if (FAILED(hr)) return hr;
    out->codec = Get32(res_, compression::kAnsCodec);
    out->quality = GetF64(res_, compression::kAnsQuality);
    for (std::uint32_t i = 0; i < compression::kNameChars; ++i) {
      const auto c = static_cast<VxChar>(res_[compression::kAnsName + 2 * i] |
                                         res_[compression::kAnsName + 2 * i + 1] << 8);
      out->name[i] = c;
      if (!c) break;
    }
    out->name[compression::kNameChars - 1] = 0;
    const std::uint32_t entries = Get32(res_, compression::kAnsEntryCount);
    if (entries > kResultBytes - compression::kAnsEntries) return E_FAIL;
    out->entryCount = entries;
    if (out->entries && out->entryCapacity)
      std::memcpy(out->entries, res_ + compression::kAnsEntries,
                  std::min(entries, out->entryCapacity));
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::FinishMovie(DWORD movie, const VxQTFinish* v) {
  if (!v) return E_POINTER;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kFinishMovie, movie, finish::kCount)
        .U32(finish::kVideoFrames, v->videoFrames)
        .U32(finish::kAudioLow, static_cast<std::uint32_t>(v->audioFrames))
        .U32(finish::kAudioHigh, static_cast<std::uint32_t>(v->audioFrames >> 32))
        .U32(finish::kVideoTracks, v->videoTracks)
        .U32(finish::kAudioTracks, v->audioTracks)
        .U32(finish::kTimeCode, v->timeCode)
        .U32(finish::kReserved, 0);
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::GetMovieInfo(DWORD movie, VxQTMovieInfo* out) {
  if (!out) return E_POINTER;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kMovieInfo, movie, 0);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (SUCCEEDED(hr)) {
      out->videoTracks = Get32(res_, info::kAnsVideoTracks);
      out->audioTracks = Get32(res_, info::kAnsAudioTracks);
      out->timeScale = Get32(res_, info::kAnsTimeScale);
      out->duration = Get32(res_, info::kAnsDuration);
      out->rate = GetF64(res_, info::kAnsRate);
      out->timeCode = Get32(res_, info::kAnsTimeCode);
    }
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::GetFormatName(DWORD movie, VxChar* buffer, int size) {
  if (!buffer) return E_POINTER;
  if (size < 1) return E_INVALIDARG;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kFormatName, movie, 0);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (FAILED(hr)) return hr;
    std::string text;
    for (std::uint32_t i = 0; i < text::kMaxChars && res_[text::kAnsText + i]; ++i)
      text += static_cast<char>(res_[text::kAnsText + i]);
    const VxString wide = vx::FromUtf8(text);
    const std::size_t n = std::min(wide.size(), static_cast<std::size_t>(size - 1));
    std::copy_n(wide.begin(), n, buffer);
    buffer[n] = 0;
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::GetVideoFormat(DWORD movie, DWORD track,
                                                       VxQTVideoFormat* out) {
  if (!out) return E_POINTER;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kVideoFormat, movie, vformat::kCount).U32(vformat::kTrack, track);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (SUCCEEDED(hr)) VideoFormatFromAnswer(res_, out);
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::SetupVideoTrack(DWORD movie, DWORD track,
                                                        const VxQTVideoSetup* s) {
  if (!s) return E_POINTER;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kVideoSetup, movie, vsetup::kCount)
        .U32(vsetup::kTrack, track)
        .F64(vsetup::kRate, s->frameRate)
        .F64(vsetup::kAspect, s->pixelAspect)
        .U32(vsetup::kWidth, s->width)
        .U32(vsetup::kHeight, s->height)
        .U32(vsetup::kCodec, s->codec);
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::ReadFrame(DWORD movie, DWORD track, DWORD frame,
                                                  IVxImage** image, BOOL fallback, DWORD mode) {
  if (!image) return E_POINTER;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kReadFrame, movie, frame::kCount)
        .U32(frame::kTrack, track)
        .U32(frame::kFrame, frame)
        .U32(frame::kPixelFormat, PreferredPixelFormat(*image, fallback != FALSE, mode));
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (hr != S_OK) return hr;  // failures, and 2000: nothing was delivered
    return vx::qt::DeliverFrame(res_, kResultBytes, image);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::ReadScaledFrame(DWORD movie, DWORD track, DWORD frame,
                                                        DWORD maxWidth, DWORD maxHeight,
                                                        IVxImage** image) {
  if (!image) return E_POINTER;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kReadScaledFrame, movie, scaled::kCount)
        .U32(scaled::kTrack, track)
        .U32(scaled::kFrame, frame)
        .U32(scaled::kMaxWidth, maxWidth)
        .U32(scaled::kMaxHeight, maxHeight);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (hr != S_OK) return hr;
    return vx::qt::DeliverFrame(res_, kResultBytes, image);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::GetFrameInfo(DWORD movie, DWORD track, DWORD frame,
                                                     VxQTFrameInfo* out) {
  if (!out) return E_POINTER;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kFrameInfo, movie, frameinfo::kCount)
        .U32(frameinfo::kTrack, track)
        .U32(frameinfo::kFrame, frame);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (SUCCEEDED(hr)) {
      out->timeCode = Get32(res_, frameinfo::kAnsTimeCode);
      out->timeCodeRate = Get32(res_, frameinfo::kAnsTimeCodeRate);
      out->dropFrame = Get32(res_, frameinfo::kAnsDropFrame);
      out->userBits = Get32(res_, frameinfo::kAnsUserBits);
      out->keyFrame = Get32(res_, frameinfo::kAnsKeyFrame);
      out->pictureType = Get32(res_, frameinfo::kAnsPictureType);
    }
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::GetAudioFormat(DWORD movie, DWORD track,
                                                       VxQTWaveFormat* out,
                                                       std::uint64_t* samples) {
  if (!out || !samples) return E_POINTER;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kAudioFormat, movie, aformat::kCount).U32(aformat::kTrack, track);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (SUCCEEDED(hr)) WaveFormatFromAnswer(res_, out, samples);
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::SetupAudioTrack(DWORD movie, DWORD track,
                                                        const VxQTAudioSetup* s) {
  if (!s) return E_POINTER;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kAudioSetup, movie, asetup::kCount)
        .U32(asetup::kTrack, track)
        .U32(asetup::kRate, s->sampleRate)
        .U32(asetup::kChannels, s->channels)
        .U32(asetup::kBits, s->bitsPerSample)
        .U32(asetup::kTag, s->formatTag);
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::ReadAudio(DWORD movie, DWORD track, std::uint64_t first,
                                                  DWORD count, DWORD blockAlign, void* buffer,
                                                  DWORD* done) {
  if (!buffer || !done) return E_POINTER;
  *done = 0;
  if (blockAlign == 0 || static_cast<std::uint64_t>(count) * blockAlign > kResultBytes)
    return E_INVALIDARG;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kReadAudio, movie, aread::kCount)
        .U32(aread::kTrack, track)
        .U32(aread::kFirstLow, static_cast<std::uint32_t>(first))
        .U32(aread::kFirstHigh, static_cast<std::uint32_t>(first >> 32))
        .U32(aread::kFrames, count);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (FAILED(hr)) return hr;
    const std::uint32_t offset = Get32(res_, aread::kAnsOffset);
    const std::uint32_t frames = Get32(res_, aread::kAnsFrames);
    const std::uint64_t bytes = static_cast<std::uint64_t>(frames) * blockAlign;
    if (frames > count || offset < aread::kAnsFrames + 4 || offset + bytes > kResultBytes)
      return E_FAIL;
    std::memcpy(buffer, res_ + offset, static_cast<std::size_t>(bytes));
    *done = frames;
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::WriteAudio(DWORD movie, DWORD track, const void* samples,
                                                   DWORD count, DWORD blockAlign,
                                                   std::uint64_t* total) {
  if (!total || (!samples && count)) return E_POINTER;
  if (static_cast<std::uint64_t>(count) * blockAlign > kResultBytes) return E_INVALIDARG;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kWriteAudio, movie, awrite::kCount)
        .U32(awrite::kTrack, track)
        .U32(awrite::kFrames, count);
    if (count) std::memcpy(res_, samples, static_cast<std::size_t>(count) * blockAlign);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (SUCCEEDED(hr)) *total = Get64(res_, awrite::kAnsTotalLow);
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::CreateRefMovie(const VxChar* path, double rate, DWORD width,
                                                       DWORD height, DWORD* movie) {
  if (!path || !movie) return E_POINTER;
  return Run([&]() -> HRESULT {
    std::size_t n;
    const std::uint32_t count = PathCount(refcreate::kFixed, path, &n);
    if (!count) return E_INVALIDARG;
    QtRequest(*this, kRefCreate, 0, count)
        .F64(refcreate::kRate, rate)
        .U32(refcreate::kWidth, width)
        .U32(refcreate::kHeight, height)
        .Text(refcreate::kPath, path, n);
    const HRESULT hr = Transact(WaitMode::kLimit);
    if (SUCCEEDED(hr)) *movie = Get32(res_, refcreate::kAnsMovie);
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::SetCompression(DWORD movie, DWORD codec, DWORD quality,
                                                       DWORD alpha) {
  return Run([&]() -> HRESULT {
    QtRequest(*this, kRefCompression, movie, refcompression::kCount)
        .U32(refcompression::kCodec, codec)
        .U32(refcompression::kQuality, quality)
        .U32(refcompression::kAlpha, alpha);
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::AddMediaReference(DWORD movie, const VxChar* path,
                                                          const VxQTMediaReference* ref) {
  if (!path || !ref) return E_POINTER;
  return Run([&]() -> HRESULT {
    std::size_t n;
    const std::uint32_t count = PathCount(refmedia::kFixed, path, &n);
    if (!count) return E_INVALIDARG;
    QtRequest(*this, kRefAddMedia, movie, count)
        .U32(refmedia::kKind, ref->kind)
        .U32(refmedia::kTrack, ref->track)
        .U32(refmedia::kChannels, ref->channels)
        .U32(refmedia::kBits, ref->bitsPerSample)
        .U32(refmedia::kFirst, ref->first)
        .U32(refmedia::kLength, ref->length)
        .U32(refmedia::kStart, ref->start)
        .Text(refmedia::kPath, path, n);
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::AddFrame(DWORD movie, DWORD track, DWORD frame,
                                                 const void* pixels, DWORD width, DWORD height) {
  const std::uint64_t bytes = static_cast<std::uint64_t>(width) * height * 4;
  if (bytes > kResultBytes) return E_INVALIDARG;
  return Run([&]() -> HRESULT {
    QtRequest(*this, kRefAddFrame, movie, refframe::kCount)
        .U32(refframe::kTrack, track)
        .U32(refframe::kFrame, frame)
        .U32(refframe::kWidth, width)
        .U32(refframe::kHeight, height);
    if (width && height && pixels) std::memcpy(res_, pixels, static_cast<std::size_t>(bytes));
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::AddSoundReference(DWORD movie, const VxChar* path,
                                                          const VxQTSoundReference* ref) {
  if (!path || !ref) return E_POINTER;
  return Run([&]() -> HRESULT {
    std::size_t n;
    const std::uint32_t count = PathCount(refsound::kFixed, path, &n);
    if (!count) return E_INVALIDARG;
    std::memset(ins_ + kInsPayload, 0, refsound::kFixed);
    QtRequest(*this, kRefAddSound, movie, count)
        .U32(refsound::kTrack, ref->track)
        .U32(refsound::kFirstLow, static_cast<std::uint32_t>(ref->first))
        .U32(refsound::kFirstHigh, static_cast<std::uint32_t>(ref->first >> 32))
        .U32(refsound::kLength, ref->length)
        .F64(refsound::kStart, ref->start)
        .Text(refsound::kPath, path, n);
    std::memcpy(ins_ + refsound::kFormat, &ref->format, refsound::kFormatBytes);
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::SetTimeCode(DWORD movie, DWORD track, DWORD timeCode,
                                                    DWORD rate, DWORD dropFrame) {
  return Run([&]() -> HRESULT {
    QtRequest(*this, kRefTimeCode, movie, reftimecode::kCount)
        .U32(reftimecode::kTrack, track)
        .U32(reftimecode::kTimeCode, timeCode)
        .U32(reftimecode::kRate, rate)
        .U32(reftimecode::kDropFrame, dropFrame);
    return Transact(WaitMode::kLimit);
  });
}

HRESULT STDMETHODCALLTYPE CVxQTManager::FinishRefMovie(DWORD movie, DWORD selfContained) {
  return Run([&]() -> HRESULT {
    QtRequest(*this, kRefFinish, movie, reffinish::kCount)
        .U32(reffinish::kSelfContained, selfContained);
    return Transact(WaitMode::kLimit);
  });
}
