#include "audio/wav/wav_parser.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "audio/codec/sound_codec.h"
#include "base/bytes.h"

using vx::audio::BroadcastWaveRecord;
using vx::audio::SampleLayout;
using vx::audio::SampleTransform;
using vx::fileio::FourCC;
namespace os = vx::os;

namespace {

constexpr std::uint32_t kRiff = FourCC("RIFF"), kRf64 = FourCC("RF64"), kWave = FourCC("WAVE"),
                        kDs64 = FourCC("ds64"), kJunk = FourCC("JUNK"), kFmt = FourCC("fmt "),
                        kData = FourCC("data"), kFact = FourCC("fact"), kBext = FourCC("bext"),
                        kVxmd = FourCC("VXMD");
constexpr std::uint32_t kBextFixedSize = 602;
constexpr std::uint16_t kTagRefused = 103;
// The host SDK's status for a format buffer that could not be allocated.
constexpr HRESULT kFormatAllocFailed = static_cast<HRESULT>(0x80044067);
// KSDATAFORMAT_SUBTYPE_PCM / _IEEE_FLOAT share these 14 bytes after their 16-bit tag.
constexpr std::uint8_t kSubtypeTail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80,
                                           0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

// A fixed-size text field: up to its first NUL, trailing blanks dropped.
std::string FixedText(const std::uint8_t* p, std::size_t n) {
  std::size_t len = 0;
  while (len < n && p[len]) ++len;
  while (len > 0 && (p[len - 1] == ' ')) --len;
  return std::string(reinterpret_cast<const char*>(p), len);
}

// Width in bytes of a sample the base can hand over as it is stored, 0 otherwise.
unsigned PlainWidth(std::uint16_t tag, unsigned blockAlign, unsigned channels) {
  if (channels == 0 || blockAlign % channels != 0) return 0;
  const unsigned width = blockAlign / channels;
  if (tag == WAVE_FORMAT_PCM) return width >= 1 && width <= 4 ? width : 0;
  if (tag == WAVE_FORMAT_IEEE_FLOAT) return width == 4 || width == 8 ? width : 0;
  return 0;
}

}  // namespace

CVxAudioParserWAV::CVxAudioParserWAV() = default;
CVxAudioParserWAV::~CVxAudioParserWAV() = default;

void CVxAudioParserWAV::CloseFile() {
  chunk_.reset();  // closes the file
  bext_.reset();
  fileSize_ = 0;
  factFrames_ = 0;
  hasFact_ = false;
}

os::FileHandle CVxAudioParserWAV::SampleFile() const {
  return chunk_ ? chunk_->Handle() : os::kNoFile;
}

// ---- Reading --------------------------------------------------------------------------------

bool CVxAudioParserWAV::FindChunk(std::uint32_t id, std::uint32_t* size) {
  while (chunk_->position + 8 <= fileSize_) {
    std::uint32_t found = 0;
    const std::uint32_t n = chunk_->Descend(&found);
    if (found == id) {
      *size = n;
      return true;
    }
    if (found == kBext && n >= kBextFixedSize) ReadBroadcastWave(n);
    if (found == kFact && n >= 4) {
      factFrames_ = chunk_->ReadLong();
      hasFact_ = true;
    }
    chunk_->Ascend();
  }
  return false;
}

void CVxAudioParserWAV::ReadBroadcastWave(std::uint32_t size) {
  // The coding history is free text; a few KiB is all any recorder writes.
  const std::uint32_t n = std::min<std::uint32_t>(size, kBextFixedSize + 65536);
  std::vector<std::uint8_t> b(n);
  std::uint32_t got = 0;
  if (!chunk_->Read(b.data(), n, &got) || got < kBextFixedSize) return;
  auto r = std::make_unique<BroadcastWaveRecord>();
  r->description = FixedText(&b[0], 256);
  r->originator = FixedText(&b[256], 32);
  r->originatorReference = FixedText(&b[288], 32);
  r->originationDate = FixedText(&b[320], 10);
  r->originationTime = FixedText(&b[330], 8);
  r->timeReference = vx::LoadLE64(&b[338]);
  r->version = vx::LoadLE16(&b[346]);
  if (r->version >= 1) std::memcpy(r->umid, &b[348], 64);
  if (r->version >= 2)
    for (int i = 0; i < 5; ++i)
      r->loudness[i] = static_cast<std::int16_t>(vx::LoadLE16(&b[412 + 2 * i]));
  r->codingHistory = FixedText(&b[kBextFixedSize], got - kBextFixedSize);
  bext_ = std::move(r);  // a later chunk replaces an earlier one
}

HRESULT CVxAudioParserWAV::ReadFormat(std::uint32_t size, std::vector<std::uint8_t>* format) {
  if (size < 14 || chunk_->position + size > fileSize_) return E_FAIL;
  try {
    format->assign(std::max<std::uint32_t>(18, size), 0);
  } catch (const std::bad_alloc&) {
    return kFormatAllocFailed;
  }
  std::uint8_t* f = format->data();
  std::uint32_t got = 0;
  if (!chunk_->Read(f, 14, &got) || got != 14) return E_FAIL;
  chunk_->position += 14;
  const std::uint16_t tag = vx::LoadLE16(f), channels = vx::LoadLE16(f + 2);
  const std::uint16_t blockAlign = vx::LoadLE16(f + 12);
  if (tag == kTagRefused) return E_NOTIMPL;
  if (size < 18 || tag == WAVE_FORMAT_PCM) {
    if (channels == 0) return E_FAIL;
    // The stored width is not trusted: the block is.
    vx::StoreLE16(f + 14, static_cast<std::uint16_t>(blockAlign * 8 / channels));
    vx::StoreLE16(f + 16, 0);
    format->resize(18);
    return S_OK;
  }
  if (!chunk_->Read(f + 14, size - 14, &got) || got != size - 14) return E_FAIL;
  const std::uint16_t extra = vx::LoadLE16(f + 16);
  if (18u + extra > size) return E_FAIL;
  format->resize(18u + extra);
  return S_OK;
}

HRESULT CVxAudioParserWAV::Present(const std::vector<std::uint8_t>& format, SampleLayout* layout) {
  WAVEFORMATEX f;
  std::memcpy(&f, format.data(), sizeof f);
  layout->fileBlockAlign = f.nBlockAlign;
  std::uint16_t tag = f.wFormatTag;
  bool extensible = false;
  if (tag == WAVE_FORMAT_EXTENSIBLE) {
    // Plain PCM or float under the extensible wrapper keeps it, so the host sees the channel
    // mask; anything else inside is not a format we decode.
    if (f.cbSize < 22 || std::memcmp(&format[26], kSubtypeTail, 14) != 0) return E_NOTIMPL;
    tag = vx::LoadLE16(&format[24]);
    extensible = true;
  }
  if (tag == WAVE_FORMAT_PCM || tag == WAVE_FORMAT_IEEE_FLOAT) {
    const unsigned width = PlainWidth(tag, f.nBlockAlign, f.nChannels);
    if (width == 0) return f.nChannels && f.nBlockAlign % f.nChannels == 0 ? E_NOTIMPL : E_FAIL;
    f.wBitsPerSample = static_cast<WORD>(width * 8);
    f.nAvgBytesPerSec = f.nBlockAlign * f.nSamplesPerSec;
    f.cbSize = extensible ? 22 : 0;
    std::vector<std::uint8_t> host(format.begin(), format.begin() + 18 + f.cbSize);
    std::memcpy(host.data(), &f, sizeof f);
    SetHostFormat(host.data(), host.size());
    layout->compression = vx::audio::CompressionName(f.wFormatTag);
    if (!layout->compression) layout->compression = "PCM";
    return S_OK;
  }
  if (extensible) return E_NOTIMPL;
  layout->decoder = vx::audio::MakeSoundDecoder(format.data(), format.size());
  if (!layout->decoder) return E_NOTIMPL;
  layout->framesPerBlock = layout->decoder->FramesPerBlock();
  if (layout->framesPerBlock == 0) return E_FAIL;
  layout->compression = vx::audio::CompressionName(f.wFormatTag);
  if (!layout->compression) layout->compression = "compressed";
  WAVEFORMATEX pcm{WAVE_FORMAT_PCM,
                   f.nChannels,
                   f.nSamplesPerSec,
                   f.nSamplesPerSec * 2u * f.nChannels,
                   static_cast<WORD>(2 * f.nChannels),
                   16,
                   0};
  SetHostFormat(&pcm, sizeof pcm);
  return S_OK;
}

HRESULT CVxAudioParserWAV::ParseFile(const VxChar* name, SampleLayout* layout) {
  CloseFile();
  os::UniqueFile file(os::OpenRead(name));
  if (!file || !os::Size(file.get(), &fileSize_)) return E_FAIL;
  chunk_ = std::make_unique<vx::fileio::CChunkFile>(file.release(), FALSE);
  chunk_->position = 0;
  const std::uint32_t outer = chunk_->ReadFourCC();
  chunk_->ReadLong();  // the outer size is not trusted: writers disagree on it
  if (chunk_->ReadFourCC() != kWave) return E_FAIL;
  std::uint64_t ds64Data = 0, ds64Frames = 0;
  if (outer == kRf64) {
    std::uint32_t id = 0;
    if (chunk_->Descend(&id) < 24 || id != kDs64) return E_FAIL;
    chunk_->ReadQuad();  // RIFF size
    ds64Data = chunk_->ReadQuad();
    ds64Frames = chunk_->ReadQuad();
    chunk_->Ascend();
  } else if (outer != kRiff) {
    return E_FAIL;
  }

  std::uint32_t size = 0;
  if (!FindChunk(kFmt, &size)) return E_FAIL;
  std::vector<std::uint8_t> format;
  if (HRESULT hr = ReadFormat(size, &format); FAILED(hr)) return hr;
  chunk_->Ascend();

  if (!FindChunk(kData, &size)) return E_FAIL;
  WAVEFORMATEX f;
  std::memcpy(&f, format.data(), sizeof f);
  if (f.nBlockAlign == 0 || f.nSamplesPerSec == 0) return E_FAIL;
  layout->dataStart = chunk_->position;
  std::uint64_t bytes = size;
  if (outer == kRf64) {
    bytes = ds64Data;
    chunk_->PopEnd();
    chunk_->PushEnd(layout->dataStart + bytes + (bytes & 1));
  } else if (size == 0xFFFFFFFFu) {
    bytes = fileSize_ - layout->dataStart;  // written to a pipe: the data runs to the end
  }
  // A file cut short (a recorder that stopped mid-take) offers what it holds.
  layout->dataBytes = std::min(bytes, fileSize_ - std::min(fileSize_, layout->dataStart));

  if (HRESULT hr = Present(format, layout); FAILED(hr)) return hr;
  const std::uint64_t blocks = layout->dataBytes / f.nBlockAlign;
  layout->frames = blocks * layout->framesPerBlock;
  if (outer == kRf64 && !layout->decoder) layout->frames = std::min(layout->frames, ds64Frames);
  if (layout->decoder && hasFact_) layout->frames = std::min(layout->frames, factFrames_);
  chunk_->Ascend();

  // Whatever follows the samples: a later "bext", and the "VXMD" blob.
  std::vector<std::uint8_t> blob;
  if (FindChunk(kVxmd, &size) && size > 0 && chunk_->position + size <= fileSize_) {
    blob.resize(size);
    std::uint32_t got = 0;
    if (!chunk_->Read(blob.data(), size, &got) || got != size) blob.clear();
    chunk_->Ascend();
    std::uint32_t more = 0;
    FindChunk(0, &more);  // takes a "bext" that comes last
  }
  SetBlob(std::move(blob));
  return S_OK;
}

HRESULT CVxAudioParserWAV::AddFormatMetadata(IVxMetadata* out) {
  if (!bext_) return S_OK;
  const BroadcastWaveRecord& b = *bext_;
  VxMetadataRecord r = vx::md::GetRecord(out);
  r.present |= VX_MD_TIMEREFERENCE;
  r.timeReference = b.timeReference;
  if (HRESULT hr = out->SetRecord(&r); FAILED(hr)) return hr;
  auto set = [&](std::string_view key, const std::string& value) {
    if (!value.empty()) vx::md::SetText(out, key, value);
  };
  set(vx::md::kDescription, b.description);
  set(vx::md::kOriginator, b.originator);
  set(vx::md::kOriginatorReference, b.originatorReference);
  // "yyyy-mm-dd" and "hh:mm:ss" with any separators the recorder chose.
  if (b.originationDate.size() == 10) {
    std::string date = b.originationDate.substr(0, 4) + "-" + b.originationDate.substr(5, 2) + "-" +
                       b.originationDate.substr(8, 2);
    if (b.originationTime.size() == 8)
      date += "T" + b.originationTime.substr(0, 2) + ":" + b.originationTime.substr(3, 2) + ":" +
              b.originationTime.substr(6, 2);
    set(vx::md::kDate, date);
  }
  set("bext:version", std::to_string(b.version));
  if (std::any_of(std::begin(b.umid), std::end(b.umid), [](std::uint8_t v) { return v != 0; })) {
    std::string hex;
    char two[3];
    for (std::uint8_t v : b.umid) {
      std::snprintf(two, sizeof two, "%02X", v);
      hex += two;
    }
    set("bext:umid", hex);
  }
  if (b.version >= 2) {
    static constexpr const char* kLoudness[5] = {
        "bext:loudness-value", "bext:loudness-range", "bext:max-true-peak-level",
        "bext:max-momentary-loudness", "bext:max-short-term-loudness"};
    for (int i = 0; i < 5; ++i) {
      if (b.loudness[i] == 0x7FFF) continue;  // not measured
      char text[16];
      std::snprintf(text, sizeof text, "%.2f", b.loudness[i] / 100.0);
      set(kLoudness[i], text);
    }
  }
  set("bext:coding-history", b.codingHistory);
  return S_OK;
}

// ---- Writing --------------------------------------------------------------------------------

HRESULT CVxAudioParserWAV::AcceptFormat(const WAVEFORMATEX& format) {
  switch (format.wFormatTag) {
    case WAVE_FORMAT_PCM:
    case WAVE_FORMAT_IEEE_FLOAT:
    case WAVE_FORMAT_EXTENSIBLE:
      return S_OK;
    default:
      return E_NOTIMPL;
  }
}

HRESULT CVxAudioParserWAV::StartFile(const VxChar* name, std::uint64_t* dataStart,
                                     SampleTransform* transform) {
  CloseFile();
  os::UniqueFile file(os::Create(name));
  if (!file) return E_FAIL;
  chunk_ = std::make_unique<vx::fileio::CChunkFile>(file.release(), FALSE);
  vx::fileio::CChunkFile& c = *chunk_;
  c.position = 0;
  // Sizes stay zero until the close: the "ds64" chunk is always there, so a file that passes
  // 4 GiB becomes RF64 without moving a byte.
  bool ok = c.CreateChunk(kRiff) && c.WriteFourCC(kWave) && c.CreateChunk(kDs64) &&
            c.WriteQuad(0) && c.WriteQuad(0) && c.WriteQuad(0) && c.WriteLong(0) &&
            c.WriteFourCC(kJunk) && c.WriteQuad(0) && c.CloseChunk() == 40;
  const std::vector<std::uint8_t>& f = HostFormatBytes();
  std::uint32_t done = 0;
  ok = ok && c.CreateChunk(kFmt) &&
       c.Write(f.data(), static_cast<std::uint32_t>(f.size()), &done) && done == f.size();
  c.position += done;
  ok = ok && c.CloseChunk() != 0 && c.CreateChunk(kData);
  if (!ok) return E_FAIL;
  *dataStart = c.position;
  *transform = SampleTransform::kNone;
  return S_OK;
}

HRESULT CVxAudioParserWAV::FinishFile(std::uint64_t frames) {
  if (!chunk_) return E_FAIL;
  vx::fileio::CChunkFile& c = *chunk_;
  const std::uint64_t dataStart = c.PopEnd();  // the open "data" chunk
  const std::uint64_t dataSize = std::uint64_t{HostFormat().nBlockAlign} * frames;
  c.position = dataStart + dataSize;
  bool ok = !(dataSize & 1) || c.WriteByte(0);
  const std::vector<std::uint8_t>& blob = Blob();
  if (ok && !blob.empty()) {
    ok = c.CreateChunk(kVxmd);
    for (std::size_t put = 0; ok && put < blob.size();) {
      const auto n = static_cast<std::uint32_t>(std::min<std::size_t>(blob.size() - put, 1u << 30));
      std::uint32_t done = 0;
      ok = c.Write(blob.data() + put, n, &done) && done == n;
      c.position += done;
      put += done;
    }
    ok = ok && c.CloseChunk() != 0;
  }
  // Both size fields hold the whole file's length, not length - 8.
  const std::uint64_t length = c.position;
  if (ok && length >= 0xFFFFFFFFu) {
    c.position = 0;
    ok = c.WriteFourCC(kRf64) && c.WriteLong(0xFFFFFFFFu);
  } else if (ok) {
    c.position = 4;
    ok = c.WriteLong(static_cast<std::uint32_t>(length));
  }
  c.position = 20;
  ok = ok && c.WriteQuad(length) && c.WriteQuad(dataSize) && c.WriteQuad(frames);
  c.position = dataStart - 4;
  ok = ok && c.WriteLong(dataSize >> 32 ? 0xFFFFFFFFu : static_cast<std::uint32_t>(dataSize));
  return ok ? S_OK : E_FAIL;
}
