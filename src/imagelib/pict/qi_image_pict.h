// QuickDraw PICT pictures. Reading walks the opcode stream (version 1 or 2) to the first bitmap
// or pixmap record and presents its pixels as RGB, top line first; line opcodes met before it
// make the picture a one-bit line drawing instead. Writing produces a version 2 picture holding
// one 32-bit DirectBitsRect whose component planes are PackBits-coded row by row.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "imagelib/base/qi_image.h"

class QI_ImagePICT;

// One entry of the opcode table (0x00 to 0xA1). `length` is the bytes to skip, or -1 when a
// 16-bit length precedes the data; an entry with a handler is processed by it instead.
struct QI_PictOpcode {
  const char* name;
  std::int32_t length;
  bool (*handler)(QI_ImagePICT& pict, std::int32_t opcode);  // false: the picture is bad
  const char* description;
};

class QI_ImagePICT : public QI_ImageFile {
 public:
  QI_ImagePICT();
  ~QI_ImagePICT() override;

  std::int16_t setChannels(std::int32_t n) override;         // 1, 3 or 4
  std::int16_t setBitsPerChannel(std::int32_t n) override;   // 8 only
  std::int16_t setBytesPerChannel(std::int32_t n) override;  // 1 only
  std::int16_t setPixelType(std::int32_t code) override;     // grey, RGB or RGBA
  std::int16_t setLayout(std::int32_t code) override;        // 1 only
  std::int16_t setCompression(std::int32_t code) override;   // PackBits only

  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  // Output gets its end opcode and picture size here.
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;

  // The table entry of opcodes 0x00 to 0xA1, null above.
  static const QI_PictOpcode* opcodeEntry(std::int32_t opcode);
  std::int32_t getVersion() const { return version_; }
  // True when the picture read last had a bitmap or pixmap record (else it is an empty
  // picture or a line drawing, which read as white paper with black lines).
  bool hasPixelRecord() const { return record_.present; }

  // Opcode handlers (the table's).
  static bool SkipRegion(QI_ImagePICT& p, std::int32_t op);
  static bool ReadPattern(QI_ImagePICT& p, std::int32_t op);
  static bool DrawLine(QI_ImagePICT& p, std::int32_t op);
  static bool SkipText(QI_ImagePICT& p, std::int32_t op);
  static bool SkipLongComment(QI_ImagePICT& p, std::int32_t op);
  static bool PixelRecord(QI_ImagePICT& p, std::int32_t op);

 private:
  struct Record {
    bool present = false;
    std::int32_t rowBytes = 0;
    std::int32_t width = 0, height = 0;  // of the record's bounds
    std::int32_t packType = 0, pixelSize = 1, cmpCount = 1;
    std::vector<std::array<std::uint16_t, 3>> table;
  };

  // Byte reads that carry on past the end: the missing bytes are zero and "EOF / read error"
  // is printed, as the format's readers always did.
  std::uint8_t Byte();
  std::uint16_t Word();
  std::uint32_t Long();
  void Skip(std::uint64_t n);
  std::size_t Bytes(std::uint8_t* out, std::size_t n, bool quiet = false);
  bool ReadPixMap(std::int32_t rowBytes, Record* r, bool withTable);
  void ReadPackedRow(const Record& r, std::vector<std::uint8_t>* out);
  bool ExpandRow(const Record& r);
  void Draw(std::int32_t x0, std::int32_t y0, std::int32_t x1, std::int32_t y1);
  bool StartDrawing();
  void ResetRead();
  bool EncodeRow(QI_ImageMem* src, std::int32_t row);

  bool writing_ = false;
  std::int32_t version_ = 0;
  std::int32_t frameTop_ = 0, frameLeft_ = 0;
  std::uint64_t pos_ = 0;       // stream position while reading
  std::uint64_t fileSize_ = 0;  // length of the file being read
  bool hitEnd_ = false;
  bool drawing_ = false;             // a line opcode came first: a one-bit line drawing
  std::vector<std::uint8_t> lines_;  // width * height + 1 bytes, 1 where the pen drew
  std::int32_t penX_ = 0, penY_ = 0;
  Record record_;
  std::int32_t lineCounter_ = 0;
  // Per-line buffers, reused from line to line.
  std::vector<std::uint8_t> packed_;
  std::vector<std::uint8_t> raw_;
  std::vector<std::uint16_t> line_;  // R, G, B a pixel, 16-bit
};
