#include "audio_test_util.h"

#include <cstdlib>

namespace vxtest {

bool Run(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

bool HaveTool(const std::string& tool) {
  return Run("command -v " + tool);
}

}  // namespace vxtest
