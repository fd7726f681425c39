// The image codec library: memory images (QI_ImageMem and its pixel layouts) and file images
// (QI_ImageFile and one class per older raster format). A file class never owns pixels: it moves
// whole lines between its stream and any memory image through that image's pixel accessors, so
// every format works with every layout. Row 0 is the bottom line of the picture.
//
// Failure is a 0 result (plus a short diagnostic on stderr where a format names one); nothing
// here throws out of the whole-image read and write. Slot order is fixed: new virtuals go after
// the last slot of a class.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "vx/vxchar.h"

// Pixel-type codes.
enum : std::int32_t {
  QI_PIXEL_LINEART = 0,  // one-bit line drawing (PICT only)
  QI_PIXEL_RGB = 1,
  QI_PIXEL_RGBA = 2,
  QI_PIXEL_ABGR = 4,
  QI_PIXEL_CMAP = 5,
  QI_PIXEL_GRAY = 6,
};

// Compression codes of the file formats.
enum : std::int32_t {
  QI_COMPRESSION_NONE = 1,
  QI_COMPRESSION_RLE = 2,
  QI_COMPRESSION_LZW = 4,
  QI_COMPRESSION_JPEG = 8,
  QI_COMPRESSION_PACKBITS = 16,
};

// Depth codes of getPixel/setPixel: 8-bit, 16-bit and float components.
enum : std::int32_t { QI_DEPTH_8 = 1, QI_DEPTH_16 = 2, QI_DEPTH_FLOAT = 4 };

class QI_ImageMem;

namespace qi {
// Store one decoded line of `width` pixels of `channels` interleaved samples (1 grey, 3 RGB,
// 4 RGBA) into row `row` of `dest`. A dest that is exactly QI_ImageRGBA8 or QI_ImageRGBA16 takes
// the line straight into its buffer, converted as its own setters convert; any other image gets
// one setPixel8/setPixel16 call a pixel (setPixel at depth 1 or 2 with `throughSetPixel`), so a
// subclass still sees every pixel. Decoders store whole lines so that the common case costs no
// virtual call a pixel.
void StoreLine8(QI_ImageMem* dest, std::int32_t row, const std::uint8_t* samples,
                std::int32_t channels, std::int32_t width, bool throughSetPixel = false);
void StoreLine16(QI_ImageMem* dest, std::int32_t row, const std::uint16_t* samples,
                 std::int32_t channels, std::int32_t width, bool throughSetPixel = false);
struct LineAccess;
}  // namespace qi

class QI_Image {
 public:
  QI_Image() = default;
  QI_Image(const QI_Image&) = delete;
  QI_Image& operator=(const QI_Image&) = delete;

  virtual ~QI_Image();                                      // 0
  virtual std::int16_t setWidth(std::int32_t n);            // 1
  virtual std::int16_t setHeight(std::int32_t n);           // 2
  virtual std::int16_t setChannels(std::int32_t n);         // 3
  virtual std::int16_t setBitsPerChannel(std::int32_t n);   // 4
  virtual std::int16_t setBytesPerChannel(std::int32_t n);  // 5: n * 8 bits
  virtual std::int16_t setPixelType(std::int32_t code);     // 6

  std::int32_t getWidth() const { return width_; }
  std::int32_t getHeight() const { return height_; }
  std::int32_t getChannels() const { return channels_; }
  std::int32_t getBitsPerChannel() const { return bitsPerChannel_; }
  std::int32_t getPixelType() const { return pixelType_; }

 protected:
  std::int32_t width_ = 0;
  std::int32_t height_ = 0;
  std::int32_t channels_ = 3;
  std::int32_t bitsPerChannel_ = 8;
  std::int32_t pixelType_ = QI_PIXEL_RGB;
};

// ---- Memory images --------------------------------------------------------------------------

class QI_ImageMem : public QI_Image {
 public:
  virtual void* getBuffer();  // 7
  // Reallocates the pixels for w x h (none when either is below 1), then sets the size through
  // slots 1 and 2. An image that wraps a caller's buffer only forgets it and keeps its size.
  virtual void resize(std::int32_t w, std::int32_t h) = 0;  // 8
  // Region copies, clipped to this image: 1 when nothing was cut, else 0.
  virtual std::int16_t copyTo(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                              QI_ImageMem* dest, std::int32_t dx, std::int32_t dy);  // 9
  virtual std::int16_t copyFrom(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                                QI_ImageMem* src, std::int32_t sx, std::int32_t sy);  // 10
  virtual void getGray(std::int32_t x, std::int32_t y, float* out);  // 11: .30 R + .59 G + .11 B
  // Components at `depth` (QI_DEPTH_*) through slots 15, 14 or 13; null pointers are skipped.
  virtual void getPixel(std::int32_t x, std::int32_t y, void* r, void* g, void* b, void* a,
                        std::int32_t depth);  // 12
  virtual void getPixelF(std::int32_t x, std::int32_t y, float* r, float* g, float* b,
                         float* a) = 0;  // 13
  virtual void getPixel16(std::int32_t x, std::int32_t y, std::uint16_t* r, std::uint16_t* g,
                          std::uint16_t* b, std::uint16_t* a) = 0;  // 14
  virtual void getPixel8(std::int32_t x, std::int32_t y, std::uint8_t* r, std::uint8_t* g,
                         std::uint8_t* b, std::uint8_t* a) = 0;   // 15
  virtual void setGray(std::int32_t x, std::int32_t y, float v);  // 16
  // Components at `depth`; a null colour component stores 0, a null alpha full opacity.
  virtual void setPixel(std::int32_t x, std::int32_t y, const void* r, const void* g, const void* b,
                        const void* a, std::int32_t depth);  // 17
  virtual void setPixelF(std::int32_t x, std::int32_t y, float r, float g, float b,
                         float a) = 0;  // 18
  virtual void setPixel16(std::int32_t x, std::int32_t y, std::uint16_t r, std::uint16_t g,
                          std::uint16_t b, std::uint16_t a) = 0;  // 19
  virtual void setPixel8(std::int32_t x, std::int32_t y, std::uint8_t r, std::uint8_t g,
                         std::uint8_t b, std::uint8_t a) = 0;                 // 20
  virtual std::int32_t getIndex(std::int32_t x, std::int32_t y);              // 21: 0
  virtual void setIndex(std::int32_t x, std::int32_t y, std::int32_t index);  // 22
  virtual void getMapEntry(std::int32_t i, std::uint8_t* r, std::uint8_t* g,
                           std::uint8_t* b);                                                 // 23
  virtual void setMapEntry(std::int32_t i, std::uint8_t r, std::uint8_t g, std::uint8_t b);  // 24
  virtual void reserved25();                                                                 // 25
  virtual void reserved26();                                                                 // 26
  virtual std::int32_t reserved27();  // 27: 0
  virtual void reserved28();          // 28

 protected:
  friend struct qi::LineAccess;  // the line stores' row addresses

  // Address of pixel (x, y) of `bytes`-byte pixels, or null when (x, y) lies outside the image or
  // the pixels held: one branch, so the accessors stay cheap and never touch foreign memory.
  void* pixelAt(std::int32_t x, std::int32_t y, std::size_t bytes) const {
    const std::uint32_t line =
        topFirst_ ? static_cast<std::uint32_t>(height_) - 1u - static_cast<std::uint32_t>(y)
                  : static_cast<std::uint32_t>(y);
    const std::size_t i =
        std::size_t{line} * static_cast<std::uint32_t>(width_) + static_cast<std::uint32_t>(x);
    const bool inside = (static_cast<std::uint32_t>(x) < static_cast<std::uint32_t>(width_)) &
                        (static_cast<std::uint32_t>(y) < static_cast<std::uint32_t>(height_)) &
                        (i < pixels_);
    return inside ? static_cast<std::uint8_t*>(buffer_) + i * bytes : nullptr;
  }

  void* buffer_ = nullptr;
  std::size_t pixels_ = 0;  // pixels the buffer holds (0 without one)
  bool topFirst_ = false;   // buffer rows run top to bottom: row y lives at height - 1 - y
};

// Bytes R, G, B, A.
class QI_ImageRGBA8 : public QI_ImageMem {
 public:
  QI_ImageRGBA8(std::int32_t width, std::int32_t height);
  // Wraps `buffer` (width * height * 4 bytes), which stays the caller's; `topFirst` when its
  // rows run from the top line down, as a host image's do.
  QI_ImageRGBA8(std::int32_t width, std::int32_t height, void* buffer, bool topFirst = false);
  ~QI_ImageRGBA8() override;
  void resize(std::int32_t w, std::int32_t h) override;
  std::int16_t copyTo(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                      QI_ImageMem* dest, std::int32_t dx, std::int32_t dy) override;
  std::int16_t copyFrom(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                        QI_ImageMem* src, std::int32_t sx, std::int32_t sy) override;
  void getPixelF(std::int32_t x, std::int32_t y, float* r, float* g, float* b, float* a) override;
  void getPixel16(std::int32_t x, std::int32_t y, std::uint16_t* r, std::uint16_t* g,
                  std::uint16_t* b, std::uint16_t* a) override;
  void getPixel8(std::int32_t x, std::int32_t y, std::uint8_t* r, std::uint8_t* g, std::uint8_t* b,
                 std::uint8_t* a) override;
  void setPixelF(std::int32_t x, std::int32_t y, float r, float g, float b, float a) override;
  void setPixel16(std::int32_t x, std::int32_t y, std::uint16_t r, std::uint16_t g, std::uint16_t b,
                  std::uint16_t a) override;
  void setPixel8(std::int32_t x, std::int32_t y, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                 std::uint8_t a) override;
  bool isExternal() const { return external_; }

 private:
  bool external_ = false;
};

// 16-bit words R, G, B, A in host byte order.
class QI_ImageRGBA16 : public QI_ImageMem {
 public:
  QI_ImageRGBA16(std::int32_t width, std::int32_t height);
  QI_ImageRGBA16(std::int32_t width, std::int32_t height, void* buffer, bool topFirst = false);
  ~QI_ImageRGBA16() override;
  void resize(std::int32_t w, std::int32_t h) override;
  std::int16_t copyTo(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                      QI_ImageMem* dest, std::int32_t dx, std::int32_t dy) override;
  std::int16_t copyFrom(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                        QI_ImageMem* src, std::int32_t sx, std::int32_t sy) override;
  void getPixelF(std::int32_t x, std::int32_t y, float* r, float* g, float* b, float* a) override;
  void getPixel16(std::int32_t x, std::int32_t y, std::uint16_t* r, std::uint16_t* g,
                  std::uint16_t* b, std::uint16_t* a) override;
  void getPixel8(std::int32_t x, std::int32_t y, std::uint8_t* r, std::uint8_t* g, std::uint8_t* b,
                 std::uint8_t* a) override;
  void setPixelF(std::int32_t x, std::int32_t y, float r, float g, float b, float a) override;
  void setPixel16(std::int32_t x, std::int32_t y, std::uint16_t r, std::uint16_t g, std::uint16_t b,
                  std::uint16_t a) override;
  void setPixel8(std::int32_t x, std::int32_t y, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                 std::uint8_t a) override;
  bool isExternal() const { return external_; }

 private:
  bool external_ = false;
};

// Bytes A, B, G, R; always owns its buffer.
class QI_ImageABGR : public QI_ImageMem {
 public:
  QI_ImageABGR(std::int32_t width, std::int32_t height);
  ~QI_ImageABGR() override;
  void resize(std::int32_t w, std::int32_t h) override;
  std::int16_t copyTo(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                      QI_ImageMem* dest, std::int32_t dx, std::int32_t dy) override;
  std::int16_t copyFrom(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                        QI_ImageMem* src, std::int32_t sx, std::int32_t sy) override;
  void getPixelF(std::int32_t x, std::int32_t y, float* r, float* g, float* b, float* a) override;
  void getPixel16(std::int32_t x, std::int32_t y, std::uint16_t* r, std::uint16_t* g,
                  std::uint16_t* b, std::uint16_t* a) override;
  void getPixel8(std::int32_t x, std::int32_t y, std::uint8_t* r, std::uint8_t* g, std::uint8_t* b,
                 std::uint8_t* a) override;
  void setPixelF(std::int32_t x, std::int32_t y, float r, float g, float b, float a) override;
  void setPixel16(std::int32_t x, std::int32_t y, std::uint16_t r, std::uint16_t g, std::uint16_t b,
                  std::uint16_t a) override;
  void setPixel8(std::int32_t x, std::int32_t y, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                 std::uint8_t a) override;
  // Row-wise block copy between two images of this layout, clipped like copyTo.
  std::int16_t copyBlock(std::int32_t x, std::int32_t y, std::int32_t w, std::int32_t h,
                         QI_ImageABGR* dest, std::int32_t dx, std::int32_t dy);
};

// One unsigned 16-bit colour-map index per pixel, and a map of `mapSize` RGB entries.
class QI_ImageCMAP : public QI_ImageMem {
 public:
  QI_ImageCMAP(std::int32_t mapSize, std::int32_t width, std::int32_t height);
  ~QI_ImageCMAP() override;
  void resize(std::int32_t w, std::int32_t h) override;
  void getPixelF(std::int32_t x, std::int32_t y, float* r, float* g, float* b, float* a) override;
  void getPixel16(std::int32_t x, std::int32_t y, std::uint16_t* r, std::uint16_t* g,
                  std::uint16_t* b, std::uint16_t* a) override;
  void getPixel8(std::int32_t x, std::int32_t y, std::uint8_t* r, std::uint8_t* g, std::uint8_t* b,
                 std::uint8_t* a) override;
  void setPixelF(std::int32_t x, std::int32_t y, float r, float g, float b, float a) override;
  void setPixel16(std::int32_t x, std::int32_t y, std::uint16_t r, std::uint16_t g, std::uint16_t b,
                  std::uint16_t a) override;
  void setPixel8(std::int32_t x, std::int32_t y, std::uint8_t r, std::uint8_t g, std::uint8_t b,
                 std::uint8_t a) override;
  std::int32_t getIndex(std::int32_t x, std::int32_t y) override;
  void setIndex(std::int32_t x, std::int32_t y, std::int32_t index) override;
  void getMapEntry(std::int32_t i, std::uint8_t* r, std::uint8_t* g, std::uint8_t* b) override;
  void setMapEntry(std::int32_t i, std::uint8_t r, std::uint8_t g, std::uint8_t b) override;
  std::int32_t getMapMaxIndex() const { return maxIndex_; }

 private:
  std::uint8_t* red_ = nullptr;
  std::uint8_t* green_ = nullptr;
  std::uint8_t* blue_ = nullptr;
  std::int32_t maxIndex_ = -1;
};

// ---- File images ----------------------------------------------------------------------------

class QI_ImageFile : public QI_Image {
 public:
  QI_ImageFile() = default;
  ~QI_ImageFile() override;

  virtual void setQuality(std::int32_t q);                 // 7
  virtual std::int32_t getQuality();                       // 8: 1
  virtual std::int16_t setLayout(std::int32_t code);       // 9
  virtual std::int16_t setCompression(std::int32_t code);  // 10
  virtual void hook11(std::int32_t value);                 // 11
  virtual float getPixelAspect();                          // 12: -1.0, unknown
  virtual std::int16_t setImageCount(std::int32_t n);      // 13
  virtual std::int16_t selectImage(std::int32_t i);        // 14: 0 when i > imageCount
  virtual void getMapEntry(std::int32_t i, std::uint8_t* r, std::uint8_t* g,
                           std::uint8_t* b);                                                 // 15
  virtual void setMapEntry(std::int32_t i, std::uint8_t r, std::uint8_t g, std::uint8_t b);  // 16
  virtual std::int32_t getMapSize();            // 17: 0
  virtual std::int32_t getMapMaxIndex();        // 18: 0
  virtual void setMapMaxIndex(std::int32_t n);  // 19
  // Opens the file with the wide-character stdio open ("rb", "wb", ...) and keeps the wide
  // path; 0 when the open fails.
  virtual std::int32_t open(const VxChar* widePath, const VxChar* wideMode) = 0;  // 20
  // Adopts an already open stream; `writing` tells which way it goes.
  virtual std::int32_t attach(std::FILE* stream, std::int32_t writing) = 0;  // 21
  virtual std::int32_t close() = 0;                                          // 22: always 1
  virtual std::int32_t read(QI_ImageMem* dest);                              // 23
  virtual std::int32_t write(QI_ImageMem* src);                              // 24
  virtual std::int32_t readHeader() = 0;                                     // 25
  virtual std::int32_t writeHeader() = 0;                                    // 26
  virtual std::int32_t readLine(QI_ImageMem* dest, std::int32_t row) = 0;    // 27
  virtual std::int32_t writeLine(QI_ImageMem* src, std::int32_t row) = 0;    // 28

  void setPath(const char* path);        // duplicated; null clears
  void setWidePath(const VxChar* path);  // duplicated; null clears
  void setBottomUp(std::int32_t bottomUp);
  void setFormatName(const char* name);  // a constant string, not copied

  std::int32_t getLayout() const { return layout_; }
  std::int32_t getCompression() const { return compression_; }
  std::int32_t getBottomUp() const { return bottomUp_; }
  const char* getPath() const { return path_; }
  const VxChar* getWidePath() const { return widePath_; }
  const char* getFormatName() const { return formatName_; }
  std::int32_t getImageCount() const { return imageCount_; }
  std::int32_t getCurrentImage() const { return currentImage_; }
  std::FILE* getStream() const { return stream_; }

  // Descriptive texts under the metadata record's keys ("comment", "description", "creator",
  // "date", or "format:name"): a format fills those it holds while reading its header and
  // writes those it holds from what is set before writeHeader. Opening a stream clears them.
  using Texts = std::vector<std::pair<std::string, std::string>>;
  const Texts& getTexts() const { return texts_; }
  std::string getText(std::string_view key) const;
  void setText(std::string_view key, std::string_view value);  // empty removes

 protected:
  // The stdio open every format's `open` uses: the wide path reaches the system as the system
  // wants it (UTF-8 on POSIX). Stores the stream and the wide path; 0 on failure.
  std::int32_t openStream(const VxChar* widePath, const VxChar* wideMode);
  // Closes the stream if any and forgets it; always 1.
  std::int32_t closeStream();

  std::int32_t layout_ = 0;
  std::int32_t compression_ = QI_COMPRESSION_NONE;
  std::int32_t bottomUp_ = 1;
  char* path_ = nullptr;
  VxChar* widePath_ = nullptr;
  const char* formatName_ = nullptr;
  std::int32_t imageCount_ = 1;
  std::int32_t currentImage_ = 0;
  std::FILE* stream_ = nullptr;
  Texts texts_;
};

// Byte-order helpers of the format classes: values read byte by byte from a stream (false when
// the stream ends first) and written byte by byte.
namespace qi {
bool ReadBE16(std::FILE* f, std::uint16_t* v);
bool ReadBE32(std::FILE* f, std::uint32_t* v);
bool WriteBE16(std::FILE* f, std::uint16_t v);
bool WriteBE32(std::FILE* f, std::uint32_t v);
bool WriteLE16(std::FILE* f, std::uint16_t v);
bool WriteLE32(std::FILE* f, std::uint32_t v);
// Stream positions as 64-bit offsets (false past what the stream can seek to), the stream's
// size (it is left at the end), and whether an open mode ("rb", "w+b", ...) writes.
bool SeekTo(std::FILE* f, std::uint64_t offset);
bool StreamSize(std::FILE* f, std::uint64_t* size);
bool WritesTo(const VxChar* mode);
// A text field of a header: up to the first zero byte, printable ASCII and line breaks kept
// (anything else becomes '?'), trailing blanks dropped.
std::string FieldText(const std::uint8_t* field, std::size_t size);
}  // namespace qi
