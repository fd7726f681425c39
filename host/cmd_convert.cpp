// vxhost convert: read a file or numbered sequence through one parser and write it through
// another, as a host's export does: pictures frame by frame, sound in blocks, and with every
// frame the source's metadata record, so the target keeps what it can hold.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "host.h"

namespace vxhost {
namespace {

struct ConvertArgs {
  std::string input, output;
  std::string depth, layout, packing, endian, lut, transfer, frames, compression;
  std::string sound;  // a sound file to put beside the pictures of a movie
  double rate = 0;    // frames per second of a movie made from pictures that carry none
  std::vector<std::string> options;      // -o name=value
  std::vector<std::string> readOptions;  // -i name=value
  bool force = false, quiet = false, sequence = false, json = false;
};

// An inclusive range of frame numbers; absent ends are open.
struct FrameRange {
  bool hasFirst = false, hasLast = false;
  long first = 0, last = 0;
  bool Contains(long n) const { return (!hasFirst || n >= first) && (!hasLast || n <= last); }
};

// "12", "12-40", "12-", "-40".
bool ParseRange(const std::string& text, FrameRange* out) {
  if (text.empty()) return true;
  auto number = [](const std::string& s, long* v) {
    if (s.empty()) return false;
    char* end = nullptr;
    *v = std::strtol(s.c_str(), &end, 10);
    return *end == 0;
  };
  const std::size_t dash = text.find('-', 1);
  if (dash == std::string::npos) {
    out->hasFirst = out->hasLast = number(text, &out->first);
    out->last = out->first;
    return out->hasFirst;
  }
  const std::string a = text.substr(0, dash), b = text.substr(dash + 1);
  if (!a.empty() && !(out->hasFirst = number(a, &out->first))) return false;
  if (!b.empty() && !(out->hasLast = number(b, &out->last))) return false;
  return out->hasFirst || out->hasLast;
}

class Converter {
 public:
  Converter(const Module& module, const ConvertArgs& args) : module_(module), args_(args) {}

  bool Run() {
    std::string error;
    if (!ResolveInput(args_.input, args_.sequence, &input_, &error))
      return Fail(args_.input, error);
    input_.options = args_.readOptions;
    if (!FindParserFor(args_.output, &outEntry_))
      return Fail(args_.output, NoParserText(args_.output));
    if (!(outEntry_.capabilities & 2))
      return Fail(args_.output, "the " + outEntry_.name + " parser does not write files" +
                                    WritersOfKind(outEntry_.mediaKind));
    if (!BuildOptions()) return false;
    if (!OpenInput(module_, input_, &reader_, &error)) return Fail(args_.input, error);
    source_ = reader_.parser.As<IVxParserSourceInfo>(IID_IVxParserSourceInfo);

    BOOL hasPicture = FALSE, hasSound = FALSE;
    reader_.parser->HasStream(VX_STREAM_PICTURE, &hasPicture);
    reader_.parser->HasStream(VX_STREAM_SOUND, &hasSound);
    bool ok;
    if (outEntry_.mediaKind == 3) {
      ok = WriteMovie(hasPicture != FALSE, hasSound != FALSE);
    } else if (!args_.sound.empty()) {
      return Fail(args_.sound, "--sound goes with a movie output only");
    } else if (outEntry_.mediaKind == 2) {
      if (!hasSound) return Fail(args_.input, "has no sound to write as " + outEntry_.name);
      ok = CopySound(vx::FromUtf8(args_.output));
    } else {
      if (!hasPicture) return Fail(args_.input, "has no picture to write as " + outEntry_.name);
      ok = CopyPictures();
    }
    reader_.parser->Close();
    if (ok && args_.json) std::printf("%s\n", DumpJson(summary_).c_str());
    return ok;
  }

 private:
  bool Fail(const std::string& what, const std::string& text) {
    FileError(what, text);
    return false;
  }

  // " (write .WAV instead)": the built rows of that media kind that write, for a refusal.
  std::string WritersOfKind(std::uint32_t kind) const {
    std::string list;
    for (const vx::registry::Entry& e : vx::registry::List()) {
      if (e.kind != vx::registry::Kind::FileParser || e.mediaKind != kind ||
          !(e.capabilities & 2) || e.extensions.empty())
        continue;
      ComPtr<IVxMediaFileParser> probe;
      if (FAILED(module_.Create(e.clsid, IID_IVxMediaFileParser, probe.put_void()))) continue;
      for (const std::string& ext : e.extensions) list += (list.empty() ? "" : ", ") + ("." + ext);
    }
    return list.empty() ? "" : " (write " + list + " instead)";
  }

  // The writer's options in words; the source's depth is offered when the user gave none.
  bool BuildOptions() {
    auto user = [&](const char* name, const std::string& value) {
      if (!value.empty()) options_.push_back({std::string(name) + "=" + value, true});
    };
    if (!args_.transfer.empty()) {
      DWORD code = 0;
      const bool number = args_.transfer.find_first_not_of("0123456789") == std::string::npos;
      if (!number && !VxTransferFromName(args_.transfer, &code))
        return Fail(args_.output, "unknown transfer '" + args_.transfer +
                                      "' (printing-density, linear, rec709, user, ...)");
    }
    user("depth", args_.depth);
    user("layout", args_.layout);
    user("packing", args_.packing);
    user("endian", args_.endian);
    user("transfer", args_.transfer);
    user("lut", args_.lut);
    user("compression", args_.compression);
    for (const auto& o : args_.options) {
      if (o.find('=') == std::string::npos)
        return Fail(args_.output, "option '" + o + "' is not name=value");
      options_.push_back({o, true});
    }
    if (!FrameRangeOk()) return Fail(args_.input, "--frames takes N, A-B, A- or -B");
    return true;
  }

  bool FrameRangeOk() { return ParseRange(args_.frames, &range_); }

  bool Given(const std::string& name) const {
    for (const auto& o : options_)
      if (o.text.compare(0, name.size() + 1, name + "=") == 0) return true;
    return false;
  }

  // Options, then the source's record of `frame`, on a writer just opened.
  bool Prepare(IVxMediaFileParser* writer, const std::string& label, int frame, bool report) {
    for (const Option& o : options_) {
      const VxString text = vx::FromUtf8(o.text);
      const HRESULT hr = writer->SetOption(const_cast<VxChar*>(text.c_str()), VX_OPTION_TEXT);
      if (hr == S_OK || !o.fromUser) continue;
      if (hr == S_FALSE || hr == E_NOTIMPL) {
        if (report)
          std::fprintf(stderr, "%s: option %s is not one of %s's; ignored\n", args_.output.c_str(),
                       o.text.c_str(), outEntry_.name.c_str());
        continue;
      }
      return Fail(label, "option " + o.text + ": " + Words(hr));
    }
    if (!source_) return true;
    ComPtr<IVxMetadata> md;
    if (FAILED(VxCreateMetadata(md.put()))) return Fail(label, Words(E_OUTOFMEMORY));
    HRESULT hr = source_->GetMetadata(frame, md.get());
    if (hr == E_NOTIMPL) return true;
    if (FAILED(hr)) return Fail(args_.input, ReadFailureText(hr, reader_.entry));
    hr = writer->SetOption(md.get(), VX_OPTION_METADATA);
    if (FAILED(hr) && hr != E_NOTIMPL) return Fail(label, "metadata: " + Words(hr));
    return true;
  }

  // Frame numbers of the source's frames: a numbered sequence's own numbers, else 1, 2, ...
  std::vector<long> FrameNumbers(int count) {
    std::vector<long> numbers;
    ComPtr<IVxFileList> list;
    if (input_.sequence && SUCCEEDED(VxGetFileListFromPattern(input_.wide.c_str(), list.put())) &&
        list) {
      int n = 0;
      list->GetCount(&n);
      if (n == count) {
        for (int i = 0; i < n; ++i) {
          int number = i;
          list->GetFrameNumber(i, &number);
          numbers.push_back(number);
        }
        return numbers;
      }
    }
    for (int i = 0; i < count; ++i) numbers.push_back(i + 1);
    return numbers;
  }

  // Refuses to replace files unless --force, before anything is written.
  bool CheckTargets(const std::vector<VxString>& names) {
    if (args_.force) return true;
    for (const VxString& name : names) {
      if (vx::os::IsFile(name.c_str()))
        return Fail(vx::ToUtf8(name), "exists; --force replaces it");
    }
    return true;
  }

  bool CopyPictures() {
    VxImageStreamFormat format{};
    format.cbSize = sizeof format;
    if (HRESULT hr = reader_.parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &format); FAILED(hr))
      return Fail(args_.input, ReadFailureText(hr, reader_.entry));
    const int count = static_cast<int>(format.frameCount ? format.frameCount : 1);
    const std::vector<long> numbers = FrameNumbers(count);
    // The source's depth, unless the user chose one; a writer without it just says no.
    if (!Given("depth") && format.channels)
      options_.push_back({"depth=" + std::to_string(format.bitsPerPixel / format.channels), false});

    std::vector<int> frames;  // stream indices to write
    for (int i = 0; i < count; ++i)
      if (range_.Contains(numbers[i])) frames.push_back(i);
    if (frames.empty()) return Fail(args_.input, "no frame in the range " + args_.frames);
    const VxString out = vx::FromUtf8(args_.output);
    const bool numbered = HasFrameField(out);
    if (frames.size() > 1 && !numbered)
      return Fail(args_.output, "needs a frame field (#### or %04d) for " +
                                    std::to_string(frames.size()) + " frames");
    std::vector<VxString> names;
    for (int i : frames)
      names.push_back(
          numbered ? VxString(VxFileNameForFrame(out.c_str(), static_cast<int>(numbers[i]))) : out);
    if (!CheckTargets(names)) return false;

    ComPtr<IVxMediaFileParser> writer;
    if (HRESULT hr = module_.Create(outEntry_.clsid, IID_IVxMediaFileParser, writer.put_void());
        FAILED(hr))
      return Fail(args_.output, Words(hr));
    ComPtr<IVxImageStreamParser> sourceStream, target;
    if (HRESULT hr = reader_.parser->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser,
                                               sourceStream.put_void());
        FAILED(hr))
      return Fail(args_.input, Words(hr));
    if (HRESULT hr =
            writer->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser, target.put_void());
        FAILED(hr))
      return Fail(args_.output, Words(hr));

    Progress progress(args_.output, frames.size(), args_.quiet);
    Json files = Json::array();
    for (std::size_t k = 0; k < frames.size(); ++k) {
      const int index = frames[k];
      const std::string label = vx::ToUtf8(names[k]);
      if (HRESULT hr = writer->Open(names[k].c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN);
          FAILED(hr)) {
        progress.Abort();
        return Fail(label, "cannot open for writing: " + Words(hr));
      }
      if (!Prepare(writer.get(), label, index, k == 0)) {
        progress.Abort();
        return false;
      }
      writer->SetStreamFormat(VX_STREAM_PICTURE, 0, &format);  // rate, field mode, aspect
      ComPtr<IVxImage> image;
      HRESULT hr = sourceStream->ReadImage(image.put(), index);
      if (FAILED(hr) || !image) {
        writer->Close();
        progress.Abort();
        return Fail(args_.input + " frame " + std::to_string(numbers[index]),
                    ReadFailureText(FAILED(hr) ? hr : E_FAIL, reader_.entry));
      }
      hr = target->WriteImage(image.get(), static_cast<std::int32_t>(numbers[index]));
      writer->Close();
      if (FAILED(hr)) {
        progress.Abort();
        return Fail(label, "write failed: " + Words(hr));
      }
      files.push_back(CleanText(label));
      progress.Step(k + 1);
    }
    if (!args_.quiet && !args_.json)
      std::printf("%s -> %s: %zu frame%s\n", args_.input.c_str(), args_.output.c_str(),
                  frames.size(), frames.size() == 1 ? "" : "s");
    summary_ = Json{{"input", CleanText(args_.input)},
                    {"output", CleanText(args_.output)},
                    {"frames", frames.size()},
                    {"files", std::move(files)}};
    return true;
  }

  bool CopySound(const VxString& out) {
    const std::string label = vx::ToUtf8(out);
    SoundStream sound;
    if (HRESULT hr = GetSoundStream(reader_.parser.get(), &sound); hr != S_OK)
      return Fail(args_.input, ReadFailureText(FAILED(hr) ? hr : E_FAIL, reader_.entry));
    const WAVEFORMATEX* wf = &sound.wf;
    VxAudioStreamFormat record{kVxAudioStreamFormatSize,
                               reinterpret_cast<WAVEFORMATEX*>(sound.format.data())};
    IVxAudioStreamParser* source = sound.stream.get();
    if (!CheckTargets({out})) return false;
    // The writer replaces the target only when it completes; a failure keeps what was there.
    const bool existed = vx::os::IsFile(out.c_str());

    ComPtr<IVxMediaFileParser> writer;
    if (HRESULT hr = module_.Create(outEntry_.clsid, IID_IVxMediaFileParser, writer.put_void());
        FAILED(hr))
      return Fail(label, Words(hr));
    if (HRESULT hr = writer->Open(out.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN); FAILED(hr))
      return Fail(label, "cannot open for writing: " + Words(hr));
    bool ok = Prepare(writer.get(), label, -1, true);
    // Index 1 defines the sound stream of a file being written.
    HRESULT hr = ok ? writer->SetStreamFormat(VX_STREAM_SOUND, 1, &record) : E_FAIL;
    if (ok && FAILED(hr)) ok = Fail(label, "cannot write this sound format: " + Words(hr));
    ComPtr<IVxAudioStreamParser> target;
    if (ok && FAILED(hr = writer->GetStream(VX_STREAM_SOUND, 0, IID_IVxAudioStreamParser,
                                            target.put_void())))
      ok = Fail(label, Words(hr));

    // One second at a time (at most 64 MiB, whatever rate a file claims).
    const auto block = static_cast<LONG>(std::clamp<std::uint64_t>(
        wf->nSamplesPerSec, 1, std::max<std::uint64_t>(1, (64u << 20) / wf->nBlockAlign)));
    std::vector<unsigned char> buffer;
    const std::int64_t total = sound.frames;
    std::int64_t done = 0;
    Progress progress(label, static_cast<std::size_t>((total + block - 1) / block), args_.quiet);
    if (ok) buffer.resize(static_cast<std::size_t>(block) * wf->nBlockAlign);
    while (ok && done < total) {
      const LONG want = static_cast<LONG>(std::min<std::int64_t>(block, total - done));
      VxSamplePosition pos{done};
      LONG got = 0;
      hr = source->ReadSamples(&pos, want, buffer.data(), &got);
      if (FAILED(hr) || got <= 0) {
        ok = Fail(args_.input + " sample " + std::to_string(pos.sample),
                  ReadFailureText(FAILED(hr) ? hr : E_FAIL, reader_.entry));
        break;
      }
      if (FAILED(hr = target->WriteSamples(buffer.data(), got))) {
        ok = Fail(label, "write failed: " + Words(hr));
        break;
      }
      done += got;
      progress.Step(static_cast<std::size_t>((done + block - 1) / block));
    }
    if (!ok) progress.Abort();
    target.reset();
    hr = writer->Close();
    if (ok && FAILED(hr)) ok = Fail(label, "write failed: " + Words(hr));
    if (!ok) {
      if (!existed) vx::os::Remove(out.c_str());  // no half-written sound file stays behind
      return false;
    }
    const double seconds = static_cast<double>(done) / wf->nSamplesPerSec;
    if (!args_.quiet && !args_.json)
      std::printf("%s -> %s: %lld sample frames (%.3f s)\n", args_.input.c_str(), label.c_str(),
                  static_cast<long long>(done), seconds);
    summary_ = Json{{"input", CleanText(args_.input)},
                    {"output", CleanText(label)},
                    {"sample frames", done},
                    {"seconds", seconds}};
    return true;
  }

  // One movie from the input's pictures and sound, or from its pictures and the --sound file:
  // the streams are defined first (counted from 1, as every writer takes them), then the file is
  // opened, filled frame by frame and block by block, and closed. Any movie-kind writer will do.
  bool WriteMovie(bool hasPicture, bool hasSound) {
    const VxString out = vx::FromUtf8(args_.output);
    const std::string label = args_.output;
    OpenedParser soundInput;
    IVxMediaFileParser* soundParser = hasSound ? reader_.parser.get() : nullptr;
    std::string soundName = args_.input;
    if (!args_.sound.empty()) {
      Input in;
      std::string error;
      if (!ResolveInput(args_.sound, false, &in, &error) ||
          !OpenInput(module_, in, &soundInput, &error))
        return Fail(args_.sound, error);
      soundParser = soundInput.parser.get();
      soundName = args_.sound;
    }
    if (!hasPicture && !soundParser) return Fail(args_.input, "has no picture and no sound");
    SoundStream sound;
    if (soundParser) {
      if (HRESULT hr = GetSoundStream(soundParser, &sound); hr != S_OK)
        return Fail(soundName, FAILED(hr) ? Words(hr) : "has no sound");
    }

    VxImageStreamFormat format{};
    format.cbSize = sizeof format;
    std::vector<int> frames;
    ComPtr<IVxImageStreamParser> sourceStream;
    if (hasPicture) {
      if (HRESULT hr = reader_.parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &format); FAILED(hr))
        return Fail(args_.input, ReadFailureText(hr, reader_.entry));
      const int count = static_cast<int>(format.frameCount ? format.frameCount : 1);
      const std::vector<long> numbers = FrameNumbers(count);
      for (int i = 0; i < count; ++i)
        if (range_.Contains(numbers[i])) frames.push_back(i);
      if (frames.empty()) return Fail(args_.input, "no frame in the range " + args_.frames);
      if (args_.rate > 0) format.frameRate = args_.rate;
      // A still sequence carries no rate of its own: film rate unless --rate says otherwise.
      if (!(format.frameRate > 0) || format.frameRate > 1000) format.frameRate = 24.0;
      if (HRESULT hr = reader_.parser->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser,
                                                 sourceStream.put_void());
          FAILED(hr))
        return Fail(args_.input, Words(hr));
    }
    if (!CheckTargets({out})) return false;
    const bool existed = vx::os::IsFile(out.c_str());

    ComPtr<IVxMediaFileParser> writer;
    if (HRESULT hr = module_.Create(outEntry_.clsid, IID_IVxMediaFileParser, writer.put_void());
        FAILED(hr))
      return Fail(label, Words(hr));
    bool ok = Prepare(writer.get(), label, frames.empty() ? -1 : frames[0], true);
    HRESULT hr = S_OK;
    if (ok && hasPicture && FAILED(hr = writer->SetStreamFormat(VX_STREAM_PICTURE, 1, &format)))
      ok = Fail(label, "cannot write these pictures: " + Words(hr));
    VxAudioStreamFormat record{kVxAudioStreamFormatSize,
                               reinterpret_cast<WAVEFORMATEX*>(sound.format.data())};
    if (ok && soundParser && FAILED(hr = writer->SetStreamFormat(VX_STREAM_SOUND, 1, &record)))
      ok = Fail(label, "cannot write this sound format: " + Words(hr));
    if (ok && FAILED(hr = writer->Open(out.c_str(), VX_OPEN_WRITE | VX_OPEN_NO_PATTERN)))
      ok = Fail(label, "cannot open for writing: " + Words(hr));
    ComPtr<IVxImageStreamParser> picture;
    ComPtr<IVxAudioStreamParser> target;
    if (ok && hasPicture &&
        FAILED(hr = writer->GetStream(VX_STREAM_PICTURE, 0, IID_IVxImageStreamParser,
                                      picture.put_void())))
      ok = Fail(label, Words(hr));
    if (ok && soundParser &&
        FAILED(hr = writer->GetStream(VX_STREAM_SOUND, 0, IID_IVxAudioStreamParser,
                                      target.put_void())))
      ok = Fail(label, Words(hr));

    const std::size_t blocks =
        soundParser ? static_cast<std::size_t>((sound.frames + sound.wf.nSamplesPerSec - 1) /
                                               sound.wf.nSamplesPerSec)
                    : 0;
    Progress progress(label, frames.size() + blocks, args_.quiet);
    for (std::size_t k = 0; ok && k < frames.size(); ++k) {
      ComPtr<IVxImage> image;
      hr = sourceStream->ReadImage(image.put(), frames[k]);
      if (FAILED(hr) || !image) {
        ok = Fail(args_.input + " frame " + std::to_string(frames[k]),
                  ReadFailureText(FAILED(hr) ? hr : E_FAIL, reader_.entry));
      } else if (FAILED(hr = picture->WriteImage(image.get(), static_cast<std::int32_t>(k)))) {
        ok = Fail(label, "write failed: " + Words(hr));
      }
      progress.Step(k + 1);
    }
    std::int64_t done = 0;
    if (ok && soundParser) {
      // One second at a time (at most 64 MiB, whatever rate a file claims).
      const auto block = static_cast<LONG>(std::clamp<std::uint64_t>(
          sound.wf.nSamplesPerSec, 1,
          std::max<std::uint64_t>(1, (64u << 20) / sound.wf.nBlockAlign)));
      std::vector<unsigned char> buffer(static_cast<std::size_t>(block) * sound.wf.nBlockAlign);
      while (ok && done < sound.frames) {
        const LONG want = static_cast<LONG>(std::min<std::int64_t>(block, sound.frames - done));
        VxSamplePosition pos{done};
        LONG got = 0;
        hr = sound.stream->ReadSamples(&pos, want, buffer.data(), &got);
        if (FAILED(hr) || got <= 0)
          ok = Fail(soundName + " sample " + std::to_string(done), Words(FAILED(hr) ? hr : E_FAIL));
        else if (FAILED(hr = target->WriteSamples(buffer.data(), got)))
          ok = Fail(label, "write failed: " + Words(hr));
        else
          done += got;
        progress.Step(frames.size() + static_cast<std::size_t>((done + block - 1) / block));
      }
    }
    if (!ok) progress.Abort();
    picture.reset();
    target.reset();
    sound.stream.reset();
    hr = writer->Close();
    if (ok && FAILED(hr)) ok = Fail(label, "write failed: " + Words(hr));
    if (soundInput.parser) soundInput.parser->Close();
    if (!ok) {
      if (!existed) vx::os::Remove(out.c_str());  // no half-written movie stays behind
      return false;
    }
    if (!args_.quiet && !args_.json)
      std::printf("%s -> %s: %zu frame%s, %lld sample frames\n", args_.input.c_str(), label.c_str(),
                  frames.size(), frames.size() == 1 ? "" : "s", static_cast<long long>(done));
    summary_ = Json{{"input", CleanText(args_.input)},
                    {"output", CleanText(label)},
                    {"frames", frames.size()},
                    {"sample frames", done}};
    return true;
  }

  struct Option {
    std::string text;
    bool fromUser;  // a default that keeps the source is dropped quietly when refused
  };

  const Module& module_;
  const ConvertArgs& args_;
  Input input_;
  OpenedParser reader_;
  vx::registry::Entry outEntry_;
  ComPtr<IVxParserSourceInfo> source_;
  std::vector<Option> options_;
  FrameRange range_;
  Json summary_;
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
                  "printing-density, linear, rec709 or user (default: the source's)");
  cmd->add_option("--lut", args.lut, "3D LUT (.cube) to apply before writing");
  cmd->add_option("--compression", args.compression,
                  "The writer's compression, e.g. none, rle, lzw, deflate, packbits");
  cmd->add_option("--frames", args.frames, "Frame numbers to convert: N, A-B, A- or -B");
  cmd->add_option("--sound", args.sound, "Sound file (WAV, ...) to put into a movie output");
  cmd->add_option("--rate", args.rate,
                  "Frames per second of a movie made from stills without a rate (default 24)")
      ->check(CLI::PositiveNumber);
  cmd->add_option("-o,--option", args.options, "Any writer option as name=value (repeatable)");
  cmd->add_option("-i,--read-option", args.readOptions,
                  "Any reader option as name=value (repeatable), e.g. exposure=1, size=1920x1080");
  cmd->add_flag("--force", args.force, "Replace output files that exist");
  cmd->add_flag("--sequence", args.sequence,
                "Treat an input file name with a frame number as its whole numbered sequence");
  cmd->add_flag("--json", args.json, "Print what was written as JSON");
  cmd->add_flag("-q,--quiet", args.quiet, "No progress and no summary");
  cmd->callback([&options] { Run(options, args); });
}

}  // namespace

VXHOST_COMMAND(50, Setup);

}  // namespace vxhost
