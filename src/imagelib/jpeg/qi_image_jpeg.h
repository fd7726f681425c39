// JPEG (JFIF) images: baseline and progressive, grey, RGB, YCbCr and CMYK (Adobe's inverted form
// too) read as grey or RGB, 8 bits, top line first; written as grey or RGB at getQuality()
// (90 unless set). The EXIF orientation is reported, never applied.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "imagelib/base/qi_image.h"

struct QiJpegState;

class QI_ImageJPEG : public QI_ImageFile {
 public:
  QI_ImageJPEG();
  ~QI_ImageJPEG() override;

  std::int16_t setChannels(std::int32_t n) override;         // 1, 3 or 4 (alpha is dropped)
  std::int16_t setBitsPerChannel(std::int32_t n) override;   // 8
  std::int16_t setBytesPerChannel(std::int32_t n) override;  // 1
  std::int16_t setPixelType(std::int32_t code) override;     // RGB, RGBA or grey
  void setQuality(std::int32_t q) override;                  // 1 to 100
  std::int32_t getQuality() override;
  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  // Finishes a file being written.
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;

  // EXIF orientation of the file read last (1 to 8; 1 without one).
  std::int32_t getOrientation() const { return orientation_; }

 private:
  QiJpegState* state_ = nullptr;
  std::int32_t quality_ = 90;
  std::int32_t orientation_ = 1;
  bool writing_ = false;
  std::vector<std::uint8_t> line_;
};

// The class when libjpeg is built in, else null.
std::unique_ptr<QI_ImageFile> MakeImageJPEG();
