#include "r3d_test_clip.h"

#if defined(VX_TEST_OPENJP2)
#include <openjpeg.h>

#include <algorithm>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace redtest {

namespace {

void Be32(std::vector<std::uint8_t>& b, std::uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<std::uint8_t>(v >> s));
}
void Be16(std::vector<std::uint8_t>& b, std::uint16_t v) {
  b.push_back(static_cast<std::uint8_t>(v >> 8));
  b.push_back(static_cast<std::uint8_t>(v));
}
void Tag(std::vector<std::uint8_t>& b, const char* t) {
  b.insert(b.end(), t, t + 4);
}

OPJ_SIZE_T Write(void* buf, OPJ_SIZE_T n, void* user) {
  auto* out = static_cast<std::vector<std::uint8_t>*>(user);
  out->insert(out->end(), static_cast<std::uint8_t*>(buf), static_cast<std::uint8_t*>(buf) + n);
  return n;
}
OPJ_OFF_T Skip(OPJ_OFF_T n, void* user) {
  auto* out = static_cast<std::vector<std::uint8_t>*>(user);
  out->resize(out->size() + static_cast<std::size_t>(n));
  return n;
}
OPJ_BOOL Seek(OPJ_OFF_T, void*) {
  return OPJ_FALSE;
}

}  // namespace

std::uint16_t PatternSample(int f, std::uint32_t x, std::uint32_t y, int c) {
  return static_cast<std::uint16_t>(x * 1031 + y * 257 + static_cast<std::uint32_t>(c) * 20011 +
                                    static_cast<std::uint32_t>(f) * 4099);
}

std::vector<std::uint8_t> EncodeFrame(int f, std::uint32_t w, std::uint32_t h, int levels,
                                      int precision) {
  opj_image_cmptparm_t cp[3];
  std::memset(cp, 0, sizeof cp);
  for (auto& p : cp) {
    p.dx = p.dy = 1;
    p.w = w;
    p.h = h;
    p.prec = static_cast<OPJ_UINT32>(precision);
    p.sgnd = 0;
  }
  opj_image_t* image = opj_image_create(3, cp, OPJ_CLRSPC_SRGB);
  image->x1 = w;
  image->y1 = h;
  for (int c = 0; c < 3; ++c) {
    for (std::uint32_t y = 0; y < h; ++y) {
      for (std::uint32_t x = 0; x < w; ++x)
        image->comps[c].data[y * w + x] = PatternSample(f, x, y, c) & ((1 << precision) - 1);
    }
  }
  opj_cparameters_t params;
  opj_set_default_encoder_parameters(&params);
  // Each level halves the picture; the smallest must keep a pixel.
  while (levels > 1 && std::min(w, h) >> (levels - 1) == 0) --levels;
  params.numresolution = levels;
  params.tcp_mct = 0;  // components coded apart, so every level is exact per component
  opj_codec_t* codec = opj_create_compress(OPJ_CODEC_J2K);
  std::vector<std::uint8_t> out;
  opj_stream_t* stream = opj_stream_create(1 << 16, OPJ_FALSE);
  opj_stream_set_user_data(stream, &out, nullptr);
  opj_stream_set_write_function(stream, Write);
  opj_stream_set_skip_function(stream, Skip);
  opj_stream_set_seek_function(stream, Seek);
  const bool ok = opj_setup_encoder(codec, &params, image) &&
                  opj_start_compress(codec, image, stream) && opj_encode(codec, stream) &&
                  opj_end_compress(codec, stream);
  opj_stream_destroy(stream);
  opj_destroy_codec(codec);
  opj_image_destroy(image);
  if (!ok) throw std::runtime_error("JPEG 2000 encoding failed");
  return out;
}

std::vector<std::filesystem::path> WriteClip(const std::filesystem::path& path,
                                             const ClipPlan& plan) {
  std::vector<std::filesystem::path> written;
  const int perPart = plan.framesPerPart > 0 ? plan.framesPerPart : plan.frames;
  const int parts = plan.frames == 0 ? 1 : (plan.frames + perPart - 1) / perPart;
  for (int part = 0; part < parts; ++part) {
    std::filesystem::path p = path;
    if (plan.framesPerPart > 0) {
      char suffix[16];
      std::snprintf(suffix, sizeof suffix, "_%03d.R3D", part + 1);
      p = path.parent_path() / (path.stem().string() + suffix);
    }
    std::vector<std::uint8_t> b;
    Be32(b, 324);
    Tag(b, "RED1");
    b.push_back(1);  // version 1.0
    b.push_back(0);
    Be16(b, 0);
    Be32(b, plan.rateNumerator);  // time scale of the time stamps
    Be32(b, static_cast<std::uint32_t>(part));
    b.insert(b.end(), 32, 0);
    Be32(b, plan.width);
    Be32(b, plan.height);
    Be16(b, 0);
    Be16(b, plan.rateNumerator);
    Be16(b, plan.rateDenominator);
    b.push_back(0);  // no audio
    std::string name = p.filename().string();
    name.resize(257, '\0');
    b.insert(b.end(), name.begin(), name.end());
    if (!plan.metadata.empty() && part == 0) {
      Be32(b, static_cast<std::uint32_t>(8 + plan.metadata.size()));
      Tag(b, "RDMT");
      b.insert(b.end(), plan.metadata.begin(), plan.metadata.end());
    }
    std::vector<std::uint8_t> first;
    for (int f = part * perPart; f < std::min(plan.frames, (part + 1) * perPart); ++f) {
      if (plan.samePicture && first.empty())
        first = EncodeFrame(0, plan.width, plan.height, 6, plan.precision);
      const std::vector<std::uint8_t> cs =
          plan.samePicture ? first : EncodeFrame(f, plan.width, plan.height, 6, plan.precision);
      Be32(b, static_cast<std::uint32_t>(8 + 12 + cs.size()));
      Tag(b, "REDV");
      Be32(b, static_cast<std::uint32_t>(f) * plan.rateDenominator);  // time stamp
      Be32(b, static_cast<std::uint32_t>(f));
      b.push_back(1);
      b.push_back(0);
      Be16(b, 0);
      b.insert(b.end(), cs.begin(), cs.end());
    }
    std::ofstream out(p, std::ios::binary);
    out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
    if (!out) throw std::runtime_error("cannot write " + p.string());
    written.push_back(p);
  }
  return written;
}

}  // namespace redtest

#endif
