// MXF sound: the sound tracks of OP1a files and OP-Atom sound files, through the movie backend's
// demuxer, as PCM on the same ReadSamples path as WAV, with the file's start time code. Read
// only. The MXF media parser hands its own open file and a track to one instance per track.
#pragma once

#include <memory>

#include "audio/base/audio_parser.h"
#include "movie/source/movie_source.h"

class CVxAudioParserMXF final : public CVxAudioParser {
 public:
  CVxAudioParserMXF();
  ~CVxAudioParserMXF() override;

  // Reads track `track` of `source` (already open) instead of opening the named file.
  void UseSource(std::shared_ptr<vx::movie::MovieSource> source, int track);

 protected:
  HRESULT ParseFile(const VxChar* name, vx::audio::SampleLayout* layout) override;
  void CloseFile() override;
  vx::os::FileHandle SampleFile() const override { return vx::os::kNoFile; }
  HRESULT AcceptFormat(const WAVEFORMATEX&) override { return E_NOTIMPL; }
  HRESULT StartFile(const VxChar*, std::uint64_t*, vx::audio::SampleTransform*) override {
    return E_NOTIMPL;
  }
  HRESULT FinishFile(std::uint64_t) override { return E_NOTIMPL; }
  HRESULT AddFormatMetadata(IVxMetadata* out) override;
  void TakeFormatMetadata(IVxMetadata*) override {}
  DWORD Capabilities() const override { return 1; }
  HRESULT ReadFrames(std::uint64_t first, std::uint32_t frames, std::uint8_t* out,
                     std::uint32_t* got) override;

 private:
  std::shared_ptr<vx::movie::MovieSource> given_;  // the media parser's, when it gave one
  int givenTrack_ = 0;
  std::shared_ptr<vx::movie::MovieSource> source_;  // what is being read
  int track_ = 0;
};
