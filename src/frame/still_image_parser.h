// Base of the single-picture parsers: one COM object that is both the media-file parser and its
// own picture stream. Formats override the queries and reads they support and call SelectFile
// before each read of a numbered sequence.
#pragma once

#include <cstdint>

#include "vx/com_ptr.h"
#include "vx/parser.h"

class CVxStillImageParser : public IVxMediaFileParser, public IVxImageStreamParser {
 public:
  CVxStillImageParser();
  CVxStillImageParser(const CVxStillImageParser&) = delete;
  CVxStillImageParser& operator=(const CVxStillImageParser&) = delete;

  // IUnknown (shared by both views). Formats offering more interfaces override QueryInterface
  // and fall back to this one.
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

  // IVxMediaFileParser
  HRESULT STDMETHODCALLTYPE OpenEx(const VxChar* name, DWORD flags, DWORD reserved) override;
  HRESULT STDMETHODCALLTYPE OpenFileList(IVxFileList* list, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Open(const VxChar* name, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Close() override;
  HRESULT STDMETHODCALLTYPE Prepare(DWORD arg) override;
  HRESULT STDMETHODCALLTYPE HasStream(DWORD kind, BOOL* has) override;
  HRESULT STDMETHODCALLTYPE SetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) override;
  HRESULT STDMETHODCALLTYPE GetStream(DWORD kind, DWORD index, REFIID riid, void** ppv) override;
  HRESULT STDMETHODCALLTYPE GetStreamCapabilities(DWORD mode, DWORD kind, DWORD* caps) override;
  HRESULT STDMETHODCALLTYPE GetTimeRange(DWORD kind, CVxTime* start, CVxTime* end) override;
  HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) override;
  HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) override;

  // IVxImageStreamParser
  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE ImageOp5(void* arg) override;
  HRESULT STDMETHODCALLTYPE SetFlag(DWORD which, DWORD value) override;
  HRESULT STDMETHODCALLTYPE ImageOp7(void* arg) override;

  // First virtual of our own, so it follows the 16 parser slots.
  virtual ~CVxStillImageParser();

  // Open flags the parser never keeps: they belong to the host.
  static constexpr DWORD kHostFlagMask = VX_OPEN_NO_PATTERN | VX_OPEN_HOST_RESERVED;

  // Copies `name` into the host's buffer (at most size characters, terminated within them).
  static HRESULT CopyName(const VxChar* name, VxChar* buffer, int size);

 protected:
  // Makes entry `index` of the list the current file; -1 takes the first entry that exists and
  // is not a folder. Without a list only 0 and -1 are valid and the name stays as opened.
  HRESULT SelectFile(int index);

  const VxString& CurrentFileName() const { return name_; }
  IVxFileList* FileList() const { return list_; }  // no reference added; may be null
  // Entries of the list, 1 without a list. 0 for an empty list.
  int FrameCount() const;
  DWORD Flags() const { return flags_; }
  bool IsWriting() const { return (flags_ & VX_OPEN_WRITE) != 0; }
  // The file that frame `frame` goes to when exporting: the opened name taken literally when
  // pattern expansion was off, else the pattern with the frame number filled in (or the list's
  // entry for a list the host handed over).
  VxString OutputFileName(int frame) const;

  double PixelAspect() const { return aspect_; }
  bool AspectImposed() const { return aspectImposed_; }
  bool AlphaImposed() const { return alphaImposed_; }  // host asked for an alpha channel
  bool StreamFlag() const { return streamFlag_; }

  // The picture stream's record check shared by the formats' SetStreamFormat/GetStreamFormat:
  // E_POINTER for null, E_INVALIDARG for another kind or a size other than 56.
  static HRESULT CheckPictureRecord(DWORD kind, const void* record);
  // SetOption's metadata kind, for the formats' SetOption: with VX_OPTION_METADATA keeps a copy
  // of the record for the frames written next (S_OK); any other kind answers S_FALSE untouched.
  HRESULT TakeMetadataOption(void* option, DWORD kind);
  // The record the host handed over for writing; null when none.
  IVxMetadata* WriteMetadata() const { return writeMetadata_.get(); }

 private:
  void ReleaseList();

  IVxFileList* list_ = nullptr;
  VxString name_;
  std::int32_t refs_ = 0;
  DWORD flags_ = 0;
  double aspect_ = 1.0;
  bool aspectImposed_ = false;
  bool alphaImposed_ = false;
  bool streamFlag_ = false;
  bool listFromPattern_ = false;  // the list was expanded from name_ rather than handed over
  vx::ComPtr<IVxMetadata> writeMetadata_;
};
