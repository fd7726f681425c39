// CVxQTManager: the one QuickTime decoder process of the host process and the channel to it.
// Requests run one at a time under one lock: the instruction block is written, the start event
// set, and the manager waits for the end event or the decoder's death; a decoder that died or
// hung is replaced at the next request.
#pragma once

#include <cstdint>

#include "movie/qt/qt_channel.h"
#include "movie/qt/qt_interfaces.h"
#include "vx/platform.h"
#include "vx/sdk.h"

namespace vx::qt {

// Wait modes of a transaction: slices of the request limit, of 500 ms, or no limit at all.
enum class WaitMode { kLimit = 0, kShortSlices = 1, kNoLimit = 2 };

// The request time limit: 120,000 ms. Tests shorten it; VX_QT_TIME_LIMIT_MS (read at each
// Start) does the same for a whole process.
inline constexpr std::uint32_t kDefaultTimeLimitMs = 120000;
void SetTimeLimitMs(std::uint32_t ms);  // 0 restores the default
std::uint32_t TimeLimitMs();

// Where the decoder program is started from: `<host executable folder>/QuickTimeDecoder/
// QTDecoder(.exe)`, unless VX_QTDECODER names another program (full path) or a test set one.
void SetDecoderProgramForTesting(const VxString& path);  // empty: back to the above
VxString DecoderProgramPath();

// Command 256's answer in host terms: the rate as a host time format, row size from the alpha
// flag (4 or 3 bytes a pixel) and the width.
void VideoFormatFromAnswer(const void* result, VxQTVideoFormat* out);
// Command 512's answer as a 40-byte extensible PCM format (0 bits read as 16) and the sample
// count.
void WaveFormatFromAnswer(const void* result, VxQTWaveFormat* out, std::uint64_t* samples);

// The host image format a delivered pixel format becomes; `hint` is the colour hint delivered
// with it. VX_PF_UNKNOWN for codes without one.
struct HostPixelFormat {
  VxPixelFormat format = VX_PF_UNKNOWN;
  bool videoRange = false;  // RGB at video levels
  bool ycc = false;         // a CbYCrY layout
  bool rec709 = false;      // its matrix
};
HostPixelFormat HostFormatOf(std::uint32_t code, std::uint32_t hint);
// The format the host image asks the decoder for: 'b64a' for mode 4096 (alpha), else 32.
std::uint32_t PreferredPixelFormat(IVxImage* image, bool fallback, DWORD mode);

// The frame answer (commands 258, 259) of a result block of `bytes` into *image: filled at the
// frame's size (allocated when empty), or a new image of the delivered format when null.
// E_FAIL when the answer names pixels outside the block, an unknown format or an empty frame.
HRESULT DeliverFrame(const unsigned char* result, std::uint64_t bytes, IVxImage** image);

// Ensure-started: brings the process's manager up through the host's generic objects unless
// it runs already. S_OK when it runs, E_FAIL otherwise.
HRESULT EnsureStarted();
// The running manager's reading interface (one reference), or E_FAIL when none runs.
HRESULT RunningManager(IVxQTParser** out);

}  // namespace vx::qt

class CVxQTManager final : public IVxGeneric, public IVxQTParser, public IVxQTRefExport {
 public:
  CVxQTManager();
  CVxQTManager(const CVxQTManager&) = delete;
  CVxQTManager& operator=(const CVxQTManager&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IVxGeneric
  HRESULT STDMETHODCALLTYPE Start() override;
  HRESULT STDMETHODCALLTYPE Stop() override;

  // IVxQTParser
  HRESULT STDMETHODCALLTYPE Create(const VxChar* path, DWORD videoTracks, DWORD audioTracks,
                                   double rate, DWORD* movie) override;
  HRESULT STDMETHODCALLTYPE Open(const VxChar* path, DWORD* movie, DWORD* videoTracks,
                                 DWORD* audioTracks) override;
  HRESULT STDMETHODCALLTYPE CloseMovie(DWORD movie) override;
  HRESULT STDMETHODCALLTYPE FinishSetup(DWORD movie, const VxChar* text) override;
  HRESULT STDMETHODCALLTYPE GetCompression(DWORD movie, const VxChar* text,
                                           VxQTCompression* out) override;
  HRESULT STDMETHODCALLTYPE FinishMovie(DWORD movie, const VxQTFinish* values) override;
  HRESULT STDMETHODCALLTYPE GetMovieInfo(DWORD movie, VxQTMovieInfo* out) override;
  HRESULT STDMETHODCALLTYPE GetFormatName(DWORD movie, VxChar* buffer, int size) override;
  HRESULT STDMETHODCALLTYPE GetVideoFormat(DWORD movie, DWORD track, VxQTVideoFormat* out) override;
  HRESULT STDMETHODCALLTYPE SetupVideoTrack(DWORD movie, DWORD track,
                                            const VxQTVideoSetup* setup) override;
  HRESULT STDMETHODCALLTYPE ReadFrame(DWORD movie, DWORD track, DWORD frame, IVxImage** image,
                                      BOOL fallback, DWORD mode) override;
  HRESULT STDMETHODCALLTYPE ReadScaledFrame(DWORD movie, DWORD track, DWORD frame, DWORD maxWidth,
                                            DWORD maxHeight, IVxImage** image) override;
  HRESULT STDMETHODCALLTYPE GetFrameInfo(DWORD movie, DWORD track, DWORD frame,
                                         VxQTFrameInfo* out) override;
  HRESULT STDMETHODCALLTYPE GetAudioFormat(DWORD movie, DWORD track, VxQTWaveFormat* out,
                                           std::uint64_t* samples) override;
  HRESULT STDMETHODCALLTYPE SetupAudioTrack(DWORD movie, DWORD track,
                                            const VxQTAudioSetup* setup) override;
  HRESULT STDMETHODCALLTYPE ReadAudio(DWORD movie, DWORD track, std::uint64_t first, DWORD count,
                                      DWORD blockAlign, void* buffer, DWORD* done) override;
  HRESULT STDMETHODCALLTYPE WriteAudio(DWORD movie, DWORD track, const void* samples, DWORD count,
                                       DWORD blockAlign, std::uint64_t* total) override;

  // IVxQTRefExport
  HRESULT STDMETHODCALLTYPE CreateRefMovie(const VxChar* path, double rate, DWORD width,
                                           DWORD height, DWORD* movie) override;
  HRESULT STDMETHODCALLTYPE SetCompression(DWORD movie, DWORD codec, DWORD quality,
                                           DWORD alpha) override;
  HRESULT STDMETHODCALLTYPE AddMediaReference(DWORD movie, const VxChar* path,
                                              const VxQTMediaReference* ref) override;
  HRESULT STDMETHODCALLTYPE AddFrame(DWORD movie, DWORD track, DWORD frame, const void* pixels,
                                     DWORD width, DWORD height) override;
  HRESULT STDMETHODCALLTYPE AddSoundReference(DWORD movie, const VxChar* path,
                                              const VxQTSoundReference* ref) override;
  HRESULT STDMETHODCALLTYPE SetTimeCode(DWORD movie, DWORD track, DWORD timeCode, DWORD rate,
                                        DWORD dropFrame) override;
  HRESULT STDMETHODCALLTYPE FinishRefMovie(DWORD movie, DWORD selfContained) override;

  virtual ~CVxQTManager();

  // For tests: the decoder's process id (0 when none runs), and the last payload count sent.
  std::uint32_t DecoderProcessId();
  std::uint32_t LastPayloadCount();

 private:
  friend class QtRequest;
  void BuildNames();
  HRESULT LaunchDecoder();
  void TerminateDecoder();
  // The transaction; the lock is held and the request written.
  HRESULT Execute(vx::qt::WaitMode mode);
  static bool AbortRequested();
  // Execute, then the status; S_OK-range statuses come back as they are.
  HRESULT Transact(vx::qt::WaitMode mode);
  void Teardown();
  // Runs `body` under the lock with both views mapped (else E_INVALIDARG), guarded.
  template <class Body>
  HRESULT Run(Body&& body);

  std::int32_t refs_ = 0;
  vx::os::ProcessHandle process_ = nullptr;
  vx::os::SharedMemory instruction_{};
  vx::os::SharedMemory result_{};
  unsigned char* ins_ = nullptr;  // instruction view
  unsigned char* res_ = nullptr;  // result view
  vx::os::EventHandle start_ = nullptr;
  vx::os::EventHandle end_ = nullptr;
  vx::os::EventHandle terminate_ = nullptr;
  vx::os::CriticalSection cs_;
  bool restartNeeded_ = false;
  bool owner_ = false;  // this object set the process-wide started flag
  std::uint32_t lastCount_ = 0;
  VxString names_[6];
};
