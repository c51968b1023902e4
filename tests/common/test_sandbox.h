// A fresh simulated root for one test: made with the simulator's sandbox maker, set as the
// SDK's root, removed afterwards. Nothing a test does reaches the host's own files or tools.
#pragma once

#include <string>

namespace fsu::test {

class TestSandbox {
 public:
  TestSandbox();
  ~TestSandbox();
  TestSandbox(const TestSandbox&) = delete;
  TestSandbox& operator=(const TestSandbox&) = delete;

  const std::string& root() const { return root_; }
  // Host path of a device path inside the sandbox.
  std::string path(const std::string& device_path) const { return root_ + device_path; }
  std::string read(const std::string& device_path) const;
  void write(const std::string& device_path, const std::string& text) const;
  bool exists(const std::string& device_path) const;
  // Lines the stand-in tools recorded in sim/calls.log.
  std::string calls() const;

 private:
  std::string root_;
};

// Path of the fsusim and benchkit executables of this build.
const char* fsusim_path();
const char* benchkit_path();

}  // namespace fsu::test
