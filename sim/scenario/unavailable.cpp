// `fsusim test` in a build without yaml-cpp (a cross build for the board, whose sysroot has
// none): the command says so. The simulator runs on the build machine, so such a build's tests
// take a native fsusim.
#include <cstdio>

#include "sim/scenario/test_command.h"

namespace fsu::sim::scenario {

const char kTestUsage[] = "  fsusim test ...\n      (not in this build: it was made without yaml-cpp)\n";

int test_command(int, char**) {
  std::fputs("fsusim: test: this fsusim was built without yaml-cpp, which reads scenario files\n", stderr);
  return 2;
}

}  // namespace fsu::sim::scenario
