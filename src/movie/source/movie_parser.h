// Base of the in-process movie parsers (AVI, MXF): one media-file parser over a MovieSource for
// reading and a MovieSink for writing, one picture stream per video track and one sound stream
// per audio track. A container supplies its backend kind, its codec names and its sound streams
// when it has its own.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "frame/source_info.h"
#include "frame/stream_object.h"
#include "movie/source/movie_source.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/parser.h"

namespace vx::movie {

// A start time code and the frames counted from it.
struct TimeCodeStart {
  std::int64_t frame = 0;  // frames since 00:00:00:00, drop-frame numbers skipped
  int base = 0;            // nominal frames per second (30 for 29.97); 0: none
  bool drop = false;
};
// "HH:MM:SS:FF", with ';' or '.' before FF for drop-frame; false when malformed or when the
// fields do not fit `base`.
bool ParseTimeCode(const std::string& text, int base, TimeCodeStart* out);
// The BCD word of the frame `offset` frames after `start`, wrapping at 24 hours.
DWORD TimeCodeWord(const TimeCodeStart& start, std::int64_t offset);
// The text of a BCD word at `base`, for a writer ("" when the word is not a time code).
std::string TimeCodeText(DWORD bcd, bool drop);
// Nominal frames per second of a rate: 24 for 23.976, 30 for 29.97, 0 when not positive.
int NominalRate(double fps);

// The host's PCM format of a track (16, 24 or 32-bit integers, or 32-bit float), and the
// library's layout for a host format.
WAVEFORMATEX WaveFormatOf(const ffmedia::AudioTrack& t);
ffmedia::SampleLayout SampleLayoutOf(const WAVEFORMATEX& f);

}  // namespace vx::movie

class CVxMovieParser;

class CVxMovieImageStream final : public CVxImageStreamObject {
 public:
  CVxMovieImageStream(CVxMovieParser* owner, int track);

  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

  void FillFormat(tagVxImageStreamFormat* out) const;
  void SetDescription(const tagVxImageStreamFormat& d) { description_ = d; }
  const tagVxImageStreamFormat& Description() const { return description_; }
  std::uint32_t Written() const { return written_; }
  void Detach() { owner_ = nullptr; }

 private:
  ~CVxMovieImageStream() override = default;
  HRESULT Decode(IVxImage* dst, VxPixelFormat format, std::int64_t frame);

  CVxMovieParser* owner_;
  int track_;
  tagVxImageStreamFormat description_{};  // the host's, when writing
  std::uint32_t written_ = 0;
};

class CVxMovieAudioStream final : public CVxAudioStreamObject {
 public:
  CVxMovieAudioStream(CVxMovieParser* owner, int track);

  HRESULT STDMETHODCALLTYPE GetFormat(BYTE* buffer, int* size) override;
  HRESULT STDMETHODCALLTYPE GetLength(LONG* range) override;
  HRESULT STDMETHODCALLTYPE ReadSamples(const VxSamplePosition* pos, LONG count, void* buffer,
                                        LONG* done) override;
  HRESULT STDMETHODCALLTYPE WriteSamples(const void* buffer, LONG count) override;
  HRESULT STDMETHODCALLTYPE AudioOp7(void* arg) override;

  // The host's format: the track's on read, the one handed over on write.
  void SetFormat(const WAVEFORMATEX& f) { format_ = f; }
  const WAVEFORMATEX& Format() const { return format_; }
  std::uint64_t Samples() const;
  std::uint64_t Written() const { return written_; }
  void Detach() { owner_ = nullptr; }

 private:
  ~CVxMovieAudioStream() override = default;

  CVxMovieParser* owner_;
  int track_;
  WAVEFORMATEX format_{};
  std::uint64_t written_ = 0;
};

class CVxMovieParser : public IVxMediaFileParser, public CVxSourceInfoFromMetadata {
 public:
  CVxMovieParser(const CVxMovieParser&) = delete;
  CVxMovieParser& operator=(const CVxMovieParser&) = delete;

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

  virtual ~CVxMovieParser();

  // For the streams.
  int Mode() const { return mode_; }
  vx::movie::MovieSource* Source() const { return source_.get(); }
  vx::movie::MovieSink* Sink() const { return sink_.get(); }
  // The host time format of video track `track`.
  VxTimeFormat Rate(int track) const;
  void CountWritten() { ++itemsWritten_; }

 protected:
  struct CodecName {
    const char* name;
    vx::ffmedia::VideoCodec codec;
  };
  CVxMovieParser(vx::movie::Container container, const char* metadataPrefix);

  // What "codec=" may name, and the codec for a stream without a choice.
  virtual const std::vector<CodecName>& Codecs() const = 0;
  virtual vx::ffmedia::VideoCodec DefaultCodec(bool alpha) const = 0;
  // A container with a sound parser of its own serves its sound streams through it: null keeps
  // the base's stream for `track`.
  virtual IVxAudioStreamParser* MakeSoundStream(const std::shared_ptr<vx::movie::MovieSource>&,
                                                const VxString&, int) {
    return nullptr;
  }
  // Container metadata items as "prefix:key" texts, plus the well-known keys they name.
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  HRESULT OpenRead(const VxString& name);
  HRESULT OpenWrite(const VxString& name);
  void DropStreams();

  std::int32_t refs_ = 0;
  vx::movie::Container container_;
  const char* prefix_;
  std::shared_ptr<vx::movie::MovieSource> source_;
  std::unique_ptr<vx::movie::MovieSink> sink_;
  int mode_ = 0;  // 0 closed, 1 reading, 2 writing
  std::vector<CVxMovieImageStream*> images_;
  std::vector<CVxMovieAudioStream*> audios_;
  std::vector<IVxAudioStreamParser*> soundParsers_;  // the container's own, by track; may be null
  std::uint32_t itemsWritten_ = 0;
  bool codecChosen_ = false;
  vx::ffmedia::VideoCodec codec_ = vx::ffmedia::VideoCodec::kRGB24;
  DWORD timeCode_ = 0xFFFFFFFFu;  // from the metadata handed over for writing
  bool dropFrame_ = false;
  std::string reel_;
};
