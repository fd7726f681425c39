#include "audio/base/audio_parser.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "fileio/whole_file.h"
#include "base/bytes.h"
#include "base/guard.h"
#include "base/module.h"
#include "base/text.h"

using vx::audio::SampleLayout;
using vx::audio::SampleTransform;
namespace os = vx::os;

namespace {

// Largest single transfer; keeps every count within the platform's 32-bit one.
constexpr std::uint64_t kMaxTransfer = 1u << 30;
// Scratch for compressed blocks and for samples that change on their way out.
constexpr std::size_t kScratchBytes = 1u << 20;

void Transform(SampleTransform t, std::uint8_t* data, std::size_t bytes) {
  switch (t) {
    case SampleTransform::kNone:
      break;
    case SampleTransform::kSwap16:
      vx::SwapInPlace(data, bytes / 2, 2);
      break;
    case SampleTransform::kSwap24:
      vx::SwapInPlace(data, bytes / 3, 3);
      break;
    case SampleTransform::kSwap32:
      vx::SwapInPlace(data, bytes / 4, 4);
      break;
    case SampleTransform::kSwap64:
      vx::SwapInPlace(data, bytes / 8, 8);
      break;
    case SampleTransform::kSigned8:
      for (std::size_t i = 0; i < bytes; ++i) data[i] ^= 0x80;
      break;
  }
}

// Reads up to `bytes` at `offset`; *got is what the file had. False on an OS error.
bool ReadSpan(os::FileHandle f, std::uint64_t offset, std::uint8_t* out, std::uint64_t bytes,
              std::uint64_t* got) {
  *got = 0;
  while (*got < bytes) {
    const auto want = static_cast<std::uint32_t>(std::min(bytes - *got, kMaxTransfer));
    std::uint32_t done = 0;
    if (!os::ReadAt(f, offset + *got, out + *got, want, &done)) return false;
    *got += done;
    if (done < want) break;
  }
  return true;
}

}  // namespace

CVxAudioParser::CVxAudioParser() {
  vx::module::AddObject();
}

CVxAudioParser::~CVxAudioParser() {
  // The format's file closed with the format's members. An export the host never closed is
  // not a file: nothing of it stays.
  if (!tempName_.empty()) os::Remove(tempName_.c_str());
  vx::module::RemoveObject();
}

void CVxAudioParser::Reset() {
  if (mode_ != 0) CloseFile();
  if (!tempName_.empty()) os::Remove(tempName_.c_str());
  tempName_.clear();
  mode_ = 0;
  flags_ = 0;
  name_.clear();
  format_.clear();
  layout_ = SampleLayout{};
  written_ = 0;
  writeFailed_ = false;
  blob_.clear();
  writeMetadata_.reset();
}

// ---- IUnknown -------------------------------------------------------------------------------

HRESULT CVxAudioParser::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IVxMediaFileParser) {
    *ppv = static_cast<IVxMediaFileParser*>(this);
  } else if (riid == IID_IVxAudioStreamParser) {
    *ppv = static_cast<IVxAudioStreamParser*>(this);
  } else if (riid == IID_IVxParserSourceInfo) {
    *ppv = static_cast<IVxParserSourceInfo*>(this);
  } else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

ULONG CVxAudioParser::AddRef() {
  return static_cast<ULONG>(++refs_);
}

ULONG CVxAudioParser::Release() {
  const std::int32_t n = --refs_;
  if (n == 0) delete this;
  return static_cast<ULONG>(n);
}

// ---- Opening and closing --------------------------------------------------------------------

HRESULT CVxAudioParser::OpenEx(const VxChar* name, DWORD flags, DWORD) {
  return Open(name, flags);
}

HRESULT CVxAudioParser::OpenFileList(IVxFileList*, DWORD) {
  return E_NOTIMPL;  // a sound is one file
}

HRESULT CVxAudioParser::Open(const VxChar* name, DWORD flags) {
  if (!name) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    VxString opened(name);
    Reset();
    if (flags & VX_OPEN_WRITE) {
      // Rewriting a file keeps its "VXMD" chunk unless the host hands over another.
      if (os::IsFile(opened.c_str())) {
        SampleLayout old;
        if (FAILED(ParseFile(opened.c_str(), &old))) blob_.clear();
        CloseFile();
        format_.clear();
      }
      name_ = std::move(opened);
      flags_ = flags & ~(VX_OPEN_NO_PATTERN | VX_OPEN_HOST_RESERVED);
      return S_OK;
    }
    SampleLayout layout;
    HRESULT hr = ParseFile(opened.c_str(), &layout);
    if (SUCCEEDED(hr) && (format_.size() < sizeof(WAVEFORMATEX) || HostFormat().nBlockAlign == 0 ||
                          layout.fileBlockAlign == 0 || layout.framesPerBlock == 0))
      hr = E_FAIL;
    if (FAILED(hr)) {
      CloseFile();
      format_.clear();
      blob_.clear();
      return hr;
    }
    layout_ = std::move(layout);
    name_ = std::move(opened);
    flags_ = flags & ~(VX_OPEN_NO_PATTERN | VX_OPEN_HOST_RESERVED);
    mode_ = 1;
    return S_OK;
  });
}

HRESULT CVxAudioParser::Close() {
  return vx::Guarded([&]() -> HRESULT {
    if (mode_ == 0 && name_.empty()) return S_FALSE;
    HRESULT hr = S_OK;
    if (mode_ == 2) hr = FinishWriting();
    Reset();
    return hr;
  });
}

HRESULT CVxAudioParser::StartWriting() {
  tempName_ = vx::TemporaryNameBeside(name_.c_str());
  std::uint64_t start = 0;
  SampleTransform transform = SampleTransform::kNone;
  const HRESULT hr = StartFile(tempName_.c_str(), &start, &transform);
  if (FAILED(hr)) {
    writeFailed_ = true;
    return hr;
  }
  layout_.dataStart = start;
  layout_.transform = transform;
  layout_.fileBlockAlign = HostFormat().nBlockAlign;
  return S_OK;
}

HRESULT CVxAudioParser::FinishWriting() {
  if (tempName_.empty() && !writeFailed_) StartWriting();
  HRESULT hr = writeFailed_ ? E_FAIL : S_OK;
  if (SUCCEEDED(hr) && writeMetadata_) {
    const std::string text = vx::md::GetText(writeMetadata_.get(), vx::audio::kVxmdKey);
    // A record handed over describes the new sound: its blob, or none, replaces the old one.
    std::vector<std::uint8_t> blob;
    if (text.empty() || !vx::Base64Decode(text, &blob)) blob.clear();
    blob_ = std::move(blob);
    TakeFormatMetadata(writeMetadata_.get());
  }
  if (SUCCEEDED(hr)) hr = FinishFile(written_);
  CloseFile();
  mode_ = 0;
  if (SUCCEEDED(hr) && !os::Replace(tempName_.c_str(), name_.c_str())) hr = E_FAIL;
  if (SUCCEEDED(hr)) tempName_.clear();  // else Reset removes it
  return hr;
}

// ---- Formats and queries --------------------------------------------------------------------

HRESULT CVxAudioParser::Prepare(DWORD) {
  return E_NOTIMPL;
}

HRESULT CVxAudioParser::HasStream(DWORD kind, BOOL* has) {
  if (!has) return E_POINTER;
  *has = kind == VX_STREAM_SOUND ? TRUE : FALSE;
  return S_OK;
}

void CVxAudioParser::SetHostFormat(const void* format, std::size_t bytes) {
  const auto* p = static_cast<const std::uint8_t*>(format);
  format_.assign(p, p + bytes);
  if (format_.size() < sizeof(WAVEFORMATEX)) format_.resize(sizeof(WAVEFORMATEX), 0);
  // cbSize always tells how many extra bytes follow.
  vx::StoreLE16(format_.data() + 16, static_cast<std::uint16_t>(format_.size() - 18));
}

const WAVEFORMATEX& CVxAudioParser::HostFormat() const {
  return *reinterpret_cast<const WAVEFORMATEX*>(format_.data());
}

HRESULT CVxAudioParser::SetStreamFormat(DWORD kind, DWORD index, void* record) {
  if (kind != VX_STREAM_SOUND || index != 1) return E_INVALIDARG;
  if (!record) return E_POINTER;
  return vx::Guarded([&]() -> HRESULT {
    VxAudioStreamFormat r;
    std::memcpy(&r, record, sizeof r);
    if (r.cbSize != kVxAudioStreamFormatSize || !r.format) return E_INVALIDARG;
    WAVEFORMATEX f;
    std::memcpy(&f, r.format, sizeof f);
    const std::size_t extra =
        f.wFormatTag == WAVE_FORMAT_EXTENSIBLE ? std::min<WORD>(f.cbSize, 22) : 0;
    std::vector<std::uint8_t> previous = std::move(format_);
    SetHostFormat(r.format, sizeof f + extra);
    HRESULT hr = AcceptFormat(HostFormat());
    if (SUCCEEDED(hr) && (mode_ != 0 || !(flags_ & VX_OPEN_WRITE))) hr = E_ACCESSDENIED;
    if (SUCCEEDED(hr)) {
      const WAVEFORMATEX& g = HostFormat();
      const unsigned bits = g.wBitsPerSample;
      if (g.nChannels == 0 || g.nSamplesPerSec == 0 || bits == 0 || bits % 8 != 0 || bits > 64 ||
          g.nBlockAlign != g.nChannels * (bits / 8))
        hr = E_NOTIMPL;
    }
    if (FAILED(hr)) {
      format_ = std::move(previous);
      return hr;
    }
    mode_ = 2;
    return S_OK;
  });
}

HRESULT CVxAudioParser::GetStreamFormat(DWORD kind, DWORD, void* record) {
  if (kind != VX_STREAM_SOUND) return E_INVALIDARG;
  if (!record) return E_POINTER;
  VxAudioStreamFormat r;
  std::memcpy(&r, record, sizeof r);
  if (r.cbSize != kVxAudioStreamFormatSize || !r.format) return E_INVALIDARG;
  if (format_.empty()) return E_UNEXPECTED;
  std::memcpy(r.format, format_.data(), format_.size());
  return S_OK;
}

HRESULT CVxAudioParser::GetStream(DWORD kind, DWORD index, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (kind != VX_STREAM_SOUND || index != 0) {
    *ppv = nullptr;
    return E_INVALIDARG;
  }
  return QueryInterface(riid, ppv);
}

HRESULT CVxAudioParser::GetStreamCapabilities(DWORD, DWORD kind, DWORD* caps) {
  if (!caps) return E_POINTER;
  *caps = kind == VX_STREAM_SOUND ? Capabilities() : 0;
  return S_OK;
}

HRESULT CVxAudioParser::GetTimeRange(DWORD kind, CVxTime* start, CVxTime* end) {
  if (!start || !end) return E_POINTER;
  *start = CVxTime();
  *end = CVxTime();
  if (kind != VX_STREAM_SOUND || mode_ != 1 || HostFormat().nSamplesPerSec == 0) return S_FALSE;
  return vx::Guarded([&]() -> HRESULT {
    const VxTimeFormat rate{static_cast<std::int32_t>(HostFormat().nSamplesPerSec), 1};
    *end = CVxTime(static_cast<std::int64_t>(layout_.frames), rate);
    return S_OK;
  });
}

HRESULT CVxAudioParser::SetOption(void* option, DWORD kind) {
  if (!option) return E_POINTER;
  if (kind != VX_OPTION_METADATA) return S_FALSE;
  return vx::Guarded([&]() -> HRESULT {
    vx::ComPtr<IVxMetadata> copy;
    if (HRESULT hr = VxCreateMetadata(copy.put()); FAILED(hr)) return hr;
    if (HRESULT hr = copy->CopyFrom(static_cast<IVxMetadata*>(option)); FAILED(hr)) return hr;
    writeMetadata_ = std::move(copy);
    return S_OK;
  });
}

HRESULT CVxAudioParser::GetCompressionName(VxChar* buffer, int size) {
  if (!buffer || size < 1) return E_INVALIDARG;
  if (mode_ == 0) return E_UNEXPECTED;
  return vx::Guarded([&]() -> HRESULT {
    const VxString name = vx::FromUtf8(layout_.compression);
    const std::size_t n = std::min<std::size_t>(name.size(), static_cast<std::size_t>(size) - 1);
    std::copy_n(name.begin(), n, buffer);
    buffer[n] = 0;
    return S_OK;
  });
}

HRESULT CVxAudioParser::FillMetadata(std::int32_t, IVxMetadata* out) {
  if (mode_ != 1) return E_UNEXPECTED;
  if (!blob_.empty()) {
    const HRESULT hr =
        vx::md::SetText(out, vx::audio::kVxmdKey, vx::Base64Encode(blob_.data(), blob_.size()));
    if (FAILED(hr)) return hr;
  }
  return AddFormatMetadata(out);
}

// ---- The sound stream -----------------------------------------------------------------------

HRESULT CVxAudioParser::GetFormat(BYTE* buffer, int* size) {
  if (!size) return E_POINTER;
  if (format_.empty()) return E_UNEXPECTED;
  const int needed = static_cast<int>(format_.size());
  if (!buffer || *size < needed) {
    *size = needed;
    return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
  }
  std::memcpy(buffer, format_.data(), format_.size());
  *size = needed;
  return S_OK;
}

HRESULT CVxAudioParser::GetLength(LONG* range) {
  if (!range) return E_POINTER;
  range[0] = range[1] = 0;
  if (mode_ == 0) return E_UNEXPECTED;
  const std::uint64_t frames = mode_ == 1 ? layout_.frames : written_;
  range[1] = static_cast<LONG>(std::min<std::uint64_t>(frames, 0x7FFFFFFF));
  return S_OK;
}

HRESULT CVxAudioParser::ReadSamples(const VxSamplePosition* pos, LONG count, void* buffer,
                                    LONG* done) {
  if (!pos || !done) return E_POINTER;
  *done = 0;
  if (count < 0 || pos->sample < 0) return E_INVALIDARG;
  if (count > 0 && !buffer) return E_POINTER;
  if (mode_ != 1) return E_UNEXPECTED;
  return vx::Guarded([&]() -> HRESULT {
    const auto first = static_cast<std::uint64_t>(pos->sample);
    if (first >= layout_.frames || count == 0) return count == 0 ? S_OK : S_FALSE;
    const auto want =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(count, layout_.frames - first));
    std::uint32_t got = 0;
    auto* out = static_cast<std::uint8_t*>(buffer);
    HRESULT hr = ReadFrames(first, want, out, &got);
    if (hr == E_NOTIMPL)
      hr = layout_.decoder ? ReadBlocks(first, want, out, &got) : ReadPcm(first, want, out, &got);
    *done = static_cast<LONG>(got);
    if (FAILED(hr)) return hr;
    return got == static_cast<std::uint32_t>(count) ? S_OK : S_FALSE;
  });
}

HRESULT CVxAudioParser::ReadPcm(std::uint64_t first, std::uint32_t frames, std::uint8_t* out,
                                std::uint32_t* got) {
  const std::uint32_t align = layout_.fileBlockAlign;
  std::uint64_t bytes = 0;
  if (!ReadSpan(SampleFile(), layout_.dataStart + first * align, out, std::uint64_t{frames} * align,
                &bytes))
    return E_FAIL;
  *got = static_cast<std::uint32_t>(bytes / align);
  Transform(layout_.transform, out, std::size_t{*got} * align);
  return S_OK;
}

HRESULT CVxAudioParser::ReadBlocks(std::uint64_t first, std::uint32_t frames, std::uint8_t* out,
                                   std::uint32_t* got) {
  const std::uint32_t fileAlign = layout_.fileBlockAlign, perBlock = layout_.framesPerBlock;
  const std::uint32_t hostAlign = HostFormat().nBlockAlign;
  const std::uint32_t channels = HostFormat().nChannels;
  // Whole blocks per pass, bounded by the scratch for the compressed and the decoded bytes.
  const std::uint64_t blockCost = fileAlign + std::uint64_t{perBlock} * hostAlign;
  const auto passBlocks =
      static_cast<std::uint32_t>(std::max<std::uint64_t>(1, kScratchBytes / blockCost));
  std::vector<std::uint8_t> in(std::size_t{passBlocks} * fileAlign);
  std::vector<std::int16_t> pcm(std::size_t{passBlocks} * perBlock * channels);
  *got = 0;
  while (*got < frames) {
    const std::uint64_t frame = first + *got;
    const std::uint64_t block = frame / perBlock;
    const auto skip = static_cast<std::uint32_t>(frame % perBlock);
    const std::uint64_t needBlocks =
        (skip + std::uint64_t{frames - *got} + perBlock - 1) / perBlock;
    auto blocks = static_cast<std::uint32_t>(std::min<std::uint64_t>(needBlocks, passBlocks));
    std::uint64_t bytes = 0;
    if (!ReadSpan(SampleFile(), layout_.dataStart + block * fileAlign, in.data(),
                  std::uint64_t{blocks} * fileAlign, &bytes))
      return E_FAIL;
    blocks = static_cast<std::uint32_t>(bytes / fileAlign);
    if (blocks == 0) break;  // the file ends early
    if (!layout_.decoder->Decode(in.data(), blocks, pcm.data())) return E_FAIL;
    const std::uint32_t take = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(std::uint64_t{blocks} * perBlock - skip, frames - *got));
    std::memcpy(out + std::size_t{*got} * hostAlign, pcm.data() + std::size_t{skip} * channels,
                std::size_t{take} * hostAlign);
    *got += take;
  }
  return S_OK;
}

HRESULT CVxAudioParser::WriteSamples(const void* buffer, LONG count) {
  if (count < 0) return E_INVALIDARG;
  if (!buffer && count > 0) return E_POINTER;
  if (mode_ != 2) return E_UNEXPECTED;
  return vx::Guarded([&]() -> HRESULT {
    if (writeFailed_) return E_FAIL;
    if (tempName_.empty()) {
      if (HRESULT hr = StartWriting(); FAILED(hr)) return hr;
    }
    const std::uint32_t align = layout_.fileBlockAlign;
    const auto* data = static_cast<const std::uint8_t*>(buffer);
    const std::uint64_t bytes = std::uint64_t{static_cast<std::uint32_t>(count)} * align;
    const std::uint64_t at = layout_.dataStart + written_ * align;
    bool ok = true;
    if (layout_.transform == SampleTransform::kNone) {
      ok = vx::fileio::WriteAll(SampleFile(), at, data, bytes);
    } else {
      // Whole frames per piece, so a swap never straddles two pieces.
      const std::uint64_t piece = std::max<std::uint64_t>(1, kScratchBytes / align) * align;
      scratch_.resize(static_cast<std::size_t>(std::min(piece, bytes)));
      for (std::uint64_t put = 0; ok && put < bytes; put += piece) {
        const auto n = static_cast<std::size_t>(std::min(piece, bytes - put));
        std::memcpy(scratch_.data(), data + put, n);
        Transform(layout_.transform, scratch_.data(), n);
        ok = vx::fileio::WriteAll(SampleFile(), at + put, scratch_.data(), n);
      }
    }
    if (!ok) {
      writeFailed_ = true;
      return E_FAIL;
    }
    written_ += static_cast<std::uint32_t>(count);
    return S_OK;
  });
}

HRESULT CVxAudioParser::AudioOp7(void*) {
  return E_NOTIMPL;
}
