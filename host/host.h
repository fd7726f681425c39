// What every vxhost command shares: the loaded component, the registry lookups, creating
// parsers the way a host does, and printing results as text or JSON.
//
// Adding a command: a new host/cmd_<name>.cpp with a setup function and
// VXHOST_COMMAND(order, Setup); the build picks the file up by itself.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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
  double rate;                 // frames per second of the host's time codes (--rate)
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

// Registers the module when the registry is not current for it: a machine's first run, a module
// rebuilt since its registration, or entries of it gone from the registry. False (with a message
// printed) when that registration fails.
bool EnsureRegistered(const Module& module);

// ---- Files ----------------------------------------------------------------------------------

// Upper-case extension without the dot; empty when the name has none.
std::string ExtensionOf(const std::string& file);
// Registry entry of the parser for a file's extension.
bool FindParserFor(const std::string& file, vx::registry::Entry* entry);
// The line for a file no registered parser reads, with what to do about it.
std::string NoParserText(const std::string& file);

// What a command-line name stands for. A name of an existing file is that file; a pattern
// ("####", "%04d") names a numbered sequence, and so does an existing file when --sequence is
// given (its digit run is the frame field).
struct Input {
  std::string file;  // as the user wrote it (UTF-8)
  VxString wide;     // what the parser opens
  bool sequence = false;
  std::vector<std::string> options;  // "name=value" texts for the reader (--read-option)
  DWORD openFlags() const { return sequence ? DWORD{0} : DWORD{VX_OPEN_NO_PATTERN}; }
};
// False (with *error in words) when the name is neither an existing file nor a pattern that
// matches one.
bool ResolveInput(const std::string& name, bool asSequence, Input* out, std::string* error);
// True when a name carries a frame field ("####", "%04d", "%d").
bool HasFrameField(const VxString& name);

// A parser created through the registry's row for the input's extension and opened on it.
struct OpenedParser {
  vx::registry::Entry entry;
  ComPtr<IVxMediaFileParser> parser;
};
// False with *error in words: no parser for the extension, no class built, Open failed, or the
// reader refused one of the input's options.
bool OpenInput(const Module& module, const Input& input, OpenedParser* out, std::string* error);

// Text taken from files, made safe for terminals and JSON: valid UTF-8 is kept, other bytes and
// control characters become "\xNN".
std::string CleanText(std::string_view text);
// JSON as the commands print it (never throws on odd text).
std::string DumpJson(const Json& value);

// "E_FAIL: malformed file".
std::string Words(HRESULT hr);
// Words for a failed read of a file: "cannot open", "not a DPX file", ...
std::string ReadFailureText(HRESULT hr, const vx::registry::Entry& entry);
// One error line for a file on standard error: "FILE: text".
void FileError(const std::string& file, const std::string& text);

std::string MediaKindName(std::uint32_t kind);  // "still", "audio", "movie"

// "HH:MM:SS:FF" from a BCD time code word (';' before the frames when drop-frame counted).
std::string TimeCodeText(DWORD bcd, bool dropFrame);

// ---- Sound ----------------------------------------------------------------------------------

// The sound stream of an opened parser.
struct SoundStream {
  std::vector<std::uint8_t> format;  // WAVEFORMATEX and its extra bytes
  WAVEFORMATEX wf{};
  ComPtr<IVxAudioStreamParser> stream;
  std::int64_t frames = 0;
};
// S_FALSE when the parser has no sound stream; a failure when it cannot describe it.
HRESULT GetSoundStream(IVxMediaFileParser* parser, SoundStream* out);

// ---- Progress -------------------------------------------------------------------------------

// A bar on a terminal, otherwise a line at every tenth of the work (logs and pipes).
class Progress {
 public:
  Progress(std::string label, std::size_t total, bool quiet);
  void Step(std::size_t done);
  // Ends a bar early (a failure) so the next message starts on its own line.
  void Abort();

 private:
  std::string label_;
  std::size_t total_;
  bool show_, terminal_;
  int lastTenth_ = -1;
  bool open_ = false;
};

// ---- Thumbnails ----------------------------------------------------------------------------

// RGB 8-bit pixels, top line first.
struct Picture {
  int width = 0, height = 0;
  std::vector<std::uint8_t> rgb;
};
struct ThumbnailRequest {
  int frame = 0;   // index into the stream
  int size = 256;  // longest side in pixels
};
// Draws a thumbnail for a parser whose streams the picture path does not cover (a sound file's
// waveform, say). S_FALSE when it has nothing to draw for this parser, so the next one is asked.
using ThumbnailDrawer = HRESULT (*)(IVxMediaFileParser* parser, const ThumbnailRequest& request,
                                    Picture* out);
struct ThumbnailDrawerRegistration {
  ThumbnailDrawerRegistration(int order, ThumbnailDrawer drawer);
};
#define VXHOST_THUMBNAIL_DRAWER(order, drawer)                                                 \
  static const ::vxhost::ThumbnailDrawerRegistration VXHOST_CONCAT(vxhost_drawer_, __LINE__) { \
    (order), (drawer)                                                                          \
  }

// ---- Output ---------------------------------------------------------------------------------

// JSON as indented "key: value" lines for people.
void PrintText(const Json& value, int indent = 0);

}  // namespace vxhost
