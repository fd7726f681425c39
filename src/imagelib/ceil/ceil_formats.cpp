#include "imagelib/ceil/ceil_formats.h"

#include "imagelib/alias/qi_image_alias.h"
#include "imagelib/bmp/qi_image_bmp.h"
#include "imagelib/pcx/qi_image_pcx.h"
#include "imagelib/pict/qi_image_pict.h"
#include "imagelib/ppm/qi_image_ppm.h"
#include "imagelib/gif/qi_image_gif.h"
#include "imagelib/jpeg/qi_image_jpeg.h"
#include "imagelib/mi/qi_image_mi.h"
#include "imagelib/sgi/qi_image_sgi.h"
#include "imagelib/wave/qi_image_wave.h"

namespace vx::ceil {
namespace {

template <class T>
std::unique_ptr<QI_ImageFile> Make() {
  return std::make_unique<T>();
}

// Library-backed classes: without their library (cross builds) the code has no class.
#if VX_HAVE_GIFLIB
constexpr auto kGif = &MakeImageGIF;
#else
constexpr std::unique_ptr<QI_ImageFile> (*kGif)() = nullptr;
#endif
#if VX_HAVE_LIBJPEG
constexpr auto kJpeg = &MakeImageJPEG;
#else
constexpr std::unique_ptr<QI_ImageFile> (*kJpeg)() = nullptr;
#endif

constexpr std::int32_t kNone[] = {QI_COMPRESSION_NONE};
constexpr std::int32_t kNoneRle[] = {QI_COMPRESSION_NONE, QI_COMPRESSION_RLE};
constexpr std::int32_t kRle[] = {QI_COMPRESSION_RLE};
constexpr std::int32_t kLzw[] = {QI_COMPRESSION_LZW};
constexpr std::int32_t kJpegOnly[] = {QI_COMPRESSION_JPEG};
constexpr std::int32_t kPackBits[] = {QI_COMPRESSION_PACKBITS};

// A format gets its class by replacing its nullptr with &Make<QI_ImageXxx>.
const CeilFormat kFormats[] = {
    {5, &Make<QI_ImageSGI>, kNoneRle},    // "SGI"
    {6, &Make<QI_ImageWAVE>, kRle},       // "WAVEFRONT"
    {7, &Make<QI_ImagePICT>, kPackBits},  // "PICT"
    {8, &Make<QI_ImagePCX>, kRle},        // "PCX"
    {9, &Make<QI_ImageBMP>, kNone},       // "BMP": run-length is read only
    {10, &Make<QI_ImagePPM>, kNone},      // "PPM"
    {11, &Make<QI_ImagePGM>, kNone},      // "PGM"
    {12, kGif, kLzw},                     // "GIF"
    {13, &Make<QI_ImageALIAS>, kRle},     // "ALIAS"
    {14, kJpeg, kJpegOnly},               // "JFIF (JPEG)"
    {19, &Make<QI_ImageMI>, kNone},       // "MAP"
};

}  // namespace

const CeilFormat* FindCeilFormat(std::int32_t code) {
  for (const CeilFormat& f : kFormats) {
    if (f.code == code) return &f;
  }
  return nullptr;
}

const char* CompressionName(std::int32_t code) {
  switch (code) {
    case QI_COMPRESSION_NONE:
      return "None";
    case QI_COMPRESSION_RLE:
      return "RLE";
    case QI_COMPRESSION_LZW:
      return "LZW";
    case QI_COMPRESSION_JPEG:
      return "JPEG";
    case QI_COMPRESSION_PACKBITS:
      return "PackBits";
    default:
      return "Unknown";
  }
}

}  // namespace vx::ceil
