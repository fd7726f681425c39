// RED look sidecars (RLX/RSX property lists) through RedSettingsPrsr's reader.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_seeds.h"
#include "red/r3d/red_settings.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  const std::string seed =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
      "\t<key>DRX</key>\n\t<real>0.500000</real>\n\t<key>curveActive</key>\n\t<true/>\n"
      "\t<key>Kelvin</key>\n\t<real>5600</real>\n\t<key>x</key>\n\t<dict><key>y</key></dict>\n"
      "</dict>\n</plist>\n";
  WriteSeedsIntoEmptyCorpus(*argc, *argv, {std::vector<std::uint8_t>(seed.begin(), seed.end())},
                            ".rsx");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vx::red::RedRSX rsx;
  vx::red::RedLook look;
  float black = 0;
  rsx.ReadText(reinterpret_cast<const char*>(data), size, &look, &black);
  return 0;
}
