// Usage: vx_sdk_registry_child <first> <count>
// Registers `count` file parsers with class ids first .. first+count-1, one save each, so two
// of these running at once interleave their read-modify-write cycles.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vx/sdk.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const long first = std::strtol(argv[1], nullptr, 10);
  const long count = std::strtol(argv[2], nullptr, 10);
  for (long i = first; i < first + count; ++i) {
    GUID g = {static_cast<std::uint32_t>(i), 0x5151, 0x7A7A, {1, 2, 3, 4, 5, 6, 7, 8}};
    const std::string ext = "X" + std::to_string(i);
    const VxString wide = vx::FromUtf8(ext);
    const VxChar* exts[] = {wide.c_str()};
    if (FAILED(VxRegisterFileParser(g, nullptr, VXT("child"), 1, 1, exts, 1))) return 1;
  }
  return 0;
}
