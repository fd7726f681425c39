#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#include "sdk_test_util.h"
#include "vx/sdk.h"

namespace {

// A cube of size n whose entries are f(r, g, b) at the lattice points, red varying fastest.
std::string Cube(int n, const std::function<void(float, float, float, float*)>& f,
                 const std::string& header = "") {
  std::string text = "# made by the tests\nTITLE \"test cube\"\n" + header + "LUT_3D_SIZE " +
                     std::to_string(n) + "\n\n";
  char line[96];
  for (int b = 0; b < n; ++b)
    for (int g = 0; g < n; ++g)
      for (int r = 0; r < n; ++r) {
        float o[3];
        const float d = static_cast<float>(n - 1);
        f(r / d, g / d, b / d, o);
        std::snprintf(line, sizeof line, "%.9g %.9g %.9g\n", o[0], o[1], o[2]);
        text += line;
      }
  return text;
}

void Identity(float r, float g, float b, float* o) {
  o[0] = r, o[1] = g, o[2] = b;
}

// Applies `lut` to pixels of `channels` floats and compares each one with `want`.
void ExpectApplied(VxLUT3D* lut, std::vector<float> px, const std::vector<float>& want,
                   int channels = 3) {
  const int n = static_cast<int>(px.size()) / channels;
  ASSERT_EQ(VxLUTHelperApply3DLut(lut, px.data(), n, channels), S_OK);
  for (std::size_t i = 0; i < px.size(); ++i) EXPECT_NEAR(px[i], want[i], 1e-6f) << i;
}

HRESULT Load(const vxtest::TempDir& dir, const std::string& name, const std::string& text,
             VxLUT3D** lut) {
  const auto path = dir / name;
  vxtest::WriteFile(path, std::vector<std::uint8_t>(text.begin(), text.end()));
  return VxGetPresetLUT(vxtest::Wide(path).c_str(), lut);
}

TEST(Lut, KnownMappingsInterpolateTrilinearly) {
  vxtest::TempDir dir;
  VxLUT3D* lut = nullptr;
  ASSERT_EQ(Load(dir, "id.cube", Cube(17, Identity), &lut), S_OK);
  const std::vector<float> rgba = {0.25f, 0.5f, 0.75f, 0.3f, 0.0f, 1.0f, 0.123f, 7.0f};
  ExpectApplied(lut, rgba, rgba, 4);  // the identity leaves colours and alpha alone
  VxFreeLUT(lut);

  // Rotating the channels shows whether red really varies fastest in the file; an affine
  // mapping is reproduced exactly by trilinear interpolation between lattice points.
  auto rotate = [](float r, float g, float b, float* o) {
    o[0] = g, o[1] = 0.5f * b + 0.25f, o[2] = 1.0f - r;
  };
  ASSERT_EQ(Load(dir, "rot.CUBE", Cube(5, rotate), &lut), S_OK);
  ExpectApplied(lut, {0.1f, 0.6f, 0.35f}, {0.6f, 0.425f, 0.9f});
  // Outside the domain, and NaN, take the nearest edge.
  ExpectApplied(lut, {-3.0f, 2.0f, std::nanf(""), 1.0f, 1.0f, 1.0f},
                {1.0f, 0.25f, 1.0f, 1.0f, 0.75f, 0.0f});
  VxFreeLUT(lut);

  // A curved table is interpolated between its lattice points, not fitted.
  auto square = [](float r, float g, float b, float* o) { o[0] = r * g, o[1] = g, o[2] = b; };
  ASSERT_EQ(Load(dir, "sq.cube", Cube(2, square), &lut), S_OK);
  ExpectApplied(lut, {0.5f, 0.5f, 0.0f}, {0.25f, 0.5f, 0.0f});
  VxFreeLUT(lut);

  // A domain scales the input before the lookup.
  ASSERT_EQ(Load(dir, "d.cube", Cube(3, Identity, "DOMAIN_MIN 0 0 -1\nDOMAIN_MAX 2 4 1\n"), &lut),
            S_OK);
  ExpectApplied(lut, {1.0f, 1.0f, 0.0f}, {0.5f, 0.25f, 0.5f});
  float px[3] = {};
  EXPECT_EQ(VxLUTHelperApply3DLut(lut, px, 1, 2), E_INVALIDARG);
  EXPECT_EQ(VxLUTHelperApply3DLut(nullptr, px, 1, 3), E_POINTER);
  VxFreeLUT(lut);
}

TEST(Lut, MalformedFilesFailAndOtherKindsAreNotImplemented) {
  vxtest::TempDir dir;
  const std::string good = Cube(2, Identity);
  const std::string cut = good.substr(0, good.size() - std::string("1 1 1\n").size());
  struct Case {
    const char* what;
    std::string text;
  } cases[] = {
      {"one point short", cut},
      {"one point extra", good + "0 0 0\n"},
      {"not a number", cut + "1 x 1\n"},
      {"two values", cut + "1 1\n"},
      {"four values", cut + "1 1 1 1\n"},
      {"no size", "0 0 0\n1 1 1\n"},
      {"size one", "LUT_3D_SIZE 1\n0 0 0\n"},
      {"huge size", "LUT_3D_SIZE 100000\n"},
      {"size twice", "LUT_3D_SIZE 2\n" + good},
      {"empty domain", "DOMAIN_MIN 1 1 1\nDOMAIN_MAX 1 1 1\n" + good},
      {"unknown keyword", "FOO 1\n" + good},
      {"infinite value", cut + "1 inf 1\n"},
      {"empty", ""},
  };
  for (const Case& c : cases) {
    VxLUT3D* lut = reinterpret_cast<VxLUT3D*>(1);
    EXPECT_EQ(Load(dir, "bad.cube", c.text, &lut), E_FAIL) << c.what;
    EXPECT_EQ(lut, nullptr) << c.what;
  }
  VxLUT3D* lut = nullptr;
  EXPECT_EQ(Load(dir, "ok.cube", good, &lut), S_OK);
  VxFreeLUT(lut);
  EXPECT_EQ(Load(dir, "one.cube", "LUT_1D_SIZE 2\n0 0 0\n1 1 1\n", &lut), E_NOTIMPL);
  EXPECT_EQ(Load(dir, "film.3dl", good, &lut), E_NOTIMPL);
  EXPECT_EQ(VxGetPresetLUT(vxtest::Wide(dir / "absent.cube").c_str(), &lut), E_FAIL);
  EXPECT_EQ(VxGetPresetLUT(nullptr, &lut), E_POINTER);
}

}  // namespace
