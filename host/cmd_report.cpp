// vxhost report: the whole header of a file as its parser describes it (DPX for now).
#include <cstdio>
#include <string>
#include <vector>

#include "host.h"

namespace vxhost {
namespace {

struct ReportArgs {
  std::vector<std::string> files;
  bool crlf = false;
};

// Room for eight elements and every text field at their longest, with margin.
constexpr int kReportCapacity = 64 * 1024;

bool Report(const Module& module, const std::string& file, bool crlf) {
  vx::registry::Entry entry;
  if (!FindParserFor(file, &entry)) {
    FileError(file, "unknown extension ." + ExtensionOf(file) + " (no parser registered for it)");
    return false;
  }
  ComPtr<IVxMediaFileParser> parser;
  HRESULT hr = module.Create(entry.clsid, IID_IVxMediaFileParser, parser.put_void());
  if (FAILED(hr)) {
    FileError(file, Words(hr));
    return false;
  }
  auto info = parser.As<IVxParserSourceInfo>(IID_IVxParserSourceInfo);
  if (!info) {
    FileError(file, entry.name + " files have no header report");
    return false;
  }
  const VxString wide = vx::FromUtf8(file);
  hr = parser->Open(wide.c_str(),
                    vx::os::IsFile(wide.c_str()) ? DWORD{VX_OPEN_NO_PATTERN} : DWORD{0});
  if (FAILED(hr)) {
    FileError(file, Words(hr));
    return false;
  }
  std::vector<VxChar> buffer(kReportCapacity, 0);
  hr = info->GetHeaderReport(buffer.data(), kReportCapacity);
  parser->Close();
  if (hr == E_NOTIMPL) {
    FileError(file, entry.name + " files have no header report");
    return false;
  }
  if (FAILED(hr)) {
    FileError(file, Words(hr));
    return false;
  }
  std::string text = vx::ToUtf8(buffer.data());
  if (!crlf) {
    std::string lf;
    lf.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i)
      if (!(text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n')) lf += text[i];
    text.swap(lf);
  }
  std::fwrite(text.data(), 1, text.size(), stdout);
  return true;
}

void Run(const Options& options, const ReportArgs& args) {
  auto module = LoadModule(options);
  if (!module) return SetExitCode(1);
  if (!EnsureRegistered(*module)) return SetExitCode(1);
  bool first = true;
  for (const std::string& file : args.files) {
    if (!first) std::printf(args.crlf ? "\r\n" : "\n");
    first = false;
    if (!Report(*module, file, args.crlf)) SetExitCode(1);
  }
}

void Setup(CLI::App& app, Options& options) {
  static ReportArgs args;
  auto* cmd = app.add_subcommand("report", "Print the whole header of files as text");
  cmd->add_option("files", args.files, "Files (or sequence patterns: the first frame)")->required();
  cmd->add_flag("--crlf", args.crlf, "Keep the report's \\r\\n line ends");
  cmd->callback([&options] { Run(options, args); });
}

}  // namespace

VXHOST_COMMAND(40, Setup);

}  // namespace vxhost
