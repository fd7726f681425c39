// The AVI file library of Video for Windows. Every object holds its own reference on the
// library (AVIFileInit/AVIFileExit), so it works in programs that never ran the module entry.
#include "vx/avi_file.h"

#include <climits>
#include <cstring>

#include "win.h"
// The file library needs the multimedia headers first.
#include <mmsystem.h>
//
#include <vfw.h>

namespace vx::os {
namespace {

struct Library {
  Library() { ::AVIFileInit(); }
  ~Library() { ::AVIFileExit(); }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
};

bool FitsLong(std::int64_t v) {
  return v >= 0 && v <= LONG_MAX;
}

class VfwStream final : public AviStream {
 public:
  VfwStream(PAVISTREAM s, const AVISTREAMINFOW& si) : s_(s) {
    info_.type = si.fccType;
    info_.handler = si.fccHandler;
    info_.scale = si.dwScale;
    info_.rate = si.dwRate;
    info_.start = si.dwStart;
    info_.length = si.dwLength;
    info_.suggestedBuffer = si.dwSuggestedBufferSize;
    info_.sampleSize = si.dwSampleSize;
  }
  ~VfwStream() override {
    for (PGETFRAME& g : frames_)
      if (g) ::AVIStreamGetFrameClose(g);
    ::AVIStreamRelease(s_);
  }
  VfwStream(const VfwStream&) = delete;
  VfwStream& operator=(const VfwStream&) = delete;

  const AviStreamInfo& Info() const override { return info_; }

  bool ReadFormat(std::vector<std::uint8_t>* format) override {
    LONG size = 0;
    const LONG pos = static_cast<LONG>(info_.start);
    if (::AVIStreamReadFormat(s_, pos, nullptr, &size) != 0 || size <= 0 || size > (1 << 20))
      return false;
    format->assign(static_cast<std::size_t>(size), 0);
    if (::AVIStreamReadFormat(s_, pos, format->data(), &size) != 0) return false;
    format->resize(static_cast<std::size_t>(size));
    return true;
  }

  bool Read(std::int64_t start, std::int64_t count, void* dst, std::size_t capacity,
            std::size_t* bytes, std::int64_t* samples) override {
    *bytes = 0;
    *samples = 0;
    if (!FitsLong(start) || !FitsLong(count) || capacity > LONG_MAX) return false;
    LONG gotBytes = 0, gotSamples = 0;
    if (::AVIStreamRead(s_, static_cast<LONG>(start), static_cast<LONG>(count), dst,
                        static_cast<LONG>(capacity), &gotBytes, &gotSamples) != 0)
      return false;
    if (gotBytes < 0 || gotSamples < 0 || static_cast<std::size_t>(gotBytes) > capacity)
      return false;
    *bytes = static_cast<std::size_t>(gotBytes);
    *samples = gotSamples;
    return true;
  }

  bool CanDecompress(int bits) override { return Getter(bits) != nullptr; }

  bool Decompress(std::int64_t index, int bits, std::vector<std::uint8_t>* dib) override {
    PGETFRAME g = Getter(bits);
    if (!g || !FitsLong(index)) return false;
    const auto* p =
        static_cast<const std::uint8_t*>(::AVIStreamGetFrame(g, static_cast<LONG>(index)));
    if (!p) return false;
    BITMAPINFOHEADER h;
    std::memcpy(&h, p, sizeof h);
    if (h.biSize < sizeof h || h.biBitCount != bits || h.biWidth <= 0 || h.biHeight == 0 ||
        (h.biCompression != BI_RGB && h.biCompression != BI_BITFIELDS))
      return false;
    const std::size_t rows =
        static_cast<std::size_t>(h.biHeight < 0 ? -std::int64_t{h.biHeight} : h.biHeight);
    const std::size_t stride = (static_cast<std::size_t>(h.biWidth) * bits + 31) / 32 * 4;
    std::size_t skip = h.biSize + std::size_t{h.biClrUsed} * 4;
    if (h.biCompression == BI_BITFIELDS && h.biSize == sizeof h) skip += 12;
    dib->resize(sizeof h + stride * rows);
    h.biSize = sizeof h;
    h.biCompression = BI_RGB;
    h.biClrUsed = 0;
    std::memcpy(dib->data(), &h, sizeof h);
    std::memcpy(dib->data() + sizeof h, p + skip, stride * rows);
    return true;
  }

  // The frame getter for `bits`, opened once; null when the system has no decompressor.
  PGETFRAME Getter(int bits) {
    if (bits != 24 && bits != 32) return nullptr;
    const int i = bits == 32;
    if (frames_[i] || tried_[i]) return frames_[i];
    tried_[i] = true;
    std::vector<std::uint8_t> format;
    if (!ReadFormat(&format) || format.size() < sizeof(BITMAPINFOHEADER)) return nullptr;
    BITMAPINFOHEADER in;
    std::memcpy(&in, format.data(), sizeof in);
    BITMAPINFOHEADER want{};
    want.biSize = sizeof want;
    want.biWidth = in.biWidth;
    want.biHeight = in.biHeight < 0 ? -in.biHeight : in.biHeight;
    want.biPlanes = 1;
    want.biBitCount = static_cast<WORD>(bits);
    want.biCompression = BI_RGB;
    frames_[i] = ::AVIStreamGetFrameOpen(s_, &want);
    return frames_[i];
  }

 private:
  Library lib_;
  PAVISTREAM s_;
  AviStreamInfo info_;
  PGETFRAME frames_[2] = {nullptr, nullptr};  // 24 and 32 bits
  bool tried_[2] = {false, false};
};

class VfwFile final : public AviFile {
 public:
  explicit VfwFile(PAVIFILE f) : f_(f) {}
  ~VfwFile() override {
    streams_.clear();
    ::AVIFileRelease(f_);
  }
  VfwFile(const VfwFile&) = delete;
  VfwFile& operator=(const VfwFile&) = delete;

  bool Load() {
    AVIFILEINFOW fi{};
    if (::AVIFileInfoW(f_, &fi, sizeof fi) != 0) return false;
    for (DWORD i = 0; i < fi.dwStreams && i < 64; ++i) {
      PAVISTREAM s = nullptr;
      if (::AVIFileGetStream(f_, &s, 0, static_cast<LONG>(i)) != 0 || !s) return false;
      AVISTREAMINFOW si{};
      if (::AVIStreamInfoW(s, &si, sizeof si) != 0) {
        ::AVIStreamRelease(s);
        return false;
      }
      streams_.push_back(std::make_unique<VfwStream>(s, si));
    }
    return true;
  }

  int StreamCount() const override { return static_cast<int>(streams_.size()); }
  AviStream* Stream(int index) override {
    return index >= 0 && index < StreamCount() ? streams_[static_cast<std::size_t>(index)].get()
                                               : nullptr;
  }

 private:
  Library lib_;
  PAVIFILE f_;
  std::vector<std::unique_ptr<VfwStream>> streams_;
};

class VfwWriter final : public AviWriter {
 public:
  explicit VfwWriter(PAVIFILE f) : f_(f) {}
  ~VfwWriter() override { Close(); }
  VfwWriter(const VfwWriter&) = delete;
  VfwWriter& operator=(const VfwWriter&) = delete;

  int AddStream(const AviStreamInfo& info, const void* format, std::size_t formatBytes) override {
    if (!f_ || !format || formatBytes == 0 || formatBytes > (1 << 20)) return -1;
    AVISTREAMINFOW si{};
    si.fccType = info.type;
    si.fccHandler = info.handler;
    si.dwScale = info.scale;
    si.dwRate = info.rate;
    si.dwSuggestedBufferSize = info.suggestedBuffer;
    si.dwSampleSize = info.sampleSize;
    si.dwQuality = static_cast<DWORD>(-1);
    if (info.type == streamtypeVIDEO && formatBytes >= sizeof(BITMAPINFOHEADER)) {
      BITMAPINFOHEADER h;
      std::memcpy(&h, format, sizeof h);
      si.rcFrame.right = h.biWidth;
      si.rcFrame.bottom = h.biHeight < 0 ? -h.biHeight : h.biHeight;
    }
    PAVISTREAM s = nullptr;
    if (::AVIFileCreateStreamW(f_, &s, &si) != 0 || !s) return -1;
    streams_.push_back(s);
    // The library keeps its own copy of the format record.
    std::vector<std::uint8_t> copy(static_cast<const std::uint8_t*>(format),
                                   static_cast<const std::uint8_t*>(format) + formatBytes);
    if (::AVIStreamSetFormat(s, 0, copy.data(), static_cast<LONG>(formatBytes)) != 0) return -1;
    return static_cast<int>(streams_.size()) - 1;
  }

  bool Write(int stream, std::int64_t start, std::int64_t samples, const void* data,
             std::size_t bytes, bool key) override {
    if (stream < 0 || stream >= static_cast<int>(streams_.size()) ||
        (start != -1 && !FitsLong(start)) || !FitsLong(samples) || bytes > LONG_MAX)
      return false;
    return ::AVIStreamWrite(streams_[static_cast<std::size_t>(stream)], static_cast<LONG>(start),
                            static_cast<LONG>(samples), const_cast<void*>(data),
                            static_cast<LONG>(bytes), key ? AVIIF_KEYFRAME : 0, nullptr,
                            nullptr) == 0;
  }

  bool Close() override {
    if (!f_) return false;
    for (PAVISTREAM s : streams_) ::AVIStreamRelease(s);
    streams_.clear();
    ::AVIFileRelease(f_);
    f_ = nullptr;
    return true;
  }

 private:
  Library lib_;
  PAVIFILE f_;
  std::vector<PAVISTREAM> streams_;
};

}  // namespace

std::unique_ptr<AviFile> OpenAviFile(const VxChar* path) {
  if (!path || !*path) return nullptr;
  Library lib;  // keeps the library up while the file object takes its own reference
  PAVIFILE f = nullptr;
  if (::AVIFileOpenW(&f, path, OF_READ | OF_SHARE_DENY_WRITE, nullptr) != 0 || !f) return nullptr;
  auto file = std::make_unique<VfwFile>(f);
  if (!file->Load()) return nullptr;
  return file;
}

std::unique_ptr<AviWriter> CreateAviFile(const VxChar* path) {
  if (!path || !*path) return nullptr;
  Library lib;
  PAVIFILE f = nullptr;
  if (::AVIFileOpenW(&f, path, OF_CREATE | OF_WRITE, nullptr) != 0 || !f) return nullptr;
  return std::make_unique<VfwWriter>(f);
}

}  // namespace vx::os
