#include <cctype>
#include <cstdio>
#include <string_view>

#include "vx/com.h"
#include "vx/sdk.h"

namespace vx {

VXSDK_API std::string GuidToString(const GUID& g) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<unsigned>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1],
                g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return buf;
}

VXSDK_API bool GuidFromString(std::string_view text, GUID* out) {
  if (text.size() == 38) {
    if (text.front() != '{' || text.back() != '}') return false;
    text = text.substr(1, 36);
  }
  if (text.size() != 36) return false;
  std::uint8_t bytes[16];
  int n = 0;
  for (std::size_t i = 0; i < 36;) {
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (text[i] != '-') return false;
      ++i;
      continue;
    }
    auto hex = [](char c) -> int {
      if (c >= '0' && c <= '9') return c - '0';
      c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
      if (c >= 'A' && c <= 'F') return c - 'A' + 10;
      return -1;
    };
    int hi = hex(text[i]), lo = hex(text[i + 1]);
    if (hi < 0 || lo < 0) return false;
    bytes[n++] = static_cast<std::uint8_t>(hi << 4 | lo);
    i += 2;
  }
  GUID g;
  g.Data1 = std::uint32_t(bytes[0]) << 24 | std::uint32_t(bytes[1]) << 16 |
            std::uint32_t(bytes[2]) << 8 | bytes[3];
  g.Data2 = static_cast<std::uint16_t>(bytes[4] << 8 | bytes[5]);
  g.Data3 = static_cast<std::uint16_t>(bytes[6] << 8 | bytes[7]);
  for (int k = 0; k < 8; ++k) g.Data4[k] = bytes[8 + k];
  *out = g;
  return true;
}

VXSDK_API std::string HresultText(HRESULT hr) {
  switch (static_cast<std::uint32_t>(hr)) {
    case 0x00000000u:
      return "S_OK";
    case 0x00000001u:
      return "S_FALSE: nothing to report";
    case 0x80004001u:
      return "E_NOTIMPL: not supported";
    case 0x80004002u:
      return "E_NOINTERFACE: interface not available";
    case 0x80004003u:
      return "E_POINTER: null pointer";
    case 0x80004004u:
      return "E_ABORT: aborted";
    case 0x80004005u:
      return "E_FAIL: malformed file";
    case 0x8000FFFFu:
      return "E_UNEXPECTED: unexpected call or value";
    case 0x80070002u:
      return "ERROR_FILE_NOT_FOUND: file not found";
    case 0x80070005u:
      return "E_ACCESSDENIED: access denied";
    case 0x80070006u:
      return "E_HANDLE: invalid handle";
    case 0x8007000Eu:
      return "E_OUTOFMEMORY: out of memory";
    case 0x80070057u:
      return "E_INVALIDARG: invalid argument";
    case 0x8007007Au:
      return "ERROR_INSUFFICIENT_BUFFER: buffer too small";
    case 0x80040110u:
      return "CLASS_E_NOAGGREGATION: aggregation not supported";
    case 0x80040111u:
      return "CLASS_E_CLASSNOTAVAILABLE: class not available";
    default:
      break;
  }
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08X", static_cast<unsigned>(hr));
  return buf;
}

}  // namespace vx
