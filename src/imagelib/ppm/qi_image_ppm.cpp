#include "imagelib/ppm/qi_image_ppm.h"

#include <algorithm>
#include <climits>
#include <new>
#include <string>

namespace {

using qi::SeekTo;

using qi::StreamSize;

bool IsSpace(int c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// Skips white space and comments (kept in `comments`, when given, up to a few kilobytes), then
// reads one unsigned decimal number; false when none is there or it exceeds `limit`.
bool ReadNumber(std::FILE* f, std::uint32_t limit, std::uint32_t* out,
                std::string* comments = nullptr) {
  constexpr std::size_t kKept = 4096;
  int c = std::fgetc(f);
  for (;;) {
    if (c == '#') {
      std::string line;
      for (c = std::fgetc(f); c != EOF && c != '\n' && c != '\r'; c = std::fgetc(f))
        if (comments && line.size() < kKept) line.push_back(static_cast<char>(c));
      if (comments && comments->size() + line.size() < kKept) {
        const std::size_t start = line.find_first_not_of(' ');
        if (!comments->empty()) comments->push_back('\n');
        comments->append(start == std::string::npos ? "" : line.substr(start));
      }
    } else if (IsSpace(c)) {
      c = std::fgetc(f);
    } else {
      break;
    }
  }
  if (c < '0' || c > '9') return false;
  std::uint64_t v = 0;
  for (; c >= '0' && c <= '9'; c = std::fgetc(f)) {
    v = v * 10 + static_cast<std::uint32_t>(c - '0');
    if (v > limit) return false;
  }
  // The character ending the number is the single separator before binary data.
  if (c != EOF && !IsSpace(c) && c != '#') return false;
  if (c == '#') std::ungetc(c, f);  // a comment right after the number
  *out = static_cast<std::uint32_t>(v);
  return true;
}

int Fail(const char* why) {
  std::fputs(why, stderr);
  return 0;
}

// Scales a sample of range 0..maxval to 0..full, rounding to nearest.
std::uint16_t Scale(std::uint32_t v, std::uint32_t maxval, std::uint32_t full) {
  return static_cast<std::uint16_t>((std::uint64_t{v} * full + maxval / 2) / maxval);
}

}  // namespace

QI_ImagePNM::QI_ImagePNM(std::int32_t channels) : fileChannels_(channels) {
  channels_ = channels;
  pixelType_ = channels == 1 ? QI_PIXEL_GRAY : QI_PIXEL_RGB;
}

QI_ImagePNM::~QI_ImagePNM() {
  close();
}

std::int16_t QI_ImagePNM::setBitsPerChannel(std::int32_t n) {
  return n == 8 || n == 16 ? (bitsPerChannel_ = n, 1) : 0;
}

std::int16_t QI_ImagePNM::setBytesPerChannel(std::int32_t n) {
  return n == 1 || n == 2 ? setBitsPerChannel(n * 8) : 0;
}

// Any source layout is taken for writing: the writer keeps what the file holds (grey from colour
// by .30/.59/.11, alpha dropped); a header read sets the file's own.
std::int16_t QI_ImagePNM::setChannels(std::int32_t n) {
  return n == 1 || n == 3 || n == 4 ? (channels_ = n, 1) : 0;
}

std::int16_t QI_ImagePNM::setPixelType(std::int32_t code) {
  if (code != QI_PIXEL_GRAY && code != QI_PIXEL_RGB && code != QI_PIXEL_RGBA) return 0;
  pixelType_ = code;
  return 1;
}

std::int16_t QI_ImagePNM::setCompression(std::int32_t code) {
  return code == QI_COMPRESSION_NONE ? (compression_ = code, 1) : 0;
}

std::int32_t QI_ImagePNM::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
  return openStream(widePath, wideMode);
}

std::int32_t QI_ImagePNM::attach(std::FILE* stream, std::int32_t /*writing*/) {
  close();
  stream_ = stream;
  return stream ? 1 : 0;
}

std::int32_t QI_ImagePNM::close() {
  loaded_ = false;
  samples_.clear();
  samples_.shrink_to_fit();
  return closeStream();
}

std::int32_t QI_ImagePNM::readHeader() {
  loaded_ = false;
  std::uint8_t magic[2];
  if (!stream_ || !StreamSize(stream_, &fileSize_) || !SeekTo(stream_, 0) ||
      std::fread(magic, 1, 2, stream_) != 2)
    return Fail("EOF / read error\n");
  const char text = fileChannels_ == 3 ? '3' : '2', binary = fileChannels_ == 3 ? '6' : '5';
  if (magic[0] != 'P' || (magic[1] != text && magic[1] != binary)) return Fail("bad magic\n");
  ascii_ = magic[1] == text;
  std::uint32_t w = 0, h = 0, maxval = 0;
  std::string comments;
  try {
    if (!ReadNumber(stream_, INT32_MAX, &w, &comments) ||
        !ReadNumber(stream_, INT32_MAX, &h, &comments) ||
        !ReadNumber(stream_, 65535, &maxval, &comments) || w == 0 || h == 0 || maxval == 0)
      return Fail("bad header\n");
  } catch (const std::bad_alloc&) {
    return Fail("bad header\n");
  }
  setText("comment", comments);
  const long here = std::ftell(stream_);
  if (here < 0) return Fail("EOF / read error\n");
  dataStart_ = static_cast<std::uint64_t>(here);
  // Text samples take at least two characters each (digit and separator, the last one maybe
  // without); binary ones one or two bytes. A size the file cannot fill is refused here.
  const std::uint64_t samples = std::uint64_t{w} * h * static_cast<std::uint32_t>(fileChannels_);
  if (samples > fileSize_) return Fail("EOF / read error\n");
  const std::uint64_t need = ascii_ ? samples * 2 - 1 : samples * (maxval > 255 ? 2 : 1);
  if (dataStart_ > fileSize_ || need > fileSize_ - dataStart_) return Fail("EOF / read error\n");
  maxval_ = maxval;
  setWidth(static_cast<std::int32_t>(w));
  setHeight(static_cast<std::int32_t>(h));
  bitsPerChannel_ = maxval > 255 ? 16 : 8;
  channels_ = fileChannels_;
  pixelType_ = fileChannels_ == 1 ? QI_PIXEL_GRAY : QI_PIXEL_RGB;
  return 1;
}

bool QI_ImagePNM::LoadRaster() {
  const std::size_t perLine =
      static_cast<std::size_t>(width_) * static_cast<std::size_t>(fileChannels_);
  const std::uint32_t full = maxval_ > 255 ? 65535 : 255;
  try {
    samples_.assign(perLine * static_cast<std::size_t>(height_), 0);
    if (!ascii_) line_.resize(perLine * (maxval_ > 255 ? 2 : 1));
  } catch (const std::bad_alloc&) {
    return Fail("out of memory\n") != 0;
  }
  if (!SeekTo(stream_, dataStart_)) return Fail("EOF / read error\n") != 0;
  std::size_t i = 0;
  for (std::int32_t y = 0; y < height_; ++y) {
    if (!ascii_ && std::fread(line_.data(), 1, line_.size(), stream_) != line_.size())
      return Fail("EOF / read error\n") != 0;
    for (std::size_t k = 0; k < perLine; ++k, ++i) {
      std::uint32_t v = 0;
      if (ascii_) {
        if (!ReadNumber(stream_, maxval_, &v)) return Fail("bad sample\n") != 0;
      } else if (maxval_ > 255) {
        v = static_cast<std::uint32_t>(line_[2 * k] << 8 | line_[2 * k + 1]);
      } else {
        v = line_[k];
      }
      if (v > maxval_) return Fail("sample above maxval\n") != 0;
      samples_[i] = Scale(v, maxval_, full);
    }
  }
  loaded_ = true;
  return true;
}

std::int32_t QI_ImagePNM::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!stream_ || !dest || row < 0 || row >= height_ || row >= dest->getHeight() ||
      dest->getWidth() < width_)
    return 0;
  if (!loaded_ && !LoadRaster()) return 0;
  const std::size_t perLine =
      static_cast<std::size_t>(width_) * static_cast<std::size_t>(fileChannels_);
  const std::uint16_t* s = samples_.data() + static_cast<std::size_t>(height_ - 1 - row) * perLine;
  if (maxval_ > 255) {
    qi::StoreLine16(dest, row, s, fileChannels_, width_);
    return 1;
  }
  try {
    bytes_.resize(perLine);
  } catch (const std::bad_alloc&) {
    return Fail("out of memory\n");
  }
  std::copy_n(s, perLine, bytes_.begin());  // samples of at most 255 each
  qi::StoreLine8(dest, row, bytes_.data(), fileChannels_, width_);
  return 1;
}

std::int32_t QI_ImagePNM::writeHeader() try {
  if (!stream_ || width_ < 1 || height_ < 1 || !SeekTo(stream_, 0)) return 0;
  const char magic = fileChannels_ == 3 ? '6' : '5';
  std::string header = std::string("P") + magic + "\n";
  // The source's comment (or description), one "# " line per line of it.
  std::string comment = getText("comment");
  if (comment.empty()) comment = getText("description");
  for (std::size_t at = 0; at < comment.size();) {
    std::size_t end = comment.find_first_of("\r\n", at);
    if (end == std::string::npos) end = comment.size();
    header += "# " + comment.substr(at, end - at) + "\n";
    at = end + 1;
  }
  header += std::to_string(width_) + " " + std::to_string(height_) + "\n" +
            (bitsPerChannel_ == 16 ? "65535" : "255") + "\n";
  if (std::fwrite(header.data(), 1, header.size(), stream_) != header.size()) return 0;
  dataStart_ = header.size();
  return 1;
} catch (const std::bad_alloc&) {
  return 0;
}

// Each line goes to its own place, so rows may come in either order.
std::int32_t QI_ImagePNM::writeLine(QI_ImageMem* src, std::int32_t row) {
  if (!stream_ || !src || row < 0 || row >= height_ || row >= src->getHeight() ||
      src->getWidth() < width_)
    return 0;
  const bool wide = bitsPerChannel_ == 16;
  const std::size_t bytes =
      static_cast<std::size_t>(width_) * static_cast<std::size_t>(fileChannels_) * (wide ? 2 : 1);
  try {
    line_.resize(bytes);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  std::uint8_t* p = line_.data();
  for (std::int32_t x = 0; x < width_; ++x) {
    std::uint16_t c[3] = {};
    if (wide) {
      src->getPixel16(x, row, &c[0], &c[1], &c[2], nullptr);
    } else {
      std::uint8_t r = 0, g = 0, b = 0;
      src->getPixel8(x, row, &r, &g, &b, nullptr);
      c[0] = r, c[1] = g, c[2] = b;
    }
    if (fileChannels_ == 1) {
      // Grey from colour by the library's .30/.59/.11 weights, rounded.
      c[0] = static_cast<std::uint16_t>((c[0] * 30u + c[1] * 59u + c[2] * 11u + 50u) / 100u);
    }
    for (std::int32_t k = 0; k < fileChannels_; ++k) {
      if (wide) *p++ = static_cast<std::uint8_t>(c[k] >> 8);
      *p++ = static_cast<std::uint8_t>(c[k]);
    }
  }
  const std::uint64_t at = dataStart_ + static_cast<std::uint64_t>(height_ - 1 - row) * bytes;
  return SeekTo(stream_, at) && std::fwrite(line_.data(), 1, bytes, stream_) == bytes ? 1 : 0;
}

QI_ImagePPM::QI_ImagePPM() : QI_ImagePNM(3) {
  setFormatName("PPM");
}

QI_ImagePGM::QI_ImagePGM() : QI_ImagePNM(1) {
  setFormatName("PGM");
  layout_ = 2;
  bottomUp_ = 0;
}
