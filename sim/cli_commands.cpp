#include "sim/cli_commands.h"

#include <cerrno>
#include <cstdlib>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <set>
#include <string_view>
#include <utility>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "platform/clock.h"
#include "platform/sandbox_root.h"
#include "sim/board.h"
#include "sim/control_client.h"
#include "sim/sandbox.h"
#include "sim/unit_registry.h"
#include "sim/unit_status.h"

namespace fsu::sim {

const char kCliUsage[] =
    "  fsusim ls\n"
    "      the simulated units running for you: number (in a fleet), root, board process,\n"
    "      ports and the programs that have the ports open\n"
    "  fsusim term N --root DIR [--hex]\n"
    "      a raw terminal on the far end of \"Local/Uart/N\" (1 to 12) of the unit in DIR: what\n"
    "      the application sends shows here (in hex with --hex), what you type goes to it;\n"
    "      Ctrl-] leaves, and the port gets its far end back\n"
    "  fsusim status --root DIR --watch\n"
    "      the unit on one screen (LEDs, relays, 12 V, inputs, boards, modem and link,\n"
    "      receiver, watchdog), redrawn in place until Ctrl-C\n"
    "  fsusim clean --root DIR [--stop]\n"
    "      removes the root DIR and its shared-memory segment; a running unit is refused, or\n"
    "      stopped first with --stop\n";

namespace {

constexpr double kControlTimeout = 5.0;
constexpr char kExitKey = 0x1d;  // Ctrl-], as telnet and picocom have it
constexpr int kMainPorts = 7;

// The root of "--root DIR" or "--root=DIR" at argv[*i]; null when it is another argument.
const char* root_option(int argc, char** argv, int* i) {
  const std::string_view arg = argv[*i];
  if (arg == "--root") return *i + 1 < argc ? argv[++*i] : "";
  if (arg.starts_with("--root=")) return argv[*i] + 7;
  return nullptr;
}

// The root in absolute form, checked as the SDK checks it; false with the line said.
bool usable_root(const char* dir, std::string* root) {
  if (dir == nullptr || *dir == '\0') return false;
  if (!platform::set_root(dir) || !platform::in_sandbox()) {
    failure(std::string("unusable root '") + dir + "'");
    return false;
  }
  *root = platform::root();
  return true;
}

// A line of sim/state by its opening words ("uart 3 "), or "".
std::string state_line(const std::string& root, const std::string& opening) {
  std::FILE* in = std::fopen((root + "/sim/state").c_str(), "re");
  if (in == nullptr) return {};
  char line[4096];
  std::string found;
  for (int n = 0; n < 4096 && std::fgets(line, sizeof line, in) != nullptr; ++n) {
    if (std::string_view(line).starts_with(opening)) {
      found = line;
      break;
    }
  }
  std::fclose(in);
  while (!found.empty() && (found.back() == '\n' || found.back() == '\r')) found.pop_back();
  return found;
}

// The value of " key=" in a state line, up to the next blank.
std::string field(const std::string& line, const std::string& key) {
  const std::size_t at = line.find(" " + key + "=");
  if (at == std::string::npos) return {};
  const std::size_t start = at + key.size() + 2;
  return line.substr(start, line.find(' ', start) - start);
}

std::string link_target(const std::string& path) {
  char target[256];
  const ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
  return n > 0 ? std::string(target, static_cast<std::size_t>(n)) : std::string();
}

// Programs (other than `skip`) that have one of `paths` open, with the paths each holds.
std::map<pid_t, std::set<std::string>> holders(const std::map<std::string, std::string>& paths, pid_t skip) {
  std::map<pid_t, std::set<std::string>> found;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return found;
  int processes = 0;
  while (const dirent* entry = readdir(proc)) {
    const std::string_view name = entry->d_name;
    if (name.empty() || name.find_first_not_of("0123456789") != std::string_view::npos) continue;
    if (++processes > 65536) break;
    const pid_t pid = static_cast<pid_t>(std::atol(entry->d_name));
    if (pid == skip) continue;
    const std::string fd_dir = "/proc/" + std::string(name) + "/fd";
    DIR* fds = opendir(fd_dir.c_str());  // only this user's processes can be looked into
    if (fds == nullptr) continue;
    int seen = 0;
    while (const dirent* fd = readdir(fds)) {
      if (++seen > 4096) break;
      const auto hit = paths.find(link_target(fd_dir + "/" + fd->d_name));
      if (hit != paths.end()) found[pid].insert(hit->second);
    }
    closedir(fds);
  }
  closedir(proc);
  return found;
}

std::string process_name(pid_t pid) {
  std::FILE* in = std::fopen(("/proc/" + std::to_string(pid) + "/comm").c_str(), "re");
  if (in == nullptr) return "?";
  char name[64] = {};
  const bool got = std::fgets(name, sizeof name, in) != nullptr;
  std::fclose(in);
  std::string text = got ? name : "?";
  if (!text.empty() && text.back() == '\n') text.pop_back();
  return text;
}

// The board process's own side: every port's slave is held by it too; its guard process is
// its child and holds nothing.
void print_unit(const RunningUnit& unit) {
  const std::string number = unit.number > 0 ? "unit " + std::to_string(unit.number) + "  " : "";
  std::printf("%s%s  board process %d (%s)\n", number.c_str(), unit.root.c_str(), static_cast<int>(unit.pid),
              process_name(unit.pid).c_str());
  std::map<std::string, std::string> paths;  // pseudo-terminal -> device name
  std::string ports;
  for (int n = 1; n <= kMainPorts; ++n) {
    const std::string device = "ttymxc" + std::to_string(n);
    const std::string target = link_target(unit.root + "/dev/" + device);
    if (target.empty()) continue;
    paths[target] = device;
    ports += " " + device + "=" + target;
  }
  const std::string modem = state_line(unit.root, "modem ");
  const std::string at = field(modem, "at");
  if (!at.empty() && at.starts_with("/dev/")) {
    const std::string target = link_target(unit.root + at);
    if (!target.empty()) {
      paths[target] = at.substr(5);
      ports += " " + at.substr(5) + "=" + target;
    }
  }
  std::printf("  ports:%s\n", ports.empty() ? " none" : ports.c_str());
  const auto programs = holders(paths, unit.pid);
  if (programs.empty()) std::printf("  programs: none has a port open\n");
  for (const auto& [pid, held] : programs) {
    std::string list;
    for (const std::string& device : held) list += (list.empty() ? "" : " ") + device;
    std::printf("  program %d (%s): %s\n", static_cast<int>(pid), process_name(pid).c_str(), list.c_str());
  }
}

// The person's terminal in raw mode while `term` runs, as it was afterwards.
class RawInput {
 public:
  RawInput() {
    if (!isatty(STDIN_FILENO) || tcgetattr(STDIN_FILENO, &saved_) != 0) return;
    termios raw = saved_;
    cfmakeraw(&raw);
    raw.c_oflag |= OPOST | ONLCR;  // our own messages keep their line ends
    raw_ = tcsetattr(STDIN_FILENO, TCSANOW, &raw) == 0;
  }
  ~RawInput() {
    if (raw_) tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
  }
  RawInput(const RawInput&) = delete;
  RawInput& operator=(const RawInput&) = delete;

 private:
  termios saved_{};
  bool raw_ = false;
};

volatile std::sig_atomic_t g_stop = 0;
void note_stop(int) { g_stop = 1; }

bool write_all(int fd, const char* data, std::size_t n) {
  while (n > 0) {
    const ssize_t w = write(fd, data, n);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) return false;
    data += w;
    n -= static_cast<std::size_t>(w);
  }
  return true;
}

// Moves bytes between the person and the port's far end until the exit key, the end of the
// input, a stop signal or the unit going down. Returns the exit status.
int relay(const std::string& root, int port_fd, bool hex) {
  char buf[4096];
  double next_check = platform::monotonic_seconds() + 1;
  for (;;) {
    if (g_stop) return 0;
    pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {port_fd, POLLIN, 0}};
    const int ready = poll(fds, 2, 250);
    if (ready < 0 && errno != EINTR) return failure(std::string("poll: ") + std::strerror(errno));
    if (fds[1].revents != 0) {
      const ssize_t n = read(port_fd, buf, sizeof buf);
      if (n <= 0 && !(n < 0 && (errno == EINTR || errno == EAGAIN))) {
        return failure("the unit in " + root + " went down");
      }
      if (n > 0 && hex) {
        std::string text;
        char cell[4];
        for (ssize_t i = 0; i < n; ++i) {
          std::snprintf(cell, sizeof cell, "%02X ", static_cast<unsigned char>(buf[i]));
          text += cell;
        }
        write_all(STDOUT_FILENO, text.data(), text.size());
      } else if (n > 0) {
        write_all(STDOUT_FILENO, buf, static_cast<std::size_t>(n));
      }
    }
    if (fds[0].revents != 0) {
      const ssize_t n = read(STDIN_FILENO, buf, sizeof buf);
      if (n == 0) return 0;  // the end of the input, as from a script
      if (n > 0) {
        const char* end = static_cast<const char*>(std::memchr(buf, kExitKey, static_cast<std::size_t>(n)));
        const std::size_t keep = end == nullptr ? static_cast<std::size_t>(n) : static_cast<std::size_t>(end - buf);
        if (!write_all(port_fd, buf, keep)) return failure("the unit in " + root + " went down");
        if (end != nullptr) return 0;
      }
    }
    if (platform::monotonic_seconds() >= next_check) {
      if (board_process(root) == 0) return failure("the unit in " + root + " went down");
      next_check = platform::monotonic_seconds() + 1;
    }
  }
}

// A root that make_sandbox made: a real folder (not a link) with the simulator's sim/, the
// stand-in tools in bin/ and the configuration folder.
bool is_our_root(const std::string& root) {
  struct stat st{};
  const auto folder = [&](const std::string& path) { return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode); };
  const auto file = [&](const std::string& path) { return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode); };
  return folder(root) && folder(root + "/sim") && folder(root + "/etc/config") && file(root + "/bin/uci") &&
         file(root + "/bin/lte.sh");
}


// How often the watching screen is redrawn.
constexpr int kWatchPeriodMs = 500;

std::string value_of(const UnitStatus& status, const std::string& key) {
  return unit_status_value(status, key).value_or("-");
}

// "name: v1  name: v2 ..." for the lines "PREFIX 1" to "PREFIX count", `key` of each.
std::string numbered(const UnitStatus& status, const std::string& prefix, int count, const std::string& key,
                     int first = 1) {
  std::string out;
  for (int n = first; n < first + count; ++n) {
    const std::string name = prefix + " " + std::to_string(n);
    out += (out.empty() ? "" : "  ") + std::to_string(n) + " " + value_of(status, name + (key.empty() ? "" : "." + key));
  }
  return out;
}

}  // namespace

std::string status_screen(const std::string& root, const UnitStatus& status) {
  std::string out;
  const auto row = [&](const char* title, const std::string& text) {
    char head[16];
    std::snprintf(head, sizeof head, "%-10s", title);
    out += head + text + "\n";
  };
  out += "fsusim status " + root + "  board process " + value_of(status, "board up.pid") + "\n\n";
  row("LEDs", "run " + value_of(status, "led run") + "  alarm " + value_of(status, "led alarm") + "  net " +
                  value_of(status, "led net") + "  1 " + value_of(status, "led 1"));
  row("Relays", numbered(status, "relay", 8, ""));
  row("12 V", "1 " + value_of(status, "12v 1") + "  2 " + value_of(status, "12v 2") + "  modem power " +
                  value_of(status, "power modem"));
  // Volts and milliamperes with two decimals, eight channels a row.
  for (const auto& [title, key] : {std::pair{"AI V", "volts"}, {"AI mA", "milliamps"}}) {
    for (int first : {1, 9}) {
      std::string values;
      for (int n = first; n < first + 8; ++n) {
        const std::string text = value_of(status, "ai " + std::to_string(n) + "." + key);
        char cell[32];
        std::snprintf(cell, sizeof cell, "%s%2d:%6.2f", values.empty() ? "" : " ", n, std::atof(text.c_str()));
        values += text == "-" ? std::string(values.empty() ? "" : " ") + std::to_string(n) + ":-" : std::string(cell);
      }
      row(first == 1 ? title : "", values);
    }
  }
  std::string closed;
  int known = 0;
  for (int n = 1; n <= 16; ++n) {
    const std::string state = value_of(status, "di " + std::to_string(n));
    known += state == "open" || state == "closed";
    if (state == "closed") closed += (closed.empty() ? "" : " ") + std::to_string(n);
  }
  row("DI", known == 0 ? std::string("-") : closed.empty() ? "all open" : "closed " + closed + ", the rest open");
  row("Boards", "1 " + value_of(status, "board 1") + " (frames in " + value_of(status, "board 1.frames_in") + ", out " +
                    value_of(status, "board 1.frames_out") + ")  2 " + value_of(status, "board 2") + " (frames in " +
                    value_of(status, "board 2.frames_in") + ", out " + value_of(status, "board 2.frames_out") +
                    ")  environment " + value_of(status, "env") + " (answers " + value_of(status, "env.answers") + ")");
  row("Modem", value_of(status, "modem.model") + " row " + value_of(status, "modem.row") + "  " +
                   value_of(status, "modem") + "  SIM " + value_of(status, "modem.sim") + "  registered " +
                   value_of(status, "modem.registered") + "  signal " + value_of(status, "modem.signal") + "  " +
                   value_of(status, "modem.net"));
  row("Link", "ppp0 " + value_of(status, "link ppp0") + "  address " + value_of(status, "link ppp0.address") +
                  "  dials " + value_of(status, "link ppp0.dials"));
  row("Receiver", value_of(status, "receiver.output") + "  " + value_of(status, "receiver.constellations") +
                      "  lat " + value_of(status, "receiver.latitude") + "  lon " +
                      value_of(status, "receiver.longitude") + "  alt " + value_of(status, "receiver.altitude") + " m");
  row("Watchdog", "armed " + value_of(status, "watchdog.armed") + "  left " + value_of(status, "watchdog.left") +
                      " s  reboots " + value_of(status, "watchdog.reboots"));
  for (const StatusLine& line : status) {
    if (line.name != "error") continue;
    std::string text;
    for (const auto& [key, value] : line.fields) {
      if (key == "line" || key == "why") text += (text.empty() ? "" : ": ") + value;
    }
    row("Rejected", text);
  }
  return out;
}

namespace {

int watch_loop(const std::string& root) {
  const bool terminal = isatty(STDOUT_FILENO) != 0;
  while (!g_stop) {
    const auto status = read_unit_status(root);
    std::string text = status && board_process(root) != 0
                           ? status_screen(root, *status)
                           : "fsusim status " + root + "\n\nthe simulated unit in " + root + " is not running\n";
    if (terminal) {
      // Home, then each line cleared to its end and the rest of the screen: no flicker.
      std::string drawn = "\x1b[H";
      for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start);
        drawn += text.substr(start, end - start) + "\x1b[K\n";
        start = end + 1;
      }
      text = drawn + "\x1b[J";
    } else {
      text += "\n";
    }
    write_all(STDOUT_FILENO, text.data(), text.size());
    for (int waited = 0; waited < kWatchPeriodMs && !g_stop; waited += 50) platform::sleep_ms(50);
  }
  return 0;
}

}  // namespace

int watch_status(const std::string& root) {
  if (board_process(root) == 0) return failure("the simulated unit in " + root + " is not running");
  struct sigaction stop{};
  stop.sa_handler = note_stop;
  for (const int sig : {SIGTERM, SIGHUP, SIGINT}) sigaction(sig, &stop, nullptr);
  if (isatty(STDOUT_FILENO)) write_all(STDOUT_FILENO, "\x1b[2J", 4);
  return watch_loop(root);
}

int failure(const std::string& what) {
  std::fprintf(stderr, "fsusim: %s\n", what.c_str());
  return 1;
}

int bad_use(const std::string& what) {
  std::fprintf(stderr, "fsusim: %s; fsusim --help shows the usage\n", what.c_str());
  return 2;
}

int command_ls(int argc, char** argv) {
  (void)argv;
  if (argc > 0) return bad_use("ls: takes no arguments");
  const std::vector<RunningUnit> units = running_units();
  if (units.empty()) {
    std::printf("no simulated unit is running (fsusim up --root DIR starts one)\n");
    return 0;
  }
  for (const RunningUnit& unit : units) print_unit(unit);
  return 0;
}

int command_term(int argc, char** argv) {
  const char* root_arg = nullptr;
  const char* port_arg = nullptr;
  bool hex = false;
  for (int i = 0; i < argc; ++i) {
    if (const char* dir = root_option(argc, argv, &i)) {
      root_arg = dir;
    } else if (std::string_view(argv[i]) == "--hex") {
      hex = true;
    } else if (port_arg == nullptr && argv[i][0] != '-') {
      port_arg = argv[i];
    } else {
      return bad_use(std::string("term: unknown argument ") + argv[i]);
    }
  }
  if (port_arg == nullptr) return bad_use("term: needs a port N (1 to 12)");
  const std::string_view number = port_arg;
  if (number.empty() || number.size() > 2 || number.find_first_not_of("0123456789") != number.npos ||
      std::atoi(port_arg) < 1 || std::atoi(port_arg) > 12) {
    return bad_use(std::string("term: no port ") + port_arg + " (ports are 1 to 12)");
  }
  if (root_arg == nullptr || *root_arg == '\0') return bad_use("term: needs --root DIR");
  std::string root;
  if (!usable_root(root_arg, &root)) return 1;
  if (board_process(root) == 0) return failure("the simulated unit in " + root + " is not running");

  const std::string port = std::to_string(std::atoi(port_arg));
  const std::string before = field(state_line(root, "uart " + port + " "), "mode");
  std::vector<std::string> errors;
  const std::vector<std::string> to_terminal = {"uart " + port + " terminal"};
  if (!send_control(root, to_terminal, kControlTimeout, &errors)) return failure(errors.front());
  const std::string path = field(state_line(root, "uart " + port + " "), "terminal");
  // The state file is anyone's to write: only a pseudo-terminal is opened.
  if (!path.starts_with("/dev/pts/") || path.find("..") != std::string::npos) {
    return failure("the unit shows no terminal for Local/Uart/" + port);
  }
  const int fd = open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return failure("cannot open " + path + ": " + std::strerror(errno));

  struct sigaction stop{};
  stop.sa_handler = note_stop;
  for (const int sig : {SIGTERM, SIGHUP, SIGINT}) sigaction(sig, &stop, nullptr);
  std::fprintf(stderr, "fsusim: Local/Uart/%s of %s on %s%s; Ctrl-] leaves\n", port.c_str(), root.c_str(),
               path.c_str(), hex ? ", shown in hex" : "");
  int status = 0;
  {
    const RawInput raw;
    status = relay(root, fd, hex);
  }
  close(fd);
  std::fprintf(stderr, "\nfsusim: left Local/Uart/%s\n", port.c_str());
  // The far end it had before, when that was one of the plain ones.
  if ((before == "loopback" || before == "silent") && board_process(root) != 0) {
    const std::vector<std::string> back = {"uart " + port + " " + before};
    errors.clear();
    send_control(root, back, kControlTimeout, &errors);
  }
  return status;
}

int command_clean(int argc, char** argv) {
  const char* root_arg = nullptr;
  bool stop = false;
  for (int i = 0; i < argc; ++i) {
    if (const char* dir = root_option(argc, argv, &i)) {
      root_arg = dir;
    } else if (std::string_view(argv[i]) == "--stop") {
      stop = true;
    } else {
      return bad_use(std::string("clean: unknown argument ") + argv[i]);
    }
  }
  if (root_arg == nullptr || *root_arg == '\0') return bad_use("clean: needs --root DIR");
  std::string root;
  if (!usable_root(root_arg, &root)) return 1;
  if (!is_our_root(root)) return failure(root + " is not the root of a simulated unit: nothing removed");
  if (const pid_t pid = board_process(root); pid != 0) {
    if (!stop) {
      return failure("the simulated unit in " + root + " is running (process " + std::to_string(pid) +
                     "); stop it first, or add --stop");
    }
    kill(pid, SIGTERM);
    const double deadline = platform::monotonic_seconds() + 10;
    while (board_process(root) != 0) {
      if (platform::monotonic_seconds() > deadline) return failure("the unit in " + root + " did not stop");
      platform::sleep_ms(20);
    }
  }
  if (!remove_sandbox(root)) return failure("could not remove all of " + root);
  std::printf("fsusim: removed %s and its shared-memory segment\n", root.c_str());
  return 0;
}

}  // namespace fsu::sim
