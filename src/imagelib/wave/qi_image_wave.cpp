#include "imagelib/wave/qi_image_wave.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstring>
#include <new>
#include <string>

#include "base/bytes.h"

namespace {

using Header = std::uint8_t[QI_ImageWAVE::kHeaderSize];

// Header fields (big-endian).
constexpr std::size_t kActiveWindow = 8;  // left, right, bottom, top (signed 16-bit)
constexpr std::size_t kFrame = 16;
constexpr std::size_t kStorageType = 18;
constexpr std::size_t kColourChannels = 20;
constexpr std::size_t kMatteChannels = 22;
constexpr std::size_t kRevision = 26;
constexpr std::size_t kGamma = 28;
constexpr std::size_t kChromaticities = 44;  // red, green, blue, white point: 24 bytes each
constexpr std::size_t kName = 144;
constexpr std::size_t kDescription = 272;
constexpr std::size_t kProgram = 400;
constexpr std::size_t kUser = 496;
constexpr std::size_t kDate = 528;
constexpr std::size_t kAspectRatio = 572;
constexpr std::size_t kColourSpace = 580;
constexpr std::size_t kTime = 616;         // inside the 12-byte time field
constexpr std::size_t kChannelBits = 658;  // then matte type, matte bits, aux type, aux bits
constexpr std::size_t kNextImage = 736;
constexpr std::uint16_t kNewLayout = 0xFFFE;
constexpr std::uint16_t kFloatType = 4;

using qi::SeekTo;

using qi::StreamSize;

using qi::WritesTo;

bool ReadAt(std::FILE* f, std::uint64_t offset, void* out, std::size_t n) {
  if (SeekTo(f, offset) && std::fread(out, 1, n, f) == n) return true;
  std::fputs("EOF / read error\n", stderr);
  return false;
}

std::int32_t Signed16(const std::uint8_t* p) {
  return static_cast<std::int16_t>(vx::LoadBE16(p));
}

// 0 refused, 1 classic, 2 ":00:" in the time field, 3 revision 0xFFFE.
std::int32_t HeaderVariant(const std::uint8_t* h) {
  if (std::memcmp(h + kTime, ":00:", 4) == 0) return 2;
  if (vx::LoadBE16(h + kRevision) == kNewLayout) return 3;
  const std::uint16_t colour = vx::LoadBE16(h + kColourChannels);
  return vx::LoadBE16(h + kStorageType) <= 1 && (colour == 1 || colour == 3) &&
                 vx::LoadBE16(h + kMatteChannels) <= 1
             ? 1
             : 0;
}

void PutText(std::uint8_t* field, std::size_t room, const std::string& text) {
  std::memcpy(field, text.data(), std::min(text.size(), room - 1));
}

// "Nov 25 16:07 2026", the date as these files carry it (UTC here).
std::string DateText() {
  using namespace std::chrono;
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  const auto now = floor<seconds>(system_clock::now());
  const auto day = floor<days>(now);
  const year_month_day ymd{day};
  const hh_mm_ss hms{now - day};
  char text[32];
  std::snprintf(text, sizeof text, "%s %02u %02d:%02d %04d",
                kMonths[(static_cast<unsigned>(ymd.month()) + 11) % 12],
                static_cast<unsigned>(ymd.day()), static_cast<int>(hms.hours().count()),
                static_cast<int>(hms.minutes().count()), static_cast<int>(ymd.year()));
  return text;
}

// "Nov 25 16:07 2026" as "2026-11-25T16:07"; empty when the text is not of that form.
std::string IsoDate(const std::string& text) {
  static const char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
  char month[4] = {};
  int day = 0, hour = 0, minute = 0, year = 0;
  if (std::sscanf(text.c_str(), "%3s %d %d:%d %d", month, &day, &hour, &minute, &year) != 5)
    return {};
  const char* m = std::strstr(kMonths, month);
  if (!m || (m - kMonths) % 3 != 0 || day < 1 || day > 31 || hour > 23 || minute > 59 ||
      year < 1900 || year > 9999)
    return {};
  char iso[64];
  std::snprintf(iso, sizeof iso, "%04d-%02d-%02dT%02d:%02d", year,
                static_cast<int>((m - kMonths) / 3 + 1), day, hour, minute);
  return iso;
}

}  // namespace

QI_ImageWAVE::QI_ImageWAVE() {
  setFormatName("WAVE");
  layout_ = 1;
  compression_ = QI_COMPRESSION_RLE;
  bottomUp_ = 1;
}

QI_ImageWAVE::~QI_ImageWAVE() {
  close();
}

std::int16_t QI_ImageWAVE::setChannels(std::int32_t n) {
  if (n != 1 && n != 3 && n != 4) return 0;
  channels_ = n;
  return 1;
}

std::int16_t QI_ImageWAVE::setBitsPerChannel(std::int32_t n) {
  if (n != 8) return 0;
  bitsPerChannel_ = n;
  return 1;
}

std::int16_t QI_ImageWAVE::setBytesPerChannel(std::int32_t n) {
  return n == 1 ? setBitsPerChannel(8) : 0;
}

std::int16_t QI_ImageWAVE::setPixelType(std::int32_t code) {
  const std::int32_t channels = code == QI_PIXEL_RGB    ? 3
                                : code == QI_PIXEL_RGBA ? 4
                                : code == QI_PIXEL_GRAY ? 1
                                                        : 0;
  if (channels == 0) return 0;
  pixelType_ = code;
  channels_ = channels;
  return 1;
}

std::int16_t QI_ImageWAVE::setLayout(std::int32_t code) {
  if (code != 1) return 0;
  layout_ = code;
  return 1;
}

std::int16_t QI_ImageWAVE::setCompression(std::int32_t code) {
  return code == QI_COMPRESSION_RLE ? 1 : 0;
}

std::int32_t QI_ImageWAVE::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
  if (!openStream(widePath, wideMode)) return 0;
  writing_ = WritesTo(wideMode);
  return 1;
}

std::int32_t QI_ImageWAVE::attach(std::FILE* stream, std::int32_t writing) {
  close();
  stream_ = stream;
  writing_ = writing != 0;
  return stream ? 1 : 0;
}

std::int32_t QI_ImageWAVE::close() {
  if (stream_ && writing_ && !lineOffsets_.empty()) {
    std::vector<std::uint8_t> table(4 * lineOffsets_.size());
    for (std::size_t i = 0; i < lineOffsets_.size(); ++i)
      vx::StoreBE32(&table[4 * i], lineOffsets_[i]);
    if (SeekTo(stream_, kHeaderSize)) std::fwrite(table.data(), 1, table.size(), stream_);
  }
  closeStream();
  lineOffsets_ = {};
  lineEnd_ = kNowhere;
  writing_ = false;
  return 1;
}

// The chain of images: each newer-layout header names the offset of the next one. Offsets must
// grow by a header at least, so the walk ends inside the file.
bool QI_ImageWAVE::FindImages(std::uint64_t size) {
  imageOffsets_.clear();
  Header h;
  for (std::uint64_t at = 0; at + kHeaderSize <= size;) {
    imageOffsets_.push_back(at);
    if (!ReadAt(stream_, at, h, sizeof h) || HeaderVariant(h) != 3) break;
    const std::uint64_t next = vx::LoadBE32(h + kNextImage);
    if (next < at + kHeaderSize) break;
    at = next;
  }
  imageCount_ = static_cast<std::int32_t>(std::max<std::size_t>(imageOffsets_.size(), 1));
  return !imageOffsets_.empty();
}

std::int32_t QI_ImageWAVE::readHeader() {
  const auto fail = [this] {
    close();
    return 0;
  };
  std::uint64_t size = 0;
  variant_ = 0;
  if (!stream_ || writing_ || !StreamSize(stream_, &size)) return fail();
  try {
    if (!FindImages(size) || currentImage_ < 0 ||
        static_cast<std::size_t>(currentImage_) >= imageOffsets_.size())
      return fail();
    const std::uint64_t base = imageOffsets_[static_cast<std::size_t>(currentImage_)];
    Header h;
    if (!ReadAt(stream_, base, h, sizeof h)) return fail();
    const std::int32_t variant = HeaderVariant(h);
    if (variant == 0) return fail();
    const std::int32_t w = Signed16(h + kActiveWindow + 2) - Signed16(h + kActiveWindow) + 1;
    const std::int32_t ht = Signed16(h + kActiveWindow + 6) - Signed16(h + kActiveWindow + 4) + 1;
    const std::uint16_t storage = vx::LoadBE16(h + kStorageType);
    const std::uint16_t colour = vx::LoadBE16(h + kColourChannels);
    const std::uint16_t matte = vx::LoadBE16(h + kMatteChannels);
    if (w < 1 || ht < 1 || (colour != 1 && colour != 3)) return fail();
    // Only the newer layout describes its samples; the others have the storage type alone.
    const bool described = variant == 3;
    const auto describe = [&](std::uint16_t type, std::uint16_t bits, Channel* c) {
      if (type == kFloatType) {
        *c = {4, 32, true};
        return true;
      }
      if (type > 2) return false;
      c->bits = described && bits >= 1 && bits <= 32 ? bits : 8u << type;
      c->bytes = c->bits <= 8 ? 1 : c->bits <= 16 ? 2 : 4;
      c->isFloat = false;
      return true;
    };
    Channel colourDesc, matteDesc;
    if (!describe(storage, vx::LoadBE16(h + kChannelBits), &colourDesc) ||
        !describe(described ? vx::LoadBE16(h + kChannelBits + 2) : storage,
                  vx::LoadBE16(h + kChannelBits + 4), &matteDesc))
      return fail();
    // Before allocating: the offset table and one line at its tightest must be in the file.
    const std::uint64_t tableEnd = base + kHeaderSize + 4 * std::uint64_t(ht);
    const auto tightest = [&](const Channel& c) {
      return 2 + 2 * ((std::uint64_t(w) * c.bytes + 127) / 128);
    };
    if (tableEnd + colour * tightest(colourDesc) + (matte ? tightest(matteDesc) : 0) > size)
      return fail();
    std::vector<std::uint8_t> raw(4 * static_cast<std::size_t>(ht));
    if (!ReadAt(stream_, base + kHeaderSize, raw.data(), raw.size())) return fail();
    lineOffsets_.resize(static_cast<std::size_t>(ht));
    for (std::size_t i = 0; i < lineOffsets_.size(); ++i)
      lineOffsets_[i] = vx::LoadBE32(&raw[4 * i]);
    const std::size_t used = colour + (matte ? 1u : 0u);
    for (std::size_t c = 0; c < 4; ++c) {
      const Channel& d = c < colour ? colourDesc : matteDesc;
      samples_[c].assign(c < used ? static_cast<std::size_t>(w) * d.bytes : 0, 0);
    }
    line_.assign(4 * static_cast<std::size_t>(w), 0);
    setWidth(w);
    setHeight(ht);
    // Refused past 8: deeper samples come through at 8-bit precision.
    setBitsPerChannel(8 * storage + 8);
    setPixelType(colour == 1 ? QI_PIXEL_GRAY : matte ? QI_PIXEL_RGBA : QI_PIXEL_RGB);
    texts_.clear();
    setText("description", qi::FieldText(h + kDescription, 128));
    setText("creator", qi::FieldText(h + kProgram, 64));
    setText("originator", qi::FieldText(h + kUser, 32));
    setText("wave:name", qi::FieldText(h + kName, 128));
    const std::string date = qi::FieldText(h + kDate, 20);
    const std::string iso = IsoDate(date);
    setText(iso.empty() ? "wave:date" : "date", iso.empty() ? date : iso);
    colour_ = colourDesc;
    matte_ = matteDesc;
    colourChannels_ = colour;
    matteChannels_ = matte ? 1 : 0;
    variant_ = variant;
  } catch (const std::bad_alloc&) {
    return fail();
  }
  lineCounter_ = 0;
  lineEnd_ = kNowhere;
  return 1;
}

// Run-length code in code_ into one channel's bytes, plane after plane (the most significant
// byte of every sample first). Overshoots are reported and cut; the line goes on.
bool QI_ImageWAVE::DecodeChannel(const Channel& c, std::uint8_t* out) {
  const std::size_t n = static_cast<std::size_t>(width_) * c.bytes;
  const std::size_t count = code_.size();
  const std::uint8_t* code = code_.data();
  std::memset(out, 0, n);
  if (c.isFloat) {  // stored raw
    std::memcpy(out, code, std::min(n, count));
    return true;
  }
  std::size_t o = 0;
  for (std::size_t i = 0; i < count;) {
    const auto run = static_cast<std::int8_t>(code[i++]);
    if (run < 0) {
      const std::size_t len = std::min<std::size_t>(static_cast<std::size_t>(-run), count - i);
      if (len > n - o) {
        std::fprintf(stderr, " out of bound pointer pos 1 by %d\n",
                     static_cast<int>(len - (n - o)));
        std::memcpy(out + o, code + i, n - o);
        return true;
      }
      std::memcpy(out + o, code + i, len);
      o += len;
      i += len;
    } else {
      if (i >= count) break;
      const std::size_t len = static_cast<std::size_t>(run) + 1;
      const std::uint8_t v = code[i++];
      if (len > n - o) {
        std::fprintf(stderr, " out of bound pointer pos 2 by %d\n",
                     static_cast<int>(len - (n - o)));
        std::memset(out + o, v, n - o);
        return true;
      }
      std::memset(out + o, v, len);
      o += len;
    }
  }
  return true;
}

namespace {

// One channel's samples at 8-bit precision into every 4th byte of `out`: integers scaled from
// their own bit count to 255 rounding to nearest, floats clamped to 0..1.
void To8Bits(const std::uint8_t* in, std::size_t width, std::uint32_t bytes, std::uint32_t bits,
             bool isFloat, std::uint8_t* out) {
  if (isFloat) {
    for (std::size_t x = 0; x < width; ++x) {
      const float f = std::bit_cast<float>(vx::LoadLE32(in + 4 * x));
      out[4 * x] = f > 0.0f ? static_cast<std::uint8_t>(std::lround(std::min(f, 1.0f) * 255)) : 0;
    }
    return;
  }
  if (bits == 8) {
    for (std::size_t x = 0; x < width; ++x) out[4 * x] = in[x];
    return;
  }
  const std::uint64_t max = (std::uint64_t{1} << bits) - 1;
  for (std::size_t x = 0; x < width; ++x) {
    std::uint64_t v = 0;
    for (std::uint32_t p = 0; p < bytes; ++p) v = v << 8 | in[p * width + x];
    v = std::min(v, max);
    out[4 * x] = static_cast<std::uint8_t>((v * 255 + max / 2) / max);
  }
}

}  // namespace

std::int32_t QI_ImageWAVE::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!stream_ || writing_ || !dest || lineCounter_ >= height_ || row < 0 ||
      row >= dest->getHeight() || dest->getWidth() < width_ || width_ <= 0 ||
      lineOffsets_.size() != static_cast<std::size_t>(height_))
    return 0;
  const std::size_t width = static_cast<std::size_t>(width_);
  const std::int32_t used = colourChannels_ + matteChannels_;
  // Lines are mostly stored one after the other: seek only when this one is elsewhere, as a
  // seek can drop the stream's buffer.
  const std::uint64_t start = lineOffsets_[static_cast<std::size_t>(lineCounter_)];
  const bool there = lineEnd_ == start;
  lineEnd_ = kNowhere;
  if (!there && !SeekTo(stream_, start)) return 0;
  std::uint64_t end = start;
  try {
    for (std::int32_t c = 0; c < used; ++c) {
      std::uint8_t size[2];
      if (std::fread(size, 1, 2, stream_) != 2) {
        std::fputs("EOF / read error\n", stderr);
        return 0;
      }
      const std::uint16_t count = vx::LoadBE16(size);
      end += 2 + std::uint64_t{count};
      if (count == 0) {
        std::fputs(" channelReadMultiFormat Lost track of where we are\n", stderr);
        continue;
      }
      code_.resize(count);
      if (std::fread(code_.data(), 1, count, stream_) != count) {
        std::fputs("EOF / read error\n", stderr);
        return 0;
      }
      DecodeChannel(c < colourChannels_ ? colour_ : matte_, samples_[c].data());
    }
  } catch (const std::bad_alloc&) {
    return 0;
  }
  std::uint8_t* p = line_.data();
  const auto plain = [](const Channel& d) { return d.bits == 8 && d.bytes == 1 && !d.isFloat; };
  if (plain(colour_) && (!matteChannels_ || plain(matte_))) {
    // The common 8-bit file: every plane into RGBA pixels in one pass, a store a pixel.
    const std::uint8_t* r = samples_[0].data();
    const std::uint8_t* g = colourChannels_ == 3 ? samples_[1].data() : r;
    const std::uint8_t* b = colourChannels_ == 3 ? samples_[2].data() : r;
    const std::uint8_t* a = matteChannels_ ? samples_[colourChannels_].data() : nullptr;
    for (std::size_t x = 0; x < width; ++x) {
      const std::uint32_t alpha = a ? a[x] : 255u;
      vx::StoreLE32(p + 4 * x, std::uint32_t{r[x]} | std::uint32_t{g[x]} << 8 |
                                   std::uint32_t{b[x]} << 16 | alpha << 24);
    }
  } else {
    for (std::int32_t c = 0; c < used; ++c) {
      const Channel& d = c < colourChannels_ ? colour_ : matte_;
      const std::size_t at = colourChannels_ == 1 && c == 1 ? 3 : static_cast<std::size_t>(c);
      To8Bits(samples_[c].data(), width, d.bytes, d.bits, d.isFloat, &line_[at]);
    }
    if (colourChannels_ == 1)
      for (std::size_t x = 0; x < width; ++x) p[4 * x + 1] = p[4 * x + 2] = p[4 * x];
    if (!matteChannels_)
      for (std::size_t x = 0; x < width; ++x) p[4 * x + 3] = 255;
  }
  qi::StoreLine8(dest, row, p, 4, width_);
  lineEnd_ = end;
  ++lineCounter_;
  return 1;
}

std::int32_t QI_ImageWAVE::writeHeader() {
  const auto fail = [this] {
    close();
    return 0;
  };
  // Window corners are signed 16-bit.
  if (!stream_ || !writing_ || width_ < 1 || width_ > 32768 || height_ < 1 || height_ > 32768)
    return fail();
  const std::uint16_t colour = channels_ == 1 ? 1 : 3;
  const std::uint16_t matte = channels_ == 4 ? 1 : 0;
  Header h = {};
  for (std::size_t window : {std::size_t{0}, kActiveWindow}) {
    vx::StoreBE16(h + window + 2, static_cast<std::uint16_t>(width_ - 1));
    vx::StoreBE16(h + window + 6, static_cast<std::uint16_t>(height_ - 1));
  }
  vx::StoreBE16(h + kFrame, 1);
  vx::StoreBE16(h + kColourChannels, colour);
  vx::StoreBE16(h + kMatteChannels, matte);
  vx::StoreBE16(h + kRevision, kNewLayout);
  // What other writers put there, so that readers which look find it: the video gamma and the
  // NTSC primaries with the white point of their files.
  PutText(h + kGamma, 16, "2.2");
  const char* const kChroma[] = {"0.670 0.330", "0.210 0.710", "0.140 0.080", "0.310 0.316"};
  for (std::size_t i = 0; i < 4; ++i) PutText(h + kChromaticities + 24 * i, 24, kChroma[i]);
  try {
    if (widePath_) {
      std::string name = vx::ToUtf8(widePath_);
      const std::size_t slash = name.find_last_of("/\\");
      if (slash != std::string::npos) name.erase(0, slash + 1);
      PutText(h + kName, 128, name);
    }
    PutText(h + kProgram, 64, "vxprsr");
    const std::string description = getText("description");
    PutText(h + kDescription, 128, description.empty() ? getText("comment") : description);
    PutText(h + kUser, 32, getText("originator"));
    PutText(h + kDate, 20, DateText());
  } catch (const std::bad_alloc&) {
    return fail();
  }
  PutText(h + kAspectRatio, 8, "1.00000");
  PutText(h + kColourSpace, 32, "rgb");
  vx::StoreBE16(h + kChannelBits, 8);
  vx::StoreBE16(h + kChannelBits + 4, matte ? 8 : 0);
  try {
    lineOffsets_.assign(static_cast<std::size_t>(height_), 0);
    code_.assign(4 * lineOffsets_.size(), 0);  // the table, written again at close
  } catch (const std::bad_alloc&) {
    return fail();
  }
  if (!SeekTo(stream_, 0) || std::fwrite(h, 1, sizeof h, stream_) != sizeof h ||
      std::fwrite(code_.data(), 1, code_.size(), stream_) != code_.size())
    return fail();
  colourChannels_ = colour;
  matteChannels_ = matte;
  lineCounter_ = 0;
  return 1;
}

// Runs of three or more equal bytes repeat in chunks of 128; shorter runs, and the one or two
// bytes a long run leaves over, go out literally in chunks of up to 128.
void QI_ImageWAVE::EncodeChannel(const std::uint8_t* in) {
  const std::size_t n = static_cast<std::size_t>(width_);
  const auto at = [in](std::size_t x) { return in[4 * x]; };
  const auto literal = [&](std::size_t from, std::size_t to) {
    while (from < to) {
      const std::size_t k = std::min<std::size_t>(128, to - from);
      code_.push_back(static_cast<std::uint8_t>(256 - k));
      for (std::size_t e = from + k; from < e; ++from) code_.push_back(at(from));
    }
  };
  std::size_t pending = 0;  // first byte not yet coded
  for (std::size_t i = 0; i < n;) {
    std::size_t j = i + 1;
    while (j < n && at(j) == at(i)) ++j;
    std::size_t left = j - i;
    if (left >= 3) {
      literal(pending, i);
      for (; left >= 128; left -= 128) code_.insert(code_.end(), {127, at(i)});
      if (left >= 3) {
        code_.insert(code_.end(), {static_cast<std::uint8_t>(left - 1), at(i)});
        left = 0;
      }
      pending = j - left;
    }
    i = j;
  }
  literal(pending, n);
}

std::int32_t QI_ImageWAVE::writeLine(QI_ImageMem* src, std::int32_t row) {
  if (!stream_ || !writing_ || !src || lineCounter_ >= height_ || row < 0 ||
      row >= src->getHeight() || src->getWidth() < width_ || width_ <= 0 ||
      lineOffsets_.size() != static_cast<std::size_t>(height_))
    return 0;
  const std::size_t width = static_cast<std::size_t>(width_);
  try {
    line_.resize(4 * width);
    for (std::size_t x = 0; x < width; ++x) {
      std::uint8_t* p = &line_[4 * x];
      src->getPixel8(static_cast<std::int32_t>(x), row, &p[0], &p[1], &p[2], &p[3]);
    }
    // One colour channel is the red component.
    code_.clear();
    for (std::int32_t c = 0; c < colourChannels_ + matteChannels_; ++c) {
      const std::size_t start = code_.size();
      code_.insert(code_.end(), {0, 0});
      EncodeChannel(&line_[c < colourChannels_ ? static_cast<std::size_t>(c) : 3]);
      vx::StoreBE16(&code_[start], static_cast<std::uint16_t>(code_.size() - start - 2));
    }
  } catch (const std::bad_alloc&) {
    return 0;
  }
  const long at = std::ftell(stream_);
  if (at < 0 || static_cast<std::uint64_t>(at) + code_.size() > 0xFFFFFFFFu ||
      std::fwrite(code_.data(), 1, code_.size(), stream_) != code_.size())
    return 0;
  lineOffsets_[static_cast<std::size_t>(lineCounter_++)] = static_cast<std::uint32_t>(at);
  return 1;
}
