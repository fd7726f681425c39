// Netpbm images: PPM (P3 text, P6 binary RGB) and PGM (P2 text, P5 binary grey). A maxval up to
// 255 reads as 8-bit, above it as 16-bit (samples big-endian); other maxvals are scaled to the
// full range, rounding to nearest. Output is always binary, maxval 255 or 65535. Lines are
// stored top first.
#pragma once

#include <cstdint>
#include <vector>

#include "imagelib/base/qi_image.h"

// What the two classes share: the header, the samples and the line placement.
class QI_ImagePNM : public QI_ImageFile {
 public:
  ~QI_ImagePNM() override;

  std::int16_t setChannels(std::int32_t n) override;         // 1, 3 or 4
  std::int16_t setPixelType(std::int32_t code) override;     // grey, RGB or RGBA
  std::int16_t setBitsPerChannel(std::int32_t n) override;   // 8 or 16
  std::int16_t setBytesPerChannel(std::int32_t n) override;  // 1 or 2
  std::int16_t setCompression(std::int32_t code) override;   // none only

  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;
  // The whole raster is read at the first call, since rows come bottom first for PPM.
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;

  std::uint32_t getMaxval() const { return maxval_; }

 protected:
  explicit QI_ImagePNM(std::int32_t channels);

 private:
  bool LoadRaster();

  std::int32_t fileChannels_;  // 3 for PPM, 1 for PGM
  bool ascii_ = false;
  std::uint32_t maxval_ = 255;
  std::uint64_t dataStart_ = 0;
  std::uint64_t fileSize_ = 0;
  bool loaded_ = false;
  std::vector<std::uint16_t> samples_;  // the whole raster, top line first
  std::vector<std::uint8_t> line_;      // one stored line, reused
  std::vector<std::uint8_t> bytes_;     // one 8-bit line handed to the memory image
};

class QI_ImagePPM : public QI_ImagePNM {
 public:
  QI_ImagePPM();
};

class QI_ImagePGM : public QI_ImagePNM {
 public:
  QI_ImagePGM();
};
