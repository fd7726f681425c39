#include "movie/qt/qt_parser.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/guard.h"
#include "base/module.h"
#include "movie/qt/qt_channel.h"
#include "movie/qt/qt_manager.h"

using namespace vx::qt;

namespace {

constexpr DWORD kOpenMask = 0xCFFFFFFF;
constexpr HRESULT kFormatBufferTooSmall = static_cast<HRESULT>(0x80044074u);
constexpr std::uint32_t kCodecProResHQ = FourCC('a', 'p', 'c', 'h');
constexpr std::uint32_t kCodecProRes4444 = FourCC('a', 'p', '4', 'h');

std::int64_t Ticks(double units, double perSecond) {
  if (!(perSecond > 0) || !std::isfinite(units)) return 0;
  return std::llround(units * static_cast<double>(kVxTicksPerSecond) / perSecond);
}

// The four letters of a code, or its number when they are not printable.
std::string CodecText(std::uint32_t code) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const char c = static_cast<char>(code >> shift);
    if (c < 0x20 || c > 0x7E) return std::to_string(code);
    s += c;
  }
  return s;
}

struct CodecName {
  const char* name;
  std::uint32_t code;
};
constexpr CodecName kCodecs[] = {
    {"prores", kCodecProResHQ},           {"prores422hq", kCodecProResHQ},
    {"prores4444", kCodecProRes4444},     {"dnxhr", FourCC('A', 'V', 'd', 'h')},
    {"v210", FourCC('v', '2', '1', '0')}, {"rgb", FourCC('r', 'a', 'w', ' ')},
};

// The decoder program runs in its own folder: it gets names it can open from there.
VxString AbsolutePath(const VxChar* name) {
  std::error_code ec;
#ifdef _WIN32
  const std::filesystem::path full = std::filesystem::absolute(std::filesystem::path(name), ec);
  return ec ? VxString(name) : VxString(full.wstring());
#else
  const std::filesystem::path full =
      std::filesystem::absolute(std::filesystem::path(vx::ToUtf8(name)), ec);
  return ec ? VxString(name) : vx::FromUtf8(full.string());
#endif
}

}  // namespace

// ---- Picture stream ------------------------------------------------------------------------

CVxImageStreamParserQT::CVxImageStreamParserQT(CVxMediaFileParserQT* owner, DWORD track)
    : owner_(owner), track_(track) {
  description_.cbSize = sizeof description_;
}

HRESULT CVxImageStreamParserQT::LoadFormat() {
  return owner_->Manager()->GetVideoFormat(owner_->Movie(), track_, &format_);
}

std::int64_t CVxImageStreamParserQT::FrameTicks() const {
  const double rate = owner_ && owner_->Mode() == 2 ? description_.frameRate : format_.frameRate;
  const double num = owner_ && owner_->Mode() == 2 ? 1.0 : format_.durationNumerator;
  return Ticks(num, rate);
}

void CVxImageStreamParserQT::FillFormat(tagVxImageStreamFormat* out) const {
  if (owner_ && owner_->Mode() == 2) {
    *out = description_;
    out->cbSize = sizeof *out;
    return;
  }
  const bool alpha = format_.alpha != 0;
  out->frameCount = format_.frameCount;
  out->width = format_.width;
  out->height = format_.height;
  out->channels = alpha ? 4 : 3;
  out->bitsPerPixel = format_.bitsPerComponent * out->channels;
  out->hasAlpha = alpha ? 1 : 0;
  out->planes = 1;
  out->frameRate = format_.frameRate > 0 ? format_.frameRate : -1.0;
  out->pixelAspect = 1.0;
  out->fieldMode = format_.fields == 1   ? VX_FIELD_PROGRESSIVE
                   : format_.fields == 2 ? VX_FIELD_UPPER_FIRST
                   : format_.fields == 3 ? VX_FIELD_LOWER_FIRST
                                         : VX_FIELD_UNKNOWN;
  out->pixelFormat = HostFormatOf(alpha ? kPixB64a : kPixRGBA32, 1).format;
}

HRESULT STDMETHODCALLTYPE CVxImageStreamParserQT::ReadImage(IVxImage** image, std::int32_t frame) {
  if (!image) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (!owner_ || owner_->Mode() != 1) return E_UNEXPECTED;
    if (frame < 0 || static_cast<std::uint32_t>(frame) >= format_.frameCount) return E_INVALIDARG;
    DWORD mode = format_.fields;
    if (mode == 1) mode = format_.alpha ? 4096 : 1;
    if (fallback_) mode = 1;
    IVxQTParser* m = owner_->Manager();
    const DWORD f = static_cast<DWORD>(frame);
    pixelFormat_ = PreferredPixelFormat(*image, fallback_, mode);
    HRESULT hr = m->ReadFrame(owner_->Movie(), track_, f, image, fallback_, mode);
    if (hr == kStatusFormatRefused) {
      if (fallback_) return kStatusFormatRefusedFailure;
      fallback_ = true;
      pixelFormat_ = PreferredPixelFormat(*image, true, 1);
      hr = m->ReadFrame(owner_->Movie(), track_, f, image, TRUE, 1);
      if (hr == kStatusFormatRefused) return kStatusFormatRefusedFailure;
    }
    if (FAILED(hr)) return hr;
    if (*image) {
      const std::int64_t each = FrameTicks();
      (*image)->SetTiming(CVxTime(each * frame), CVxTime(each));
    }
    return S_OK;
  });
}

HRESULT STDMETHODCALLTYPE CVxImageStreamParserQT::WriteImage(IVxImage* image, std::int32_t frame) {
  if (!image) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (!owner_ || owner_->Mode() != 2) return E_UNEXPECTED;
    if (frame < 0) return E_INVALIDARG;
    const int w = image->GetWidth(), h = image->GetHeight();
    if (w <= 0 || h <= 0 || !image->GetBuffer()) return E_INVALIDARG;
    vx::ComPtr<IVxQTRefExport> exporter =
        vx::ComPtr<IVxQTParser>::Share(owner_->Manager()).As<IVxQTRefExport>(IID_IVxQTRefExport);
    if (!exporter) return E_NOINTERFACE;
    // The channel carries tightly packed 8-bit RGBA.
    vx::ComPtr<IVxImage> rgba;
    if (image->GetPixelFormat() == VX_PF_RGBA8 && image->GetRowStride() == w * 4) {
      rgba = vx::ComPtr<IVxImage>::Share(image);
    } else {
      HRESULT hr = VxCreateImage(w, h, VX_PF_RGBA8, rgba.put());
      if (FAILED(hr)) return hr;
      hr = VxConvertImage(image, rgba.get());
      if (FAILED(hr)) return hr;
    }
    std::vector<BYTE> packed;
    const BYTE* pixels = rgba->GetBuffer();
    if (rgba->GetRowStride() != w * 4) {
      packed.resize(static_cast<std::size_t>(w) * h * 4);
      for (int y = 0; y < h; ++y)
        std::memcpy(packed.data() + static_cast<std::size_t>(y) * w * 4,
                    pixels + static_cast<std::ptrdiff_t>(y) * rgba->GetRowStride(),
                    static_cast<std::size_t>(w) * 4);
      pixels = packed.data();
    }
    const HRESULT hr = exporter->AddFrame(owner_->Movie(), track_, static_cast<DWORD>(frame),
                                          pixels, static_cast<DWORD>(w), static_cast<DWORD>(h));
    if (FAILED(hr)) return hr;
    ++written_;
    owner_->CountWritten();
    return S_OK;
  });
}

// ---- Sound stream --------------------------------------------------------------------------

CVxAudioStreamParserQT::CVxAudioStreamParserQT(CVxMediaFileParserQT* owner, DWORD track)
    : owner_(owner), track_(track) {}

HRESULT CVxAudioStreamParserQT::LoadFormat() {
  return owner_->Manager()->GetAudioFormat(owner_->Movie(), track_, &format_, &samples_);
}

HRESULT CVxAudioStreamParserQT::SetWriteFormat(const WAVEFORMATEX* f) {
  if (f->nChannels == 0 || f->nSamplesPerSec == 0 || f->wBitsPerSample == 0 ||
      f->wBitsPerSample % 8 != 0 || f->nBlockAlign != f->wBitsPerSample / 8 * f->nChannels)
    return E_INVALIDARG;
  format_ = {};
  if (f->wFormatTag == 0xFFFE && f->cbSize >= 22) {
    std::memcpy(&format_, f, sizeof format_);
  } else {
    std::memcpy(&format_.format, f, sizeof(WAVEFORMATEX));
    format_.format.cbSize = 0;
  }
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxAudioStreamParserQT::GetFormat(BYTE* buffer, int* size) {
  if (!size) return E_POINTER;
  constexpr int kBytes = static_cast<int>(sizeof(VxQTWaveFormat));
  if (!buffer || *size < kBytes) {
    if (buffer && *size > 0) std::memcpy(buffer, &format_, static_cast<std::size_t>(*size));
    *size = kBytes;
    return kFormatBufferTooSmall;
  }
  std::memcpy(buffer, &format_, kBytes);
  *size = kBytes;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxAudioStreamParserQT::GetLength(LONG* range) {
  if (!range) return E_POINTER;
  const std::uint64_t n = owner_ && owner_->Mode() == 2 ? written_ : samples_;
  range[0] = 0;
  range[1] = static_cast<LONG>(std::min<std::uint64_t>(n, LONG_MAX));
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxAudioStreamParserQT::ReadSamples(const VxSamplePosition* pos,
                                                              LONG count, void* buffer,
                                                              LONG* done) {
  if (!pos || !buffer || !done) return E_POINTER;
  *done = 0;
  return vx::Guarded([&]() -> HRESULT {
    if (!owner_ || owner_->Mode() != 1) return E_UNEXPECTED;
    if (pos->sample < 0 || count < 0) return E_INVALIDARG;
    const DWORD align = format_.format.nBlockAlign;
    if (align == 0) return E_UNEXPECTED;
    const std::uint64_t first = static_cast<std::uint64_t>(pos->sample);
    const std::uint64_t want =
        first >= samples_ ? 0 : std::min<std::uint64_t>(count, samples_ - first);
    const std::uint64_t chunk = kResultBytes / 2 / align;  // answer fields sit before the data
    std::uint64_t got = 0;
    while (got < want) {
      const DWORD n = static_cast<DWORD>(std::min(chunk, want - got));
      DWORD delivered = 0;
      const HRESULT hr =
          owner_->Manager()->ReadAudio(owner_->Movie(), track_, first + got, n, align,
                                       static_cast<BYTE*>(buffer) + got * align, &delivered);
      if (FAILED(hr)) return hr;
      got += delivered;
      *done = static_cast<LONG>(got);
      if (delivered < n) break;
    }
    return got == static_cast<std::uint64_t>(count) ? S_OK : S_FALSE;
  });
}

HRESULT STDMETHODCALLTYPE CVxAudioStreamParserQT::WriteSamples(const void* buffer, LONG count) {
  if (!buffer && count) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (!owner_ || owner_->Mode() != 2) return E_UNEXPECTED;
    if (count < 0) return E_INVALIDARG;
    const DWORD align = format_.format.nBlockAlign;
    if (align == 0) return E_UNEXPECTED;
    const std::uint64_t chunk = kResultBytes / align;
    std::uint64_t sent = 0;
    const std::uint64_t total = static_cast<std::uint64_t>(count);
    while (sent < total) {
      const DWORD n = static_cast<DWORD>(std::min(chunk, total - sent));
      std::uint64_t after = 0;
      const HRESULT hr = owner_->Manager()->WriteAudio(
          owner_->Movie(), track_, static_cast<const BYTE*>(buffer) + sent * align, n, align,
          &after);
      if (FAILED(hr)) return hr;
      sent += n;
      written_ += n;
    }
    if (count) owner_->CountWritten();
    return S_OK;
  });
}

HRESULT STDMETHODCALLTYPE CVxAudioStreamParserQT::AudioOp7(void*) {
  return E_NOTIMPL;
}

// ---- Media file parser ---------------------------------------------------------------------

CVxMediaFileParserQT::CVxMediaFileParserQT() {
  vx::module::AddObject();
}

CVxMediaFileParserQT::~CVxMediaFileParserQT() {
  Close();
  vx::module::RemoveObject();
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IVxMediaFileParser) {
    *ppv = static_cast<IVxMediaFileParser*>(this);
  } else if (riid == IID_IVxParserSourceInfo) {
    *ppv = static_cast<IVxParserSourceInfo*>(this);
  } else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG STDMETHODCALLTYPE CVxMediaFileParserQT::AddRef() {
  return static_cast<ULONG>(++refs_);
}

ULONG STDMETHODCALLTYPE CVxMediaFileParserQT::Release() {
  const std::int32_t n = --refs_;
  if (n == 0) delete this;
  return static_cast<ULONG>(n);
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::OpenEx(const VxChar* name, DWORD flags, DWORD) {
  return Open(name, flags);
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::OpenFileList(IVxFileList* list, DWORD flags) {
  if (!list) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    VxChar* name = nullptr;
    HRESULT hr = list->GetFileName(0, &name);
    if (FAILED(hr)) return hr;
    if (!name) return E_INVALIDARG;
    const VxString copy = name;
    VxSysFreeString(name);
    return Open(copy.c_str(), flags);
  });
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::Open(const VxChar* name, DWORD flags) {
  if (!name) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    const DWORD mode = flags & kOpenMask;
    // A host's plain open (no mode bits) reads.
    const VxString path = AbsolutePath(name);
    if (mode == 0 || mode == 1) return OpenRead(path.c_str());
    if (mode == VX_OPEN_WRITE) return OpenWrite(path.c_str());
    return E_INVALIDARG;
  });
}

HRESULT CVxMediaFileParserQT::OpenRead(const VxChar* name) {
  HRESULT hr = EnsureStarted();
  if (FAILED(hr)) return hr;
  if (mode_ != 0 || movieOpen_) Close();
  DropStreams();
  hr = RunningManager(manager_.put());
  if (FAILED(hr)) return hr;
  DWORD videoTracks = 0, audioTracks = 0;
  hr = manager_->Open(name, &movie_, &videoTracks, &audioTracks);
  if (FAILED(hr)) {
    Close();
    return hr;
  }
  movieOpen_ = true;
  mode_ = 1;
  for (DWORD t = 0; t < videoTracks && SUCCEEDED(hr); ++t) {
    images_.push_back(new CVxImageStreamParserQT(this, t));
    hr = images_.back()->LoadFormat();
  }
  for (DWORD t = 0; t < audioTracks && SUCCEEDED(hr); ++t) {
    audios_.push_back(new CVxAudioStreamParserQT(this, t));
    hr = audios_.back()->LoadFormat();
  }
  if (FAILED(hr)) {
    Close();
    return hr;
  }
  return S_OK;
}

HRESULT CVxMediaFileParserQT::OpenWrite(const VxChar* name) {
  if (mode_ != 0) Close();
  if (images_.empty() && audios_.empty()) return E_UNEXPECTED;
  rate_ = !images_.empty() ? images_[0]->Description().frameRate
                           : static_cast<double>(audios_[0]->Format().format.nSamplesPerSec);
  HRESULT hr = EnsureStarted();
  if (SUCCEEDED(hr)) hr = RunningManager(manager_.put());
  if (FAILED(hr)) {
    DropStreams();
    return hr;
  }
  hr = manager_->Create(name, static_cast<DWORD>(images_.size()),
                        static_cast<DWORD>(audios_.size()), rate_, &movie_);
  if (FAILED(hr)) {
    Close();
    return hr;
  }
  movieOpen_ = true;
  mode_ = 2;
  itemsWritten_ = 0;
  for (std::size_t t = 0; t < images_.size() && SUCCEEDED(hr); ++t) {
    const tagVxImageStreamFormat& d = images_[t]->Description();
    VxQTVideoSetup setup;
    setup.frameRate = d.frameRate;
    setup.pixelAspect = d.pixelAspect > 0 ? d.pixelAspect : 1.0;
    setup.width = d.width;
    setup.height = d.height;
    setup.codec = codec_ ? codec_ : d.hasAlpha ? kCodecProRes4444 : kCodecProResHQ;
    hr = manager_->SetupVideoTrack(movie_, static_cast<DWORD>(t), &setup);
  }
  for (std::size_t t = 0; t < audios_.size() && SUCCEEDED(hr); ++t) {
    const WAVEFORMATEX& f = audios_[t]->Format().format;
    VxQTAudioSetup setup;
    setup.sampleRate = f.nSamplesPerSec;
    setup.channels = f.nChannels;
    setup.bitsPerSample = f.wBitsPerSample;
    const bool isFloat =
        f.wFormatTag == 3 || (f.wFormatTag == 0xFFFE && audios_[t]->Format().subFormat.Data1 == 3);
    setup.formatTag = isFloat ? 3 : 1;
    hr = manager_->SetupAudioTrack(movie_, static_cast<DWORD>(t), &setup);
  }
  if (SUCCEEDED(hr)) {
    VxString text;
    if (timeCode_ != 0xFFFFFFFFu) {
      char line[32];
      std::snprintf(line, sizeof line, "timecode=%08X\n", static_cast<unsigned>(timeCode_));
      text = vx::FromUtf8(line);
    }
    hr = manager_->FinishSetup(movie_, text.c_str());
  }
  if (FAILED(hr)) {
    Close();
    return hr;
  }
  return S_OK;
}

void CVxMediaFileParserQT::DropStreams() {
  for (auto* s : images_) {
    s->Detach();
    s->Release();
  }
  for (auto* s : audios_) {
    s->Detach();
    s->Release();
  }
  images_.clear();
  audios_.clear();
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::Close() {
  return vx::Guarded([&]() -> HRESULT {
    HRESULT hr = S_OK;
    if (manager_ && movieOpen_) {
      if (mode_ == 2 && itemsWritten_ > 0) {
        VxQTFinish f;
        f.videoFrames = images_.empty() ? 0 : images_[0]->Written();
        f.audioFrames = audios_.empty() ? 0 : audios_[0]->Written();
        f.videoTracks = static_cast<std::uint32_t>(images_.size());
        f.audioTracks = static_cast<std::uint32_t>(audios_.size());
        f.timeCode = timeCode_;
        hr = manager_->FinishMovie(movie_, &f);
      }
      const HRESULT closed = manager_->CloseMovie(movie_);
      if (SUCCEEDED(hr)) hr = closed;
    }
    DropStreams();
    manager_.reset();
    movie_ = 0;
    movieOpen_ = false;
    mode_ = 0;
    itemsWritten_ = 0;
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::Prepare(DWORD) {
  return E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::HasStream(DWORD kind, BOOL* has) {
  if (!has) return E_POINTER;
  *has = (kind == VX_STREAM_PICTURE && !images_.empty()) ||
         (kind == VX_STREAM_SOUND && !audios_.empty());
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::SetStreamFormat(DWORD kind, DWORD index,
                                                                void* record) {
  if (!record) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (mode_ != 0) return E_ACCESSDENIED;  // streams are defined before the movie is opened
    const DWORD size = *static_cast<const DWORD*>(record);
    // The host counts the streams it defines from 1, as for every writer; stream n is then
    // read back and written through index n - 1.
    if (index == 0) return E_INVALIDARG;
    --index;
    if (kind == VX_STREAM_PICTURE) {
      if (size != sizeof(tagVxImageStreamFormat) || index > images_.size()) return E_INVALIDARG;
      tagVxImageStreamFormat d;
      std::memcpy(&d, record, sizeof d);
      if (!(d.frameRate > 0) || d.width == 0 || d.height == 0) return E_INVALIDARG;
      if (index == images_.size()) images_.push_back(new CVxImageStreamParserQT(this, index));
      images_[index]->SetDescription(d);
      return S_OK;
    }
    if (kind == VX_STREAM_SOUND) {
      if (size != kVxAudioStreamFormatSize || index > audios_.size()) return E_INVALIDARG;
      const auto* r = static_cast<const VxAudioStreamFormat*>(record);
      if (!r->format) return E_POINTER;
      auto* stream = new CVxAudioStreamParserQT(this, index);
      const HRESULT hr = stream->SetWriteFormat(r->format);
      if (FAILED(hr)) {
        stream->Detach();
        stream->Release();
        return hr;
      }
      if (index == audios_.size()) {
        audios_.push_back(stream);
      } else {
        audios_[index]->Detach();
        audios_[index]->Release();
        audios_[index] = stream;
      }
      return S_OK;
    }
    return E_INVALIDARG;
  });
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::GetStreamFormat(DWORD kind, DWORD index,
                                                                void* record) {
  if (!record) return E_POINTER;
  const DWORD size = *static_cast<const DWORD*>(record);
  if (kind == VX_STREAM_PICTURE && size == sizeof(tagVxImageStreamFormat)) {
    if (index >= images_.size()) return E_INVALIDARG;
    images_[index]->FillFormat(static_cast<tagVxImageStreamFormat*>(record));
    return S_OK;
  }
  if (kind == VX_STREAM_SOUND && size == kVxAudioStreamFormatSize) {
    if (index >= audios_.size()) return E_INVALIDARG;
    WAVEFORMATEX* out = static_cast<VxAudioStreamFormat*>(record)->format;
    if (!out) return E_POINTER;
    const VxQTWaveFormat& f = audios_[index]->Format();
    const WORD room = out->cbSize;
    const bool extensible = f.format.wFormatTag == 0xFFFE && f.format.cbSize >= 22;
    if (room == 0 && extensible) {
      // No room for the extension: the plain format the sub-format names.
      std::memcpy(out, &f.format, sizeof(WAVEFORMATEX));
      out->wFormatTag = static_cast<WORD>(f.subFormat.Data1);
      out->cbSize = 0;
      return S_OK;
    }
    const WORD extra = std::min<WORD>(room, f.format.cbSize);
    std::memcpy(out, &f, sizeof(WAVEFORMATEX) + extra);
    return S_OK;
  }
  return E_INVALIDARG;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::GetStream(DWORD kind, DWORD index, REFIID riid,
                                                          void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (kind == VX_STREAM_PICTURE && index < images_.size())
    return images_[index]->QueryInterface(riid, ppv);
  if (kind == VX_STREAM_SOUND && index < audios_.size())
    return audios_[index]->QueryInterface(riid, ppv);
  return E_INVALIDARG;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::GetStreamCapabilities(DWORD, DWORD kind,
                                                                      DWORD* caps) {
  if (!caps) return E_POINTER;
  if (kind == VX_STREAM_PICTURE)
    *caps = mode_ == 2 ? 0x1A3 : 0x183;
  else if (kind == VX_STREAM_SOUND)
    *caps = mode_ == 1 ? 3 : 1;
  else
    *caps = 0;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::GetTimeRange(DWORD kind, CVxTime* start,
                                                             CVxTime* end) {
  if (!start || !end) return E_POINTER;
  *start = *end = CVxTime();
  if (kind == VX_STREAM_PICTURE && !images_.empty()) {
    const CVxImageStreamParserQT& s = *images_[0];
    const std::uint32_t frames = mode_ == 2 ? s.Written() : s.Format().frameCount;
    *end = CVxTime(s.FrameTicks() * frames);
    return S_OK;
  }
  if (kind == VX_STREAM_SOUND && !audios_.empty()) {
    const CVxAudioStreamParserQT& s = *audios_[0];
    const std::uint64_t n = mode_ == 2 ? s.Written() : s.Samples();
    *end = CVxTime(Ticks(static_cast<double>(n), s.Format().format.nSamplesPerSec));
    return S_OK;
  }
  return S_FALSE;
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::SetOption(void* option, DWORD kind) {
  if (!option) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (kind == VX_OPTION_METADATA) {
      const VxMetadataRecord r = vx::md::GetRecord(static_cast<IVxMetadata*>(option));
      if (r.present & VX_MD_TIMECODE) timeCode_ = r.timeCode;
      return S_OK;
    }
    if (kind != VX_OPTION_TEXT) return S_FALSE;
    const std::string text = vx::ToUtf8(static_cast<const VxChar*>(option));
    if (text.rfind("codec=", 0) != 0) return S_FALSE;
    const std::string value = text.substr(6);
    for (const CodecName& c : kCodecs) {
      if (value == c.name) {
        codec_ = c.code;
        return S_OK;
      }
    }
    if (value.size() == 4) {  // a four-character code as it is
      codec_ = FourCC(value[0], value[1], value[2], value[3]);
      return S_OK;
    }
    return E_INVALIDARG;
  });
}

HRESULT STDMETHODCALLTYPE CVxMediaFileParserQT::GetCompressionName(VxChar* buffer, int size) {
  if (!buffer || size < 1) return E_INVALIDARG;
  return vx::Guarded([&]() -> HRESULT {
    std::string name;
    if (!images_.empty())
      name =
          CodecText(mode_ == 2 ? (codec_ ? codec_ : kCodecProResHQ) : images_[0]->Format().codec);
    else if (!audios_.empty())
      name = "PCM";
    const VxString wide = vx::FromUtf8(name);
    const std::size_t n = std::min(wide.size(), static_cast<std::size_t>(size - 1));
    std::copy_n(wide.begin(), n, buffer);
    buffer[n] = 0;
    return S_OK;
  });
}

HRESULT CVxMediaFileParserQT::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (mode_ != 1 || images_.empty()) return S_FALSE;
  const VxQTVideoFormat& f = images_[0]->Format();
  VxMetadataRecord r = vx::md::EmptyRecord();
  if (f.frameRate > 0) {
    r.present |= VX_MD_FRAMERATE;
    r.frameRate = f.timeFormat;
  }
  tagVxImageStreamFormat d{};
  images_[0]->FillFormat(&d);
  r.present |= VX_MD_FIELDMODE;
  r.fieldMode = d.fieldMode;
  VxQTFrameInfo info;
  const HRESULT hr = manager_->GetFrameInfo(movie_, 0, frame < 0 ? 0 : frame, &info);
  if (FAILED(hr)) return hr;
  if (info.timeCode != 0xFFFFFFFFu) {
    r.present |= VX_MD_TIMECODE;
    r.timeCode = info.timeCode;
    r.timeCodeRate = {static_cast<std::int32_t>(info.timeCodeRate), 1};
    r.dropFrame = info.dropFrame;
  }
  if (info.userBits) {
    r.present |= VX_MD_USERBITS;
    r.userBits = info.userBits;
  }
  return out->SetRecord(&r);
}
