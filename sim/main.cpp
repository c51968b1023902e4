// fsusim: the simulated FSU board. Makes a sandbox root, brings the board up in it and runs
// an application against it (run), keeps it up for others (up), or answers for a stand-in
// device tool (tool).
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/sandbox_root.h"
#include "sim/board.h"
#include "sim/sandbox.h"
#include "sim/uci_file.h"

extern char** environ;

namespace {

constexpr int kUsageError = 2;

constexpr char kUsage[] =
    "usage:\n"
    "  fsusim run [--root DIR] -- COMMAND [ARG...]\n"
    "      run COMMAND on a simulated board (in DIR, kept afterwards, or in a temporary\n"
    "      folder that is removed); exits with COMMAND's status\n"
    "  fsusim up --root DIR\n"
    "      keep a simulated board up in DIR until interrupted\n"
    "  fsusim tool NAME ARG...\n"
    "      the simulator's side of a stand-in device tool (uci)\n";

int usage(int code) {
  std::fputs(kUsage, stderr);
  return code;
}

int failure(const std::string& what) {
  std::fprintf(stderr, "fsusim: %s\n", what.c_str());
  return 1;
}

std::string own_path() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string("fsusim");
}

// Validates the root as the SDK will (length, characters) and gives it in absolute form.
bool usable_root(const char* dir, std::string* root) {
  if (!fsu::platform::set_root(dir) || !fsu::platform::in_sandbox()) {
    std::fprintf(stderr,
                 "fsusim: unusable root '%s': it must not be '/', and at most %zu characters of "
                 "letters, digits and / . _ - + ,\n",
                 dir, fsu::platform::kMaxRootLength);
    return false;
  }
  *root = fsu::platform::root();
  return true;
}

std::atomic<pid_t> g_command{0};
static_assert(std::atomic<pid_t>::is_always_lock_free);

void forward_signal(int sig) {
  const pid_t pid = g_command.load();
  if (pid > 0) kill(pid, sig);
}

// Runs the command with the sandbox's environment and waits for it; returns its exit code
// (128 + signal when killed), or 127 when it cannot be started.
int run_command(const std::string& root, char** argv) {
  setenv("FSU_ROOT", root.c_str(), 1);
  const char* path = std::getenv("PATH");
  const std::string search = root + "/bin:" + (path != nullptr && *path ? path : "/usr/local/bin:/usr/bin:/bin");
  setenv("PATH", search.c_str(), 1);

  // Signals stay blocked until the handlers know whom to forward to; the command itself
  // starts with default dispositions and an empty mask.
  sigset_t handled;
  sigemptyset(&handled);
  for (const int sig : {SIGINT, SIGQUIT, SIGTERM, SIGHUP}) sigaddset(&handled, sig);
  sigset_t previous;
  sigprocmask(SIG_BLOCK, &handled, &previous);

  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &handled);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  pid_t pid = -1;
  const int rc = posix_spawnp(&pid, argv[0], nullptr, &attr, argv, environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    std::fprintf(stderr, "fsusim: cannot run %s: %s\n", argv[0], std::strerror(rc));
    return 127;
  }
  g_command.store(pid);
  // CTRL+C and CTRL+\ reach the command through the terminal's process group; fsusim
  // outlives them so that it can bring the board down after the command.
  struct sigaction ignore{};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGINT, &ignore, nullptr);
  sigaction(SIGQUIT, &ignore, nullptr);
  struct sigaction forward{};
  forward.sa_handler = forward_signal;
  sigaction(SIGTERM, &forward, nullptr);
  sigaction(SIGHUP, &forward, nullptr);
  sigprocmask(SIG_SETMASK, &previous, nullptr);

  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return failure(std::string("lost the command: ") + std::strerror(errno));
  }
  g_command.store(0);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return WEXITSTATUS(status);
}

// A fresh folder under $TMPDIR (or /tmp) for a sandbox that lives as long as the command.
bool temporary_root(std::string* made) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/fsusim.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::fprintf(stderr, "fsusim: cannot make a folder %s: %s\n", pattern.c_str(), std::strerror(errno));
    return false;
  }
  *made = pattern;
  return true;
}

int command_run(int argc, char** argv) {
  const char* root_arg = nullptr;
  int i = 0;
  for (; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (arg == "--root" && i + 1 < argc) {
      root_arg = argv[++i];
    } else if (arg.starts_with("--root=")) {
      root_arg = argv[i] + 7;
    } else if (arg.starts_with("-")) {
      return usage(kUsageError);
    } else {
      break;
    }
  }
  if (i >= argc) return usage(kUsageError);

  std::string made;
  if (root_arg == nullptr) {
    if (!temporary_root(&made)) return 1;
    root_arg = made.c_str();
  }
  std::string root;
  std::string error;
  int code = 1;
  if (usable_root(root_arg, &root)) {
    fsu::sim::Board board(root);
    if (!fsu::sim::make_sandbox(root, own_path(), &error) || !board.start(&error)) {
      failure(error);
    } else {
      code = run_command(root, argv + i);
    }
  }
  if (!made.empty() && !fsu::sim::remove_sandbox(made)) rmdir(made.c_str());
  return code;
}

int command_up(int argc, char** argv) {
  const char* root_arg = nullptr;
  if (argc == 2 && std::string_view(argv[0]) == "--root") root_arg = argv[1];
  if (argc == 1 && std::string_view(argv[0]).starts_with("--root=")) root_arg = argv[0] + 7;
  if (root_arg == nullptr) return usage(kUsageError);
  std::string root;
  if (!usable_root(root_arg, &root)) return 1;

  // Blocked before anything starts, so that every thread of the board leaves them to sigwait.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stop_signals, sig);
  sigprocmask(SIG_BLOCK, &stop_signals, nullptr);

  std::string error;
  fsu::sim::Board board(root);
  if (!fsu::sim::make_sandbox(root, own_path(), &error) || !board.start(&error)) return failure(error);
  std::printf("fsusim: board up in %s; run an application with FSU_ROOT=%s PATH=%s/bin:$PATH "
              "(CTRL+C stops the board)\n",
              root.c_str(), root.c_str(), root.c_str());
  std::fflush(stdout);
  int sig = 0;
  sigwait(&stop_signals, &sig);
  board.stop();
  return 0;
}

int command_tool(int argc, char** argv) {
  if (argc < 1) return usage(kUsageError);
  // The tools act on a sandbox only, never on the host's own files.
  const char* env_root = std::getenv("FSU_ROOT");
  if (env_root == nullptr || !fsu::platform::set_root(env_root) || !fsu::platform::in_sandbox()) {
    return failure("tool: FSU_ROOT does not name a sandbox root");
  }
  const std::string_view name = argv[0];
  if (name == "uci") {
    return fsu::sim::run_uci(std::string(fsu::platform::root()) + "/etc/config", argc - 1, argv + 1, stdout,
                             stderr);
  }
  return failure("tool: no stand-in named " + std::string(name));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage(kUsageError);
  const std::string_view command = argv[1];
  if (command == "--help" || command == "-h" || command == "help") return usage(0);
  if (command == "run") return command_run(argc - 2, argv + 2);
  if (command == "up") return command_up(argc - 2, argv + 2);
  if (command == "tool") return command_tool(argc - 2, argv + 2);
  return usage(kUsageError);
}
