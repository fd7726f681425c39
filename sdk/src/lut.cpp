// 3D look-up tables from .cube files and their trilinear application.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "vx/platform.h"
#include "vx/sdk.h"

struct VxLUT3D {
  int size = 0;
  float domainMin[3] = {0.0f, 0.0f, 0.0f};
  float domainMax[3] = {1.0f, 1.0f, 1.0f};
  std::string title;
  std::vector<float> rgb;  // red fastest, then green, then blue
};

namespace {

// A 256-point cube is 200 MB of text already; anything bigger is not a LUT we should load.
constexpr std::uint64_t kMaxCubeBytes = 512u << 20;
constexpr int kMaxCubeSize = 256;

bool EndsWithCube(VxStringView path) {
  if (path.size() < 5) return false;
  const VxStringView ext = path.substr(path.size() - 5);
  static constexpr char kExt[] = ".cube";
  for (std::size_t i = 0; i < 5; ++i) {
    VxChar c = ext[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<VxChar>(c - 'A' + 'a');
    if (c != static_cast<VxChar>(kExt[i])) return false;
  }
  return true;
}

bool ReadWhole(const VxChar* path, std::string* text) {
  vx::os::FileHandle f = vx::os::OpenRead(path);
  if (f == vx::os::kNoFile) return false;
  std::uint64_t size = 0;
  bool ok = vx::os::Size(f, &size) && size <= kMaxCubeBytes;
  if (ok) {
    text->resize(static_cast<std::size_t>(size));
    std::uint32_t done = 0;
    ok =
        vx::os::ReadAt(f, 0, text->data(), static_cast<std::uint32_t>(size), &done) && done == size;
  }
  vx::os::Close(f);
  return ok;
}

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && IsSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && IsSpace(s.back())) s.remove_suffix(1);
  return s;
}

// Reads exactly `n` finite numbers separated by blanks; nothing else may follow.
bool Numbers(std::string_view s, float* out, int n) {
  for (int i = 0; i < n; ++i) {
    s = Trim(s);
    if (!s.empty() && s.front() == '+') s.remove_prefix(1);
    float v = 0.0f;
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || !std::isfinite(v)) return false;
    s.remove_prefix(static_cast<std::size_t>(end - s.data()));
    if (!s.empty() && !IsSpace(s.front())) return false;
    out[i] = v;
  }
  return Trim(s).empty();
}

bool Integer(std::string_view s, int* out) {
  s = Trim(s);
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
  return ec == std::errc() && end == s.data() + s.size();
}

HRESULT Parse(std::string_view text, VxLUT3D* lut) {
  std::size_t expected = 0;
  bool sawData = false;
  while (!text.empty()) {
    const std::size_t nl = text.find('\n');
    std::string_view line = Trim(text.substr(0, nl));
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    if (line.empty() || line.front() == '#') continue;

    const char c = line.front();
    if ((c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.') {
      if (!lut->size) return E_FAIL;  // data before the size
      float v[3];
      if (!Numbers(line, v, 3)) return E_FAIL;
      if (lut->rgb.size() >= expected) return E_FAIL;  // more points than the size says
      lut->rgb.insert(lut->rgb.end(), v, v + 3);
      sawData = true;
      continue;
    }
    if (sawData) return E_FAIL;  // keywords belong in the header
    const std::size_t sp = line.find_first_of(" \t");
    const std::string_view key = line.substr(0, sp);
    const std::string_view args = sp == std::string_view::npos ? "" : line.substr(sp);
    if (key == "TITLE") {
      std::string_view t = Trim(args);
      if (t.size() >= 2 && t.front() == '"' && t.back() == '"') t = t.substr(1, t.size() - 2);
      lut->title = std::string(t);
    } else if (key == "LUT_3D_SIZE") {
      int n = 0;
      if (lut->size || !Integer(args, &n) || n < 2 || n > kMaxCubeSize) return E_FAIL;
      lut->size = n;
      expected = static_cast<std::size_t>(n) * n * n * 3;
    } else if (key == "LUT_1D_SIZE") {
      return E_NOTIMPL;  // a 1D table: not something a 3D LUT can hold
    } else if (key == "DOMAIN_MIN") {
      if (!Numbers(args, lut->domainMin, 3)) return E_FAIL;
    } else if (key == "DOMAIN_MAX") {
      if (!Numbers(args, lut->domainMax, 3)) return E_FAIL;
    } else if (key == "LUT_3D_INPUT_RANGE") {
      float r[2];
      if (!Numbers(args, r, 2)) return E_FAIL;
      std::fill(lut->domainMin, lut->domainMin + 3, r[0]);
      std::fill(lut->domainMax, lut->domainMax + 3, r[1]);
    } else {
      return E_FAIL;
    }
  }
  if (!lut->size || lut->rgb.size() != expected) return E_FAIL;
  for (int i = 0; i < 3; ++i)
    if (!(lut->domainMax[i] > lut->domainMin[i])) return E_FAIL;
  return S_OK;
}

}  // namespace

HRESULT VxGetPresetLUT(const VxChar* path, VxLUT3D** out) {
  if (!out) return E_POINTER;
  *out = nullptr;
  if (!path) return E_POINTER;
  if (!EndsWithCube(path)) return E_NOTIMPL;
  auto* lut = new (std::nothrow) VxLUT3D;
  if (!lut) return E_OUTOFMEMORY;
  HRESULT hr;
  try {
    std::string text;
    if (!ReadWhole(path, &text))
      hr = E_FAIL;
    else
      hr = Parse(text, lut);
  } catch (const std::bad_alloc&) {
    hr = E_OUTOFMEMORY;
  }
  if (FAILED(hr)) {
    delete lut;
    return hr;
  }
  *out = lut;
  return S_OK;
}

void VxFreeLUT(VxLUT3D* lut) {
  delete lut;
}

HRESULT VxLUTHelperApply3DLut(const VxLUT3D* lut, float* pixels, std::size_t count, int channels) {
  if (!lut) return E_POINTER;
  if (channels != 3 && channels != 4) return E_INVALIDARG;
  if (count && !pixels) return E_POINTER;
  const int n = lut->size;
  const float* table = lut->rgb.data();
  const float top = static_cast<float>(n - 1);
  float scale[3];
  for (int i = 0; i < 3; ++i) scale[i] = top / (lut->domainMax[i] - lut->domainMin[i]);
  const std::size_t strideG = static_cast<std::size_t>(n) * 3;
  const std::size_t strideB = strideG * static_cast<std::size_t>(n);

  for (std::size_t p = 0; p < count; ++p, pixels += channels) {
    std::size_t base[3];
    float frac[3];
    for (int i = 0; i < 3; ++i) {
      float x = (pixels[i] - lut->domainMin[i]) * scale[i];
      x = x > 0.0f ? (x < top ? x : top) : 0.0f;  // NaN lands on the first entry
      // The last cell starts one below the top so the upper neighbour always exists.
      int cell = static_cast<int>(x);
      if (cell > n - 2) cell = n - 2;
      base[i] = static_cast<std::size_t>(cell);
      frac[i] = x - static_cast<float>(cell);
    }
    const float* c000 = table + base[0] * 3 + base[1] * strideG + base[2] * strideB;
    for (int ch = 0; ch < 3; ++ch) {
      auto at = [&](std::size_t dr, std::size_t dg, std::size_t db) {
        return c000[dr * 3 + dg * strideG + db * strideB + static_cast<std::size_t>(ch)];
      };
      const float c00 = at(0, 0, 0) + (at(1, 0, 0) - at(0, 0, 0)) * frac[0];
      const float c10 = at(0, 1, 0) + (at(1, 1, 0) - at(0, 1, 0)) * frac[0];
      const float c01 = at(0, 0, 1) + (at(1, 0, 1) - at(0, 0, 1)) * frac[0];
      const float c11 = at(0, 1, 1) + (at(1, 1, 1) - at(0, 1, 1)) * frac[0];
      const float c0 = c00 + (c10 - c00) * frac[1];
      const float c1 = c01 + (c11 - c01) * frac[1];
      pixels[ch] = c0 + (c1 - c0) * frac[2];
    }
  }
  return S_OK;
}
