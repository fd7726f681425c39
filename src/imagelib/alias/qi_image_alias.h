// Alias pix images: 24-bit RGB in runs of up to 255 pixels, top line first.
#pragma once

#include <cstdint>
#include <vector>

#include "imagelib/base/qi_image.h"

class QI_ImageALIAS : public QI_ImageFile {
 public:
  QI_ImageALIAS();
  ~QI_ImageALIAS() override;

  std::int16_t setChannels(std::int32_t n) override;         // 3 only
  std::int16_t setBitsPerChannel(std::int32_t n) override;   // 8 only
  std::int16_t setBytesPerChannel(std::int32_t n) override;  // 1 only
  std::int16_t setPixelType(std::int32_t code) override;     // RGB only
  std::int16_t setLayout(std::int32_t code) override;        // 0 only
  std::int16_t setCompression(std::int32_t code) override;   // run-length only

  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;

 private:
  std::vector<std::uint8_t> runs_;  // one line's runs, reused from line to line
  std::vector<std::uint8_t> rgb_;   // one decoded line, stored whole
};
