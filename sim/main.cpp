// fsusim: the simulated FSU board. Makes a sandbox root, brings the board up in it and runs
// an application against it (run), keeps it up for others (up), hands control lines to a
// board that is up (ctl), or answers for a stand-in device tool (tool).
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <spawn.h>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/sandbox_root.h"
#include "sim/board.h"
#include "sim/cli_commands.h"
#include "sim/control_client.h"
#include "sim/fleet.h"
#include "sim/panel_command.h"
#include "sim/replay_command.h"
#include "sim/sandbox.h"
#include "sim/scenario/test_command.h"
#include "sim/uci_file.h"
#include "sim/unit_status.h"
#include "sim/web_pages.h"

extern char** environ;

namespace {

constexpr int kUsageError = 2;
// How long `ctl` waits for the board to take its lines.
constexpr double kControlTimeout = 5.0;

constexpr char kUsage[] =
    "usage:\n"
    "  fsusim run [--root DIR] [PORT OPTION...] -- COMMAND [ARG...]\n"
    "      run COMMAND on a simulated board (in DIR, kept afterwards, or in a temporary\n"
    "      folder that is removed); exits with COMMAND's status\n"
    "  fsusim up --root DIR [PORT OPTION...]\n"
    "      keep a simulated board up in DIR until interrupted\n"
    "  fsusim ctl --root DIR LINE...\n"
    "      hand control lines (such as \"uart 2 terminal\" or \"ai 3 2.5\") to the board up in\n"
    "      DIR and wait until it has taken them; exits 1 when one was rejected\n"
    "  fsusim status --root DIR [--json | --watch]\n"
    "      the state of the board up in DIR: its sim/state lines, or one JSON object keyed\n"
    "      by their opening words (\"relay 2\", \"modem\", ...)\n"
    "%s"
    "%s"
    "%s"
    "%s"
    "%s"
    "%s"
    "  fsusim tool NAME ARG...\n"
    "      the simulator's side of a stand-in device tool (uci)\n"
    "  fsusim --version\n"
    "port options (N is 1 to 12 for Local/Uart/1 to Local/Uart/12; 1 to 4 are the main\n"
    "board's ports, 5 to 12 the channels of the extension boards):\n"
    "  --terminal N   a terminal for a person at the far end of port N (its path is printed)\n"
    "  --silent N     nothing at the far end of port N\n"
    "  --loopback N   a loopback plug at the far end of port N (every port has one anyway)\n"
    "  --without-boards  the extension boards never answer: a unit of 4 ports and no points\n"
    "  --ctl LINE     a control line applied as the board comes up (\"modem row 11\")\n";

int usage(int code) {
  std::fprintf(code == 0 ? stdout : stderr, kUsage, fsu::sim::kWebUsage, fsu::sim::kPanelUsage, fsu::sim::kCliUsage,
               fsu::sim::scenario::kTestUsage, fsu::sim::kReplayUsage, fsu::sim::kFleetUsage);
  return code;
}

using fsu::sim::bad_use;
using fsu::sim::failure;

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

// Takes the option at argv[*i] (and its value) when it is one that `run` and `up` share: the
// root, or a port's far end, which becomes a control line applied as the board comes up.
// Returns false for any other argument; a known option without a good value sets *error.
bool board_option(int argc, char** argv, int* i, const char** root, std::vector<std::string>* commands,
                  std::string* error) {
  const std::string_view arg = argv[*i];
  const auto value = [&](std::string_view name) -> const char* {
    if (arg == name) {
      if (*i + 1 < argc) return argv[++*i];
      *error = std::string(name) + " needs a value";
      return "";
    }
    if (arg.size() > name.size() && arg.starts_with(name) && arg[name.size()] == '=') {
      return argv[*i] + name.size() + 1;
    }
    return nullptr;
  };
  if (const char* dir = value("--root")) {
    *root = dir;
    return true;
  }
  if (const char* line = value("--ctl")) {  // any control line, such as "modem row 11"
    commands->push_back(line);
    return true;
  }
  if (arg == "--without-boards") {  // a unit whose extension boards never answer: COM=4, no points
    commands->push_back("board 1 silent");
    commands->push_back("board 2 silent");
    return true;
  }
  for (const char* mode : {"terminal", "silent", "loopback"}) {
    const std::string option = std::string("--") + mode;
    const char* port = value(option);
    if (port == nullptr) continue;
    const std::string_view number = port;
    if (error->empty() && (number.empty() || number.size() > 2 || number.find_first_not_of("0123456789") != number.npos ||
                           std::atoi(port) < 1 || std::atoi(port) > 12)) {
      *error = option + " " + port + ": no port " + port + " (ports are 1 to 12)";
    }
    commands->push_back(std::string("uart ") + port + " " + mode);
    return true;
  }
  return false;
}

// Removes a root that this command made, when it fails.
struct MadeRoot {
  std::string root;
  bool made = false;
  explicit MadeRoot(const std::string& dir) : root(dir), made(access(dir.c_str(), F_OK) != 0) {}
  void remove() const {
    if (made) fsu::sim::remove_sandbox(root);
  }
};

// Messages of the board for the person who runs it.
fsu::sim::BoardOptions board_options(std::vector<std::string> commands, FILE* out, int number) {
  fsu::sim::BoardOptions options;
  options.commands = std::move(commands);
  fsu::sim::number_unit(number, &options);
  options.report = [out](const std::string& message) {
    std::fprintf(out, "fsusim: %s\n", message.c_str());
    std::fflush(out);
  };
  return options;
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
  std::vector<std::string> commands;
  std::string error;
  fsu::sim::PanelChoice panel;
  int number = 0;
  int i = 0;
  for (; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--") {
      ++i;
      break;
    }
    if (board_option(argc, argv, &i, &root_arg, &commands, &error) ||
        fsu::sim::panel_option(argc, argv, &i, &panel, &error) || fsu::sim::unit_option(argc, argv, &i, &number, &error)) {
      if (!error.empty()) return bad_use("run: " + error);
      continue;
    }
    if (arg.starts_with("-")) return bad_use("run: unknown option " + std::string(arg));
    break;
  }
  if (i >= argc) return bad_use("run: no command to run (fsusim run [OPTION...] -- COMMAND [ARG...])");

  std::string made;
  if (root_arg == nullptr) {
    if (!temporary_root(&made)) return 1;
    root_arg = made.c_str();
  }
  std::string root;
  int code = 1;
  if (usable_root(root_arg, &root)) {
    // The command owns standard output; the board speaks on standard error.
    const MadeRoot given(root);
    fsu::sim::Board board(root, board_options(std::move(commands), stderr, number));
    if (!fsu::sim::make_sandbox(root, own_path(), &error) || !board.start(&error)) {
      failure(error);
      if (made.empty()) given.remove();
    } else {
      std::fprintf(stderr, "fsusim: board up in %s (fsusim ctl --root %s LINE... changes it)\n", root.c_str(),
                   root.c_str());
      const auto shown = panel.wanted ? fsu::sim::open_panel(panel, root, stderr, stderr) : nullptr;
      code = panel.wanted && !shown ? 1 : run_command(root, argv + i);
      fsu::sim::remove_counter_segment(root);  // as `up` does when its board stops
    }
  }
  if (!made.empty() && !fsu::sim::remove_sandbox(made)) rmdir(made.c_str());
  return code;
}

int command_up(int argc, char** argv) {
  const char* root_arg = nullptr;
  std::vector<std::string> commands;
  std::string error;
  int number = 0;
  for (int i = 0; i < argc; ++i) {
    if (!board_option(argc, argv, &i, &root_arg, &commands, &error) && !fsu::sim::unit_option(argc, argv, &i, &number, &error)) {
      return bad_use("up: unknown argument " + std::string(argv[i]));
    }
    if (!error.empty()) return bad_use("up: " + error);
  }
  if (root_arg == nullptr) return bad_use("up: needs --root DIR");
  std::string root;
  if (!usable_root(root_arg, &root)) return 1;

  // Blocked before anything starts, so that every thread of the board leaves them to sigwait.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stop_signals, sig);
  sigprocmask(SIG_BLOCK, &stop_signals, nullptr);

  const MadeRoot given(root);
  fsu::sim::Board board(root, board_options(std::move(commands), stdout, number));
  if (!fsu::sim::make_sandbox(root, own_path(), &error) || !board.start(&error)) {
    given.remove();
    return failure(error);
  }
  std::printf("fsusim: board up in %s; run an application with FSU_ROOT=%s PATH=%s/bin:$PATH "
              "(CTRL+C stops the board)\n",
              root.c_str(), root.c_str(), root.c_str());
  std::fflush(stdout);
  int sig = 0;
  sigwait(&stop_signals, &sig);
  board.stop();
  // The console's counter segment lives outside the tree: it goes with the board.
  fsu::sim::remove_counter_segment(root);
  return 0;
}

// The terminals that control lines asked for ("uart 2 terminal"), as sim/state shows them.
void print_terminals(const std::string& root, const std::vector<std::string>& lines) {
  std::vector<std::string> state;
  std::ifstream in(root + "/sim/state");
  for (std::string line; std::getline(in, line);) state.push_back(line);
  const auto field = [](const std::string& line, const std::string& key) {
    const std::size_t at = line.find(" " + key + "=");
    if (at == std::string::npos) return std::string();
    const std::size_t start = at + key.size() + 2;
    return line.substr(start, line.find(' ', start) - start);
  };
  for (const std::string& line : lines) {
    std::istringstream words(line);
    std::string kind, number, mode;
    if (!(words >> kind >> number >> mode) || (kind != "uart" && kind != "port") || mode != "terminal") continue;
    for (const std::string& shown : state) {
      if (!shown.starts_with(kind + " " + number + " ")) continue;
      std::printf("%s terminal: %s\n", field(shown, "for").c_str(), field(shown, "terminal").c_str());
    }
  }
}

// The arguments of `ctl` and `web`: "--root DIR" first, then at least one word. Gives -1 with the
// root and the index of the first word, or the exit status of bad use.
int root_then_words(const std::string& command, const char* nothing_given, int argc, char** argv,
                    std::string* root, int* first) {
  const char* root_arg = nullptr;
  std::vector<std::string> unused;
  std::string error;
  int i = 0;
  if (argc > 0 && board_option(argc, argv, &i, &root_arg, &unused, &error) && unused.empty()) ++i;
  if (!error.empty()) return bad_use(command + ": " + error);
  if (root_arg == nullptr) return bad_use(command + ": needs --root DIR first");
  if (i >= argc) return bad_use(command + ": " + nothing_given);
  if (!usable_root(root_arg, root)) return 1;
  *first = i;
  return -1;
}

int command_ctl(int argc, char** argv) {
  std::string root;
  int i = 0;
  const int status = root_then_words("ctl", "no control line (such as \"uart 2 terminal\")", argc, argv, &root, &i);
  if (status >= 0) return status;
  const std::vector<std::string> lines(argv + i, argv + argc);
  std::vector<std::string> errors;
  if (fsu::sim::send_control(root, lines, kControlTimeout, &errors)) {
    print_terminals(root, lines);
    return 0;
  }
  for (const std::string& message : errors) failure(message);
  return 1;
}

int command_web(int argc, char** argv) {
  std::string root;
  int i = 0;
  const int status = root_then_words("web", "no request (fsusim --help shows them)", argc, argv, &root, &i);
  if (status >= 0) return status;
  return fsu::sim::web_command(root, std::span<char* const>(argv + i, static_cast<std::size_t>(argc - i)), stdout,
                               stderr);
}

int command_status(int argc, char** argv) {
  const char* root_arg = nullptr;
  bool json = false;
  bool watch = false;
  for (int i = 0; i < argc; ++i) {
    std::vector<std::string> unused;
    std::string error;
    if (std::string_view(argv[i]) == "--json") {
      json = true;
    } else if (std::string_view(argv[i]) == "--watch") {
      watch = true;
    } else if (!board_option(argc, argv, &i, &root_arg, &unused, &error) || !unused.empty() || !error.empty()) {
      return bad_use("status: " + (error.empty() ? "unknown argument " + std::string(argv[i]) : error));
    }
  }
  if (root_arg == nullptr) return bad_use("status: needs --root DIR");
  std::string root;
  if (!usable_root(root_arg, &root)) return 1;
  if (watch && json) return bad_use("status: --watch or --json, not both");
  if (watch) return fsu::sim::watch_status(root);
  const auto status = fsu::sim::read_unit_status(root);
  if (fsu::sim::board_process(root) == 0 || !status) return failure("the simulated unit in " + root + " is not running");
  if (json) {
    std::printf("%s\n", fsu::sim::unit_status_json(*status).c_str());
    return 0;
  }
  for (const fsu::sim::StatusLine& line : *status) {
    std::string text = line.name;
    for (const auto& [key, value] : line.fields) text += " " + key + "=" + value;
    std::printf("%s\n", text.c_str());
  }
  return 0;
}

int command_tool(int argc, char** argv) {
  if (argc < 1) return bad_use("tool: needs the name of a stand-in tool");
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
  if (command == "--version") {
    std::printf("fsusim %s\n", FSU_VERSION_TEXT);
    return 0;
  }
  // Every command that takes a unit's root takes its number too.
  for (const char* named : {"ctl", "web", "status", "term", "clean", "panel"}) {
    const int status = command == named ? fsu::sim::units_as_roots(named, argc - 2, argv + 2) : -1;
    if (status >= 0) return status;
  }
  if (command == "fleet") return fsu::sim::fleet_command(argc - 2, argv + 2);
  if (command == "run") return command_run(argc - 2, argv + 2);
  if (command == "up") return command_up(argc - 2, argv + 2);
  if (command == "ctl") return command_ctl(argc - 2, argv + 2);
  if (command == "web") return command_web(argc - 2, argv + 2);
  if (command == "tool") return command_tool(argc - 2, argv + 2);
  if (command == "status") return command_status(argc - 2, argv + 2);
  if (command == "ls") return fsu::sim::command_ls(argc - 2, argv + 2);
  if (command == "term") return fsu::sim::command_term(argc - 2, argv + 2);
  if (command == "clean") return fsu::sim::command_clean(argc - 2, argv + 2);
  if (command == "panel")
    return fsu::sim::panel_command(std::span<char* const>(argv + 2, static_cast<std::size_t>(argc - 2)), stdout, stderr);
  if (command == "record") return fsu::sim::command_record(argc - 2, argv + 2);
  if (command == "replay") return fsu::sim::command_replay(argc - 2, argv + 2);
  if (command == "test") return fsu::sim::scenario::test_command(argc - 2, argv + 2);
  return bad_use("unknown command " + std::string(command) +
                 " (commands: run, up, fleet, ctl, web, status, panel, ls, term, clean, test, record, replay, tool)");
}
