// ZSoft PCX images, top line first, run-length coded lines. Reads 1/4/8-bit palette pictures
// (1 bit in 1 or 4 planes, 4 bits in one plane, 8 bits with the 256-entry map after the 0x0C
// byte at the file's end) and 24-bit pictures in three planes. Writes 8-bit grey through a grey
// map and 24-bit RGB in three planes.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "imagelib/base/qi_image.h"

class QI_ImagePCX : public QI_ImageFile {
 public:
  QI_ImagePCX();
  ~QI_ImagePCX() override;

  std::int16_t setChannels(std::int32_t n) override;         // 1, 3 or 4 (alpha not kept)
  std::int16_t setBitsPerChannel(std::int32_t n) override;   // 8 only
  std::int16_t setBytesPerChannel(std::int32_t n) override;  // 1 only
  std::int16_t setPixelType(std::int32_t code) override;     // grey, RGB or RGBA
  std::int16_t setLayout(std::int32_t code) override;        // 1 only
  std::int16_t setCompression(std::int32_t code) override;   // run-length only

  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  // Writing an 8-bit file appends the 0x0C byte and the map here.
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;

 private:
  std::int32_t bits_ = 0;      // bits a pixel in one plane
  std::int32_t planes_ = 0;    // planes a line
  std::size_t lineBytes_ = 0;  // bytes a plane line (even)
  bool coded_ = true;          // run-length (else verbatim)
  bool writing_ = false;
  std::int32_t runLeft_ = 0;  // a run that went on past the end of the previous line
  std::uint8_t runValue_ = 0;
  std::array<std::uint8_t, 256 * 3> map_{};
  std::vector<std::uint8_t> line_;  // one line of all planes, reused
  std::vector<std::uint8_t> out_;   // one coded line when writing
  std::vector<std::uint8_t> rgb_;   // one decoded line, stored whole
};
