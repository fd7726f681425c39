#include "still/dpx/dpx_settings.h"

#include <cctype>
#include <charconv>
#include <string>
#include <string_view>

#include "still/dpx/dpx_metadata.h"

namespace vx::dpx {
namespace {

struct LayoutName {
  DpxLayout layout;
  const char* option;
  const char* label;
};

constexpr LayoutName kLayouts[] = {
    {DpxLayout::Keep, "keep", "Keep source"},
    {DpxLayout::PackedRGBA, "packed-rgba", "Packed RGBA"},
    {DpxLayout::PlanarRGBA, "planar-rgba", "Planar RGBA"},
    {DpxLayout::PackedABGR, "packed-abgr", "Packed ABGR"},
    {DpxLayout::RGBPlusAlpha, "rgb+alpha", "Packed RGB + planar alpha"},
    {DpxLayout::BGRPlusAlpha, "bgr+alpha", "Packed BGR + planar alpha"},
    {DpxLayout::PackedRGB, "packed-rgb", "Packed RGB"},
    {DpxLayout::PlanarRGB, "planar-rgb", "Planar RGB"},
    {DpxLayout::PackedBGR, "packed-bgr", "Packed BGR"},
};

std::string_view Trim(std::string_view s) {
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.remove_suffix(1);
  return s;
}

std::string Lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool ParseInt(std::string_view s, int* out) {
  int v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size()) return false;
  *out = v;
  return true;
}

}  // namespace

bool LayoutHasAlpha(DpxLayout layout) {
  switch (layout) {
    case DpxLayout::PackedRGBA:
    case DpxLayout::PlanarRGBA:
    case DpxLayout::PackedABGR:
    case DpxLayout::RGBPlusAlpha:
    case DpxLayout::BGRPlusAlpha:
      return true;
    default:
      return false;
  }
}

const char* LayoutLabel(DpxLayout layout) {
  for (const auto& l : kLayouts)
    if (l.layout == layout) return l.label;
  return "";
}

const char* LayoutOptionName(DpxLayout layout) {
  for (const auto& l : kLayouts)
    if (l.layout == layout) return l.option;
  return "";
}

HRESULT ApplyDpxOption(const VxChar* text, DpxExportSettings* exportSettings,
                       DpxImportSettings* importSettings) {
  if (!text) return E_POINTER;
  // Paths keep their case and their characters; only the name and keywords go through UTF-8
  // lower-casing.
  const VxStringView wide(text);
  const std::size_t eq = wide.find(u'=');
  if (eq == VxStringView::npos) return E_INVALIDARG;
  const std::string name = Lower(Trim(ToUtf8(wide.substr(0, eq))));
  VxStringView rawValue = wide.substr(eq + 1);
  while (!rawValue.empty() && rawValue.front() == u' ') rawValue.remove_prefix(1);
  while (!rawValue.empty() && rawValue.back() == u' ') rawValue.remove_suffix(1);
  const std::string value = Lower(ToUtf8(rawValue));

  if (name == "input-lut") {
    if (!importSettings) return E_POINTER;
    importSettings->inputLutPath = VxString(rawValue);
    return S_OK;
  }
  if (name != "depth" && name != "layout" && name != "packing" && name != "transfer" &&
      name != "endian" && name != "lut")
    return S_FALSE;
  if (!exportSettings) return E_POINTER;

  if (name == "depth") {
    int bits = 0;
    if (value == "keep") {
      bits = 0;
    } else if (!ParseInt(value, &bits) ||
               (bits != 0 && bits != 8 && bits != 10 && bits != 12 && bits != 16 && bits != 32)) {
      return E_INVALIDARG;
    }
    exportSettings->bitDepth = bits;
  } else if (name == "layout") {
    for (const auto& l : kLayouts) {
      if (value == l.option) {
        exportSettings->layout = l.layout;
        return S_OK;
      }
    }
    return E_INVALIDARG;
  } else if (name == "packing") {
    int packing;
    if (value == "keep")
      packing = -1;
    else if (value == "packed" || value == "0")
      packing = 0;
    else if (value == "a" || value == "1")
      packing = 1;
    else if (value == "b" || value == "2")
      packing = 2;
    else
      return E_INVALIDARG;
    exportSettings->packing = packing;
  } else if (name == "transfer") {
    int choice = -1;
    DWORD transfer = 0;
    std::uint8_t code = 0;
    exportSettings->transferCode = -1;
    if (VxTransferFromName(value, &transfer)) {
      if (!DpxTransferCode(transfer, &code)) return E_INVALIDARG;
      exportSettings->transferCode = code;
    } else if (value != "keep" && (!ParseInt(value, &choice) || choice < 0)) {
      return E_INVALIDARG;
    }
    exportSettings->transferChoice = choice;
  } else if (name == "endian") {
    if (value == "big")
      exportSettings->bigEndian = true;
    else if (value == "little")
      exportSettings->bigEndian = false;
    else
      return E_INVALIDARG;
  } else {  // lut
    exportSettings->lutPath = VxString(rawValue);
  }
  return S_OK;
}

}  // namespace vx::dpx
