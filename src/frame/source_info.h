// IVxParserSourceInfo answered from the metadata record: a format fills the record for a frame
// and gets the one-field queries (time code, edge code, rate, ...) from it.
#pragma once

#include <cstdint>

#include "vx/parser.h"

class CVxSourceInfoFromMetadata : public IVxParserSourceInfo {
 public:
  HRESULT STDMETHODCALLTYPE GetTimeCode(std::int32_t frame, DWORD* bcd) override;
  HRESULT STDMETHODCALLTYPE GetEdgeCode(std::int32_t frame, EdgeCode* code) override;
  HRESULT STDMETHODCALLTYPE GetUserBits(std::int32_t frame, DWORD* bits) override;
  HRESULT STDMETHODCALLTYPE GetFrameRate(double* fps) override;
  HRESULT STDMETHODCALLTYPE GetFieldMode(std::int32_t* mode) override;
  HRESULT STDMETHODCALLTYPE GetInputDevice(VxChar* buffer, int size) override;
  // E_NOTIMPL unless the format has a header report.
  HRESULT STDMETHODCALLTYPE GetHeaderReport(VxChar* buffer, int capacity) override;
  HRESULT STDMETHODCALLTYPE GetMetadata(std::int32_t frame, IVxMetadata* out) override;

 protected:
  // Fills `out` (already cleared) with what the file says about frame `frame` (-1: the stream).
  virtual HRESULT FillMetadata(std::int32_t frame, IVxMetadata* out) = 0;

 private:
  // A fresh record for `frame`; S_OK or the format's failure.
  HRESULT Fetch(std::int32_t frame, IVxMetadata** out);
};
