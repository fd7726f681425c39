// PNG pictures (read and write) through libpng: every colour type and depth, interlaced or not,
// with colour information, pHYs and texts as the metadata record.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/still_picture_parser.h"
#include "still/png/png_codec.h"
#include "vx/parser.h"

class CVxPNGFileParser : public CVxStillPictureParser {
 public:
  CVxPNGFileParser();
  ~CVxPNGFileParser() override;

  // IVxMediaFileParser (Open answers E_NOTIMPL in builds without libpng)
  HRESULT STDMETHODCALLTYPE OpenEx(const VxChar* name, DWORD flags, DWORD reserved) override;
  HRESULT STDMETHODCALLTYPE OpenFileList(IVxFileList* list, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Open(const VxChar* name, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  // "level=0..9": the zlib level of the frames written next (default 6).
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  // Reads and walks the current file unless it is the one already loaded.
  HRESULT Load();
  HRESULT EnsureLoaded();

  bool loaded_ = false;
  VxString loadedName_;
  vx::png::PngInfo info_;
  std::vector<std::uint8_t> file_;  // the whole file; kept so a sequence reuses the buffer
  int level_ = 6;
};
