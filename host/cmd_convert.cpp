// vxhost convert: read a file or numbered sequence through one parser and write it through
// another, frame by frame, as a host's export does.
#include <cstdio>
#include <string>
#include <vector>

#include "host.h"

namespace vxhost {
namespace {

struct ConvertArgs {
  std::string input, output;
  std::string depth, layout, packing, endian, lut, transfer;
  std::vector<std::string> options;  // -o name=value
  bool quiet = false;
};

struct Frames {
  bool single = true;
  std::vector<int> numbers;  // frame number of each input frame
};

// The input's frames: the file itself, or the members of its numbered sequence.
bool ListFrames(const VxString& input, Frames* out) {
  if (vx::os::IsFile(input.c_str())) {
    out->single = true;
    out->numbers = {0};
    return true;
  }
  ComPtr<IVxFileList> list;
  if (FAILED(VxGetFileListFromPattern(input.c_str(), list.put())) || !list) return false;
  int count = 0;
  list->GetCount(&count);
  out->single = false;
  for (int i = 0; i < count; ++i) {
    int number = i;
    list->GetFrameNumber(i, &number);
    out->numbers.push_back(number);
  }
  if (count == 1) {
    VxChar* name = nullptr;
    const bool exists = SUCCEEDED(list->GetFileName(0, &name)) && name && vx::os::IsFile(name);
    VxSysFreeString(name);
    if (!exists) return false;
  }
  return count > 0;
}

// The layout option that keeps the source's layout, from its compression name ("10 bit RGBA",
// "12 bit R+G+B+A, Fill Method A", ...). Empty when the name says nothing we can keep.
std::string LayoutFromCompressionName(std::string name) {
  name = name.substr(0, name.find(','));
  const std::string order = name.substr(name.rfind(' ') + 1);
  if (order == "RGB") return "packed-rgb";
  if (order == "RGBA") return "packed-rgba";
  if (order == "BGR") return "packed-bgr";
  if (order == "BGRA") return "packed-abgr";
  if (order == "RGB+A") return "rgb+alpha";
  if (order == "BGR+A") return "bgr+alpha";
  if (order == "R+G+B") return "planar-rgb";
  if (order == "R+G+B+A") return "planar-rgba";
  return {};
}

// The packing option that keeps the source's packing, from the same name.
std::string PackingFromCompressionName(const std::string& name) {
  const std::size_t comma = name.find(", ");
  if (comma == std::string::npos) return {};
  const std::string packing = name.substr(comma + 2);
  if (packing == "Packed") return "packed";
  if (packing == "Fill Method A") return "a";
  if (packing == "Fill Method B") return "b";
  return {};
}

void Progress(std::size_t done, std::size_t total) {
  constexpr int kWidth = 30;
  const int filled = static_cast<int>(done * kWidth / total);
  std::fprintf(stderr, "\r[%s%s] %zu/%zu", std::string(filled, '#').c_str(),
               std::string(kWidth - filled, '.').c_str(), done, total);
  if (done == total) std::fprintf(stderr, "\n");
  std::fflush(stderr);
}

class Converter {
 public:
  Converter(const Module& module, const ConvertArgs& args) : module_(module), args_(args) {}

  bool Run() {
    const VxString in = vx::FromUtf8(args_.input);
    Frames frames;
    if (!ListFrames(in, &frames))
      return Fail(args_.input, Words(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)));
    vx::registry::Entry inEntry, outEntry;
    if (!FindParserFor(args_.input, &inEntry) || !(inEntry.capabilities & 1))
      return Fail(args_.input, "no parser reads ." + ExtensionOf(args_.input) + " files");
    if (!FindParserFor(args_.output, &outEntry) || !(outEntry.capabilities & 2))
      return Fail(args_.output, "no parser writes ." + ExtensionOf(args_.output) + " files");

    ComPtr<IVxMediaFileParser> reader, writer;
    if (HRESULT hr = module_.Create(inEntry.clsid, IID_IVxMediaFileParser, reader.put_void());
        FAILED(hr))
      return Fail(args_.input, Words(hr));
    if (HRESULT hr = module_.Create(outEntry.clsid, IID_IVxMediaFileParser, writer.put_void());
        FAILED(hr))
      return Fail(args_.output, Words(hr));
    if (HRESULT hr = reader->Open(in.c_str(), frames.single ? DWORD{VX_OPEN_NO_PATTERN} : DWORD{0});
        FAILED(hr))
      return Fail(args_.input, Words(hr));
    VxImageStreamFormat format{};
    format.cbSize = sizeof format;
    if (HRESULT hr = reader->GetStreamFormat(VX_STREAM_PICTURE, 0, &format); FAILED(hr))
      return Fail(args_.input, Words(hr));
    ComPtr<IVxImageStreamParser> source, target;
    if (HRESULT hr =
            reader->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, source.put_void());
        FAILED(hr))
      return Fail(args_.input, Words(hr));
    if (HRESULT hr =
            writer->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, target.put_void());
        FAILED(hr))
      return Fail(args_.output, Words(hr));
    BuildOptions(reader.get(), format);

    const VxString out = vx::FromUtf8(args_.output);
    const std::size_t total = frames.numbers.size();
    if (total > 1 && VxFileNameForFrame(out.c_str(), 1) == VxFileNameForFrame(out.c_str(), 2))
      return Fail(args_.output,
                  "needs a frame field (#### or %04d) for " + std::to_string(total) + " frames");
    const bool progress = !args_.quiet && total > 1 && vx::os::IsTerminal(2);
    for (std::size_t i = 0; i < total; ++i) {
      const int number = frames.numbers[i];
      const VxString name = total == 1 ? out : VxString(VxFileNameForFrame(out.c_str(), number));
      const std::string label = vx::ToUtf8(name);
      if (HRESULT hr = writer->Open(name.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN); FAILED(hr))
        return Fail(label, Words(hr));
      if (!ApplyOptions(writer.get(), i == 0)) return false;
      writer->SetStreamFormat(VX_STREAM_PICTURE, 0, &format);  // rate, field mode, aspect
      IVxImage* image = nullptr;
      HRESULT hr = source->ReadImage(&image, static_cast<std::int32_t>(i));
      if (FAILED(hr) || !image) {
        if (image) image->Release();
        if (progress) std::fprintf(stderr, "\n");
        return Fail(args_.input + " frame " + std::to_string(number),
                    Words(FAILED(hr) ? hr : E_FAIL));
      }
      hr = target->WriteImage(image, number);
      image->Release();
      writer->Close();
      if (FAILED(hr)) {
        if (progress) std::fprintf(stderr, "\n");
        return Fail(label, Words(hr));
      }
      if (progress) Progress(i + 1, total);
    }
    reader->Close();
    if (!args_.quiet)
      std::printf("%s -> %s: %zu frame%s\n", args_.input.c_str(), args_.output.c_str(), total,
                  total == 1 ? "" : "s");
    return true;
  }

 private:
  struct Option {
    std::string text;
    bool fromUser;  // a default that keeps the source is dropped quietly when refused
  };

  bool Fail(const std::string& what, const std::string& text) {
    FileError(what, text);
    return false;
  }

  static bool Named(const std::vector<std::string>& options, const std::string& name) {
    for (const auto& o : options)
      if (o.compare(0, name.size() + 1, name + "=") == 0) return true;
    return false;
  }

  // The user's options, and, where the user gave none, the source's depth and layout so that
  // a conversion between like formats keeps them.
  void BuildOptions(IVxMediaFileParser* reader, const VxImageStreamFormat& format) {
    auto user = [&](const char* name, const std::string& value) {
      if (!value.empty()) options_.push_back({std::string(name) + "=" + value, true});
    };
    user("depth", args_.depth);
    user("layout", args_.layout);
    user("packing", args_.packing);
    user("endian", args_.endian);
    user("transfer", args_.transfer);
    user("lut", args_.lut);
    for (const auto& o : args_.options) options_.push_back({o, true});
    std::vector<std::string> given;
    for (const auto& o : options_) given.push_back(o.text);

    if (!Named(given, "depth")) {
      DWORD bits = 0;
      ComPtr<IVxColorManagedParser> cm;
      if (SUCCEEDED(reader->QueryInterface(IID_IVxColorManagedParser, cm.put_void())) && cm)
        cm->GetBitDepth(&bits);
      if (!bits && format.channels) bits = format.bitsPerPixel / format.channels;
      if (bits) options_.push_back({"depth=" + std::to_string(bits), false});
    }
    VxChar name[128] = {};
    if (SUCCEEDED(reader->GetCompressionName(name, 128))) {
      const std::string text = vx::ToUtf8(name);
      if (!Named(given, "layout")) {
        const std::string layout = LayoutFromCompressionName(text);
        if (!layout.empty()) options_.push_back({"layout=" + layout, false});
      }
      if (!Named(given, "packing")) {
        const std::string packing = PackingFromCompressionName(text);
        if (!packing.empty()) options_.push_back({"packing=" + packing, false});
      }
    }
  }

  bool ApplyOptions(IVxMediaFileParser* writer, bool report) {
    for (const Option& o : options_) {
      const VxString text = vx::FromUtf8(o.text);
      const HRESULT hr = writer->SetOption(const_cast<VxChar*>(text.c_str()), VX_OPTION_TEXT);
      if (!o.fromUser || hr == S_OK) continue;
      if (hr == S_FALSE || hr == E_NOTIMPL) {
        if (report)
          std::fprintf(stderr, "%s: option %s is not one of this format's; ignored\n",
                       args_.output.c_str(), o.text.c_str());
        continue;
      }
      return Fail(args_.output, "option " + o.text + ": " + Words(hr));
    }
    return true;
  }

  const Module& module_;
  const ConvertArgs& args_;
  std::vector<Option> options_;
};

void Run(const Options& options, const ConvertArgs& args) {
  auto module = LoadModule(options);
  if (!module) return SetExitCode(1);
  if (!EnsureRegistered(*module)) return SetExitCode(1);
  Converter converter(*module, args);
  if (!converter.Run()) SetExitCode(1);
}

void Setup(CLI::App& app, Options& options) {
  static ConvertArgs args;
  auto* cmd = app.add_subcommand(
      "convert", "Read a file or numbered sequence and write it in the output's format");
  cmd->add_option("input", args.input, "Input file or sequence pattern (in.####.dpx)")->required();
  cmd->add_option("output", args.output, "Output file, or pattern for a sequence")->required();
  cmd->add_option("--depth", args.depth,
                  "Bits per sample: 8, 10, 12, 16, 32 (default: the source's)");
  cmd->add_option("--layout", args.layout,
                  "packed-rgba, planar-rgba, packed-abgr, rgb+alpha, bgr+alpha, packed-rgb, "
                  "planar-rgb, packed-bgr (default: the source's)");
  cmd->add_option("--packing", args.packing, "packed, a or b (filled, method A or B)");
  cmd->add_option("--endian", args.endian, "big or little");
  cmd->add_option("--transfer", args.transfer,
                  "Transfer choice (0 linear, 3 ITU-R 709, 4 printing density)");
  cmd->add_option("--lut", args.lut, "3D LUT (.cube) to apply before writing");
  cmd->add_option("-o,--option", args.options, "Any writer option as name=value (repeatable)");
  cmd->add_flag("-q,--quiet", args.quiet, "No progress bar and no summary");
  cmd->callback([&options] { Run(options, args); });
}

}  // namespace

VXHOST_COMMAND(50, Setup);

}  // namespace vxhost
