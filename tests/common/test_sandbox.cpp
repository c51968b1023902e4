#include "tests/common/test_sandbox.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

#include "platform/sandbox_root.h"
#include "sim/sandbox.h"

namespace fsu::test {

const char* fsusim_path() { return FSU_TEST_FSUSIM; }
const char* benchkit_path() { return FSU_TEST_BENCHKIT; }

TestSandbox::TestSandbox() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/fsutest.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  root_ = pattern;
  std::string error;
  if (!sim::make_sandbox(root_, fsusim_path(), &error)) throw std::runtime_error(error);
  if (!platform::set_root(root_.c_str())) throw std::runtime_error("unusable sandbox root");
}

TestSandbox::~TestSandbox() { sim::remove_sandbox(root_); }

std::string TestSandbox::read(const std::string& device_path) const {
  std::ifstream in(path(device_path), std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void TestSandbox::write(const std::string& device_path, const std::string& text) const {
  std::ofstream(path(device_path), std::ios::binary | std::ios::trunc) << text;
}

bool TestSandbox::exists(const std::string& device_path) const {
  struct stat st;
  return stat(path(device_path).c_str(), &st) == 0;
}

std::string TestSandbox::calls() const { return read("/sim/calls.log"); }

}  // namespace fsu::test
