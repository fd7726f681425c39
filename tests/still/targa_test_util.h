// Reading and writing Targa files through the parser, for the unit and interop tests.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "still/targa/targa_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"

namespace targatest {

// A picture as R, G, B, A bytes, top line first.
struct Rgba {
  int width = 0, height = 0;
  std::vector<std::uint8_t> px;
  const std::uint8_t* At(int x, int y) const { return px.data() + 4 * (y * width + x); }
};

struct Parser {
  CVxTargaFileParser* p = new CVxTargaFileParser;
  Parser() { p->AddRef(); }
  ~Parser() { p->Release(); }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;
  CVxTargaFileParser* operator->() const { return p; }
};

// Reads `file` into an RGBA8 host image (`format` chooses another host format, converted back
// to RGBA8 here). The status of the read.
inline HRESULT Read(const std::filesystem::path& file, Rgba* out,
                    VxPixelFormat format = VX_PF_RGBA8) {
  Parser parser;
  if (HRESULT hr = parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_NO_PATTERN); FAILED(hr))
    return hr;
  vx::ComPtr<IVxImage> image;
  if (HRESULT hr = VxCreateImage(0, 0, format, image.put()); FAILED(hr)) return hr;
  IVxImage* raw = image.get();
  if (HRESULT hr = parser->ReadImage(&raw, 0); FAILED(hr)) return hr;
  vx::ComPtr<IVxImage> rgba;
  VxCreateImage(raw->GetWidth(), raw->GetHeight(), VX_PF_RGBA8, rgba.put());
  if (HRESULT hr = VxConvertImage(raw, rgba.get()); FAILED(hr)) return hr;
  out->width = rgba->GetWidth();
  out->height = rgba->GetHeight();
  out->px.resize(std::size_t{4} * out->width * out->height);
  for (int y = 0; y < out->height; ++y)
    std::copy_n(rgba->GetBuffer() + y * rgba->GetRowStride(), 4 * out->width,
                out->px.data() + 4 * y * out->width);
  return S_OK;
}

// Writes `pic` through the parser with the given option texts and metadata record.
inline HRESULT Write(const std::filesystem::path& file, const Rgba& pic,
                     const std::vector<std::string>& options, IVxMetadata* md = nullptr) {
  Parser parser;
  if (HRESULT hr = parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN);
      FAILED(hr))
    return hr;
  for (const auto& o : options)
    if (HRESULT hr =
            parser->SetOption(const_cast<VxChar*>(vx::FromUtf8(o).c_str()), VX_OPTION_TEXT);
        hr != S_OK)
      return E_INVALIDARG;
  if (md) parser->SetOption(md, VX_OPTION_METADATA);
  vx::ComPtr<IVxImage> image;
  VxCreateImage(pic.width, pic.height, VX_PF_RGBA8, image.put());
  for (int y = 0; y < pic.height; ++y)
    std::copy_n(pic.px.data() + 4 * y * pic.width, 4 * pic.width,
                image->GetBuffer() + y * image->GetRowStride());
  return parser->WriteImage(image.get(), 0);
}

}  // namespace targatest
