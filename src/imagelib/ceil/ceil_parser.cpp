#include "imagelib/ceil/ceil_parser.h"

#include <cctype>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include "base/checked.h"
#include "base/guard.h"
#include "imagelib/ceil/ceil_formats.h"
#include "vx/metadata.h"
#include "vx/platform.h"
#include "vx/sdk.h"

namespace {

constexpr DWORD kModeMask = 0xCFFFFFFF;
constexpr DWORD kPictureCaps = 0x80;
constexpr DWORD kPictureWriteCaps = 0xA0;

bool HasAlphaType(std::int32_t type) {
  return type == QI_PIXEL_RGBA || type == QI_PIXEL_ABGR;
}
bool IsGrayType(std::int32_t type) {
  return type >= 6 && type <= 12;
}

// Bytes of a w x h RGBA picture of `bytesPerSample`, refused when it cannot be allocated.
bool PictureFits(std::int32_t w, std::int32_t h, std::uint64_t bytesPerSample) {
  std::uint64_t bytes;
  return w > 0 && h > 0 &&
         vx::CheckedProduct(&bytes, static_cast<std::uint64_t>(w), static_cast<std::uint64_t>(h),
                            4 * bytesPerSample) &&
         bytes <= vx::kMaxFileClaimedAllocation;
}

// The memory image's row 0 is the bottom line, the host image's the top one.
void CopyToHost(QI_ImageMem* mem, IVxImage* host, std::size_t rowBytes) {
  const auto* src = static_cast<const BYTE*>(mem->getBuffer());
  const int h = host->GetHeight();
  for (int y = 0; y < h; ++y) {
    std::memcpy(host->GetBuffer() + static_cast<std::size_t>(host->GetRowStride()) * y,
                src + rowBytes * static_cast<std::size_t>(h - 1 - y), rowBytes);
  }
}
void CopyFromHost(IVxImage* host, QI_ImageMem* mem, std::size_t rowBytes) {
  auto* dst = static_cast<BYTE*>(mem->getBuffer());
  const int h = host->GetHeight();
  for (int y = 0; y < h; ++y) {
    std::memcpy(dst + rowBytes * static_cast<std::size_t>(h - 1 - y),
                host->GetBuffer() + static_cast<std::size_t>(host->GetRowStride()) * y, rowBytes);
  }
}

std::unique_ptr<QI_ImageMem> MakeMemImage(bool deep, std::int32_t w, std::int32_t h) {
  std::unique_ptr<QI_ImageMem> mem;
  if (deep) {
    mem = std::make_unique<QI_ImageRGBA16>(w, h);
  } else {
    mem = std::make_unique<QI_ImageRGBA8>(w, h);
  }
  if (!mem->getBuffer()) throw std::bad_alloc();
  return mem;
}

std::string BaseName(const VxString& path) {
  std::string name = vx::ToUtf8(path);
  const std::size_t cut = name.find_last_of("/\\");
  return cut == std::string::npos ? name : name.substr(cut + 1);
}

}  // namespace

CVxMediaFileParserCEIL::CVxMediaFileParserCEIL(int code) {
  // A row whose format has no class still builds a parser, which refuses to open; running out
  // of memory is the factory's failure (it answers E_OUTOFMEMORY).
  if (SelectFormat(code) == E_OUTOFMEMORY) throw std::bad_alloc();
}

CVxMediaFileParserCEIL::~CVxMediaFileParserCEIL() {
  UnloadFile();
}

HRESULT CVxMediaFileParserCEIL::SelectFormat(std::int32_t code) {
  return vx::Guarded([&]() -> HRESULT {
    if (code == code_ && file_) return S_OK;
    UnloadFile();
    file_.reset();
    code_ = 0;
    compressions_ = {};
    const vx::ceil::CeilFormat* format = vx::ceil::FindCeilFormat(code);
    if (!format) return E_UNEXPECTED;
    // A format whose class is still to come keeps its code, so the row answers its own
    // capabilities, but holds no file image.
    if (format->make) file_ = format->make();
    code_ = code;
    compressions_ = format->compressions;
    return file_ ? S_OK : E_UNEXPECTED;
  });
}

// ---- Opening --------------------------------------------------------------------------------

// Readers pass no mode bits at all, so 0 reads as well as 1; VX_OPEN_WRITE (2) writes.
HRESULT CVxMediaFileParserCEIL::Open(const VxChar* name, DWORD flags) {
  if (!name || !file_) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    const DWORD mode = flags & kModeMask;
    if (mode > kWrite) return E_INVALIDARG;
    VxString opened(name);  // `name` may be our own current name, which Close keeps
    if (mode_ != kClosed) {
      if (HRESULT hr = Close(); FAILED(hr)) return hr;
    }
    if (HRESULT hr = CVxStillImageParser::Open(opened.c_str(), flags); FAILED(hr)) return hr;
    mode_ = mode == kWrite ? kWrite : kRead;
    current_ = -1;
    return S_OK;
  });
}

HRESULT CVxMediaFileParserCEIL::OpenFileList(IVxFileList* list, DWORD flags) {
  if (!list) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    const DWORD mode = flags & kModeMask;
    if (mode > kWrite) return E_INVALIDARG;
    if (mode_ != kClosed) {
      if (HRESULT hr = Close(); FAILED(hr)) return hr;
    }
    if (HRESULT hr = CVxStillImageParser::OpenFileList(list, flags); FAILED(hr)) return hr;
    mode_ = mode == kWrite ? kWrite : kRead;
    current_ = -1;
    return S_OK;
  });
}

HRESULT CVxMediaFileParserCEIL::Close() {
  return vx::Guarded([&]() -> HRESULT {
    UnloadFile();
    mode_ = kClosed;
    // The next file opened reports its own format.
    format_ = {};
    return CVxStillImageParser::Close();
  });
}

HRESULT CVxMediaFileParserCEIL::HasStream(DWORD kind, BOOL* has) {
  if (!has) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    *has = FALSE;
    if (mode_ == kClosed) return E_UNEXPECTED;
    *has = kind == VX_STREAM_PICTURE ? TRUE : FALSE;
    return S_OK;
  });
}

// ---- Format ---------------------------------------------------------------------------------

void CVxMediaFileParserCEIL::UnloadFile() {
  if (current_ != -1 && file_) file_->close();
  current_ = -1;
}

HRESULT CVxMediaFileParserCEIL::LoadFile(std::int32_t index) {
  UnloadFile();
  if (!file_) return E_POINTER;
  if (HRESULT hr = SelectFile(index); FAILED(hr)) return hr;
  if (!file_->open(CurrentFileName().c_str(), VXT("rb"))) return E_FAIL;
  // From here the file is open and UnloadFile closes it whatever fails next.
  current_ = index;
  if (file_->getImageCount() < 1 || !file_->selectImage(0) || !file_->readHeader()) {
    UnloadFile();
    return E_UNEXPECTED;
  }
  const std::int32_t type = file_->getPixelType();
  tagVxImageStreamFormat f{};
  f.cbSize = sizeof f;
  const int frames = FrameCount();
  f.frameCount = static_cast<DWORD>(frames > 0 ? frames : 1);
  f.width = static_cast<DWORD>(file_->getWidth());
  f.height = static_cast<DWORD>(file_->getHeight());
  f.channels = static_cast<DWORD>(file_->getChannels());
  f.bitsPerPixel = static_cast<DWORD>(file_->getBitsPerChannel()) * f.channels;
  f.hasAlpha = HasAlphaType(type) ? 1 : 0;
  f.planes = 1;
  f.frameRate = -1.0;
  f.pixelAspect = file_->getPixelAspect();
  f.fieldMode = VX_FIELD_UNKNOWN;
  format_ = f;
  format_.pixelFormat = NativeFormat();
  return S_OK;
}

HRESULT CVxMediaFileParserCEIL::EnsureFormat() {
  if (format_.cbSize != 0 || mode_ != kRead) return S_OK;
  HRESULT first = E_FAIL;
  const int count = FileList() ? FrameCount() : 1;
  for (int i = 0; i < count && format_.cbSize == 0; ++i) {
    const HRESULT hr = LoadFile(i);
    if (hr == E_OUTOFMEMORY) return hr;
    if (FAILED(hr) && i == 0) first = hr;
  }
  UnloadFile();
  return format_.cbSize != 0 ? S_OK : first;
}

VxPixelFormat CVxMediaFileParserCEIL::NativeFormat() const {
  const bool deep = file_ && file_->getBitsPerChannel() > 8;
  const std::int32_t type = file_ ? file_->getPixelType() : QI_PIXEL_RGB;
  if (IsGrayType(type) || (file_ && file_->getChannels() == 1 && type != QI_PIXEL_CMAP))
    return deep ? VX_PF_GRAY16 : VX_PF_GRAY8;
  if (HasAlphaType(type) || (file_ && file_->getChannels() == 4))
    return deep ? VX_PF_RGBA16 : VX_PF_RGBA8;
  return deep ? VX_PF_RGB16 : VX_PF_RGB8;
}

HRESULT CVxMediaFileParserCEIL::SetStreamFormat(DWORD kind, DWORD index, void* record) {
  if (!record) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (kind != VX_STREAM_PICTURE || index != 1) return E_INVALIDARG;
    if (HRESULT hr = CheckPictureRecord(kind, record); FAILED(hr)) return hr;
    if (mode_ != kClosed) return E_ACCESSDENIED;
    std::memcpy(&format_, record, sizeof format_);
    return CVxStillImageParser::SetStreamFormat(kind, index, record);
  });
}

HRESULT CVxMediaFileParserCEIL::GetStreamFormat(DWORD kind, DWORD index, void* record) {
  if (!record) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (kind != VX_STREAM_PICTURE || index != 0) return E_INVALIDARG;
    if (mode_ == kClosed) return E_UNEXPECTED;
    if (HRESULT hr = EnsureFormat(); FAILED(hr)) return hr;
    std::memcpy(record, &format_, sizeof format_);
    return S_OK;
  });
}

HRESULT CVxMediaFileParserCEIL::GetStreamCapabilities(DWORD mode, DWORD kind, DWORD* caps) {
  if (!caps) return E_POINTER;
  if (kind != VX_STREAM_PICTURE) {
    *caps = 0;
    return S_OK;
  }
  *caps = mode == kWrite ? kPictureWriteCaps : kPictureCaps;
  switch (code_) {
    case 5:
    case 6:
    case 7:
    case 15:
    case 19:
      *caps |= 2;
      break;
    default:
      break;
  }
  return S_OK;
}

// "compression=rle" (or none, lzw, jpeg, packbits) picks one of the format's compressions for
// the files written next.
HRESULT CVxMediaFileParserCEIL::SetOption(void* option, DWORD kind) {
  if (!option) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (kind != VX_OPTION_TEXT) return TakeMetadataOption(option, kind);
    const std::string text = vx::ToUtf8(static_cast<const VxChar*>(option));
    const std::string key = "compression=";
    if (text.compare(0, key.size(), key) != 0 || !file_) return S_FALSE;
    std::string word = text.substr(key.size());
    for (char& c : word) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    for (std::int32_t code : compressions_) {
      std::string name = vx::ceil::CompressionName(code);
      for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (name == word) return file_->setCompression(code) ? S_OK : S_FALSE;
    }
    return S_FALSE;
  });
}

HRESULT CVxMediaFileParserCEIL::GetCompressionName(VxChar* buffer, int size) {
  if (!buffer || size < 1) return E_INVALIDARG;
  return vx::Guarded([&]() -> HRESULT {
    if (!file_) return E_UNEXPECTED;
    if (HRESULT hr = EnsureFormat(); FAILED(hr)) return hr;
    const VxString name = vx::FromUtf8(vx::ceil::CompressionName(file_->getCompression()));
    return CopyName(name.c_str(), buffer, size);
  });
}

// ---- Pictures -------------------------------------------------------------------------------

HRESULT CVxMediaFileParserCEIL::ReadImage(IVxImage** image, std::int32_t frame) {
  if (!image) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (!FileList() && frame != 0) return E_INVALIDARG;
    if (mode_ != kRead) return E_ACCESSDENIED;
    if (frame < 0 || frame >= FrameCount()) return E_INVALIDARG;
    if (frame != current_) {
      if (HRESULT hr = LoadFile(frame); FAILED(hr)) return hr;
    }
    // The stream stands after the header only once: the next read of this frame loads again.
    struct Unload {
      CVxMediaFileParserCEIL* p;
      ~Unload() { p->UnloadFile(); }
    } unload{this};

    const std::int32_t w = file_->getWidth(), h = file_->getHeight();
    // 16-bit files (SGI) go through the 16-bit memory image so no precision is lost.
    const bool deep = file_->getBitsPerChannel() > 8;
    if (!PictureFits(w, h, deep ? 2 : 1)) return E_FAIL;
    const double fileAspect = file_->getPixelAspect();
    const double aspect = AspectImposed() ? PixelAspect() : fileAspect > 0.0 ? fileAspect : 1.0;

    IVxImage* dst = *image;
    if (const HRESULT hr = dst ? ReadStraight(dst, w, h, deep) : S_FALSE; hr != S_FALSE) {
      if (FAILED(hr)) return hr;
      // What the conversion below would carry over from the decoded picture.
      dst->SetPixelAspect(aspect);
      dst->SetFieldMode(VX_FIELD_PROGRESSIVE);
      dst->SetTiming(CVxTime{}, CVxTime{});
      return S_OK;
    }
    std::unique_ptr<QI_ImageMem> mem = MakeMemImage(deep, w, h);
    if (!file_->read(mem.get())) return E_FAIL;

    vx::ComPtr<IVxImage> decoded;
    if (HRESULT hr = VxCreateImage(w, h, deep ? VX_PF_RGBA16 : VX_PF_RGBA8, decoded.put());
        FAILED(hr))
      return hr;
    CopyToHost(mem.get(), decoded.get(), static_cast<std::size_t>(w) * 4 * (deep ? 2 : 1));
    decoded->SetPixelAspect(aspect);
    decoded->SetFieldMode(VX_FIELD_PROGRESSIVE);

    vx::ComPtr<IVxImage> created;
    if (!dst) {
      VxPixelFormat native = NativeFormat();
      if (AlphaImposed() && native == VX_PF_RGB8) native = VX_PF_RGBA8;
      if (AlphaImposed() && native == VX_PF_RGB16) native = VX_PF_RGBA16;
      if (HRESULT hr = VxCreateImage(w, h, native, created.put()); FAILED(hr)) return hr;
      dst = created.get();
    } else if (dst->GetWidth() != w || dst->GetHeight() != h ||
               dst->GetPixelFormat() == VX_PF_UNKNOWN) {
      const VxPixelFormat f =
          dst->GetPixelFormat() == VX_PF_UNKNOWN ? NativeFormat() : dst->GetPixelFormat();
      if (HRESULT hr = dst->Allocate(w, h, f); FAILED(hr)) return hr;
    }
    if (HRESULT hr = VxConvertImage(decoded.get(), dst); FAILED(hr)) return hr;
    if (created) *image = created.detach();
    return S_OK;
  });
}

// The host's own 16-bit RGBA image, or 8-bit RGBA for a file of at most 8 bits, holds exactly the
// values the memory image would: the file's lines go straight into its rows, each stored whole
// (qi::StoreLine), wrapped top line first. That saves the memory image, the copy into a host
// image and the conversion: two passes over the picture. S_FALSE leaves anything else to the
// general path.
HRESULT CVxMediaFileParserCEIL::ReadStraight(IVxImage* dst, std::int32_t w, std::int32_t h,
                                             bool deep) {
  const VxPixelFormat f = dst->GetPixelFormat();
  const bool wide = f == VX_PF_RGBA16;
  BYTE* rows = dst->GetBuffer();
  // RGBA8 only for files of at most 8 bits: memory images narrow 16-bit samples by truncation,
  // the host's conversion rounds. A row order other than the two reads nothing and is left to
  // the general path, which answers a black picture.
  if (!(wide || (f == VX_PF_RGBA8 && !deep)) || !rows || dst->GetWidth() != w ||
      dst->GetHeight() != h || dst->GetRowStride() != std::int64_t{w} * (wide ? 8 : 4) ||
      (file_->getBottomUp() != 0 && file_->getBottomUp() != 1))
    return S_FALSE;
  std::unique_ptr<QI_ImageMem> view;
  if (wide)
    view = std::make_unique<QI_ImageRGBA16>(w, h, rows, true);
  else
    view = std::make_unique<QI_ImageRGBA8>(w, h, rows, true);
  if (file_->read(view.get())) return S_OK;
  // No half-decoded picture is left in the caller's image.
  std::memset(rows, 0, static_cast<std::size_t>(dst->GetRowStride()) * static_cast<std::size_t>(h));
  return E_FAIL;
}

HRESULT CVxMediaFileParserCEIL::WriteImage(IVxImage* image, std::int32_t frame) {
  if (!image) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (mode_ != kWrite) return E_ACCESSDENIED;
    if (frame < 0) return E_INVALIDARG;
    return WriteFile(image, OutputFileName(frame));
  });
}

HRESULT CVxMediaFileParserCEIL::WriteFile(IVxImage* image, const VxString& name) {
  const std::int32_t w = image->GetWidth(), h = image->GetHeight();
  const VxPixelFormat pf = image->GetPixelFormat();
  if (pf == VX_PF_UNKNOWN || !image->GetBuffer()) return E_INVALIDARG;
  const int channels = VxPixelFormatChannels(pf);
  const bool wide = VxPixelFormatBytesPerPixel(pf) > channels;  // 16-bit or float samples
  // A format that holds no 16-bit samples takes the picture at 8 bits.
  const bool deep = wide && file_->setBitsPerChannel(16);
  if (!deep && !file_->setBitsPerChannel(8)) return E_FAIL;
  if (!PictureFits(w, h, deep ? 2 : 1)) return E_INVALIDARG;
  const std::int32_t type = channels == 1   ? QI_PIXEL_GRAY
                            : channels == 4 ? QI_PIXEL_RGBA
                                            : QI_PIXEL_RGB;
  if (!file_->setWidth(w) || !file_->setHeight(h) || !file_->setChannels(channels) ||
      !file_->setPixelType(type))
    return E_FAIL;

  vx::ComPtr<IVxImage> rgba;
  if (HRESULT hr = VxCreateImage(w, h, deep ? VX_PF_RGBA16 : VX_PF_RGBA8, rgba.put()); FAILED(hr))
    return hr;
  if (HRESULT hr = VxConvertImage(image, rgba.get()); FAILED(hr)) return hr;
  std::unique_ptr<QI_ImageMem> mem = MakeMemImage(deep, w, h);
  CopyFromHost(rgba.get(), mem.get(), static_cast<std::size_t>(w) * 4 * (deep ? 2 : 1));

  if (!file_->open(name.c_str(), VXT("wb"))) return E_FAIL;
  // The source's descriptive texts, for the formats that hold some.
  if (IVxMetadata* md = WriteMetadata()) {
    int count = 0;
    md->GetTextCount(&count);
    for (int i = 0; i < count; ++i) {
      VxChar *key = nullptr, *value = nullptr;
      if (SUCCEEDED(md->GetTextAt(i, &key, &value)) && key && value)
        file_->setText(vx::ToUtf8(key), vx::ToUtf8(value));
      VxSysFreeString(key);
      VxSysFreeString(value);
    }
  }
  const bool ok = file_->writeHeader() && file_->write(mem.get());
  file_->close();  // run-length formats complete their tables here
  if (!ok) {
    vx::os::Remove(name.c_str());  // no half-written picture stays behind
    return E_FAIL;
  }
  return S_OK;
}

// ---- Source information ---------------------------------------------------------------------

HRESULT CVxMediaFileParserCEIL::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (mode_ == kClosed) return E_UNEXPECTED;
  if (mode_ == kRead) {
    // What the file's header says about itself; a file that does not load still has its name.
    if (SUCCEEDED(LoadFile(frame))) {
      for (const auto& [key, value] : file_->getTexts()) vx::md::SetText(out, key, value);
      if (const float aspect = file_->getPixelAspect(); aspect > 0.0f) {
        VxMetadataRecord r = vx::md::GetRecord(out);
        r.pixelAspect = aspect;
        out->SetRecord(&r);
      }
    }
    UnloadFile();
  }
  if (HRESULT hr = SelectFile(frame); FAILED(hr)) return hr;
  const std::string name = BaseName(CurrentFileName());
  if (!name.empty()) vx::md::SetText(out, vx::md::kFileName, name);
  return S_OK;
}
