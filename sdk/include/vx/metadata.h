// What a picture or a sound carries besides its samples: time code, edge code, rates, aspect,
// colour, levels, names. Every parser fills one such record on read (IVxParserSourceInfo::
// GetMetadata) and every writer takes one on write (SetOption with VX_OPTION_METADATA), so a
// conversion keeps whatever the target format can hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "vx/sdk.h"

inline constexpr IID IID_IVxMetadata = {
    0xA54A9D98, 0x10A7, 0x11CF, {0xAF, 0xAD, 0x00, 0xAA, 0x00, 0x62, 0x92, 0x84}};

// Code-value levels of a colour-managed picture.
struct VxLevelSet {
  double gamma;
  double blackLevel;
  double blackGain;
  double breakPoint;
  double whiteLevel;
};

// Transfer characteristics: the DPX table's entries, then what other formats name.
enum VxTransfer : std::uint32_t {
  VX_TRANSFER_UNKNOWN = 0,
  VX_TRANSFER_USER,              // user defined
  VX_TRANSFER_PRINTING_DENSITY,  // film scan (DPX printing density, Cineon)
  VX_TRANSFER_LINEAR,
  VX_TRANSFER_LOG,    // logarithmic
  VX_TRANSFER_VIDEO,  // unspecified video
  VX_TRANSFER_SMPTE_274M,
  VX_TRANSFER_REC709,
  VX_TRANSFER_REC601_625,
  VX_TRANSFER_REC601_525,
  VX_TRANSFER_NTSC,
  VX_TRANSFER_PAL,
  VX_TRANSFER_Z_LINEAR,
  VX_TRANSFER_Z_HOMOGENEOUS,
  VX_TRANSFER_SRGB,
  VX_TRANSFER_GAMMA,  // a pure power law: levels.gamma
  VX_TRANSFER_PQ,
  VX_TRANSFER_HLG,
  VX_TRANSFER_COUNT
};

// Colorimetric characteristics (primaries and white): the DPX table's, then others.
enum VxColorimetric : std::uint32_t {
  VX_COLORIMETRIC_UNKNOWN = 0,
  VX_COLORIMETRIC_USER,
  VX_COLORIMETRIC_PRINTING_DENSITY,
  VX_COLORIMETRIC_SMPTE_274M,
  VX_COLORIMETRIC_REC709,
  VX_COLORIMETRIC_REC601_625,
  VX_COLORIMETRIC_REC601_525,
  VX_COLORIMETRIC_NTSC,
  VX_COLORIMETRIC_PAL,
  VX_COLORIMETRIC_REC2020,
  VX_COLORIMETRIC_DCI_P3,
  VX_COLORIMETRIC_XYZ,
  VX_COLORIMETRIC_COUNT
};

// VxMetadataRecord::present: which fields hold a value.
enum : DWORD {
  VX_MD_TIMECODE = 1u << 0,  // timeCode, timeCodeRate (when its numerator > 0), dropFrame
  VX_MD_USERBITS = 1u << 1,
  VX_MD_FRAMERATE = 1u << 2,
  VX_MD_FIELDMODE = 1u << 3,
  VX_MD_ASPECT = 1u << 4,
  VX_MD_TRANSFER = 1u << 5,
  VX_MD_COLORIMETRIC = 1u << 6,
  VX_MD_LEVELS = 1u << 7,
  VX_MD_CHROMATICITIES = 1u << 8,
  VX_MD_TIMEREFERENCE = 1u << 9,  // sound: samples since midnight
};

// The fixed part of the record. Every double sits on an 8-byte offset, so the layout is the same
// on every build.
struct VxMetadataRecord {
  DWORD cbSize;                 // 0: sizeof(VxMetadataRecord), 168
  DWORD present;                // 4: VX_MD_* bits
  DWORD timeCode;               // 8: SMPTE BCD HH MM SS FF
  DWORD userBits;               // 12
  VxTimeFormat timeCodeRate;    // 16: frames per second the time code counts
  DWORD dropFrame;              // 24: non-zero for drop-frame counting
  VxTimeFormat frameRate;       // 28
  std::int32_t fieldMode;       // 36: VX_FIELD_*
  double pixelAspect;           // 40: width / height of a pixel
  DWORD transfer;               // 48: VxTransfer
  DWORD colorimetric;           // 52: VxColorimetric
  VxLevelSet levels;            // 56
  double chromaticities[8];     // 96: CIE x, y of red, green, blue and white
  std::uint64_t timeReference;  // 160: samples since midnight at the sound's rate
};
static_assert(sizeof(VxMetadataRecord) == 168);
static_assert(offsetof(VxMetadataRecord, pixelAspect) == 40);
static_assert(offsetof(VxMetadataRecord, levels) == 56);
static_assert(offsetof(VxMetadataRecord, timeReference) == 160);

// The record with its texts: well-known keys below, and any "format:name" key for what one
// format has beyond them ("dpx:film-frame-id", "bext:coding-history"). Keys are ASCII; values
// are text. Texts keep their insertion order.
struct IVxMetadata : IUnknown {
  virtual HRESULT STDMETHODCALLTYPE GetRecord(VxMetadataRecord* record) = 0;        // 3
  virtual HRESULT STDMETHODCALLTYPE SetRecord(const VxMetadataRecord* record) = 0;  // 4
  // S_FALSE (value null) when the key has no text. The value comes from VxSysAllocString.
  virtual HRESULT STDMETHODCALLTYPE GetText(const VxChar* key, VxChar** value) = 0;  // 5
  // A null or empty value removes the key.
  virtual HRESULT STDMETHODCALLTYPE SetText(const VxChar* key, const VxChar* value) = 0;     // 6
  virtual HRESULT STDMETHODCALLTYPE GetTextCount(int* count) = 0;                            // 7
  virtual HRESULT STDMETHODCALLTYPE GetTextAt(int index, VxChar** key, VxChar** value) = 0;  // 8
  // Replaces everything with `source`'s record and texts.
  virtual HRESULT STDMETHODCALLTYPE CopyFrom(IVxMetadata* source) = 0;  // 9
  virtual HRESULT STDMETHODCALLTYPE Clear() = 0;                        // 10
};

// New empty record (reference count 1): nothing present.
VXSDK_API HRESULT VxCreateMetadata(IVxMetadata** out);

// Words for the enumerations, as vxhost prints and takes them: "printing-density", "linear",
// "rec709", ... Null for a value out of range; false for a word that names none.
VXSDK_API const char* VxTransferName(DWORD transfer);
VXSDK_API bool VxTransferFromName(std::string_view name, DWORD* transfer);
VXSDK_API const char* VxColorimetricName(DWORD colorimetric);
VXSDK_API bool VxColorimetricFromName(std::string_view name, DWORD* colorimetric);

namespace vx::md {

// Well-known text keys.
inline constexpr char kEdgeCode[] = "edge-code";        // EdgeCode::ToString form
inline constexpr char kInputDevice[] = "input-device";  // scanner, camera, recorder
inline constexpr char kFileName[] = "file-name";        // the source's own file name
inline constexpr char kCreator[] = "creator";           // program that wrote the file
inline constexpr char kProject[] = "project";
inline constexpr char kCopyright[] = "copyright";
inline constexpr char kDescription[] = "description";
inline constexpr char kOriginator[] = "originator";
inline constexpr char kOriginatorReference[] = "originator-reference";
inline constexpr char kDate[] = "date";  // creation, "YYYY-MM-DDTHH:MM:SS" (as much as known)
inline constexpr char kReel[] = "reel";  // reel, tape or clip name
inline constexpr char kComment[] = "comment";

// An empty record of the right size.
inline VxMetadataRecord EmptyRecord() {
  VxMetadataRecord r{};
  r.cbSize = sizeof r;
  r.timeCode = 0xFFFFFFFFu;
  r.userBits = 0xFFFFFFFFu;
  r.fieldMode = 3;
  r.pixelAspect = 1.0;
  return r;
}

// UTF-8 conveniences over the interface. GetText gives "" when absent.
VXSDK_API std::string GetText(IVxMetadata* md, std::string_view key);
VXSDK_API bool HasText(IVxMetadata* md, std::string_view key);
VXSDK_API HRESULT SetText(IVxMetadata* md, std::string_view key, std::string_view value);
VXSDK_API VxMetadataRecord GetRecord(IVxMetadata* md);

}  // namespace vx::md
