// Base of the sound parsers: one COM object that is the media-file parser, its sound stream and
// its source information. A format parses its header into a SampleLayout and writes its header
// and trailer; the base does every sample transfer, so a read is one positioned read into the
// caller's buffer (plus an in-place byte swap for big-endian files) whatever the format.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "frame/source_info.h"
#include "vx/com_ptr.h"
#include "vx/parser.h"
#include "vx/platform.h"
#include "vx/sound_decoder.h"

namespace vx::audio {

// What turns the file's sample bytes into the host's (and back, on export).
enum class SampleTransform : std::uint8_t {
  kNone,
  kSwap16,  // big-endian integers of 2, 3, 4 or 8 bytes
  kSwap24,
  kSwap32,
  kSwap64,
  kSigned8,  // signed 8-bit samples; the host's 8-bit PCM is unsigned
};

// Where the samples are and how they read. Compressed files have a decoder and read whole
// blocks of `fileBlockAlign` bytes, each `framesPerBlock` frames.
struct SampleLayout {
  std::uint64_t dataStart = 0;  // first sample byte
  std::uint64_t dataBytes = 0;  // sample bytes the file holds from there
  std::uint64_t frames = 0;
  std::uint32_t fileBlockAlign = 0;
  std::uint32_t framesPerBlock = 1;
  SampleTransform transform = SampleTransform::kNone;
  const char* compression = "PCM";  // what GetCompressionName answers
  std::unique_ptr<vx::os::SoundDecoder> decoder;
};

// "vxmd:data": the "VXMD" chunk of a sound file as base64 text, so it travels through the
// metadata record like everything else.
inline constexpr char kVxmdKey[] = "vxmd:data";

}  // namespace vx::audio

class CVxAudioParser : public IVxMediaFileParser,
                       public IVxAudioStreamParser,
                       public CVxSourceInfoFromMetadata {
 public:
  CVxAudioParser();
  CVxAudioParser(const CVxAudioParser&) = delete;
  CVxAudioParser& operator=(const CVxAudioParser&) = delete;

  // IUnknown (shared by all views)
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE OpenEx(const VxChar* name, DWORD flags, DWORD reserved) override;
  HRESULT STDMETHODCALLTYPE OpenFileList(IVxFileList* list, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Open(const VxChar* name, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Close() override;
  HRESULT STDMETHODCALLTYPE Prepare(DWORD arg) override;
  HRESULT STDMETHODCALLTYPE HasStream(DWORD kind, BOOL* has) override;
  HRESULT STDMETHODCALLTYPE SetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE GetStream(DWORD kind, DWORD index, REFIID riid, void** ppv) override;
  HRESULT STDMETHODCALLTYPE GetStreamCapabilities(DWORD mode, DWORD kind, DWORD* caps) override;
  HRESULT STDMETHODCALLTYPE GetTimeRange(DWORD kind, CVxTime* start, CVxTime* end) override;
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxAudioStreamParser
  HRESULT STDMETHODCALLTYPE GetFormat(BYTE* buffer, int* size) override;
  HRESULT STDMETHODCALLTYPE GetLength(LONG* range) override;
  HRESULT STDMETHODCALLTYPE ReadSamples(const VxSamplePosition* pos, LONG count, void* buffer,
                                        LONG* done) override;
  HRESULT STDMETHODCALLTYPE WriteSamples(const void* buffer, LONG count) override;
  HRESULT STDMETHODCALLTYPE AudioOp7(void* arg) override;

  virtual ~CVxAudioParser();

  // 0 closed, 1 reading, 2 writing.
  int Mode() const { return mode_; }
  std::uint64_t FrameCount() const { return layout_.frames; }

 protected:
  // ---- What a format supplies ----
  // Opens `name` and parses its header: the format the host sees (SetHostFormat), where the
  // samples are (*layout) and the "VXMD" blob (SetBlob). The format keeps its file open for the
  // reads and hands its handle back through SampleFile().
  virtual HRESULT ParseFile(const VxChar* name, vx::audio::SampleLayout* layout) = 0;
  // Closes whatever ParseFile or StartFile opened, keeping nothing of the header.
  virtual void CloseFile() = 0;
  virtual vx::os::FileHandle SampleFile() const = 0;
  // Checks a format the host imposes for export; S_OK or the format's refusal. The base has
  // stored it with SetHostFormat already; a format that writes something else (AIFC keeps
  // extensible formats as plain PCM) stores that instead.
  virtual HRESULT AcceptFormat(const WAVEFORMATEX& format) = 0;
  // Creates `name` and writes the header for HostFormat(): *dataStart gets the first sample
  // byte, *transform what the host's samples need on their way into the file.
  virtual HRESULT StartFile(const VxChar* name, std::uint64_t* dataStart,
                            vx::audio::SampleTransform* transform) = 0;
  // Completes the file after `frames` frames (sizes, pad byte, "VXMD" from Blob()).
  virtual HRESULT FinishFile(std::uint64_t frames) = 0;
  // What the format's header says beyond the sound format (BWF record, ...).
  virtual HRESULT AddFormatMetadata(IVxMetadata* out) = 0;
  // Takes from the record handed over for writing what the format can hold.
  virtual void TakeFormatMetadata(IVxMetadata* md) = 0;
  // Capability bits of the sound stream (bit 0 import, bit 1 export).
  virtual DWORD Capabilities() const = 0;
  // A format whose samples come out of a demuxer rather than SampleFile() delivers `frames`
  // host frames from `first` here (*got: how many the file held); E_NOTIMPL keeps the base's
  // own reads.
  virtual HRESULT ReadFrames(std::uint64_t, std::uint32_t, std::uint8_t*, std::uint32_t*) {
    return E_NOTIMPL;
  }

  // ---- What the base keeps for the formats ----
  void SetHostFormat(const void* format, std::size_t bytes);
  const WAVEFORMATEX& HostFormat() const;
  const std::vector<std::uint8_t>& HostFormatBytes() const { return format_; }
  const std::vector<std::uint8_t>& Blob() const { return blob_; }
  void SetBlob(std::vector<std::uint8_t> blob) { blob_ = std::move(blob); }
  const VxString& FileName() const { return name_; }

  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  HRESULT ReadHeaderIfNeeded();
  HRESULT StartWriting();
  HRESULT FinishWriting();
  void Reset();
  // Read `frames` frames from `first` (all inside the stream) into `out`; *got is what the file
  // held of them.
  HRESULT ReadPcm(std::uint64_t first, std::uint32_t frames, std::uint8_t* out, std::uint32_t* got);
  HRESULT ReadBlocks(std::uint64_t first, std::uint32_t frames, std::uint8_t* out,
                     std::uint32_t* got);

  std::int32_t refs_ = 0;
  int mode_ = 0;
  DWORD flags_ = 0;
  VxString name_;
  VxString tempName_;                 // what an export writes into until Close renames it
  std::vector<std::uint8_t> format_;  // WAVEFORMATEX and its extra bytes, as the host sees it
  vx::audio::SampleLayout layout_;
  std::uint64_t written_ = 0;  // frames appended on export
  bool writeFailed_ = false;
  std::vector<std::uint8_t> blob_;
  std::vector<std::uint8_t> scratch_;
  vx::ComPtr<IVxMetadata> writeMetadata_;
};
