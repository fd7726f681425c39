#include "movie/source/movie_parser.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <new>

#include "base/guard.h"
#include "base/module.h"

namespace ff = vx::ffmedia;
using vx::movie::SampleLayoutOf;
using vx::movie::TimeCodeStart;
using vx::movie::WaveFormatOf;

namespace vx::movie {

int NominalRate(double fps) {
  if (!(fps > 0) || !std::isfinite(fps) || fps > 1000) return 0;
  return static_cast<int>(std::lround(fps));
}

namespace {

// Frame numbers drop-frame counting skips at the start of each minute but every tenth.
int DropPerMinute(int base) {
  return base == 30 ? 2 : base == 60 ? 4 : 0;
}

}  // namespace

bool ParseTimeCode(const std::string& text, int base, TimeCodeStart* out) {
  int h = 0, m = 0, s = 0, f = 0;
  char sep = 0;
  int used = 0;
  if (base <= 0 ||
      std::sscanf(text.c_str(), "%2d:%2d:%2d%c%2d%n", &h, &m, &s, &sep, &f, &used) != 5 ||
      static_cast<std::size_t>(used) != text.size())
    return false;
  if (sep != ':' && sep != ';' && sep != '.' && sep != ',') return false;
  if (h < 0 || h > 23 || m < 0 || m > 59 || s < 0 || s > 59 || f < 0 || f >= base) return false;
  const bool drop = sep != ':' && DropPerMinute(base) > 0;
  std::int64_t frame = ((std::int64_t{h} * 60 + m) * 60 + s) * base + f;
  if (drop) {
    const std::int64_t minutes = std::int64_t{h} * 60 + m;
    frame -= DropPerMinute(base) * (minutes - minutes / 10);
  }
  *out = {frame, base, drop};
  return true;
}

DWORD TimeCodeWord(const TimeCodeStart& start, std::int64_t offset) {
  if (start.base <= 0) return 0xFFFFFFFFu;
  const int base = start.base;
  const int d = start.drop ? DropPerMinute(base) : 0;
  const std::int64_t perDay = std::int64_t{base} * 86400 - (d ? d * (1440 - 144) : 0);
  std::int64_t n = (start.frame + offset) % perDay;
  if (n < 0) n += perDay;
  if (d) {
    // Put the skipped numbers back: 10-minute blocks, then minutes after each block's first.
    const std::int64_t per10 = std::int64_t{base} * 600 - d * 9;
    const std::int64_t perMinute = std::int64_t{base} * 60 - d;
    const std::int64_t blocks = n / per10, rest = n % per10;
    n += d * 9 * blocks;
    if (rest >= d) n += d * ((rest - d) / perMinute);
  }
  const auto f = static_cast<int>(n % base);
  const std::int64_t secs = n / base;
  return VxConstructLTCInBCD(static_cast<int>(secs / 3600), static_cast<int>(secs / 60 % 60),
                             static_cast<int>(secs % 60), f);
}

std::string TimeCodeText(DWORD bcd, bool drop) {
  int h = 0, m = 0, s = 0, f = 0;
  if (bcd == 0xFFFFFFFFu || !VxParseLTCInBCD(bcd, &h, &m, &s, &f)) return "";
  char text[16];
  std::snprintf(text, sizeof text, "%02d:%02d:%02d%c%02d", h % 100, m % 100, s % 100,
                drop ? ';' : ':', f % 100);
  return text;
}

WAVEFORMATEX WaveFormatOf(const ff::AudioTrack& t) {
  WAVEFORMATEX f{};
  const int bits = t.floating ? 32 : t.bits <= 16 ? 16 : t.bits <= 24 ? 24 : 32;
  f.wFormatTag = t.floating ? 3 : 1;
  f.nChannels = static_cast<WORD>(t.channels);
  f.nSamplesPerSec = static_cast<DWORD>(t.sampleRate);
  f.wBitsPerSample = static_cast<WORD>(bits);
  f.nBlockAlign = static_cast<WORD>(bits / 8 * t.channels);
  f.nAvgBytesPerSec = f.nSamplesPerSec * f.nBlockAlign;
  f.cbSize = 0;
  return f;
}

ff::SampleLayout SampleLayoutOf(const WAVEFORMATEX& f) {
  if (f.wFormatTag == 3) return ff::SampleLayout::kF32;
  return f.wBitsPerSample == 16   ? ff::SampleLayout::kS16
         : f.wBitsPerSample == 24 ? ff::SampleLayout::kS24
                                  : ff::SampleLayout::kS32;
}

}  // namespace vx::movie

namespace {

HRESULT FromStatus(ff::Status s) {
  switch (s) {
    case ff::Status::kOk:
      return S_OK;
    case ff::Status::kOutOfMemory:
      return E_OUTOFMEMORY;
    case ff::Status::kInvalidArg:
      return E_INVALIDARG;
    case ff::Status::kUnsupported:
      return E_NOTIMPL;
    case ff::Status::kFail:
      break;
  }
  return E_FAIL;
}

// The host layout a frame goes into or comes from without conversion; false for grey.
bool LayoutOf(VxPixelFormat f, ff::PixelLayout* out) {
  switch (f) {
    case VX_PF_RGB8:
      *out = ff::PixelLayout::kRGB24;
      return true;
    case VX_PF_RGBA8:
      *out = ff::PixelLayout::kRGBA8;
      return true;
    case VX_PF_BGRA8:
      *out = ff::PixelLayout::kBGRA8;
      return true;
    case VX_PF_RGB16:
      *out = ff::PixelLayout::kRGB16;
      return true;
    case VX_PF_RGBA16:
      *out = ff::PixelLayout::kRGBA16;
      return true;
    case VX_PF_RGBF32:
      *out = ff::PixelLayout::kRGBF32;
      return true;
    case VX_PF_RGBAF32:
      *out = ff::PixelLayout::kRGBAF32;
      return true;
    default:
      return false;
  }
}

VxPixelFormat NativeFormat(const ff::VideoTrack& t) {
  const bool deep = t.bitDepth > 8;
  if (t.alpha) return deep ? VX_PF_RGBA16 : VX_PF_RGBA8;
  return deep ? VX_PF_RGB16 : VX_PF_RGB8;
}

VxTimeFormat TimeFormatOf(const ff::Rational& r) {
  if (r.num > 0 && r.den > 0 && r.num <= std::numeric_limits<std::int32_t>::max() &&
      r.den <= std::numeric_limits<std::int32_t>::max())
    return {static_cast<std::int32_t>(r.num), static_cast<std::int32_t>(r.den)};
  return VxGetTimeFormatFromSampleRate(r.Value());
}

// What a muxer can name: a file name as UTF-8 on every platform.
std::string PathOf(const VxString& name) {
  return vx::ToUtf8(name);
}

}  // namespace

// ---- Picture stream ------------------------------------------------------------------------

CVxMovieImageStream::CVxMovieImageStream(CVxMovieParser* owner, int track)
    : owner_(owner), track_(track) {
  description_.cbSize = sizeof description_;
}

void CVxMovieImageStream::FillFormat(tagVxImageStreamFormat* out) const {
  if (!owner_ || owner_->Mode() != 1) {
    *out = description_;
    out->cbSize = sizeof *out;
    return;
  }
  const ff::VideoTrack& t = owner_->Source()->Info().video[static_cast<std::size_t>(track_)];
  const VxPixelFormat native = NativeFormat(t);
  out->cbSize = sizeof *out;
  out->frameCount = static_cast<DWORD>(std::clamp<std::int64_t>(t.frames, 0, 0x7FFFFFFF));
  out->width = static_cast<DWORD>(t.width);
  out->height = static_cast<DWORD>(t.height);
  out->channels = t.alpha ? 4 : 3;
  out->bitsPerPixel = static_cast<DWORD>(VxPixelFormatBytesPerPixel(native) * 8);
  out->hasAlpha = t.alpha ? 1 : 0;
  out->planes = 1;
  out->frameRate = t.rate.Value() > 0 ? t.rate.Value() : -1.0;
  out->pixelAspect = t.pixelAspect.Value() > 0 ? t.pixelAspect.Value() : 1.0;
  out->fieldMode = t.fieldOrder == ff::FieldOrder::kProgressive   ? VX_FIELD_PROGRESSIVE
                   : t.fieldOrder == ff::FieldOrder::kTopFirst    ? VX_FIELD_UPPER_FIRST
                   : t.fieldOrder == ff::FieldOrder::kBottomFirst ? VX_FIELD_LOWER_FIRST
                                                                  : VX_FIELD_UNKNOWN;
  out->pixelFormat = native;
}

HRESULT CVxMovieImageStream::Decode(IVxImage* dst, VxPixelFormat format, std::int64_t frame) {
  ff::PixelLayout layout;
  if (!LayoutOf(format, &layout)) return E_NOTIMPL;
  return FromStatus(
      owner_->Source()->ReadFrame(track_, frame, layout, dst->GetBuffer(), dst->GetRowStride()));
}

HRESULT STDMETHODCALLTYPE CVxMovieImageStream::ReadImage(IVxImage** image, std::int32_t frame) {
  if (!image) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (!owner_ || owner_->Mode() != 1) return E_UNEXPECTED;
    const ff::VideoTrack& t = owner_->Source()->Info().video[static_cast<std::size_t>(track_)];
    if (frame < 0 || frame >= t.frames) return E_INVALIDARG;
    const VxPixelFormat native = NativeFormat(t);
    tagVxImageStreamFormat d{};
    FillFormat(&d);
    const VxTimeFormat rate = owner_->Rate(track_);
    const auto finish = [&](IVxImage* img) {
      img->SetPixelAspect(d.pixelAspect);
      img->SetFieldMode(d.fieldMode);
      img->SetTiming(CVxTime(frame, rate),
                     CVxTime(CVxTime(frame + 1, rate).Ticks() - CVxTime(frame, rate).Ticks()));
    };
    IVxImage* dst = *image;
    VxPixelFormat want = dst ? dst->GetPixelFormat() : native;
    if (want == VX_PF_UNKNOWN) want = native;
    // Straight into the host's pixels when the library delivers its format.
    if (dst) {
      ff::PixelLayout layout;
      if (LayoutOf(want, &layout)) {
        if (dst->GetWidth() != t.width || dst->GetHeight() != t.height || !dst->GetBuffer() ||
            dst->GetPixelFormat() != want) {
          if (HRESULT hr = dst->Allocate(t.width, t.height, want); FAILED(hr)) return hr;
        }
        const HRESULT hr = Decode(dst, want, frame);
        if (hr != E_NOTIMPL) {
          if (SUCCEEDED(hr)) finish(dst);
          return hr;
        }
      }
    }
    vx::ComPtr<IVxImage> decoded;
    if (HRESULT hr = VxCreateImage(t.width, t.height, native, decoded.put()); FAILED(hr)) return hr;
    if (HRESULT hr = Decode(decoded.get(), native, frame); FAILED(hr))
      return hr == E_NOTIMPL ? E_FAIL : hr;
    finish(decoded.get());
    if (!dst) {
      *image = decoded.detach();
      return S_OK;
    }
    if (dst->GetWidth() != t.width || dst->GetHeight() != t.height || !dst->GetBuffer() ||
        dst->GetPixelFormat() != want) {
      if (HRESULT hr = dst->Allocate(t.width, t.height, want); FAILED(hr)) return hr;
    }
    return VxConvertImage(decoded.get(), dst);
  });
}

HRESULT STDMETHODCALLTYPE CVxMovieImageStream::WriteImage(IVxImage* image, std::int32_t frame) {
  return vx::Guarded([&]() -> HRESULT {
    if (!owner_ || owner_->Mode() != 2) return E_ACCESSDENIED;
    if (!image) return E_POINTER;
    if (track_ != 0 || !owner_->Sink()) return E_UNEXPECTED;
    if (frame < 0) return E_INVALIDARG;
    const int w = image->GetWidth(), h = image->GetHeight();
    if (w != static_cast<int>(description_.width) || h != static_cast<int>(description_.height) ||
        !image->GetBuffer())
      return E_INVALIDARG;
    ff::PixelLayout layout;
    vx::ComPtr<IVxImage> source = vx::ComPtr<IVxImage>::Share(image);
    if (!LayoutOf(image->GetPixelFormat(), &layout)) {
      // Grey pictures go in as 16-bit RGB.
      vx::ComPtr<IVxImage> rgb;
      if (HRESULT hr = VxCreateImage(w, h, VX_PF_RGB16, rgb.put()); FAILED(hr)) return hr;
      if (HRESULT hr = VxConvertImage(image, rgb.get()); FAILED(hr)) return hr;
      source = std::move(rgb);
      layout = ff::PixelLayout::kRGB16;
    }
    const HRESULT hr =
        FromStatus(owner_->Sink()->WriteFrame(source->GetBuffer(), source->GetRowStride(), layout));
    if (FAILED(hr)) return hr;
    ++written_;
    owner_->CountWritten();
    return S_OK;
  });
}

// ---- Sound stream --------------------------------------------------------------------------

CVxMovieAudioStream::CVxMovieAudioStream(CVxMovieParser* owner, int track)
    : owner_(owner), track_(track) {}

std::uint64_t CVxMovieAudioStream::Samples() const {
  if (!owner_ || owner_->Mode() != 1) return written_;
  const std::int64_t n = owner_->Source()->Info().audio[static_cast<std::size_t>(track_)].samples;
  return n > 0 ? static_cast<std::uint64_t>(n) : 0;
}

HRESULT STDMETHODCALLTYPE CVxMovieAudioStream::GetFormat(BYTE* buffer, int* size) {
  if (!size) return E_POINTER;
  if (format_.nBlockAlign == 0) return E_UNEXPECTED;
  constexpr int needed = sizeof(WAVEFORMATEX);
  if (!buffer || *size < needed) {
    *size = needed;
    return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
  }
  std::memcpy(buffer, &format_, sizeof format_);
  *size = needed;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxMovieAudioStream::GetLength(LONG* range) {
  if (!range) return E_POINTER;
  range[0] = range[1] = 0;
  if (!owner_ || owner_->Mode() == 0) return E_UNEXPECTED;
  range[1] = static_cast<LONG>(std::min<std::uint64_t>(Samples(), 0x7FFFFFFF));
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxMovieAudioStream::ReadSamples(const VxSamplePosition* pos, LONG count,
                                                           void* buffer, LONG* done) {
  if (!pos || !done) return E_POINTER;
  *done = 0;
  if (count < 0 || pos->sample < 0) return E_INVALIDARG;
  if (count > 0 && !buffer) return E_POINTER;
  if (!owner_ || owner_->Mode() != 1) return E_UNEXPECTED;
  return vx::Guarded([&]() -> HRESULT {
    const std::uint64_t total = Samples();
    const auto first = static_cast<std::uint64_t>(pos->sample);
    if (count == 0) return S_OK;
    if (first >= total) return S_FALSE;
    const auto want = static_cast<std::int64_t>(std::min<std::uint64_t>(count, total - first));
    std::int64_t got = 0;
    const HRESULT hr = FromStatus(owner_->Source()->ReadAudio(
        track_, static_cast<std::int64_t>(first), want, SampleLayoutOf(format_), buffer, &got));
    if (FAILED(hr)) return hr == E_INVALIDARG || hr == E_NOTIMPL ? E_FAIL : hr;
    *done = static_cast<LONG>(std::clamp<std::int64_t>(got, 0, want));
    return *done == count ? S_OK : S_FALSE;
  });
}

HRESULT STDMETHODCALLTYPE CVxMovieAudioStream::WriteSamples(const void* buffer, LONG count) {
  if (!buffer) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (!owner_ || owner_->Mode() != 2 || !owner_->Sink()) return E_UNEXPECTED;
    if (count < 0) return E_INVALIDARG;
    if (count == 0) return S_OK;
    const HRESULT hr =
        FromStatus(owner_->Sink()->WriteAudio(track_, buffer, count, SampleLayoutOf(format_)));
    if (FAILED(hr)) return hr;
    written_ += static_cast<std::uint64_t>(count);
    owner_->CountWritten();
    return S_OK;
  });
}

HRESULT STDMETHODCALLTYPE CVxMovieAudioStream::AudioOp7(void*) {
  return E_NOTIMPL;
}

// ---- Media file parser ---------------------------------------------------------------------

CVxMovieParser::CVxMovieParser(vx::movie::Container container, const char* metadataPrefix)
    : container_(container), prefix_(metadataPrefix) {
  vx::module::AddObject();
}

CVxMovieParser::~CVxMovieParser() {
  Close();
  DropStreams();
  vx::module::RemoveObject();
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::QueryInterface(REFIID riid, void** ppv) {
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

ULONG STDMETHODCALLTYPE CVxMovieParser::AddRef() {
  return static_cast<ULONG>(++refs_);
}

ULONG STDMETHODCALLTYPE CVxMovieParser::Release() {
  const std::int32_t n = --refs_;
  if (n == 0) delete this;
  return static_cast<ULONG>(n);
}

VxTimeFormat CVxMovieParser::Rate(int track) const {
  if (mode_ == 1 && track >= 0 && static_cast<std::size_t>(track) < source_->Info().video.size())
    return TimeFormatOf(source_->Info().video[static_cast<std::size_t>(track)].rate);
  if (mode_ == 2 && track >= 0 && static_cast<std::size_t>(track) < images_.size())
    return VxGetTimeFormatFromSampleRate(
        images_[static_cast<std::size_t>(track)]->Description().frameRate);
  return {};
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::OpenEx(const VxChar* name, DWORD flags, DWORD) {
  return Open(name, flags);
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::OpenFileList(IVxFileList* list, DWORD flags) {
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

HRESULT STDMETHODCALLTYPE CVxMovieParser::Open(const VxChar* name, DWORD flags) {
  if (!name) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    const DWORD mode = flags & ~(VX_OPEN_NO_PATTERN | VX_OPEN_HOST_RESERVED);
    if (mode == 0 || mode == 1) return OpenRead(VxString(name));
    if (mode == VX_OPEN_WRITE) return OpenWrite(VxString(name));
    return E_INVALIDARG;
  });
}

HRESULT CVxMovieParser::OpenRead(const VxString& name) {
  if (mode_ != 0) Close();
  DropStreams();
  std::shared_ptr<vx::movie::MovieSource> source(vx::movie::MakeMovieSource(container_));
  if (!source) return E_NOTIMPL;
  const ff::Status s = source->Open(PathOf(name));
  if (s != ff::Status::kOk) return s == ff::Status::kOutOfMemory ? E_OUTOFMEMORY : E_FAIL;
  const ff::MediaInfo& info = source->Info();
  // Whatever else the demuxer recognises is not this parser's file.
  const std::string& kind = info.container;
  if (container_ == vx::movie::Container::kAvi ? !(kind.empty() || kind == "avi")
                                               : kind.rfind("mxf", 0) != 0)
    return E_FAIL;
  if (info.video.empty() && info.audio.empty()) return E_FAIL;
  // Nothing of a stream the host could not use: no size, no rate, no samples to speak of.
  for (const ff::VideoTrack& t : info.video) {
    if (t.width <= 0 || t.height <= 0 || !(t.rate.Value() > 0) || t.frames <= 0 ||
        t.frames > 0x7FFFFFFF || static_cast<std::int64_t>(t.width) * t.height > (1ll << 28))
      return E_FAIL;
  }
  for (const ff::AudioTrack& t : info.audio) {
    if (t.sampleRate <= 0 || t.channels <= 0 || t.channels > 64) return E_FAIL;
  }
  source_ = std::move(source);
  mode_ = 1;
  for (std::size_t t = 0; t < info.video.size(); ++t)
    images_.push_back(new CVxMovieImageStream(this, static_cast<int>(t)));
  for (std::size_t t = 0; t < info.audio.size(); ++t) {
    audios_.push_back(new CVxMovieAudioStream(this, static_cast<int>(t)));
    audios_.back()->SetFormat(WaveFormatOf(info.audio[t]));
    soundParsers_.push_back(MakeSoundStream(source_, name, static_cast<int>(t)));
  }
  return S_OK;
}

HRESULT CVxMovieParser::OpenWrite(const VxString& name) {
  if (mode_ != 0) Close();
  if (images_.empty() && audios_.empty()) return E_UNEXPECTED;
  if (images_.size() > 1) return E_NOTIMPL;  // the writers take one picture track
  std::unique_ptr<vx::movie::MovieSink> sink = vx::movie::MakeMovieSink(container_);
  if (!sink) return E_NOTIMPL;
  ff::VideoSettings video;
  if (!images_.empty()) {
    const tagVxImageStreamFormat& d = images_[0]->Description();
    const VxTimeFormat rate = VxGetTimeFormatFromSampleRate(d.frameRate);
    if (rate.rateNum <= 0) return E_INVALIDARG;
    video.codec = codecChosen_ ? codec_ : DefaultCodec(d.hasAlpha != 0);
    video.width = static_cast<int>(d.width);
    video.height = static_cast<int>(d.height);
    video.rate = {rate.rateNum, rate.rateDen};
    video.fieldOrder = d.fieldMode == VX_FIELD_UPPER_FIRST   ? ff::FieldOrder::kTopFirst
                       : d.fieldMode == VX_FIELD_LOWER_FIRST ? ff::FieldOrder::kBottomFirst
                                                             : ff::FieldOrder::kProgressive;
  }
  std::vector<ff::AudioSettings> audio;
  for (const CVxMovieAudioStream* a : audios_) {
    const WAVEFORMATEX& f = a->Format();
    ff::AudioSettings s;
    s.sampleRate = static_cast<int>(f.nSamplesPerSec);
    s.channels = f.nChannels;
    s.bits = f.wBitsPerSample == 16 && f.wFormatTag == 1 ? 16 : 24;
    audio.push_back(s);
  }
  std::string timecode;
  if (timeCode_ != 0xFFFFFFFFu) timecode = vx::movie::TimeCodeText(timeCode_, dropFrame_);
  std::vector<std::pair<std::string, std::string>> metadata;
  if (!reel_.empty()) metadata.emplace_back("reel_name", reel_);
  ff::Status s =
      sink->Open(PathOf(name), images_.empty() ? nullptr : &video, audio, timecode, metadata);
  // A time code the writer cannot take at this rate is dropped rather than the file.
  if (s == ff::Status::kInvalidArg && !timecode.empty())
    s = sink->Open(PathOf(name), images_.empty() ? nullptr : &video, audio, "", metadata);
  if (s != ff::Status::kOk) return FromStatus(s);
  sink_ = std::move(sink);
  mode_ = 2;
  itemsWritten_ = 0;
  return S_OK;
}

void CVxMovieParser::DropStreams() {
  for (auto* s : images_) {
    s->Detach();
    s->Release();
  }
  for (auto* s : audios_) {
    s->Detach();
    s->Release();
  }
  for (auto* p : soundParsers_)
    if (p) p->Release();
  images_.clear();
  audios_.clear();
  soundParsers_.clear();
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::Close() {
  return vx::Guarded([&]() -> HRESULT {
    HRESULT hr = S_OK;
    if (mode_ == 2 && sink_) {
      // Nothing written makes no file: the sink removes its temporary.
      if (itemsWritten_ > 0) hr = FromStatus(sink_->Finish());
      if (hr == E_INVALIDARG || hr == E_NOTIMPL) hr = E_FAIL;
    }
    sink_.reset();
    if (mode_ != 0) DropStreams();
    source_.reset();
    mode_ = 0;
    itemsWritten_ = 0;
    return hr;
  });
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::Prepare(DWORD) {
  return E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::HasStream(DWORD kind, BOOL* has) {
  if (!has) return E_POINTER;
  *has = (kind == VX_STREAM_PICTURE && !images_.empty()) ||
         (kind == VX_STREAM_SOUND && !audios_.empty());
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::SetStreamFormat(DWORD kind, DWORD index, void* record) {
  if (!record) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (mode_ != 0) return E_ACCESSDENIED;  // streams are defined before the file is opened
    // Stream n is defined by index n + 1, as every writer of the host counts them.
    if (index == 0) return E_INVALIDARG;
    --index;
    DWORD size = 0;
    std::memcpy(&size, record, sizeof size);
    if (kind == VX_STREAM_PICTURE) {
      if (size != sizeof(tagVxImageStreamFormat) || index > images_.size()) return E_INVALIDARG;
      tagVxImageStreamFormat d;
      std::memcpy(&d, record, sizeof d);
      if (!(d.frameRate > 0) || d.width == 0 || d.height == 0 || d.width > 16384 ||
          d.height > 16384)
        return E_INVALIDARG;
      if (index == images_.size())
        images_.push_back(new CVxMovieImageStream(this, static_cast<int>(index)));
      images_[index]->SetDescription(d);
      return S_OK;
    }
    if (kind == VX_STREAM_SOUND) {
      if (size != kVxAudioStreamFormatSize || index > audios_.size()) return E_INVALIDARG;
      VxAudioStreamFormat r;
      std::memcpy(&r, record, sizeof r);
      if (!r.format) return E_POINTER;
      WAVEFORMATEX f;
      std::memcpy(&f, r.format, sizeof f);
      WORD tag = f.wFormatTag;
      if (tag == WAVE_FORMAT_EXTENSIBLE && f.cbSize >= 22) {
        // The sub-format's first word is the plain tag it stands for.
        std::uint32_t sub = 0;
        std::memcpy(&sub, reinterpret_cast<const BYTE*>(r.format) + sizeof(WAVEFORMATEX) + 6, 4);
        tag = static_cast<WORD>(sub);
      }
      const unsigned bits = f.wBitsPerSample;
      const bool ok =
          (tag == 1 && (bits == 16 || bits == 24 || bits == 32)) || (tag == 3 && bits == 32);
      if (!ok || f.nChannels == 0 || f.nSamplesPerSec == 0 ||
          f.nBlockAlign != f.nChannels * (bits / 8))
        return E_NOTIMPL;
      f.wFormatTag = tag;
      f.cbSize = 0;
      if (index == audios_.size())
        audios_.push_back(new CVxMovieAudioStream(this, static_cast<int>(index)));
      audios_[index]->SetFormat(f);
      return S_OK;
    }
    return E_INVALIDARG;
  });
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::GetStreamFormat(DWORD kind, DWORD index, void* record) {
  if (!record) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    DWORD size = 0;
    std::memcpy(&size, record, sizeof size);
    if (kind == VX_STREAM_PICTURE && size == sizeof(tagVxImageStreamFormat)) {
      if (index >= images_.size()) return E_INVALIDARG;
      images_[index]->FillFormat(static_cast<tagVxImageStreamFormat*>(record));
      return S_OK;
    }
    if (kind == VX_STREAM_SOUND && size == kVxAudioStreamFormatSize) {
      if (index >= audios_.size()) return E_INVALIDARG;
      VxAudioStreamFormat r;
      std::memcpy(&r, record, sizeof r);
      if (!r.format) return E_POINTER;
      std::memcpy(r.format, &audios_[index]->Format(), sizeof(WAVEFORMATEX));
      r.format->cbSize = 0;
      return S_OK;
    }
    return E_INVALIDARG;
  });
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::GetStream(DWORD kind, DWORD index, REFIID riid,
                                                    void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (kind == VX_STREAM_PICTURE && index < images_.size())
    return images_[index]->QueryInterface(riid, ppv);
  if (kind == VX_STREAM_SOUND && index < audios_.size()) {
    if (index < soundParsers_.size() && soundParsers_[index])
      return soundParsers_[index]->QueryInterface(riid, ppv);
    return audios_[index]->QueryInterface(riid, ppv);
  }
  return E_INVALIDARG;
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::GetStreamCapabilities(DWORD, DWORD kind, DWORD* caps) {
  if (!caps) return E_POINTER;
  if (kind == VX_STREAM_PICTURE)
    *caps = mode_ == 2 ? 0xA3 : 0x83;
  else if (kind == VX_STREAM_SOUND)
    *caps = mode_ == 1 ? 3 : 1;
  else
    *caps = 0;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::GetTimeRange(DWORD kind, CVxTime* start, CVxTime* end) {
  if (!start || !end) return E_POINTER;
  *start = *end = CVxTime();
  return vx::Guarded([&]() -> HRESULT {
    if (kind == VX_STREAM_PICTURE && !images_.empty()) {
      tagVxImageStreamFormat d{};
      images_[0]->FillFormat(&d);
      const std::int64_t frames = mode_ == 2 ? images_[0]->Written() : d.frameCount;
      *end = CVxTime(frames, Rate(0));
      return S_OK;
    }
    if (kind == VX_STREAM_SOUND && !audios_.empty()) {
      const VxTimeFormat rate{static_cast<std::int32_t>(audios_[0]->Format().nSamplesPerSec), 1};
      *end = CVxTime(static_cast<std::int64_t>(audios_[0]->Samples()), rate);
      return S_OK;
    }
    return S_FALSE;
  });
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::SetOption(void* option, DWORD kind) {
  if (!option) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    if (kind == VX_OPTION_METADATA) {
      auto* md = static_cast<IVxMetadata*>(option);
      const VxMetadataRecord r = vx::md::GetRecord(md);
      if (r.present & VX_MD_TIMECODE) {
        timeCode_ = r.timeCode;
        dropFrame_ = r.dropFrame != 0;
      }
      reel_ = vx::md::GetText(md, vx::md::kReel);
      return S_OK;
    }
    if (kind != VX_OPTION_TEXT) return S_FALSE;
    const std::string text = vx::ToUtf8(static_cast<const VxChar*>(option));
    if (text.rfind("codec=", 0) != 0) return S_FALSE;
    std::string value = text.substr(6);
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const CodecName& c : Codecs()) {
      if (value == c.name) {
        codec_ = c.codec;
        codecChosen_ = true;
        return S_OK;
      }
    }
    return E_INVALIDARG;
  });
}

HRESULT STDMETHODCALLTYPE CVxMovieParser::GetCompressionName(VxChar* buffer, int size) {
  if (!buffer || size < 1) return E_INVALIDARG;
  return vx::Guarded([&]() -> HRESULT {
    std::string name;
    if (mode_ == 1 && !source_->Info().video.empty()) {
      name = source_->Info().video[0].codec;
    } else if (mode_ == 2 && !images_.empty()) {
      const ff::VideoCodec c =
          codecChosen_ ? codec_ : DefaultCodec(images_[0]->Description().hasAlpha != 0);
      for (const CodecName& n : Codecs())
        if (n.codec == c) {
          name = n.name;
          break;
        }
    } else if (!audios_.empty()) {
      name = "PCM";
    }
    const VxString wide = vx::FromUtf8(name);
    const std::size_t n = std::min(wide.size(), static_cast<std::size_t>(size - 1));
    std::copy_n(wide.begin(), n, buffer);
    buffer[n] = 0;
    return S_OK;
  });
}

HRESULT CVxMovieParser::FillMetadata(std::int32_t frame, IVxMetadata* out) {
  if (mode_ != 1) return S_FALSE;
  const ff::MediaInfo& info = source_->Info();
  VxMetadataRecord r = vx::md::EmptyRecord();
  double fps = 0;
  if (!images_.empty()) {
    tagVxImageStreamFormat d{};
    images_[0]->FillFormat(&d);
    r.present |= VX_MD_FRAMERATE | VX_MD_FIELDMODE | VX_MD_ASPECT;
    r.frameRate = Rate(0);
    r.fieldMode = d.fieldMode;
    r.pixelAspect = d.pixelAspect;
    fps = r.frameRate.Rate();
  }
  vx::movie::TimeCodeStart tc;
  if (!info.timecode.empty() &&
      vx::movie::ParseTimeCode(info.timecode, vx::movie::NominalRate(fps > 0 ? fps : 25), &tc)) {
    r.present |= VX_MD_TIMECODE;
    r.timeCode = vx::movie::TimeCodeWord(tc, frame < 0 ? 0 : frame);
    r.timeCodeRate = {tc.base, 1};
    r.dropFrame = tc.drop ? 1 : 0;
  }
  if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
  for (const auto& [key, value] : info.metadata) {
    if (value.empty()) continue;
    if (key == "reel_name" || key == "reel" || key == "tape_name" || key == "reel_number")
      vx::md::SetText(out, vx::md::kReel, value);
    else if (key == "comment")
      vx::md::SetText(out, vx::md::kComment, value);
    else if (key == "creation_time")
      vx::md::SetText(out, vx::md::kDate, value);
    else if (key == "encoder" || key == "product_name")
      vx::md::SetText(out, vx::md::kCreator, value);
    else if (key == "copyright")
      vx::md::SetText(out, vx::md::kCopyright, value);
    vx::md::SetText(out, std::string(prefix_) + ":" + key, value);
  }
  return S_OK;
}
