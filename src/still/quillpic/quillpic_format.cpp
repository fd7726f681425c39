#include "still/quillpic/quillpic_format.h"

#include <algorithm>
#include <cstring>

#include "base/bytes.h"

namespace vx::quillpic {
namespace {

// Channel bits in the order their bytes follow each other in the stream.
constexpr std::uint8_t kChannelBits[4] = {kRed, kGreen, kBlue, kAlpha};

template <bool kStore>
inline void Put(std::uint8_t* pixel, const std::uint8_t* src, const QuillPicPacket& p,
                int pixelBytes) {
  if constexpr (kStore) {
    for (int c = 0; c < p.channels; ++c) {
      if (p.channel[c] < pixelBytes) pixel[p.channel[c]] = src[c];
    }
  }
}

// One packet's share of one line. `pixels` is only touched when storing.
template <bool kStore>
bool WalkPacket(const std::uint8_t* data, std::size_t size, std::size_t* pos,
                const QuillPicPacket& p, std::uint32_t width, std::uint8_t* pixels,
                int pixelBytes) {
  const std::size_t n = static_cast<std::size_t>(p.channels);
  std::size_t at = *pos;
  std::uint32_t x = 0;
  auto literal = [&](std::uint32_t count) {
    if (count > width - x || (size - at) / n < count) return false;
    if constexpr (kStore) {
      for (std::uint32_t i = 0; i < count; ++i)
        Put<true>(pixels + std::size_t{x + i} * pixelBytes, data + at + i * n, p, pixelBytes);
    }
    at += count * n;
    x += count;
    return true;
  };
  auto repeat = [&](std::uint32_t count) {
    if (count == 0 || count > width - x || size - at < n) return false;
    if constexpr (kStore) {
      for (std::uint32_t i = 0; i < count; ++i)
        Put<true>(pixels + std::size_t{x + i} * pixelBytes, data + at, p, pixelBytes);
    }
    at += n;
    x += count;
    return true;
  };
  switch (p.type) {
    case kUncompressed:
      if (!literal(width)) return false;
      break;
    case kPureRun:
      while (x < width) {
        if (at >= size) return false;
        const std::uint32_t count = data[at++];
        if (!repeat(count)) return false;
      }
      break;
    case kMixedRun:
      while (x < width) {
        if (at >= size) return false;
        const std::uint32_t c = data[at++];
        bool ok;
        if (c < 128) {
          ok = literal(c + 1);
        } else if (c == 128) {
          if (size - at < 2) return false;
          const std::uint32_t count = LoadBE16(data + at);
          at += 2;
          ok = repeat(count);
        } else {
          ok = repeat(c - 127);
        }
        if (!ok) return false;
      }
      break;
    default:
      return false;
  }
  *pos = at;
  return true;
}

}  // namespace

HRESULT ParseHeader(const std::uint8_t* b, std::size_t size, QuillPicHeader* out) {
  if (size < kHeaderBytes) return E_FAIL;
  if (LoadBE32(b) != kMagic) return E_INVALIDARG;
  QuillPicHeader h;
  h.version = LoadFloat(b + 4, true);
  std::memcpy(h.comment, b + 8, kCommentBytes);
  h.comment[kCommentBytes] = 0;
  h.identifier = LoadBE32(b + 88);
  h.width = LoadBE16(b + 92);
  h.height = LoadBE16(b + 94);
  h.ratio = LoadFloat(b + 96, true);
  h.fields = LoadBE16(b + 100);
  *out = h;
  return S_OK;
}

void StoreHeader(const QuillPicHeader& h, std::uint8_t out[kHeaderBytes]) {
  std::memset(out, 0, kHeaderBytes);
  StoreBE32(out, kMagic);
  StoreFloat(out + 4, h.version, true);
  std::memcpy(out + 8, h.comment, strnlen(h.comment, kCommentBytes));
  StoreBE32(out + 88, h.identifier);
  StoreBE16(out + 92, h.width);
  StoreBE16(out + 94, h.height);
  StoreFloat(out + 96, h.ratio, true);
  StoreBE16(out + 100, h.fields);
}

QuillPicPacket MakePacket(std::uint8_t mask, std::uint8_t type, bool chained) {
  QuillPicPacket p;
  p.chained = chained ? 1 : 0;
  p.bits = 8;
  p.type = type;
  p.mask = mask;
  for (int i = 0; i < 4; ++i) {
    if (mask & kChannelBits[i]) p.channel[p.channels++] = static_cast<std::uint8_t>(i);
  }
  return p;
}

HRESULT ParsePackets(const std::uint8_t* bytes, std::size_t size, std::vector<QuillPicPacket>* out,
                     std::size_t* used) {
  std::vector<QuillPicPacket> packets;
  std::size_t at = 0;
  for (;;) {
    if (packets.size() == kMaxPackets || size - at < kPacketBytes) return E_FAIL;
    const std::uint8_t* p = bytes + at;
    at += kPacketBytes;
    const std::uint8_t mask = p[3];
    if (mask == 0 || (mask & 0x0F)) return E_FAIL;
    if (p[1] != 8) return E_NOTIMPL;
    if (p[2] > kMixedRun) return E_FAIL;
    packets.push_back(MakePacket(mask, p[2], p[0] != 0));
    if (!p[0]) break;
  }
  *out = std::move(packets);
  *used = at;
  return S_OK;
}

bool ScanLines(const std::uint8_t* data, std::size_t size,
               const std::vector<QuillPicPacket>& packets, std::uint32_t width,
               std::uint32_t height, std::vector<std::size_t>* starts) {
  starts->assign(std::size_t{height} + 1, 0);
  std::size_t pos = 0;
  for (std::uint32_t y = 0; y < height; ++y) {
    (*starts)[y] = pos;
    for (const QuillPicPacket& p : packets) {
      if (!WalkPacket<false>(data, size, &pos, p, width, nullptr, 0)) return false;
    }
  }
  (*starts)[height] = pos;
  return true;
}

void DecodeLine(const std::uint8_t* data, std::size_t begin, std::size_t end,
                const std::vector<QuillPicPacket>& packets, std::uint32_t width,
                std::uint8_t* pixels, int pixelBytes) {
  std::size_t pos = begin;
  for (const QuillPicPacket& p : packets)
    WalkPacket<true>(data, end, &pos, p, width, pixels, pixelBytes);
}

void EncodeLine(const std::uint8_t* pixels, int pixelBytes, std::uint32_t width, std::uint8_t mask,
                std::vector<std::uint8_t>* out) {
  const QuillPicPacket p = MakePacket(mask, kMixedRun, false);
  const auto at = [&](std::uint32_t x) { return pixels + std::size_t{x} * pixelBytes; };
  const auto same = [&](std::uint32_t a, std::uint32_t b) {
    for (int c = 0; c < p.channels; ++c) {
      if (at(a)[p.channel[c]] != at(b)[p.channel[c]]) return false;
    }
    return true;
  };
  const auto append = [&](std::uint32_t x) {
    for (int c = 0; c < p.channels; ++c) out->push_back(at(x)[p.channel[c]]);
  };
  std::uint32_t x = 0;
  while (x < width) {
    std::uint32_t run = 1;
    while (x + run < width && run < 65535 && same(x, x + run)) ++run;
    if (run >= 2) {
      if (run <= 128) {
        out->push_back(static_cast<std::uint8_t>(run + 127));
      } else {
        out->push_back(128);
        out->push_back(static_cast<std::uint8_t>(run >> 8));
        out->push_back(static_cast<std::uint8_t>(run));
      }
      append(x);
      x += run;
      continue;
    }
    // Literals up to the next pair of equal pixels, at most 128 at a time.
    std::uint32_t count = 1;
    while (x + count < width && count < 128 &&
           !(x + count + 1 < width && same(x + count, x + count + 1)))
      ++count;
    out->push_back(static_cast<std::uint8_t>(count - 1));
    for (std::uint32_t i = 0; i < count; ++i) append(x + i);
    x += count;
  }
}

}  // namespace vx::quillpic
