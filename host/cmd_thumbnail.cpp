// vxhost thumbnail: one frame of a file, scaled down by area averaging, as PNG (when built with
// libpng) or binary PPM -- the quick look a browser of shots needs.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "host.h"

#ifdef VXHOST_HAVE_PNG
#include <png.h>
#endif

namespace vxhost {
namespace {

struct ThumbnailArgs {
  std::string input, output;
  int frame = 0;
  int size = 256;
  bool sequence = false;
  std::vector<std::string> readOptions;
};

struct DrawerSlot {
  int order;
  ThumbnailDrawer drawer;
};

std::vector<DrawerSlot>& Drawers() {
  static std::vector<DrawerSlot> drawers;
  return drawers;
}

// Area-averaging reduction so that the longer side is at most `size`; never enlarges.
Picture Reduce(IVxImage* image, int size) {
  const int w = image->GetWidth(), h = image->GetHeight();
  const double scale = std::min(1.0, static_cast<double>(size) / std::max(w, h));
  Picture out;
  out.width = std::max(1, static_cast<int>(std::lround(w * scale)));
  out.height = std::max(1, static_cast<int>(std::lround(h * scale)));
  out.rgb.resize(static_cast<std::size_t>(out.width) * out.height * 3);
  const BYTE* base = image->GetBuffer();
  const int stride = image->GetRowStride();
  for (int ty = 0; ty < out.height; ++ty) {
    const int y0 = ty * h / out.height, y1 = std::max(y0 + 1, (ty + 1) * h / out.height);
    for (int tx = 0; tx < out.width; ++tx) {
      const int x0 = tx * w / out.width, x1 = std::max(x0 + 1, (tx + 1) * w / out.width);
      double sum[3] = {0, 0, 0};
      for (int y = y0; y < y1; ++y) {
        const float* row =
            reinterpret_cast<const float*>(base + static_cast<std::size_t>(y) * stride);
        for (int x = x0; x < x1; ++x)
          for (int c = 0; c < 3; ++c) sum[c] += row[x * 4 + c];
      }
      const double n = static_cast<double>(y1 - y0) * (x1 - x0);
      for (int c = 0; c < 3; ++c) {
        const double v = std::clamp(sum[c] / n, 0.0, 1.0);
        out.rgb[(static_cast<std::size_t>(ty) * out.width + tx) * 3 + c] =
            static_cast<std::uint8_t>(std::lround(v * 255.0));
      }
    }
  }
  return out;
}

bool WritePpm(const std::string& path, const Picture& p) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  std::fprintf(f, "P6\n%d %d\n255\n", p.width, p.height);
  const bool ok = std::fwrite(p.rgb.data(), 1, p.rgb.size(), f) == p.rgb.size();
  return std::fclose(f) == 0 && ok;
}

#ifdef VXHOST_HAVE_PNG
bool WritePng(const std::string& path, const Picture& p) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(p.width);
  image.height = static_cast<png_uint_32>(p.height);
  image.format = PNG_FORMAT_RGB;
  return png_image_write_to_file(&image, path.c_str(), 0, p.rgb.data(), 0, nullptr) != 0;
}
#endif

// The picture stream's frame, reduced.
HRESULT DrawPicture(IVxMediaFileParser* parser, const ThumbnailRequest& request, Picture* out) {
  BOOL has = FALSE;
  if (FAILED(parser->HasStream(VX_STREAM_PICTURE, &has)) || !has) return S_FALSE;
  ComPtr<IVxImageStreamParser> stream;
  HRESULT hr = parser->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, stream.put_void());
  ComPtr<IVxImage> image;
  if (SUCCEEDED(hr)) hr = VxCreateImage(0, 0, VX_PF_RGBAF32, image.put());
  if (SUCCEEDED(hr)) {
    IVxImage* target = image.get();
    hr = stream->ReadImage(&target, request.frame);
  }
  if (FAILED(hr)) return hr;
  *out = Reduce(image.get(), std::max(1, request.size));
  return S_OK;
}

bool Thumbnail(const Module& module, const ThumbnailArgs& args) {
  const std::string& file = args.input;
  Input input;
  OpenedParser opened;
  std::string error;
  const bool resolved = ResolveInput(file, args.sequence, &input, &error);
  input.options = args.readOptions;
  if (!resolved || !OpenInput(module, input, &opened, &error)) {
    FileError(file, error);
    return false;
  }
  const std::string ext = ExtensionOf(args.output);
  if (ext != "PPM" && ext != "PNG") {
    FileError(args.output, "thumbnails are written as .png or .ppm");
    return false;
  }
#ifndef VXHOST_HAVE_PNG
  if (ext == "PNG") {
    FileError(args.output, "this vxhost was built without PNG: write a .ppm");
    return false;
  }
#endif
  const ThumbnailRequest request{args.frame, args.size};
  Picture picture;
  HRESULT hr = DrawPicture(opened.parser.get(), request, &picture);
  auto drawers = Drawers();
  std::stable_sort(drawers.begin(), drawers.end(),
                   [](const DrawerSlot& a, const DrawerSlot& b) { return a.order < b.order; });
  for (const DrawerSlot& d : drawers) {
    if (hr != S_FALSE) break;
    hr = d.drawer(opened.parser.get(), request, &picture);
  }
  opened.parser->Close();
  if (hr == S_FALSE) {
    FileError(file, "nothing to draw: the file has neither a picture nor a sound stream");
    return false;
  }
  if (FAILED(hr)) {
    FileError(file + " frame " + std::to_string(args.frame), ReadFailureText(hr, opened.entry));
    return false;
  }
  bool written = false;
#ifdef VXHOST_HAVE_PNG
  if (ext == "PNG") written = WritePng(args.output, picture);
#endif
  if (ext == "PPM") written = WritePpm(args.output, picture);
  if (!written) {
    FileError(args.output, "write failed");
    return false;
  }
  std::printf("%s -> %s: %dx%d\n", file.c_str(), args.output.c_str(), picture.width,
              picture.height);
  return true;
}

void Setup(CLI::App& app, Options& options) {
  static ThumbnailArgs args;
  auto* cmd = app.add_subcommand("thumbnail", "Write a small picture of one frame (.png or .ppm)");
  cmd->add_option("input", args.input, "File or numbered sequence")->required();
  cmd->add_option("output", args.output, "Thumbnail file (.png or .ppm)")->required();
  cmd->add_option("--frame", args.frame, "Frame of the stream (from 0)")->capture_default_str();
  cmd->add_flag("--sequence", args.sequence,
                "Treat a file name with a frame number as its whole numbered sequence");
  cmd->add_option("--size", args.size, "Longest side in pixels")->capture_default_str();
  cmd->add_option("--read-option", args.readOptions,
                  "Any reader option as name=value (repeatable), e.g. size=1920x1080");
  cmd->callback([&options] {
    auto module = LoadModule(options);
    if (!module || !EnsureRegistered(*module) || !Thumbnail(*module, args)) SetExitCode(1);
  });
}

}  // namespace

ThumbnailDrawerRegistration::ThumbnailDrawerRegistration(int order, ThumbnailDrawer drawer) {
  Drawers().push_back({order, drawer});
}

VXHOST_COMMAND(60, Setup);

}  // namespace vxhost
