#include <algorithm>
#include <cmath>
#include <cstring>

#include "base/bytes.h"
#include "base/worker_pool.h"
#include "still/targa/targa_format.h"

namespace vx::targa {
namespace {

// Copies UTF-8 text into a NUL-terminated field of `n` bytes, never splitting a character.
void PutText(std::uint8_t* field, std::size_t n, const std::string& text) {
  std::size_t len = std::min(text.size(), n - 1);
  if (len < text.size())
    while (len > 0 && (static_cast<unsigned char>(text[len]) & 0xC0) == 0x80) --len;
  std::memcpy(field, text.data(), len);
}

// One line's pixels in file order (B, G, R[, A]), from a BGRA or RGBA row.
void FileLine(const std::uint8_t* row, int width, bool rgba, int bpp, std::uint8_t* out) {
  const int r = rgba ? 0 : 2, b = rgba ? 2 : 0;
  for (int x = 0; x < width; ++x, row += 4, out += bpp) {
    out[0] = row[b];
    out[1] = row[1];
    out[2] = row[r];
    if (bpp == 4) out[3] = row[3];
  }
}

// Run-length packets of one line; packets never cross a line end, as version 2 readers expect.
void PackLine(const std::uint8_t* px, int width, int bpp, std::vector<std::uint8_t>* out) {
  auto same = [&](int i, int j) {
    return std::memcmp(px + i * bpp, px + j * bpp, static_cast<std::size_t>(bpp)) == 0;
  };
  int i = 0;
  while (i < width) {
    int j = i + 1;
    while (j < width && j - i < 128 && same(i, j)) ++j;
    if (j - i >= 2) {
      out->push_back(static_cast<std::uint8_t>(0x80 | (j - i - 1)));
      out->insert(out->end(), px + i * bpp, px + (i + 1) * bpp);
    } else {
      // Literal pixels up to where the next run of two begins.
      j = i + 1;
      while (j < width && j - i < 128 && !(j + 1 < width && same(j, j + 1))) ++j;
      out->push_back(static_cast<std::uint8_t>(j - i - 1));
      out->insert(out->end(), px + i * bpp, px + j * bpp);
    }
    i = j;
  }
}

}  // namespace

void Fraction(double value, std::uint16_t out[2]) {
  out[0] = out[1] = 0;
  if (!(value > 0.0) || !std::isfinite(value) || value > 65535.0) return;
  // Continued fraction convergents while both terms fit.
  double x = value;
  std::uint64_t p0 = 0, q0 = 1, p1 = 1, q1 = 0;
  for (int i = 0; i < 32; ++i) {
    const double a = std::floor(x);
    const std::uint64_t ai = static_cast<std::uint64_t>(a);
    const std::uint64_t p2 = ai * p1 + p0, q2 = ai * q1 + q0;
    if (p2 > 65535 || q2 > 65535) break;
    p0 = p1, q0 = q1, p1 = p2, q1 = q2;
    if (x - a < 1e-9) break;
    x = 1.0 / (x - a);
  }
  if (q1 == 0 || p1 == 0) return;
  out[0] = static_cast<std::uint16_t>(p1);
  out[1] = static_cast<std::uint16_t>(q1);
}

bool EncodeTarga(const TargaWriteInfo& info, const std::uint8_t* pixels, std::int64_t rowStride,
                 bool rgba, int width, int height, WorkerPool* pool,
                 std::vector<std::uint8_t>* out) {
  if (!pixels || width < 1 || height < 1 || width > 65535 || height > 65535) return false;
  const int bpp = info.alpha ? 4 : 3;
  const std::size_t idLength = std::min<std::size_t>(info.imageId.size(), 255);
  std::uint8_t h[kHeaderSize] = {};
  h[0] = static_cast<std::uint8_t>(idLength);
  h[2] = info.rle ? kTypeTrueColorRle : kTypeTrueColor;
  StoreLE16(h + 12, static_cast<std::uint16_t>(width));
  StoreLE16(h + 14, static_cast<std::uint16_t>(height));
  h[16] = static_cast<std::uint8_t>(bpp * 8);
  h[17] = static_cast<std::uint8_t>((info.alpha ? 8 : 0) | (info.topToBottom ? 0x20 : 0));

  // Bands of lines coded side by side, then joined in file order.
  const int bands = pool ? std::min(height, 4 * pool->Concurrency()) : 1;
  std::vector<std::vector<std::uint8_t>> coded(static_cast<std::size_t>(bands));
  auto codeBand = [&](int k) {
    const int y0 = static_cast<int>(std::int64_t{height} * k / bands);
    const int y1 = static_cast<int>(std::int64_t{height} * (k + 1) / bands);
    std::vector<std::uint8_t>& dst = coded[static_cast<std::size_t>(k)];
    std::vector<std::uint8_t> line(static_cast<std::size_t>(width) * bpp);
    dst.reserve(line.size() * static_cast<std::size_t>(y1 - y0) + (info.rle ? 1024 : 0));
    for (int y = y0; y < y1; ++y) {
      const int row = info.topToBottom ? y : height - 1 - y;
      FileLine(pixels + row * rowStride, width, rgba, bpp, line.data());
      if (info.rle) {
        PackLine(line.data(), width, bpp, &dst);
      } else {
        dst.insert(dst.end(), line.begin(), line.end());
      }
    }
  };
  if (bands > 1) {
    pool->ParallelFor(bands, codeBand);
  } else {
    codeBand(0);
  }
  std::size_t dataBytes = 0;
  for (const auto& c : coded) dataBytes += c.size();

  out->clear();
  out->reserve(kHeaderSize + idLength + dataBytes + kExtensionSize + kFooterSize);
  out->insert(out->end(), h, h + kHeaderSize);
  out->insert(out->end(), info.imageId.begin(), info.imageId.begin() + idLength);
  for (const auto& c : coded) out->insert(out->end(), c.begin(), c.end());
  if (out->size() > 0xFFFFFFFFu - kExtensionSize - kFooterSize) return false;
  const auto extOffset = static_cast<std::uint32_t>(out->size());

  std::uint8_t e[kExtensionSize] = {};
  StoreLE16(e, kExtensionSize);
  PutText(e + kExtAuthor, 41, info.author);
  // The comment's lines, each cut to 80 bytes; up to four.
  std::size_t start = 0;
  for (int line = 0; line < 4 && start < info.comment.size(); ++line) {
    std::size_t end = info.comment.find('\n', start);
    if (end == std::string::npos) end = info.comment.size();
    PutText(e + kExtComment + line * 81, 81, info.comment.substr(start, end - start));
    start = end + 1;
  }
  for (int i = 0; i < 6; ++i) StoreLE16(e + kExtDate + 2 * i, info.date[i]);
  PutText(e + kExtJob, 41, info.job);
  for (int i = 0; i < 3; ++i) StoreLE16(e + kExtJobTime + 2 * i, info.jobTime[i]);
  PutText(e + kExtSoftware, 41, info.software);
  e[kExtSoftwareVersion + 2] = ' ';
  StoreLE32(e + kExtKeyColor, info.keyColor);
  StoreLE16(e + kExtAspect, info.aspect[0]);
  StoreLE16(e + kExtAspect + 2, info.aspect[1]);
  StoreLE16(e + kExtGamma, info.gamma[0]);
  StoreLE16(e + kExtGamma + 2, info.gamma[1]);
  e[kExtAttributes] = info.alpha ? 3 : 0;
  out->insert(out->end(), e, e + kExtensionSize);

  std::uint8_t footer[kFooterSize] = {};
  StoreLE32(footer, extOffset);
  std::memcpy(footer + 8, kSignature, sizeof kSignature);
  out->insert(out->end(), footer, footer + kFooterSize);
  return true;
}

}  // namespace vx::targa
