#include "imagelib/sgi/qi_image_sgi.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "base/bytes.h"

namespace {

constexpr std::uint16_t kMagic = 474;
constexpr std::uint32_t kHeaderSize = 512;

using qi::SeekTo;

using qi::StreamSize;

using qi::WritesTo;

}  // namespace

QI_ImageSGI::QI_ImageSGI() {
  setFormatName("SGI");
  layout_ = 1;
  compression_ = QI_COMPRESSION_RLE;
  bottomUp_ = 1;
}

QI_ImageSGI::~QI_ImageSGI() {
  close();
}

std::int16_t QI_ImageSGI::setChannels(std::int32_t n) {
  if (n != 1 && n != 3 && n != 4) return 0;
  channels_ = n;
  return 1;
}

std::int16_t QI_ImageSGI::setBitsPerChannel(std::int32_t n) {
  if (n != 8 && n != 16) return 0;
  bitsPerChannel_ = n;
  return 1;
}

std::int16_t QI_ImageSGI::setBytesPerChannel(std::int32_t n) {
  return (n == 1 || n == 2) ? setBitsPerChannel(n * 8) : 0;
}

std::int16_t QI_ImageSGI::setPixelType(std::int32_t code) {
  const std::int32_t channels = code == QI_PIXEL_RGB    ? 3
                                : code == QI_PIXEL_RGBA ? 4
                                : code == QI_PIXEL_GRAY ? 1
                                                        : 0;
  if (channels == 0) return 0;
  pixelType_ = code;
  channels_ = channels;
  return 1;
}

std::int16_t QI_ImageSGI::setLayout(std::int32_t code) {
  if (code != 1) return 0;
  layout_ = code;
  return 1;
}

std::int16_t QI_ImageSGI::setCompression(std::int32_t code) {
  if (code != QI_COMPRESSION_NONE && code != QI_COMPRESSION_RLE) return 0;
  compression_ = code;
  return 1;
}

std::int32_t QI_ImageSGI::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
  if (!openStream(widePath, wideMode)) return 0;
  writing_ = WritesTo(wideMode);
  return 1;
}

std::int32_t QI_ImageSGI::attach(std::FILE* stream, std::int32_t writing) {
  close();
  stream_ = stream;
  writing_ = writing != 0;
  return stream ? 1 : 0;
}

std::int32_t QI_ImageSGI::close() {
  if (stream_ && writing_ && !starts_.empty() && !lengths_.empty()) {
    const std::size_t n = starts_.size();
    std::vector<std::uint8_t> tables(8 * n);
    for (std::size_t i = 0; i < n; ++i) {
      vx::StoreBE32(&tables[4 * i], starts_[i]);
      vx::StoreBE32(&tables[4 * (n + i)], lengths_[i]);
    }
    if (SeekTo(stream_, kHeaderSize)) std::fwrite(tables.data(), 1, tables.size(), stream_);
  }
  closeStream();
  starts_ = {};
  lengths_ = {};
  writing_ = false;
  at_ = ~std::uint64_t{0};
  return 1;
}

std::int32_t QI_ImageSGI::readHeader() {
  std::uint8_t h[kHeaderSize];
  std::uint64_t size = 0;
  const auto fail = [this] {
    close();
    return 0;
  };
  if (!stream_ || !StreamSize(stream_, &size) || !SeekTo(stream_, 0) ||
      std::fread(h, 1, sizeof h, stream_) != sizeof h)
    return fail();
  // The reader's own order is little-endian (the platform the format was read on first); the
  // usual big-endian header is its swapped form.
  bool big;
  if (vx::LoadLE16(h) == kMagic)
    big = false;
  else if (vx::LoadBE16(h) == kMagic)
    big = true;
  else
    return fail();
  const std::uint8_t storage = h[2], bpc = h[3];
  const std::uint16_t dimension = vx::Load16(h + 4, big);
  const std::uint32_t xs = vx::Load16(h + 6, big), ys = vx::Load16(h + 8, big),
                      zs = vx::Load16(h + 10, big);
  if (zs == 2 || zs > 4 || dimension == 1) return fail();
  // Beyond what the format refuses: nothing to read, or fields no writer produces.
  if (zs == 0 || xs == 0 || ys == 0 || storage > 1 || (bpc != 1 && bpc != 2)) return fail();
  const std::uint64_t rows = std::uint64_t{zs} * ys;
  if (storage == 0) {
    if (kHeaderSize + rows * xs * bpc > size) return fail();
  } else if (kHeaderSize + 8 * rows > size) {
    return fail();  // before allocating: the tables alone must fit in the file
  }
  setWidth(static_cast<std::int32_t>(xs));
  setHeight(static_cast<std::int32_t>(ys));
  setChannels(static_cast<std::int32_t>(zs));
  setPixelType(zs == 1 ? QI_PIXEL_GRAY : zs == 3 ? QI_PIXEL_RGB : QI_PIXEL_RGBA);
  setBytesPerChannel(bpc);
  setText("sgi:name", qi::FieldText(h + 24, 80));
  compression_ = storage == 1 ? QI_COMPRESSION_RLE : QI_COMPRESSION_NONE;
  readerOrder_ = !big;
  starts_ = {};
  lengths_ = {};
  if (storage == 1) {
    try {
      std::vector<std::uint8_t> raw(8 * rows);
      if (std::fread(raw.data(), 1, raw.size(), stream_) != raw.size()) return fail();
      starts_.resize(rows);
      lengths_.resize(rows);
      const std::uint64_t dataStart = kHeaderSize + 8 * rows;
      for (std::size_t i = 0; i < rows; ++i) {
        starts_[i] = vx::Load32(&raw[4 * i], big);
        lengths_[i] = vx::Load32(&raw[4 * (rows + i)], big);
        // A row inside the header or the tables, or past the end, is no row of this file.
        if (starts_[i] < dataStart || std::uint64_t{starts_[i]} + lengths_[i] > size) return fail();
      }
    } catch (const std::bad_alloc&) {
      return fail();
    }
  }
  lineCounter_ = 0;
  at_ = storage == 1 ? kHeaderSize + 8 * rows : kHeaderSize;
  return 1;
}

namespace {

// Sample i of a row of big-endian T-sized units.
template <class T>
T Unit(const std::uint8_t* in, std::size_t i) {
  if constexpr (sizeof(T) == 1)
    return in[i];
  else
    return vx::LoadBE16(in + 2 * i);
}

// One channel row of `units` stored samples into every `stride`-th sample of `out` (one line of
// `width` pixels): verbatim, or run-length codes with the count in the low 7 bits of a unit. A run
// past the line end fails; a row that ends early leaves the rest of its line black.
template <class T>
bool UnpackRow(const std::uint8_t* in, std::size_t units, bool rle, T* out, std::size_t stride,
               std::size_t width) {
  if (!rle) {
    if (units < width) return false;
    for (std::size_t x = 0; x < width; ++x) out[x * stride] = Unit<T>(in, x);
    return true;
  }
  std::size_t i = 0, x = 0;
  while (i < units) {
    const unsigned c = Unit<T>(in, i++);
    const std::size_t n = c & 0x7F;
    if (n == 0) break;
    if (n > width - x) return false;  // a run past the line end
    T* o = out + x * stride;
    if (c & 0x80) {
      if (n > units - i) return false;
      for (std::size_t k = 0; k < n; ++k) o[k * stride] = Unit<T>(in, i + k);
      i += n;
    } else {
      if (i >= units) return false;
      const T v = Unit<T>(in, i++);
      for (std::size_t k = 0; k < n; ++k) o[k * stride] = v;
    }
    x += n;
  }
  for (; x < width; ++x) out[x * stride] = 0;
  return true;
}

}  // namespace

// Rows of one line usually follow each other in the file: the stream is moved only when the
// next row is somewhere else.
bool QI_ImageSGI::FetchRow(std::uint32_t r) {
  const std::size_t bpc = static_cast<std::size_t>(bitsPerChannel_ / 8);
  std::uint64_t at = 0;
  if (compression_ != QI_COMPRESSION_RLE) {
    at = kHeaderSize + std::uint64_t{r} * static_cast<std::size_t>(width_) * bpc;
    bytes_.resize(static_cast<std::size_t>(width_) * bpc);
  } else {
    if (r >= starts_.size()) return false;
    at = starts_[r];
    bytes_.resize(lengths_[r]);
  }
  if (at != at_ && !SeekTo(stream_, at)) return false;
  at_ = ~std::uint64_t{0};
  if (std::fread(bytes_.data(), 1, bytes_.size(), stream_) != bytes_.size()) return false;
  at_ = at + bytes_.size();
  return true;
}

// Each channel row is decoded straight into its place in one interleaved line, which is stored
// whole: no pass over the line but the decode and the store.
template <class T>
bool QI_ImageSGI::ReadLineAs(std::vector<T>* line, QI_ImageMem* dest, std::int32_t row) {
  const std::size_t width = static_cast<std::size_t>(width_);
  const std::size_t channels = static_cast<std::size_t>(channels_);
  line->resize(width * channels);
  for (std::size_t c = 0; c < channels; ++c) {
    const auto r = static_cast<std::uint32_t>(c * static_cast<std::size_t>(height_) +
                                              static_cast<std::size_t>(lineCounter_));
    if (!FetchRow(r) ||
        !UnpackRow(bytes_.data(), bytes_.size() / sizeof(T), compression_ == QI_COMPRESSION_RLE,
                   line->data() + c, channels, width))
      return false;
  }
  if constexpr (sizeof(T) == 1)
    qi::StoreLine8(dest, row, line->data(), channels_, width_, true);
  else
    qi::StoreLine16(dest, row, line->data(), channels_, width_, true);
  return true;
}

std::int32_t QI_ImageSGI::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!stream_ || !dest || lineCounter_ >= height_ || row < 0 || row >= dest->getHeight() ||
      dest->getWidth() < width_ || width_ <= 0)
    return 0;
  try {
    if (!(bitsPerChannel_ == 8 ? ReadLineAs(&line8_, dest, row) : ReadLineAs(&samples_, dest, row)))
      return 0;
  } catch (const std::bad_alloc&) {
    return 0;
  }
  ++lineCounter_;
  return 1;
}

std::int32_t QI_ImageSGI::writeHeader() {
  const auto fail = [this] {
    close();
    return 0;
  };
  if (!stream_ || width_ < 1 || width_ > 0xFFFF || height_ < 1 || height_ > 0xFFFF) return fail();
  const std::uint32_t bpc = static_cast<std::uint32_t>(bitsPerChannel_ / 8);
  std::uint8_t h[kHeaderSize] = {};
  vx::StoreBE16(h, kMagic);
  h[2] = compression_ == QI_COMPRESSION_RLE ? 1 : 0;
  h[3] = static_cast<std::uint8_t>(bpc);
  vx::StoreBE16(h + 4, channels_ < 2 ? 2 : 3);
  vx::StoreBE16(h + 6, static_cast<std::uint16_t>(width_));
  vx::StoreBE16(h + 8, static_cast<std::uint16_t>(height_));
  vx::StoreBE16(h + 10, static_cast<std::uint16_t>(channels_));
  vx::StoreBE32(h + 16, bpc == 1 ? 255u : 65535u);
  // The name is the wide path's bytes up to the first zero byte: one character of an ASCII
  // path. Kept so, as files of this kind have always carried it.
  if (widePath_) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(widePath_);
    for (std::size_t i = 0; i < 79; ++i) {
      h[24 + i] = p[i];
      if (p[i] == 0) break;
    }
  }
  if (!SeekTo(stream_, 0) || std::fwrite(h, 1, sizeof h, stream_) != sizeof h) return fail();
  starts_ = {};
  lengths_ = {};
  if (compression_ == QI_COMPRESSION_RLE) {
    const std::size_t rows =
        static_cast<std::size_t>(channels_) * static_cast<std::size_t>(height_);
    try {
      starts_.assign(rows, 0);
      lengths_.assign(rows, 0xFFFFFFFFu);
    } catch (const std::bad_alloc&) {
      return fail();
    }
    fileEnd_ = kHeaderSize + 8 * std::uint64_t{rows};
    if (!SeekTo(stream_, fileEnd_)) return fail();
  }
  lineCounter_ = 0;
  return 1;
}

void QI_ImageSGI::EncodeRow(const std::uint16_t* v) {
  const std::size_t n = static_cast<std::size_t>(width_);
  const bool wide = bitsPerChannel_ == 16;
  bytes_.clear();
  const auto put = [&](std::uint16_t u) {
    if (wide) bytes_.push_back(static_cast<std::uint8_t>(u >> 8));
    bytes_.push_back(static_cast<std::uint8_t>(u));
  };
  std::size_t i = 0;
  while (i < n) {
    std::size_t j = i;
    while (j + 2 < n && !(v[j] == v[j + 1] && v[j] == v[j + 2])) ++j;
    if (j + 2 >= n) j = n;
    while (i < j) {
      const std::size_t k = std::min<std::size_t>(126, j - i);
      put(static_cast<std::uint16_t>(0x80 | k));
      for (std::size_t e = i + k; i < e; ++i) put(v[i]);
    }
    if (i >= n) break;
    std::size_t m = i;
    while (m < n && v[m] == v[i]) ++m;
    for (std::size_t left = m - i; left > 0;) {
      const std::size_t k = std::min<std::size_t>(126, left);
      put(static_cast<std::uint16_t>(k));
      put(v[i]);
      left -= k;
    }
    i = m;
  }
  put(0);
  if (bytes_.size() % 2 && wide) bytes_.push_back(0);
}

bool QI_ImageSGI::WriteRow(std::uint32_t r, const std::uint16_t* in) {
  const std::size_t width = static_cast<std::size_t>(width_);
  const bool wide = bitsPerChannel_ == 16;
  if (compression_ != QI_COMPRESSION_RLE) {
    bytes_.resize(width * (wide ? 2 : 1));
    for (std::size_t x = 0; x < width; ++x) {
      if (wide)
        vx::StoreBE16(&bytes_[2 * x], in[x]);
      else
        bytes_[x] = static_cast<std::uint8_t>(in[x]);
    }
    return SeekTo(stream_, kHeaderSize + std::uint64_t{r} * bytes_.size()) &&
           std::fwrite(bytes_.data(), 1, bytes_.size(), stream_) == bytes_.size();
  }
  if (r >= starts_.size()) return false;
  EncodeRow(in);
  if (fileEnd_ + bytes_.size() > 0xFFFFFFFFu || !SeekTo(stream_, fileEnd_) ||
      std::fwrite(bytes_.data(), 1, bytes_.size(), stream_) != bytes_.size())
    return false;
  starts_[r] = static_cast<std::uint32_t>(fileEnd_);
  lengths_[r] = static_cast<std::uint32_t>(bytes_.size());
  fileEnd_ += bytes_.size();
  return true;
}

std::int32_t QI_ImageSGI::writeLine(QI_ImageMem* src, std::int32_t row) {
  if (!stream_ || !src || lineCounter_ >= height_ || row < 0 || row >= src->getHeight() ||
      src->getWidth() < width_ || width_ <= 0)
    return 0;
  const std::size_t width = static_cast<std::size_t>(width_);
  try {
    samples_.resize(width * 4);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  std::uint16_t* s = samples_.data();
  for (std::size_t x = 0; x < width; ++x) {
    const auto xi = static_cast<std::int32_t>(x);
    if (bitsPerChannel_ == 8) {
      std::uint8_t v[4] = {};
      src->getPixel(xi, row, &v[0], &v[1], &v[2], &v[3], QI_DEPTH_8);
      for (int c = 0; c < 4; ++c) s[c * width + x] = v[c];
    } else {
      src->getPixel(xi, row, &s[x], &s[width + x], &s[2 * width + x], &s[3 * width + x],
                    QI_DEPTH_16);
    }
  }
  // One channel is the red component of the line.
  for (std::int32_t c = 0; c < channels_; ++c) {
    const auto r = static_cast<std::uint32_t>(c * height_ + lineCounter_);
    try {
      if (!WriteRow(r, s + static_cast<std::size_t>(c) * width)) return 0;
    } catch (const std::bad_alloc&) {
      return 0;
    }
  }
  ++lineCounter_;
  return 1;
}
