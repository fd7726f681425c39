// GIF images, read only: one image of the file (the first unless selectImage picks another) on
// the logical screen, transparent black outside its frame, its transparent index as alpha.
// Always RGBA, 8 bits, top line first.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "imagelib/base/qi_image.h"

class QI_ImageGIF : public QI_ImageFile {
 public:
  QI_ImageGIF();
  ~QI_ImageGIF() override;

  std::int16_t selectImage(std::int32_t i) override;
  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;  // 0: no writer
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;  // 0

 private:
  bool Decode();

  std::uint64_t fileSize_ = 0;
  bool decoded_ = false;
  std::vector<std::uint8_t> rgba_;  // the whole picture, top line first
};

// The class when giflib is built in, else null.
std::unique_ptr<QI_ImageFile> MakeImageGIF();
