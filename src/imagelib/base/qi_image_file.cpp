// The file-image base and the byte-order helpers of the format classes.
#include <climits>
#include <cstdlib>
#include <new>
#include <cstring>
#include <string>

#include "imagelib/base/qi_image.h"
#include "vx/platform.h"

namespace {

// A malloc'ed copy of a zero-terminated string (null for null, or when memory runs out: the
// library never throws).
template <class C>
C* Duplicate(const C* text) {
  if (!text) return nullptr;
  const std::size_t n = std::char_traits<C>::length(text) + 1;
  auto* copy = static_cast<C*>(std::malloc(n * sizeof(C)));
  if (copy) std::memcpy(copy, text, n * sizeof(C));
  return copy;
}

// Runs line(row) over the rows in stored order; see QI_ImageFile::read.
template <class Line>
std::int32_t EachLine(std::int32_t height, std::int32_t bottomUp, Line line) {
  try {
    if (bottomUp == 1) {
      for (std::int32_t row = 0; row < height; ++row) {
        if (!line(row)) return 0;
      }
    } else if (bottomUp == 0) {
      for (std::int32_t row = height - 1; row >= 0; --row) {
        if (!line(row)) return 0;
      }
    }
    return 1;
  } catch (...) {
    return 0;
  }
}

}  // namespace

QI_ImageFile::~QI_ImageFile() {
  // The format classes close in their own destructors; this catches a stream left behind.
  closeStream();
  std::free(path_);
  std::free(widePath_);
}

void QI_ImageFile::setQuality(std::int32_t) {}
std::int32_t QI_ImageFile::getQuality() {
  return 1;
}

std::int16_t QI_ImageFile::setLayout(std::int32_t code) {
  layout_ = code;
  return 1;
}

std::int16_t QI_ImageFile::setCompression(std::int32_t code) {
  compression_ = code;
  return 1;
}

void QI_ImageFile::hook11(std::int32_t) {}
float QI_ImageFile::getPixelAspect() {
  return -1.0f;
}

std::int16_t QI_ImageFile::setImageCount(std::int32_t n) {
  imageCount_ = n;
  return 1;
}

// Refuses only i > imageCount, so imageCount itself is accepted.
std::int16_t QI_ImageFile::selectImage(std::int32_t i) {
  if (i > imageCount_) return 0;
  currentImage_ = i;
  return 1;
}

void QI_ImageFile::getMapEntry(std::int32_t, std::uint8_t*, std::uint8_t*, std::uint8_t*) {}
void QI_ImageFile::setMapEntry(std::int32_t, std::uint8_t, std::uint8_t, std::uint8_t) {}
std::int32_t QI_ImageFile::getMapSize() {
  return 0;
}
std::int32_t QI_ImageFile::getMapMaxIndex() {
  return 0;
}
void QI_ImageFile::setMapMaxIndex(std::int32_t) {}

// A size mismatch reads nothing; a bottomUp other than 0 or 1 reads nothing and answers 1.
std::int32_t QI_ImageFile::read(QI_ImageMem* dest) {
  if (!dest || dest->getWidth() != width_ || dest->getHeight() != height_) return 0;
  return EachLine(height_, bottomUp_, [&](std::int32_t row) { return readLine(dest, row); });
}

std::int32_t QI_ImageFile::write(QI_ImageMem* src) {
  if (!src || src->getWidth() != width_ || src->getHeight() != height_) return 0;
  return EachLine(height_, bottomUp_, [&](std::int32_t row) { return writeLine(src, row); });
}

void QI_ImageFile::setPath(const char* path) {
  char* copy = Duplicate(path);
  std::free(path_);
  path_ = copy;
}

void QI_ImageFile::setWidePath(const VxChar* path) {
  VxChar* copy = Duplicate(path);
  std::free(widePath_);
  widePath_ = copy;
}

void QI_ImageFile::setBottomUp(std::int32_t bottomUp) {
  bottomUp_ = bottomUp;
}
void QI_ImageFile::setFormatName(const char* name) {
  formatName_ = name;
}

std::int32_t QI_ImageFile::openStream(const VxChar* widePath, const VxChar* wideMode) {
  if (!widePath || !wideMode) return 0;
  closeStream();
  std::FILE* f = nullptr;
  try {
    f = vx::os::OpenStdio(widePath, wideMode);
  } catch (...) {  // the path conversion may run out of memory
    return 0;
  }
  if (!f) return 0;
  stream_ = f;
  setWidePath(widePath);
  texts_.clear();
  return 1;
}

std::string QI_ImageFile::getText(std::string_view key) const {
  for (const auto& [k, v] : texts_)
    if (k == key) return v;
  return {};
}

void QI_ImageFile::setText(std::string_view key, std::string_view value) try {
  for (auto it = texts_.begin(); it != texts_.end(); ++it)
    if (it->first == key) {
      if (value.empty())
        texts_.erase(it);
      else
        it->second = value;
      return;
    }
  if (!value.empty()) texts_.emplace_back(key, value);
} catch (const std::bad_alloc&) {  // a description is not worth failing the picture for
}

std::int32_t QI_ImageFile::closeStream() {
  if (stream_) std::fclose(stream_);
  stream_ = nullptr;
  return 1;
}

namespace qi {
namespace {

bool ReadBytes(std::FILE* f, std::uint8_t* bytes, int n) {
  if (!f) return false;
  for (int k = 0; k < n; ++k) {
    const int c = std::fgetc(f);
    if (c == EOF) return false;
    bytes[k] = static_cast<std::uint8_t>(c);
  }
  return true;
}

// The n low bytes of v, most significant first when `big`.
bool WriteBytes(std::FILE* f, std::uint32_t v, int n, bool big) {
  if (!f) return false;
  for (int k = 0; k < n; ++k) {
    const int shift = 8 * (big ? n - 1 - k : k);
    if (std::fputc(static_cast<int>((v >> shift) & 0xFF), f) == EOF) return false;
  }
  return true;
}

}  // namespace

bool ReadBE16(std::FILE* f, std::uint16_t* v) {
  std::uint8_t b[2];
  if (!v || !ReadBytes(f, b, 2)) return false;
  *v = static_cast<std::uint16_t>(b[0] << 8 | b[1]);
  return true;
}

bool ReadBE32(std::FILE* f, std::uint32_t* v) {
  std::uint8_t b[4];
  if (!v || !ReadBytes(f, b, 4)) return false;
  *v = std::uint32_t{b[0]} << 24 | std::uint32_t{b[1]} << 16 | std::uint32_t{b[2]} << 8 | b[3];
  return true;
}

bool WriteBE16(std::FILE* f, std::uint16_t v) {
  return WriteBytes(f, v, 2, true);
}
bool WriteBE32(std::FILE* f, std::uint32_t v) {
  return WriteBytes(f, v, 4, true);
}
bool WriteLE16(std::FILE* f, std::uint16_t v) {
  return WriteBytes(f, v, 2, false);
}
bool WriteLE32(std::FILE* f, std::uint32_t v) {
  return WriteBytes(f, v, 4, false);
}

bool SeekTo(std::FILE* f, std::uint64_t offset) {
  return offset <= static_cast<std::uint64_t>(LONG_MAX) &&
         std::fseek(f, static_cast<long>(offset), SEEK_SET) == 0;
}

bool StreamSize(std::FILE* f, std::uint64_t* size) {
  if (std::fseek(f, 0, SEEK_END) != 0) return false;
  const long end = std::ftell(f);
  if (end < 0) return false;
  *size = static_cast<std::uint64_t>(end);
  return true;
}

bool WritesTo(const VxChar* mode) {
  for (; mode && *mode; ++mode)
    if (*mode == 'w' || *mode == 'a' || *mode == '+') return true;
  return false;
}

std::string FieldText(const std::uint8_t* field, std::size_t size) {
  std::string text;
  try {
    for (std::size_t i = 0; i < size && field[i] != 0; ++i)
      text.push_back((field[i] >= 0x20 && field[i] < 0x7F) || field[i] == '\n'
                         ? static_cast<char>(field[i])
                         : '?');
    while (!text.empty() && text.back() == ' ') text.pop_back();
  } catch (const std::bad_alloc&) {
    text.clear();
  }
  return text;
}

}  // namespace qi
