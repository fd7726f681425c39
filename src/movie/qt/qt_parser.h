// The QuickTime and MPEG-family parser: no container parsing of its own, every operation goes
// through the process's CVxQTManager to the decoder program. One picture stream per video
// track, one sound stream per audio track; writing defines the streams first, then opens.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/source_info.h"
#include "frame/stream_object.h"
#include "movie/qt/qt_interfaces.h"
#include "vx/com_ptr.h"
#include "vx/parser.h"

class CVxMediaFileParserQT;

class CVxImageStreamParserQT final : public CVxImageStreamObject {
 public:
  CVxImageStreamParserQT(CVxMediaFileParserQT* owner, DWORD track);

  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

  // Reads the track's format (command 256).
  HRESULT LoadFormat();
  void FillFormat(tagVxImageStreamFormat* out) const;
  void SetDescription(const tagVxImageStreamFormat& d) { description_ = d; }
  const tagVxImageStreamFormat& Description() const { return description_; }
  const VxQTVideoFormat& Format() const { return format_; }
  bool Fallback() const { return fallback_; }
  std::int64_t FrameTicks() const;
  std::uint32_t Written() const { return written_; }
  void Detach() { owner_ = nullptr; }

 private:
  ~CVxImageStreamParserQT() override = default;

  CVxMediaFileParserQT* owner_;
  DWORD track_;
  VxQTVideoFormat format_{};       // frame count, duration numerator, rate, alpha, field mode, ...
  std::uint32_t pixelFormat_ = 0;  // the code last asked for
  bool fallback_ = false;          // the decoder could not deliver the preferred format
  tagVxImageStreamFormat description_{};  // the host's 14 words, when writing
  std::uint32_t written_ = 0;
};

class CVxAudioStreamParserQT final : public CVxAudioStreamObject {
 public:
  CVxAudioStreamParserQT(CVxMediaFileParserQT* owner, DWORD track);

  HRESULT STDMETHODCALLTYPE GetFormat(BYTE* buffer, int* size) override;
  HRESULT STDMETHODCALLTYPE GetLength(LONG* range) override;
  HRESULT STDMETHODCALLTYPE ReadSamples(const VxSamplePosition* pos, LONG count, void* buffer,
                                        LONG* done) override;
  HRESULT STDMETHODCALLTYPE WriteSamples(const void* buffer, LONG count) override;
  HRESULT STDMETHODCALLTYPE AudioOp7(void* arg) override;

  HRESULT LoadFormat();  // command 512
  // The format for writing: a plain or extensible WAVEFORMATEX, kept as the 40-byte form.
  HRESULT SetWriteFormat(const WAVEFORMATEX* format);
  const VxQTWaveFormat& Format() const { return format_; }
  std::uint64_t Samples() const { return samples_; }
  std::uint64_t Written() const { return written_; }
  void Detach() { owner_ = nullptr; }

 private:
  ~CVxAudioStreamParserQT() override = default;

  CVxMediaFileParserQT* owner_;
  DWORD track_;
  VxQTWaveFormat format_{};
  std::uint64_t samples_ = 0;
  std::uint64_t written_ = 0;
};

class CVxMediaFileParserQT final : public IVxMediaFileParser, public CVxSourceInfoFromMetadata {
 public:
  CVxMediaFileParserQT();
  CVxMediaFileParserQT(const CVxMediaFileParserQT&) = delete;
  CVxMediaFileParserQT& operator=(const CVxMediaFileParserQT&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

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

  virtual ~CVxMediaFileParserQT();

  // For the streams.
  int Mode() const { return mode_; }
  DWORD Movie() const { return movie_; }
  IVxQTParser* Manager() const { return manager_.get(); }
  void CountWritten() { ++itemsWritten_; }

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  HRESULT OpenRead(const VxChar* name);
  HRESULT OpenWrite(const VxChar* name);
  void DropStreams();

  std::int32_t refs_ = 0;
  vx::ComPtr<IVxQTParser> manager_;
  DWORD movie_ = 0;
  bool movieOpen_ = false;
  int mode_ = 0;  // 0 closed, 1 reading, 2 writing
  std::vector<CVxImageStreamParserQT*> images_;
  std::vector<CVxAudioStreamParserQT*> audios_;
  double rate_ = 0;  // of the movie being written
  std::uint32_t itemsWritten_ = 0;
  std::uint32_t codec_ = 0;       // "codec=" option; 0: by the stream's alpha
  DWORD timeCode_ = 0xFFFFFFFFu;  // from the metadata handed over for writing
};
