#include "frame/source_info.h"

#include <string>

#include "base/guard.h"
#include "frame/still_image_parser.h"
#include "vx/com_ptr.h"

HRESULT CVxSourceInfoFromMetadata::Fetch(std::int32_t frame, IVxMetadata** out) {
  vx::ComPtr<IVxMetadata> md;
  if (HRESULT hr = VxCreateMetadata(md.put()); FAILED(hr)) return hr;
  if (HRESULT hr = FillMetadata(frame, md.get()); FAILED(hr)) return hr;
  *out = md.detach();
  return S_OK;
}

HRESULT CVxSourceInfoFromMetadata::GetMetadata(std::int32_t frame, IVxMetadata* out) {
  if (!out) return E_POINTER;
  return vx::Guarded([&] {
    out->Clear();
    return FillMetadata(frame, out);
  });
}

HRESULT CVxSourceInfoFromMetadata::GetTimeCode(std::int32_t frame, DWORD* bcd) {
  if (!bcd) return E_POINTER;
  *bcd = 0;
  return vx::Guarded([&] {
    vx::ComPtr<IVxMetadata> md;
    if (HRESULT hr = Fetch(frame, md.put()); FAILED(hr)) return hr;
    const VxMetadataRecord r = vx::md::GetRecord(md.get());
    if (!(r.present & VX_MD_TIMECODE)) return S_FALSE;
    *bcd = r.timeCode;
    return S_OK;
  });
}

HRESULT CVxSourceInfoFromMetadata::GetEdgeCode(std::int32_t frame, EdgeCode* code) {
  if (!code) return E_POINTER;
  return vx::Guarded([&] {
    vx::ComPtr<IVxMetadata> md;
    if (HRESULT hr = Fetch(frame, md.put()); FAILED(hr)) return hr;
    const std::string text = vx::md::GetText(md.get(), vx::md::kEdgeCode);
    *code = EdgeCode();
    return !text.empty() && code->InitFromString(text.c_str()) ? S_OK : S_FALSE;
  });
}

HRESULT CVxSourceInfoFromMetadata::GetUserBits(std::int32_t frame, DWORD* bits) {
  if (!bits) return E_POINTER;
  *bits = 0;
  return vx::Guarded([&] {
    vx::ComPtr<IVxMetadata> md;
    if (HRESULT hr = Fetch(frame, md.put()); FAILED(hr)) return hr;
    const VxMetadataRecord r = vx::md::GetRecord(md.get());
    if (!(r.present & VX_MD_USERBITS)) return S_FALSE;
    *bits = r.userBits;
    return S_OK;
  });
}

HRESULT CVxSourceInfoFromMetadata::GetFrameRate(double* fps) {
  if (!fps) return E_POINTER;
  *fps = -1.0;
  return vx::Guarded([&] {
    vx::ComPtr<IVxMetadata> md;
    if (HRESULT hr = Fetch(-1, md.put()); FAILED(hr)) return hr;
    const VxMetadataRecord r = vx::md::GetRecord(md.get());
    if (!(r.present & VX_MD_FRAMERATE) || r.frameRate.Rate() <= 0.0) return S_FALSE;
    *fps = r.frameRate.Rate();
    return S_OK;
  });
}

HRESULT CVxSourceInfoFromMetadata::GetFieldMode(std::int32_t* mode) {
  if (!mode) return E_POINTER;
  *mode = VX_FIELD_UNKNOWN;
  return vx::Guarded([&] {
    vx::ComPtr<IVxMetadata> md;
    if (HRESULT hr = Fetch(-1, md.put()); FAILED(hr)) return hr;
    const VxMetadataRecord r = vx::md::GetRecord(md.get());
    if (!(r.present & VX_MD_FIELDMODE)) return S_FALSE;
    *mode = r.fieldMode;
    return S_OK;
  });
}

HRESULT CVxSourceInfoFromMetadata::GetInputDevice(VxChar* buffer, int size) {
  if (!buffer || size < 1) return E_INVALIDARG;
  buffer[0] = 0;
  return vx::Guarded([&] {
    vx::ComPtr<IVxMetadata> md;
    if (HRESULT hr = Fetch(-1, md.put()); FAILED(hr)) return hr;
    const std::string text = vx::md::GetText(md.get(), vx::md::kInputDevice);
    if (HRESULT hr = CVxStillImageParser::CopyName(vx::FromUtf8(text).c_str(), buffer, size);
        FAILED(hr))
      return hr;
    return text.empty() ? S_FALSE : S_OK;
  });
}

HRESULT CVxSourceInfoFromMetadata::GetHeaderReport(VxChar*, int) {
  return E_NOTIMPL;
}
