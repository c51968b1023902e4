// Test entry: before any test runs, the SDK's root is pointed at a throwaway directory, so
// that a test which forgets its own sandbox still cannot touch the host's /tmp or tools.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>

#include "platform/sandbox_root.h"

int main(int argc, char** argv) {
  const char* tmp = std::getenv("TMPDIR");
  static std::string guard = std::string(tmp && *tmp ? tmp : "/tmp") + "/fsutest-no-root-set";
  mkdir(guard.c_str(), 0700);  // a folder without bin/: no command can run
  setenv("FSU_ROOT", guard.c_str(), 1);
  // The boards the tests bring up are listed apart from the units of the person running them.
  static std::string runtime = std::string(tmp && *tmp ? tmp : "/tmp") + "/fsutest-runtime";
  setenv("FSUSIM_RUNTIME_DIR", runtime.c_str(), 1);
  fsu::platform::set_root(nullptr);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
