#include <cstdio>

int main() {
  std::puts("vxhost: the command-line host of vxprsr");
  return 0;
}
