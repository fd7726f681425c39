// The "CHYRON" row. Its still format has no published description, so the parser refuses every
// file with E_NOTIMPL rather than guess at a layout; the row stays so hosts get that answer.
#pragma once

#include "frame/still_image_parser.h"

class CVxChyronFileParser : public CVxStillImageParser {
 public:
  HRESULT STDMETHODCALLTYPE OpenEx(const VxChar* name, DWORD flags, DWORD reserved) override;
  HRESULT STDMETHODCALLTYPE OpenFileList(IVxFileList* list, DWORD flags) override;
  HRESULT STDMETHODCALLTYPE Open(const VxChar* name, DWORD flags) override;
};
