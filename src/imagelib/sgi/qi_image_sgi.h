// SGI images: verbatim or run-length, 8 or 16 bits a channel, 1, 3 or 4 channels. A row of the
// file is one channel of one line; row r = channel * height + line, line 0 at the bottom.
#pragma once

#include <cstdint>
#include <vector>

#include "imagelib/base/qi_image.h"

class QI_ImageSGI : public QI_ImageFile {
 public:
  QI_ImageSGI();
  ~QI_ImageSGI() override;

  std::int16_t setChannels(std::int32_t n) override;         // 1, 3 or 4
  std::int16_t setBitsPerChannel(std::int32_t n) override;   // 8 or 16
  std::int16_t setBytesPerChannel(std::int32_t n) override;  // 1 or 2
  std::int16_t setPixelType(std::int32_t code) override;     // RGB, RGBA or grey
  std::int16_t setLayout(std::int32_t code) override;        // 1 only
  std::int16_t setCompression(std::int32_t code) override;   // none or run-length

  std::int32_t open(const VxChar* widePath, const VxChar* wideMode) override;
  std::int32_t attach(std::FILE* stream, std::int32_t writing) override;
  // Run-length output gets its row tables here and nowhere else.
  std::int32_t close() override;
  std::int32_t readHeader() override;
  std::int32_t writeHeader() override;
  std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) override;
  std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) override;

  // True when the header read last was little-endian.
  bool headerInReaderOrder() const { return readerOrder_; }

 private:
  bool FetchRow(std::uint32_t r);
  template <class T>
  bool ReadLineAs(std::vector<T>* line, QI_ImageMem* dest, std::int32_t row);
  bool WriteRow(std::uint32_t r, const std::uint16_t* in);
  void EncodeRow(const std::uint16_t* in);

  std::vector<std::uint32_t> starts_;
  std::vector<std::uint32_t> lengths_;
  std::int32_t lineCounter_ = 0;
  bool readerOrder_ = false;
  bool writing_ = false;
  std::uint64_t fileEnd_ = 0;             // where the next run-length row goes
  std::uint64_t at_ = ~std::uint64_t{0};  // where the stream stands after the last row read
  // Per-line buffers, reused from line to line.
  std::vector<std::uint8_t> bytes_;
  std::vector<std::uint16_t> samples_;
  std::vector<std::uint8_t> line8_;
};
