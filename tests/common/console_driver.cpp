#include "tests/common/console_driver.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <poll.h>
#include <pty.h>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "platform/clock.h"

namespace fsu::test {
namespace {

// The ELF machine of a regular file, 0 for anything else.
int elf_machine(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return 0;
  unsigned char head[20];
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  const bool read_all = read(fd, head, sizeof head) == static_cast<ssize_t>(sizeof head);
  close(fd);
  if (!read_all || std::memcmp(head, "\x7f" "ELF", 4) != 0) return 0;
  return head[18] << 8 | head[19];  // compared with the same encoding only
}

// In a cross build every program of this build's processor that a test starts runs under the
// emulator, wherever it stands in the command line: first, after `env` settings or after the
// `--` of fsusim (a native one, which then starts the emulator).
std::vector<std::string> emulated(const std::vector<std::string>& argv) {
  std::istringstream words(FSU_TEST_EMULATOR);
  const std::vector<std::string> emulator{std::istream_iterator<std::string>(words), {}};
  if (emulator.empty()) return argv;
  static const int own = elf_machine("/proc/self/exe");
  std::vector<std::string> command;
  for (const std::string& arg : argv) {
    if (elf_machine(arg.c_str()) == own) command.insert(command.end(), emulator.begin(), emulator.end());
    command.push_back(arg);
  }
  return command;
}

[[noreturn]] void exec_child(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  for (const std::string& e : env) putenv(strdup(e.c_str()));
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  _exit(127);
}

}  // namespace

ConsoleDriver::ConsoleDriver(const std::vector<std::string>& program, Mode mode,
                             const std::vector<std::string>& env)
    : mode_(mode) {
  const std::vector<std::string> argv = emulated(program);
  if (mode == Mode::kTerminal) {
    int master = -1;
    pid_ = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid_ < 0) throw std::runtime_error("forkpty failed");
    if (pid_ == 0) exec_child(argv, env);
    in_fd_ = out_fd_ = master;
  } else {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      exec_child(argv, env);
    }
    close(in[0]);
    close(out[1]);
    in_fd_ = in[1];
    out_fd_ = out[0];
  }
}

ConsoleDriver::~ConsoleDriver() {
  if (!exited_ && pid_ > 0) {
    kill(pid_, SIGTERM);
    if (wait_exit(5) < 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  if (in_fd_ >= 0 && in_fd_ != out_fd_) close(in_fd_);
  if (out_fd_ >= 0) close(out_fd_);
}

bool ConsoleDriver::poll_ready() {
  pollfd p{out_fd_, POLLIN, 0};
  return poll(&p, 1, 0) > 0;
}

void ConsoleDriver::pump(double seconds) {
  pollfd p{out_fd_, POLLIN, 0};
  const int ms = seconds <= 0 ? 0 : static_cast<int>(seconds * 1000) + 1;
  if (poll(&p, 1, ms) <= 0) return;
  char buf[4096];
  const ssize_t n = read(out_fd_, buf, sizeof buf);
  if (n > 0) {
    output_.append(buf, static_cast<std::size_t>(n));
  } else if (n == 0 || errno != EINTR) {
    closed_ = true;  // end of output (a terminal whose program has gone reads as EIO)
  }
}

bool ConsoleDriver::wait_for(const std::string& text, double seconds) {
  return wait_for_count(text, 1, seconds);
}

bool ConsoleDriver::wait_for_count(const std::string& text, int count, double seconds) {
  const double deadline = platform::monotonic_seconds() + seconds;
  for (;;) {
    int found = 0;
    for (std::size_t at = output_.find(text); at != std::string::npos; at = output_.find(text, at + 1)) {
      if (++found >= count) return true;
    }
    const double left = deadline - platform::monotonic_seconds();
    if (left <= 0 || closed_) return false;
    pump(left < 0.2 ? left : 0.2);
  }
}

void ConsoleDriver::send(const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(in_fd_, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

void ConsoleDriver::end_input() {
  if (mode_ == Mode::kTerminal) {
    send("\x04");
  } else if (in_fd_ >= 0) {
    close(in_fd_);
    in_fd_ = -1;
  }
}

int ConsoleDriver::wait_exit(double seconds) {
  if (exited_) return status_;
  const double deadline = platform::monotonic_seconds() + seconds;
  for (;;) {
    int status = 0;
    const pid_t r = waitpid(pid_, &status, WNOHANG);
    if (r == pid_) {
      exited_ = true;
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      while (!closed_ && poll_ready()) pump(0);
      return status_;
    }
    if (platform::monotonic_seconds() > deadline) return -1;
    if (closed_) {
      usleep(10000);
    } else {
      pump(0.05);
    }
  }
}

}  // namespace fsu::test
