// The class table: which constructor builds each class the catalogue names. The only file that
// includes every format's header, so the frame and the formats never include each other.
//
// Adding a class: include its header and add one line { "CVxYourParser", &Parser<CVxYourParser> }.
#include <cstring>
#include <iterator>

#include "audio/aiff/aiff_parser.h"
#include "audio/wav/wav_parser.h"
#include "fileio/file_cache_manager.h"
#include "frame/catalogue.h"
#include "imagelib/ceil/ceil_formats.h"
#include "imagelib/ceil/ceil_parser.h"
#include "red/r3d/r3d_parser.h"
#include "red/r3d/red_process_helper.h"
#include "movie/avi/avi_parser.h"
#include "movie/mxf/mxf_parser.h"
#include "movie/qt/qt_manager.h"
#include "movie/qt/qt_parser.h"
#include "still/chyron/chyron_parser.h"
#include "still/dpx/dpx_parser.h"
#include "still/hdr/hdr_parser.h"
#include "still/png/png_parser.h"
#include "still/psd/psd_parser.h"
#include "still/quillpic/quillpic_parser.h"
#include "still/targa/targa_parser.h"
#include "still/tiff/tiff_parser.h"
#include "still/yuv/yuv_parser.h"
#include "vx/sdk.h"

namespace vx::frame {
namespace {

// Two classes share the image-sequence row; which one depends on whether the host's video
// hardware layer is up.
constexpr Constructor kVideoHal = nullptr;    // CVxMediaFileParserVideoHal: not built yet
constexpr Constructor kVideoNoHal = nullptr;  // CVxMediaFileParserVideoNoHal: not built yet

IUnknown* BuildVideoSequence(int arg) {
  Constructor make = VxHWIsVideoHALInstantiated() ? kVideoHal : kVideoNoHal;
  return make ? make(arg) : nullptr;
}

// A codec-family row is built once its format has a file class; until then the factory
// answers as for any class not built yet, and hosts say so rather than fail on Open.
IUnknown* BuildCeil(int code) {
  const vx::ceil::CeilFormat* format = vx::ceil::FindCeilFormat(code);
  return format && format->make ? Parser<CVxMediaFileParserCEIL>(code) : nullptr;
}

IUnknown* CacheManager(int) {
  return vx::fileio::CacheManagerInstance();
}

struct ClassEntry {
  const char* name;
  Constructor make;
};

constexpr ClassEntry kClasses[] = {
    // clang-format off
    {"CVxDPXFileParser", &Parser<CVxDPXFileParser>},
    {"CVxQuillPicFileParser", &Parser<CVxQuillPicFileParser>},
    {"CVxTargaFileParser", &Parser<CVxTargaFileParser>},
    {"CVxTIFFFileParser", &Parser<CVxTIFFFileParser>},
    {"CVxHdrFileParser", &Parser<CVxHdrFileParser>},
    {"CVxPNGFileParser", &Parser<CVxPNGFileParser>},
    {"CVxYUVFileParser", &Parser<CVxYUVFileParser>},
    {"CVxChyronFileParser", &Parser<CVxChyronFileParser>},
    {"CVxMediaFileParserPSD", &Parser<CVxMediaFileParserPSD>},
    {"CVxAudioParserWAV", &Parser<CVxAudioParserWAV>},
    {"CVxAudioParserAIFF", &Parser<CVxAudioParserAIFF>},
    {"CVxMediaFileParserCEIL", &BuildCeil},
    {"CVxMediaFileParserVideo(No)Hal", &BuildVideoSequence},
    {"CVxFileCacheManager", &CacheManager},
    {"CVxRedProcessHelper", &Construct<red::CVxRedProcessHelper, IVxGeneric>},
    {"CVxMediaFileParserR3D", &Parser<red::CVxMediaFileParserR3D>},
    {"CVxMediaFileParserQT", &Parser<CVxMediaFileParserQT>},
    {"CVxQTManager", &Construct<CVxQTManager, IVxGeneric>},
    {"CVxMediaFileParserAVI", &Parser<CVxMediaFileParserAVI>},
    {"CVxMediaFileParserMXF", &Parser<CVxMediaFileParserMXF>},
    // clang-format on
};

}  // namespace

Constructor ConstructorFor(const char* className) {
  if (!className) return nullptr;
  for (const ClassEntry& entry : kClasses) {
    if (std::strcmp(entry.name, className) == 0) return entry.make;
  }
  return nullptr;
}

}  // namespace vx::frame
