#include "imagelib/pcx/qi_image_pcx.h"

#include <algorithm>
#include <new>

#include "base/bytes.h"

namespace {

constexpr std::size_t kHeaderSize = 128;
constexpr std::size_t kMapBytes = 769;  // 0x0C and 256 RGB entries
constexpr std::size_t kMaxRun = 63;

using qi::StreamSize;

std::int32_t Fail(const char* why) {
  std::fputs(why, stderr);
  return 0;
}

}  // namespace

QI_ImagePCX::QI_ImagePCX() {
  setFormatName("PCX");
  layout_ = 1;
  compression_ = QI_COMPRESSION_RLE;
  bottomUp_ = 0;
}

QI_ImagePCX::~QI_ImagePCX() {
  close();
}

std::int16_t QI_ImagePCX::setChannels(std::int32_t n) {
  return (n == 1 || n == 3 || n == 4) ? (channels_ = n, 1) : 0;
}

std::int16_t QI_ImagePCX::setBitsPerChannel(std::int32_t n) {
  return n == 8 ? (bitsPerChannel_ = n, 1) : 0;
}

std::int16_t QI_ImagePCX::setBytesPerChannel(std::int32_t n) {
  return n == 1 ? setBitsPerChannel(8) : 0;
}

std::int16_t QI_ImagePCX::setPixelType(std::int32_t code) {
  switch (code) {
    case QI_PIXEL_GRAY:
      channels_ = 1;
      break;
    case QI_PIXEL_RGB:
      channels_ = 3;
      break;
    case QI_PIXEL_RGBA:
      channels_ = 4;
      break;
    default:
      return 0;
  }
  pixelType_ = code;
  return 1;
}

std::int16_t QI_ImagePCX::setLayout(std::int32_t code) {
  return code == 1 ? (layout_ = code, 1) : 0;
}

std::int16_t QI_ImagePCX::setCompression(std::int32_t code) {
  return code == QI_COMPRESSION_RLE ? (compression_ = code, 1) : 0;
}

std::int32_t QI_ImagePCX::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
  return openStream(widePath, wideMode);
}

std::int32_t QI_ImagePCX::attach(std::FILE* stream, std::int32_t /*writing*/) {
  close();
  stream_ = stream;
  return stream ? 1 : 0;
}

std::int32_t QI_ImagePCX::close() {
  if (stream_ && writing_ && planes_ == 1) {
    std::uint8_t map[kMapBytes] = {0x0C};
    for (std::size_t i = 0; i < 256; ++i)
      map[1 + i * 3] = map[2 + i * 3] = map[3 + i * 3] = static_cast<std::uint8_t>(i);
    std::fwrite(map, 1, sizeof map, stream_);
  }
  writing_ = false;
  return closeStream();
}

std::int32_t QI_ImagePCX::readHeader() {
  writing_ = false;
  std::uint8_t h[kHeaderSize];
  std::uint64_t size = 0;
  if (!stream_ || !StreamSize(stream_, &size) || std::fseek(stream_, 0, SEEK_SET) != 0 ||
      std::fread(h, 1, sizeof h, stream_) != sizeof h || h[0] != 0x0A || h[2] > 1) {
    close();
    return Fail("not a PCX file\n");
  }
  const std::int64_t w = std::int64_t{vx::LoadLE16(h + 8)} - vx::LoadLE16(h + 4) + 1;
  const std::int64_t ht = std::int64_t{vx::LoadLE16(h + 10)} - vx::LoadLE16(h + 6) + 1;
  bits_ = h[3];
  planes_ = h[65];
  coded_ = h[2] == 1;
  lineBytes_ = vx::LoadLE16(h + 66);
  const bool kinds = (bits_ == 1 && (planes_ == 1 || planes_ == 4)) ||
                     (bits_ == 4 && planes_ == 1) || (bits_ == 8 && (planes_ == 1 || planes_ == 3));
  const std::uint64_t total = lineBytes_ * static_cast<std::uint64_t>(planes_);
  // A coded line takes at least one byte pair per 63 bytes; the 8-bit map may follow.
  const std::uint64_t least = coded_ ? (total + kMaxRun - 1) / kMaxRun * 2 : total;
  bool ok = kinds && w > 0 && ht > 0 &&
            lineBytes_ >= (static_cast<std::uint64_t>(w) * bits_ + 7) / 8 &&
            static_cast<std::uint64_t>(ht) * least <= size - kHeaderSize;
  map_.fill(0);
  if (ok && bits_ * planes_ <= 4) {
    std::copy(h + 16, h + 64, map_.begin());
    if (bits_ * planes_ == 1 && map_[0] == map_[3] && map_[1] == map_[4] && map_[2] == map_[5])
      std::fill(map_.begin() + 3, map_.begin() + 6, 255);  // no usable map: black and white
  } else if (ok && planes_ == 1) {
    std::uint8_t map[kMapBytes] = {};
    if (size >= kHeaderSize + kMapBytes &&
        std::fseek(stream_, static_cast<long>(size - kMapBytes), SEEK_SET) == 0 &&
        std::fread(map, 1, sizeof map, stream_) == sizeof map && map[0] == 0x0C) {
      std::copy(map + 1, map + kMapBytes, map_.begin());
    } else {
      for (std::size_t i = 0; i < 256; ++i)  // no map: grey levels
        map_[i * 3] = map_[i * 3 + 1] = map_[i * 3 + 2] = static_cast<std::uint8_t>(i);
    }
  }
  if (!ok || std::fseek(stream_, kHeaderSize, SEEK_SET) != 0) {
    close();
    return Fail("bad or truncated PCX header\n");
  }
  try {
    line_.assign(static_cast<std::size_t>(total), 0);
  } catch (const std::bad_alloc&) {
    close();
    return Fail("out of memory\n");
  }
  runLeft_ = 0;
  setWidth(static_cast<std::int32_t>(w));
  setHeight(static_cast<std::int32_t>(ht));
  setPixelType(QI_PIXEL_RGB);
  setBottomUp(0);
  return 1;
}

std::int32_t QI_ImagePCX::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!stream_ || writing_ || !dest || row < 0 || row >= dest->getHeight() ||
      dest->getWidth() < width_ || line_.empty())
    return 0;
  std::size_t n = 0;
  if (!coded_) {
    n = std::fread(line_.data(), 1, line_.size(), stream_);
  } else {
    // Some writers let a run go on into the next line; the rest is kept for it.
    while (n < line_.size()) {
      if (runLeft_ > 0) {
        const std::size_t k = std::min<std::size_t>(runLeft_, line_.size() - n);
        std::fill_n(line_.begin() + n, k, runValue_);
        n += k;
        runLeft_ -= static_cast<std::int32_t>(k);
        continue;
      }
      const int b = std::getc(stream_);
      if (b == EOF) break;
      if (b >= 0xC0) {
        const int v = std::getc(stream_);
        if (v == EOF) break;
        runLeft_ = b & 0x3F;
        runValue_ = static_cast<std::uint8_t>(v);
      } else {
        line_[n++] = static_cast<std::uint8_t>(b);
      }
    }
  }
  if (n != line_.size()) return Fail("EOF / read error\n");
  try {
    rgb_.resize(static_cast<std::size_t>(width_) * 3);
  } catch (const std::bad_alloc&) {
    return Fail("out of memory\n");
  }
  const std::uint8_t* p = line_.data();
  std::uint8_t* o = rgb_.data();
  for (std::int32_t x = 0; x < width_; ++x, o += 3) {
    if (planes_ == 3) {
      o[0] = p[x], o[1] = p[lineBytes_ + x], o[2] = p[2 * lineBytes_ + x];
      continue;
    }
    unsigned i = 0;
    if (bits_ == 8) {
      i = p[x];
    } else if (bits_ == 4) {
      i = (p[x / 2] >> ((x & 1) ? 0 : 4)) & 15;
    } else {  // one bit from each plane, plane 0 the lowest bit
      for (std::int32_t k = 0; k < planes_; ++k)
        i |= ((p[k * lineBytes_ + x / 8] >> (7 - x % 8)) & 1u) << k;
    }
    std::copy_n(&map_[i * 3], 3, o);
  }
  qi::StoreLine8(dest, row, rgb_.data(), 3, width_);
  return 1;
}

std::int32_t QI_ImagePCX::writeHeader() {
  planes_ = channels_ == 1 ? 1 : 3;
  bits_ = 8;
  lineBytes_ = static_cast<std::size_t>(width_ > 0 ? width_ + (width_ & 1) : 0);
  std::uint8_t h[kHeaderSize] = {0x0A, 5, 1, 8};
  const bool fits = width_ >= 1 && width_ <= 0xFFFE && height_ >= 1 && height_ <= 0xFFFF;
  vx::StoreLE16(h + 8, static_cast<std::uint16_t>(width_ - 1));
  vx::StoreLE16(h + 10, static_cast<std::uint16_t>(height_ - 1));
  vx::StoreLE16(h + 12, 72);
  vx::StoreLE16(h + 14, 72);
  h[65] = static_cast<std::uint8_t>(planes_);
  vx::StoreLE16(h + 66, static_cast<std::uint16_t>(lineBytes_));
  vx::StoreLE16(h + 68, planes_ == 1 ? 2 : 1);  // grey or colour
  if (!stream_ || !fits || std::fseek(stream_, 0, SEEK_SET) != 0 ||
      std::fwrite(h, 1, sizeof h, stream_) != sizeof h) {
    close();
    return 0;
  }
  try {
    line_.assign(lineBytes_ * planes_, 0);
    out_.reserve(line_.size() * 2);
  } catch (const std::bad_alloc&) {
    close();
    return 0;
  }
  writing_ = true;
  return 1;
}

std::int32_t QI_ImagePCX::writeLine(QI_ImageMem* src, std::int32_t row) {
  if (!stream_ || !writing_ || !src || row < 0 || row >= src->getHeight() ||
      src->getWidth() < width_)
    return 0;
  for (std::int32_t x = 0; x < width_; ++x) {
    std::uint8_t r = 0, g = 0, b = 0;
    src->getPixel8(x, row, &r, &g, &b, nullptr);
    if (planes_ == 1) {
      line_[x] = r;
    } else {
      line_[x] = r;
      line_[lineBytes_ + x] = g;
      line_[2 * lineBytes_ + x] = b;
    }
  }
  // Runs stop at each plane's end, as most readers expect.
  out_.clear();
  for (std::int32_t k = 0; k < planes_; ++k) {
    const std::uint8_t* p = &line_[k * lineBytes_];
    for (std::size_t x = 0; x < lineBytes_;) {
      std::size_t n = 1;
      while (x + n < lineBytes_ && n < kMaxRun && p[x + n] == p[x]) ++n;
      if (n > 1 || p[x] >= 0xC0) out_.push_back(static_cast<std::uint8_t>(0xC0 | n));
      out_.push_back(p[x]);
      x += n;
    }
  }
  return std::fwrite(out_.data(), 1, out_.size(), stream_) == out_.size() ? 1 : 0;
}
