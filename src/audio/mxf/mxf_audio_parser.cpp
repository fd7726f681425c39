#include "audio/mxf/mxf_audio_parser.h"

#include <utility>

#include "movie/source/movie_parser.h"

namespace ff = vx::ffmedia;

CVxAudioParserMXF::CVxAudioParserMXF() = default;
CVxAudioParserMXF::~CVxAudioParserMXF() = default;

void CVxAudioParserMXF::UseSource(std::shared_ptr<vx::movie::MovieSource> source, int track) {
  given_ = std::move(source);
  givenTrack_ = track;
}

HRESULT CVxAudioParserMXF::ParseFile(const VxChar* name, vx::audio::SampleLayout* layout) {
  std::shared_ptr<vx::movie::MovieSource> source = given_;
  int track = givenTrack_;
  if (!source) {
    source = vx::movie::MakeMovieSource(vx::movie::Container::kMxf);
    if (!source) return E_NOTIMPL;
    const ff::Status s = source->Open(vx::ToUtf8(name));
    if (s != ff::Status::kOk) return s == ff::Status::kOutOfMemory ? E_OUTOFMEMORY : E_FAIL;
    if (source->Info().container.rfind("mxf", 0) != 0) return E_FAIL;
    track = 0;
  }
  const ff::MediaInfo& info = source->Info();
  if (track < 0 || static_cast<std::size_t>(track) >= info.audio.size()) return E_FAIL;
  const ff::AudioTrack& t = info.audio[static_cast<std::size_t>(track)];
  if (t.sampleRate <= 0 || t.channels <= 0 || t.channels > 64 || t.samples < 0) return E_FAIL;
  const WAVEFORMATEX f = vx::movie::WaveFormatOf(t);
  SetHostFormat(&f, sizeof f);
  layout->dataStart = 0;
  layout->frames = static_cast<std::uint64_t>(t.samples);
  layout->fileBlockAlign = f.nBlockAlign;
  layout->dataBytes = layout->frames * f.nBlockAlign;
  source_ = std::move(source);
  track_ = track;
  return S_OK;
}

void CVxAudioParserMXF::CloseFile() {
  source_.reset();
}

HRESULT CVxAudioParserMXF::ReadFrames(std::uint64_t first, std::uint32_t frames, std::uint8_t* out,
                                      std::uint32_t* got) {
  *got = 0;
  if (!source_) return E_UNEXPECTED;
  std::int64_t real = 0;
  const ff::Status s = source_->ReadAudio(track_, static_cast<std::int64_t>(first), frames,
                                          vx::movie::SampleLayoutOf(HostFormat()), out, &real);
  if (s != ff::Status::kOk) return s == ff::Status::kOutOfMemory ? E_OUTOFMEMORY : E_FAIL;
  *got = static_cast<std::uint32_t>(real < 0 ? 0 : real > frames ? frames : real);
  return S_OK;
}

HRESULT CVxAudioParserMXF::AddFormatMetadata(IVxMetadata* out) {
  if (!source_) return S_OK;
  const ff::MediaInfo& info = source_->Info();
  if (info.timecode.empty()) return S_OK;
  // The time code counts the pictures' frames; a sound-only file counts 25 a second.
  const double fps = info.video.empty() ? 25.0 : info.video[0].rate.Value();
  vx::movie::TimeCodeStart tc;
  if (!vx::movie::ParseTimeCode(info.timecode, vx::movie::NominalRate(fps), &tc)) return S_OK;
  VxMetadataRecord r = vx::md::GetRecord(out);
  r.present |= VX_MD_TIMECODE | VX_MD_TIMEREFERENCE;
  r.timeCode = vx::movie::TimeCodeWord(tc, 0);
  r.timeCodeRate = {tc.base, 1};
  r.dropFrame = tc.drop ? 1 : 0;
  // Samples since midnight: drop-frame counts run at 1000/1001 of the nominal rate.
  const double seconds = static_cast<double>(tc.frame) / tc.base * (tc.drop ? 1.001 : 1.0);
  r.timeReference = static_cast<std::uint64_t>(seconds * HostFormat().nSamplesPerSec + 0.5);
  return out->SetRecord(&r);
}
