// Targa pictures (read and write): grey, colour-mapped and true colour, uncompressed and
// run-length, any origin, with the version 2 extension area as metadata.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/still_picture_parser.h"
#include "still/targa/targa_format.h"
#include "vx/parser.h"

class CVxTargaFileParser : public CVxStillPictureParser {
 public:
  CVxTargaFileParser();
  ~CVxTargaFileParser() override;

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  // "compression=rle" (the default) or "none"; "origin=bottom-left" (the default) or "top-left".
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  // Parses the current file's header unless it is the one already parsed; `keep` receives the
  // open file when given.
  HRESULT LoadHeader(vx::os::UniqueFile* keep);
  HRESULT EnsureHeader();
  // Reads the pixel data of the loaded header and checks it covers the picture.
  HRESULT ReadData(vx::os::FileHandle file);

  bool loaded_ = false;
  VxString loadedName_;
  vx::targa::TargaHeader header_;
  std::vector<std::uint32_t> map_;
  std::vector<std::uint8_t> data_;  // kept between frames so a sequence reuses it
  std::size_t dataBytes_ = 0;       // of data_, the current file's
  bool writeRle_ = true;
  bool writeTopToBottom_ = false;
};
