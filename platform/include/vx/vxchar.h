// UTF-16 text on every platform: wchar_t on Windows, char16_t elsewhere. File names and
// user-visible text travel in this form; the decoder channels carry it as UTF-16LE.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#ifdef _WIN32
using VxChar = wchar_t;
#define VXT(s) L##s
#else
using VxChar = char16_t;
#define VXT(s) u##s
#endif

static_assert(sizeof(VxChar) == 2, "host text is UTF-16 code units");

using VxString = std::basic_string<VxChar>;
using VxStringView = std::basic_string_view<VxChar>;

namespace vx {

// Conversions at the OS boundary. Invalid sequences become U+FFFD rather than failing.
std::string ToUtf8(VxStringView text);
VxString FromUtf8(std::string_view text);

// Length of a NUL-terminated VxChar string (null gives 0).
std::size_t StrLen(const VxChar* s);

}  // namespace vx
