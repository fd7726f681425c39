// CVxMediaFileParserR3D: RED clips (import). The picture stream is decoded by the shared
// decoder pool (CVxRedProcessHelper) at the chosen decode mode into 16-bit RGB or 8-bit BGRA;
// the clip's look comes from its metadata, then from a sidecar file beside it.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "frame/source_info.h"
#include "red/r3d/red_library.h"
#include "red/r3d/red_process_helper.h"
#include "red/r3d/red_settings.h"
#include "vx/parser.h"

namespace vx::red {

// Import settings ("name=value" texts through SetOption):
//   decode=full|half-premium|half|quarter|eighth|sixteenth   (default full)
//   format=rgb16|bgra8                                        (default rgb16)
//   prefetch=1|0                                              (default 1)
//   card=0|1      may the accelerator card decode (takes effect when the pool starts)
//   sidecar=PATH  a settings file to load instead of the one found beside the clip
//   kelvin=, tint=, exposure=, ... blackLevel=  any key of the sidecar files
struct R3DSettings {
  std::uint32_t decodeMode = kDecodeFullPremium;
  RedPixels pixels = RedPixels::kRgb16;
  bool prefetch = true;
  RedLook look;
  float blackLevel = 0;
  std::int32_t timeCodePreference = 0;  // 0: the clip's time code, 1: its edge time code
};

// Fills `look` from the clip's metadata items (absent items keep their field) and answers the
// clip's time code preference.
std::int32_t LoadLookFromClip(const RedClip& clip, RedLook* look);
// Fills the 688-byte request for `frame`; false when the path does not fit.
bool FillRequest(const R3DSettings& s, const VxString& clipPath, std::int32_t frame,
                 std::uint8_t* request);
// The sidecar beside a clip ("X.RLX" beside "X.R3D" or "X_001.R3D", RLX before RSX before RMD,
// any case); empty when there is none.
VxString FindSidecar(const VxString& clipPath);

class CVxMediaFileParserR3D final : public IVxMediaFileParser,
                                    public IVxImageStreamParser,
                                    public CVxSourceInfoFromMetadata {
 public:
  CVxMediaFileParserR3D();
  CVxMediaFileParserR3D(const CVxMediaFileParserR3D&) = delete;
  CVxMediaFileParserR3D& operator=(const CVxMediaFileParserR3D&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
  ULONG STDMETHODCALLTYPE AddRef() override;
  ULONG STDMETHODCALLTYPE Release() override;

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

  HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) override;
  HRESULT STDMETHODCALLTYPE ImageOp5(void* arg) override;
  HRESULT STDMETHODCALLTYPE SetFlag(DWORD which, DWORD value) override;
  HRESULT STDMETHODCALLTYPE ImageOp7(void* arg) override;

  // The file extensions of the settings files this parser picks up.
  static const VxChar* SidecarExtensions() { return kRedSidecarExtensions; }
  const R3DSettings& Settings() const { return settings_; }
  const VxString& SidecarPath() const { return sidecar_; }

 protected:
  HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) override;

 private:
  ~CVxMediaFileParserR3D();
  HRESULT SetText(const std::string& name, const std::string& value);
  bool LoadSidecar(const VxString& path);
  std::uint32_t Width() const;
  std::uint32_t Height() const;

  std::int32_t refs_ = 0;
  VxString path_;
  std::unique_ptr<RedClip> clip_;
  R3DSettings settings_;
  VxString sidecar_;
  bool sidecarRead_ = false;
};

// The pool every R3D parser of the process uses: the registered generic object when the host
// has one, else one of this module's own. Null when neither starts.
IVxRedProcessHelper* SharedRedHelper();
// Stops and drops this module's own pool (tests; module unload).
void ReleaseOwnRedHelper();

}  // namespace vx::red
