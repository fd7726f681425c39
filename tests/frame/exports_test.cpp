// The component seen through its exports, as the host sees it.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "loaded_module.h"
#include "vx/parser.h"
#include "vx/sdk.h"

namespace {

using vx::registry::Entry;
using vx::registry::Kind;
using vxtest::LoadedModule;

GUID Guid(const char* text) {
  unsigned d1, d2, d3, b[8];
  int n = std::sscanf(text, "{%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x}", &d1, &d2, &d3, &b[0], &b[1],
                      &b[2], &b[3], &b[4], &b[5], &b[6], &b[7]);
  EXPECT_EQ(n, 11) << text;
  GUID g{d1, static_cast<std::uint16_t>(d2), static_cast<std::uint16_t>(d3), {}};
  for (int i = 0; i < 8; ++i) g.Data4[i] = static_cast<std::uint8_t>(b[i]);
  return g;
}

// The catalogue as the host must see it, written out independently of the component's table.
struct ExpectedRow {
  const char* clsid;
  const char* name;
  std::uint32_t kind;
  std::uint32_t caps;
  const char* extensions;  // separated by blanks
};

const std::vector<ExpectedRow>& ExpectedCatalogue() {
  static const std::vector<ExpectedRow> rows = {
      {"{32D3C204-0E3B-11CF-AFA9-00AA00629284}", "AVI", 3, 0x30003, "AVI"},
      {"{32D3C205-0E3B-11CF-AFA9-00AA00629284}", "QUILLON", 1, 3, "PIC"},
      {"{7F24B2C8-7C42-11CE-BC0E-00AA006C289C}", "TIFF", 1, 3, "TIF TIFF"},
      {"{32D3C212-0E3B-11CF-AFA9-00AA00629284}", "JFIF (JPEG)", 1, 3, "JPEG JFIF JPG"},
      {"{32D3C207-0E3B-11CF-AFA9-00AA00629284}", "TARGA", 1, 3, "TGA"},
      {"{32D3C208-0E3B-11CF-AFA9-00AA00629284}", "YUV", 1, 3, "YUV"},
      {"{A7359818-CA04-44F0-BA31-1BF97CF9AAD5}", "YUV16", 1, 3, "YUV16"},
      {"{32D3C209-0E3B-11CF-AFA9-00AA00629284}", "SGI", 1, 3, "SGI RGB"},
      {"{32D3C20A-0E3B-11CF-AFA9-00AA00629284}", "WAVEFRONT", 1, 3, "RLA"},
      {"{32D3C20B-0E3B-11CF-AFA9-00AA00629284}", "PICT", 1, 3, "PCT PICT"},
      {"{32D3C20C-0E3B-11CF-AFA9-00AA00629284}", "PCX", 1, 3, "PCX"},
      {"{32D3C20D-0E3B-11CF-AFA9-00AA00629284}", "BMP", 1, 3, "BMP"},
      {"{32D3C20E-0E3B-11CF-AFA9-00AA00629284}", "PPM", 1, 3, "PPM"},
      {"{32D3C20F-0E3B-11CF-AFA9-00AA00629284}", "PGM", 1, 3, "PGM"},
      {"{FD2CEC1C-49F1-4ECA-8C46-C208CC55BDE4}", "PNG", 1, 3, "PNG"},
      {"{32D3C210-0E3B-11CF-AFA9-00AA00629284}", "GIF", 1, 1, "GIF"},
      {"{32D3C211-0E3B-11CF-AFA9-00AA00629284}", "ALIAS", 1, 3, "ALS"},
      {"{32D3C216-0E3B-11CF-AFA9-00AA00629284}", "CINEON", 1, 3, "CIN FIDO"},
      {"{B980120D-CF7D-49D4-933F-467E7B541111}", "DPX", 1, 3, "DPX"},
      {"{32D3C213-0E3B-11CF-AFA9-00AA00629284}", "PHOTOSHOP", 1, 3, "PSD"},
      {"{7F24B2C9-7C42-11CE-BC0E-00AA006C289C}", "WAV", 2, 0x30003, "WAV"},
      {"{C855EFC1-92EA-4048-82EE-33AC85C3EE89}", "BWF", 2, 0x30001, "BWF"},
      {"{6C82FD9D-5D87-4E97-B2E5-0916B13DC636}", "MXF", 3, 0x30003, "MXF"},
      {"{47BE3252-DAFA-11D1-9E34-00A0C982CCE4}", "MAP", 1, 3, "MAP"},
      {"{18829291-03F0-11D4-922B-009027BC38C0}", "HALDEN VX (VIDEO HAL)", 1, 0x30003, "GEN OMF"},
      {"{0724CB7B-60E3-478F-982A-9367EAEAEBC9}", "CHYRON", 1, 3, "CHR"},
      {"{3F0215AA-FDEE-441A-9499-CA80A36EB74E}", "MPG", 3, 0x30001, "MPG MPEG MP3 M4A M4V M2V MP4"},
      {"{655AADEC-D238-11D0-B5F0-00A0C906817C}", "AIFF", 2, 0x30003, "AIF AIFF AIFC"},
      {"{FE7C267F-B78C-4FCC-8F6A-D7D3441D26B5}", "RED", 3, 0x30001, "R3D"},
      {"{4ADF0901-C8F1-4947-8461-A1999547859F}", "HDR", 1, 3, "HDR"},
      {"{70BA3112-9E70-11D1-80C8-00A0C906818F}", "QUICKTIME", 3, 0x30003, "MOV QT HDMOV"},
  };
  return rows;
}

constexpr const char* kAdf = "{08465D6A-DBB9-11D0-B5F0-00A0C906817C}";
constexpr const char* kQtManager = "{7774DB05-6972-11D4-81B2-0090271B98FE}";
constexpr const char* kCacheManager = "{FBC68131-B490-46CA-B350-C4EE08D8185B}";
constexpr const char* kRedHelper = "{0D0A65E9-F572-45F5-8F43-D14203A292A8}";

const IID kSomeOtherIid = {0x12345678, 0x1111, 0x2222, {1, 2, 3, 4, 5, 6, 7, 8}};

class Exports : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(module.ok()) << module.path() << ": " << module.error(); }
  LoadedModule module;
};

// One test walks the whole life of the registry: the tests of this area share one registry file.
TEST_F(Exports, RegistrationRoundTrip) {
  if (!std::getenv("VXHOST_REGISTRY")) GTEST_SKIP() << "needs a test registry (run via ctest)";
  module.unreg();  // from an earlier run; failures expected
  ASSERT_TRUE(vx::registry::List().empty());

  ASSERT_EQ(module.reg(), S_OK);
  std::vector<Entry> all = vx::registry::List();
  std::vector<Entry> parsers, others;
  for (const Entry& e : all) (e.kind == Kind::FileParser ? parsers : others).push_back(e);

  const auto& expected = ExpectedCatalogue();
  ASSERT_EQ(parsers.size(), expected.size());
  std::string modulePath = std::filesystem::canonical(module.path()).string();
  for (std::size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE("row " + std::to_string(i + 1) + " " + expected[i].name);
    EXPECT_EQ(parsers[i].clsid, Guid(expected[i].clsid));
    EXPECT_EQ(parsers[i].name, expected[i].name);
    EXPECT_EQ(parsers[i].mediaKind, expected[i].kind);
    EXPECT_EQ(parsers[i].capabilities, expected[i].caps);
    std::istringstream words(expected[i].extensions);
    EXPECT_EQ(parsers[i].extensions,
              (std::vector<std::string>{std::istream_iterator<std::string>(words), {}}));
    EXPECT_EQ(std::filesystem::canonical(parsers[i].module).string(), modulePath);
  }

  // The four further objects, in registration order: generic before COM for each.
  struct Other {
    Kind kind;
    const char* clsid;
    const char* name;
    int flag;
  };
  const Other expectedOthers[] = {
      {Kind::ComObject, kAdf, "ADF File Parser", 0},
      {Kind::GenericObject, kQtManager, "Vx QT Manager", 1},
      {Kind::ComObject, kQtManager, "Vx QT Manager", 0},
      {Kind::GenericObject, kCacheManager, "Vx File Cache Manager", 0},
      {Kind::ComObject, kCacheManager, "Vx File Cache Manager", 0},
      {Kind::GenericObject, kRedHelper, "Red Process Helper Generic Object", 1},
      {Kind::ComObject, kRedHelper, "Red Process Helper Class", 0},
  };
  ASSERT_EQ(others.size(), std::size(expectedOthers));
  for (std::size_t i = 0; i < others.size(); ++i) {
    SCOPED_TRACE(expectedOthers[i].name);
    EXPECT_EQ(others[i].kind, expectedOthers[i].kind);
    EXPECT_EQ(others[i].clsid, Guid(expectedOthers[i].clsid));
    EXPECT_EQ(others[i].name, expectedOthers[i].name);
    if (others[i].kind == Kind::GenericObject) {
      EXPECT_EQ(others[i].flag, expectedOthers[i].flag);
    }
  }

  // Unregistration carries on past a failure and reports it: TIFF is missing, everything
  // after it is still undone.
  const GUID tiff = Guid(expected[2].clsid);
  ASSERT_EQ(VxUnregisterFileParser(tiff, nullptr), S_OK);
  HRESULT missing = VxUnregisterFileParser(tiff, nullptr);
  ASSERT_TRUE(FAILED(missing));
  EXPECT_EQ(module.unreg(), missing);
  EXPECT_TRUE(vx::registry::List().empty());

  // Everything gone: every call fails, the code is the last one's.
  EXPECT_TRUE(FAILED(module.unreg()));
  EXPECT_EQ(module.reg(), S_OK);
  EXPECT_EQ(module.unreg(), S_OK);
}

TEST_F(Exports, FactoryInterfaces) {
  for (const char* id :
       {kAdf, kQtManager, kCacheManager, kRedHelper, "{B980120D-CF7D-49D4-933F-467E7B541111}"}) {
    SCOPED_TRACE(id);
    void* p = nullptr;
    ASSERT_EQ(module.getClassObject(Guid(id), IID_IUnknown, &p), S_OK);
    auto* unk = static_cast<IUnknown*>(p);
    void* factory = nullptr;
    ASSERT_EQ(unk->QueryInterface(IID_IClassFactory, &factory), S_OK);
    EXPECT_EQ(factory, p);  // one object behind both
    static_cast<IUnknown*>(factory)->Release();
    EXPECT_EQ(unk->QueryInterface(IID_IUnknown, nullptr), E_INVALIDARG);
    void* other = reinterpret_cast<void*>(0x1);
    EXPECT_EQ(unk->QueryInterface(kSomeOtherIid, &other), E_NOINTERFACE);
    EXPECT_EQ(other, nullptr);
#ifdef _WIN32
    // The free-threaded marshaler, made once and aggregated: its references are the factory's.
    void *marshal = nullptr, *again = nullptr;
    ASSERT_EQ(unk->QueryInterface(IID_IMarshal, &marshal), S_OK);
    ASSERT_EQ(unk->QueryInterface(IID_IMarshal, &again), S_OK);
    EXPECT_EQ(marshal, again);
    static_cast<IUnknown*>(again)->Release();
    static_cast<IUnknown*>(marshal)->Release();
#else
    EXPECT_EQ(unk->QueryInterface(IID_IMarshal, &other), E_NOINTERFACE);
#endif
    EXPECT_EQ(unk->Release(), 0u);
  }
  // Asked for something it is not, the new factory dies at once; unknown classes have none.
  void* p = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(module.getClassObject(Guid(kAdf), kSomeOtherIid, &p), E_NOINTERFACE);
  EXPECT_EQ(p, nullptr);
  p = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(module.getClassObject(kSomeOtherIid, IID_IClassFactory, &p), VX_HR(0x80040111u));
  EXPECT_EQ(p, nullptr);
  EXPECT_EQ(module.getClassObject(Guid(kAdf), IID_IClassFactory, nullptr), E_POINTER);
  // Aggregation is refused and builds nothing.
  IClassFactory* f = module.Factory(Guid(kCacheManager));
  ASSERT_NE(f, nullptr);
  p = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(f->CreateInstance(f, IID_IUnknown, &p), VX_HR(0x80040110u));
  EXPECT_EQ(p, nullptr);
  f->Release();
  EXPECT_EQ(module.canUnloadNow(), S_OK);
}

// Every class id either builds an object or answers E_NOINTERFACE; an interface the object
// lacks leaves nothing alive.
TEST_F(Exports, CreateInstanceLeavesNothingBehind) {
  std::vector<const char*> ids;
  for (const auto& row : ExpectedCatalogue()) ids.push_back(row.clsid);
  for (const char* id : {kAdf, kQtManager, kCacheManager, kRedHelper}) ids.push_back(id);
  for (BOOL hal : {FALSE, TRUE}) {
    VxSetVideoHALInstantiated(hal);
    for (const char* id : ids) {
      SCOPED_TRACE(id);
      IClassFactory* f = module.Factory(Guid(id));
      ASSERT_NE(f, nullptr);
      void* p = reinterpret_cast<void*>(0x1);
      HRESULT hr = f->CreateInstance(nullptr, IID_IUnknown, &p);
      if (hr == S_OK) {
        ASSERT_NE(p, nullptr);
        auto* unk = static_cast<IUnknown*>(p);
        // A reference count of exactly one after creation.
        EXPECT_EQ(unk->AddRef(), 2u);
        EXPECT_EQ(unk->Release(), 1u);
        unk->Release();
        void* q = reinterpret_cast<void*>(0x1);
        EXPECT_EQ(f->CreateInstance(nullptr, kSomeOtherIid, &q), E_NOINTERFACE);
        EXPECT_EQ(q, nullptr);
      } else {
        EXPECT_EQ(hr, E_NOINTERFACE);  // class not built
        EXPECT_EQ(p, nullptr);
      }
      EXPECT_EQ(f->CreateInstance(nullptr, IID_IUnknown, nullptr), E_POINTER);
      f->Release();
      EXPECT_EQ(module.canUnloadNow(), S_OK);
    }
  }
  VxSetVideoHALInstantiated(FALSE);
}

TEST_F(Exports, CanUnloadNowFollowsObjectsLocksAndTheCacheManager) {
  EXPECT_EQ(module.canUnloadNow(), S_OK);
  IClassFactory* f = module.Factory(Guid(kAdf));
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(module.canUnloadNow(), S_FALSE);  // the factory itself
  EXPECT_EQ(f->LockServer(TRUE), S_OK);
  EXPECT_EQ(f->LockServer(TRUE), S_OK);
  EXPECT_EQ(f->Release(), 0u);
  EXPECT_EQ(module.canUnloadNow(), S_FALSE);  // two locks left

  f = module.Factory(Guid(kAdf));
  EXPECT_EQ(f->LockServer(FALSE), S_OK);
  EXPECT_EQ(f->AddRef(), 2u);
  EXPECT_EQ(f->Release(), 1u);
  EXPECT_EQ(f->LockServer(FALSE), S_OK);
  EXPECT_EQ(module.canUnloadNow(), S_FALSE);  // the factory still lives
  f->Release();
  EXPECT_EQ(module.canUnloadNow(), S_OK);

  // One cache manager per process, whatever factory made it.
  IClassFactory* f1 = module.Factory(Guid(kCacheManager));
  IClassFactory* f2 = module.Factory(Guid(kCacheManager));
  ASSERT_TRUE(f1 && f2);
  EXPECT_NE(f1, f2);  // a fresh factory per call
  void *a = nullptr, *b = nullptr;
  ASSERT_EQ(f1->CreateInstance(nullptr, IID_IUnknown, &a), S_OK);
  ASSERT_EQ(f2->CreateInstance(nullptr, IID_IUnknown, &b), S_OK);
  EXPECT_EQ(a, b);
  f1->Release();
  f2->Release();
  EXPECT_EQ(module.canUnloadNow(), S_FALSE);  // the cache manager is referenced
  static_cast<IUnknown*>(a)->Release();
  EXPECT_EQ(module.canUnloadNow(), S_FALSE);
  static_cast<IUnknown*>(b)->Release();
  EXPECT_EQ(module.canUnloadNow(), S_OK);  // a cached singleton does not pin the module
}

TEST_F(Exports, ExportsExactlyTheFourEntryPoints) {
#ifdef _WIN32
  GTEST_SKIP() << "ELF only";
#else
  if (std::system("command -v nm >/dev/null 2>&1") != 0) GTEST_SKIP() << "nm not installed";
  vxtest::TempDir dir;
  auto out = dir / "symbols.txt";
  std::string cmd =
      "nm -D --defined-only '" + module.path().string() + "' > '" + out.string() + "' 2>&1";
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  std::ifstream in(out);
  std::set<std::string> functions, others;
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    std::string address, type, name;
    fields >> address >> type >> name;
    if (name.empty()) continue;
    (type == "T" ? functions : others).insert(name);
  }
  EXPECT_EQ(functions, (std::set<std::string>{"DllCanUnloadNow", "DllGetClassObject",
                                              "DllRegisterServer", "DllUnregisterServer"}));
  EXPECT_TRUE(others.empty()) << *others.begin();
#endif
}

}  // namespace
