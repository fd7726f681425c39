// The metadata record object and the words for its enumerations.
#include "vx/metadata.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "com_object.h"

namespace {

class Metadata final : public vx::sdk::ComObject<IVxMetadata, IID_IVxMetadata> {
 public:
  HRESULT STDMETHODCALLTYPE GetRecord(VxMetadataRecord* record) override {
    if (!record) return E_POINTER;
    if (record->cbSize != sizeof(VxMetadataRecord)) return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(mutex_);
    *record = record_;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetRecord(const VxMetadataRecord* record) override {
    if (!record) return E_POINTER;
    if (record->cbSize != sizeof(VxMetadataRecord)) return E_INVALIDARG;
    std::lock_guard<std::mutex> lock(mutex_);
    record_ = *record;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetText(const VxChar* key, VxChar** value) override {
    if (!key || !value) return E_POINTER;
    *value = nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = Find(key);
    if (it == texts_.end()) return S_FALSE;
    *value = VxSysAllocString(it->second.c_str());
    return *value ? S_OK : E_OUTOFMEMORY;
  }
  HRESULT STDMETHODCALLTYPE SetText(const VxChar* key, const VxChar* value) override {
    if (!key) return E_POINTER;
    if (!*key) return E_INVALIDARG;
    try {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = Find(key);
      if (!value || !*value) {
        if (it != texts_.end()) texts_.erase(it);
      } else if (it != texts_.end()) {
        it->second = value;
      } else {
        texts_.emplace_back(key, value);
      }
      return S_OK;
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
  }
  HRESULT STDMETHODCALLTYPE GetTextCount(int* count) override {
    if (!count) return E_POINTER;
    std::lock_guard<std::mutex> lock(mutex_);
    *count = static_cast<int>(texts_.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTextAt(int index, VxChar** key, VxChar** value) override {
    if (!key || !value) return E_POINTER;
    *key = *value = nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    if (index < 0 || static_cast<std::size_t>(index) >= texts_.size()) return E_INVALIDARG;
    *key = VxSysAllocString(texts_[index].first.c_str());
    *value = VxSysAllocString(texts_[index].second.c_str());
    if (*key && *value) return S_OK;
    VxSysFreeString(std::exchange(*key, nullptr));
    VxSysFreeString(std::exchange(*value, nullptr));
    return E_OUTOFMEMORY;
  }
  HRESULT STDMETHODCALLTYPE CopyFrom(IVxMetadata* source) override {
    if (!source) return E_POINTER;
    if (source == this) return S_OK;
    VxMetadataRecord record{};
    record.cbSize = sizeof record;
    if (HRESULT hr = source->GetRecord(&record); FAILED(hr)) return hr;
    int count = 0;
    if (HRESULT hr = source->GetTextCount(&count); FAILED(hr)) return hr;
    try {
      std::vector<std::pair<VxString, VxString>> texts;
      for (int i = 0; i < count; ++i) {
        VxChar *k = nullptr, *v = nullptr;
        if (HRESULT hr = source->GetTextAt(i, &k, &v); FAILED(hr)) return hr;
        texts.emplace_back(k ? k : VXT(""), v ? v : VXT(""));
        VxSysFreeString(k);
        VxSysFreeString(v);
      }
      std::lock_guard<std::mutex> lock(mutex_);
      record_ = record;
      texts_ = std::move(texts);
      return S_OK;
    } catch (const std::bad_alloc&) {
      return E_OUTOFMEMORY;
    }
  }
  HRESULT STDMETHODCALLTYPE Clear() override {
    std::lock_guard<std::mutex> lock(mutex_);
    record_ = vx::md::EmptyRecord();
    texts_.clear();
    return S_OK;
  }

 private:
  std::vector<std::pair<VxString, VxString>>::iterator Find(const VxChar* key) {
    return std::find_if(texts_.begin(), texts_.end(),
                        [key](const auto& t) { return t.first == key; });
  }

  std::mutex mutex_;
  VxMetadataRecord record_ = vx::md::EmptyRecord();
  std::vector<std::pair<VxString, VxString>> texts_;
};

constexpr const char* kTransferNames[] = {"unknown",
                                          "user",
                                          "printing-density",
                                          "linear",
                                          "log",
                                          "video",
                                          "smpte-274m",
                                          "rec709",
                                          "rec601-625",
                                          "rec601-525",
                                          "ntsc",
                                          "pal",
                                          "z-linear",
                                          "z-homogeneous",
                                          "srgb",
                                          "gamma",
                                          "pq",
                                          "hlg"};
static_assert(std::size(kTransferNames) == VX_TRANSFER_COUNT);

constexpr const char* kColorimetricNames[] = {
    "unknown", "user", "printing-density", "smpte-274m", "rec709", "rec601-625", "rec601-525",
    "ntsc",    "pal",  "rec2020",          "dci-p3",     "xyz"};
static_assert(std::size(kColorimetricNames) == VX_COLORIMETRIC_COUNT);

template <std::size_t N>
bool FromName(const char* const (&names)[N], std::string_view name, DWORD* out) {
  for (std::size_t i = 0; i < N; ++i) {
    if (name == names[i]) {
      *out = static_cast<DWORD>(i);
      return true;
    }
  }
  return false;
}

}  // namespace

VXSDK_API HRESULT VxCreateMetadata(IVxMetadata** out) {
  if (!out) return E_POINTER;
  *out = new (std::nothrow) Metadata();
  return *out ? S_OK : E_OUTOFMEMORY;
}

VXSDK_API const char* VxTransferName(DWORD transfer) {
  return transfer < VX_TRANSFER_COUNT ? kTransferNames[transfer] : nullptr;
}
VXSDK_API bool VxTransferFromName(std::string_view name, DWORD* transfer) {
  return transfer && FromName(kTransferNames, name, transfer);
}
VXSDK_API const char* VxColorimetricName(DWORD colorimetric) {
  return colorimetric < VX_COLORIMETRIC_COUNT ? kColorimetricNames[colorimetric] : nullptr;
}
VXSDK_API bool VxColorimetricFromName(std::string_view name, DWORD* colorimetric) {
  return colorimetric && FromName(kColorimetricNames, name, colorimetric);
}

namespace vx::md {

VXSDK_API std::string GetText(IVxMetadata* md, std::string_view key) {
  if (!md) return {};
  VxChar* value = nullptr;
  const VxString k = vx::FromUtf8(std::string(key));
  std::string out;
  if (md->GetText(k.c_str(), &value) == S_OK && value) out = vx::ToUtf8(value);
  VxSysFreeString(value);
  return out;
}

VXSDK_API bool HasText(IVxMetadata* md, std::string_view key) {
  if (!md) return false;
  VxChar* value = nullptr;
  const VxString k = vx::FromUtf8(std::string(key));
  const bool has = md->GetText(k.c_str(), &value) == S_OK;
  VxSysFreeString(value);
  return has;
}

VXSDK_API HRESULT SetText(IVxMetadata* md, std::string_view key, std::string_view value) {
  if (!md) return E_POINTER;
  const VxString k = vx::FromUtf8(std::string(key));
  const VxString v = vx::FromUtf8(std::string(value));
  return md->SetText(k.c_str(), v.c_str());
}

VXSDK_API VxMetadataRecord GetRecord(IVxMetadata* md) {
  VxMetadataRecord r = EmptyRecord();
  if (md && FAILED(md->GetRecord(&r))) r = EmptyRecord();
  return r;
}

}  // namespace vx::md
