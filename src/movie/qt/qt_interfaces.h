// The QuickTime manager's two request interfaces, reading (IVxQTParser) and writing
// (IVxQTRefExport), and the host structures their answers fill. One method per channel command
// (qt_channel.h); slot numbers are the interfaces' own. Every method answers E_POINTER for a
// missing out-pointer, E_INVALIDARG when the channel is not mapped or an argument cannot fit its
// field, the failure of the transaction (E_FAIL decoder died, E_ABORT time limit,
// E_ACCESSDENIED decoder cannot be restarted), or the decoder's own status unchanged.
#pragma once

#include <cstdint>

#include "vx/com.h"
#include "vx/sdk.h"

// Our choice, in the manager's class-id family.
inline constexpr IID IID_IVxQTParser = {
    0x7774DB06, 0x6972, 0x11D4, {0x81, 0xB2, 0x00, 0x90, 0x27, 0x1B, 0x98, 0xFE}};
inline constexpr IID IID_IVxQTRefExport = {
    0x7774DB07, 0x6972, 0x11D4, {0x81, 0xB2, 0x00, 0x90, 0x27, 0x1B, 0x98, 0xFE}};
inline constexpr GUID CLSID_VxQTManager = {
    0x7774DB05, 0x6972, 0x11D4, {0x81, 0xB2, 0x00, 0x90, 0x27, 0x1B, 0x98, 0xFE}};

// Command 256 turned into host terms.
struct VxQTVideoFormat {
  double frameRate = 0;          // frames per second
  double durationNumerator = 1;  // a frame lasts durationNumerator / frameRate seconds
  VxTimeFormat timeFormat;       // the rate as a host time format
  std::int64_t ticksPerSecond = kVxTicksPerSecond;
  std::uint32_t frameCount = 0;
  std::uint32_t codec = 0;  // four-character code of the track's compression
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t alpha = 0;   // non-zero: the track carries alpha
  std::uint32_t fields = 1;  // 1 progressive, 2 upper field first, 3 lower field first
  std::uint32_t bitsPerComponent = 8;
  std::uint32_t bytesPerPixel = 3;  // 4 with alpha
  std::uint32_t rowBytes = 0;       // bytesPerPixel × width
};

// The 40-byte extensible wave format that command 512 becomes.
#pragma pack(push, 1)
struct VxQTWaveFormat {
  WAVEFORMATEX format;  // tag 0xFFFE, extension size 22
  WORD validBits;
  DWORD channelMask;
  GUID subFormat;  // PCM {00000001-0000-0010-8000-00AA00389B71}
};
#pragma pack(pop)
static_assert(sizeof(VxQTWaveFormat) == 40);

struct VxQTMovieInfo {  // command 6
  std::uint32_t videoTracks = 0;
  std::uint32_t audioTracks = 0;
  std::uint32_t timeScale = 0;  // units per second of the duration
  std::uint32_t duration = 0;
  double rate = 0;                       // frames per second of the first video track
  std::uint32_t timeCode = 0xFFFFFFFFu;  // start time code (BCD), all ones when none
};

struct VxQTFrameInfo {                   // command 260
  std::uint32_t timeCode = 0xFFFFFFFFu;  // BCD, all ones when the track has none
  std::uint32_t timeCodeRate = 0;        // frames a second the time code counts
  std::uint32_t dropFrame = 0;
  std::uint32_t userBits = 0;
  std::uint32_t keyFrame = 0;
  std::uint32_t pictureType = 0;  // 'I', 'P', 'B', or 0 when unknown
};

struct VxQTCompression {  // command 4
  std::uint32_t codec = 0;
  double quality = 0;  // 0 to 1
  VxChar name[64] = {};
  std::uint32_t entryCount = 0;     // bytes of settings the decoder answered
  BYTE* entries = nullptr;          // the caller's buffer for them
  std::uint32_t entryCapacity = 0;  // its size; entries beyond it are not copied
};

struct VxQTVideoSetup {  // command 257
  double frameRate = 0;
  double pixelAspect = 1;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t codec = 0;
};

struct VxQTAudioSetup {  // command 513
  std::uint32_t sampleRate = 0;
  std::uint32_t channels = 0;
  std::uint32_t bitsPerSample = 0;
  std::uint32_t formatTag = 1;  // 1 integer PCM, 3 float
};

struct VxQTFinish {  // command 5
  std::uint32_t videoFrames = 0;
  std::uint64_t audioFrames = 0;
  std::uint32_t videoTracks = 0;
  std::uint32_t audioTracks = 0;
  std::uint32_t timeCode = 0xFFFFFFFFu;
};

struct VxQTMediaReference {  // command 4098
  std::uint32_t kind = 1;    // 1 picture, 2 sound
  std::uint32_t track = 0;
  std::uint16_t channels = 0;
  std::uint16_t bitsPerSample = 0;
  std::uint32_t first = 0;   // first frame (or sample) of the referenced file
  std::uint32_t length = 0;  // frames (or samples)
  std::uint32_t start = 0;   // frame of the movie where it starts
};

struct VxQTSoundReference {  // command 4100
  std::uint32_t track = 0;
  std::uint64_t first = 0;  // first sample frame of the referenced file
  std::uint32_t length = 0;
  double start = 0;  // seconds into the movie
  VxQTWaveFormat format{};
};

struct IVxQTParser : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Create(const VxChar* path, DWORD videoTracks, DWORD audioTracks,
                                           double rate, DWORD* movie) = 0;  // 3, command 1
  virtual HRESULT STDMETHODCALLTYPE Open(const VxChar* path, DWORD* movie, DWORD* videoTracks,
                                         DWORD* audioTracks) = 0;  // 4, command 0
  virtual HRESULT STDMETHODCALLTYPE CloseMovie(DWORD movie) = 0;   // 5, command 2
  // `text`: the movie's settings as "name=value" lines (may be null).
  virtual HRESULT STDMETHODCALLTYPE FinishSetup(DWORD movie, const VxChar* text) = 0;  // 6, 3
  virtual HRESULT STDMETHODCALLTYPE GetCompression(DWORD movie, const VxChar* text,
                                                   VxQTCompression* out) = 0;  // 7, command 4
  virtual HRESULT STDMETHODCALLTYPE FinishMovie(DWORD movie, const VxQTFinish* values) = 0;  // 8
  virtual HRESULT STDMETHODCALLTYPE GetMovieInfo(DWORD movie, VxQTMovieInfo* out) = 0;       // 9, 6
  virtual HRESULT STDMETHODCALLTYPE GetFormatName(DWORD movie, VxChar* buffer,
                                                  int size) = 0;  // 10, command 7
  virtual HRESULT STDMETHODCALLTYPE GetVideoFormat(DWORD movie, DWORD track,
                                                   VxQTVideoFormat* out) = 0;  // 11, 256
  virtual HRESULT STDMETHODCALLTYPE SetupVideoTrack(DWORD movie, DWORD track,
                                                    const VxQTVideoSetup* setup) = 0;  // 12, 257
  // Fills *image (allocated or replaced at the frame's size; a new one in the delivered format
  // when null). `mode` 4096 asks for the deep alpha format, anything else for 8-bit RGBA; the
  // fallback flag asks for the format every decoder has. S_OK, or the decoder's 2000.
  virtual HRESULT STDMETHODCALLTYPE ReadFrame(DWORD movie, DWORD track, DWORD frame,
                                              IVxImage** image, BOOL fallback,
                                              DWORD mode) = 0;  // 13, command 258
  virtual HRESULT STDMETHODCALLTYPE ReadScaledFrame(DWORD movie, DWORD track, DWORD frame,
                                                    DWORD maxWidth, DWORD maxHeight,
                                                    IVxImage** image) = 0;  // 14, command 259
  virtual HRESULT STDMETHODCALLTYPE GetFrameInfo(DWORD movie, DWORD track, DWORD frame,
                                                 VxQTFrameInfo* out) = 0;  // 15, command 260
  virtual HRESULT STDMETHODCALLTYPE GetAudioFormat(DWORD movie, DWORD track, VxQTWaveFormat* out,
                                                   std::uint64_t* samples) = 0;  // 16, 512
  virtual HRESULT STDMETHODCALLTYPE SetupAudioTrack(DWORD movie, DWORD track,
                                                    const VxQTAudioSetup* setup) = 0;  // 17, 513
  // `count` sample frames of `blockAlign` bytes from `first` into `buffer`; *done what came.
  virtual HRESULT STDMETHODCALLTYPE ReadAudio(DWORD movie, DWORD track, std::uint64_t first,
                                              DWORD count, DWORD blockAlign, void* buffer,
                                              DWORD* done) = 0;  // 18, command 514
  // Appends `count` sample frames of `blockAlign` bytes; *total the track's frames since.
  virtual HRESULT STDMETHODCALLTYPE WriteAudio(DWORD movie, DWORD track, const void* samples,
                                               DWORD count, DWORD blockAlign,
                                               std::uint64_t* total) = 0;  // 19, command 515
};

struct IVxQTRefExport : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE CreateRefMovie(const VxChar* path, double rate, DWORD width,
                                                   DWORD height,
                                                   DWORD* movie) = 0;  // 3, command 4096
  virtual HRESULT STDMETHODCALLTYPE SetCompression(DWORD movie, DWORD codec, DWORD quality,
                                                   DWORD alpha) = 0;  // 4, command 4097
  virtual HRESULT STDMETHODCALLTYPE AddMediaReference(DWORD movie, const VxChar* path,
                                                      const VxQTMediaReference* ref) = 0;  // 5
  // `pixels`: width × height 8-bit RGBA, rows top first without padding.
  virtual HRESULT STDMETHODCALLTYPE AddFrame(DWORD movie, DWORD track, DWORD frame,
                                             const void* pixels, DWORD width,
                                             DWORD height) = 0;  // 6, command 4099
  virtual HRESULT STDMETHODCALLTYPE AddSoundReference(DWORD movie, const VxChar* path,
                                                      const VxQTSoundReference* ref) = 0;  // 7
  virtual HRESULT STDMETHODCALLTYPE SetTimeCode(DWORD movie, DWORD track, DWORD timeCode,
                                                DWORD rate, DWORD dropFrame) = 0;  // 8, 4101
  virtual HRESULT STDMETHODCALLTYPE FinishRefMovie(DWORD movie,
                                                   DWORD selfContained) = 0;  // 9, 4102
};
