// Reading and writing Photoshop files through the parser, for the unit and interop tests.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "still/psd/psd_parser.h"
#include "test_util.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"

namespace psdtest {

// A picture as R, G, B, A samples in the range of the host format read into (0..255, 0..65535,
// or float), top line first.
struct Pic {
  int width = 0, height = 0;
  VxPixelFormat format = VX_PF_UNKNOWN;
  std::vector<float> px;
  const float* At(int x, int y) const { return px.data() + 4 * (std::size_t{1} * y * width + x); }
};

struct Parser {
  CVxMediaFileParserPSD* p = new CVxMediaFileParserPSD;
  Parser() { p->AddRef(); }
  ~Parser() { p->Release(); }
  Parser(const Parser&) = delete;
  Parser& operator=(const Parser&) = delete;
  CVxMediaFileParserPSD* operator->() const { return p; }
};

// Reads `file` into the parser's own format (or `format`, converted by the host).
inline HRESULT Read(const std::filesystem::path& file, Pic* out,
                    VxPixelFormat format = VX_PF_UNKNOWN, IVxMetadata* md = nullptr) {
  Parser parser;
  if (HRESULT hr = parser->Open(vxtest::Wide(file).c_str(), VX_OPEN_NO_PATTERN); FAILED(hr))
    return hr;
  IVxImage* raw = nullptr;
  vx::ComPtr<IVxImage> image;
  if (format != VX_PF_UNKNOWN) {
    if (HRESULT hr = VxCreateImage(0, 0, format, image.put()); FAILED(hr)) return hr;
    raw = image.get();
  }
  if (HRESULT hr = parser->ReadImage(&raw, 0); FAILED(hr)) return hr;
  if (!image) image = vx::ComPtr<IVxImage>::Adopt(raw);
  if (md) parser->GetMetadata(0, md);
  out->width = raw->GetWidth();
  out->height = raw->GetHeight();
  out->format = raw->GetPixelFormat();
  out->px.clear();
  for (int y = 0; y < out->height; ++y) {
    const std::uint8_t* row = raw->GetBuffer() + y * raw->GetRowStride();
    for (int i = 0; i < 4 * out->width; ++i) {
      float v = 0;
      if (out->format == VX_PF_RGBA8) {
        v = row[i];
      } else if (out->format == VX_PF_RGBA16) {
        std::uint16_t s;
        std::memcpy(&s, row + 2 * i, 2);
        v = s;
      } else if (out->format == VX_PF_RGBAF32) {
        std::memcpy(&v, row + 4 * i, 4);
      } else {
        return E_UNEXPECTED;
      }
      out->px.push_back(v);
    }
  }
  return S_OK;
}

// Writes 8-bit (or, with `deep`, 16-bit) RGBA samples through the parser.
inline HRESULT Write(const std::filesystem::path& file, int width, int height,
                     const std::vector<std::uint16_t>& rgba, bool deep,
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
  VxCreateImage(width, height, deep ? VX_PF_RGBA16 : VX_PF_RGBA8, image.put());
  for (int y = 0; y < height; ++y) {
    std::uint8_t* row = image->GetBuffer() + y * image->GetRowStride();
    for (int i = 0; i < 4 * width; ++i) {
      const std::uint16_t v = rgba[std::size_t{4} * width * y + i];
      if (deep) {
        std::memcpy(row + 2 * i, &v, 2);
      } else {
        row[i] = static_cast<std::uint8_t>(v);
      }
    }
  }
  return parser->WriteImage(image.get(), 0);
}

}  // namespace psdtest
