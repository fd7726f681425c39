// QuillPic pictures: the 104-byte big-endian header, the chained channel packets and the
// run-length line coding. Pure functions over bytes; the parser does the files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vx/com.h"

namespace vx::quillpic {

inline constexpr std::uint32_t kMagic = 0x5380F634;
inline constexpr std::uint32_t kIdentifier = 0x50494354;  // "PICT"
inline constexpr std::size_t kHeaderBytes = 104;
inline constexpr std::size_t kCommentBytes = 80;
inline constexpr std::size_t kPacketBytes = 4;
// More packets than this can only repeat channels; a longer chain is taken as damage.
inline constexpr int kMaxPackets = 8;

inline constexpr std::uint8_t kRed = 0x80, kGreen = 0x40, kBlue = 0x20, kAlpha = 0x10;
inline constexpr std::uint8_t kMaskRGB = kRed | kGreen | kBlue;

enum PacketType : std::uint8_t { kUncompressed = 0, kPureRun = 1, kMixedRun = 2 };

struct QuillPicHeader {
  float version = 0.0f;
  char comment[kCommentBytes + 1] = {};  // terminated
  std::uint32_t identifier = 0;
  std::uint16_t width = 0;
  std::uint16_t height = 0;
  float ratio = 0.0f;
  std::uint16_t fields = 0;
};

struct QuillPicPacket {
  std::uint8_t chained = 0;
  std::uint8_t bits = 0;
  std::uint8_t type = 0;
  std::uint8_t mask = 0;
  // Offsets of the packet's channels within an RGBA pixel, in stream order.
  std::uint8_t channel[4] = {};
  int channels = 0;
};

// E_FAIL for fewer than 104 bytes, E_INVALIDARG for another magic.
HRESULT ParseHeader(const std::uint8_t* bytes, std::size_t size, QuillPicHeader* out);
void StoreHeader(const QuillPicHeader& h, std::uint8_t out[kHeaderBytes]);

// The packet chain at the start of `bytes`; `*used` gets its length. E_FAIL for a chain that is
// cut short, too long, or names no channel or an unknown one; E_NOTIMPL for a bit size other
// than 8; E_FAIL for a type other than 0, 1 and 2.
HRESULT ParsePackets(const std::uint8_t* bytes, std::size_t size, std::vector<QuillPicPacket>* out,
                     std::size_t* used);

// Where in `data` each line's coding starts (height + 1 entries, the last one its end), after
// walking every run of every line: false when a count is out of bounds or the data ends early.
bool ScanLines(const std::uint8_t* data, std::size_t size,
               const std::vector<QuillPicPacket>& packets, std::uint32_t width,
               std::uint32_t height, std::vector<std::size_t>* starts);

// Decodes one line starting at data[begin] into `pixels` of `pixelBytes` (3: RGB, 4: RGBA)
// bytes each; channels beyond the pixel are skipped. The line must have passed ScanLines.
void DecodeLine(const std::uint8_t* data, std::size_t begin, std::size_t end,
                const std::vector<QuillPicPacket>& packets, std::uint32_t width,
                std::uint8_t* pixels, int pixelBytes);

// Appends the mixed run-length coding of one line of RGBA (pixelBytes 4) or RGB (3) pixels for
// the channels of `mask`: runs of two or more equal pixels as runs, the rest as literals.
void EncodeLine(const std::uint8_t* pixels, int pixelBytes, std::uint32_t width, std::uint8_t mask,
                std::vector<std::uint8_t>* out);

QuillPicPacket MakePacket(std::uint8_t mask, std::uint8_t type, bool chained);

}  // namespace vx::quillpic
