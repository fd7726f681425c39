#include "still/chyron/chyron_parser.h"

HRESULT CVxChyronFileParser::OpenEx(const VxChar* name, DWORD flags, DWORD /*reserved*/) {
  return Open(name, flags);
}

HRESULT CVxChyronFileParser::OpenFileList(IVxFileList* list, DWORD /*flags*/) {
  return list ? E_NOTIMPL : E_POINTER;
}

HRESULT CVxChyronFileParser::Open(const VxChar* name, DWORD /*flags*/) {
  return name ? E_NOTIMPL : E_POINTER;
}
