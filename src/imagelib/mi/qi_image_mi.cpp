#include "imagelib/mi/qi_image_mi.h"

#include <climits>
#include <cmath>
#include <cstring>
#include <new>
#include <unordered_map>

namespace {

constexpr char kMagic[4] = {'Q', 'I', 'M', 'I'};
constexpr std::uint64_t kTrailer = 16;
constexpr std::uint32_t kWrittenEntries = 256;
constexpr std::uint32_t kMostEntries = 65536;

using qi::SeekTo;

using qi::StreamSize;

int Fail(const char* why) {
  std::fputs(why, stderr);
  return 0;
}

std::uint32_t BE32(const std::uint8_t* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}

void PutBE32(std::uint8_t* p, std::uint32_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 24), p[1] = static_cast<std::uint8_t>(v >> 16);
  p[2] = static_cast<std::uint8_t>(v >> 8), p[3] = static_cast<std::uint8_t>(v);
}

// Bytes of map and indices for `entries` entries and `pixels` pixels.
std::uint64_t DataBytes(std::uint64_t entries, std::uint64_t pixels) {
  return entries <= 256 ? entries * 3 + pixels : entries * 6 + pixels * 2;
}

// The entry count that makes `bytes` exactly a map and `pixels` indices, or 0.
std::uint32_t EntriesFor(std::uint64_t bytes, std::uint64_t pixels) {
  if (bytes >= pixels && (bytes - pixels) % 3 == 0) {
    const std::uint64_t n = (bytes - pixels) / 3;
    if (n >= 1 && n <= 256) return static_cast<std::uint32_t>(n);
  }
  if (pixels <= bytes / 2 && (bytes - 2 * pixels) % 6 == 0) {
    const std::uint64_t n = (bytes - 2 * pixels) / 6;
    if (n > 256 && n <= kMostEntries) return static_cast<std::uint32_t>(n);
  }
  return 0;
}

// 3-3-2 level of an 8-bit component (`levels` - 1 = 7 or 3), nearest, and back to 8 bits.
std::uint32_t Level(std::uint32_t v, std::uint32_t top) {
  return (v * top + 127) / 255;
}
std::uint8_t Expand(std::uint32_t level, std::uint32_t top) {
  return static_cast<std::uint8_t>((level * 255 + top / 2) / top);
}

}  // namespace

QI_ImageMI::QI_ImageMI() {
  setFormatName("MENTAL");
}

QI_ImageMI::~QI_ImageMI() {
  close();
}

std::int16_t QI_ImageMI::setChannels(std::int32_t n) {
  return n == 1 || n == 3 || n == 4 ? (channels_ = n, 1) : 0;
}

std::int16_t QI_ImageMI::setBitsPerChannel(std::int32_t n) {
  return n == 8 ? (bitsPerChannel_ = n, 1) : 0;
}

std::int16_t QI_ImageMI::setBytesPerChannel(std::int32_t n) {
  return n == 1 ? setBitsPerChannel(8) : 0;
}

std::int16_t QI_ImageMI::setPixelType(std::int32_t code) {
  if (code != QI_PIXEL_GRAY && code != QI_PIXEL_RGB && code != QI_PIXEL_RGBA &&
      code != QI_PIXEL_CMAP)
    return 0;
  pixelType_ = code;
  return 1;
}

std::int16_t QI_ImageMI::setLayout(std::int32_t code) {
  return code == 0 ? (layout_ = code, 1) : 0;
}

std::int16_t QI_ImageMI::setCompression(std::int32_t code) {
  return code == QI_COMPRESSION_NONE ? (compression_ = code, 1) : 0;
}

void QI_ImageMI::getMapEntry(std::int32_t i, std::uint8_t* r, std::uint8_t* g, std::uint8_t* b) {
  const bool in = i >= 0 && static_cast<std::uint32_t>(i) < entries_;
  const int shift = entries_ > 256 ? 8 : 0;
  std::uint8_t* out[3] = {r, g, b};
  for (int k = 0; k < 3; ++k)
    if (out[k]) *out[k] = in ? static_cast<std::uint8_t>(map_[3 * std::size_t(i) + k] >> shift) : 0;
}

std::int32_t QI_ImageMI::getMapSize() {
  return static_cast<std::int32_t>(entries_);
}

std::int32_t QI_ImageMI::getMapMaxIndex() {
  return entries_ ? static_cast<std::int32_t>(entries_ - 1) : 0;
}

std::int32_t QI_ImageMI::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
  return openStream(widePath, wideMode);
}

std::int32_t QI_ImageMI::attach(std::FILE* stream, std::int32_t /*writing*/) {
  close();
  stream_ = stream;
  return stream ? 1 : 0;
}

void QI_ImageMI::Reset() {
  loaded_ = false;
  indices_ = {};
  pixels_ = {};
  rowsWritten_ = {};
  rowsLeft_ = 0;
}

std::int32_t QI_ImageMI::close() {
  Reset();
  return closeStream();
}

std::int32_t QI_ImageMI::readHeader() {
  Reset();
  entries_ = 0;
  map_.clear();
  std::uint64_t size = 0;
  if (!stream_ || !StreamSize(stream_, &size)) {
    closeStream();
    return Fail("EOF / read error\n");
  }
  std::uint64_t w = 0, h = 0;
  std::uint32_t n = 0;
  std::uint8_t t[kTrailer];
  if (size >= kTrailer && SeekTo(stream_, size - kTrailer) &&
      std::fread(t, 1, kTrailer, stream_) == kTrailer && std::memcmp(t, kMagic, 4) == 0) {
    w = BE32(t + 4), h = BE32(t + 8), n = BE32(t + 12);
    if (w < 1 || h < 1 || w > INT32_MAX || h > INT32_MAX || n < 1 || n > kMostEntries ||
        DataBytes(n, w * h) != size - kTrailer) {
      closeStream();
      return Fail("size does not match file\n");
    }
  } else if (width_ > 0 && height_ > 0) {
    w = static_cast<std::uint64_t>(width_), h = static_cast<std::uint64_t>(height_);
    if ((n = EntriesFor(size, w * h)) == 0) {
      closeStream();
      return Fail("size does not match file\n");
    }
  } else {
    // A square picture under a 256-entry map.
    const std::uint64_t pixels = size > 768 ? size - 768 : 0;
    auto s = static_cast<std::uint64_t>(std::sqrt(static_cast<double>(pixels)));
    while (s * s > pixels) --s;
    while ((s + 1) * (s + 1) <= pixels) ++s;
    if (s < 1 || s > INT32_MAX || s * s != pixels) {
      closeStream();
      return Fail("picture size unknown\n");
    }
    w = h = s, n = 256;
  }
  const std::size_t mapBytes = n * (n > 256 ? std::size_t{6} : std::size_t{3});
  std::vector<std::uint8_t> raw;
  try {
    raw.resize(mapBytes);
    map_.resize(std::size_t{n} * 3);
  } catch (const std::bad_alloc&) {
    closeStream();
    return Fail("out of memory\n");
  }
  if (!SeekTo(stream_, 0) || std::fread(raw.data(), 1, mapBytes, stream_) != mapBytes) {
    closeStream();
    return Fail("EOF / read error\n");
  }
  for (std::size_t i = 0; i < map_.size(); ++i)
    map_[i] = n > 256 ? static_cast<std::uint16_t>(raw[2 * i] << 8 | raw[2 * i + 1]) : raw[i];
  entries_ = n;
  setWidth(static_cast<std::int32_t>(w));
  setHeight(static_cast<std::int32_t>(h));
  channels_ = 1;
  pixelType_ = QI_PIXEL_CMAP;
  bitsPerChannel_ = n > 256 ? 16 : 8;
  return 1;
}

bool QI_ImageMI::LoadIndices() {
  const bool wide = entries_ > 256;
  const std::size_t count = static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_);
  std::vector<std::uint8_t> raw;
  try {
    indices_.resize(count);
    raw.resize(count * (wide ? 2 : 1));
  } catch (const std::bad_alloc&) {
    return Fail("out of memory\n") != 0;
  }
  if (!SeekTo(stream_, entries_ * std::uint64_t{wide ? 6u : 3u}) ||
      std::fread(raw.data(), 1, raw.size(), stream_) != raw.size())
    return Fail("EOF / read error\n") != 0;
  for (std::size_t i = 0; i < count; ++i) {
    indices_[i] = wide ? static_cast<std::uint16_t>(raw[2 * i] << 8 | raw[2 * i + 1]) : raw[i];
    if (indices_[i] >= entries_) return Fail("colour index out of range\n") != 0;
  }
  loaded_ = true;
  return true;
}

std::int32_t QI_ImageMI::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!stream_ || !dest || entries_ == 0 || row < 0 || row >= height_ || row >= dest->getHeight() ||
      dest->getWidth() < width_)
    return 0;
  const bool first = !loaded_;
  if (first && !LoadIndices()) return 0;
  const std::uint16_t* line =
      indices_.data() + static_cast<std::size_t>(height_ - 1 - row) * std::size_t(width_);
  const bool wide = entries_ > 256;
  if (dest->getPixelType() == QI_PIXEL_CMAP) {
    for (std::uint32_t i = 0; first && i < entries_; ++i) {
      const std::uint16_t* e = &map_[3 * std::size_t{i}];
      const int s = wide ? 8 : 0;
      dest->setMapEntry(static_cast<std::int32_t>(i), static_cast<std::uint8_t>(e[0] >> s),
                        static_cast<std::uint8_t>(e[1] >> s), static_cast<std::uint8_t>(e[2] >> s));
    }
    for (std::int32_t x = 0; x < width_; ++x) dest->setIndex(x, row, line[x]);
    return 1;
  }
  for (std::int32_t x = 0; x < width_; ++x) {
    const std::uint16_t* e = &map_[3 * std::size_t{line[x]}];
    if (wide)
      dest->setPixel16(x, row, e[0], e[1], e[2], 65535);
    else
      dest->setPixel8(x, row, static_cast<std::uint8_t>(e[0]), static_cast<std::uint8_t>(e[1]),
                      static_cast<std::uint8_t>(e[2]), 255);
  }
  return 1;
}

std::int32_t QI_ImageMI::writeHeader() {
  Reset();
  if (!stream_ || width_ < 1 || height_ < 1) return 0;
  try {
    pixels_.assign(static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_), 0);
    rowsWritten_.assign(static_cast<std::size_t>(height_), 0);
  } catch (const std::bad_alloc&) {
    closeStream();
    return Fail("out of memory\n");
  }
  rowsLeft_ = height_;
  return 1;
}

std::int32_t QI_ImageMI::writeLine(QI_ImageMem* src, std::int32_t row) {
  if (!stream_ || !src || rowsLeft_ < 1 || row < 0 || row >= height_ || row >= src->getHeight() ||
      src->getWidth() < width_)
    return 0;
  std::uint32_t* out = pixels_.data() + static_cast<std::size_t>(height_ - 1 - row) * width_;
  const bool grey = pixelType_ == QI_PIXEL_GRAY;
  for (std::int32_t x = 0; x < width_; ++x) {
    std::uint8_t r = 0, g = 0, b = 0;
    src->getPixel8(x, row, &r, &g, &b, nullptr);
    if (grey) r = g = b = static_cast<std::uint8_t>((r * 30u + g * 59u + b * 11u + 50u) / 100u);
    out[x] = std::uint32_t{r} << 16 | std::uint32_t{g} << 8 | b;
  }
  if (!rowsWritten_[static_cast<std::size_t>(row)]) {
    rowsWritten_[static_cast<std::size_t>(row)] = 1;
    --rowsLeft_;
  }
  return rowsLeft_ > 0 || WriteFile() ? 1 : 0;
}

// Map, indices and trailer, once every line is in.
bool QI_ImageMI::WriteFile() {
  std::vector<std::uint8_t> out;
  try {
    out.assign(kWrittenEntries * 3 + pixels_.size() + kTrailer, 0);
  } catch (const std::bad_alloc&) {
    return Fail("out of memory\n") != 0;
  }
  std::uint8_t* map = out.data();
  std::uint8_t* index = map + kWrittenEntries * 3;
  auto put = [&](std::uint32_t i, std::uint32_t rgb) {
    map[3 * i] = static_cast<std::uint8_t>(rgb >> 16);
    map[3 * i + 1] = static_cast<std::uint8_t>(rgb >> 8);
    map[3 * i + 2] = static_cast<std::uint8_t>(rgb);
  };
  if (pixelType_ == QI_PIXEL_GRAY) {
    for (std::uint32_t i = 0; i < 256; ++i) put(i, i * 0x010101u);
    for (std::size_t p = 0; p < pixels_.size(); ++p)
      index[p] = static_cast<std::uint8_t>(pixels_[p]);
  } else {
    std::unordered_map<std::uint32_t, std::uint8_t> seen;
    bool exact = true;
    for (std::size_t p = 0; p < pixels_.size() && exact; ++p) {
      const auto [it, added] = seen.try_emplace(pixels_[p], static_cast<std::uint8_t>(seen.size()));
      if (added && seen.size() > 256) exact = false;
      if (added && exact) put(it->second, pixels_[p]);
      index[p] = it->second;
    }
    if (!exact) {
      for (std::uint32_t i = 0; i < 256; ++i)
        put(i, std::uint32_t{Expand(i >> 5, 7)} << 16 | std::uint32_t{Expand(i >> 2 & 7, 7)} << 8 |
                   Expand(i & 3, 3));
      for (std::size_t p = 0; p < pixels_.size(); ++p) {
        const std::uint32_t c = pixels_[p];
        index[p] = static_cast<std::uint8_t>(Level(c >> 16, 7) << 5 | Level(c >> 8 & 0xFF, 7) << 2 |
                                             Level(c & 0xFF, 3));
      }
    }
  }
  std::uint8_t* t = index + pixels_.size();
  std::memcpy(t, kMagic, 4);
  PutBE32(t + 4, static_cast<std::uint32_t>(width_));
  PutBE32(t + 8, static_cast<std::uint32_t>(height_));
  PutBE32(t + 12, kWrittenEntries);
  if (!SeekTo(stream_, 0) || std::fwrite(out.data(), 1, out.size(), stream_) != out.size())
    return Fail("write error\n") != 0;
  return true;
}
