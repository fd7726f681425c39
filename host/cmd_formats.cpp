// vxhost formats: the parsers the registry knows, as a host sees them.
#include <cstdio>
#include <string>

#include "host.h"

namespace vxhost {
namespace {

struct FormatsArgs {
  bool json = false;
};

void Run(const Options& options, const FormatsArgs& args) {
  auto module = LoadModule(options);
  if (!module) return SetExitCode(1);
  if (!EnsureRegistered(*module)) return SetExitCode(1);

  Json rows = Json::array();
  for (const auto& e : vx::registry::List()) {
    if (e.kind != vx::registry::Kind::FileParser) continue;
    rows.push_back({{"name", e.name},
                    {"kind", MediaKindName(e.mediaKind)},
                    {"import", (e.capabilities & 1) != 0},
                    {"export", (e.capabilities & 2) != 0},
                    {"extensions", e.extensions},
                    {"clsid", vx::GuidToString(e.clsid)}});
  }
  if (args.json) {
    std::printf("%s\n", rows.dump(2).c_str());
    return;
  }
  std::printf("%-22s %-6s %-14s %-34s %s\n", "NAME", "KIND", "MODES", "EXTENSIONS", "CLASS ID");
  for (const auto& r : rows) {
    std::string modes = r["import"].get<bool>() ? "import" : "";
    if (r["export"].get<bool>()) modes += modes.empty() ? "export" : "/export";
    std::string exts;
    for (const auto& x : r["extensions"]) exts += (exts.empty() ? "" : " ") + x.get<std::string>();
    std::printf("%-22s %-6s %-14s %-34s %s\n", r["name"].get<std::string>().c_str(),
                r["kind"].get<std::string>().c_str(), modes.c_str(), exts.c_str(),
                r["clsid"].get<std::string>().c_str());
  }
  std::printf("%zu parsers\n", rows.size());
}

void Setup(CLI::App& app, Options& options) {
  static FormatsArgs args;
  auto* cmd = app.add_subcommand("formats", "List the registered parsers");
  cmd->add_flag("--json", args.json, "Print JSON");
  cmd->callback([&options] { Run(options, args); });
}

}  // namespace

VXHOST_COMMAND(20, Setup);

}  // namespace vxhost
