// Drives a program the way a person at the console would: through a pseudo-terminal (or plain
// pipes, for byte-exact output), waiting for its output with deadlines, never bare sleeps.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace fsu::test {

class ConsoleDriver {
 public:
  enum class Mode { kTerminal, kPipes };

  // Starts argv[0] with the arguments; extra environment entries as "NAME=value". In a cross
  // build the programs of the build among them run under the build's emulator.
  ConsoleDriver(const std::vector<std::string>& argv, Mode mode,
                const std::vector<std::string>& env = {});
  ~ConsoleDriver();
  ConsoleDriver(const ConsoleDriver&) = delete;
  ConsoleDriver& operator=(const ConsoleDriver&) = delete;

  // Waits until the output collected so far contains `text`; false at the deadline.
  bool wait_for(const std::string& text, double seconds);
  // Waits until `text` occurs `count` times in the output.
  bool wait_for_count(const std::string& text, int count, double seconds);
  void send(const std::string& text);
  // Ends the program's input (end of file on the pipe, or ^D at the start of a terminal line).
  void end_input();
  // Waits for the program to end; its exit status (128 + signal when killed), -1 at the deadline.
  int wait_exit(double seconds);
  const std::string& output() const { return output_; }

 private:
  void pump(double seconds);
  bool poll_ready();

  pid_t pid_ = -1;
  int in_fd_ = -1;
  int out_fd_ = -1;
  Mode mode_;
  bool exited_ = false;
  bool closed_ = false;
  int status_ = -1;
  std::string output_;
};

}  // namespace fsu::test
