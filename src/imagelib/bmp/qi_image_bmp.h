// Windows and OS/2 bitmaps: 1/4/8-bit palette (verbatim, RLE4, RLE8) and 16/24/32-bit pixels with
// bit-field masks, bottom line first unless the height is negative. Writes 24-bit BI_RGB, or
// 32-bit BI_RGB with alpha in the fourth byte of each pixel (B, G, R, A) for four channels.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "imagelib/base/qi_image.h"

class QI_ImageBMP : public QI_ImageFile {
 public:
  QI_ImageBMP();
  ~QI_ImageBMP() override;

  std::int16_t setChannels(std::int32_t n) override;         // 1, 3 or 4
  std::int16_t setBitsPerChannel(std::int32_t n) override;   // 8 only
  std::int16_t setBytesPerChannel(std::int32_t n) override;  // 1 only
  std::int16_t setPixelType(std::int32_t code) override;     // grey, RGB or RGBA
  std::int16_t setLayout(std::int32_t code) override;        // 0 only
  std::int16_t setCompression(std::int32_t code) override;   // none; RLE is read only

  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;

 private:
  bool readRleLine();

  std::int32_t bits_ = 0;        // bits a pixel in the file
  std::uint32_t coding_ = 0;     // 0 verbatim, 1 RLE8, 2 RLE4, 3 bit fields
  std::size_t rowBytes_ = 0;     // stored line length, padded to 4 bytes
  std::uint32_t masks_[4] = {};  // red, green, blue, alpha
  std::int32_t mapSize_ = 0;
  std::array<std::uint8_t, 256 * 3> map_{};
  std::vector<std::uint8_t> row_;   // one stored line, or one line of RLE indices
  std::vector<std::uint8_t> line_;  // one decoded line, RGB or RGBA
  bool rleEnd_ = false;             // end of bitmap seen
  std::int32_t rleSkipLines_ = 0;   // blank lines still due from a delta
  std::int32_t rleStartX_ = 0;      // where the line after a delta starts
};
