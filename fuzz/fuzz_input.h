// What the file-reading fuzzers share: the input as a file of this fuzzing process, and the calls
// a host makes on a picture parser once it opened a file.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include "base/text.h"
#include "fileio/whole_file.h"
#include "vx/com_ptr.h"
#include "vx/metadata.h"
#include "vx/parser.h"
#include "vx/platform.h"
#include "vx/sdk.h"

namespace fuzz {

// One file per fuzzing process (parallel jobs must not share it), rewritten for every input.
inline VxString ProcessFile(const char* name, const char* extension) {
  return vx::FromUtf8(
      (std::filesystem::temp_directory_path() /
       (std::string(name) + "." + std::to_string(vx::os::CurrentProcessId()) + extension))
          .string());
}

inline bool Store(const VxString& path, const std::uint8_t* data, std::size_t size) {
  vx::os::UniqueFile f(vx::os::Create(path.c_str()));
  return f && vx::fileio::WriteAll(f.get(), 0, data, size);
}

template <class Parser, class... Args>
vx::ComPtr<Parser> NewParser(Args... args) {
  auto parser = vx::ComPtr<Parser>::Adopt(new Parser(args...));
  parser->AddRef();  // the object starts at zero references
  return parser;
}

// The picture's format, the metadata of `metadataFrame` and the compression name.
template <class Parser>
void AskAfterOpen(Parser* parser, int metadataFrame) {
  tagVxImageStreamFormat format{};
  format.cbSize = sizeof format;
  parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &format);
  vx::ComPtr<IVxMetadata> md;
  if (SUCCEEDED(VxCreateMetadata(md.put()))) parser->GetMetadata(metadataFrame, md.get());
  VxChar name[64];
  parser->GetCompressionName(name, 64);
}

// Picture `frame` into a caller's image of `want` (converted on the way), or into the parser's
// own picture for VX_PF_UNKNOWN; null when the read failed.
template <class Parser>
vx::ComPtr<IVxImage> ReadPicture(Parser* parser, VxPixelFormat want, int frame = 0) {
  vx::ComPtr<IVxImage> image;
  if (want != VX_PF_UNKNOWN && FAILED(VxCreateImage(0, 0, want, image.put()))) return {};
  IVxImage* p = image.detach();
  const HRESULT hr = parser->ReadImage(&p, frame);
  image = vx::ComPtr<IVxImage>::Adopt(p);
  return SUCCEEDED(hr) ? image : vx::ComPtr<IVxImage>();
}

}  // namespace fuzz
