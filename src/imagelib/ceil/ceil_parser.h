// The older raster formats of the image codec library (SGI, Alias, BMP, PCX, ...): one parser
// class, the format chosen by the catalogue row's code, the pixels moved by the format's
// QI_ImageFile class.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "frame/still_picture_parser.h"
#include "imagelib/base/qi_image.h"
#include "vx/parser.h"

class CVxMediaFileParserCEIL : public CVxStillPictureParser {
 public:
  // `code` is the catalogue row's format code (5..19); a code without a class leaves the parser
  // without a file image, and every Open then answers E_POINTER.
  explicit CVxMediaFileParserCEIL(int code = 0);
  ~CVxMediaFileParserCEIL() override;

  // 0 when `code` is already selected; E_UNEXPECTED for a code with no class.
  HRESULT SelectFormat(std::int32_t code);
  std::int32_t FormatCode() const { return code_; }

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE OpenFileList(IVxFileList* list, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Open(const VxChar* name, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Close() override;
  HRESULT STDMETHODCALLTYPE HasStream(DWORD kind, BOOL* has) override;
  HRESULT STDMETHODCALLTYPE SetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE GetStreamCapabilities(DWORD mode, DWORD kind, DWORD* caps) override;
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  enum Mode : std::int32_t { kClosed = 0, kRead = 1, kWrite = 2 };

  // Opens file `index` of the sequence on the file image and reads its header into format_.
  HRESULT LoadFile(std::int32_t index);
  HRESULT ReadStraight(IVxImage* dst, std::int32_t w, std::int32_t h, bool deep);
  void UnloadFile();
  // Loads the first file of the sequence that loads, unless the record is already filled.
  HRESULT EnsureFormat();
  VxPixelFormat NativeFormat() const;
  HRESULT WriteFile(IVxImage* image, const VxString& name);

  std::unique_ptr<QI_ImageFile> file_;
  std::int32_t mode_ = kClosed;
  std::int32_t current_ = -1;
  std::int32_t code_ = 0;
  tagVxImageStreamFormat format_{};
  std::span<const std::int32_t> compressions_;
};
