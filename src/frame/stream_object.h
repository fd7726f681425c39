// The COM plumbing of the stream objects a media-file parser hands out: born holding the
// parser's reference, counted as objects of the module, answering IUnknown and their one
// stream interface. Streams are used from the thread of their parser, so the count is plain.
#pragma once

#include <cstdint>

#include "base/module.h"
#include "vx/parser.h"

template <class Interface, const IID& kIid>
class CVxStreamObject : public Interface {
 public:
  CVxStreamObject(const CVxStreamObject&) = delete;
  CVxStreamObject& operator=(const CVxStreamObject&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == kIid) {
      *ppv = static_cast<Interface*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++refs_); }
  ULONG STDMETHODCALLTYPE Release() override {
    const std::int32_t n = --refs_;
    if (n == 0) delete this;
    return static_cast<ULONG>(n);
  }

 protected:
  CVxStreamObject() { vx::module::AddObject(); }
  // After the interface's slots in the table, so callers through the interface never see it.
  virtual ~CVxStreamObject() { vx::module::RemoveObject(); }

 private:
  std::int32_t refs_ = 1;  // the parser's
};

// Picture streams answer their two unused slots alike and keep the host's one flag.
class CVxImageStreamObject
    : public CVxStreamObject<IVxImageStreamParser, IID_IVxImageStreamParser> {
 public:
  HRESULT STDMETHODCALLTYPE ImageOp5(void*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetFlag(DWORD which, DWORD value) override {
    if (which != 0) return E_NOTIMPL;
    flag_ = value != 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE ImageOp7(void*) override { return E_NOTIMPL; }

 private:
  bool flag_ = false;  // SetFlag(0, ...); nothing reads it yet
};

using CVxAudioStreamObject = CVxStreamObject<IVxAudioStreamParser, IID_IVxAudioStreamParser>;
