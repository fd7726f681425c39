// Colour-map files ("MAP", as ImageMagick reads and writes them): no header, a map of N entries
// (R, G, B bytes when N <= 256, else big-endian 16-bit words) and one index a pixel (a byte, or a
// big-endian word past 256 entries), top line first. The size is not in the file, so we append a
// 16-byte trailer that other readers ignore: "QIMI", then width, height and N, big-endian 32-bit.
// Without it the size comes from width and height set before readHeader, else a square picture
// with a 256-entry map is inferred from the byte count.
//
// Writing always stores 256 byte entries (padded with black), one byte a pixel and the trailer:
// a picture of at most 256 colours keeps them exactly (map in order of first use, top line
// first), more are reduced to a fixed 3-3-2 palette, grey goes through a 256-grey ramp. Alpha is
// not kept. The file is written when the last line arrives.
#pragma once

#include <cstdint>
#include <vector>

#include "imagelib/base/qi_image.h"

class QI_ImageMI : public QI_ImageFile {
 public:
  QI_ImageMI();
  ~QI_ImageMI() override;

  std::int16_t setChannels(std::int32_t n) override;         // 1, 3 or 4 (alpha not kept)
  std::int16_t setBitsPerChannel(std::int32_t n) override;   // 8 only
  std::int16_t setBytesPerChannel(std::int32_t n) override;  // 1 only
  std::int16_t setPixelType(std::int32_t code) override;     // grey, RGB, RGBA or colour-mapped
  std::int16_t setLayout(std::int32_t code) override;        // 0 only
  std::int16_t setCompression(std::int32_t code) override;   // none only

  void getMapEntry(std::int32_t i, std::uint8_t* r, std::uint8_t* g, std::uint8_t* b) override;
  std::int32_t getMapSize() override;
  std::int32_t getMapMaxIndex() override;

  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;
  // The indices are read whole at the first call: rows come bottom first, the file is top first.
  // A colour-mapped destination gets indices and map, any other one RGB.
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;

 private:
  bool LoadIndices();
  bool WriteFile();
  void Reset();

  std::uint32_t entries_ = 0;              // map entries in the file
  std::vector<std::uint16_t> map_;         // R, G, B per entry, as stored (8 or 16 bits)
  std::vector<std::uint16_t> indices_;     // the whole picture, top line first
  std::vector<std::uint32_t> pixels_;      // 0xRRGGBB of the picture being written, top first
  std::vector<std::uint8_t> rowsWritten_;  // by row
  std::int32_t rowsLeft_ = 0;
  bool loaded_ = false;
};
