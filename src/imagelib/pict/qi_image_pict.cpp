#include "imagelib/pict/qi_image_pict.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "base/bytes.h"

namespace {

constexpr std::uint64_t kPrefix = 512;
// The line drawing keeps a byte a pixel; a frame past this is refused rather than allocated.
// Nor does a picture get more pixels than this beyond what its pixel record justifies.
constexpr std::uint64_t kMaxDrawing = std::uint64_t{1} << 26;
constexpr std::uint64_t kMaxBlank = kMaxDrawing;
// 32-bit rows of four bytes a pixel must fit in rowBytes' 15 bits.
constexpr std::int32_t kMaxWriteWidth = 0x7FFF / 4;

using H = QI_ImagePICT;
#define RESERVED(len, handler) \
  { "reserved", len, handler, "reserved for Apple use" }

const QI_PictOpcode kOpcodes[0xA2] = {
    {"NOP", 0, nullptr, "nop"},
    {"Clip", 0, &H::SkipRegion, "clip"},
    {"BkPat", 8, nullptr, "background pattern"},
    {"TxFont", 2, nullptr, "text font (word)"},
    {"TxFace", 1, nullptr, "text face (byte)"},
    {"TxMode", 2, nullptr, "text mode (word)"},
    {"SpExtra", 4, nullptr, "space extra (fixed point)"},
    {"PnSize", 4, nullptr, "pen size (point)"},
    {"PnMode", 2, nullptr, "pen mode (word)"},
    {"PnPat", 8, nullptr, "pen pattern"},
    {"FillPat", 8, nullptr, "fill pattern"},
    {"OvSize", 4, nullptr, "oval size (point)"},
    {"Origin", 4, nullptr, "dh, dv (word)"},
    {"TxSize", 2, nullptr, "text size (word)"},
    {"FgColor", 4, nullptr, "foreground color (longword)"},
    {"BkColor", 4, nullptr, "background color (longword)"},
    {"TxRatio", 8, nullptr, "numerator (point), denominator (point)"},
    {"Version", 1, nullptr, "version (byte)"},
    {"BkPixPat", 0, &H::ReadPattern, "color background pattern"},
    {"PnPixPat", 0, &H::ReadPattern, "color pen pattern"},
    {"FillPixPat", 0, &H::ReadPattern, "color fill pattern"},
    {"PnLocHFrac", 2, nullptr, "fractional pen position"},
    {"ChExtra", 2, nullptr, "extra for each character"},
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    {"RGBFgCol", 6, nullptr, "RGB foreColor"},
    {"RGBBkCol", 6, nullptr, "RGB backColor"},
    {"HiliteMode", 0, nullptr, "hilite mode flag"},
    {"HiliteColor", 6, nullptr, "RGB hilite color"},
    {"DefHilite", 0, nullptr, "Use default hilite color"},
    {"OpColor", 6, nullptr, "RGB OpColor for arithmetic modes"},
    {"Line", 0, &H::DrawLine, "pnLoc (point), newPt (point)"},
    {"LineFrom", 0, &H::DrawLine, "newPt (point)"},
    {"ShortLine", 0, &H::DrawLine, "pnLoc (point, dh, dv (-128 .. 127))"},
    {"ShortLineFrom", 0, &H::DrawLine, "dh, dv (-128 .. 127)"},
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    {"LongText", 0, &H::SkipText, "txLoc (point), count (0..255), text"},
    {"DHText", 0, &H::SkipText, "dh (0..255), count (0..255), text"},
    {"DVText", 0, &H::SkipText, "dv (0..255), count (0..255), text"},
    {"DHDVText", 0, &H::SkipText, "dh, dv (0..255), count (0..255), text"},
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    {"frameRect", 8, nullptr, "rect"},
    {"paintRect", 8, nullptr, "rect"},
    {"eraseRect", 8, nullptr, "rect"},
    {"invertRect", 8, nullptr, "rect"},
    {"fillRect", 8, nullptr, "rect"},
    RESERVED(8, nullptr),
    RESERVED(8, nullptr),
    RESERVED(8, nullptr),
    {"frameSameRect", 0, nullptr, "rect"},
    {"paintSameRect", 0, nullptr, "rect"},
    {"eraseSameRect", 0, nullptr, "rect"},
    {"invertSameRect", 0, nullptr, "rect"},
    {"fillSameRect", 0, nullptr, "rect"},
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    {"frameRRect", 8, nullptr, "rect"},
    {"paintRRect", 8, nullptr, "rect"},
    {"eraseRRect", 8, nullptr, "rect"},
    {"invertRRect", 8, nullptr, "rect"},
    {"fillRRrect", 8, nullptr, "rect"},
    RESERVED(8, nullptr),
    RESERVED(8, nullptr),
    RESERVED(8, nullptr),
    {"frameSameRRect", 0, nullptr, "rect"},
    {"paintSameRRect", 0, nullptr, "rect"},
    {"eraseSameRRect", 0, nullptr, "rect"},
    {"invertSameRRect", 0, nullptr, "rect"},
    {"fillSameRRect", 0, nullptr, "rect"},
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    {"frameOval", 8, nullptr, "rect"},
    {"paintOval", 8, nullptr, "rect"},
    {"eraseOval", 8, nullptr, "rect"},
    {"invertOval", 8, nullptr, "rect"},
    {"fillOval", 8, nullptr, "rect"},
    RESERVED(8, nullptr),
    RESERVED(8, nullptr),
    RESERVED(8, nullptr),
    {"frameSameOval", 0, nullptr, "rect"},
    {"paintSameOval", 0, nullptr, "rect"},
    {"eraseSameOval", 0, nullptr, "rect"},
    {"invertSameOval", 0, nullptr, "rect"},
    {"fillSameOval", 0, nullptr, "rect"},
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    {"frameArc", 12, nullptr, "rect, startAngle, arcAngle"},
    {"paintArc", 12, nullptr, "rect, startAngle, arcAngle"},
    {"eraseArc", 12, nullptr, "rect, startAngle, arcAngle"},
    {"invertArc", 12, nullptr, "rect, startAngle, arcAngle"},
    {"fillArc", 12, nullptr, "rect, startAngle, arcAngle"},
    RESERVED(12, nullptr),
    RESERVED(12, nullptr),
    RESERVED(12, nullptr),
    {"frameSameArc", 4, nullptr, "startAngle, arcAngle"},
    {"paintSameArc", 4, nullptr, "startAngle, arcAngle"},
    {"eraseSameArc", 4, nullptr, "startAngle, arcAngle"},
    {"invertSameArc", 4, nullptr, "startAngle, arcAngle"},
    {"fillSameArc", 4, nullptr, "startAngle, arcAngle"},
    RESERVED(4, nullptr),
    RESERVED(4, nullptr),
    RESERVED(4, nullptr),
    {"framePoly", 0, &H::SkipRegion, "poly"},
    {"paintPoly", 0, &H::SkipRegion, "poly"},
    {"erasePoly", 0, &H::SkipRegion, "poly"},
    {"invertPoly", 0, &H::SkipRegion, "poly"},
    {"fillPoly", 0, &H::SkipRegion, "poly"},
    RESERVED(0, &H::SkipRegion),
    RESERVED(0, &H::SkipRegion),
    RESERVED(0, &H::SkipRegion),
    {"frameSamePoly", 0, nullptr, "poly (NYI)"},
    {"paintSamePoly", 0, nullptr, "poly (NYI)"},
    {"eraseSamePoly", 0, nullptr, "poly (NYI)"},
    {"invertSamePoly", 0, nullptr, "poly (NYI)"},
    {"fillSamePoly", 0, nullptr, "poly (NYI)"},
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    {"frameRgn", 0, &H::SkipRegion, "region"},
    {"paintRgn", 0, &H::SkipRegion, "region"},
    {"eraseRgn", 0, &H::SkipRegion, "region"},
    {"invertRgn", 0, &H::SkipRegion, "region"},
    {"fillRgn", 0, &H::SkipRegion, "region"},
    RESERVED(0, &H::SkipRegion),
    RESERVED(0, &H::SkipRegion),
    RESERVED(0, &H::SkipRegion),
    {"frameSameRgn", 0, nullptr, "region (NYI)"},
    {"paintSameRgn", 0, nullptr, "region (NYI)"},
    {"eraseSameRgn", 0, nullptr, "region (NYI)"},
    {"invertSameRgn", 0, nullptr, "region (NYI)"},
    {"fillSameRgn", 0, nullptr, "region (NYI)"},
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    RESERVED(0, nullptr),
    {"BitsRect", 0, &H::PixelRecord, "copybits, rect clipped"},
    {"BitsRgn", 0, &H::PixelRecord, "copybits, rgn clipped"},
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    {"PackBitsRect", 0, &H::PixelRecord, "packed copybits, rect clipped"},
    {"PackBitsRgn", 0, &H::PixelRecord, "packed copybits, rgn clipped"},
    {"DirectBitsRect", 0, &H::PixelRecord, "PixMap, srcRect, dstRect, mode(int), PixData"},
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    RESERVED(-1, nullptr),
    {"ShortComment", 2, nullptr, "kind (word)"},
    {"LongComment", 0, &H::SkipLongComment, "kind (word), size (word), data"},
};
#undef RESERVED

bool IsPixelRecord(std::int32_t op) {
  return op == 0x90 || op == 0x91 || op == 0x98 || op == 0x99 || op == 0x9A;
}

using qi::StreamSize;

using qi::WritesTo;

std::int32_t Signed16(std::uint16_t v) {
  return static_cast<std::int16_t>(v);
}

// PackBits of one plane: runs of three or more equal bytes repeat, the rest goes literally.
void PackBits(const std::uint8_t* p, std::size_t n, std::vector<std::uint8_t>* out) {
  std::size_t i = 0;
  const auto runAt = [&](std::size_t k) {
    return k + 2 < n && p[k] == p[k + 1] && p[k] == p[k + 2];
  };
  while (i < n) {
    if (runAt(i)) {
      std::size_t j = i + 1;
      while (j < n && p[j] == p[i] && j - i < 128) ++j;
      out->push_back(static_cast<std::uint8_t>(257 - (j - i)));  // 1 - count, as a byte
      out->push_back(p[i]);
      i = j;
      continue;
    }
    const std::size_t start = i;
    while (i < n && i - start < 128 && !runAt(i)) ++i;
    out->push_back(static_cast<std::uint8_t>(i - start - 1));
    out->insert(out->end(), p + start, p + i);
  }
}

}  // namespace

const QI_PictOpcode* QI_ImagePICT::opcodeEntry(std::int32_t opcode) {
  return opcode >= 0 && opcode <= 0xA1 ? &kOpcodes[opcode] : nullptr;
}

QI_ImagePICT::QI_ImagePICT() {
  setFormatName("PICT");
  layout_ = 1;
  compression_ = QI_COMPRESSION_PACKBITS;
  bottomUp_ = 0;
}

QI_ImagePICT::~QI_ImagePICT() {
  close();
}

std::int16_t QI_ImagePICT::setChannels(std::int32_t n) {
  return n == 1 || n == 3 || n == 4 ? (channels_ = n, 1) : 0;
}

std::int16_t QI_ImagePICT::setBitsPerChannel(std::int32_t n) {
  return n == 8 ? (bitsPerChannel_ = n, 1) : 0;
}

std::int16_t QI_ImagePICT::setBytesPerChannel(std::int32_t n) {
  return n == 1 ? setBitsPerChannel(8) : 0;
}

std::int16_t QI_ImagePICT::setPixelType(std::int32_t code) {
  const std::int32_t channels = code == QI_PIXEL_RGB    ? 3
                                : code == QI_PIXEL_RGBA ? 4
                                : code == QI_PIXEL_GRAY ? 1
                                                        : 0;
  if (channels == 0) return 0;
  pixelType_ = code;
  channels_ = channels;
  return 1;
}

std::int16_t QI_ImagePICT::setLayout(std::int32_t code) {
  return code == 1 ? (layout_ = code, 1) : 0;
}

std::int16_t QI_ImagePICT::setCompression(std::int32_t code) {
  return code == QI_COMPRESSION_PACKBITS ? (compression_ = code, 1) : 0;
}

std::int32_t QI_ImagePICT::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
  if (!openStream(widePath, wideMode)) return 0;
  writing_ = WritesTo(wideMode);
  return 1;
}

std::int32_t QI_ImagePICT::attach(std::FILE* stream, std::int32_t writing) {
  close();
  stream_ = stream;
  writing_ = writing != 0;
  return stream ? 1 : 0;
}

std::int32_t QI_ImagePICT::close() {
  if (stream_ && writing_ && pos_ > kPrefix) {
    // End of picture on a word boundary, then the low 16 bits of the picture's size.
    if (pos_ & 1) std::fputc(0, stream_), ++pos_;
    std::fputc(0, stream_), std::fputc(0xFF, stream_), pos_ += 2;
    if (std::fseek(stream_, static_cast<long>(kPrefix), SEEK_SET) == 0)
      qi::WriteBE16(stream_, static_cast<std::uint16_t>(pos_ - kPrefix));
  }
  closeStream();
  writing_ = false;
  pos_ = 0;
  return 1;
}

// ---- Reading ---------------------------------------------------------------------------------

std::size_t QI_ImagePICT::Bytes(std::uint8_t* out, std::size_t n, bool quiet) {
  const std::size_t got = hitEnd_ ? 0 : std::fread(out, 1, n, stream_);
  if (got < n) {
    std::memset(out + got, 0, n - got);
    if (!quiet) std::fputs("EOF / read error\n", stderr);
    hitEnd_ = true;
  }
  pos_ += n;
  return got;
}

std::uint8_t QI_ImagePICT::Byte() {
  std::uint8_t b;
  Bytes(&b, 1);
  return b;
}

std::uint16_t QI_ImagePICT::Word() {
  std::uint8_t b[2];
  Bytes(b, 2);
  return vx::LoadBE16(b);
}

std::uint32_t QI_ImagePICT::Long() {
  std::uint8_t b[4];
  Bytes(b, 4);
  return vx::LoadBE32(b);
}

void QI_ImagePICT::Skip(std::uint64_t n) {
  std::uint8_t piece[1024];
  while (n > 0) {
    const std::size_t k = static_cast<std::size_t>(std::min<std::uint64_t>(n, sizeof piece));
    if (Bytes(piece, k, true) < k) {
      std::fputs("EOF / read error while \n", stderr);
      return;
    }
    n -= k;
  }
}

void QI_ImagePICT::ResetRead() {
  lines_ = {};
  drawing_ = false;
  record_ = Record{};
  penX_ = penY_ = 0;
  lineCounter_ = 0;
  hitEnd_ = false;
  pos_ = 0;
  version_ = 0;
  channels_ = 3;
  bitsPerChannel_ = 8;
  pixelType_ = QI_PIXEL_RGB;
  compression_ = QI_COMPRESSION_PACKBITS;
}

std::int32_t QI_ImagePICT::readHeader() {
  const auto fail = [this] {
    close();
    return 0;
  };
  if (!stream_ || writing_) return fail();
  ResetRead();
  if (!StreamSize(stream_, &fileSize_) || std::fseek(stream_, 0, SEEK_SET) != 0) return fail();
  Skip(kPrefix);
  Word();  // picture size: only its low 16 bits survive in version 2
  frameTop_ = Signed16(Word());
  frameLeft_ = Signed16(Word());
  const std::int32_t bottom = Signed16(Word()), right = Signed16(Word());
  if (hitEnd_ || right <= frameLeft_ || bottom <= frameTop_) return fail();
  width_ = right - frameLeft_;
  height_ = bottom - frameTop_;
  std::uint8_t b = 0;
  while (!hitEnd_ && (b = Byte()) == 0) {
  }
  if (b != 0x11) {
    std::fputs("No version number\n", stderr);
    return fail();
  }
  const std::uint8_t v = Byte();
  if (v == 1) {
    version_ = 1;
  } else if (v == 2) {
    if (Byte() != 0xFF) {
      std::fputs("can only do version 2, subcode 0xff\n", stderr);
      return fail();
    }
    version_ = 2;
  } else {
    std::fputs("Unknown version\n", stderr);
    return fail();
  }
  try {
    for (;;) {
      // A stream that ended before the end of the picture has nothing more to give.
      if (hitEnd_) return fail();
      std::int32_t op;
      if (version_ == 2) {
        if (pos_ & 1) Byte();
        op = Word();
      } else {
        op = Byte();
      }
      if (hitEnd_) return fail();
      // An empty picture, or a line drawing; blank paper is not worth more than kMaxBlank.
      if (op == 0x00FF)
        return drawing_ || std::uint64_t(width_) * static_cast<std::uint64_t>(height_) <= kMaxBlank
                   ? 1
                   : fail();
      if (const QI_PictOpcode* e = opcodeEntry(op)) {
        if (e->handler) {
          if (op >= 0x20 && op <= 0x23 && !drawing_ && !StartDrawing()) return fail();
          if (!e->handler(*this, op)) return fail();
          if (IsPixelRecord(op)) return 1;
        } else if (e->length == -1) {
          Skip(Word());
        } else if (e->length < -1) {
          std::fprintf(stderr, "can't do length of %d\n", static_cast<int>(e->length));
          return fail();
        } else {
          Skip(static_cast<std::uint64_t>(e->length));
        }
      } else if (op == 0x0C00) {
        Skip(24);
      } else if (op <= 0xAF) {
        Skip(Word());
      } else if (op <= 0xCF) {
      } else if (op <= 0xFE) {
        Skip(Long());
      } else if (op >= 0x0100 && op <= 0x7FFF) {
        Skip(static_cast<std::uint64_t>((op >> 7) & 0xFF));
      } else if (op >= 0x8000 && op <= 0x80FF) {
      } else if (op >= 0x8100) {
        Skip(Long());
      } else {
        std::fprintf(stderr, "can't handle opcode of %x\n", static_cast<unsigned>(op));
        return fail();
      }
    }
  } catch (const std::bad_alloc&) {
    return fail();
  }
}

bool QI_ImagePICT::SkipRegion(QI_ImagePICT& p, std::int32_t) {
  const std::uint16_t size = p.Word();
  if (size < 2) return false;
  p.Skip(size - 2u);
  return true;
}

bool QI_ImagePICT::SkipText(QI_ImagePICT& p, std::int32_t op) {
  p.Skip(op == 0x28 ? 4 : op == 0x2B ? 2 : 1);  // txLoc, dh and dv, or one of them
  p.Skip(p.Byte());
  return true;
}

bool QI_ImagePICT::SkipLongComment(QI_ImagePICT& p, std::int32_t) {
  p.Skip(2);
  p.Skip(p.Word());
  return true;
}

bool QI_ImagePICT::ReadPattern(QI_ImagePICT& p, std::int32_t) {
  const std::uint16_t type = p.Word();
  if (type == 2) {  // dither pattern: the old pattern and its RGB colour
    p.Skip(8 + 6);
    return true;
  }
  if (type != 1) {
    std::fputs("unknown pattern type in read_pattern\n", stderr);
    return false;
  }
  p.Skip(8);
  Record r;
  if (!p.ReadPixMap(p.Word(), &r, true)) return false;
  const bool packed = r.rowBytes >= 8;
  for (std::int32_t k = 0; k < r.height && !p.hitEnd_; ++k)
    p.Skip(!packed ? r.rowBytes : r.rowBytes > 250 ? p.Word() : p.Byte());
  return true;
}

bool QI_ImagePICT::ReadPixMap(std::int32_t rowBytes, Record* r, bool withTable) {
  r->rowBytes = rowBytes & 0x7FFF;
  const std::int32_t top = Signed16(Word()), left = Signed16(Word());
  r->height = Signed16(Word()) - top;
  r->width = Signed16(Word()) - left;
  if (!(rowBytes & 0x8000)) {  // a one-bit bit map: white paper, black ink
    r->pixelSize = 1;
    r->table = {{0xFFFF, 0xFFFF, 0xFFFF}, {0, 0, 0}};
    return true;
  }
  Skip(2);  // pmVersion
  r->packType = Word();
  Skip(12);  // packSize, hRes, vRes
  Skip(2);   // pixelType
  r->pixelSize = Word();
  r->cmpCount = Word();
  Skip(14);  // cmpSize, planeBytes, pmTable, pmReserved
  if (!withTable) return true;
  Skip(4);  // ctSeed
  const bool device = Word() & 0x8000;
  const std::uint32_t last = Word();
  try {
    r->table.assign(last + 1, {0, 0, 0});
  } catch (const std::bad_alloc&) {
    std::fputs("no memory for colour table\n", stderr);
    return false;
  }
  for (std::uint32_t i = 0; i <= last; ++i) {
    const std::uint32_t value = Word();
    std::uint8_t rgb[6];
    Bytes(rgb, 6);
    const std::uint32_t at = device ? i : value;
    if (at > last) {
      std::fputs("pixel value greater than colour table size\n", stderr);
      return false;
    }
    r->table[at] = {vx::LoadBE16(rgb), vx::LoadBE16(rgb + 2), vx::LoadBE16(rgb + 4)};
  }
  return true;
}

bool QI_ImagePICT::PixelRecord(QI_ImagePICT& p, std::int32_t op) {
  if (p.drawing_) return false;
  Record r;
  if (op == 0x9A) {
    p.Skip(4);  // base address
    if (!p.ReadPixMap(p.Word(), &r, false)) return false;
  } else if (!p.ReadPixMap(p.Word(), &r, true)) {
    return false;
  }
  p.Skip(8 + 8 + 2);  // source and destination rectangles, transfer mode
  if ((op == 0x91 || op == 0x99) && !SkipRegion(p, op)) return false;
  if (p.hitEnd_ || r.width <= 0 || r.height <= 0) return false;
  const std::int64_t w = r.width;
  std::int64_t need;
  switch (r.pixelSize) {
    case 1:
    case 2:
    case 4:
    case 8:
      if (r.table.empty()) return false;
      need = (w * r.pixelSize + 7) / 8;
      break;
    case 16:
      need = 2 * w;
      break;
    case 32:
      if (r.packType != 1 && r.cmpCount != 3 && r.cmpCount != 4) return false;
      need = r.packType == 1 ? 4 * w : r.cmpCount * w;
      break;
    default:
      std::fputs("bad bits per pixel in expand_buf\n", stderr);
      return false;
  }
  if (need > r.rowBytes) return false;
  // A packed row holds its count and at least one control and unit per 128 units: a record the
  // file cannot hold so is refused before any of it is decoded. Rows stored whole (below 8
  // bytes) carry on past a cut end instead.
  if (r.rowBytes >= 8) {
    const std::uint64_t unit = r.pixelSize == 16 ? 2 : 1;
    const std::uint64_t row =
        (r.rowBytes > 250 ? 2 : 1) +
        (static_cast<std::uint64_t>(need) + 128 * unit - 1) / (128 * unit) * (1 + unit);
    if (p.fileSize_ - std::min(p.fileSize_, p.pos_) < row * static_cast<std::uint64_t>(r.height))
      return false;
  }
  // The frame may be larger than the record, but not by a picture's worth of blank paper.
  const std::uint64_t frame = std::uint64_t(p.width_) * static_cast<std::uint64_t>(p.height_);
  if (frame > kMaxBlank && frame / 2 > std::uint64_t(w) * static_cast<std::uint64_t>(r.height))
    return false;
  r.present = true;
  p.record_ = std::move(r);
  return true;
}

// The row's bytes as stored: whole below 8 bytes, else PackBits after a one- or two-byte count.
// A row cut short by the end of the file or by its count keeps zeros where bytes are missing.
void QI_ImagePICT::ReadPackedRow(const Record& r, std::vector<std::uint8_t>* out) {
  const std::size_t length = static_cast<std::size_t>(r.rowBytes);
  out->assign(length, 0);
  if (r.rowBytes < 8) {
    Bytes(out->data(), length);
    return;
  }
  const std::size_t n = r.rowBytes > 250 ? Word() : Byte();
  packed_.resize(n);
  Bytes(packed_.data(), n);
  const std::size_t unit = r.pixelSize == 16 ? 2 : 1;
  std::uint8_t* o = out->data();
  std::size_t i = 0, at = 0;
  while (i < n && at < length) {
    const auto c = static_cast<std::int8_t>(packed_[i++]);
    if (c >= 0) {
      const std::size_t k = std::min({(c + std::size_t{1}) * unit, n - i, length - at});
      std::memcpy(o + at, &packed_[i], k);
      i += (c + std::size_t{1}) * unit;
      at += k;
    } else {
      if (n - i < unit) break;
      for (std::int32_t k = 1 - c; k > 0 && length - at >= unit; --k, at += unit)
        std::memcpy(o + at, &packed_[i], unit);
      i += unit;
    }
  }
}

bool QI_ImagePICT::ExpandRow(const Record& r) {
  const std::int32_t w = std::min(r.width, width_);
  const std::uint8_t* s = raw_.data();
  std::uint16_t* d = line_.data();
  if (r.pixelSize <= 8) {
    const std::uint32_t mask = (1u << r.pixelSize) - 1, perByte = 8u / r.pixelSize;
    for (std::int32_t x = 0; x < w; ++x) {
      const std::uint32_t ux = static_cast<std::uint32_t>(x);
      const std::uint32_t shift = (perByte - 1 - ux % perByte) * r.pixelSize;
      const std::size_t index = (s[ux / perByte] >> shift) & mask;
      if (index >= r.table.size()) {
        std::fputs("pixel value greater than colour table size\n", stderr);
        return false;
      }
      std::memcpy(d + 3 * x, r.table[index].data(), 6);
    }
  } else if (r.pixelSize == 16) {
    for (std::int32_t x = 0; x < w; ++x) {
      const std::uint16_t v = vx::LoadBE16(s + 2 * x);
      d[3 * x] = static_cast<std::uint16_t>(((v >> 10) & 31) << 11);
      d[3 * x + 1] = static_cast<std::uint16_t>(((v >> 5) & 31) << 11);
      d[3 * x + 2] = static_cast<std::uint16_t>((v & 31) << 11);
    }
  } else if (r.packType == 1) {
    for (std::int32_t x = 0; x < w; ++x)
      for (int c = 0; c < 3; ++c) d[3 * x + c] = static_cast<std::uint16_t>(s[4 * x + 1 + c] << 8);
  } else {
    // Planes: alpha first when there are four, then red, green, blue.
    const std::size_t plane = static_cast<std::size_t>(r.width);
    const std::uint8_t* red = s + (r.cmpCount == 4 ? plane : 0);
    for (std::int32_t x = 0; x < w; ++x)
      for (int c = 0; c < 3; ++c)
        d[3 * x + c] =
            static_cast<std::uint16_t>(red[c * plane + static_cast<std::size_t>(x)] << 8);
  }
  return true;
}

bool QI_ImagePICT::StartDrawing() {
  const std::uint64_t pixels = std::uint64_t(width_) * static_cast<std::uint64_t>(height_);
  if (pixels > kMaxDrawing) {
    std::fputs("picture too large for a line drawing\n", stderr);
    return false;
  }
  lines_.assign(pixels + 1, 0);
  drawing_ = true;
  bitsPerChannel_ = 1;
  channels_ = 1;
  pixelType_ = QI_PIXEL_LINEART;
  compression_ = QI_COMPRESSION_NONE;
  return true;
}

bool QI_ImagePICT::DrawLine(QI_ImagePICT& p, std::int32_t op) {
  std::int32_t x0 = p.penX_, y0 = p.penY_, x1, y1;
  const auto point = [&p](std::int32_t* x, std::int32_t* y) {
    *y = Signed16(p.Word());  // QuickDraw points are v, h
    *x = Signed16(p.Word());
  };
  const auto delta = [&p](std::int32_t x, std::int32_t y, std::int32_t* nx, std::int32_t* ny) {
    *nx = x + static_cast<std::int8_t>(p.Byte());
    *ny = y + static_cast<std::int8_t>(p.Byte());
  };
  if (op == 0x20 || op == 0x22) point(&x0, &y0);
  if (op == 0x20 || op == 0x21)
    point(&x1, &y1);
  else
    delta(x0, y0, &x1, &y1);
  p.Draw(x0 - p.frameLeft_, y0 - p.frameTop_, x1 - p.frameLeft_, y1 - p.frameTop_);
  p.penX_ = x1, p.penY_ = y1;
  return true;
}

// Bresenham's line with midpoint rounding: step the major axis, the minor coordinate of step i
// is round(i * minor / major) (halves away from the start). Steps outside the frame along the
// major axis are never taken, so a line costs at most the frame's extent.
void QI_ImagePICT::Draw(std::int32_t x0, std::int32_t y0, std::int32_t x1, std::int32_t y1) {
  const std::int64_t dx = std::int64_t{x1} - x0, dy = std::int64_t{y1} - y0;
  const std::int64_t adx = dx < 0 ? -dx : dx, ady = dy < 0 ? -dy : dy;
  const bool xMajor = adx >= ady;
  const std::int64_t major = xMajor ? adx : ady, minor = xMajor ? ady : adx;
  const std::int64_t a0 = xMajor ? x0 : y0, b0 = xMajor ? y0 : x0;
  const std::int64_t sa = (xMajor ? dx : dy) < 0 ? -1 : 1, sb = (xMajor ? dy : dx) < 0 ? -1 : 1;
  const std::int64_t extentA = xMajor ? width_ : height_, extentB = xMajor ? height_ : width_;
  // Steps i with 0 <= a0 + sa * i < extentA.
  std::int64_t lo = 0, hi = major;
  if (sa > 0) {
    lo = std::max<std::int64_t>(lo, -a0);
    hi = std::min<std::int64_t>(hi, extentA - 1 - a0);
  } else {
    lo = std::max<std::int64_t>(lo, a0 - (extentA - 1));
    hi = std::min<std::int64_t>(hi, a0);
  }
  for (std::int64_t i = lo; i <= hi; ++i) {
    const std::int64_t a = a0 + sa * i;
    const std::int64_t b = b0 + sb * (major ? (2 * i * minor + major) / (2 * major) : 0);
    if (b < 0 || b >= extentB) continue;
    const std::int64_t x = xMajor ? a : b, y = xMajor ? b : a;
    lines_[static_cast<std::size_t>(y * width_ + x)] = 1;
  }
}

std::int32_t QI_ImagePICT::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!stream_ || writing_ || !dest || lineCounter_ >= height_ || row < 0 ||
      row >= dest->getHeight() || dest->getWidth() < width_ || width_ <= 0)
    return 0;
  const std::size_t width = static_cast<std::size_t>(width_);
  try {
    line_.assign(3 * width, 0xFFFF);  // paper where the picture puts nothing
    if (record_.present) {
      if (lineCounter_ < record_.height) {
        ReadPackedRow(record_, &raw_);
        if (!ExpandRow(record_)) return 0;
      }
    } else if (drawing_) {
      const std::uint8_t* ink = &lines_[static_cast<std::size_t>(lineCounter_) * width];
      for (std::size_t x = 0; x < width; ++x)
        if (ink[x]) line_[3 * x] = line_[3 * x + 1] = line_[3 * x + 2] = 0;
    }
  } catch (const std::bad_alloc&) {
    return 0;
  }
  qi::StoreLine16(dest, row, line_.data(), 3, width_);
  ++lineCounter_;
  return 1;
}

// ---- Writing ---------------------------------------------------------------------------------

std::int32_t QI_ImagePICT::writeHeader() {
  const auto fail = [this] {
    close();
    return 0;
  };
  if (!stream_ || !writing_ || width_ < 1 || width_ > kMaxWriteWidth || height_ < 1 ||
      height_ > 0x7FFF)
    return fail();
  const auto w = static_cast<std::uint16_t>(width_), h = static_cast<std::uint16_t>(height_);
  const std::uint16_t rect[4] = {0, 0, h, w};
  // Rows of one pixel are stored whole, and other readers take them as the components alone.
  const std::int32_t rowBytes = width_ == 1 ? (channels_ == 4 ? 4 : 3) : 4 * width_;
  std::vector<std::uint16_t> words = {0};  // the picture size, set at close
  words.insert(words.end(), rect, rect + 4);
  const std::uint16_t head[] = {0x0011, 0x02FF, 0x0C00, 0xFFFE, 0, 0x48, 0, 0x48, 0};
  words.insert(words.end(), head, head + 9);
  words.insert(words.end(), rect, rect + 4);
  const std::uint16_t clip[] = {0, 0, 0x001E, 0x0001, 10};
  words.insert(words.end(), clip, clip + 5);
  words.insert(words.end(), rect, rect + 4);
  const std::uint16_t pixmap[] = {0x009A, 0, 0x00FF, static_cast<std::uint16_t>(0x8000 | rowBytes)};
  words.insert(words.end(), pixmap, pixmap + 4);
  words.insert(words.end(), rect, rect + 4);
  // Version 0, pack type 4 (planes), 72 dpi, RGBDirect, 32 bits in 3 or 4 components of 8.
  const auto cmp = static_cast<std::uint16_t>(channels_ == 4 ? 4 : 3);
  const std::uint16_t fields[] = {0, 4, 0, 0, 0x48, 0, 0x48, 0, 16, 32, cmp, 8};
  words.insert(words.end(), fields, fields + sizeof fields / 2);
  words.insert(words.end(), 6, 0);            // plane bytes, table, reserved
  words.insert(words.end(), rect, rect + 4);  // source
  words.insert(words.end(), rect, rect + 4);  // destination
  words.push_back(0);                         // srcCopy
  std::vector<std::uint8_t> bytes(kPrefix + 2 * words.size(), 0);
  for (std::size_t i = 0; i < words.size(); ++i) vx::StoreBE16(&bytes[kPrefix + 2 * i], words[i]);
  if (std::fseek(stream_, 0, SEEK_SET) != 0 ||
      std::fwrite(bytes.data(), 1, bytes.size(), stream_) != bytes.size())
    return fail();
  pos_ = bytes.size();
  lineCounter_ = 0;
  return 1;
}

// A row's planes (alpha first when kept), PackBits-coded plane by plane after the row's byte
// count. One pixel a row is below PackBits' 8-byte minimum: such rows go whole.
bool QI_ImagePICT::EncodeRow(QI_ImageMem* src, std::int32_t row) {
  const std::size_t w = static_cast<std::size_t>(width_);
  const std::size_t planes = channels_ == 4 ? 4 : 3, first = 4 - planes;
  raw_.assign(4 * w, 0);
  for (std::size_t x = 0; x < w; ++x) {
    std::uint8_t v[4];
    src->getPixel8(static_cast<std::int32_t>(x), row, &v[1], &v[2], &v[3], &v[0]);
    for (std::size_t c = first; c < 4; ++c) raw_[(c - first) * w + x] = v[c];
  }
  if (w == 1) {
    packed_.assign(raw_.begin(), raw_.begin() + static_cast<std::ptrdiff_t>(planes));
    return true;
  }
  const std::size_t countBytes = 4 * w > 250 ? 2 : 1;
  packed_.assign(countBytes, 0);
  for (std::size_t c = 0; c < planes; ++c) PackBits(&raw_[c * w], w, &packed_);
  const std::size_t n = packed_.size() - countBytes;
  if (countBytes == 2)
    vx::StoreBE16(packed_.data(), static_cast<std::uint16_t>(n));
  else
    packed_[0] = static_cast<std::uint8_t>(n);
  return true;
}

std::int32_t QI_ImagePICT::writeLine(QI_ImageMem* src, std::int32_t row) {
  if (!stream_ || !writing_ || !src || lineCounter_ >= height_ || row < 0 ||
      row >= src->getHeight() || src->getWidth() < width_ || pos_ <= kPrefix)
    return 0;
  try {
    if (!EncodeRow(src, row)) return 0;
  } catch (const std::bad_alloc&) {
    return 0;
  }
  if (std::fwrite(packed_.data(), 1, packed_.size(), stream_) != packed_.size()) return 0;
  pos_ += packed_.size();
  ++lineCounter_;
  return 1;
}
