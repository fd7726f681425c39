#include "imagelib/gif/qi_image_gif.h"

#include <climits>
#include <cstdio>
#include <new>
#include <string>

#if VX_HAVE_GIFLIB
#include <gif_lib.h>
#endif

namespace {

// LZW at its best: a 3-bit code stands for at most 4096 pixels, so no file holds more pixels than
// this many per byte; a bigger screen is a lie and is refused before allocating.
constexpr std::uint64_t kMaxPixelsPerByte = 4096 * 8 / 3 + 1;

int Fail(const char* why) {
  std::fputs(why, stderr);
  return 0;
}

#if VX_HAVE_GIFLIB
int ReadFromStream(GifFileType* gif, GifByteType* out, int n) {
  if (n <= 0) return 0;
  return static_cast<int>(
      std::fread(out, 1, static_cast<std::size_t>(n), static_cast<std::FILE*>(gif->UserData)));
}

// giflib's handle, closed on every way out.
struct Gif {
  GifFileType* f = nullptr;
  explicit Gif(std::FILE* s) {
    int err = 0;
    if (std::fseek(s, 0, SEEK_SET) == 0) f = DGifOpen(s, ReadFromStream, &err);
  }
  ~Gif() {
    int err = 0;
    if (f) DGifCloseFile(f, &err);
  }
  Gif(const Gif&) = delete;
  Gif& operator=(const Gif&) = delete;
};

// Skips the data sub-blocks of an extension or an image.
bool SkipBlocks(GifFileType* f, GifByteType* block) {
  while (block) {
    if (DGifGetExtensionNext(f, &block) == GIF_ERROR) return false;
  }
  return true;
}

bool SkipImage(GifFileType* f) {
  int size = 0;
  GifByteType* block = nullptr;
  if (DGifGetCode(f, &size, &block) == GIF_ERROR) return false;
  while (block) {
    if (DGifGetCodeNext(f, &block) == GIF_ERROR) return false;
  }
  return true;
}
#endif

}  // namespace

QI_ImageGIF::QI_ImageGIF() {
  setFormatName("GIF");
  layout_ = 0;
  compression_ = QI_COMPRESSION_LZW;
  bottomUp_ = 0;
  channels_ = 4;
  pixelType_ = QI_PIXEL_RGBA;
}

QI_ImageGIF::~QI_ImageGIF() {
  close();
}

std::int16_t QI_ImageGIF::selectImage(std::int32_t i) {
  if (i < 0 || i >= imageCount_) return 0;
  if (i != currentImage_) {
    currentImage_ = i;
    decoded_ = false;
    rgba_ = {};
  }
  return 1;
}

std::int32_t QI_ImageGIF::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
#if VX_HAVE_GIFLIB
  return openStream(widePath, wideMode);
#else
  (void)widePath;
  (void)wideMode;
  return 0;
#endif
}

std::int32_t QI_ImageGIF::attach(std::FILE* stream, std::int32_t writing) {
  close();
  if (writing) return 0;
  stream_ = stream;
  return stream ? 1 : 0;
}

std::int32_t QI_ImageGIF::close() {
  closeStream();
  decoded_ = false;
  rgba_ = {};
  return 1;
}

std::int32_t QI_ImageGIF::writeHeader() {
  return 0;
}

std::int32_t QI_ImageGIF::writeLine(QI_ImageMem*, std::int32_t) {
  return 0;
}

#if VX_HAVE_GIFLIB

std::int32_t QI_ImageGIF::readHeader() {
  if (!stream_) return 0;
  if (std::fseek(stream_, 0, SEEK_END) != 0) return Fail("GIF: cannot seek\n");
  const long end = std::ftell(stream_);
  if (end < 0) return Fail("GIF: cannot seek\n");
  fileSize_ = static_cast<std::uint64_t>(end);
  Gif gif(stream_);
  if (!gif.f) return Fail("GIF: not a GIF file\n");
  const std::uint64_t w = static_cast<std::uint32_t>(gif.f->SWidth),
                      h = static_cast<std::uint32_t>(gif.f->SHeight);
  if (w == 0 || h == 0 || w * h > fileSize_ * kMaxPixelsPerByte)
    return Fail("GIF: screen size does not fit the file\n");
  // Count the images; a file cut inside a later image still gives the images before it.
  std::int32_t count = 0;
  std::string comment;
  for (GifRecordType type = UNDEFINED_RECORD_TYPE; type != TERMINATE_RECORD_TYPE;) {
    if (DGifGetRecordType(gif.f, &type) == GIF_ERROR) break;
    if (type == IMAGE_DESC_RECORD_TYPE) {
      if (DGifGetImageDesc(gif.f) == GIF_ERROR || !SkipImage(gif.f)) break;
      ++count;
    } else if (type == EXTENSION_RECORD_TYPE) {
      int code = 0;
      GifByteType* block = nullptr;
      if (DGifGetExtension(gif.f, &code, &block) == GIF_ERROR) break;
      // The first sub-block of the first comment: what writers put there fits in one.
      if (code == COMMENT_EXT_FUNC_CODE && block && comment.empty())
        comment = qi::FieldText(block + 1, block[0]);
      if (!SkipBlocks(gif.f, block)) break;
    }
  }
  if (count == 0) return Fail("GIF: no image\n");
  setText("comment", comment);
  setWidth(static_cast<std::int32_t>(w));
  setHeight(static_cast<std::int32_t>(h));
  channels_ = 4;
  bitsPerChannel_ = 8;
  pixelType_ = QI_PIXEL_RGBA;
  imageCount_ = count;
  if (currentImage_ >= count) currentImage_ = 0;
  decoded_ = false;
  rgba_ = {};
  return 1;
}

bool QI_ImageGIF::Decode() {
  Gif gif(stream_);
  if (!gif.f || gif.f->SWidth != width_ || gif.f->SHeight != height_) return false;
  int transparent = NO_TRANSPARENT_COLOR;
  for (std::int32_t image = 0;;) {
    GifRecordType type = UNDEFINED_RECORD_TYPE;
    if (DGifGetRecordType(gif.f, &type) == GIF_ERROR || type == TERMINATE_RECORD_TYPE) return false;
    if (type == EXTENSION_RECORD_TYPE) {
      int code = 0;
      GifByteType* block = nullptr;
      if (DGifGetExtension(gif.f, &code, &block) == GIF_ERROR) return false;
      GraphicsControlBlock gcb;
      if (code == GRAPHICS_EXT_FUNC_CODE && block &&
          DGifExtensionToGCB(block[0], block + 1, &gcb) == GIF_OK)
        transparent = gcb.TransparentColor;
      if (!SkipBlocks(gif.f, block)) return false;
      continue;
    }
    if (type != IMAGE_DESC_RECORD_TYPE) continue;
    if (DGifGetImageDesc(gif.f) == GIF_ERROR) return false;
    if (image++ != currentImage_) {
      if (!SkipImage(gif.f)) return false;
      transparent = NO_TRANSPARENT_COLOR;  // a control block governs the next image only
      continue;
    }
    const GifImageDesc& d = gif.f->Image;
    const ColorMapObject* map = d.ColorMap ? d.ColorMap : gif.f->SColorMap;
    if (!map || d.Width <= 0 || d.Height <= 0) return false;
    const std::size_t fw = static_cast<std::size_t>(d.Width),
                      fh = static_cast<std::size_t>(d.Height);
    if (std::uint64_t{fw} * fh > fileSize_ * kMaxPixelsPerByte) return false;
    const std::size_t sw = static_cast<std::size_t>(width_), sh = static_cast<std::size_t>(height_);
    rgba_.assign(sw * sh * 4, 0);
    std::vector<GifPixelType> line(fw);
    // Interlaced frames store every eighth line from 0, every eighth from 4, every fourth from
    // 2, then every second from 1.
    static constexpr int kStart[] = {0, 4, 2, 1}, kStep[] = {8, 8, 4, 2};
    const int passes = d.Interlace ? 4 : 1;
    for (int p = 0; p < passes; ++p) {
      const std::size_t start = d.Interlace ? kStart[p] : 0, step = d.Interlace ? kStep[p] : 1;
      for (std::size_t fy = start; fy < fh; fy += step) {
        if (DGifGetLine(gif.f, line.data(), d.Width) == GIF_ERROR) return false;
        const std::size_t y = static_cast<std::size_t>(d.Top) + fy;
        if (y >= sh) continue;  // frames may overhang the screen: the overhang is dropped
        for (std::size_t fx = 0; fx < fw; ++fx) {
          const std::size_t x = static_cast<std::size_t>(d.Left) + fx;
          const int index = line[fx];
          if (x >= sw || index == transparent || index >= map->ColorCount) continue;
          std::uint8_t* px = &rgba_[(y * sw + x) * 4];
          px[0] = map->Colors[index].Red;
          px[1] = map->Colors[index].Green;
          px[2] = map->Colors[index].Blue;
          px[3] = 255;
        }
      }
    }
    return true;
  }
}

std::int32_t QI_ImageGIF::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!stream_ || !dest || row < 0 || row >= height_) return 0;
  if (!decoded_) {
    try {
      if (!Decode()) {
        rgba_ = {};
        return Fail("GIF: EOF / read error\n");
      }
    } catch (const std::bad_alloc&) {
      rgba_ = {};
      return Fail("GIF: out of memory\n");
    }
    decoded_ = true;
  }
  const std::size_t top = static_cast<std::size_t>(height_ - 1 - row);
  const std::uint8_t* px = &rgba_[top * static_cast<std::size_t>(width_) * 4];
  for (std::int32_t x = 0; x < width_; ++x, px += 4)
    dest->setPixel8(x, row, px[0], px[1], px[2], px[3]);
  return 1;
}

std::unique_ptr<QI_ImageFile> MakeImageGIF() {
  return std::make_unique<QI_ImageGIF>();
}

#else  // without giflib

std::int32_t QI_ImageGIF::readHeader() {
  return Fail("GIF: not built with giflib\n");
}

bool QI_ImageGIF::Decode() {
  return false;
}

std::int32_t QI_ImageGIF::readLine(QI_ImageMem*, std::int32_t) {
  return 0;
}

std::unique_ptr<QI_ImageFile> MakeImageGIF() {
  return nullptr;
}

#endif
