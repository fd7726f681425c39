#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

#include "sdk_test_util.h"
#include "vx/platform.h"
#include "vx/sdk.h"

namespace {

using vx::registry::Entry;
using vx::registry::Kind;

GUID Id(std::uint32_t n) {
  return GUID{n, 0x1111, 0x2222, {9, 8, 7, 6, 5, 4, 3, 2}};
}

HINSTANCE Self() {
  static int anchor;
  return reinterpret_cast<HINSTANCE>(&anchor);
}

HRESULT RegisterParser(std::uint32_t n, const char* name,
                       std::initializer_list<const VxChar*> exts) {
  const VxString wide = vx::FromUtf8(name);
  std::vector<const VxChar*> list(exts);
  return VxRegisterFileParser(Id(n), Self(), wide.c_str(), 1, 3, list.data(),
                              static_cast<int>(list.size()));
}

std::string Slurp(const std::filesystem::path& p) {
  std::ifstream f(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

void Spit(const std::filesystem::path& p, const std::string& text) {
  std::ofstream f(p, std::ios::binary | std::ios::trunc);
  f << text;
}

TEST(Registry, PersistsEntriesAndFindsThemByClassIdAndExtension) {
  sdktest::ScopedRegistry reg;
  EXPECT_TRUE(vx::registry::List().empty());  // no file yet is an empty registry
  ASSERT_EQ(RegisterParser(1, "DPX File", {VXT("dpx"), VXT(".Cin"), VXT("DPX")}), S_OK);
  ASSERT_EQ(VxRegisterGenericObj(Id(2), VXT("Cache"), 7, Self()), S_OK);
  ASSERT_EQ(CBRegisterCOMObject(Id(3), Self(), VXT("Thing")), S_OK);

  // Every lookup reads the file afresh: this is what another process would see.
  const std::vector<Entry> all = vx::registry::List();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[0].kind, Kind::FileParser);
  EXPECT_EQ(all[0].name, "DPX File");
  EXPECT_EQ(all[0].mediaKind, 1u);
  EXPECT_EQ(all[0].capabilities, 3u);
  EXPECT_EQ(all[0].extensions, (std::vector<std::string>{"DPX", "CIN"}));
  EXPECT_EQ(all[0].module, vx::ToUtf8(vx::os::ModulePathOf(Self())));
  EXPECT_FALSE(all[0].module.empty());
  EXPECT_EQ(all[1].kind, Kind::GenericObject);
  EXPECT_EQ(all[1].flag, 7);
  EXPECT_EQ(all[2].kind, Kind::ComObject);
  EXPECT_EQ(all[2].name, "Thing");

  // Readable by people and other tools: pretty-printed JSON with the class id in braces.
  const std::string text = Slurp(reg.path());
  EXPECT_NE(text.find("\n  "), std::string::npos);
  const auto doc = nlohmann::json::parse(text);
  EXPECT_EQ(doc["entries"][0]["clsid"], vx::GuidToString(Id(1)));
  EXPECT_EQ(doc["entries"][0]["extensions"][1], "CIN");

  // Lookups by extension ignore case and a leading dot; a class id may have one entry per kind.
  ASSERT_EQ(RegisterParser(10, "Ten", {VXT("tif"), VXT("TIFF")}), S_OK);
  ASSERT_EQ(RegisterParser(11, "Eleven", {VXT("wav")}), S_OK);
  ASSERT_EQ(VxRegisterGenericObj(Id(11), VXT("Also eleven"), 0, Self()), S_OK);

  Entry e;
  for (const char* ext : {"tif", "TIF", ".tif", ".Tiff", "tiff"}) {
    ASSERT_TRUE(vx::registry::FindByExtension(ext, &e)) << ext;
    EXPECT_EQ(e.clsid, Id(10)) << ext;
  }
  EXPECT_FALSE(vx::registry::FindByExtension("ti", &e));
  EXPECT_FALSE(vx::registry::FindByExtension("", &e));
  EXPECT_FALSE(vx::registry::FindByExtension(".", &e));

  // The class id is shared by a parser and a generic object: the parser wins the kindless
  // lookup; each is found under its own kind.
  ASSERT_TRUE(vx::registry::FindByClsid(Id(11), &e));
  EXPECT_EQ(e.kind, Kind::FileParser);
  ASSERT_TRUE(vx::registry::FindByClsid(Id(11), &e, Kind::GenericObject));
  EXPECT_EQ(e.name, "Also eleven");
  EXPECT_FALSE(vx::registry::FindByClsid(Id(10), &e, Kind::ComObject));
  EXPECT_FALSE(vx::registry::FindByClsid(Id(99), &e));
}

TEST(Registry, ReRegisterReplacesInPlaceAndUnregisterTakesOnlyThatKind) {
  sdktest::ScopedRegistry reg;
  const HRESULT notFound = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(VxUnregisterFileParser(Id(5), Self()), notFound);  // no file at all
  ASSERT_EQ(RegisterParser(5, "Five", {VXT("a")}), S_OK);
  ASSERT_EQ(RegisterParser(6, "Six", {VXT("b")}), S_OK);
  ASSERT_EQ(RegisterParser(5, "Five again", {VXT("c")}), S_OK);
  auto all = vx::registry::List();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].name, "Five again");
  EXPECT_EQ(all[0].extensions, std::vector<std::string>{"C"});
  Entry e;
  EXPECT_FALSE(vx::registry::FindByExtension("a", &e));  // the old extension went with it

  ASSERT_EQ(CBRegisterCOMObject(Id(5), Self(), VXT("Five object")), S_OK);
  EXPECT_EQ(VxUnRegisterGenericObj(Id(5), Self()), notFound);
  EXPECT_EQ(VxUnregisterFileParser(Id(5), Self()), S_OK);
  EXPECT_EQ(VxUnregisterFileParser(Id(5), Self()), notFound);
  all = vx::registry::List();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[1].kind, Kind::ComObject);
  EXPECT_EQ(CBUnregisterCOMObject(Id(5)), S_OK);
  EXPECT_EQ(CBUnregisterCOMObject(Id(5)), notFound);
  // Bad arguments change nothing.
  EXPECT_EQ(VxRegisterFileParser(Id(1), Self(), VXT("x"), 1, 1, nullptr, 2), E_POINTER);
  EXPECT_EQ(VxRegisterFileParser(Id(1), Self(), VXT("x"), 1, 1, nullptr, -1), E_INVALIDARG);
  EXPECT_EQ(vx::registry::List().size(), 1u);
}
TEST(Registry, CorruptFileReadsEmptyAndIsKeptAsideOnWrite) {
  sdktest::ScopedRegistry reg;
  const std::string garbage = "{\"entries\": [ {\"kind\": \"fileParser\", \"clsid\": ";  // cut off
  Spit(reg.path(), garbage);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(vx::registry::List().empty());
  Entry e;
  EXPECT_FALSE(vx::registry::FindByExtension("dpx", &e));
  ASSERT_EQ(RegisterParser(1, "Fresh", {VXT("dpx")}), S_OK);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  EXPECT_EQ(Slurp(reg.path().string() + ".bad"), garbage);
  ASSERT_EQ(vx::registry::List().size(), 1u);
  EXPECT_TRUE(vx::registry::FindByExtension("DPX", &e));

  // Wrong shapes read as empty; one unusable entry among good ones leaves the good ones.
  Spit(reg.path(), "[1, 2, 3]");
  EXPECT_TRUE(vx::registry::List().empty());
  Spit(reg.path(), "{\"entries\": 5}");
  EXPECT_TRUE(vx::registry::List().empty());
  Spit(reg.path(),
       "{\"entries\": [{\"kind\": \"fileParser\", \"clsid\": \"nope\"},"
       " {\"kind\": \"fileParser\", \"clsid\": \"" +
           vx::GuidToString(Id(4)) + "\", \"extensions\": [\"raw\"]}]}");
  ASSERT_TRUE(vx::registry::FindByExtension("RAW", &e));
  EXPECT_EQ(e.clsid, Id(4));
}

TEST(Registry, LeftoverOrBlockedTempFilesNeverDamageTheRegistry) {
  sdktest::ScopedRegistry reg;
  ASSERT_EQ(RegisterParser(1, "Old", {VXT("old")}), S_OK);
  const std::string before = Slurp(reg.path());
  // What a writer killed between writing its temporary file and renaming it leaves behind.
  const std::string temp =
      reg.path().string() + ".tmp" + std::to_string(vx::os::CurrentProcessId());
  Spit(temp, "{\"entries\": [");
  Spit(reg.path().string() + ".tmp1", "garbage");
  EXPECT_EQ(Slurp(reg.path()), before);
  ASSERT_EQ(vx::registry::List().size(), 1u);

  ASSERT_EQ(RegisterParser(2, "New", {VXT("new")}), S_OK);
  EXPECT_EQ(vx::registry::List().size(), 2u);
  EXPECT_FALSE(std::filesystem::exists(temp));

  // The temporary file cannot be made (a folder is in its way): the old file stays whole.
  const std::string saved = Slurp(reg.path());
  std::filesystem::create_directory(temp);
  EXPECT_TRUE(FAILED(RegisterParser(3, "Newer", {VXT("newer")})));
  EXPECT_EQ(Slurp(reg.path()), saved);
}

TEST(Registry, PathFollowsEnvironment) {
  vxtest::TempDir dir;
  {
    sdktest::ScopedEnv a("VXHOST_REGISTRY", (dir / "r.json").string());
    EXPECT_EQ(vx::registry::Path(), (dir / "r.json").string());
  }
  sdktest::ScopedEnv a("VXHOST_REGISTRY", std::nullopt);
#ifdef _WIN32
  sdktest::ScopedEnv b("APPDATA", dir.path().string());
  EXPECT_EQ(vx::registry::Path(), (dir / "vxhost" / "registry.json").string());
  ASSERT_EQ(RegisterParser(1, "One", {VXT("one")}), S_OK);  // creates the folder
  EXPECT_TRUE(std::filesystem::is_regular_file(dir / "vxhost" / "registry.json"));
#else
  {
    sdktest::ScopedEnv b("XDG_CONFIG_HOME", (dir / "xdg").string());
    EXPECT_EQ(vx::registry::Path(), (dir / "xdg" / "vxhost" / "registry.json").string());
    ASSERT_EQ(RegisterParser(1, "One", {VXT("one")}), S_OK);  // creates the folder
    EXPECT_TRUE(std::filesystem::is_regular_file(dir / "xdg" / "vxhost" / "registry.json"));
  }
  sdktest::ScopedEnv b("XDG_CONFIG_HOME", std::nullopt);
  sdktest::ScopedEnv c("HOME", dir.path().string());
  EXPECT_EQ(vx::registry::Path(), (dir / ".config" / "vxhost" / "registry.json").string());
#endif
}

// A batch is saved in one piece when it ends, or not at all; until then readers see the old file.
TEST(Registry, BatchIsSavedWholeOrNotAtAll) {
  sdktest::ScopedRegistry reg;
  ASSERT_EQ(RegisterParser(1, "Before", {VXT("pre")}), S_OK);
  const std::string before = Slurp(reg.path());
  EXPECT_EQ(VxEndRegistration(TRUE), E_UNEXPECTED);

  ASSERT_EQ(VxBeginRegistration(), S_OK);
  EXPECT_EQ(VxBeginRegistration(), E_UNEXPECTED);
  ASSERT_EQ(RegisterParser(2, "Two", {VXT("two")}), S_OK);
  ASSERT_EQ(CBRegisterCOMObject(Id(3), Self(), VXT("Three")), S_OK);
  EXPECT_EQ(VxUnregisterFileParser(Id(1), Self()), S_OK);
  EXPECT_EQ(Slurp(reg.path()), before);
  ASSERT_EQ(VxEndRegistration(FALSE), S_OK);
  EXPECT_EQ(Slurp(reg.path()), before);

  ASSERT_EQ(VxBeginRegistration(), S_OK);
  ASSERT_EQ(RegisterParser(2, "Two", {VXT("two")}), S_OK);
  ASSERT_EQ(CBRegisterCOMObject(Id(3), Self(), VXT("Three")), S_OK);
  EXPECT_EQ(vx::registry::List().size(), 1u);
  ASSERT_EQ(VxEndRegistration(TRUE), S_OK);
  const auto all = vx::registry::List();
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[2].name, "Three");
}

// The stamp a save leaves tells a host whether the registry still matches a module file.
TEST(Registry, StaleForAModuleRebuiltOrMissingEntries) {
  sdktest::ScopedRegistry reg;
  const std::string module = vx::ToUtf8(vx::os::ModulePathOf(Self()));
  EXPECT_FALSE(vx::registry::IsCurrent(module));  // never registered
  ASSERT_EQ(RegisterParser(1, "One", {VXT("one")}), S_OK);
  ASSERT_EQ(RegisterParser(2, "Two", {VXT("two")}), S_OK);
  EXPECT_TRUE(vx::registry::IsCurrent(module));
  EXPECT_FALSE(vx::registry::IsCurrent(module + ".other"));

  auto doc = nlohmann::json::parse(Slurp(reg.path()));
  auto edited = doc;
  edited["entries"].erase(1);  // an entry lost
  Spit(reg.path(), edited.dump());
  EXPECT_FALSE(vx::registry::IsCurrent(module));
  edited = doc;
  edited["modules"][module]["modified"] =
      edited["modules"][module]["modified"].get<std::int64_t>() - 1;
  Spit(reg.path(), edited.dump());  // the file changed since it was registered
  EXPECT_FALSE(vx::registry::IsCurrent(module));
  Spit(reg.path(), doc.dump());
  EXPECT_TRUE(vx::registry::IsCurrent(module));

  EXPECT_EQ(VxUnregisterFileParser(Id(1), Self()), S_OK);
  EXPECT_EQ(VxUnregisterFileParser(Id(2), Self()), S_OK);
  EXPECT_FALSE(nlohmann::json::parse(Slurp(reg.path()))["modules"].contains(module));
}

TEST(Registry, TwoProcessesRegisteringAtOnceLoseNothing) {
  sdktest::ScopedRegistry reg;
  ASSERT_EQ(RegisterParser(1, "Before", {VXT("pre")}), S_OK);
  const VxString bin = vxtest::Wide(vxtest::BinDir());
  constexpr std::uint32_t kEach = 30;  // as the children are told below
  std::vector<vx::os::ProcessHandle> children;
  for (const VxChar* args : {VXT("1000 30"), VXT("2000 30")})
    children.push_back(vx::os::LaunchProcess(bin.c_str(), VXT("vx_sdk_registry_child"), args));
  for (auto p : children) {
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(vx::os::WaitProcess(p, 60000), vx::os::Wait::Signaled);
    int code = -1;
    ASSERT_TRUE(vx::os::ProcessExitCode(p, &code));
    EXPECT_EQ(code, 0);
    vx::os::CloseProcess(p);
  }
  const auto all = vx::registry::List();
  std::set<std::uint32_t> ids, want = {1};
  for (const Entry& e : all) ids.insert(e.clsid.Data1);
  for (std::uint32_t i = 0; i < kEach; ++i) want.insert({1000 + i, 2000 + i});
  EXPECT_EQ(all.size(), want.size());  // no entry twice
  EXPECT_EQ(ids, want);
}

}  // namespace
