#include "audio/aiff/aiff_parser.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "base/bytes.h"
#include "vx/metadata.h"

using vx::audio::SampleLayout;
using vx::audio::SampleTransform;
using vx::fileio::CReverseChunkFile;
using vx::fileio::FourCC;

namespace {

constexpr std::uint32_t kForm = FourCC("FORM");
constexpr std::uint32_t kAiff = FourCC("AIFF");
constexpr std::uint32_t kAifc = FourCC("AIFC");
constexpr std::uint32_t kFver = FourCC("FVER");
constexpr std::uint32_t kComm = FourCC("COMM");
constexpr std::uint32_t kSsnd = FourCC("SSND");
constexpr std::uint32_t kVxmd = FourCC("VXMD");
constexpr std::uint32_t kName = FourCC("NAME");
constexpr std::uint32_t kAuth = FourCC("AUTH");
constexpr std::uint32_t kCopy = FourCC("(c) ");
constexpr std::uint32_t kAnno = FourCC("ANNO");
constexpr std::uint32_t kAifcVersion1 = 0xA2805140;

// Longest text chunk taken into the metadata record; annotations are short.
constexpr std::uint32_t kMaxText = 0xFFFF;

// The AIFC compression types read as plain big-endian integers.
bool Uncompressed(std::uint32_t type) {
  return type == FourCC("NONE") || type == FourCC("in24");
}

SampleTransform TransformFor(std::uint32_t bytesPerSample) {
  switch (bytesPerSample) {
    case 1:
      return SampleTransform::kSigned8;
    case 2:
      return SampleTransform::kSwap16;
    case 3:
      return SampleTransform::kSwap24;
    default:
      return SampleTransform::kSwap32;
  }
}

// IFF texts carry no encoding: UTF-8 when they are valid UTF-8, else Latin-1.
std::string TextToUtf8(std::string bytes) {
  while (!bytes.empty() && bytes.back() == '\0') bytes.pop_back();
  if (vx::ToUtf8(vx::FromUtf8(bytes)) == bytes) return bytes;
  std::string out;
  for (unsigned char c : bytes) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// Writes all of `bytes` at the position and moves past them.
bool Put(CReverseChunkFile& f, const void* bytes, std::uint32_t count) {
  std::uint32_t done = 0;
  if (count == 0) return true;
  if (!f.Write(bytes, count, &done) || done != count) return false;
  f.position += count;
  return true;
}

}  // namespace

CVxAudioParserAIFF::CVxAudioParserAIFF() = default;

CVxAudioParserAIFF::~CVxAudioParserAIFF() = default;

HRESULT CVxAudioParserAIFF::ParseFile(const VxChar* name, SampleLayout* layout) {
  CloseFile();
  const vx::os::FileHandle handle = vx::os::OpenRead(name);
  if (handle == vx::os::kNoFile) return E_FAIL;
  file_ = std::make_unique<CReverseChunkFile>(handle, FALSE);
  std::uint64_t fileSize = 0;
  if (!vx::os::Size(handle, &fileSize)) return E_FAIL;
  return ParseHeader(fileSize, layout);
}

HRESULT CVxAudioParserAIFF::ParseHeader(std::uint64_t fileSize, SampleLayout* layout) {
  CReverseChunkFile& f = *file_;
  f.position = 0;
  std::uint32_t id = 0;
  const std::uint32_t formSize = f.Descend(&id);
  if (id != kForm || formSize == 0) return E_FAIL;
  const std::uint32_t type = f.ReadFourCC();
  if (type != kAiff && type != kAifc) return E_FAIL;

  // One walk in three stretches: to COMM, on to SSND (both, and the texts, only inside the FORM
  // size, compared with the absolute position), then the rest of the file for "VXMD".
  bool haveComm = false, haveSsnd = false, haveBlob = false;
  std::uint64_t ssndData = 0;
  std::uint32_t ssndSize = 0;
  for (;;) {
    const std::uint64_t at = f.position;
    const bool inForm = at < formSize;
    const std::uint32_t size = f.Descend(&id);
    if (size == 0) {
      // An empty chunk (its whole header read) is stepped over; anything else ends the walk.
      if (f.position != at + 8) break;
      f.Ascend();
      continue;
    }
    const std::uint64_t data = f.position;
    if (inForm && id == kComm && !haveComm) {
      const HRESULT hr = ParseComm(size, type == kAifc);
      if (FAILED(hr)) return hr;
      haveComm = true;
    } else if (inForm && id == kSsnd && haveComm && !haveSsnd) {
      haveSsnd = true;
      ssndData = data;
      ssndSize = size;
    } else if (inForm && id == kName) {
      ReadText(size, fileSize, &texts_.name);
    } else if (inForm && id == kAuth) {
      ReadText(size, fileSize, &texts_.author);
    } else if (inForm && id == kCopy) {
      ReadText(size, fileSize, &texts_.copyright);
    } else if (inForm && id == kAnno) {
      std::string more;
      ReadText(size, fileSize, &more);
      if (!texts_.annotation.empty() && !more.empty()) texts_.annotation += '\n';
      texts_.annotation += more;
    } else if (id == kVxmd && haveSsnd && !haveBlob && fileSize >= data &&
               size <= fileSize - data) {
      std::vector<std::uint8_t> blob(size);
      std::uint32_t done = 0;
      if (f.Read(blob.data(), size, &done) && done == size) {
        SetBlob(std::move(blob));
        haveBlob = true;
      }
    }
    f.Ascend();
  }
  if (!haveComm || !haveSsnd) return E_FAIL;

  const std::uint32_t bytesPerSample = (sampleSize_ + 7u) >> 3;
  const std::uint32_t blockAlign = bytesPerSample * channels_;

  // SSND: offset and block size, then `offset` bytes before the first sample.
  if (ssndSize < 8) return E_FAIL;
  f.position = ssndData;
  const std::uint32_t offset = f.ReadLong();
  if (f.position != ssndData + 4 || offset > ssndSize - 8) return E_FAIL;
  // The size less the offset, as the format's own readers count: a COMM count that promises
  // more than SSND holds can reach 8 bytes past the samples, and a read there says how much
  // the file really had.
  const std::uint64_t sampleBytes = ssndSize - offset;
  layout->dataStart = ssndData + 8 + offset;
  layout->frames = std::min<std::uint64_t>(sampleBytes / blockAlign, commFrames_);
  layout->dataBytes = layout->frames * blockAlign;
  layout->fileBlockAlign = blockAlign;
  layout->framesPerBlock = 1;
  layout->transform = TransformFor(bytesPerSample);
  ssndSizeAt_ = ssndData - 4;
  dataStart_ = layout->dataStart;
  return S_OK;
}

HRESULT CVxAudioParserAIFF::ParseComm(std::uint32_t size, bool aifc) {
  CReverseChunkFile& f = *file_;
  const std::uint32_t need = aifc ? 22 : 18;
  if (size < need) return E_FAIL;
  const std::uint64_t start = f.position;
  commFramesAt_ = start + 2;
  channels_ = f.ReadWord();
  commFrames_ = f.ReadLong();
  sampleSize_ = f.ReadWord();
  rate_ = f.ReadExtended();
  const std::uint32_t compression = aifc ? f.ReadFourCC() : FourCC("NONE");
  if (f.position != start + need) return E_FAIL;  // the file ends inside COMM
  if (!Uncompressed(compression)) return E_NOTIMPL;
  if (channels_ == 0 || sampleSize_ == 0) return E_UNEXPECTED;
  // An all-ones exponent (infinity or NaN) reads as infinity.
  if (!(rate_ >= 1.0) || !(rate_ < 4294967296.0)) return E_UNEXPECTED;

  const std::uint32_t bytesPerSample = (sampleSize_ + 7u) >> 3;
  if (bytesPerSample < 1 || bytesPerSample > 4) return E_NOTIMPL;
  const std::uint32_t blockAlign = bytesPerSample * channels_;
  const auto perSecond = static_cast<std::uint32_t>(rate_);
  const std::uint64_t avgBytes = std::uint64_t{blockAlign} * perSecond;
  if (blockAlign > 0xFFFF || avgBytes > 0xFFFFFFFFu) return E_NOTIMPL;

  WAVEFORMATEX format{};
  format.wFormatTag = WAVE_FORMAT_PCM;
  format.nChannels = channels_;
  format.nSamplesPerSec = perSecond;
  format.nAvgBytesPerSec = static_cast<DWORD>(avgBytes);
  format.nBlockAlign = static_cast<WORD>(blockAlign);
  format.wBitsPerSample = static_cast<WORD>(bytesPerSample * 8);  // 18- or 20-bit: 24
  format.cbSize = 0;
  SetHostFormat(&format, sizeof format);
  return S_OK;
}

void CVxAudioParserAIFF::ReadText(std::uint32_t size, std::uint64_t fileSize, std::string* into) {
  const std::uint64_t at = file_->position;
  if (at >= fileSize) return;
  const auto n = static_cast<std::uint32_t>(
      std::min<std::uint64_t>({std::uint64_t{size}, std::uint64_t{kMaxText}, fileSize - at}));
  std::string bytes(n, '\0');
  std::uint32_t done = 0;
  if (!file_->Read(bytes.data(), n, &done)) return;
  bytes.resize(done);
  *into = TextToUtf8(std::move(bytes));
}

void CVxAudioParserAIFF::CloseFile() {
  file_.reset();
  channels_ = 0;
  commFrames_ = 0;
  sampleSize_ = 0;
  rate_ = 0;
  commFramesAt_ = ssndSizeAt_ = dataStart_ = 0;
  texts_ = Texts{};
  writeTexts_ = Texts{};  // taken again before each export's end
}

vx::os::FileHandle CVxAudioParserAIFF::SampleFile() const {
  return file_ ? file_->Handle() : vx::os::kNoFile;
}

HRESULT CVxAudioParserAIFF::AcceptFormat(const WAVEFORMATEX& format) {
  const WAVEFORMATEX f = format;  // SetHostFormat below replaces what `format` refers to
  if (f.wFormatTag != WAVE_FORMAT_PCM && f.wFormatTag != WAVE_FORMAT_EXTENSIBLE) return E_NOTIMPL;
  if (f.nChannels == 0 || f.nBlockAlign % f.nChannels != 0) return E_NOTIMPL;
  const std::uint32_t bytesPerSample = f.nBlockAlign / f.nChannels;
  if (bytesPerSample < 1 || bytesPerSample > 4) return E_NOTIMPL;
  if (f.wFormatTag == WAVE_FORMAT_EXTENSIBLE) {
    // AIFC "NONE" holds integers only: an extensible format must name PCM as its sub-format
    // (first field of the GUID at byte 24), and is kept as plain PCM.
    const std::vector<std::uint8_t>& bytes = HostFormatBytes();
    if (bytes.size() >= 28 && vx::LoadLE32(bytes.data() + 24) != WAVE_FORMAT_PCM) return E_NOTIMPL;
    WAVEFORMATEX pcm = f;
    pcm.wFormatTag = WAVE_FORMAT_PCM;
    pcm.cbSize = 0;
    SetHostFormat(&pcm, sizeof pcm);
  }
  return S_OK;
}

HRESULT CVxAudioParserAIFF::StartFile(const VxChar* name, std::uint64_t* dataStart,
                                      SampleTransform* transform) {
  file_.reset();
  const vx::os::FileHandle handle = vx::os::Create(name);
  if (handle == vx::os::kNoFile) return E_FAIL;
  file_ = std::make_unique<CReverseChunkFile>(handle, FALSE);
  CReverseChunkFile& f = *file_;
  const WAVEFORMATEX& format = HostFormat();
  const std::uint32_t bytesPerSample = format.nBlockAlign / format.nChannels;

  // FORM is closed at once with a provisional size and patched at the end.
  f.position = 0;
  bool ok = f.CreateChunk(kForm) && f.WriteFourCC(kAifc) && f.CreateChunk(kFver) &&
            f.WriteLong(kAifcVersion1) && f.CloseChunk() != 0 && f.CloseChunk() != 0;

  // COMM: the frame count is patched at the end; the compression name is a Pascal string padded
  // to an even length.
  static const char kNoneName[] = "\x0Enot compressed";  // 15 bytes, a pad byte follows
  ok = ok && f.CreateChunk(kComm);
  commFramesAt_ = f.position + 2;
  ok = ok && f.WriteWord(format.nChannels) && f.WriteLong(0) &&
       f.WriteWord(static_cast<std::uint16_t>(bytesPerSample * 8)) &&
       f.WriteExtended(format.nSamplesPerSec) && f.WriteFourCC(FourCC("NONE")) &&
       Put(f, kNoneName, sizeof kNoneName) && f.CloseChunk() != 0;

  // SSND: no offset, no block size; its size is patched at the end.
  ok = ok && f.CreateChunk(kSsnd);
  ssndSizeAt_ = f.position - 4;
  ok = ok && f.WriteLong(0) && f.WriteLong(0);
  f.PopEnd();
  if (!ok) return E_FAIL;
  dataStart_ = f.position;
  *dataStart = dataStart_;
  *transform = TransformFor(bytesPerSample);
  return S_OK;
}

bool CVxAudioParserAIFF::WriteTextChunk(std::uint32_t id, const std::string& text) {
  if (text.empty()) return true;
  CReverseChunkFile& f = *file_;
  return f.CreateChunk(id) && Put(f, text.data(), static_cast<std::uint32_t>(text.size())) &&
         f.CloseChunk() != 0;
}

HRESULT CVxAudioParserAIFF::FinishFile(std::uint64_t frames) {
  if (!file_) return E_UNEXPECTED;
  CReverseChunkFile& f = *file_;
  if (frames > 0xFFFFFFFFu) return E_FAIL;
  const std::uint64_t bytes = frames * HostFormat().nBlockAlign;
  // Every size field of the file is 32 bits: FORM's counts all but its own 8 bytes.
  std::uint64_t tail = 0;
  for (const std::string* t :
       {&writeTexts_.name, &writeTexts_.author, &writeTexts_.copyright, &writeTexts_.annotation}) {
    if (!t->empty()) tail += 8 + t->size() + (t->size() & 1);
  }
  if (!Blob().empty()) tail += 8 + Blob().size() + (Blob().size() & 1);
  const std::uint64_t length = dataStart_ + bytes + (bytes & 1) + tail;
  if (length - 8 > 0xFFFFFFFFu) return E_FAIL;

  f.position = dataStart_ + bytes;
  bool ok = (bytes & 1) == 0 || f.WriteByte(0);
  ok = ok && WriteTextChunk(kName, writeTexts_.name) && WriteTextChunk(kAuth, writeTexts_.author) &&
       WriteTextChunk(kCopy, writeTexts_.copyright) &&
       WriteTextChunk(kAnno, writeTexts_.annotation);
  if (ok && !Blob().empty()) {
    ok = f.CreateChunk(kVxmd) && Put(f, Blob().data(), static_cast<std::uint32_t>(Blob().size())) &&
         f.CloseChunk() != 0;
  }
  if (!ok || f.position != length) return E_FAIL;

  f.position = 4;
  ok = f.WriteLong(static_cast<std::uint32_t>(length - 8));
  f.position = commFramesAt_;
  ok = ok && f.WriteLong(static_cast<std::uint32_t>(frames));
  f.position = ssndSizeAt_;
  ok = ok && f.WriteLong(static_cast<std::uint32_t>(8 + bytes));
  return ok ? S_OK : E_FAIL;
}

HRESULT CVxAudioParserAIFF::AddFormatMetadata(IVxMetadata* out) {
  const std::pair<const char*, const std::string*> texts[] = {
      {vx::md::kDescription, &texts_.name},
      {vx::md::kOriginator, &texts_.author},
      {vx::md::kCopyright, &texts_.copyright},
      {vx::md::kComment, &texts_.annotation},
  };
  for (const auto& [key, value] : texts) {
    if (value->empty()) continue;
    const HRESULT hr = vx::md::SetText(out, key, *value);
    if (FAILED(hr)) return hr;
  }
  return S_OK;
}

void CVxAudioParserAIFF::TakeFormatMetadata(IVxMetadata* md) {
  writeTexts_ = Texts{};
  if (!md) return;
  writeTexts_.name = vx::md::GetText(md, vx::md::kDescription);
  writeTexts_.author = vx::md::GetText(md, vx::md::kOriginator);
  writeTexts_.copyright = vx::md::GetText(md, vx::md::kCopyright);
  writeTexts_.annotation = vx::md::GetText(md, vx::md::kComment);
}

DWORD CVxAudioParserAIFF::Capabilities() const {
  return 3;  // import and export
}
