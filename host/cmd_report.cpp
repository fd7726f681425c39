// vxhost report: the whole header of a file as its parser describes it, as text or as JSON.
#include <cstdio>
#include <string>
#include <vector>

#include "host.h"

namespace vxhost {
namespace {

struct ReportArgs {
  std::vector<std::string> files;
  bool crlf = false;
  bool json = false;
};

// Room for eight elements and every text field at their longest, with margin.
constexpr int kReportCapacity = 64 * 1024;

// The report's own layout as JSON: "key: value" lines, grouped under their "[ section ]".
Json ReportJson(const std::string& text) {
  Json out = Json::object();
  Json* section = &out;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::size_t first = line.find_first_not_of(' ');
    if (first == std::string::npos) continue;
    line.erase(0, first);
    if (line.size() > 4 && line.front() == '[' && line.back() == ']') {
      const std::string name = line.substr(2, line.size() - 4);
      out[name] = Json::object();
      section = &out[name];
      continue;
    }
    const std::size_t colon = line.find(": ");
    if (colon == std::string::npos) {
      (*section)["note"] = CleanText(line);
    } else {
      (*section)[CleanText(line.substr(0, colon))] = CleanText(line.substr(colon + 2));
    }
  }
  return out;
}

bool Report(const Module& module, const std::string& file, const ReportArgs& args, Json* json) {
  auto fail = [&](const std::string& text) {
    FileError(file, text);
    if (json) json->push_back(Json{{"file", CleanText(file)}, {"error", text}});
    return false;
  };
  Input input;
  std::string error;
  if (!ResolveInput(file, false, &input, &error)) return fail(error);
  vx::registry::Entry entry;
  if (!FindParserFor(file, &entry)) return fail(NoParserText(file));
  ComPtr<IVxMediaFileParser> parser;
  if (HRESULT hr = module.Create(entry.clsid, IID_IVxMediaFileParser, parser.put_void());
      FAILED(hr))
    return fail(Words(hr));
  auto info = parser.As<IVxParserSourceInfo>(IID_IVxParserSourceInfo);
  if (!info) return fail(entry.name + " files have no header report");
  if (HRESULT hr = parser->Open(input.wide.c_str(), input.openFlags()); FAILED(hr))
    return fail(ReadFailureText(hr, entry));
  std::vector<VxChar> buffer(kReportCapacity, 0);
  HRESULT hr = info->GetHeaderReport(buffer.data(), kReportCapacity);
  // The report describes even a broken header; whether the file reads is the format's answer.
  VxImageStreamFormat format{};
  format.cbSize = sizeof format;
  const HRESULT readable = parser->GetStreamFormat(VX_STREAM_PICTURE, 0, &format);
  parser->Close();
  if (hr == E_NOTIMPL) return fail(entry.name + " files have no header report");
  if (FAILED(hr)) return fail(Words(hr));
  std::string text = CleanText(vx::ToUtf8(buffer.data()));
  // CleanText escaped the report's own line ends; put them back.
  for (std::size_t at; (at = text.find("\\x0D\\x0A")) != std::string::npos;)
    text.replace(at, 8, args.crlf ? "\r\n" : "\n");
  for (std::size_t at; (at = text.find("\\x0A")) != std::string::npos;) text.replace(at, 4, "\n");
  if (json) {
    Json entryJson = ReportJson(text);
    entryJson["file"] = CleanText(file);
    if (FAILED(readable)) entryJson["error"] = ReadFailureText(readable, entry);
    json->push_back(std::move(entryJson));
  } else {
    std::fwrite(text.data(), 1, text.size(), stdout);
  }
  if (FAILED(readable)) {
    FileError(file, ReadFailureText(readable, entry));
    return false;
  }
  return true;
}

void Run(const Options& options, const ReportArgs& args) {
  auto module = LoadModule(options);
  if (!module) return SetExitCode(1);
  if (!EnsureRegistered(*module)) return SetExitCode(1);
  Json all = Json::array();
  bool first = true;
  for (const std::string& file : args.files) {
    if (!args.json && !first) std::printf(args.crlf ? "\r\n" : "\n");
    first = false;
    if (!Report(*module, file, args, args.json ? &all : nullptr)) SetExitCode(1);
  }
  if (args.json) std::printf("%s\n", DumpJson(all).c_str());
}

void Setup(CLI::App& app, Options& options) {
  static ReportArgs args;
  auto* cmd = app.add_subcommand("report", "Print the whole header of files as text");
  cmd->add_option("files", args.files, "Files (or sequence patterns: the first frame)")->required();
  cmd->add_flag("--crlf", args.crlf, "Keep the report's \\r\\n line ends");
  cmd->add_flag("--json", args.json, "Print the header fields as JSON, by section");
  cmd->callback([&options] { Run(options, args); });
}

}  // namespace

VXHOST_COMMAND(40, Setup);

}  // namespace vxhost
