// Helpers of the sound tests: bytes of hand-laid files, and parsers driven as a host does.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "audio/base/audio_parser.h"
#include "test_util.h"

namespace vxtest {

using Bytes = std::vector<std::uint8_t>;

// Appends values in little (or big) endian order; text without its terminator.
struct Put {
  Bytes& b;
  bool big = false;
  Put& n(std::uint64_t v, int bytes) {
    for (int i = 0; i < bytes; ++i)
      b.push_back(static_cast<std::uint8_t>(v >> (8 * (big ? bytes - 1 - i : i))));
    return *this;
  }
  Put& u16(std::uint64_t v) { return n(v, 2); }
  Put& u32(std::uint64_t v) { return n(v, 4); }
  Put& u64(std::uint64_t v) { return n(v, 8); }
  Put& text(const std::string& s) {
    b.insert(b.end(), s.begin(), s.end());
    return *this;
  }
  Put& raw(const Bytes& v) {
    b.insert(b.end(), v.begin(), v.end());
    return *this;
  }
  // A chunk: identifier, size, data, and a pad byte after odd data.
  Put& chunk(const std::string& id, const Bytes& data) {
    text(id).u32(data.size()).raw(data);
    if (data.size() & 1) b.push_back(0);
    return *this;
  }
};

// One parser held as the host holds it, its stream seen through the sound interface.
template <class T>
struct Held {
  T* p = new T;
  Held() { p->AddRef(); }
  ~Held() { p->Release(); }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
  T* operator->() const { return p; }
  HRESULT Open(const std::filesystem::path& f, DWORD flags = VX_OPEN_NO_PATTERN) {
    return p->Open(Wide(f).c_str(), flags);
  }
  WAVEFORMATEX Format() const {
    alignas(WAVEFORMATEX) std::uint8_t buffer[64] = {};
    VxAudioStreamFormat r{kVxAudioStreamFormatSize, reinterpret_cast<WAVEFORMATEX*>(buffer)};
    WAVEFORMATEX f{};
    if (p->GetStreamFormat(VX_STREAM_SOUND, 0, &r) == S_OK) std::memcpy(&f, buffer, sizeof f);
    return f;
  }
  // `count` frames from `first`; *done gets what came.
  Bytes Read(std::int64_t first, LONG count, LONG* done = nullptr, HRESULT* hr = nullptr) {
    Bytes out(static_cast<std::size_t>(count) * Format().nBlockAlign + 1, 0xEE);
    VxSamplePosition pos{first};
    LONG got = -1;
    const HRESULT r = p->ReadSamples(&pos, count, out.data(), &got);
    if (hr) *hr = r;
    if (done) *done = got;
    EXPECT_EQ(out.back(), 0xEE) << "read past the frames it delivered";
    out.resize(static_cast<std::size_t>(got < 0 ? 0 : got) * Format().nBlockAlign);
    return out;
  }
  Bytes ReadAll() {
    LONG range[2] = {0, 0};
    p->GetLength(range);
    return Read(0, range[1]);
  }
};

// Writes `samples` (in `format`'s layout) to `file` through a parser of class T.
template <class T>
HRESULT WriteThrough(const std::filesystem::path& file, const Bytes& format, const Bytes& samples,
                     IVxMetadata* md = nullptr) {
  Held<T> w;
  HRESULT hr = w.Open(file, VX_OPEN_WRITE | VX_OPEN_NO_PATTERN);
  Bytes f = format;
  VxAudioStreamFormat r{kVxAudioStreamFormatSize, reinterpret_cast<WAVEFORMATEX*>(f.data())};
  if (SUCCEEDED(hr)) hr = w->SetStreamFormat(VX_STREAM_SOUND, 1, &r);
  if (SUCCEEDED(hr) && md) hr = w->SetOption(md, VX_OPTION_METADATA);
  const WORD align = static_cast<WORD>(format[12] | format[13] << 8);
  if (SUCCEEDED(hr))
    hr = w->WriteSamples(samples.data(), static_cast<LONG>(samples.size() / align));
  const HRESULT closed = w->Close();
  return FAILED(hr) ? hr : closed;
}

// A WAVEFORMATEX as bytes: tag, channels, rate, block align, bits, then `extra`.
inline Bytes WaveFormat(std::uint16_t tag, std::uint16_t channels, std::uint32_t rate,
                        std::uint16_t align, std::uint16_t bits, const Bytes& extra = {}) {
  Bytes b;
  Put{b}.u16(tag).u16(channels).u32(rate).u32(rate * align).u16(align).u16(bits).u16(extra.size());
  b.insert(b.end(), extra.begin(), extra.end());
  return b;
}

// Runs a shell command; true when it exits 0.
bool Run(const std::string& command);
// True when `tool` is on the PATH.
bool HaveTool(const std::string& tool);

}  // namespace vxtest
