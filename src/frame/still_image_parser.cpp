#include "frame/still_image_parser.h"

#include <cstring>
#include <utility>

#include "base/guard.h"
#include "base/module.h"
#include "vx/platform.h"

namespace {

// Takes ownership of a string the list allocated.
VxString TakeSysString(VxChar* s) {
  VxString out = s ? VxString(s) : VxString();
  VxSysFreeString(s);
  return out;
}

}  // namespace

CVxStillImageParser::CVxStillImageParser() {
  vx::module::AddObject();
}

CVxStillImageParser::~CVxStillImageParser() {
  ReleaseList();
  vx::module::RemoveObject();
}

void CVxStillImageParser::ReleaseList() {
  if (list_) list_->Release();
  list_ = nullptr;
  listFromPattern_ = false;
}

// ---- IUnknown -------------------------------------------------------------------------------

HRESULT CVxStillImageParser::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (riid == IID_IUnknown || riid == IID_IVxMediaFileParser) {
      *ppv = static_cast<IVxMediaFileParser*>(this);
    } else if (riid == IID_IVxImageStreamParser) {
      *ppv = static_cast<IVxImageStreamParser*>(this);
    } else {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  });
}

ULONG CVxStillImageParser::AddRef() {
  return static_cast<ULONG>(++refs_);
}

ULONG CVxStillImageParser::Release() {
  std::int32_t n = --refs_;
  if (n == 0) delete this;
  return static_cast<ULONG>(n);
}

// ---- Opening --------------------------------------------------------------------------------

HRESULT CVxStillImageParser::OpenEx(const VxChar* name, DWORD flags, DWORD /*reserved*/) {
  return Open(name, flags);
}

HRESULT CVxStillImageParser::Open(const VxChar* name, DWORD flags) {
  if (!name) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    VxString opened(name);  // `name` may be our own current name
    IVxFileList* list = nullptr;
    // A pattern that expands to nothing still opens: the format reports the missing file when it
    // first reads. Running out of memory is no such case. Nothing changes before the new list is
    // had, so a failure keeps the old state.
    if (!(flags & VX_OPEN_NO_PATTERN)) {
      const HRESULT hr = VxGetFileListFromPattern(opened.c_str(), &list);
      if (hr == E_OUTOFMEMORY) return hr;
      if (FAILED(hr)) list = nullptr;
    }
    ReleaseList();
    if (list) {
      list_ = list;
      listFromPattern_ = true;
    }
    name_ = std::move(opened);
    flags_ = flags & ~kHostFlagMask;
    return S_OK;
  });
}

HRESULT CVxStillImageParser::OpenFileList(IVxFileList* list, DWORD flags) {
  if (!list) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (list != list_) {
      list->AddRef();
      ReleaseList();
      list_ = list;
    }
    listFromPattern_ = false;
    flags_ = flags & ~kHostFlagMask;
    return S_OK;
  });
}

HRESULT CVxStillImageParser::Close() {
  return vx::Guarded([&]() -> HRESULT {
    ReleaseList();
    flags_ = 0;
    return S_OK;
  });
}

// ---- Queries --------------------------------------------------------------------------------

HRESULT CVxStillImageParser::Prepare(DWORD) {
  return E_NOTIMPL;
}

HRESULT CVxStillImageParser::HasStream(DWORD kind, BOOL* has) {
  if (!has) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    *has = kind == VX_STREAM_PICTURE ? TRUE : FALSE;
    return S_OK;
  });
}

HRESULT CVxStillImageParser::CheckPictureRecord(DWORD kind, const void* record) {
  if (kind != VX_STREAM_PICTURE) return E_INVALIDARG;
  if (!record) return E_POINTER;
  DWORD size;
  std::memcpy(&size, record, sizeof size);
  return size == sizeof(tagVxImageStreamFormat) ? S_OK : E_INVALIDARG;
}

HRESULT CVxStillImageParser::SetStreamFormat(DWORD kind, DWORD /*index*/, void* record) {
  return vx::Guarded([&]() -> HRESULT {
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    // Read by offset: the host's record may not be aligned for a double.
    const auto* bytes = static_cast<const unsigned char*>(record);
    double aspect;
    std::memcpy(&aspect, bytes + offsetof(tagVxImageStreamFormat, pixelAspect), sizeof aspect);
    if (aspect > 0.0) {  // false for NaN too
      aspect_ = aspect;
      aspectImposed_ = true;
    }
    DWORD alpha;
    std::memcpy(&alpha, bytes + offsetof(tagVxImageStreamFormat, hasAlpha), sizeof alpha);
    alphaImposed_ = alpha != 0;
    return S_OK;
  });
}

HRESULT CVxStillImageParser::GetStreamFormat(DWORD, DWORD, void*) {
  return E_NOTIMPL;
}

HRESULT CVxStillImageParser::GetStream(DWORD kind, DWORD index, REFIID riid, void** ppv) {
  return vx::Guarded([&]() -> HRESULT {
    if (kind != VX_STREAM_PICTURE || index != 0) {
      if (ppv) *ppv = nullptr;
      return E_INVALIDARG;
    }
    return QueryInterface(riid, ppv);
  });
}

HRESULT CVxStillImageParser::GetStreamCapabilities(DWORD, DWORD, DWORD*) {
  return E_NOTIMPL;
}
HRESULT CVxStillImageParser::GetTimeRange(DWORD, CVxTime*, CVxTime*) {
  return E_NOTIMPL;
}
HRESULT CVxStillImageParser::SetOption(void*, DWORD) {
  return E_NOTIMPL;
}
HRESULT CVxStillImageParser::TakeMetadataOption(void* option, DWORD kind) {
  if (kind != VX_OPTION_METADATA) return S_FALSE;
  if (!option) return E_POINTER;
  if (!writeMetadata_) {
    if (HRESULT hr = VxCreateMetadata(writeMetadata_.put()); FAILED(hr)) return hr;
  }
  return writeMetadata_->CopyFrom(static_cast<IVxMetadata*>(option));
}

HRESULT CVxStillImageParser::GetCompressionName(VxChar*, int) {
  return E_NOTIMPL;
}

// ---- Picture stream -------------------------------------------------------------------------

HRESULT CVxStillImageParser::ReadImage(IVxImage**, std::int32_t) {
  return E_NOTIMPL;
}
HRESULT CVxStillImageParser::WriteImage(IVxImage*, std::int32_t) {
  return E_NOTIMPL;
}
HRESULT CVxStillImageParser::ImageOp5(void*) {
  return E_NOTIMPL;
}
HRESULT CVxStillImageParser::ImageOp7(void*) {
  return E_NOTIMPL;
}

HRESULT CVxStillImageParser::SetFlag(DWORD which, DWORD value) {
  return vx::Guarded([&]() -> HRESULT {
    if (which != 0) return E_NOTIMPL;
    streamFlag_ = value != 0;
    return S_OK;
  });
}

// ---- Helpers for the formats ----------------------------------------------------------------

HRESULT CVxStillImageParser::SelectFile(int index) {
  if (!list_) return index == 0 || index == -1 ? S_OK : E_INVALIDARG;
  int count = 0;
  if (HRESULT hr = list_->GetCount(&count); FAILED(hr)) return hr;
  if (count <= 0) return S_OK;
  if (index >= 0) {
    if (index >= count) return E_INVALIDARG;
    VxChar* entry = nullptr;
    if (HRESULT hr = list_->GetFileName(index, &entry); FAILED(hr)) return hr;
    name_ = TakeSysString(entry);
    return S_OK;
  }
  if (index != -1) return E_INVALIDARG;
  for (int i = 0; i < count; ++i) {
    VxChar* entry = nullptr;
    if (FAILED(list_->GetFileName(i, &entry))) continue;
    VxString candidate = TakeSysString(entry);
    if (vx::os::IsFile(candidate.c_str())) {
      name_ = std::move(candidate);
      break;
    }
  }
  return S_OK;
}

int CVxStillImageParser::FrameCount() const {
  if (!list_) return 1;
  int count = 0;
  if (FAILED(list_->GetCount(&count)) || count < 0) return 0;
  return count;
}

VxString CVxStillImageParser::OutputFileName(int frame) const {
  if (!list_) return name_;
  if (listFromPattern_) return VxFileNameForFrame(name_.c_str(), frame);
  VxChar* entry = nullptr;
  if (frame >= 0 && SUCCEEDED(list_->GetFileName(frame, &entry))) return TakeSysString(entry);
  return VxFileNameForFrame(name_.c_str(), frame);
}

HRESULT CVxStillImageParser::CopyName(const VxChar* name, VxChar* buffer, int size) {
  if (!buffer || size < 1) return E_INVALIDARG;
  std::size_t n = vx::StrLen(name);
  if (n > static_cast<std::size_t>(size - 1)) n = static_cast<std::size_t>(size - 1);
  if (n) std::memcpy(buffer, name, n * sizeof(VxChar));
  buffer[n] = 0;
  return S_OK;
}
