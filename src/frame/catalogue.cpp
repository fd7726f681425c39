#include "frame/catalogue.h"

#include <algorithm>
#include <iterator>

#include "vx/sdk.h"

namespace vx::frame {
namespace {

// ---- Extensions -----------------------------------------------------------------------------
constexpr const VxChar* kAvi[] = {VXT("AVI")};
constexpr const VxChar* kQuillon[] = {VXT("PIC")};
constexpr const VxChar* kTiff[] = {VXT("TIF"), VXT("TIFF")};
constexpr const VxChar* kJfifJpeg[] = {VXT("JPEG"), VXT("JFIF"), VXT("JPG")};
constexpr const VxChar* kTarga[] = {VXT("TGA")};
constexpr const VxChar* kYuv[] = {VXT("YUV")};
constexpr const VxChar* kYuv16[] = {VXT("YUV16")};
constexpr const VxChar* kSgi[] = {VXT("SGI"), VXT("RGB")};
constexpr const VxChar* kWavefront[] = {VXT("RLA")};
constexpr const VxChar* kPict[] = {VXT("PCT"), VXT("PICT")};
constexpr const VxChar* kPcx[] = {VXT("PCX")};
constexpr const VxChar* kBmp[] = {VXT("BMP")};
constexpr const VxChar* kPpm[] = {VXT("PPM")};
constexpr const VxChar* kPgm[] = {VXT("PGM")};
constexpr const VxChar* kPng[] = {VXT("PNG")};
constexpr const VxChar* kGif[] = {VXT("GIF")};
constexpr const VxChar* kAlias[] = {VXT("ALS")};
constexpr const VxChar* kCineon[] = {VXT("CIN"), VXT("FIDO")};
constexpr const VxChar* kDpx[] = {VXT("DPX")};
constexpr const VxChar* kPhotoshop[] = {VXT("PSD")};
constexpr const VxChar* kWav[] = {VXT("WAV")};
constexpr const VxChar* kBwf[] = {VXT("BWF")};
constexpr const VxChar* kMxf[] = {VXT("MXF")};
constexpr const VxChar* kMap[] = {VXT("MAP")};
constexpr const VxChar* kHaldenVxVideoHal[] = {VXT("GEN"), VXT("OMF")};
constexpr const VxChar* kChyron[] = {VXT("CHR")};
constexpr const VxChar* kMpg[] = {VXT("MPG"), VXT("MPEG"), VXT("MP3"), VXT("M4A"),
                                  VXT("M4V"), VXT("M2V"),  VXT("MP4")};
constexpr const VxChar* kAiff[] = {VXT("AIF"), VXT("AIFF"), VXT("AIFC")};
constexpr const VxChar* kRed[] = {VXT("R3D")};
constexpr const VxChar* kHdr[] = {VXT("HDR")};
constexpr const VxChar* kQuicktime[] = {VXT("MOV"), VXT("QT"), VXT("HDMOV")};

// ---- The catalogue --------------------------------------------------------------------------
// Registration order. The class name picks the row's constructor from the class table
// (src/classes); the row's argument (image-kind code or mode) goes to the constructor.
constexpr CatalogueRow kCatalogue[] = {
    // clang-format off
    {{0x32D3C204, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 1
     VXT("AVI"), 3, 0x30003, kAvi, 0, "CVxMediaFileParserAVI"},
    {{0x32D3C205, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 2
     VXT("QUILLON"), 1, 3, kQuillon, 0, "CVxQuillPicFileParser"},
    {{0x7F24B2C8, 0x7C42, 0x11CE, {0xBC, 0x0E, 0x00, 0xAA, 0x00, 0x6C, 0x28, 0x9C}},  // 3
     VXT("TIFF"), 1, 3, kTiff, 0, "CVxTIFFFileParser"},
    {{0x32D3C212, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 4
     VXT("JFIF (JPEG)"), 1, 3, kJfifJpeg, 14, "CVxMediaFileParserCEIL"},
    {{0x32D3C207, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 5
     VXT("TARGA"), 1, 3, kTarga, 0, "CVxTargaFileParser"},
    {{0x32D3C208, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 6
     VXT("YUV"), 1, 3, kYuv, 0, "CVxYUVFileParser"},
    {{0xA7359818, 0xCA04, 0x44F0, {0xBA, 0x31, 0x1B, 0xF9, 0x7C, 0xF9, 0xAA, 0xD5}},  // 7
     VXT("YUV16"), 1, 3, kYuv16, 1, "CVxYUVFileParser"},
    {{0x32D3C209, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 8
     VXT("SGI"), 1, 3, kSgi, 5, "CVxMediaFileParserCEIL"},
    {{0x32D3C20A, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 9
     VXT("WAVEFRONT"), 1, 3, kWavefront, 6, "CVxMediaFileParserCEIL"},
    {{0x32D3C20B, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 10
     VXT("PICT"), 1, 3, kPict, 7, "CVxMediaFileParserCEIL"},
    {{0x32D3C20C, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 11
     VXT("PCX"), 1, 3, kPcx, 8, "CVxMediaFileParserCEIL"},
    {{0x32D3C20D, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 12
     VXT("BMP"), 1, 3, kBmp, 9, "CVxMediaFileParserCEIL"},
    {{0x32D3C20E, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 13
     VXT("PPM"), 1, 3, kPpm, 10, "CVxMediaFileParserCEIL"},
    {{0x32D3C20F, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 14
     VXT("PGM"), 1, 3, kPgm, 11, "CVxMediaFileParserCEIL"},
    {{0xFD2CEC1C, 0x49F1, 0x4ECA, {0x8C, 0x46, 0xC2, 0x08, 0xCC, 0x55, 0xBD, 0xE4}},  // 15
     VXT("PNG"), 1, 3, kPng, 0, "CVxPNGFileParser"},
    {{0x32D3C210, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 16
     VXT("GIF"), 1, 1, kGif, 12, "CVxMediaFileParserCEIL"},
    {{0x32D3C211, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 17
     VXT("ALIAS"), 1, 3, kAlias, 13, "CVxMediaFileParserCEIL"},
    {{0x32D3C216, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 18
     VXT("CINEON"), 1, 3, kCineon, 0, "CVxDPXFileParser"},
    {{0xB980120D, 0xCF7D, 0x49D4, {0x93, 0x3F, 0x46, 0x7E, 0x7B, 0x54, 0x11, 0x11}},  // 19
     VXT("DPX"), 1, 3, kDpx, 1, "CVxDPXFileParser"},
    {{0x32D3C213, 0x0E3B, 0x11CF, {0xAF, 0xA9, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}},  // 20
     VXT("PHOTOSHOP"), 1, 3, kPhotoshop, 0, "CVxMediaFileParserPSD"},
    {{0x7F24B2C9, 0x7C42, 0x11CE, {0xBC, 0x0E, 0x00, 0xAA, 0x00, 0x6C, 0x28, 0x9C}},  // 21
     VXT("WAV"), 2, 0x30003, kWav, 0, "CVxAudioParserWAV"},
    {{0xC855EFC1, 0x92EA, 0x4048, {0x82, 0xEE, 0x33, 0xAC, 0x85, 0xC3, 0xEE, 0x89}},  // 22
     VXT("BWF"), 2, 0x30001, kBwf, 0, "CVxAudioParserWAV"},
    {{0x6C82FD9D, 0x5D87, 0x4E97, {0xB2, 0xE5, 0x09, 0x16, 0xB1, 0x3D, 0xC6, 0x36}},  // 23
     VXT("MXF"), 3, 0x30003, kMxf, 0, "CVxMediaFileParserMXF"},
    {{0x47BE3252, 0xDAFA, 0x11D1, {0x9E, 0x34, 0x00, 0xA0, 0xC9, 0x82, 0xCC, 0xE4}},  // 24
     VXT("MAP"), 1, 3, kMap, 19, "CVxMediaFileParserCEIL"},
    {{0x18829291, 0x03F0, 0x11D4, {0x92, 0x2B, 0x00, 0x90, 0x27, 0xBC, 0x38, 0xC0}},  // 25
     VXT("HALDEN VX (VIDEO HAL)"), 1, 0x30003, kHaldenVxVideoHal, 0, "CVxMediaFileParserVideo(No)Hal"},
    {{0x0724CB7B, 0x60E3, 0x478F, {0x98, 0x2A, 0x93, 0x67, 0xEA, 0xEA, 0xEB, 0xC9}},  // 26
     VXT("CHYRON"), 1, 3, kChyron, 0, "CVxChyronFileParser"},
    {{0x3F0215AA, 0xFDEE, 0x441A, {0x94, 0x99, 0xCA, 0x80, 0xA3, 0x6E, 0xB7, 0x4E}},  // 27
     VXT("MPG"), 3, 0x30001, kMpg, 0, "CVxMediaFileParserQT"},
    {{0x655AADEC, 0xD238, 0x11D0, {0xB5, 0xF0, 0x00, 0xA0, 0xC9, 0x06, 0x81, 0x7C}},  // 28
     VXT("AIFF"), 2, 0x30003, kAiff, 0, "CVxAudioParserAIFF"},
    {{0xFE7C267F, 0xB78C, 0x4FCC, {0x8F, 0x6A, 0xD7, 0xD3, 0x44, 0x1D, 0x26, 0xB5}},  // 29
     VXT("RED"), 3, 0x30001, kRed, 0, "CVxMediaFileParserR3D"},
    {{0x4ADF0901, 0xC8F1, 0x4947, {0x84, 0x61, 0xA1, 0x99, 0x95, 0x47, 0x85, 0x9F}},  // 30
     VXT("HDR"), 1, 3, kHdr, 0, "CVxHdrFileParser"},
    {{0x70BA3112, 0x9E70, 0x11D1, {0x80, 0xC8, 0x00, 0xA0, 0xC9, 0x06, 0x81, 0x8F}},  // 31
     VXT("QUICKTIME"), 3, 0x30003, kQuicktime, 0, "CVxMediaFileParserQT"},
    // clang-format on
};
static_assert(std::size(kCatalogue) == 31);

// Undone in this order: QUICKTIME moves up behind AVI.
constexpr int kUnregistrationOrder[] = {1,  31, 2,  3,  4,  5,  6,  7,  8,  9,  10,
                                        11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21,
                                        22, 23, 24, 25, 26, 27, 28, 29, 30};
static_assert(std::size(kUnregistrationOrder) == std::size(kCatalogue));

constexpr ModuleObject kObjects[] = {
    {{0x08465D6A, 0xDBB9, 0x11D0, {0xB5, 0xF0, 0x00, 0xA0, 0xC9, 0x06, 0x81, 0x7C}},
     ObjectKind::ComOnly,
     0,
     nullptr,
     VXT("ADF File Parser"),
     Birth::Unreferenced,
     "CVxMediaFileParserADF"},
    {{0x7774DB05, 0x6972, 0x11D4, {0x81, 0xB2, 0x00, 0x90, 0x27, 0x1B, 0x98, 0xFE}},
     ObjectKind::GenericAndCom,
     1,
     VXT("Vx QT Manager"),
     VXT("Vx QT Manager"),
     Birth::Unreferenced,
     "CVxQTManager"},
    {{0xFBC68131, 0xB490, 0x46CA, {0xB3, 0x50, 0xC4, 0xEE, 0x08, 0xD8, 0x18, 0x5B}},
     ObjectKind::GenericAndCom,
     0,
     VXT("Vx File Cache Manager"),
     VXT("Vx File Cache Manager"),
     Birth::Unreferenced,
     "CVxFileCacheManager"},
    // Built holding its own reference; its IUnknown is a sub-object.
    {{0x0D0A65E9, 0xF572, 0x45F5, {0x8F, 0x43, 0xD1, 0x42, 0x03, 0xA2, 0x92, 0xA8}},
     ObjectKind::GenericAndCom,
     1,
     VXT("Red Process Helper Generic Object"),
     VXT("Red Process Helper Class"),
     Birth::Referenced,
     "CVxRedProcessHelper"},
};

}  // namespace

std::span<const CatalogueRow> Catalogue() {
  return kCatalogue;
}
std::span<const ModuleObject> ModuleObjects() {
  return kObjects;
}
std::span<const int> UnregistrationOrder() {
  return kUnregistrationOrder;
}

const CatalogueRow* FindRow(const GUID& clsid) {
  auto it = std::find_if(std::begin(kCatalogue), std::end(kCatalogue),
                         [&](const CatalogueRow& r) { return r.clsid == clsid; });
  return it == std::end(kCatalogue) ? nullptr : &*it;
}

const ModuleObject* FindObject(const GUID& clsid) {
  auto it = std::find_if(std::begin(kObjects), std::end(kObjects),
                         [&](const ModuleObject& o) { return o.clsid == clsid; });
  return it == std::end(kObjects) ? nullptr : &*it;
}

}  // namespace vx::frame
