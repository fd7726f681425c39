// QuillPic pictures ("QUILLON" row, extension PIC): 8-bit RGB with optional alpha in chained
// channel packets, read in any of the three codings and written with mixed run-length.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/still_picture_parser.h"
#include "still/quillpic/quillpic_format.h"
#include "vx/parser.h"
#include "vx/platform.h"

class CVxQuillPicFileParser : public CVxStillPictureParser {
 public:
  CVxQuillPicFileParser();
  ~CVxQuillPicFileParser() override;

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE GetStreamCapabilities(DWORD mode, DWORD kind, DWORD* caps) override;
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

  // The field mode a fields code stands for, and the code written for a field mode.
  static std::int32_t FieldModeOf(std::uint32_t code);
  static std::uint16_t FieldsCodeOf(std::int32_t mode);

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  // Parses the current file's header and packets unless already parsed; on failure nothing is
  // held. `keep` receives the open file when given.
  HRESULT LoadHeader(vx::os::UniqueFile* keep);
  HRESULT EnsureHeader();
  bool HasAlpha() const;
  double Aspect() const;  // 1 when the file's ratio is not a usable number
  HRESULT DecodeInto(IVxImage* image);

  bool loaded_ = false;
  VxString loadedName_;
  vx::quillpic::QuillPicHeader header_;
  std::vector<vx::quillpic::QuillPicPacket> packets_;
  std::uint64_t dataOffset_ = 0;
  // The coded lines of the last frame read and where each line starts in them.
  std::vector<std::uint8_t> data_;
  std::vector<std::size_t> lineStarts_;
};
