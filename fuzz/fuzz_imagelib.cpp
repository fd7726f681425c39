// SGI, Alias, GIF and JPEG files through the codec library's file images: readHeader, then a
// whole read into a 16-bit image, then the picture written back by the same class. The first
// input byte picks the class (mod 4: SGI, Alias, GIF, JPEG); the rest is the file.
// VX_FUZZ_CLASS=sgi, alias, gif or jpeg holds every input to one class.
// Seeds: run with an empty (or missing) corpus folder as the first argument and the target writes
// small files of every kind there first.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "imagelib/alias/qi_image_alias.h"
#include "imagelib/gif/qi_image_gif.h"
#include "imagelib/jpeg/qi_image_jpeg.h"
#include "imagelib/sgi/qi_image_sgi.h"
#include "vx/platform.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

std::string TempName(const char* what) {
  return (std::filesystem::temp_directory_path() /
          ("fuzz_imagelib." + std::to_string(vx::os::CurrentProcessId()) + what))
      .string();
}

Bytes FileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// A small picture written by the class itself: the seeds.
Bytes Written(QI_ImageFile& file, std::uint8_t pick) {
  QI_ImageRGBA16 img(9, 3);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 9; ++x)
      img.setPixel16(x, y, static_cast<std::uint16_t>(x < 5 ? 0x1234 : x * 999),
                     static_cast<std::uint16_t>(y * 7000), 0xBEEF,
                     static_cast<std::uint16_t>(65535 - x));
  file.setWidth(9), file.setHeight(3);
  const std::string path = TempName(".seed");
  Bytes out{pick};
  if (file.attach(std::fopen(path.c_str(), "w+b"), 1) && file.writeHeader() && file.write(&img)) {
    file.close();
    const Bytes b = FileBytes(path);
    out.insert(out.end(), b.begin(), b.end());
  }
  file.close();
  std::remove(path.c_str());
  return out;
}

std::vector<Bytes> Seeds() {
  std::vector<Bytes> seeds;
  for (int type : {QI_PIXEL_GRAY, QI_PIXEL_RGB, QI_PIXEL_RGBA})
    for (int bits : {8, 16})
      for (int compression : {QI_COMPRESSION_NONE, QI_COMPRESSION_RLE}) {
        QI_ImageSGI sgi;
        sgi.setPixelType(type), sgi.setBitsPerChannel(bits), sgi.setCompression(compression);
        seeds.push_back(Written(sgi, 0));
      }
  QI_ImageALIAS alias;
  seeds.push_back(Written(alias, 1));
  // GIF has no writer: the smallest file there is, one pixel of a two-colour map.
  seeds.push_back({2,   'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0x80, 0, 0, 0,    0,    0, 255,
                   255, 255, ',', 0,   0,   0,   0,   1, 0, 1, 0, 0,    2, 2, 0x44, 0x01, 0, ';'});
  for (int type : {QI_PIXEL_GRAY, QI_PIXEL_RGB}) {
    QI_ImageJPEG jpeg;
    jpeg.setPixelType(type);
    seeds.push_back(Written(jpeg, 3));
  }
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  for (int i = 1; i < *argc; ++i) {
    const char* a = (*argv)[i];
    if (a[0] == '-') continue;
    std::error_code ec;
    const std::filesystem::path dir(a);
    if (std::filesystem::exists(dir, ec) && !std::filesystem::is_directory(dir, ec)) break;
    std::filesystem::create_directories(dir, ec);
    if (ec || !std::filesystem::is_empty(dir, ec)) break;
    const std::vector<Bytes> seeds = Seeds();
    for (std::size_t s = 0; s < seeds.size(); ++s) {
      std::ofstream out(dir / ("seed" + std::to_string(s)), std::ios::binary);
      out.write(reinterpret_cast<const char*>(seeds[s].data()),
                static_cast<std::streamsize>(seeds[s].size()));
    }
    break;
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  static const std::string in = TempName(".in"), out = TempName(".out");
  std::FILE* f = std::fopen(in.c_str(), "w+b");
  if (!f) return 0;
  std::fwrite(data + 1, 1, size - 1, f);
  std::fflush(f);
  static const char* only = std::getenv("VX_FUZZ_CLASS");
  static const char* const kNames[] = {"sgi", "alias", "gif", "jpeg"};
  int pick = data[0] % 4;
  for (int i = 0; only && i < 4; ++i)
    if (std::string(only) == kNames[i]) pick = i;
  std::unique_ptr<QI_ImageFile> file;
  if (pick == 1)
    file = std::make_unique<QI_ImageALIAS>();
  else if (pick == 2)
    file = std::make_unique<QI_ImageGIF>();
  else if (pick == 3)
    file = std::make_unique<QI_ImageJPEG>();
  else
    file = std::make_unique<QI_ImageSGI>();
  file->attach(f, 0);
  if (!file->readHeader()) return 0;
  const std::int64_t w = file->getWidth(), h = file->getHeight();
  // What a host would allocate for the picture; the file itself must justify the rest.
  if (w * h > (1 << 22)) return 0;
  QI_ImageRGBA16 img(static_cast<std::int32_t>(w), static_cast<std::int32_t>(h));
  const std::int32_t ok = file->read(&img);
  file->close();
  if (ok && file->attach(std::fopen(out.c_str(), "w+b"), 1) && file->writeHeader())
    file->write(&img);
  file->close();
  return 0;
}
