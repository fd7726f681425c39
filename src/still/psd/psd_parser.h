// Photoshop documents (read and write): the merged picture of bitmap, grey, indexed, RGB and
// CMYK documents at 1/8/16/32 bits, raw or RLE, PSD and PSB; layer count and names, mode,
// depth and resolution as metadata. Writes flat 8/16-bit RGB/RGBA PSD with an RLE picture.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/still_picture_parser.h"
#include "still/psd/psd_format.h"
#include "vx/parser.h"

class CVxMediaFileParserPSD : public CVxStillPictureParser {
 public:
  CVxMediaFileParserPSD();
  ~CVxMediaFileParserPSD() override;

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  // "depth=8" or "depth=16" (default: 16 for pictures of more than 8 bits, else 8);
  // "compression=rle", the only one written.
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  HRESULT LoadHeader(vx::os::UniqueFile* keep);
  HRESULT EnsureHeader();
  // The host format the document decodes into: RGBA8, RGBA16 or float RGBA by its depth.
  VxPixelFormat NativeFormat() const;
  double Aspect() const;

  bool loaded_ = false;
  VxString loadedName_;
  vx::psd::PsdDocument doc_;
  vx::psd::PsdPicture picture_;  // kept between frames so a sequence reuses it
  int writeDepth_ = 0;           // 0: by the picture
};
