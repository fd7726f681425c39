// Radiance HDR pictures (RGBE, read and write) as single frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "frame/still_picture_parser.h"
#include "still/hdr/hdr_codec.h"
#include "vx/parser.h"

class CVxHdrFileParser : public CVxStillPictureParser, public IVxColorManagedParser {
 public:
  CVxHdrFileParser();
  ~CVxHdrFileParser() override;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return CVxStillImageParser::AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return CVxStillImageParser::Release(); }

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  // "exposure=<stops>" scales what is read; "linear=1" writes the host's pixels as they are,
  // "linear=0" (the default) takes them from the display curve to linear light first.
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;

  // IVxColorManagedParser: linear light, 32-bit float.
  HRESULT STDMETHODCALLTYPE GetTransferCharacteristic(DWORD* code) override;
  HRESULT STDMETHODCALLTYPE GetLevels(VxLevelSet* levels) override;
  HRESULT STDMETHODCALLTYPE SetLevels(const VxLevelSet* levels) override;
  HRESULT STDMETHODCALLTYPE GetBitDepth(DWORD* bits) override;

  double Exposure() const { return exposure_; }
  bool LinearOutput() const { return linearOutput_; }

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  // Parses the current file's header from its first bytes (the whole file when `whole`, kept in
  // file_ for the scanlines).
  HRESULT LoadHeader(bool whole);
  // A pattern names no file of its own: the first existing file of the sequence.
  HRESULT EnsureHeader();
  // Checks every scanline and decodes them into a float RGBA image of the picture's size.
  HRESULT Decode(IVxImage* image);

  double exposure_ = 0.0;
  bool linearOutput_ = false;
  bool levelsImposed_ = false;
  VxLevelSet levels_{};
  vx::hdr::HdrHeader header_;
  std::vector<std::uint8_t> file_;  // the file's bytes, kept between frames for reuse
  std::vector<std::size_t> starts_;
};
