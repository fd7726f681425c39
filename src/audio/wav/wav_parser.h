// RIFF WAVE and RF64 sound (the "WAV" and "BWF" rows): PCM, float and extensible samples read
// in place, compressed formats through a decoder, the Broadcast Wave record on read, and the
// component's "VXMD" chunk kept across a rewrite.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "audio/base/audio_parser.h"
#include "fileio/chunk_file.h"

namespace vx::audio {

// The "bext" chunk's fixed part, fields in file order (text fields without their padding).
struct BroadcastWaveRecord {
  std::string description;          // 256 bytes
  std::string originator;           // 32
  std::string originatorReference;  // 32
  std::string originationDate;      // 10, "yyyy-mm-dd"
  std::string originationTime;      // 8, "hh:mm:ss"
  std::uint64_t timeReference = 0;  // samples since midnight
  std::uint16_t version = 0;
  std::uint8_t umid[64] = {};     // version 1 and later
  std::int16_t loudness[5] = {};  // version 2: value, range, max true peak, momentary, short term
  std::string codingHistory;      // whatever follows the 602 bytes
};

}  // namespace vx::audio

class CVxAudioParserWAV : public CVxAudioParser {
 public:
  CVxAudioParserWAV();
  ~CVxAudioParserWAV() override;

  // The "bext" record of the file being read; null when it has none.
  const vx::audio::BroadcastWaveRecord* BroadcastWave() const { return bext_.get(); }

 protected:
  HRESULT ParseFile(const VxChar* name, vx::audio::SampleLayout* layout) override;
  void CloseFile() override;
  vx::os::FileHandle SampleFile() const override;
  HRESULT AcceptFormat(const WAVEFORMATEX& format) override;
  HRESULT StartFile(const VxChar* name, std::uint64_t* dataStart,
                    vx::audio::SampleTransform* transform) override;
  HRESULT FinishFile(std::uint64_t frames) override;
  HRESULT AddFormatMetadata(IVxMetadata* out) override;
  void TakeFormatMetadata(IVxMetadata*) override {}  // "bext" is read, never written
  DWORD Capabilities() const override { return 3; }

 private:
  // Walks from the current position to chunk `id`, taking every "bext" of 602 bytes or more on
  // the way. Leaves the file inside that chunk; false when the file ends first.
  bool FindChunk(std::uint32_t id, std::uint32_t* size);
  void ReadBroadcastWave(std::uint32_t size);
  HRESULT ReadFormat(std::uint32_t size, std::vector<std::uint8_t>* format);
  // The host's view of the file's format and where its samples are.
  HRESULT Present(const std::vector<std::uint8_t>& format, vx::audio::SampleLayout* layout);

  std::unique_ptr<vx::fileio::CChunkFile> chunk_;
  std::uint64_t fileSize_ = 0;
  std::uint64_t factFrames_ = 0;  // "fact" sample count of a compressed file; 0 when none
  bool hasFact_ = false;
  std::unique_ptr<vx::audio::BroadcastWaveRecord> bext_;
};
