// COM core types. Windows takes them from the system headers; elsewhere they are defined here
// with the same values and layouts so the component's vtables are COM's on both ABIs.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

#include "vx/vxchar.h"

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#include <objbase.h>
#include <mmreg.h>
// These macros would rename the vx::os functions of the same name in code that sees both.
#undef CreateEvent
#undef OpenEvent
#undef FreeModule
// The module's .def file names the exports; dllexport would add the stdcall-decorated names.
#define VX_EXPORT extern "C"
#else

#define STDMETHODCALLTYPE
#define STDAPICALLTYPE
#define VX_EXPORT extern "C" __attribute__((visibility("default")))

using HRESULT = std::int32_t;
using DWORD = std::uint32_t;
using ULONG = std::uint32_t;
using LONG = std::int32_t;
using LONGLONG = std::int64_t;
using ULONGLONG = std::uint64_t;
using UINT = std::uint32_t;
using WORD = std::uint16_t;
using BYTE = std::uint8_t;
using BOOL = int;
using HANDLE = void*;
using HINSTANCE = void*;
using HMODULE = void*;
using LPVOID = void*;
using WCHAR = VxChar;

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};
using IID = GUID;
using CLSID = GUID;
using REFGUID = const GUID&;
using REFIID = const IID&;
using REFCLSID = const CLSID&;

inline bool operator==(const GUID& a, const GUID& b) {
  return std::memcmp(&a, &b, sizeof(GUID)) == 0;
}
inline bool operator!=(const GUID& a, const GUID& b) {
  return !(a == b);
}
inline bool IsEqualGUID(REFGUID a, REFGUID b) {
  return a == b;
}
inline bool IsEqualIID(REFIID a, REFIID b) {
  return a == b;
}
inline bool IsEqualCLSID(REFCLSID a, REFCLSID b) {
  return a == b;
}

#define SUCCEEDED(hr) (static_cast<HRESULT>(hr) >= 0)
#define FAILED(hr) (static_cast<HRESULT>(hr) < 0)

#define S_OK VX_HR(0x00000000u)
#define S_FALSE VX_HR(0x00000001u)
#define E_NOTIMPL VX_HR(0x80004001u)
#define E_NOINTERFACE VX_HR(0x80004002u)
#define E_POINTER VX_HR(0x80004003u)
#define E_ABORT VX_HR(0x80004004u)
#define E_FAIL VX_HR(0x80004005u)
#define E_UNEXPECTED VX_HR(0x8000FFFFu)
#define E_ACCESSDENIED VX_HR(0x80070005u)
#define E_HANDLE VX_HR(0x80070006u)
#define E_OUTOFMEMORY VX_HR(0x8007000Eu)
#define E_INVALIDARG VX_HR(0x80070057u)
#define CLASS_E_NOAGGREGATION VX_HR(0x80040110u)
#define CLASS_E_CLASSNOTAVAILABLE VX_HR(0x80040111u)
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INSUFFICIENT_BUFFER 122L

constexpr HRESULT HRESULT_FROM_WIN32(long x) {
  return x <= 0 ? static_cast<HRESULT>(x)
                : static_cast<HRESULT>((static_cast<std::uint32_t>(x) & 0x0000FFFFu) | (7u << 16) |
                                       0x80000000u);
}

// No virtual destructor anywhere in an interface: it would add vtable slots.
struct IUnknown {
  virtual HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) = 0;
  virtual ULONG STDMETHODCALLTYPE AddRef() = 0;
  virtual ULONG STDMETHODCALLTYPE Release() = 0;
};

struct IClassFactory : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID riid, void** ppv) = 0;
  virtual HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) = 0;
};

inline constexpr IID IID_IUnknown = {
    0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IClassFactory = {
    0x00000001, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
inline constexpr IID IID_IMarshal = {
    0x00000003, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

#pragma pack(push, 1)
struct WAVEFORMATEX {
  WORD wFormatTag;
  WORD nChannels;
  DWORD nSamplesPerSec;
  DWORD nAvgBytesPerSec;
  WORD nBlockAlign;
  WORD wBitsPerSample;
  WORD cbSize;
};
#pragma pack(pop)
static_assert(sizeof(WAVEFORMATEX) == 18);
#define WAVE_FORMAT_PCM 1
#define WAVE_FORMAT_IEEE_FLOAT 3
#define WAVE_FORMAT_EXTENSIBLE 0xFFFE

#endif  // _WIN32

// A status word from its unsigned spelling (0x80004005u), the same on every ABI.
#ifndef VX_HR
#define VX_HR(x) static_cast<HRESULT>(static_cast<std::uint32_t>(x))
#endif

static_assert(sizeof(GUID) == 16);
static_assert(sizeof(HRESULT) == 4 && sizeof(DWORD) == 4 && sizeof(BOOL) == 4);

namespace vx {

// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}", upper-case hex.
std::string GuidToString(const GUID& g);
// Accepts that form with or without braces, either case. False on anything else.
bool GuidFromString(std::string_view text, GUID* out);

// Status in words for people: "E_FAIL: malformed file", "0x80001234" for unknown codes.
std::string HresultText(HRESULT hr);

}  // namespace vx
