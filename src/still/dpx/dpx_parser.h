// DPX (read and write) and Cineon (read) pictures: one class, the format chosen at construction.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/still_image_parser.h"
#include "still/dpx/dpx_header.h"
#include "still/dpx/dpx_settings.h"
#include "still/dpx/dpx_unpack.h"
#include "vx/parser.h"

class CVxDPXFileParser : public CVxStillImageParser,
                         public IVxParserSourceInfo,
                         public IVxColorManagedParser,
                         public IVxParserLUTInfo {
 public:
  // Mode 1 reads and writes DPX; mode 0 reads Cineon.
  explicit CVxDPXFileParser(int mode = 1);
  ~CVxDPXFileParser() override;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override { return CVxStillImageParser::AddRef(); }
  ULONG STDMETHODCALLTYPE Release() override { return CVxStillImageParser::Release(); }

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE SetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE GetStreamCapabilities(DWORD mode, DWORD kind, DWORD* caps) override;
  HRESULT STDMETHODCALLTYPE GetTimeRange(DWORD kind, CVxTime* start, CVxTime* end) override;
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE SetFlag(DWORD which, DWORD value) override;

  // IVxParserSourceInfo
  HRESULT STDMETHODCALLTYPE GetTimeCode(std::int32_t frame, DWORD* bcd) override;
  HRESULT STDMETHODCALLTYPE GetEdgeCode(std::int32_t frame, EdgeCode* code) override;
  HRESULT STDMETHODCALLTYPE GetUserBits(std::int32_t frame, DWORD* bits) override;
  HRESULT STDMETHODCALLTYPE GetFrameRate(double* fps) override;
  HRESULT STDMETHODCALLTYPE GetFieldMode(std::int32_t* mode) override;
  HRESULT STDMETHODCALLTYPE GetInputDevice(VxChar* buffer, int size) override;
  HRESULT STDMETHODCALLTYPE GetHeaderReport(VxChar* buffer, int capacity) override;
  HRESULT STDMETHODCALLTYPE GetMetadata(std::int32_t frame, IVxMetadata* out) override;

  // IVxColorManagedParser
  HRESULT STDMETHODCALLTYPE GetTransferCharacteristic(DWORD* code) override;
  HRESULT STDMETHODCALLTYPE GetLevels(VxLevelSet* levels) override;
  HRESULT STDMETHODCALLTYPE SetLevels(const VxLevelSet* levels) override;
  HRESULT STDMETHODCALLTYPE GetBitDepth(DWORD* bits) override;

  // IVxParserLUTInfo
  HRESULT STDMETHODCALLTYPE GetLUTPath(VxChar* buffer, int size) override;
  HRESULT STDMETHODCALLTYPE SetLUTPath(const VxChar* path) override;
  HRESULT STDMETHODCALLTYPE HasLUT(BOOL* has) override;

  // The parsed header of the current file; valid after a successful query or read.
  const vx::dpx::DpxHeaderState& HeaderState() const { return state_; }
  bool HeaderLoaded() const { return loaded_; }
  const vx::dpx::DpxExportSettings& ExportSettings() const { return export_; }
  // The pixel format ReadImage hands back when the caller gives no image.
  VxPixelFormat NativeFormat() const;

 private:
  // Parses the current file's header unless it is the one already parsed. On failure the parser
  // holds no header at all. `keep` receives the open file when given (else it is closed).
  HRESULT LoadHeader(vx::os::UniqueFile* keep);
  // Makes a file of the list current for a format query that names no frame.
  HRESULT EnsureHeader();
  // Reads every element the picture needs into buffers_ and sets up jobs_.
  HRESULT ReadElements(vx::os::FileHandle file);
  // Decodes the read elements into an image of the picture's size.
  HRESULT DecodeInto(IVxImage* image);
  double FrameRate() const;
  std::int32_t FieldMode() const;

  bool isDpx_;
  bool loaded_ = false;
  VxString loadedName_;
  vx::dpx::DpxHeaderState state_;
  // Rate and field mode the host imposed through SetStreamFormat.
  double imposedRate_ = -1.0;
  std::int32_t imposedField_ = -1;
  bool levelsImposed_ = false;
  VxLevelSet imposedLevels_{};
  vx::dpx::DpxExportSettings export_;
  vx::dpx::DpxImportSettings import_;
  // Element bytes, kept between frames so a sequence reuses the memory.
  std::vector<std::uint8_t> buffers_[4];
  vx::dpx::DpxElementJob jobs_[4];
  int jobCount_ = 0;
};
