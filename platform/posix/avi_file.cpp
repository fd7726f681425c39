#include "vx/avi_file.h"

namespace vx::os {

// No Video for Windows here: the component reads and writes AVI through FFmpeg instead.
std::unique_ptr<AviFile> OpenAviFile(const VxChar*) {
  return nullptr;
}
std::unique_ptr<AviWriter> CreateAviFile(const VxChar*) {
  return nullptr;
}

}  // namespace vx::os
