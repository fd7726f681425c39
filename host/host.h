// What every vxhost command shares: the loaded component, the registry lookups, creating
// parsers the way a host does, and printing results as text or JSON.
//
// Adding a command: a new host/cmd_<name>.cpp with a setup function and
// VXHOST_COMMAND(order, Setup); the build picks the file up by itself.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "vx/com_ptr.h"
#include "vx/parser.h"
#include "vx/platform.h"
#include "vx/sdk.h"

namespace vxhost {

using Json = nlohmann::ordered_json;

// ---- Options and commands -------------------------------------------------------------------

struct Options {
  std::string modulePath;  // --module; empty: the module next to the executable
};

// Registers a command's CLI11 subcommand. Commands report their exit code with SetExitCode.
using CommandSetup = void (*)(CLI::App& app, Options& options);
struct CommandRegistration {
  CommandRegistration(int order, CommandSetup setup);
};
#define VXHOST_CONCAT2(a, b) a##b
#define VXHOST_CONCAT(a, b) VXHOST_CONCAT2(a, b)
#define VXHOST_COMMAND(order, setup)                                                    \
  static const ::vxhost::CommandRegistration VXHOST_CONCAT(vxhost_command_, __LINE__) { \
    (order), (setup)                                                                    \
  }

void AddRegisteredCommands(CLI::App& app, Options& options);
void SetExitCode(int code);  // keeps the highest code set
int ExitCode();

// ---- info sections --------------------------------------------------------------------------

// What `vxhost info` knows about one opened file.
struct InfoContext {
  std::string file;
  vx::registry::Entry entry;   // the registry's parser row
  IVxMediaFileParser* parser;  // opened on the file
};
// Adds what a section learns to `out`. A failure status marks the file as unreadable (exit 1,
// one line naming the file and the status); E_NOTIMPL and S_FALSE answers are for the section to
// skip quietly. Sections run in `order`; a parser-specific section (e.g. one querying the
// parser's own interface) goes in its own host/info_*.cpp file with VXHOST_INFO_SECTION.
using InfoSection = HRESULT (*)(InfoContext& context, Json& out);
struct InfoSectionRegistration {
  InfoSectionRegistration(int order, InfoSection section);
};
#define VXHOST_INFO_SECTION(order, section)                                                      \
  static const ::vxhost::InfoSectionRegistration VXHOST_CONCAT(vxhost_info_section_, __LINE__) { \
    (order), (section)                                                                           \
  }
// All sections in order.
void RunInfoSections(InfoContext& context, Json& out, HRESULT* failure);

// ---- COM helpers ----------------------------------------------------------------------------

using vx::ComPtr;

// ---- The component --------------------------------------------------------------------------

// The component loaded by path and reached only through its exports.
class Module {
 public:
  // Null (and *error set) when the module or one of its exports cannot be found.
  static std::unique_ptr<Module> Load(const std::string& path, std::string* error);
  ~Module();
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  HRESULT Register() const { return register_(); }
  HRESULT Unregister() const { return unregister_(); }
  HRESULT CanUnloadNow() const { return canUnloadNow_(); }
  HRESULT GetClassObject(REFCLSID clsid, REFIID iid, void** out) const {
    return getClassObject_(clsid, iid, out);
  }
  // Class factory, then CreateInstance, as a host creates objects.
  HRESULT Create(REFCLSID clsid, REFIID iid, void** out) const;
  const std::string& path() const { return path_; }

 private:
  Module() = default;
  using Fn0 = HRESULT(STDAPICALLTYPE*)();
  using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

  std::string path_;
  vx::os::ModuleHandle handle_ = nullptr;
  Fn0 register_ = nullptr, unregister_ = nullptr, canUnloadNow_ = nullptr;
  GetClassObjectFn getClassObject_ = nullptr;
};

// The module named by --module, else the one beside the executable. Prints the reason and
// returns null when it cannot be loaded.
std::unique_ptr<Module> LoadModule(const Options& options);

// Registers the module when the registry knows no parser yet (a machine's first run).
// False (with a message printed) when that registration fails.
bool EnsureRegistered(const Module& module);

// ---- Files ----------------------------------------------------------------------------------

// Upper-case extension without the dot; empty when the name has none.
std::string ExtensionOf(const std::string& file);
// Registry entry of the parser for a file's extension.
bool FindParserFor(const std::string& file, vx::registry::Entry* entry);

// "E_FAIL: malformed file".
std::string Words(HRESULT hr);
// One error line for a file on standard error: "FILE: text".
void FileError(const std::string& file, const std::string& text);

std::string MediaKindName(std::uint32_t kind);  // "still", "audio", "movie"

// ---- Output ---------------------------------------------------------------------------------

// JSON as indented "key: value" lines for people.
void PrintText(const Json& value, int indent = 0);

}  // namespace vxhost
