#include "imagelib/alias/qi_image_alias.h"

#include <algorithm>
#include <new>

#include "base/bytes.h"

namespace {

constexpr std::size_t kHeaderSize = 10;
constexpr std::size_t kMaxRun = 255;

using qi::StreamSize;

}  // namespace

QI_ImageALIAS::QI_ImageALIAS() {
  setFormatName("ALIAS");
  layout_ = 0;
  compression_ = QI_COMPRESSION_RLE;
  bottomUp_ = 0;
}

QI_ImageALIAS::~QI_ImageALIAS() {
  close();
}

std::int16_t QI_ImageALIAS::setChannels(std::int32_t n) {
  return n == 3 ? (channels_ = n, 1) : 0;
}

std::int16_t QI_ImageALIAS::setBitsPerChannel(std::int32_t n) {
  return n == 8 ? (bitsPerChannel_ = n, 1) : 0;
}

std::int16_t QI_ImageALIAS::setBytesPerChannel(std::int32_t n) {
  return n == 1 ? setBitsPerChannel(8) : 0;
}

std::int16_t QI_ImageALIAS::setPixelType(std::int32_t code) {
  if (code != QI_PIXEL_RGB) return 0;
  pixelType_ = code;
  channels_ = 3;
  return 1;
}

std::int16_t QI_ImageALIAS::setLayout(std::int32_t code) {
  return code == 0 ? (layout_ = code, 1) : 0;
}

std::int16_t QI_ImageALIAS::setCompression(std::int32_t code) {
  return code == QI_COMPRESSION_RLE ? (compression_ = code, 1) : 0;
}

std::int32_t QI_ImageALIAS::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
  return openStream(widePath, wideMode);
}

std::int32_t QI_ImageALIAS::attach(std::FILE* stream, std::int32_t /*writing*/) {
  close();
  stream_ = stream;
  return stream ? 1 : 0;
}

std::int32_t QI_ImageALIAS::close() {
  return closeStream();
}

std::int32_t QI_ImageALIAS::readHeader() {
  std::uint8_t h[kHeaderSize];
  std::uint64_t size = 0;
  if (!stream_ || !StreamSize(stream_, &size) || std::fseek(stream_, 0, SEEK_SET) != 0 ||
      std::fread(h, 1, sizeof h, stream_) != sizeof h || vx::LoadBE16(h + 8) != 24) {
    close();
    return 0;
  }
  const std::uint64_t w = vx::LoadBE16(h), ht = vx::LoadBE16(h + 2);
  // Every line takes at least one 4-byte run per 255 pixels: a size the data cannot fill is
  // refused before anyone allocates a picture for it.
  if (w == 0 || ht == 0 || kHeaderSize + ht * ((w + kMaxRun - 1) / kMaxRun) * 4 > size) {
    close();
    return 0;
  }
  setWidth(static_cast<std::int32_t>(w));
  setHeight(static_cast<std::int32_t>(ht));
  setChannels(3);
  setPixelType(QI_PIXEL_RGB);
  return 1;
}

std::int32_t QI_ImageALIAS::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!stream_ || !dest || row < 0 || row >= dest->getHeight() || dest->getWidth() < width_)
    return 0;
  try {
    rgb_.resize(static_cast<std::size_t>(width_) * 3);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  std::int32_t x = 0;
  while (x < width_) {
    std::uint8_t run[4];
    if (std::fread(run, 1, 4, stream_) != 4) return 0;
    if (run[0] > width_ - x) return 0;  // a run past the line end
    for (const std::int32_t end = x + run[0]; x < end; ++x) {
      std::uint8_t* o = &rgb_[static_cast<std::size_t>(x) * 3];
      o[0] = run[3], o[1] = run[2], o[2] = run[1];
    }
  }
  qi::StoreLine8(dest, row, rgb_.data(), 3, width_);
  return 1;
}

std::int32_t QI_ImageALIAS::writeHeader() {
  std::uint8_t h[kHeaderSize] = {};
  const bool fits = width_ >= 1 && width_ <= 0xFFFF && height_ >= 1 && height_ <= 0xFFFF;
  vx::StoreBE16(h, static_cast<std::uint16_t>(width_));
  vx::StoreBE16(h + 2, static_cast<std::uint16_t>(height_));
  vx::StoreBE16(h + 8, 24);
  if (!stream_ || !fits || std::fseek(stream_, 0, SEEK_SET) != 0 ||
      std::fwrite(h, 1, sizeof h, stream_) != sizeof h) {
    close();
    return 0;
  }
  return 1;
}

std::int32_t QI_ImageALIAS::writeLine(QI_ImageMem* src, std::int32_t row) {
  if (!stream_ || !src || row < 0 || row >= src->getHeight() || src->getWidth() < width_ ||
      width_ <= 0)
    return 0;
  try {
    runs_.clear();
    std::uint8_t cur[3] = {}, count = 0;
    for (std::int32_t x = 0; x < width_; ++x) {
      std::uint8_t r = 0, g = 0, b = 0;
      src->getPixel8(x, row, &r, &g, &b, nullptr);
      if (count > 0 && (r != cur[0] || g != cur[1] || b != cur[2])) {
        runs_.insert(runs_.end(), {count, cur[2], cur[1], cur[0]});
        count = 0;
      }
      cur[0] = r;
      cur[1] = g;
      cur[2] = b;
      if (++count == kMaxRun) {
        runs_.insert(runs_.end(), {count, cur[2], cur[1], cur[0]});
        count = 0;
      }
    }
    if (count > 0) runs_.insert(runs_.end(), {count, cur[2], cur[1], cur[0]});
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return std::fwrite(runs_.data(), 1, runs_.size(), stream_) == runs_.size() ? 1 : 0;
}
