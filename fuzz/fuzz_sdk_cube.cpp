// .cube LUT text: loading must fail cleanly or give a table that applies without reading out of
// bounds, whatever the numbers and keywords.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "vx/platform.h"
#include "vx/sdk.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path =
      (std::filesystem::temp_directory_path() /
       ("vx_fuzz_" + std::to_string(vx::os::CurrentProcessId()) + ".cube"))
          .string();
  {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  VxLUT3D* lut = nullptr;
  const VxString wide = vx::FromUtf8(path);
  if (SUCCEEDED(VxGetPresetLUT(wide.c_str(), &lut))) {
    float px[16] = {0.0f,  0.5f,   1.0f,  1.0f, -1.0f,  2.0f,  NAN,   0.0f,
                    1e30f, -1e30f, 0.25f, 0.5f, 0.999f, 1e-7f, 0.75f, 1.0f};
    VxLUTHelperApply3DLut(lut, px, 4, 4);
    VxFreeLUT(lut);
  }
  return 0;
}
