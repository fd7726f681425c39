// vxhost: a command-line host for the parser component. Each command lives in its own
// cmd_*.cpp file and registers itself.
#include <cstdio>
#include <exception>

#include "host.h"

int main(int argc, char** argv) {
  // vxhost never aborts: whatever escapes a command is reported and the exit code says so.
  try {
    CLI::App app{"vxhost: load the vxprsr parser module and use its parsers like a host"};
    app.require_subcommand(1);
    app.fallthrough();  // --module may follow the command name
    vxhost::Options options;
    app.add_option("--module", options.modulePath,
                   "Parser module to load (default: the one beside vxhost)");
    vxhost::AddRegisteredCommands(app, options);
    CLI11_PARSE(app, argc, argv);
    return vxhost::ExitCode();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vxhost: %s\n", vxhost::CleanText(e.what()).c_str());
  } catch (...) {
    std::fprintf(stderr, "vxhost: unexpected failure\n");
  }
  return 2;
}
