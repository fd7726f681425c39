// TIFF pictures through libtiff (read and write): every page of a multi-page file is a frame.
// Grey, RGB, palette and CMYK of 1 to 32-bit integer and 16/24/32-bit float samples are unpacked
// by us from libtiff's decoded strips or tiles; YCbCr and other colour models go through libtiff's
// RGBA interface.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frame/still_picture_parser.h"
#include "still/tiff/tiff_codec.h"
#include "vx/parser.h"

class CVxTIFFFileParser : public CVxStillPictureParser {
 public:
  CVxTIFFFileParser();
  ~CVxTIFFFileParser() override;

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE Open(const VxChar* name, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE OpenFileList(IVxFileList* list, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  // "compression=deflate" (the default), "lzw", "packbits" or "none"; "depth=8", "16" or "32f"
  // (other numbers round up to one of these; by default the picture's own).
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  // Makes the file and page of stream frame `frame` current: a multi-page file's frame N is its
  // page N, a numbered sequence's frame N its file N (page 0). -1: the first.
  HRESULT SelectFrame(std::int32_t frame, int* page);
  // Reads the current file whole and describes `page` unless both are the ones already loaded.
  HRESULT LoadPage(int page, bool reread);
  HRESULT EnsurePage();

  bool loaded_ = false;
  VxString loadedName_;
  int loadedPage_ = -1;
  int pages_ = 1;  // of the file opened first
  vx::tiff::TiffPage page_;
  std::vector<std::uint8_t> data_;
  int writeDepth_ = 0;  // 0: the picture's own; 8, 16 or 32 (float)
  vx::tiff::Compression writeCompression_ = vx::tiff::Compression::kDeflate;
};
