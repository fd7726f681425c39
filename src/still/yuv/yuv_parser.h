// Raw 4:2:2 frames, one per file: "YUV" (8-bit UYVY) and "YUV16" (10 bits in 16-bit words,
// planar), one class in two modes. The raster comes from the file size or the "size=WxH" option.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/still_picture_parser.h"
#include "still/yuv/yuv_codec.h"
#include "vx/parser.h"
#include "vx/platform.h"

class CVxYUVFileParser : public CVxStillPictureParser {
 public:
  // Mode 0: "YUV" (8-bit UYVY); 1: "YUV16" (10-bit planar).
  explicit CVxYUVFileParser(int mode = 0);
  ~CVxYUVFileParser() override;

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

  vx::yuv::YuvLayout Layout() const { return layout_; }

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  // The raster of the current file (the size option, else its size), E_FAIL when it has none.
  HRESULT Probe(vx::os::UniqueFile* keep, vx::yuv::YuvRaster* raster);
  // Makes a file of the list current for a query that names no frame.
  HRESULT EnsureFile();
  VxPixelFormat NativeFormat() const;

  vx::yuv::YuvLayout layout_;
  vx::yuv::YuvRaster size_;  // from the option; 0 x 0 when none was given
  std::vector<std::uint8_t> frame_;
};
