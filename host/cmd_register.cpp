// vxhost register / unregister: what an installer does with the module.
#include <cstdio>

#include "host.h"

namespace vxhost {
namespace {

void Run(const Options& options, bool doRegister) {
  auto module = LoadModule(options);
  if (!module) return SetExitCode(1);
  HRESULT hr = doRegister ? module->Register() : module->Unregister();
  if (FAILED(hr)) {
    std::fprintf(stderr, "%s: %s failed: %s\n", module->path().c_str(),
                 doRegister ? "registration" : "unregistration", Words(hr).c_str());
    return SetExitCode(1);
  }
  std::printf("%s %s %s\n", doRegister ? "registered" : "unregistered", module->path().c_str(),
              doRegister ? ("in " + vx::registry::Path()).c_str()
                         : ("from " + vx::registry::Path()).c_str());
}

void Setup(CLI::App& app, Options& options) {
  app.add_subcommand("register", "Enter the module's parsers and objects in the registry")
      ->callback([&options] { Run(options, true); });
  app.add_subcommand("unregister", "Remove the module's parsers and objects from the registry")
      ->callback([&options] { Run(options, false); });
}

}  // namespace

VXHOST_COMMAND(10, Setup);

}  // namespace vxhost
