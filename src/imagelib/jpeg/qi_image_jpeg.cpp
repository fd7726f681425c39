#include "imagelib/jpeg/qi_image_jpeg.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#if VX_HAVE_LIBJPEG
#include <jpeglib.h>

#include <jerror.h>
#endif

namespace {

int Fail(const char* why) {
  std::fputs(why, stderr);
  return 0;
}

using qi::WritesTo;

}  // namespace

#if VX_HAVE_LIBJPEG

// Everything libjpeg touches, plain C data: its errors longjmp back into Guarded only, so no
// object with a destructor may live between the setjmp and the longjmp.
struct QiJpegState {
  jpeg_error_mgr err;
  std::jmp_buf jump;
  jpeg_decompress_struct d;
  jpeg_compress_struct c;
  bool decoding;
  bool encoding;
  bool invertCmyk;
  char message[JMSG_LENGTH_MAX];
};

namespace {

enum Op { kReadHeader, kReadLine, kStartWrite, kWriteLine, kFinish, kAbort };

struct OpArgs {
  std::FILE* stream;
  std::uint64_t fileSize;
  JSAMPROW row;
  int width, height, components, quality;
  int outComponents;    // set by kReadHeader
  const char* comment;  // kStartWrite: a COM marker when not empty
  std::size_t commentSize;
};

void ErrorExit(j_common_ptr cinfo) {
  QiJpegState* s = static_cast<QiJpegState*>(cinfo->client_data);
  (*cinfo->err->format_message)(cinfo, s->message);
  std::longjmp(s->jump, 1);
}

// A file cut short would otherwise decode as grey: that is a read error here.
void EmitMessage(j_common_ptr cinfo, int level) {
  if (level < 0 && cinfo->err->msg_code == JWRN_JPEG_EOF) ErrorExit(cinfo);
}

void Destroy(QiJpegState* s) {
  if (s->decoding) jpeg_destroy_decompress(&s->d);
  if (s->encoding) jpeg_destroy_compress(&s->c);
  s->decoding = s->encoding = false;
}

// The one frame libjpeg's errors jump back to. C-style on purpose: see QiJpegState.
int Guarded(QiJpegState* s, Op op, OpArgs* a) {
  if (setjmp(s->jump)) {
    Destroy(s);
    return 0;
  }
  switch (op) {
    case kReadHeader: {
      Destroy(s);
      s->d.err = jpeg_std_error(&s->err);
      s->err.error_exit = ErrorExit;
      s->err.emit_message = EmitMessage;
      s->d.client_data = s;
      jpeg_create_decompress(&s->d);
      s->decoding = true;
      // No backing store here: a picture whose buffers outgrow what its file can justify fails
      // instead of allocating.
      s->d.mem->max_memory_to_use = static_cast<long>(
          (64 << 20) + std::min<std::uint64_t>(a->fileSize, std::uint64_t{1} << 24) * 256);
      jpeg_stdio_src(&s->d, a->stream);
      jpeg_save_markers(&s->d, JPEG_APP0 + 1, 0xFFFF);
      jpeg_save_markers(&s->d, JPEG_COM, 0xFFFF);
      jpeg_read_header(&s->d, TRUE);
      // Even the flattest JPEG spends a few bits on every 8 x 8 block of every component.
      const std::uint64_t pixels = std::uint64_t{s->d.image_width} * s->d.image_height;
      if (pixels > (a->fileSize + 64) * 512) {
        std::strcpy(s->message, "size does not fit the file");
        Destroy(s);
        return 0;
      }
      s->invertCmyk = false;
      if (s->d.jpeg_color_space == JCS_GRAYSCALE) {
        s->d.out_color_space = JCS_GRAYSCALE;
      } else if (s->d.jpeg_color_space == JCS_CMYK || s->d.jpeg_color_space == JCS_YCCK) {
        s->d.out_color_space = JCS_CMYK;
        s->invertCmyk = s->d.saw_Adobe_marker;
      } else {
        s->d.out_color_space = JCS_RGB;
      }
      a->outComponents = s->d.out_color_space == JCS_CMYK        ? 4
                         : s->d.out_color_space == JCS_GRAYSCALE ? 1
                                                                 : 3;
      a->width = static_cast<int>(s->d.image_width);
      a->height = static_cast<int>(s->d.image_height);
      jpeg_start_decompress(&s->d);
      return 1;
    }
    case kReadLine:
      if (!s->decoding || s->d.output_scanline >= s->d.output_height) return 0;
      return jpeg_read_scanlines(&s->d, &a->row, 1) == 1;
    case kStartWrite:
      Destroy(s);
      s->c.err = jpeg_std_error(&s->err);
      s->err.error_exit = ErrorExit;
      s->c.client_data = s;
      jpeg_create_compress(&s->c);
      s->encoding = true;
      jpeg_stdio_dest(&s->c, a->stream);
      s->c.image_width = static_cast<JDIMENSION>(a->width);
      s->c.image_height = static_cast<JDIMENSION>(a->height);
      s->c.input_components = a->components;
      s->c.in_color_space = a->components == 1 ? JCS_GRAYSCALE : JCS_RGB;
      jpeg_set_defaults(&s->c);
      jpeg_set_quality(&s->c, a->quality, TRUE);
      jpeg_start_compress(&s->c, TRUE);
      if (a->commentSize > 0)
        jpeg_write_marker(&s->c, JPEG_COM, reinterpret_cast<const JOCTET*>(a->comment),
                          static_cast<unsigned>(std::min<std::size_t>(a->commentSize, 65533)));
      return 1;
    case kWriteLine:
      if (!s->encoding || s->c.next_scanline >= s->c.image_height) return 0;
      return jpeg_write_scanlines(&s->c, &a->row, 1) == 1;
    case kFinish:
      if (s->encoding && s->c.next_scanline == s->c.image_height) jpeg_finish_compress(&s->c);
      Destroy(s);
      return 1;
    case kAbort:
      Destroy(s);
      return 1;
  }
  return 0;
}

// The first COM marker's text.
std::string Comment(const jpeg_decompress_struct& d) {
  for (jpeg_saved_marker_ptr m = d.marker_list; m; m = m->next)
    if (m->marker == JPEG_COM) return qi::FieldText(m->data, m->data_length);
  return {};
}

// The orientation tag (0x0112) of the first EXIF block, 1 when there is none or it is unreadable.
std::int32_t ExifOrientation(const jpeg_decompress_struct& d) {
  for (jpeg_saved_marker_ptr m = d.marker_list; m; m = m->next) {
    const unsigned char* p = m->data;
    const std::size_t n = m->data_length;
    if (m->marker != JPEG_APP0 + 1 || n < 14 || std::memcmp(p, "Exif\0\0", 6) != 0) continue;
    const unsigned char* t = p + 6;
    const std::size_t tn = n - 6;
    const bool le = t[0] == 'I' && t[1] == 'I';
    if (!le && !(t[0] == 'M' && t[1] == 'M')) return 1;
    const auto u16 = [&](std::size_t o) -> std::uint32_t {
      return le ? t[o] | t[o + 1] << 8 : t[o] << 8 | t[o + 1];
    };
    const auto u32 = [&](std::size_t o) -> std::uint32_t {
      return le ? u16(o) | u16(o + 2) << 16 : u16(o) << 16 | u16(o + 2);
    };
    const std::uint32_t ifd = u32(4);
    if (ifd > tn || tn - ifd < 2) return 1;
    const std::uint32_t entries = u16(ifd);
    for (std::uint32_t i = 0; i < entries; ++i) {
      const std::size_t e = ifd + 2 + std::size_t{12} * i;
      if (e + 12 > tn) break;
      if (u16(e) == 0x0112) {
        const std::uint32_t v = u16(e + 8);
        return v >= 1 && v <= 8 ? static_cast<std::int32_t>(v) : 1;
      }
    }
    return 1;
  }
  return 1;
}

}  // namespace

#endif

QI_ImageJPEG::QI_ImageJPEG() {
  setFormatName("JPEG");
  layout_ = 0;
  compression_ = QI_COMPRESSION_JPEG;
  bottomUp_ = 0;
}

QI_ImageJPEG::~QI_ImageJPEG() {
  close();
#if VX_HAVE_LIBJPEG
  delete state_;
#endif
}

std::int16_t QI_ImageJPEG::setChannels(std::int32_t n) {
  if (n != 1 && n != 3 && n != 4) return 0;
  channels_ = n;
  return 1;
}

std::int16_t QI_ImageJPEG::setBitsPerChannel(std::int32_t n) {
  return n == 8 ? 1 : 0;
}

std::int16_t QI_ImageJPEG::setBytesPerChannel(std::int32_t n) {
  return n == 1 ? 1 : 0;
}

std::int16_t QI_ImageJPEG::setPixelType(std::int32_t code) {
  const std::int32_t channels = code == QI_PIXEL_RGB    ? 3
                                : code == QI_PIXEL_RGBA ? 4
                                : code == QI_PIXEL_GRAY ? 1
                                                        : 0;
  if (channels == 0) return 0;
  pixelType_ = code;
  channels_ = channels;
  return 1;
}

void QI_ImageJPEG::setQuality(std::int32_t q) {
  if (q >= 1 && q <= 100) quality_ = q;
}

std::int32_t QI_ImageJPEG::getQuality() {
  return quality_;
}

std::int32_t QI_ImageJPEG::attach(std::FILE* stream, std::int32_t writing) {
  close();
#if VX_HAVE_LIBJPEG
  stream_ = stream;
  writing_ = writing != 0;
  return stream ? 1 : 0;
#else
  (void)stream;
  (void)writing;
  return 0;
#endif
}

std::int32_t QI_ImageJPEG::open(const VxChar* widePath, const VxChar* wideMode) {
  close();
#if VX_HAVE_LIBJPEG
  if (!openStream(widePath, wideMode)) return 0;
  writing_ = WritesTo(wideMode);
  return 1;
#else
  (void)widePath;
  (void)WritesTo(wideMode);
  return 0;
#endif
}

#if VX_HAVE_LIBJPEG

std::int32_t QI_ImageJPEG::close() {
  if (state_) {
    OpArgs a{};
    Guarded(state_, kFinish, &a);
  }
  if (stream_) std::fflush(stream_);
  closeStream();
  writing_ = false;
  return 1;
}

std::int32_t QI_ImageJPEG::readHeader() {
  if (!stream_ || writing_) return 0;
  if (std::fseek(stream_, 0, SEEK_END) != 0) return Fail("JPEG: cannot seek\n");
  const long end = std::ftell(stream_);
  if (end < 0 || std::fseek(stream_, 0, SEEK_SET) != 0) return Fail("JPEG: cannot seek\n");
  if (!state_) {
    state_ = new (std::nothrow) QiJpegState{};
    if (!state_) return Fail("JPEG: out of memory\n");
  }
  OpArgs a{};
  a.stream = stream_;
  a.fileSize = static_cast<std::uint64_t>(end);
  if (!Guarded(state_, kReadHeader, &a)) {
    std::fprintf(stderr, "JPEG: %s\n", state_->message);
    return 0;
  }
  orientation_ = ExifOrientation(state_->d);
  setText("comment", Comment(state_->d));
  setWidth(a.width);
  setHeight(a.height);
  const bool grey = a.outComponents == 1;
  channels_ = grey ? 1 : 3;
  pixelType_ = grey ? QI_PIXEL_GRAY : QI_PIXEL_RGB;
  bitsPerChannel_ = 8;
  line_.resize(static_cast<std::size_t>(a.width) * static_cast<std::size_t>(a.outComponents));
  return 1;
}

std::int32_t QI_ImageJPEG::readLine(QI_ImageMem* dest, std::int32_t row) {
  if (!state_ || !state_->decoding || !dest) return 0;
  OpArgs a{};
  a.row = line_.data();
  if (!Guarded(state_, kReadLine, &a)) {
    std::fprintf(stderr, "JPEG: %s\n", state_->message);
    return 0;
  }
  const std::size_t comps = line_.size() / static_cast<std::size_t>(width_);
  const std::uint8_t* p = line_.data();
  for (std::int32_t x = 0; x < width_; ++x, p += comps) {
    if (comps == 1) {
      dest->setPixel8(x, row, p[0], p[0], p[0], 255);
    } else if (comps == 3) {
      dest->setPixel8(x, row, p[0], p[1], p[2], 255);
    } else {
      // Adobe writes CMYK inverted (255 = no ink); others store the ink itself.
      const unsigned c = state_->invertCmyk ? p[0] : 255u - p[0],
                     m = state_->invertCmyk ? p[1] : 255u - p[1],
                     y = state_->invertCmyk ? p[2] : 255u - p[2],
                     k = state_->invertCmyk ? p[3] : 255u - p[3];
      dest->setPixel8(x, row, static_cast<std::uint8_t>((c * k + 127) / 255),
                      static_cast<std::uint8_t>((m * k + 127) / 255),
                      static_cast<std::uint8_t>((y * k + 127) / 255), 255);
    }
  }
  return 1;
}

std::int32_t QI_ImageJPEG::writeHeader() {
  if (!stream_ || !writing_ || width_ < 1 || height_ < 1 || width_ > 65500 || height_ > 65500)
    return 0;
  if (!state_) {
    state_ = new (std::nothrow) QiJpegState{};
    if (!state_) return Fail("JPEG: out of memory\n");
  }
  OpArgs a{};
  a.stream = stream_;
  a.width = width_;
  a.height = height_;
  a.components = channels_ == 1 ? 1 : 3;
  a.quality = quality_;
  std::string comment;
  try {
    line_.resize(static_cast<std::size_t>(width_) * static_cast<std::size_t>(a.components));
    comment = getText("comment");
    if (comment.empty()) comment = getText("description");
  } catch (const std::bad_alloc&) {
    return Fail("JPEG: out of memory\n");
  }
  a.comment = comment.data();
  a.commentSize = comment.size();
  if (!Guarded(state_, kStartWrite, &a)) {
    std::fprintf(stderr, "JPEG: %s\n", state_->message);
    return 0;
  }
  return 1;
}

std::int32_t QI_ImageJPEG::writeLine(QI_ImageMem* src, std::int32_t row) {
  if (!state_ || !state_->encoding || !src) return 0;
  const std::size_t comps = line_.size() / static_cast<std::size_t>(width_);
  std::uint8_t* p = line_.data();
  for (std::int32_t x = 0; x < width_; ++x, p += comps) {
    std::uint8_t r = 0, g = 0, b = 0;
    src->getPixel8(x, row, &r, &g, &b, nullptr);
    if (comps == 1) {
      p[0] = r;
    } else {
      p[0] = r;
      p[1] = g;
      p[2] = b;
    }
  }
  OpArgs a{};
  a.row = line_.data();
  if (!Guarded(state_, kWriteLine, &a)) {
    std::fprintf(stderr, "JPEG: %s\n", state_->message);
    return 0;
  }
  return 1;
}

std::unique_ptr<QI_ImageFile> MakeImageJPEG() {
  return std::make_unique<QI_ImageJPEG>();
}

#else  // without libjpeg

std::int32_t QI_ImageJPEG::close() {
  closeStream();
  return 1;
}

std::int32_t QI_ImageJPEG::readHeader() {
  return Fail("JPEG: not built with libjpeg\n");
}

std::int32_t QI_ImageJPEG::readLine(QI_ImageMem*, std::int32_t) {
  return 0;
}

std::int32_t QI_ImageJPEG::writeHeader() {
  return 0;
}

std::int32_t QI_ImageJPEG::writeLine(QI_ImageMem*, std::int32_t) {
  return 0;
}

std::unique_ptr<QI_ImageFile> MakeImageJPEG() {
  return nullptr;
}

#endif
