// Wavefront RLA images: a 740-byte big-endian header, a table of line offsets (bottom line
// first), then each line as one run-length coded block per channel. Reads 8-bit RGB, RGBA and
// grey, and deeper files at 8-bit precision; writes 8-bit files.
#pragma once

#include <cstdint>
#include <vector>

#include "imagelib/base/qi_image.h"

class QI_ImageWAVE : public QI_ImageFile {
 public:
  static constexpr std::uint32_t kHeaderSize = 740;

  QI_ImageWAVE();
  ~QI_ImageWAVE() override;

  std::int16_t setChannels(std::int32_t n) override;         // 1, 3 or 4
  std::int16_t setBitsPerChannel(std::int32_t n) override;   // 8 only
  std::int16_t setBytesPerChannel(std::int32_t n) override;  // 1 only
  std::int16_t setPixelType(std::int32_t code) override;     // RGB, RGBA or grey
  std::int16_t setLayout(std::int32_t code) override;        // 1 only
  std::int16_t setCompression(std::int32_t code) override;   // run-length only

  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  // The line offset table of a written file is stored here and nowhere else.
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;

  // The header layout of the image read last: 1 classic, 2 the ":00:" variant, 3 revision
  // 0xFFFE; 0 before a header was read.
  std::int32_t headerVariant() const { return variant_; }

 private:
  struct Channel {
    std::uint32_t bytes = 1;  // bytes a sample: 1, 2 or 4
    std::uint32_t bits = 8;   // significant bits of an integer sample
    bool isFloat = false;     // raw little-endian floats, not run-length
  };

  bool FindImages(std::uint64_t size);
  bool DecodeChannel(const Channel& c, std::uint8_t* out);
  void EncodeChannel(const std::uint8_t* in);

  std::vector<std::uint64_t> imageOffsets_;
  std::vector<std::uint32_t> lineOffsets_;
  Channel colour_;
  Channel matte_;
  std::int32_t colourChannels_ = 0;
  std::int32_t matteChannels_ = 0;
  std::int32_t variant_ = 0;
  std::int32_t lineCounter_ = 0;
  // Where the stream stands after the last line read, or kNowhere when that is not known.
  static constexpr std::uint64_t kNowhere = ~std::uint64_t{0};
  std::uint64_t lineEnd_ = kNowhere;
  bool writing_ = false;
  // Per-line buffers, reused from line to line: the code read or written, each channel's
  // samples (read: decoded bytes, one plane after the other), the line as 8-bit RGBA.
  std::vector<std::uint8_t> code_;
  std::vector<std::uint8_t> samples_[4];
  std::vector<std::uint8_t> line_;
};
