#include "imagelib/bmp/qi_image_bmp.h"

#include <algorithm>
#include <bit>
#include <new>

#include "base/bytes.h"

namespace {

constexpr std::size_t kFileHeader = 14;
constexpr std::size_t kInfoHeader = 40;

using qi::StreamSize;

std::int32_t Fail(const char* why) {
  std::fputs(why, stderr);
  return 0;
}

// A masked component scaled to 0..255 (rounded); an empty mask gives `empty`.
std::uint8_t Field(std::uint32_t px, std::uint32_t mask, std::uint8_t empty) {
  if (mask == 0) return empty;
  const int shift = std::countr_zero(mask);
  const std::uint64_t max = mask >> shift;
  const std::uint64_t v = (px & mask) >> shift;
  if (max == 255) return static_cast<std::uint8_t>(v);  // exact: no scaling to do
  return static_cast<std::uint8_t>((v * 255 + max / 2) / max);
}

}  // namespace

QI_ImageBMP::QI_ImageBMP() {
  setFormatName("BMP");
  layout_ = 0;
  compression_ = QI_COMPRESSION_NONE;
  bottomUp_ = 1;
}

QI_ImageBMP::~QI_ImageBMP() {
  close();
}

std::int16_t QI_ImageBMP::setChannels(std::int32_t n) {
  return (n == 1 || n == 3 || n == 4) ? (channels_ = n, 1) : 0;
}

std::int16_t QI_ImageBMP::setBitsPerChannel(std::int32_t n) {
  return n == 8 ? (bitsPerChannel_ = n, 1) : 0;
}

std::int16_t QI_ImageBMP::setBytesPerChannel(std::int32_t n) {
  return n == 1 ? setBitsPerChannel(8) : 0;
}

std::int16_t QI_ImageBMP::setPixelType(std::int32_t code) {
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

std::int16_t QI_ImageBMP::setLayout(std::int32_t code) {
  return code == 0 ? (layout_ = code, 1) : 0;
}

std::int16_t QI_ImageBMP::setCompression(std::int32_t code) {
  return code == QI_COMPRESSION_NONE ? (compression_ = code, 1) : 0;
}

std::int32_t QI_ImageBMP::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
  return openStream(widePath, wideMode);
}

std::int32_t QI_ImageBMP::attach(std::FILE* stream, std::int32_t /*writing*/) {
  close();
  stream_ = stream;
  return stream ? 1 : 0;
}

std::int32_t QI_ImageBMP::close() {
  return closeStream();
}

std::int32_t QI_ImageBMP::readHeader() {
  std::uint8_t h[kFileHeader + 124] = {};
  std::uint64_t size = 0;
  if (!stream_ || !StreamSize(stream_, &size) || std::fseek(stream_, 0, SEEK_SET) != 0 ||
      std::fread(h, 1, kFileHeader + 4, stream_) != kFileHeader + 4 || h[0] != 'B' || h[1] != 'M') {
    close();
    return Fail("not a BMP file\n");
  }
  const std::uint32_t infoSize = vx::LoadLE32(h + 14);
  const bool core = infoSize == 12;
  if (!core && (infoSize < kInfoHeader || infoSize > 124)) {
    close();
    return Fail("unknown BMP header\n");
  }
  if (std::fread(h + 18, 1, infoSize - 4, stream_) != infoSize - 4) {
    close();
    return Fail("EOF / read error\n");
  }
  const std::uint8_t* info = h + kFileHeader;
  std::int64_t w = 0, ht = 0;
  std::uint32_t planes = 0, compression = 0, colours = 0;
  if (core) {
    w = vx::LoadLE16(info + 4);
    ht = vx::LoadLE16(info + 6);
    planes = vx::LoadLE16(info + 8);
    bits_ = vx::LoadLE16(info + 10);
  } else {
    w = static_cast<std::int32_t>(vx::LoadLE32(info + 4));
    ht = static_cast<std::int32_t>(vx::LoadLE32(info + 8));
    planes = vx::LoadLE16(info + 12);
    bits_ = vx::LoadLE16(info + 14);
    compression = vx::LoadLE32(info + 16);
    colours = vx::LoadLE32(info + 32);
  }
  const bool topDown = ht < 0;
  if (topDown) ht = -ht;
  const std::uint64_t offset = vx::LoadLE32(h + 10);
  bool ok = planes == 1 && w > 0 && ht > 0 && w <= 0x7FFFFFFF && ht <= 0x7FFFFFFF &&
            offset <= size && !(topDown && (compression == 1 || compression == 2));
  std::uint64_t pos = kFileHeader + infoSize;
  masks_[3] = 0;
  switch (compression) {
    case 0:
      coding_ = bits_ <= 8 ? 0 : 3;
      ok = ok &&
           (bits_ == 1 || bits_ == 4 || bits_ == 8 || bits_ == 16 || bits_ == 24 || bits_ == 32);
      if (bits_ == 16) {
        masks_[0] = 0x7C00, masks_[1] = 0x3E0, masks_[2] = 0x1F;
      } else {
        masks_[0] = 0xFF0000, masks_[1] = 0xFF00, masks_[2] = 0xFF;
        if (bits_ == 32) masks_[3] = 0xFF000000;  // written with alpha there by other programs
      }
      break;
    case 1:
    case 2:
      coding_ = compression;
      ok = ok && bits_ == (compression == 1 ? 8 : 4);
      break;
    case 3:
    case 6: {
      coding_ = 3;
      ok = ok && (bits_ == 16 || bits_ == 32);
      const std::uint32_t n = compression == 6 ? 4 : 3;
      std::uint8_t m[16] = {};
      if (infoSize >= 52) {
        std::copy(info + 40, info + 40 + (infoSize >= 56 ? 16 : 12), m);
      } else if (std::fread(m, 1, n * 4, stream_) == n * 4) {
        pos += n * 4;
      } else {
        ok = false;
      }
      for (int i = 0; i < 4; ++i) masks_[i] = vx::LoadLE32(m + i * 4);
      if (compression == 3 && infoSize < 56) masks_[3] = 0;
      break;
    }
    default:
      ok = false;
  }
  // Masks keep to the pixel's bits and each is one unbroken run, so Field() scales within 0..255.
  for (const std::uint32_t m : masks_) {
    const std::uint32_t run = m ? m >> std::countr_zero(m) : 0;
    if (coding_ == 3 && ((bits_ == 16 && m > 0xFFFF) || (run & (run + 1)) != 0)) ok = false;
  }
  mapSize_ = 0;
  if (ok && bits_ <= 8) {
    const std::uint32_t entry = core ? 3 : 4;
    const std::uint32_t most = 1u << bits_;
    mapSize_ = static_cast<std::int32_t>(colours == 0 || colours > most ? most : colours);
    std::uint8_t pal[256 * 4] = {};
    // Some writers cut the palette short of the pixel data: take what lies before it.
    std::uint64_t room = offset > pos ? (offset - pos) / entry : 0;
    if (room < static_cast<std::uint64_t>(mapSize_)) mapSize_ = static_cast<std::int32_t>(room);
    if (std::fseek(stream_, static_cast<long>(pos), SEEK_SET) != 0 ||
        std::fread(pal, entry, mapSize_, stream_) != static_cast<std::size_t>(mapSize_))
      ok = false;
    map_.fill(0);
    for (std::int32_t i = 0; i < mapSize_; ++i) {
      map_[i * 3] = pal[i * entry + 2];
      map_[i * 3 + 1] = pal[i * entry + 1];
      map_[i * 3 + 2] = pal[i * entry];
    }
  }
  rowBytes_ = static_cast<std::size_t>((static_cast<std::uint64_t>(w) * bits_ + 31) / 32 * 4);
  const std::uint64_t data = size - (offset <= size ? offset : size);
  // Verbatim lines must all be there; a run-length stream covers at most 255 pixels a byte
  // pair, or 64 lines a byte through deltas.
  if (ok && (coding_ == 0 || coding_ == 3))
    ok = static_cast<std::uint64_t>(rowBytes_) * static_cast<std::uint64_t>(ht) <= data;
  else if (ok)
    ok = static_cast<std::uint64_t>(w) <= data * 128 &&
         static_cast<std::uint64_t>(w) * static_cast<std::uint64_t>(ht) <= data * 255 * 64;
  if (!ok || std::fseek(stream_, static_cast<long>(offset), SEEK_SET) != 0) {
    close();
    return Fail("bad or truncated BMP header\n");
  }
  try {
    row_.assign(coding_ == 1 || coding_ == 2 ? static_cast<std::size_t>(w) : rowBytes_, 0);
  } catch (const std::bad_alloc&) {
    close();
    return Fail("out of memory\n");
  }
  rleEnd_ = false;
  rleSkipLines_ = 0;
  rleStartX_ = 0;
  setWidth(static_cast<std::int32_t>(w));
  setHeight(static_cast<std::int32_t>(ht));
  setBottomUp(topDown ? 0 : 1);
  setPixelType(coding_ == 3 && masks_[3] != 0 ? QI_PIXEL_RGBA : QI_PIXEL_RGB);
  compression_ = coding_ == 1 || coding_ == 2 ? QI_COMPRESSION_RLE : QI_COMPRESSION_NONE;
  return 1;
}

// One line of indices from the run-length stream into row_ (0 where the stream says nothing).
bool QI_ImageBMP::readRleLine() {
  std::fill(row_.begin(), row_.end(), 0);
  if (rleEnd_) return true;
  if (rleSkipLines_ > 0) {
    --rleSkipLines_;
    return true;
  }
  const bool four = coding_ == 2;
  std::size_t x = static_cast<std::size_t>(rleStartX_);
  rleStartX_ = 0;
  const std::size_t w = row_.size();
  for (;;) {
    const int n = std::getc(stream_), c = std::getc(stream_);
    if (n == EOF || c == EOF) return false;
    if (n > 0) {  // a run of n pixels (alternating nibbles for RLE4)
      // Writers pad lines with runs past their end (ImageMagick does): the excess is dropped.
      for (int i = 0; i < n && x < w; ++i)
        row_[x++] = static_cast<std::uint8_t>(four ? ((i & 1) ? c & 15 : c >> 4) : c);
    } else if (c == 0) {
      return true;
    } else if (c == 1) {
      rleEnd_ = true;
      return true;
    } else if (c == 2) {
      const int dx = std::getc(stream_), dy = std::getc(stream_);
      if (dx == EOF || dy == EOF) return false;
      x = std::min(w, x + static_cast<std::size_t>(dx));
      if (dy > 0) {
        rleSkipLines_ = dy - 1;
        rleStartX_ = static_cast<std::int32_t>(x);
        return true;
      }
    } else {  // c literal pixels, padded to a 16-bit boundary
      const int bytes = four ? (c + 1) / 2 : c;
      std::uint8_t lit[256];
      if (std::fread(lit, 1, static_cast<std::size_t>((bytes + 1) & ~1), stream_) !=
          static_cast<std::size_t>((bytes + 1) & ~1))
        return false;
      for (int i = 0; i < c && x < w; ++i)
        row_[x++] = four ? ((i & 1) ? lit[i / 2] & 15 : lit[i / 2] >> 4) : lit[i];
    }
  }
}

// Each line is decoded into one RGB(A) line buffer and stored whole.
std::int32_t QI_ImageBMP::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!stream_ || !dest || row < 0 || row >= dest->getHeight() || dest->getWidth() < width_ ||
      row_.empty())
    return 0;
  const std::size_t w = static_cast<std::size_t>(width_);
  const std::int32_t channels = coding_ == 3 && masks_[3] != 0 ? 4 : 3;
  try {
    line_.resize(w * static_cast<std::size_t>(channels));
  } catch (const std::bad_alloc&) {
    return Fail("out of memory\n");
  }
  std::uint8_t* o = line_.data();
  const std::uint8_t* p = row_.data();
  if (coding_ == 1 || coding_ == 2) {
    if (!readRleLine()) return Fail("EOF / read error\n");
    for (std::size_t x = 0; x < w; ++x, o += 3) std::copy_n(&map_[p[x] * 3u], 3, o);
  } else if (std::fread(row_.data(), 1, rowBytes_, stream_) != rowBytes_) {
    return Fail("EOF / read error\n");
  } else if (bits_ <= 8) {
    for (std::size_t x = 0; x < w; ++x, o += 3) {
      const std::size_t bit = x * static_cast<std::size_t>(bits_);
      const unsigned i = (p[bit / 8] >> (8 - bits_ - bit % 8)) & ((1u << bits_) - 1);
      std::copy_n(&map_[i * 3], 3, o);
    }
  } else if (bits_ == 24) {  // the fixed 8-8-8 masks: blue, green, red bytes
    for (std::size_t x = 0; x < w; ++x, o += 3, p += 3) {
      o[0] = p[2];
      o[1] = p[1];
      o[2] = p[0];
    }
  } else {
    for (std::size_t x = 0; x < w; ++x, o += channels) {
      const std::uint32_t px = bits_ == 16 ? vx::LoadLE16(p + x * 2) : vx::LoadLE32(p + x * 4);
      o[0] = Field(px, masks_[0], 0);
      o[1] = Field(px, masks_[1], 0);
      o[2] = Field(px, masks_[2], 0);
      if (channels == 4) o[3] = Field(px, masks_[3], 255);
    }
  }
  qi::StoreLine8(dest, row, line_.data(), channels, width_);
  return 1;
}

std::int32_t QI_ImageBMP::writeHeader() {
  const std::uint32_t bpp = channels_ == 4 ? 32 : 24;
  const std::uint64_t rowBytes =
      (static_cast<std::uint64_t>(width_ > 0 ? width_ : 0) * bpp + 31) / 32 * 4;
  const std::uint64_t image = rowBytes * static_cast<std::uint64_t>(height_ > 0 ? height_ : 0);
  std::uint8_t h[kFileHeader + kInfoHeader] = {'B', 'M'};
  const bool fits = width_ >= 1 && height_ >= 1 && image + sizeof h <= 0xFFFFFFFFu;
  vx::StoreLE32(h + 2, static_cast<std::uint32_t>(image + sizeof h));
  vx::StoreLE32(h + 10, sizeof h);
  vx::StoreLE32(h + 14, kInfoHeader);
  vx::StoreLE32(h + 18, static_cast<std::uint32_t>(width_));
  vx::StoreLE32(h + 22, static_cast<std::uint32_t>(height_));
  vx::StoreLE16(h + 26, 1);
  vx::StoreLE16(h + 28, static_cast<std::uint16_t>(bpp));
  vx::StoreLE32(h + 34, static_cast<std::uint32_t>(image));
  vx::StoreLE32(h + 38, 2835);  // 72 dpi
  vx::StoreLE32(h + 42, 2835);
  if (!stream_ || !fits || std::fseek(stream_, 0, SEEK_SET) != 0 ||
      std::fwrite(h, 1, sizeof h, stream_) != sizeof h) {
    close();
    return 0;
  }
  bits_ = static_cast<std::int32_t>(bpp);
  rowBytes_ = static_cast<std::size_t>(rowBytes);
  setBottomUp(1);
  try {
    row_.assign(rowBytes_, 0);
  } catch (const std::bad_alloc&) {
    close();
    return 0;
  }
  return 1;
}

std::int32_t QI_ImageBMP::writeLine(QI_ImageMem* src, std::int32_t row) {
  if (!stream_ || !src || row < 0 || row >= src->getHeight() || src->getWidth() < width_ ||
      row_.size() != rowBytes_ || rowBytes_ == 0)
    return 0;
  const std::size_t step = static_cast<std::size_t>(bits_ / 8);
  for (std::int32_t x = 0; x < width_; ++x) {
    std::uint8_t r = 0, g = 0, b = 0, a = 255;
    src->getPixel8(x, row, &r, &g, &b, &a);
    std::uint8_t* p = &row_[static_cast<std::size_t>(x) * step];
    p[0] = b;
    p[1] = g;
    p[2] = r;
    if (step == 4) p[3] = a;
  }
  return std::fwrite(row_.data(), 1, rowBytes_, stream_) == rowBytes_ ? 1 : 0;
}
