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
};

// The first file a name stands for: itself, or the first member of its numbered sequence that
// is there. Empty when there is none.
VxString FirstExistingFile(const VxString& name) {
  if (vx::os::IsFile(name.c_str())) return name;
  ComPtr<IVxFileList> list;
  if (FAILED(VxGetFileListFromPattern(name.c_str(), list.put())) || !list) return {};
  int count = 0;
  list->GetCount(&count);
  for (int i = 0; i < count; ++i) {
    VxChar* entry = nullptr;
    if (FAILED(list->GetFileName(i, &entry))) continue;
    VxString candidate = entry ? VxString(entry) : VxString();
    VxSysFreeString(entry);
    if (vx::os::IsFile(candidate.c_str())) return candidate;
  }
  return {};
}

// Describes one file; false (with the line on standard error) when it cannot be described.
bool Describe(const Module& module, const std::string& file, Json* out) {
  auto fail = [&](const std::string& text) {
    FileError(file, text);
    *out = Json{{"file", file}, {"error", text}};
    return false;
  };
  const VxString wide = vx::FromUtf8(file);
  const VxString first = FirstExistingFile(wide);
  if (first.empty()) return fail(Words(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)));
  vx::os::FileHandle probe = vx::os::OpenRead(first.c_str());
  if (probe == vx::os::kNoFile) return fail(Words(E_ACCESSDENIED));
  vx::os::Close(probe);

  InfoContext context{file, {}, nullptr};
  if (ExtensionOf(file).empty()) return fail("no extension to choose a parser by");
  if (!FindParserFor(file, &context.entry)) {
    return fail("unknown extension ." + ExtensionOf(file) + " (no parser registered for it)");
  }
  ComPtr<IVxMediaFileParser> parser;
  HRESULT hr = module.Create(context.entry.clsid, IID_IVxMediaFileParser, parser.put_void());
  if (hr == E_NOINTERFACE) {
    return fail("no parser built for " + context.entry.name + " files yet (E_NOINTERFACE)");
  }
  if (FAILED(hr)) return fail(Words(hr));
  hr = parser->Open(wide.c_str(), 0);
  if (FAILED(hr)) return fail(Words(hr));

  context.parser = parser.get();
  Json info{{"file", file},
            {"parser", context.entry.name},
            {"clsid", vx::GuidToString(context.entry.clsid)}};
  HRESULT failure = S_OK;
  RunInfoSections(context, info, &failure);
  parser->Close();
  if (FAILED(failure)) return fail(Words(failure));
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
    if (!Describe(*module, file, &info)) SetExitCode(1);
    if (args.json) {
      all.push_back(std::move(info));
    } else if (!info.contains("error")) {
      if (!firstText) std::printf("\n");
      firstText = false;
      PrintText(info);
    }
  }
  if (args.json) std::printf("%s\n", all.dump(2).c_str());
}

void Setup(CLI::App& app, Options& options) {
  static InfoArgs args;
  auto* cmd = app.add_subcommand("info", "Describe media files or numbered sequences");
  cmd->add_option("files", args.files, "Files or sequence patterns (shot.####.dpx)")->required();
  cmd->add_flag("--json", args.json, "Print JSON");
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
