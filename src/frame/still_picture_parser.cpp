#include "frame/still_picture_parser.h"

#include <cctype>

#include "base/guard.h"
#include "vx/sdk.h"
#include "vx/vxchar.h"

HRESULT CVxStillPictureParser::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (riid != IID_IVxParserSourceInfo) return CVxStillImageParser::QueryInterface(riid, ppv);
    *ppv = static_cast<IVxParserSourceInfo*>(this);
    AddRef();
    return S_OK;
  });
}

HRESULT CVxStillPictureParser::GetStreamCapabilities(DWORD /*mode*/, DWORD kind, DWORD* caps) {
  if (!caps) return E_POINTER;
  *caps = kind == VX_STREAM_PICTURE ? kPictureCapabilities : 0;
  return S_OK;
}

HRESULT CVxStillPictureParser::GetTimeRange(DWORD /*kind*/, CVxTime* start, CVxTime* end) {
  if (!start || !end) return E_POINTER;
  *start = CVxTime();
  *end = CVxTime();
  return S_FALSE;
}

bool CVxStillPictureParser::SplitTextOption(const void* option, std::string* name,
                                            std::string* value) {
  const std::string text = vx::ToUtf8(static_cast<const VxChar*>(option));
  const std::size_t eq = text.find('=');
  if (eq == std::string::npos) return false;
  auto clean = [](std::string s) {
    const std::size_t first = s.find_first_not_of(' ');
    s = first == std::string::npos ? std::string()
                                   : s.substr(first, s.find_last_not_of(' ') + 1 - first);
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
  };
  *name = clean(text.substr(0, eq));
  *value = clean(text.substr(eq + 1));
  return true;
}
