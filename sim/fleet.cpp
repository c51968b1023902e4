#include "sim/fleet.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/sandbox_root.h"
#include "sim/cli_commands.h"
#include "sim/control.h"
#include "sim/sandbox.h"
#include "sim/unit_registry.h"
#include "sim/web_pages.h"

extern char** environ;

namespace fsu::sim {

const char kFleetUsage[] =
    "  fsusim fleet N [--base DIR] [--keep] [-- APP [ARG...]]\n"
    "      N simulated units (1 to 1000) side by side, unit K in DIR/unit-K (DIR a new\n"
    "      temporary folder by default) with identities of its own and its own APP\n"
    "      (benchkit web by default); until Ctrl-C or fsusim fleet stop, then nothing is left\n"
    "      (the roots stay with --keep)\n"
    "  fsusim fleet stop [--base DIR]\n"
    "      stops the fleet in DIR, or every fleet of yours\n"
    "  --unit K  (ctl, status, web, term, panel, clean): the running unit numbered K instead\n"
    "      of --root DIR; (run, up): the board is unit K, with unit K's identities\n";

namespace {

constexpr int kMaxUnits = 1000;
// Each unit is started once the one before has its board up, and this long after: a fleet
// must not take a small machine's cores all at once.
constexpr double kStartGap = 0.25;
constexpr double kBoardUpTimeout = 20;
// How long the units have to stop on SIGTERM before they are killed.
constexpr double kStopTimeout = 15;
constexpr char kFleetNote[] = "fleet-";

// The number (1 to `most`) that digits-only text gives, or 0.
int number_in(std::string_view text, int most) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string_view::npos) return 0;
  const int number = std::atoi(std::string(text).c_str());
  return number <= most ? number : 0;
}

double now() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

std::string own_path() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string("fsusim");
}

// The default application: the benchkit installed or built next to this fsusim, else the one
// on the PATH.
std::vector<std::string> default_application() {
  const std::string own = own_path();
  const std::string beside = own.substr(0, own.rfind('/') + 1) + "benchkit";
  return {access(beside.c_str(), X_OK) == 0 ? beside : "benchkit", "web"};
}

// The absolute form of a folder given by the caller, checked as a root is (characters, length).
bool usable_folder(const std::string& dir, std::string* absolute) {
  if (!platform::set_root(dir.c_str()) || !platform::in_sandbox()) return false;
  *absolute = platform::root();
  return true;
}

// The start of /proc/PID/WHAT (at most size - 1 bytes, terminated); its length, 0 when unreadable.
std::size_t read_proc(pid_t pid, const char* what, char* text, std::size_t size) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/%s", static_cast<int>(pid), what);
  std::FILE* file = std::fopen(path, "re");
  if (file == nullptr) return 0;
  const std::size_t n = std::fread(text, 1, size - 1, file);
  std::fclose(file);
  text[n] = '\0';
  return n;
}

// The process a fleet note names, while it is still a fleet of this fsusim (a reused process
// number is not).
bool fleet_alive(pid_t pid) {
  char text[512] = {};
  const std::size_t n = read_proc(pid, "stat", text, sizeof text);
  const char* state = std::strrchr(text, ')');  // after the program's name, which may hold anything
  if (n == 0 || state == nullptr || state[1] != ' ' || state[2] == 'Z' || state[2] == 'X') return false;
  char words[256] = {};
  const std::size_t got = read_proc(pid, "cmdline", words, sizeof words);
  const std::size_t first = std::strlen(words);
  return first + 1 < got && std::string_view(words + first + 1) == "fleet";
}

struct FleetNote {
  pid_t pid;
  std::string path;
  std::string base;
};

// The fleets running for this user; notes of fleets that are gone are removed.
std::vector<FleetNote> running_fleets() {
  std::vector<FleetNote> fleets;
  const std::string folder = registry_folder();
  DIR* dir = folder.empty() ? nullptr : opendir(folder.c_str());
  if (dir == nullptr) return fleets;
  int seen = 0;
  while (const dirent* entry = readdir(dir)) {
    if (++seen > 4096) break;
    const std::string_view name = entry->d_name;
    if (!name.starts_with(kFleetNote)) continue;
    const int pid = number_in(name.substr(std::strlen(kFleetNote)), 9999999);
    const std::string path = folder + "/" + std::string(name);
    std::string base;
    if (const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC); fd >= 0) {
      char text[512];
      const ssize_t n = read(fd, text, sizeof text);
      close(fd);
      if (n > 0) base.assign(text, static_cast<std::size_t>(n));
      base = base.substr(0, base.find('\n'));
    }
    if (pid > 0 && base.starts_with("/") && fleet_alive(pid)) {
      fleets.push_back({pid, path, base});
    } else {
      unlink(path.c_str());
    }
  }
  closedir(dir);
  return fleets;
}

// The units of one fleet while it runs.
class Fleet {
 public:
  Fleet(std::string base, bool made_base, bool keep, std::vector<std::string> application)
      : base_(std::move(base)), made_base_(made_base), keep_(keep), application_(std::move(application)) {}

  // Starts units 1 to `count` one after another; false when a stop signal came meanwhile.
  bool start(int count);
  // Waits for a stop signal (or for every unit to end).
  void serve();
  // Stops every unit, waits for them, removes their roots (unless kept) and the base it made.
  void stop();

 private:
  struct Unit {
    int number;
    std::string root;
    pid_t pid;
    bool running;
  };

  bool spawn(Unit& unit);
  // Waits up to `seconds` for a signal; true when it asks the fleet to stop. Units that ended
  // meanwhile are reaped and said.
  bool stop_asked(double seconds);
  void reap();
  int running() const;

  std::string base_;
  bool made_base_;
  bool keep_;
  std::vector<std::string> application_;
  std::deque<Unit> units_;
  bool stopping_ = false;  // units that end from now on were asked to
};

bool Fleet::spawn(Unit& unit) {
  // What the unit's simulator and application print goes to a file of its root: a fleet's
  // terminal shows only the fleet.
  mkdir(unit.root.c_str(), 0755);
  mkdir((unit.root + "/sim").c_str(), 0755);
  const std::string output = unit.root + "/sim/output.log";
  std::vector<std::string> words = {own_path(), "run", "--root", unit.root, "--unit", std::to_string(unit.number), "--"};
  words.insert(words.end(), application_.begin(), application_.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW,
                                   0644);
  posix_spawn_file_actions_adddup2(&files, STDOUT_FILENO, STDERR_FILENO);
  // Each unit in a process group of its own: the terminal's CTRL+C reaches the fleet, which
  // stops the units in order, and a unit that will not stop can be killed whole.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setpgroup(&attr, 0);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETPGROUP);
  const int rc = posix_spawn(&unit.pid, argv[0], &files, &attr, argv.data(), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&files);
  if (rc != 0) {
    failure("unit " + std::to_string(unit.number) + ": cannot start " + words[0] + ": " + std::strerror(rc));
    return false;
  }
  unit.running = true;
  return true;
}

bool Fleet::stop_asked(double seconds) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int sig : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&signals, sig);
  const double until = now() + seconds;
  for (;;) {
    const double left = until - now();
    timespec wait{};
    if (left > 0) {
      wait.tv_sec = static_cast<time_t>(left);
      wait.tv_nsec = static_cast<long>((left - static_cast<double>(wait.tv_sec)) * 1e9);
    }
    const int sig = sigtimedwait(&signals, nullptr, &wait);
    if (sig == SIGCHLD) {
      reap();
    } else if (sig > 0) {
      return true;
    } else if (errno == EAGAIN) {
      reap();  // a SIGCHLD may have been merged with one taken before
      return false;
    }
  }
}

void Fleet::reap() {
  int status = 0;
  pid_t pid;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    for (Unit& unit : units_) {
      if (unit.pid != pid || !unit.running) continue;
      unit.running = false;
      if (stopping_) continue;
      const int code = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
      failure("unit " + std::to_string(unit.number) + " ended (status " + std::to_string(code) + "; its output is in " +
              unit.root + "/sim/output.log)");
    }
  }
}

int Fleet::running() const {
  int count = 0;
  for (const Unit& unit : units_) count += unit.running;
  return count;
}

bool Fleet::start(int count) {
  for (int number = 1; number <= count; ++number) {
    Unit& unit = units_.emplace_back(Unit{number, base_ + "/unit-" + std::to_string(number), -1, false});
    if (!spawn(unit)) continue;
    std::printf("unit %d  %s\n", number, unit.root.c_str());
    std::fflush(stdout);
    const double until = now() + kBoardUpTimeout;
    while (unit.running && board_process(unit.root) != unit.pid && now() < until) {
      if (stop_asked(0.02)) return false;
    }
    if (stop_asked(kStartGap)) return false;
  }
  return true;
}

void Fleet::serve() {
  std::printf("fsusim: %d units up in %s; CTRL+C or fsusim fleet stop stops them\n", running(), base_.c_str());
  std::fflush(stdout);
  while (running() > 0 && !stop_asked(1)) {
  }
}

void Fleet::stop() {
  // SIGTERM to each unit's simulator, which passes it on to the application and brings the
  // board down when the application has gone.
  stopping_ = true;
  for (const Unit& unit : units_) {
    if (unit.running) kill(unit.pid, SIGTERM);
  }
  const double until = now() + kStopTimeout;
  while (running() > 0 && now() < until) stop_asked(0.05);
  for (Unit& unit : units_) {
    if (!unit.running) continue;
    failure("unit " + std::to_string(unit.number) + " did not stop: killed");
    kill(-unit.pid, SIGKILL);
    waitpid(unit.pid, nullptr, 0);
    unit.running = false;
  }
  int left = 0;
  for (const Unit& unit : units_) {
    remove_counter_segment(unit.root);  // when the simulator could not take it away itself
    if (!keep_ && !remove_sandbox(unit.root)) {
      failure("could not remove all of " + unit.root);
      ++left;
    }
  }
  if (made_base_ && !keep_ && left == 0) rmdir(base_.c_str());
  std::printf("fsusim: the fleet in %s stopped%s\n", base_.c_str(), keep_ ? "; its roots are kept" : "");
  std::fflush(stdout);
}

int fleet_stop(int argc, char** argv) {
  std::string base;
  for (int i = 0; i < argc; ++i) {
    const std::string_view arg = argv[i];
    const char* dir = arg == "--base" ? (i + 1 < argc ? argv[++i] : "") : arg.starts_with("--base=") ? argv[i] + 7 : nullptr;
    if (dir == nullptr) return bad_use("fleet stop: unknown argument " + std::string(arg));
    if (!usable_folder(dir, &base)) return failure(std::string("unusable folder '") + dir + "'");
  }
  int stopped = 0;
  for (const FleetNote& fleet : running_fleets()) {
    if (!base.empty() && fleet.base != base) continue;
    kill(fleet.pid, SIGTERM);
    // Gone when its note is: the fleet removes it after its units and roots.
    const double until = now() + kStopTimeout + 10;
    while (access(fleet.path.c_str(), F_OK) == 0 && fleet_alive(fleet.pid) && now() < until) {
      const timespec pause{0, 20'000'000};
      nanosleep(&pause, nullptr);
    }
    if (access(fleet.path.c_str(), F_OK) == 0 && fleet_alive(fleet.pid)) {
      failure("the fleet in " + fleet.base + " (process " + std::to_string(fleet.pid) + ") did not stop");
      continue;
    }
    std::printf("fsusim: stopped the fleet in %s\n", fleet.base.c_str());
    ++stopped;
  }
  if (stopped == 0) return failure(base.empty() ? "no fleet is running" : "no fleet is running in " + base);
  return 0;
}

}  // namespace

UnitIdentity unit_identity(int number) {
  char imsi[32], imei[32], address[32];
  std::snprintf(imsi, sizeof imsi, "4600012345%05d", number);
  std::snprintf(imei, sizeof imei, "86612345%07d", number);
  std::snprintf(address, sizeof address, "10.64.%d.%d", number / 256 % 256, number % 256);
  return {imsi, imei, address, 31.2304 + number * 0.001, 121.4737 + number * 0.001};
}

bool unit_option(int argc, char* const* argv, int* i, int* number, std::string* error) {
  const std::string_view arg = argv[*i];
  const char* value = nullptr;
  if (arg == "--unit") {
    value = *i + 1 < argc ? argv[++*i] : "";
  } else if (arg.starts_with("--unit=")) {
    value = argv[*i] + 7;
  } else {
    return false;
  }
  *number = number_in(value, kMaxUnitNumber);
  if (*number == 0) *error = std::string("--unit ") + value + ": a unit's number is 1 to " + std::to_string(kMaxUnitNumber);
  return true;
}

void number_unit(int number, BoardOptions* options) {
  if (number <= 0) return;
  const UnitIdentity identity = unit_identity(number);
  char position[64];
  std::snprintf(position, sizeof position, "gps position %.6f %.6f", identity.latitude, identity.longitude);
  options->number = number;
  options->commands.insert(options->commands.begin(), {"modem imsi " + identity.imsi, "modem imei " + identity.imei,
                                                       "modem address " + identity.address, position});
}

int units_as_roots(const char* command, int argc, char** argv) {
  static std::deque<std::string> held;  // the words put into argv live as long as the program
  for (int i = 0; i < argc; ++i) {
    int number = 0;
    std::string error;
    const int at = i;
    if (!unit_option(argc, argv, &i, &number, &error)) continue;
    if (!error.empty()) return bad_use(std::string(command) + ": " + error);
    std::vector<RunningUnit> found;
    for (const RunningUnit& unit : running_units()) {
      if (unit.number == number) found.push_back(unit);
    }
    if (found.empty()) return failure("no unit " + std::to_string(number) + " is running (fsusim ls lists them)");
    if (found.size() > 1) {
      return failure("unit " + std::to_string(number) + " runs in more than one fleet (" + found[0].root + ", " +
                     found[1].root + "): name it with --root");
    }
    if (i > at) {  // "--unit K": two words
      argv[at] = const_cast<char*>("--root");
      argv[i] = held.emplace_back(found[0].root).data();
    } else {
      argv[at] = held.emplace_back("--root=" + found[0].root).data();
    }
  }
  return -1;
}

int fleet_command(int argc, char** argv) {
  if (argc > 0 && std::string_view(argv[0]) == "stop") return fleet_stop(argc - 1, argv + 1);
  int count = 0;
  std::string base;
  bool keep = false;
  std::vector<std::string> application;
  for (int i = 0; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--") {
      application.assign(argv + i + 1, argv + argc);
      if (application.empty()) return bad_use("fleet: no application after --");
      break;
    }
    if (arg == "--keep") {
      keep = true;
    } else if (arg == "--base" || arg.starts_with("--base=")) {
      const char* dir = arg == "--base" ? (i + 1 < argc ? argv[++i] : "") : argv[i] + 7;
      if (!usable_folder(dir, &base)) return failure(std::string("fleet: unusable folder '") + dir + "'");
    } else if (count == 0 && !arg.starts_with("-")) {
      count = number_in(arg, kMaxUnits);
      if (count == 0) return bad_use("fleet: " + std::string(arg) + " units: a fleet has 1 to " + std::to_string(kMaxUnits));
    } else {
      return bad_use("fleet: unknown argument " + std::string(arg));
    }
  }
  if (count == 0) return bad_use("fleet: how many units? (fsusim fleet N)");
  if (application.empty()) application = default_application();

  bool made_base = false;
  if (base.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/fsusim-fleet.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return failure("cannot make a folder " + pattern + ": " + std::strerror(errno));
    made_base = usable_folder(pattern, &base);
    if (!made_base) {
      rmdir(pattern.c_str());
      return failure("fleet: unusable folder '" + pattern + "'");
    }
  } else if (mkdir(base.c_str(), 0755) == 0) {
    made_base = true;
  } else if (errno != EEXIST) {
    return failure("cannot make " + base + ": " + std::strerror(errno));
  }
  // Every root must be one the SDK takes, and a real folder of its own when it is there already.
  std::string last;
  if (!usable_folder(base + "/unit-" + std::to_string(count), &last)) {
    if (made_base) rmdir(base.c_str());
    return failure("fleet: " + base + " is too long a folder for " + std::to_string(count) + " units");
  }
  for (int number = 1; number <= count; ++number) {
    const std::string root = base + "/unit-" + std::to_string(number);
    struct stat st{};
    if (lstat(root.c_str(), &st) == 0 && !S_ISDIR(st.st_mode)) return failure("fleet: " + root + " is not a folder");
    if (board_process(root) != 0) return failure("fleet: a unit is running in " + root + " already");
  }

  // The signals wait for sigtimedwait from here on; the units start with default ones.
  sigset_t signals;
  sigemptyset(&signals);
  for (const int sig : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&signals, sig);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  // The note `fleet stop` finds the fleet by.
  const std::string folder = registry_folder();
  const std::string note = folder.empty() ? "" : folder + "/" + kFleetNote + std::to_string(getpid());
  if (!note.empty()) replace_file(note, base + "\n");

  Fleet fleet(base, made_base, keep, std::move(application));
  if (fleet.start(count)) fleet.serve();
  fleet.stop();
  if (!note.empty()) unlink(note.c_str());
  return 0;
}

}  // namespace fsu::sim
