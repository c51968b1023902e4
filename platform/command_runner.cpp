#include "platform/command_runner.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/console_output.h"
#include "platform/sandbox_root.h"

extern char** environ;

namespace fsu::platform {
namespace {

// Device tools that must never reach the host: in a sandbox each needs its stand-in in bin/.
constexpr std::string_view kDeviceTools[] = {
    "reboot", "date", "hwclock", "killall", "uci", "lte.sh", "user.sh",
    "kvupgrade", "ifconfig", "lsusb", "pppd", "poweroff", "halt", "shutdown"};

bool is_directory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool is_file(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool is_separator(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == ';' || c == '&' || c == '|' ||
         c == '(' || c == ')' || c == '`' || c == '<' || c == '>' || c == '\'' || c == '"';
}

// Every word of the command that names a device tool (also by an absolute path) must be
// the sandbox's own stand-in.
bool device_tools_have_stand_ins(const char* command, const std::string& bin) {
  const std::string_view text(command);
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && is_separator(text[i])) ++i;
    std::size_t j = i;
    while (j < text.size() && !is_separator(text[j])) ++j;
    const std::string_view word = text.substr(i, j - i);
    i = j;
    if (word.empty()) continue;
    const std::size_t slash = word.rfind('/');
    const std::string_view base = slash == std::string_view::npos ? word : word.substr(slash + 1);
    for (std::string_view tool : kDeviceTools) {
      if (base != tool) continue;
      if (slash != std::string_view::npos && word.substr(0, slash) != bin) return false;
      if (!is_file(bin + "/" + std::string(tool))) return false;
    }
  }
  return true;
}

// The environment of a command in a sandbox: PATH starts with bin/, FSU_ROOT names the root.
std::vector<std::string> sandbox_environment(const std::string& bin) {
  std::vector<std::string> env;
  std::string path = "PATH=" + bin;
  bool had_path = false;
  for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
    const std::string_view entry(*e);
    if (entry.starts_with("PATH=")) {
      path += ":";
      path += entry.substr(5);
      had_path = true;
    } else if (!entry.starts_with("FSU_ROOT=")) {
      env.emplace_back(entry);
    }
  }
  if (!had_path) path += ":/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin";
  env.push_back(path);
  env.push_back(std::string("FSU_ROOT=") + root());
  return env;
}

bool is_plain(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || (c != '\0' && std::strchr("_./:,+-@%=", c) != nullptr);
}

// The words of a command made of plain words only (letters, digits and _./:,+-@%=, apart by
// blanks), which the shell takes as they stand: no quoting, expansion, redirection or
// pattern. Empty for any other text.
std::vector<std::string> plain_words(std::string_view text) {
  std::vector<std::string> words;
  std::size_t i = 0;
  while (i < text.size()) {
    if (text[i] == ' ' || text[i] == '\t') {
      ++i;
      continue;
    }
    const std::size_t start = i;
    while (i < text.size() && is_plain(text[i])) ++i;
    if (i == start || (i < text.size() && text[i] != ' ' && text[i] != '\t')) return {};
    words.emplace_back(text.substr(start, i - start));
  }
  return words;
}

// `echo WORD > FILE` of plain words, as the application's LED chase writes a GPIO value twice
// a second: written here as the shell would write it (FILE created with mode 0666 less the
// umask or truncated, WORD and a newline), without starting a shell. False for any other
// command, or when the file cannot be written: the shell then runs it and says why.
bool echo_into_file(std::string_view command) {
  const std::size_t arrow = command.find('>');
  if (arrow == std::string_view::npos) return false;
  const std::vector<std::string> echo = plain_words(command.substr(0, arrow));
  const std::vector<std::string> file = plain_words(command.substr(arrow + 1));
  if (echo.size() != 2 || echo[0] != "echo" || echo[1].front() == '-' || file.size() != 1) return false;
  const int fd = open(file[0].c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  const std::string line = echo[1] + "\n";
  const bool written = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  return close(fd) == 0 && written;
}

// A command of plain words whose first names one of the sandbox's stand-in tools starts that
// tool directly, as the shell would exec it, rather than through a shell first: the SDK asks
// for some of them every few seconds. Returns -1 where the shell must run it.
pid_t start_stand_in(const char* command, const std::string& bin, const posix_spawn_file_actions_t* actions,
                     char** envp) {
  std::vector<std::string> words = plain_words(command);
  if (words.empty() || words[0].find_first_of("/=") != std::string::npos) return -1;
  const std::string tool = bin + "/" + words[0];
  if (!is_file(tool) || access(tool.c_str(), X_OK) != 0) return -1;
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  return posix_spawn(&pid, tool.c_str(), actions, nullptr, argv.data(), envp) == 0 ? pid : -1;
}

// Starts /bin/sh -c command; with out_fd >= 0 its standard output goes there, with err_fd >= 0
// its standard error. Both are write ends of pipes whose read ends are close-on-exec.
pid_t start_shell(const char* command, int out_fd, int err_fd) {
  if (command == nullptr || !command_allowed(command)) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (out_fd >= 0) posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);
  if (err_fd >= 0) posix_spawn_file_actions_adddup2(&actions, err_fd, STDERR_FILENO);
  std::vector<std::string> env_text;
  std::vector<char*> env;
  char** envp = environ;
  if (in_sandbox()) {
    env_text = sandbox_environment(std::string(root()) + "/bin");
    for (auto& s : env_text) env.push_back(s.data());
    env.push_back(nullptr);
    envp = env.data();
    const pid_t pid = start_stand_in(command, std::string(root()) + "/bin", &actions, envp);
    if (pid >= 0) {
      posix_spawn_file_actions_destroy(&actions);
      return pid;
    }
  }
  char sh[] = "/bin/sh";
  char dash_c[] = "-c";
  std::string cmd(command);
  char* argv[] = {sh, dash_c, cmd.data(), nullptr};
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, envp);
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

// What a command writes on its standard error, a line at a time, for the log. Lines are cut
// at kLineSize; after kErrorBudget bytes the rest is read and dropped, so that a tool that
// never stops complaining costs nothing but the reading.
class ErrorLines {
 public:
  static constexpr std::size_t kLineSize = 200;
  static constexpr std::size_t kErrorBudget = 4096;

  void take(const char* bytes, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
      if (taken_ >= kErrorBudget) return;
      ++taken_;
      if (bytes[i] == '\n') {
        finish();
      } else if (line_.size() < kLineSize && bytes[i] != '\r') {
        line_ += bytes[i];
      }
    }
  }
  void finish() {
    if (!line_.empty()) tool_error_line(line_);
    line_.clear();
  }

 private:
  std::string line_;
  std::size_t taken_ = 0;
};

int wait_for(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

// Runs the command, storing up to `size` bytes of its standard output in `out` (read from
// `out_fd` when that is >= 0) and handing its standard error (`err_fd`) to the log; closes both.
// Ends when the shell has ended and its pipes are drained: a child it left running in the
// background (`nohup lte.sh &`) may hold a pipe open for ever, so a finished shell is not
// waited past what its pipes hold already. Returns the wait status, or -1; *got the bytes stored.
int run_and_read(pid_t pid, int out_fd, int err_fd, char* out, std::size_t size, std::size_t* got) {
  constexpr int kDrainRounds = 64;  // reads after the shell has ended
  ErrorLines errors;
  char scratch[512];
  int fds_left[2] = {out_fd, err_fd};
  const auto finish = [&](int i) {
    close(fds_left[i]);
    fds_left[i] = -1;
  };
  int status = -1;
  bool ended = false;
  for (int after_end = 0; (fds_left[0] >= 0 || fds_left[1] >= 0) && after_end < kDrainRounds;) {
    pollfd fds[2] = {{fds_left[0], POLLIN, 0}, {fds_left[1], POLLIN, 0}};
    if (poll(fds, 2, ended ? 0 : 20) < 0 && errno != EINTR) break;
    bool data = false;
    for (int i = 0; i < 2; ++i) {
      if (fds_left[i] < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      const bool storing = i == 0 && out != nullptr;
      if (storing && *got >= size) {
        finish(i);  // as popen's reader closing early: a writer still going gets SIGPIPE
        continue;
      }
      char* into = storing ? out + *got : scratch;
      const std::size_t room = storing ? size - *got : sizeof scratch;
      const ssize_t n = read(fds_left[i], into, room);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        finish(i);
        continue;
      }
      data = true;
      if (storing) *got += static_cast<std::size_t>(n);
      if (i == 1) errors.take(scratch, static_cast<std::size_t>(n));
    }
    if (ended) {
      if (!data) break;
      ++after_end;
    } else {
      const pid_t done = waitpid(pid, &status, WNOHANG);
      ended = done == pid || (done < 0 && errno != EINTR);
    }
  }
  for (int i = 0; i < 2; ++i) {
    if (fds_left[i] >= 0) finish(i);
  }
  errors.finish();
  return ended ? status : wait_for(pid);
}

// Runs `command` with its standard error (and, with `capture`, its standard output) in pipes.
// Returns its wait status, or -2 when it could not be started.
int run_piped(const char* command, bool capture, char* out, std::size_t size, std::size_t* got) {
  if (command == nullptr || !command_allowed(command)) return -2;
  if (echo_into_file(command)) return 0;
  int err[2];
  int outp[2] = {-1, -1};
  if (pipe2(err, O_CLOEXEC) != 0) return -2;
  if (capture && pipe2(outp, O_CLOEXEC) != 0) {
    close(err[0]);
    close(err[1]);
    return -2;
  }
  const pid_t pid = start_shell(command, outp[1], err[1]);
  close(err[1]);
  if (outp[1] >= 0) close(outp[1]);
  if (pid >= 0) return run_and_read(pid, outp[0], err[0], out, size, got);
  close(err[0]);
  if (outp[0] >= 0) close(outp[0]);
  return -2;
}

}  // namespace

bool command_allowed(const char* command) {
  if (command == nullptr) return false;
  if (!in_sandbox()) return true;
  const std::string bin = std::string(root()) + "/bin";
  if (!is_directory(bin)) {
    sdk_eprintf("fsu: sandbox %s has no bin/, command not run: %s\n", root(), command);
    return false;
  }
  if (!device_tools_have_stand_ins(command, bin)) {
    sdk_eprintf("fsu: device tool without stand-in in %s, command not run: %s\n", bin.c_str(),
                 command);
    return false;
  }
  return true;
}

int run_command(const char* command) {
  std::size_t got = 0;
  const int status = run_piped(command, false, nullptr, 0, &got);
  return status == -2 ? -1 : status;
}

int run_commandf(const char* format, ...) {
  char command[kCommandSize];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(command, sizeof command, format, args);
  va_end(args);
  if (n < 0 || static_cast<std::size_t>(n) >= sizeof command) return -1;
  return run_command(command);
}

long capture_command(const char* command, char* out, std::size_t size) {
  std::size_t got = 0;
  if (run_piped(command, true, out, size, &got) == -2) return -1;
  return static_cast<long>(got);
}

}  // namespace fsu::platform
