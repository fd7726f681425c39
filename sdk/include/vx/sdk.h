// The host SDK stand-in: registry, generic objects, file lists, host image and sound objects,
// time, time code, edge code, LUT helpers, message boxes and host flags.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vx/com.h"

#if defined(_WIN32)
#if defined(VXSDK_BUILDING)
#define VXSDK_API __declspec(dllexport)
#else
#define VXSDK_API __declspec(dllimport)
#endif
#else
#define VXSDK_API __attribute__((visibility("default")))
#endif

// Identifiers of the host SDK's own interfaces (same family as the parser interfaces).
inline constexpr IID IID_IVxFileList = {
    0xA54A9D90, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};
inline constexpr IID IID_IVxImage = {
    0xA54A9D91, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};
inline constexpr IID IID_IVxGeneric = {
    0xA54A9D92, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};
inline constexpr IID IID_IVxAudioBuffer = {
    0xA54A9D96, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};

// ---- Strings handed across interfaces (allocated by the callee, freed by the caller) -------
// A null source gives null; freeing null does nothing.
VXSDK_API VxChar* VxSysAllocString(const VxChar* s);
VXSDK_API void VxSysFreeString(VxChar* s);

// ---- Generic objects ------------------------------------------------------------------------
// Process-wide service objects. Start runs once when the host first creates the object.
struct IVxGeneric : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE Start() = 0;  // slot 3
  virtual HRESULT STDMETHODCALLTYPE Stop() = 0;   // slot 4
};

// ---- Registry -------------------------------------------------------------------------------
// The module handle names the module: its path is looked up and stored (on Linux any address
// inside the module will do). Registering a class id again replaces its entry of that kind;
// unregistering an entry that is not there gives HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND).
VXSDK_API HRESULT VxRegisterFileParser(const GUID& clsid, HINSTANCE module,
                                       const VxChar* displayName, DWORD mediaKind,
                                       DWORD capabilities, const VxChar* const* extensions,
                                       int extensionCount);
VXSDK_API HRESULT VxUnregisterFileParser(const GUID& clsid, HINSTANCE module);
VXSDK_API HRESULT VxRegisterGenericObj(const GUID& clsid, const VxChar* name, int flag,
                                       HINSTANCE module);
VXSDK_API HRESULT VxUnRegisterGenericObj(const GUID& clsid, HINSTANCE module);
VXSDK_API HRESULT CBRegisterCOMObject(const GUID& clsid, HINSTANCE module, const VxChar* name);
VXSDK_API HRESULT CBUnregisterCOMObject(const GUID& clsid);

// A registration in one piece. Between the two calls this thread holds the registry's lock and
// its register and unregister calls change a private copy; VxEndRegistration(TRUE) saves that
// copy at once, FALSE drops it. Other threads and processes see all of the batch or none of it.
// A second begin on the same thread gives E_UNEXPECTED, and so does an end without a begin.
VXSDK_API HRESULT VxBeginRegistration();
VXSDK_API HRESULT VxEndRegistration(BOOL commit);

// Loads the registered module of `clsid`, creates the object through its class factory once per
// process (calling Start then), and hands out a new reference to that one instance.
VXSDK_API HRESULT VxQueryGenericObject(REFCLSID clsid, IVxGeneric** out);
// Stops and releases every generic object this process created (host shutdown).
VXSDK_API void VxReleaseGenericObjects();

namespace vx::registry {

enum class Kind { FileParser, GenericObject, ComObject };

struct Entry {
  Kind kind = Kind::FileParser;
  GUID clsid{};
  std::string name;                     // display name (UTF-8)
  std::uint32_t mediaKind = 0;          // parsers: 1 still, 2 audio, 3 movie
  std::uint32_t capabilities = 0;       // parsers: bit 0 import, bit 1 export
  std::vector<std::string> extensions;  // parsers: upper case, no dot
  int flag = 0;                         // generic objects
  std::string module;                   // absolute path of the module (UTF-8)
};

// Where the registry lives: $VXHOST_REGISTRY, else $XDG_CONFIG_HOME/vxhost/registry.json, else
// ~/.config/vxhost/registry.json (Windows: %APPDATA%\vxhost\registry.json).
VXSDK_API std::string Path();
// All entries in registration order. A missing or unreadable file is an empty registry. Writers
// that find the file unreadable keep it as "<path>.bad" and start afresh; every save goes to a
// temporary file that then replaces the registry, under an exclusive lock on "<path>.lock".
VXSDK_API std::vector<Entry> List();
// Parser entry for a class id (kind FileParser first, then any kind). False when absent.
VXSDK_API bool FindByClsid(const GUID& clsid, Entry* out, Kind kind);
VXSDK_API bool FindByClsid(const GUID& clsid, Entry* out);
// File parser for an extension, case-insensitive, with or without the dot.
VXSDK_API bool FindByExtension(std::string_view extension, Entry* out);
// Whether the registry is up to date for the module file at `modulePath`: every save stamps each
// module it touched with the file's size and time and the number of entries naming it, and this
// compares that stamp with the file and the entries as they are now. False for a module that was
// never registered, was rebuilt since, or lost an entry.
VXSDK_API bool IsCurrent(const std::string& modulePath);

}  // namespace vx::registry

// ---- File lists -----------------------------------------------------------------------------
struct IVxFileList : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetCount(int* count) = 0;  // slot 3
  // New string from VxSysAllocString; the caller frees it with VxSysFreeString.
  virtual HRESULT STDMETHODCALLTYPE GetFileName(int index, VxChar** name) = 0;  // slot 4
  // The frame number the name carries (its index when it has none).
  virtual HRESULT STDMETHODCALLTYPE GetFrameNumber(int index, int* frame) = 0;  // slot 5
};

// Expands a numbered-sequence pattern: "shot.####.dpx" (exactly that many digits),
// "shot.%04d.dpx" or "%d" (what printf would write), or a plain name whose last digit run names
// a frame ("shot.0007.dpx": same stem, digit count and extension). Only the file name is
// searched, and a non-numeric extension is not ("clip.mp4" is no sequence); runs of more than
// nine digits are no frame numbers. Sorted by frame; missing frames are simply absent. A plain
// name without digits, or whose sequence has one member or none, gives itself as the one entry;
// a "#" or "%d" pattern that matches nothing gives an empty list.
VXSDK_API HRESULT VxGetFileListFromPattern(const VxChar* name, IVxFileList** out);
// A list of names the host already has; frame numbers from their digit runs, else the index.
VXSDK_API HRESULT VxCreateFileList(const VxChar* const* names, int count, IVxFileList** out);
// The name of frame `frame` for a pattern ("####", "%04d" or a digit run); the name itself when
// it has no frame field.
VXSDK_API VxString VxFileNameForFrame(const VxChar* pattern, int frame);

// ---- Time -----------------------------------------------------------------------------------
// Time base: 705,600,000 ticks per second, which every common frame rate (23.976, 24, 25,
// 29.97, 30, 48, 50, 59.94, 60, 120) and audio rate (8 kHz to 192 kHz) divides exactly.
inline constexpr std::int64_t kVxTicksPerSecond = 705600000;

struct VxTimeFormat {
  std::int32_t rateNum = 0;  // frames (or samples) per second as a fraction
  std::int32_t rateDen = 1;
  double Rate() const { return rateDen ? static_cast<double>(rateNum) / rateDen : 0.0; }
};

// Nearest exact rate: 23.976 → 24000/1001, 29.97 → 30000/1001, 59.94 → 60000/1001; other
// rates as num/1000 reduced. Non-positive or absurd rates give 0/1.
VXSDK_API VxTimeFormat VxGetTimeFormatFromSampleRate(double rate);

class CVxTime {
 public:
  CVxTime() = default;
  explicit CVxTime(std::int64_t ticks) : ticks_(ticks) {}
  // Start of frame `frame` at the format's rate.
  VXSDK_API CVxTime(std::int64_t frame, const VxTimeFormat& format);
  std::int64_t Ticks() const { return ticks_; }
  double Seconds() const { return static_cast<double>(ticks_) / kVxTicksPerSecond; }
  // Frame containing this time at the format's rate (floor).
  VXSDK_API std::int64_t ToFrame(const VxTimeFormat& format) const;
  bool operator==(const CVxTime&) const = default;

 private:
  std::int64_t ticks_ = 0;
};
static_assert(sizeof(CVxTime) == 8);

// ---- Time code and edge code ----------------------------------------------------------------
// SMPTE time code word: BCD nibbles HH MM SS FF from the most significant down. A field outside
// 0..99 gives 0xFFFFFFFF, the "not given" word.
VXSDK_API DWORD VxConstructLTCInBCD(int hours, int minutes, int seconds, int frames);
// Inverse; false when a nibble is not a decimal digit.
VXSDK_API bool VxParseLTCInBCD(DWORD bcd, int* hours, int* minutes, int* seconds, int* frames);

// Film edge code (key code) of a frame: manufacturer, film type, prefix, count and perf offset.
class VXSDK_API EdgeCode {
 public:
  // Text of the form "MM TT OO-PPPPPP+CCCC": manufacturer, film type, perf offset, prefix and
  // count, separated by ' ', ' ', '-' and '+' (the order of a DPX film header). Fields may be
  // shorter, blank-padded or missing; they must not contain their separator. False (and
  // invalid) when neither manufacturer, type, prefix nor count is found.
  bool InitFromString(const char* text);
  // Perforation type: 0 unknown, 1 = 4-perf 35 mm, 3 = 3-perf, 4 = 2-perf, 5 = 8-perf 65 mm.
  void InitPos(int perfType);
  bool IsValid() const { return valid_; }
  std::string ToString() const;  // the InitFromString form; empty when invalid
  std::string manufacturer, filmType, prefix, count, perfOffset;
  int perfType = 0;

 private:
  bool valid_ = false;
};

// ---- Host image -----------------------------------------------------------------------------
enum VxPixelFormat : std::uint32_t {
  VX_PF_UNKNOWN = 0,
  VX_PF_RGB8 = 1,
  VX_PF_RGBA8 = 2,
  VX_PF_BGRA8 = 3,
  VX_PF_RGB16 = 4,
  VX_PF_RGBA16 = 5,
  VX_PF_RGBF32 = 6,
  VX_PF_RGBAF32 = 7,
  VX_PF_GRAY8 = 8,
  VX_PF_GRAY16 = 9,
  VX_PF_GRAYF32 = 10,
};
VXSDK_API int VxPixelFormatChannels(VxPixelFormat f);
VXSDK_API int VxPixelFormatBytesPerPixel(VxPixelFormat f);
VXSDK_API const char* VxPixelFormatName(VxPixelFormat f);

// Row 0 is the top line. Rows may be padded: always step by GetRowStride.
struct IVxImage : IUnknown {
  virtual int STDMETHODCALLTYPE GetWidth() = 0;                                          // 3
  virtual int STDMETHODCALLTYPE GetHeight() = 0;                                         // 4
  virtual VxPixelFormat STDMETHODCALLTYPE GetPixelFormat() = 0;                          // 5
  virtual int STDMETHODCALLTYPE GetRowStride() = 0;                                      // 6 bytes
  virtual BYTE* STDMETHODCALLTYPE GetBuffer() = 0;                                       // 7
  virtual HRESULT STDMETHODCALLTYPE Allocate(int width, int height, VxPixelFormat) = 0;  // 8
  virtual double STDMETHODCALLTYPE GetPixelAspect() = 0;                                 // 9
  virtual void STDMETHODCALLTYPE SetPixelAspect(double aspect) = 0;                      // 10
  virtual int STDMETHODCALLTYPE GetFieldMode() = 0;                                      // 11
  virtual void STDMETHODCALLTYPE SetFieldMode(int mode) = 0;                             // 12
  virtual void STDMETHODCALLTYPE GetTiming(CVxTime* start, CVxTime* duration) = 0;       // 13
  virtual void STDMETHODCALLTYPE SetTiming(CVxTime start, CVxTime duration) = 0;         // 14
};

// Field modes as the parsers report them.
enum : int {
  VX_FIELD_LOWER_FIRST = 0,
  VX_FIELD_UPPER_FIRST = 1,
  VX_FIELD_PROGRESSIVE = 2,
  VX_FIELD_UNKNOWN = 3
};

// New image (reference count 1); width/height 0 makes an empty image to Allocate later.
VXSDK_API HRESULT VxCreateImage(int width, int height, VxPixelFormat format, IVxImage** out);
// Converts between any two formats of equal size. 8-bit v ↔ 16-bit v·257 ↔ float v/255;
// float → integer clamps to [0, 1] and rounds; grey → colour replicates; colour → grey uses
// Rec. 709 weights; a missing alpha becomes opaque. Also copies aspect, field mode and timing.
VXSDK_API HRESULT VxConvertImage(IVxImage* src, IVxImage* dst);

// ---- Sound buffer ---------------------------------------------------------------------------
struct IVxAudioBuffer : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetFormat(WAVEFORMATEX* format) = 0;  // 3
  virtual BYTE* STDMETHODCALLTYPE GetBuffer() = 0;                        // 4
  virtual DWORD STDMETHODCALLTYPE GetCapacity() = 0;                      // 5 bytes
  virtual DWORD STDMETHODCALLTYPE GetLength() = 0;                        // 6 bytes in use
  virtual HRESULT STDMETHODCALLTYPE SetLength(DWORD bytes) = 0;           // 7
};
VXSDK_API HRESULT VxCreateAudioBuffer(const WAVEFORMATEX* format, DWORD capacityBytes,
                                      IVxAudioBuffer** out);

// ---- LUT helpers ----------------------------------------------------------------------------
struct VxLUT3D;  // opaque
// Loads a 3D LUT file (.cube). E_NOTIMPL for a kind it cannot read, E_FAIL when malformed.
VXSDK_API HRESULT VxGetPresetLUT(const VxChar* path, VxLUT3D** out);
VXSDK_API void VxFreeLUT(VxLUT3D* lut);
// Applies the LUT in place to `pixels` interleaved float samples (3 or 4 channels; alpha kept).
VXSDK_API HRESULT VxLUTHelperApply3DLut(const VxLUT3D* lut, float* pixels, std::size_t count,
                                        int channels);

// Preset 1D transfer curves of the host, applied per colour channel (alpha is kept). A curve's
// forward direction takes linear light to its code values, the reverse direction back, so
// reverse(display) then forward(linear) turns a display-referred picture into linear light.
// Preset 0 is linear (the identity); preset 6 is the display curve, the sRGB one (IEC 61966-2-1,
// mirrored below zero and continued above one).
enum : DWORD { VX_PRESET_LUT_LINEAR = 0, VX_PRESET_LUT_DISPLAY = 6 };
// The id under which the helpers below know host preset `preset`; E_INVALIDARG when the host
// has no such preset, E_POINTER for a null `id`.
VXSDK_API HRESULT VxGetPresetLUTId(DWORD preset, DWORD* id);
// Apply a preset's curve in place to `count` pixels of `channels` (3 or 4) interleaved floats.
// E_INVALIDARG for an unknown id or another channel count, E_POINTER for null pixels.
VXSDK_API HRESULT VxLUTHelperApplyForward1DLut(DWORD id, float* pixels, std::size_t count,
                                               int channels);
VXSDK_API HRESULT VxLUTHelperApplyReverse1DLut(DWORD id, float* pixels, std::size_t count,
                                               int channels);

// ---- Host flags, project properties and message boxes ---------------------------------------
VXSDK_API void VxSetShowParserUI(BOOL show);
VXSDK_API BOOL VxGetShowParserUI();
VXSDK_API BOOL VxHWIsVideoHALInstantiated();
VXSDK_API void VxSetVideoHALInstantiated(BOOL up);  // the host's own switch
// Numeric project properties ("Project Frame Rate", ...). False when the host never set it.
VXSDK_API BOOL VxGetProjectProperty(const VxChar* name, double* value);
VXSDK_API void VxSetProjectProperty(const VxChar* name, double value);

using VxMessageBoxHandler = void (*)(const VxChar* caption, const VxChar* text, void* context);
// Windows: MessageBoxW. Elsewhere the handler, by default one line "caption: text" on stderr.
VXSDK_API void VxMessageBox(const VxChar* caption, const VxChar* text);
VXSDK_API void VxSetMessageBoxHandler(VxMessageBoxHandler handler, void* context);
