// vxhost info: open files (or numbered sequences) with their registered parser and describe
// them. What is printed comes from the info sections (info_*.cpp).
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "host.h"

namespace vxhost {

namespace {

struct SectionSlot {
  int order;
  InfoSection section;
};

std::vector<SectionSlot>& Sections() {
  static std::vector<SectionSlot> sections;
  return sections;
}

struct InfoArgs {
  std::vector<std::string> files;
  bool json = false;
  bool sequence = false;
  double rate = 25;
  std::vector<std::string> readOptions;
};

// Describes one file or sequence; false (with the line on standard error) when it cannot.
bool Describe(const Module& module, const std::string& file, const InfoArgs& args, Json* out) {
  auto fail = [&](const std::string& text) {
    FileError(file, text);
    *out = Json{{"file", CleanText(file)}, {"error", text}};
    return false;
  };
  Input input;
  std::string error;
  if (!ResolveInput(file, args.sequence, &input, &error)) return fail(error);
  input.options = args.readOptions;
  OpenedParser opened;
  if (!OpenInput(module, input, &opened, &error)) return fail(error);

  InfoContext context{file, opened.entry, opened.parser.get(), args.rate};
  Json info{{"file", CleanText(file)},
            {"parser", opened.entry.name},
            {"clsid", vx::GuidToString(opened.entry.clsid)}};
  if (input.sequence) info["sequence"] = true;
  HRESULT failure = S_OK;
  RunInfoSections(context, info, &failure);
  opened.parser->Close();
  if (FAILED(failure)) return fail(ReadFailureText(failure, opened.entry));
  *out = std::move(info);
  return true;
}

void Run(const Options& options, const InfoArgs& args) {
  auto module = LoadModule(options);
  if (!module) return SetExitCode(1);
  if (!EnsureRegistered(*module)) return SetExitCode(1);
  Json all = Json::array();
  bool firstText = true;
  for (const std::string& file : args.files) {
    Json info;
    if (!Describe(*module, file, args, &info)) SetExitCode(1);
    if (args.json) {
      all.push_back(std::move(info));
    } else if (!info.contains("error")) {
      if (!firstText) std::printf("\n");
      firstText = false;
      PrintText(info);
    }
  }
  if (args.json) std::printf("%s\n", DumpJson(all).c_str());
}

void Setup(CLI::App& app, Options& options) {
  static InfoArgs args;
  auto* cmd = app.add_subcommand("info", "Describe media files or numbered sequences");
  cmd->add_option("files", args.files, "Files or sequence patterns (shot.####.dpx)")->required();
  cmd->add_flag("--json", args.json, "Print JSON");
  cmd->add_flag("--sequence", args.sequence,
                "Treat a file name with a frame number as its whole numbered sequence");
  cmd->add_option("--rate", args.rate, "Frames per second of sound time codes (non-drop)")
      ->capture_default_str()
      ->check(CLI::Range(1.0, 100.0));
  cmd->add_option("--read-option", args.readOptions,
                  "Any reader option as name=value (repeatable), e.g. size=1920x1080");
  cmd->callback([&options] { Run(options, args); });
}

}  // namespace

InfoSectionRegistration::InfoSectionRegistration(int order, InfoSection section) {
  Sections().push_back({order, section});
}

void RunInfoSections(InfoContext& context, Json& out, HRESULT* failure) {
  auto sections = Sections();
  std::stable_sort(sections.begin(), sections.end(),
                   [](const SectionSlot& a, const SectionSlot& b) { return a.order < b.order; });
  for (const SectionSlot& s : sections) {
    HRESULT hr = s.section(context, out);
    if (FAILED(hr) && hr != E_NOTIMPL) {
      *failure = hr;
      return;
    }
  }
}

VXHOST_COMMAND(30, Setup);

}  // namespace vxhost
