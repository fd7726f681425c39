// The decoding library of Linux builds: the container walk of r3d_container and JPEG 2000
// frames through libopenjp2, whose reduce factor gives the half to sixteenth modes without
// decoding the full picture. No accelerator card.
#include "red/r3d/red_library.h"

#if defined(VX_HAVE_OPENJP2)

#include <openjpeg.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "red/r3d/r3d_container.h"
#include "vx/platform.h"

namespace vx::red {

namespace {

constexpr std::uint32_t kMaxCodestream = 512u << 20;
constexpr std::uint64_t kMaxDecodedPixels = 1u << 26;  // 8K × 8K

struct MemoryStream {
  const std::uint8_t* data;
  std::size_t size;
  std::size_t pos;
};

OPJ_SIZE_T StreamRead(void* buf, OPJ_SIZE_T n, void* user) {
  auto* s = static_cast<MemoryStream*>(user);
  if (s->pos >= s->size) return static_cast<OPJ_SIZE_T>(-1);
  const std::size_t take = std::min<std::size_t>(n, s->size - s->pos);
  std::memcpy(buf, s->data + s->pos, take);
  s->pos += take;
  return take;
}
OPJ_OFF_T StreamSkip(OPJ_OFF_T n, void* user) {
  auto* s = static_cast<MemoryStream*>(user);
  if (n < 0) {
    const std::size_t back = static_cast<std::size_t>(-n);
    if (back > s->pos) return -1;
    s->pos -= back;
    return n;
  }
  const std::size_t fwd = std::min<std::size_t>(static_cast<std::size_t>(n), s->size - s->pos);
  s->pos += fwd;
  return static_cast<OPJ_OFF_T>(fwd);
}
OPJ_BOOL StreamSeek(OPJ_OFF_T to, void* user) {
  auto* s = static_cast<MemoryStream*>(user);
  if (to < 0 || static_cast<std::uint64_t>(to) > s->size) return OPJ_FALSE;
  s->pos = static_cast<std::size_t>(to);
  return OPJ_TRUE;
}
void Quiet(const char*, void*) {}

struct Image {
  opj_image_t* image = nullptr;
  ~Image() {
    if (image) opj_image_destroy(image);
  }
};

// Decodes a codestream at `reduce`; false when the library refuses it (a reduce beyond the
// codestream's levels among other things).
bool DecodeCodestream(const std::vector<std::uint8_t>& data, std::uint32_t width,
                      std::uint32_t height, int reduce, int threads, Image* out) {
  const bool jp2 = data.size() >= 12 && data[4] == 'j' && data[5] == 'P';
  opj_codec_t* codec = opj_create_decompress(jp2 ? OPJ_CODEC_JP2 : OPJ_CODEC_J2K);
  if (!codec) return false;
  opj_set_error_handler(codec, Quiet, nullptr);
  opj_set_warning_handler(codec, Quiet, nullptr);
  opj_set_info_handler(codec, Quiet, nullptr);
  opj_dparameters_t params;
  opj_set_default_decoder_parameters(&params);
  params.cp_reduce = static_cast<OPJ_UINT32>(reduce);
  MemoryStream ms{data.data(), data.size(), 0};
  opj_stream_t* stream = opj_stream_create(1 << 16, OPJ_TRUE);
  // Zero threads keeps the decode on this thread whatever OPJ_NUM_THREADS says.
  bool ok = stream && opj_setup_decoder(codec, &params) &&
            opj_codec_set_threads(codec, threads > 1 ? threads : 0);
  if (ok) {
    opj_stream_set_user_data(stream, &ms, nullptr);
    opj_stream_set_user_data_length(stream, data.size());
    opj_stream_set_read_function(stream, StreamRead);
    opj_stream_set_skip_function(stream, StreamSkip);
    opj_stream_set_seek_function(stream, StreamSeek);
    // A picture of another size than the clip's is refused before anything is allocated for it.
    ok = opj_read_header(stream, codec, &out->image) && out->image->x1 > out->image->x0 &&
         out->image->y1 > out->image->y0 && out->image->x1 - out->image->x0 == width &&
         out->image->y1 - out->image->y0 == height && opj_decode(codec, stream, out->image) &&
         opj_end_decompress(codec, stream);
  }
  if (stream) opj_stream_destroy(stream);
  opj_destroy_codec(codec);
  return ok;
}

// Component samples of `prec` bits to the output's 8 or 16 bits, rounded; out-of-range samples
// are clamped first. A table, as a division per sample costs more than the rest of the copy.
class SampleScale {
 public:
  SampleScale(std::uint32_t prec, RedPixels pixels)
      : max_((1u << prec) - 1), table_(std::size_t{max_} + 1) {
    const std::uint32_t top = pixels == RedPixels::kBgra8 ? 255 : 65535;
    for (std::uint32_t u = 0; u <= max_; ++u)
      table_[u] = static_cast<std::uint16_t>((u * top + max_ / 2) / max_);
  }
  std::uint16_t operator()(std::int32_t s) const {
    const std::uint32_t u = s <= 0                                 ? 0u
                            : static_cast<std::uint32_t>(s) > max_ ? max_
                                                                   : static_cast<std::uint32_t>(s);
    return table_[u];
  }

 private:
  std::uint32_t max_;
  std::vector<std::uint16_t> table_;
};

class J2kClip final : public RedClip {
 public:
  J2kClip(R3DIndex index, const std::atomic<int>& threads)
      : index_(std::move(index)), threads_(threads) {
    info_.width = index_.width;
    info_.height = index_.height;
    info_.frameCount = static_cast<std::int32_t>(index_.frames.size());
    info_.rateNumerator = index_.rateNumerator;
    info_.rateDenominator = index_.rateDenominator;
    auto tc = index_.metadata.find("timecode");
    if (tc != index_.metadata.end()) info_.timeCode = tc->second;
    auto edge = index_.metadata.find("edge_timecode");
    if (edge != index_.metadata.end()) info_.edgeTimeCode = edge->second;
  }
  const RedClipInfo& Info() const override { return info_; }
  bool Metadata(std::string_view name, std::string* value) const override {
    auto it = index_.metadata.find(std::string(name));
    if (it == index_.metadata.end()) return false;
    if (value) *value = it->second;
    return true;
  }
  bool Decode(std::int32_t frame, int shift, RedPixels pixels, std::uint8_t* out,
              std::size_t outBytes) override;

 private:
  bool ReadCodestream(std::int32_t frame, std::vector<std::uint8_t>* data);

  R3DIndex index_;
  const std::atomic<int>& threads_;
  RedClipInfo info_;
  std::mutex fileLock_;
  std::vector<os::UniqueFile> files_;
};

bool J2kClip::ReadCodestream(std::int32_t frame, std::vector<std::uint8_t>* data) {
  if (frame < 0 || static_cast<std::size_t>(frame) >= index_.frames.size()) return false;
  const R3DFrameRef& ref = index_.frames[static_cast<std::size_t>(frame)];
  if (ref.size > kMaxCodestream || ref.part >= index_.parts.size()) return false;
  os::FileHandle f;
  {
    std::lock_guard<std::mutex> lock(fileLock_);
    if (files_.size() < index_.parts.size()) files_.resize(index_.parts.size());
    if (!files_[ref.part]) files_[ref.part].reset(os::OpenRead(index_.parts[ref.part].c_str()));
    f = files_[ref.part].get();
  }
  if (f == os::kNoFile) return false;
  data->resize(ref.size);
  std::uint32_t done = 0;
  return os::ReadAt(f, ref.offset, data->data(), ref.size, &done) && done == ref.size;
}

bool J2kClip::Decode(std::int32_t frame, int shift, RedPixels pixels, std::uint8_t* out,
                     std::size_t outBytes) {
  if (!out || shift < 0 || shift > 4) return false;
  const std::uint32_t w = ShiftedSize(info_.width, shift);
  const std::uint32_t h = ShiftedSize(info_.height, shift);
  const std::size_t bpp = RedPixelBytes(pixels);
  if (std::size_t{w} * h * bpp > outBytes) return false;
  // What the codec allocates follows the picture it decodes: a header claiming more than any
  // camera records is refused rather than handed to it.
  if (std::uint64_t{w} * h > kMaxDecodedPixels) return false;
  std::vector<std::uint8_t> data;
  if (!ReadCodestream(frame, &data)) return false;

  // The codestream's own levels do what they can; pixels are skipped for the rest.
  Image img;
  int reduce = shift;
  const int threads = threads_.load(std::memory_order_relaxed);
  while (!DecodeCodestream(data, info_.width, info_.height, reduce, threads, &img)) {
    if (img.image) {
      opj_image_destroy(img.image);
      img.image = nullptr;
    }
    if (--reduce < 0) return false;
  }
  const opj_image_t* im = img.image;
  if (im->numcomps < 1) return false;
  const int n = im->numcomps >= 3 ? 3 : 1;
  const std::uint32_t step = 1u << (shift - reduce);
  for (int c = 0; c < n; ++c) {
    const opj_image_comp_t& comp = im->comps[c];
    if (!comp.data || comp.dx != 1 || comp.dy != 1 || comp.sgnd || comp.prec < 1 ||
        comp.prec > 16 || comp.w < (w - 1) * step + 1 || comp.h < (h - 1) * step + 1 ||
        comp.factor != static_cast<OPJ_UINT32>(reduce))
      return false;
  }
  // Grey pictures repeat their one component; components of one precision share a table.
  const opj_image_comp_t* comps[3];
  std::vector<SampleScale> scales;
  scales.reserve(3);
  int scaleOf[3];
  for (int c = 0; c < 3; ++c) {
    comps[c] = &im->comps[n == 3 ? c : 0];
    scaleOf[c] = c > 0 && comps[c]->prec == comps[c - 1]->prec ? scaleOf[c - 1] : -1;
    if (scaleOf[c] < 0) {
      scales.emplace_back(comps[c]->prec, pixels);
      scaleOf[c] = static_cast<int>(scales.size()) - 1;
    }
  }
  const SampleScale& s0 = scales[static_cast<std::size_t>(scaleOf[0])];
  const SampleScale& s1 = scales[static_cast<std::size_t>(scaleOf[1])];
  const SampleScale& s2 = scales[static_cast<std::size_t>(scaleOf[2])];
  for (std::uint32_t y = 0; y < h; ++y) {
    const std::size_t at = std::size_t{y} * step;
    const OPJ_INT32* r = comps[0]->data + at * comps[0]->w;
    const OPJ_INT32* g = comps[1]->data + at * comps[1]->w;
    const OPJ_INT32* b = comps[2]->data + at * comps[2]->w;
    std::uint8_t* row = out + std::size_t{y} * w * bpp;
    if (pixels == RedPixels::kBgra8) {
      for (std::uint32_t x = 0; x < w; ++x) {
        const std::size_t i = std::size_t{x} * step;
        std::uint8_t* p = row + std::size_t{x} * 4;
        p[0] = static_cast<std::uint8_t>(s2(b[i]));
        p[1] = static_cast<std::uint8_t>(s1(g[i]));
        p[2] = static_cast<std::uint8_t>(s0(r[i]));
        p[3] = 255;
      }
    } else {
      for (std::uint32_t x = 0; x < w; ++x) {
        const std::size_t i = std::size_t{x} * step;
        const std::uint16_t px[3] = {s0(r[i]), s1(g[i]), s2(b[i])};
        std::memcpy(row + std::size_t{x} * 6, px, 6);
      }
    }
  }
  return true;
}

class J2kLibrary final : public RedLibrary {
 public:
  std::unique_ptr<RedClip> OpenClip(const VxChar* path) override {
    R3DIndex index;
    if (!ReadR3DIndex(path, &index)) return nullptr;
    return std::make_unique<J2kClip>(std::move(index), threads_);
  }
  bool ProbeCard(RedCardVersions*, int*) override { return false; }
  bool OpenCardDecoder() override { return false; }
  void CloseCard() override {}
  bool SubmitJob(RedJob*) override { return false; }
  void SetDecodeThreads(int threads) override {
    threads_.store(threads > 1 ? threads : 1, std::memory_order_relaxed);
  }

 private:
  std::atomic<int> threads_{1};
};

}  // namespace

RedLibrary& DefaultRedLibrary() {
  static J2kLibrary library;
  return library;
}

}  // namespace vx::red

#endif
