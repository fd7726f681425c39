// The parser contract between the host and every parser of the component.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vx/metadata.h"
#include "vx/sdk.h"

inline constexpr IID IID_IVxMediaFileParser = {
    0xA54A9D81, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};
inline constexpr IID IID_IVxImageStreamParser = {
    0xA54A9D85, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};
// Our choice, next in the host's family of parser identifiers.
inline constexpr IID IID_IVxAudioStreamParser = {
    0xA54A9D86, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};
inline constexpr IID IID_IVxParserSourceInfo = {
    0xA54A9D93, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};
inline constexpr IID IID_IVxColorManagedParser = {
    0xA54A9D94, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};
inline constexpr IID IID_IVxParserLUTInfo = {
    0xA54A9D95, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};
inline constexpr IID IID_IVxHostReader = {
    0xA54A9D97, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};

// Stream kinds.
enum : DWORD { VX_STREAM_PICTURE = 1, VX_STREAM_SOUND = 2 };

// Open flags. Bits 28 and 29 are the host's and are never stored by a parser.
enum : DWORD {
  VX_OPEN_WRITE = 0x00000002,       // the file is opened to be written (export)
  VX_OPEN_NO_PATTERN = 0x10000000,  // take the name literally: no numbered-sequence expansion
  VX_OPEN_HOST_RESERVED = 0x20000000,
};

// SetOption kinds: the pointer argument's meaning.
enum : DWORD {
  VX_OPTION_TEXT = 1,  // const VxChar* "name=value"; S_FALSE when the parser lacks that name
  // IVxMetadata*: what the next written frames or samples carry (time code, edge code, colour,
  // names). The writer copies it; S_OK even when the format holds only part of it.
  VX_OPTION_METADATA = 2,
};

// Picture stream format record: 56 bytes, the host's layout.
struct tagVxImageStreamFormat {
  DWORD cbSize;            // 0: 56
  DWORD frameCount;        // 4
  DWORD width;             // 8
  DWORD height;            // 12
  DWORD channels;          // 16: 3, or 4 with alpha
  DWORD bitsPerPixel;      // 20: bits per sample × channels
  DWORD hasAlpha;          // 24: imposed by the host through SetStreamFormat as well
  DWORD planes;            // 28
  double frameRate;        // 32: frames per second, -1 when unknown
  double pixelAspect;      // 40: width / height of a pixel, -1 when unknown
  std::int32_t fieldMode;  // 48: VX_FIELD_*
  DWORD pixelFormat;       // 52: the parser's native VxPixelFormat
};
using VxImageStreamFormat = tagVxImageStreamFormat;
static_assert(sizeof(tagVxImageStreamFormat) == 56);
static_assert(offsetof(tagVxImageStreamFormat, hasAlpha) == 24);
static_assert(offsetof(tagVxImageStreamFormat, pixelAspect) == 40);

// Sound stream format record: the size, then the caller's WAVEFORMATEX buffer (room for its
// extra bytes). On the 32-bit product it is the host's 8 bytes; holding a pointer, it is checked
// against this build's own pointer size.
struct VxAudioStreamFormat {
  DWORD cbSize;
  WAVEFORMATEX* format;
};
static_assert(sizeof(VxAudioStreamFormat) == (sizeof(void*) == 4 ? 8 : 16));
inline constexpr DWORD kVxAudioStreamFormatSize = 8;  // the size field's value on every build

// Position of a sound read: the first sample frame.
struct VxSamplePosition {
  std::int64_t sample;
};

struct IVxFileList;

struct IVxMediaFileParser : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE OpenEx(const VxChar* name, DWORD flags, DWORD reserved) = 0;
  virtual HRESULT STDMETHODCALLTYPE OpenFileList(IVxFileList* list, DWORD flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE Open(const VxChar* name, DWORD flags) = 0;
  virtual HRESULT STDMETHODCALLTYPE Close() = 0;
  virtual HRESULT STDMETHODCALLTYPE Prepare(DWORD arg) = 0;
  virtual HRESULT STDMETHODCALLTYPE HasStream(DWORD kind, BOOL* has) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetStreamFormat(DWORD kind, DWORD index, void* record) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStreamFormat(DWORD kind, DWORD index, void* record) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStream(DWORD kind, DWORD index, REFIID riid, void** ppv) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetStreamCapabilities(DWORD mode, DWORD kind, DWORD* caps) = 0;
  // Start and end (exclusive) of the stream in host time.
  virtual HRESULT STDMETHODCALLTYPE GetTimeRange(DWORD kind, CVxTime* start, CVxTime* end) = 0;
  virtual HRESULT STDMETHODCALLTYPE SetOption(void* option, DWORD kind) = 0;
  virtual HRESULT STDMETHODCALLTYPE GetCompressionName(VxChar* buffer, int size) = 0;
};

struct IVxImageStreamParser : IUnknown {
  // Frame `frame` of the stream. With *image set, fills that host image, converting to its pixel
  // format (and allocating it when it is empty); with *image null, hands back a new image in the
  // parser's native format.
  virtual HRESULT STDMETHODCALLTYPE ReadImage(IVxImage** image, std::int32_t frame) = 0;  // 3
  // Writes `image` as frame `frame` of the file (or numbered sequence) opened for writing.
  virtual HRESULT STDMETHODCALLTYPE WriteImage(IVxImage* image, std::int32_t frame) = 0;  // 4
  virtual HRESULT STDMETHODCALLTYPE ImageOp5(void* arg) = 0;                              // 5
  virtual HRESULT STDMETHODCALLTYPE SetFlag(DWORD which, DWORD value) = 0;                // 6
  virtual HRESULT STDMETHODCALLTYPE ImageOp7(void* arg) = 0;                              // 7
};

struct IVxAudioStreamParser : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetFormat(BYTE* buffer, int* size) = 0;  // 3
  virtual HRESULT STDMETHODCALLTYPE GetLength(LONG* range) = 0;              // 4: [first, end)
  // Reads `count` sample frames at `pos` into `buffer`; *done gets the frames delivered.
  virtual HRESULT STDMETHODCALLTYPE ReadSamples(const VxSamplePosition* pos, LONG count,
                                                void* buffer, LONG* done) = 0;  // 5
  // Appends `count` sample frames in the stream's format (export).
  virtual HRESULT STDMETHODCALLTYPE WriteSamples(const void* buffer, LONG count) = 0;  // 6
  virtual HRESULT STDMETHODCALLTYPE AudioOp7(void* arg) = 0;                           // 7
};

// Per-frame source information (time code, edge code, header report).
struct IVxParserSourceInfo : IUnknown {
  // S_FALSE (1) when the frame has no time code.
  virtual HRESULT STDMETHODCALLTYPE GetTimeCode(std::int32_t frame, DWORD* bcd) = 0;      // 3
  virtual HRESULT STDMETHODCALLTYPE GetEdgeCode(std::int32_t frame, EdgeCode* code) = 0;  // 4
  virtual HRESULT STDMETHODCALLTYPE GetUserBits(std::int32_t frame, DWORD* bits) = 0;     // 5
  virtual HRESULT STDMETHODCALLTYPE GetFrameRate(double* fps) = 0;                        // 6
  virtual HRESULT STDMETHODCALLTYPE GetFieldMode(std::int32_t* mode) = 0;                 // 7
  virtual HRESULT STDMETHODCALLTYPE GetInputDevice(VxChar* buffer, int size) = 0;         // 8
  // Readable description of the file's whole header; capacity in characters.
  virtual HRESULT STDMETHODCALLTYPE GetHeaderReport(VxChar* buffer, int capacity) = 0;  // 9
  // Everything the file says about frame `frame` (-1: the stream as a whole), replacing what
  // `out` held. The fields above are this record's, one by one.
  virtual HRESULT STDMETHODCALLTYPE GetMetadata(std::int32_t frame, IVxMetadata* out) = 0;  // 10
};

struct IVxColorManagedParser : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetTransferCharacteristic(DWORD* code) = 0;  // 3
  virtual HRESULT STDMETHODCALLTYPE GetLevels(VxLevelSet* levels) = 0;           // 4
  virtual HRESULT STDMETHODCALLTYPE SetLevels(const VxLevelSet* levels) = 0;     // 5
  virtual HRESULT STDMETHODCALLTYPE GetBitDepth(DWORD* bits) = 0;                // 6
};

struct IVxParserLUTInfo : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetLUTPath(VxChar* buffer, int size) = 0;  // 3
  virtual HRESULT STDMETHODCALLTYPE SetLUTPath(const VxChar* path) = 0;        // 4
  virtual HRESULT STDMETHODCALLTYPE HasLUT(BOOL* has) = 0;                     // 5
};

// Host object through which a proxy chunk file reads.
struct VxOverlapped {
  std::uint64_t offset;
};
struct IVxHostReader : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Read(void* buffer, DWORD count, DWORD* done,
                                         VxOverlapped* position) = 0;  // 3
};
