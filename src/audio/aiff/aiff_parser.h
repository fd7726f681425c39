// AIFF and uncompressed AIFC sound (read) and AIFC (write) on the audio parser base. The header
// is big-endian IFF, read and written through a CReverseChunkFile; the base moves the samples.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "audio/base/audio_parser.h"
#include "fileio/chunk_file.h"

class CVxAudioParserAIFF : public CVxAudioParser {
 public:
  CVxAudioParserAIFF();
  ~CVxAudioParserAIFF() override;

 protected:
  HRESULT ParseFile(const VxChar* name, vx::audio::SampleLayout* layout) override;
  void CloseFile() override;
  vx::os::FileHandle SampleFile() const override;
  HRESULT AcceptFormat(const WAVEFORMATEX& format) override;
  HRESULT StartFile(const VxChar* name, std::uint64_t* dataStart,
                    vx::audio::SampleTransform* transform) override;
  HRESULT FinishFile(std::uint64_t frames) override;
  HRESULT AddFormatMetadata(IVxMetadata* out) override;
  void TakeFormatMetadata(IVxMetadata* md) override;
  DWORD Capabilities() const override;

 private:
  // The texts of the "NAME", "AUTH", "(c) " and "ANNO" chunks, as UTF-8.
  struct Texts {
    std::string name, author, copyright, annotation;
  };

  HRESULT ParseHeader(std::uint64_t fileSize, vx::audio::SampleLayout* layout);
  HRESULT ParseComm(std::uint32_t size, bool aifc);
  void ReadText(std::uint32_t size, std::uint64_t fileSize, std::string* into);
  bool WriteTextChunk(std::uint32_t id, const std::string& text);

  std::unique_ptr<vx::fileio::CReverseChunkFile> file_;
  // COMM as read.
  std::uint16_t channels_ = 0;
  std::uint32_t commFrames_ = 0;
  std::uint16_t sampleSize_ = 0;
  double rate_ = 0;
  // Offsets kept for patching at the end of an export.
  std::uint64_t commFramesAt_ = 0;
  std::uint64_t ssndSizeAt_ = 0;
  std::uint64_t dataStart_ = 0;
  Texts texts_;       // of the file read
  Texts writeTexts_;  // for the file written
};
