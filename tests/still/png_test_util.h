// Reading and writing PNG files through the parser, for the unit and interop tests.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "still/png/png_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"

namespace pngtest {

// A picture as 16-bit R, G, B, A samples (8-bit files as their own values), top line first.
struct Rgba16 {
  int width = 0, height = 0;
  std::vector<std::uint16_t> px;
  const std::uint16_t* At(int x, int y) const { return px.data() + 4 * (y * width + x); }
};

struct Parser {
  CVxPNGFileParser* p = new CVxPNGFileParser;
  Parser() { p->AddRef(); }
  ~Parser() { p->Release(); }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;
  CVxPNGFileParser* operator->() const { return p; }
};

// Reads `file` into a host image of `format` (RGBA16 or RGBA8). The status of the read.
inline HRESULT Read(const std::filesystem::path& file, Rgba16* out, VxPixelFormat format,
                    IVxMetadata* md = nullptr) {
  Parser parser;
  if (HRESULT hr = parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_NO_PATTERN); FAILED(hr))
    return hr;
  if (md)
    if (HRESULT hr = parser->GetMetadata(0, md); FAILED(hr)) return hr;
  vx::ComPtr<IVxImage> image;
  if (HRESULT hr = VxCreateImage(0, 0, format, image.put()); FAILED(hr)) return hr;
  IVxImage* raw = image.get();
  if (HRESULT hr = parser->ReadImage(&raw, 0); FAILED(hr)) return hr;
  out->width = raw->GetWidth();
  out->height = raw->GetHeight();
  out->px.assign(std::size_t{4} * out->width * out->height, 0);
  for (int y = 0; y < out->height; ++y) {
    const std::uint8_t* row = raw->GetBuffer() + y * raw->GetRowStride();
    for (int i = 0; i < 4 * out->width; ++i)
      out->px[4 * y * out->width + i] =
          format == VX_PF_RGBA16 ? reinterpret_cast<const std::uint16_t*>(row)[i] : row[i];
  }
  return S_OK;
}

// Writes `pic` (8-bit values unless `deep`) through the parser.
inline HRESULT Write(const std::filesystem::path& file, const Rgba16& pic, bool deep,
                     const std::vector<std::string>& options = {}, IVxMetadata* md = nullptr) {
  Parser parser;
  if (HRESULT hr = parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN);
      FAILED(hr))
    return hr;
  for (const auto& o : options)
    if (parser->SetOption(const_cast<VxChar*>(vx::FromUtf8(o).c_str()), VX_OPTION_TEXT) != S_OK)
      return E_INVALIDARG;
  if (md) parser->SetOption(md, VX_OPTION_METADATA);
  vx::ComPtr<IVxImage> image;
  VxCreateImage(pic.width, pic.height, deep ? VX_PF_RGBA16 : VX_PF_RGBA8, image.put());
  for (int y = 0; y < pic.height; ++y) {
    std::uint8_t* row = image->GetBuffer() + y * image->GetRowStride();
    for (int i = 0; i < 4 * pic.width; ++i) {
      const std::uint16_t v = pic.px[4 * y * pic.width + i];
      if (deep)
        reinterpret_cast<std::uint16_t*>(row)[i] = v;
      else
        row[i] = static_cast<std::uint8_t>(v);
    }
  }
  return parser->WriteImage(image.get(), 0);
}

}  // namespace pngtest
