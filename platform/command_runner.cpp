#include "platform/command_runner.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

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

// Starts /bin/sh -c command; with capture_fd >= 0 its standard output goes there.
pid_t start_shell(const char* command, int capture_fd, int close_fd) {
  if (command == nullptr || !command_allowed(command)) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (capture_fd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, capture_fd, STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, capture_fd);
    posix_spawn_file_actions_addclose(&actions, close_fd);
  }
  std::vector<std::string> env_text;
  std::vector<char*> env;
  char** envp = environ;
  if (in_sandbox()) {
    env_text = sandbox_environment(std::string(root()) + "/bin");
    for (auto& s : env_text) env.push_back(s.data());
    env.push_back(nullptr);
    envp = env.data();
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

int wait_for(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

}  // namespace

bool command_allowed(const char* command) {
  if (command == nullptr) return false;
  if (!in_sandbox()) return true;
  const std::string bin = std::string(root()) + "/bin";
  if (!is_directory(bin)) {
    std::fprintf(stderr, "fsu: sandbox %s has no bin/, command not run: %s\n", root(), command);
    return false;
  }
  if (!device_tools_have_stand_ins(command, bin)) {
    std::fprintf(stderr, "fsu: device tool without stand-in in %s, command not run: %s\n", bin.c_str(),
                 command);
    return false;
  }
  return true;
}

int run_command(const char* command) {
  const pid_t pid = start_shell(command, -1, -1);
  return pid < 0 ? -1 : wait_for(pid);
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
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = start_shell(command, fds[1], fds[0]);
  close(fds[1]);
  if (pid < 0) {
    close(fds[0]);
    return -1;
  }
  std::size_t got = 0;
  while (out != nullptr && got < size) {
    const ssize_t n = read(fds[0], out + got, size - got);
    if (n > 0) {
      got += static_cast<std::size_t>(n);
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(fds[0]);
  wait_for(pid);
  return static_cast<long>(got);
}

}  // namespace fsu::platform
