// Every codec-library file class through readHeader, then a whole read into a 16-bit image,
// then the picture written back by the same class. The first input byte picks the format code
// (modulo the table below; a code without a class yet skips the input); the rest is the file.
// VX_FUZZ_CLASS=sgi, pcx, bmp, ... holds every input to one class.
// Seeds: run with an empty (or missing) corpus folder as the first argument and the target writes
// small files of every kind there first.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "base/bytes.h"
#include "imagelib/ceil/ceil_formats.h"
#include "imagelib/sgi/qi_image_sgi.h"
#include "vx/platform.h"
#include "fuzz_seeds.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Kind {
  const char* name;
  std::int32_t code;
};
constexpr Kind kKinds[] = {{"sgi", 5},    {"wave", 6},  {"pict", 7}, {"pcx", 8},
                           {"bmp", 9},    {"ppm", 10},  {"pgm", 11}, {"gif", 12},
                           {"alias", 13}, {"jpeg", 14}, {"mi", 19}};
constexpr std::uint8_t kKindCount = sizeof(kKinds) / sizeof(kKinds[0]);

std::unique_ptr<QI_ImageFile> MakeKind(std::uint8_t pick) {
  const vx::ceil::CeilFormat* f = vx::ceil::FindCeilFormat(kKinds[pick % kKindCount].code);
  return f && f->make ? f->make() : nullptr;
}

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

// Big-endian words.
Bytes W(std::initializer_list<int> words) {
  Bytes b;
  for (int v : words) b.push_back(static_cast<std::uint8_t>(v >> 8)), b.push_back(v & 0xFF);
  return b;
}

// PICT files of what our writer never makes (pick 2): version 1, indices with colour tables and
// regions, 5-5-5 runs, two-byte row counts, patterns, text and line drawings.
void PictSeeds(std::vector<Bytes>* seeds) {
  const auto pict = [&](int w, int h, const Bytes& ops) {
    Bytes s(513, 0);
    s[0] = 2;
    const Bytes head = W({0, 0, 0, h, w});
    s.insert(s.end(), head.begin(), head.end());
    s.insert(s.end(), ops.begin(), ops.end());
    seeds->push_back(s);
  };
  const Bytes rect8 = W({0, 0, 1, 8});
  Bytes v1 = {0x11, 1, 0x01, 0, 10};
  for (int i = 0; i < 4; ++i) v1.insert(v1.end(), rect8.begin(), rect8.end());
  v1.insert(v1.begin() + 13, {0x90, 0, 2});
  v1.insert(v1.end(), {0, 0, 0xA5, 0, 0xFF});
  pict(8, 1, v1);
  pict(8, 2,
       W({0x0011, 0x02FF, 0x001E, 0x0180, 0x0102, 0x0300, 0x00A1, 5, 3, 0x4142, 0x4300, 0x0099,
          0x8002, 0,      0,      2,      8,      0,      0,      0, 0, 0x48,   0,      0x48,
          0,      0,      2,      1,      2,      0,      0,      0, 0, 0,      0,      0,
          0,      0x8000, 3,      0,      0xFFFF, 0,      0,      0, 0, 0xFFFF, 0,      0,
          0,      0,      0xFFFF, 0,      0x8000, 0x8000, 0x8000, 0, 0, 2,      8,      0,
          0,      2,      8,      0,      10,     0,      0,      2, 8, 0x1B1B, 0xE4E4, 0x00FF}));
  pict(16, 16, W({0x0011, 0x02FF, 0x0012, 2,      0,      0,      0,      0,      0x1111, 0x2222,
                  0x3333, 0x0013, 1,      0,      0,      0,      0,      1,      0,      0,
                  2,      8,      0xAA55, 0x0020, 1,      1,      14,     14,     0x0021, 0,
                  15,     0x0022, 3,      3,      0x05FB, 0x0023, 0x0202, 0x0028, 2,      2,
                  0x0341, 0x4243, 0x002B, 0x0102, 0x0141, 0x00FF}));
  pict(4, 2, W({0x0011, 0x02FF, 0x009A, 0,      0xFF,   0x8008, 0,      0,      2,     4, 0, 3,
                0,      0,      0x48,   0,      0x48,   0,      16,     16,     3,     5, 0, 0,
                0,      0,      0,      0,      0,      0,      2,      4,      0,     0, 2, 4,
                0,      0x03FD, 0x7C00, 0x0903, 0x001F, 0x03E0, 0x7C00, 0x7FFF, 0x00FF}));
  pict(260, 1, W({0x0011, 0x02FF, 0x0098, 0x8104, 0,      0,      1,     260, 0,   0,      0,
                  0,      0x48,   0,      0x48,   0,      0,      8,     1,   8,   0,      0,
                  0,      0,      0,      0,      0,      0,      0,     1,   0,   0x1111, 0x2222,
                  0x3333, 1,      0xAAAA, 0xBBBB, 0xCCCC, 0,      0,     1,   260, 0,      0,
                  1,      260,    0,      4,      0x8101, 0x8500, 0x00FF}));
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
  // Every other class writes its own seeds in the layouts its writer takes.
  for (std::uint8_t pick = 1; pick < kKindCount; ++pick)
    for (int type : {QI_PIXEL_GRAY, QI_PIXEL_RGB, QI_PIXEL_RGBA})
      for (int bits : {8, 16}) {
        std::unique_ptr<QI_ImageFile> file = MakeKind(pick);
        if (!file || !file->setPixelType(type) || !file->setBitsPerChannel(bits)) continue;
        Bytes seed = Written(*file, pick);
        if (seed.size() > 1) seeds.push_back(std::move(seed));
      }
  // GIF has no writer: the smallest file there is, one pixel of a two-colour map.
  seeds.push_back({7,   'G', 'I', 'F', '8', '9', 'a', 1, 0, 1, 0, 0x80, 0, 0, 0,    0,    0, 255,
                   255, 255, ',', 0,   0,   0,   0,   1, 0, 1, 0, 0,    2, 2, 0x44, 0x01, 0, ';'});
  seeds.push_back({5,   'P', '3', '\n', '#', 'c', '\n', '2', ' ', '1', ' ', '9', '\n',
                   '1', ' ', '2', ' ',  '3', ' ', '4',  ' ', '5', ' ', '9', '\n'});
  // MAP files the way ImageMagick writes them, without our trailer: a square under 256 entries.
  Bytes map(1 + 768 + 9, 0);
  map[0] = 10, map[769] = 0xFF;
  seeds.push_back(map);
  // RLA layouts our writer does not produce: 16-bit classic, ":00:", 10-bit and float newer
  // layout, and two images chained through the next-image offset.
  const auto rla = [](int storage, int revision, int bits, const char* time, Bytes line) {
    Bytes f(744, 0);
    f[11] = 1, f[19] = static_cast<std::uint8_t>(storage), f[21] = 1, f[23] = 1;
    f[26] = static_cast<std::uint8_t>(revision >> 8), f[27] = static_cast<std::uint8_t>(revision);
    f[659] = f[663] = static_cast<std::uint8_t>(bits);
    for (int i = 0; time[i]; ++i) f[614 + i] = static_cast<std::uint8_t>(time[i]);
    f[742] = 2, f[743] = 0xE8;
    f.insert(f.end(), line.begin(), line.end());
    return f;
  };
  const Bytes planes = {0, 5, 0xFC, 1, 2, 3, 4, 0, 3, 1, 0xFF, 0};
  Bytes two = rla(0, 0xFFFE, 8, "", {0, 2, 1, 9, 0, 2, 1, 200});
  const Bytes second = rla(0, 0xFFFE, 8, "", {0, 3, 0xFE, 7, 8, 0, 2, 1, 99});
  const auto shift = static_cast<std::uint32_t>(two.size());
  vx::StoreBE32(&two[736], shift);
  two.insert(two.end(), second.begin(), second.end());
  vx::StoreBE32(&two[shift + 740], shift + 744);
  for (Bytes f :
       {rla(1, 0, 0, "", planes), rla(1, 0, 0, "12:00:00", planes), rla(0, 0xFFFE, 10, "", planes),
        rla(4, 0xFFFE, 32, "",
            {0, 8, 0, 0, 0x40, 0x3F, 0, 0, 0x80, 0x3F, 0, 8, 0, 0, 0, 0, 0, 0, 0, 0x3F}),
        two}) {
    f.insert(f.begin(), 1);
    seeds.push_back(std::move(f));
  }
  PictSeeds(&seeds);
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  WriteSeedsIntoEmptyCorpus(*argc, *argv, Seeds(), "");
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
  std::uint8_t pick = data[0] % kKindCount;
  for (std::uint8_t i = 0; only && i < kKindCount; ++i)
    if (std::string(only) == kKinds[i].name) pick = i;
  std::unique_ptr<QI_ImageFile> file = MakeKind(pick);
  if (!file) {
    std::fclose(f);
    return 0;
  }
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
