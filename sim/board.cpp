#include "sim/board.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "platform/clock.h"
#include "sim/line_ends.h"
#include "sim/sandbox.h"

namespace fsu::sim {
namespace {

// What each of /dev/ttymxc1 to /dev/ttymxc7 serves, as the state file names it.
constexpr const char* kPortUse[] = {"Local/Uart/1",      "Local/Uart/2",      "Local/Uart/3",
                                    "Local/Uart/4",      "extension-board-1", "extension-board-2",
                                    "positioning-receiver"};
// Ports that end in the factory test's loopback plug when the board comes up; the others are
// silent until a model of what sits behind them serves them.
constexpr int kLoopbackPorts = 4;

// How often the service thread looks for new control lines.
constexpr double kControlPeriod = 0.05;
// Rejected control lines that sim/state keeps.
constexpr std::size_t kKeptErrors = 8;

// The GPIO lines as sim/state shows them. The LEDs are lit by a low level.
struct GpioShown {
  const char* what;
  int line;
  const char* at_high;
  const char* at_low;
};
constexpr GpioShown kGpioShown[] = {
    {"led run", 1, "dark", "lit"},   {"led alarm", 18, "dark", "lit"}, {"led net", 0, "dark", "lit"},
    {"led 1", 4, "dark", "lit"},     {"12v 1", 8, "on", "off"},        {"12v 2", 5, "on", "off"},
    {"power modem", 12, "on", "off"}};

bool write_file(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && ok;
}

// The first character of a small file ('0' or '1' for a GPIO value), or '?'.
char first_char(const std::string& path) {
  char text[4] = {};
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return '?';
  const ssize_t n = read(fd, text, 3);
  close(fd);
  return n > 0 ? text[0] : '?';
}

// The process named in a pid file, or 0.
pid_t pid_in(const std::string& path) {
  char text[32] = {};
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  const ssize_t n = read(fd, text, sizeof text - 1);
  close(fd);
  if (n <= 0) return 0;
  const long pid = std::strtol(text, nullptr, 10);
  return pid > 0 && pid < 0x7fffffff ? static_cast<pid_t>(pid) : 0;
}

bool alive(pid_t pid) { return kill(pid, 0) == 0 || errno == EPERM; }

std::string_view trimmed(std::string_view line) {
  const std::size_t first = line.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

pid_t board_process(const std::string& root) {
  const pid_t pid = pid_in(root + "/sim/board.pid");
  return pid != 0 && alive(pid) ? pid : 0;
}

Board::Board(std::string root, BoardOptions options)
    : root_(std::move(root)),
      options_(std::move(options)),
      control_(root_ + "/sim/control", root_ + "/sim/control.done"),
      state_(root_ + "/sim/state") {
  commands_.add("uart", "uart N loopback|terminal|silent",
                [this](std::span<const std::string_view> args) { return set_uart_mode(args); });
  state_.add_section([this](std::string& out) { describe_board(out); });
  state_.add_section([this](std::string& out) {
    for (const auto& uart : uarts_) uart->describe(out);
  });
  state_.add_section([this](std::string& out) { describe_gpio(out); });
  state_.add_section([this](std::string& out) { describe_control(out); });
}

Board::~Board() { stop(); }

bool Board::start(std::string* error) {
  if (up_) return true;
  std::string why;
  const auto fail = [&](const std::string& reason) {
    if (error != nullptr) *error = reason;
    close_ports();
    return false;
  };
  const std::string pid_file = root_ + "/sim/board.pid";
  const pid_t holder = pid_in(pid_file);
  if (holder != 0 && holder != getpid() && alive(holder)) {
    return fail("a board is already up in " + root_ + " (process " + std::to_string(holder) + ")");
  }
  for (const int line : kBoardGpioLines) {
    const std::string value = root_ + "/sys/class/gpio/gpio" + std::to_string(line) + "/value";
    if (!write_file(value, "0\n")) return fail("cannot reset " + value + ": " + std::strerror(errno));
  }
  if (!control_.reset(&why)) return fail(why);
  applied_ = failed_ = 0;
  errors_.clear();
  for (int i = 0; i < static_cast<int>(std::size(kPortUse)); ++i) {
    const std::string number = std::to_string(i + 1);
    auto uart = std::make_unique<Uart>(i + 1, kPortUse[i], root_ + "/dev/ttymxc" + number);
    if (!uart->open(&why)) return fail(why);
    if (i < kLoopbackPorts) {
      uart->attach(std::make_unique<LoopbackPlug>());
    } else {
      uart->attach(std::make_unique<SilentEnd>());
    }
    uarts_.push_back(std::move(uart));
  }
  for (const std::string& command : options_.commands) {
    why = commands_.run(command);
    if (!why.empty()) return fail(why);
  }
  if (pipe2(wake_, O_CLOEXEC) != 0) return fail(std::string("cannot make a pipe: ") + std::strerror(errno));
  if (!replace_file(pid_file, std::to_string(getpid()) + "\n")) {
    return fail("cannot write " + pid_file + ": " + std::strerror(errno));
  }
  up_ = true;
  state_.update(platform::monotonic_seconds(), true);
  thread_ = std::thread(&Board::serve, this);
  return true;
}

void Board::stop() {
  if (!up_) return;
  up_ = false;
  const char stop = 0;
  while (write(wake_[1], &stop, 1) < 0 && errno == EINTR) {
  }
  thread_.join();
  close_ports();
  state_.write("board down\n");
  unlink((root_ + "/sim/board.pid").c_str());
}

void Board::close_ports() {
  for (const auto& uart : uarts_) uart->close();
  uarts_.clear();
  for (int& fd : wake_) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

void Board::serve() {
  // Signals are for the main thread (it stops the board, or passes them to an application).
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  std::vector<pollfd> fds;
  std::vector<std::size_t> first_fd(uarts_.size() + 1);  // each port's descriptors in fds
  std::vector<double> due(uarts_.size());
  double next_control = 0;
  for (;;) {
    double now = platform::monotonic_seconds();
    fds.assign(1, pollfd{wake_[0], POLLIN, 0});
    double wake_at = next_control;
    for (std::size_t i = 0; i < uarts_.size(); ++i) {
      first_fd[i] = fds.size();
      uarts_[i]->add_poll_fds(fds);
      due[i] = uarts_[i]->next_due(now);
      wake_at = std::min(wake_at, due[i]);
    }
    first_fd[uarts_.size()] = fds.size();
    const int timeout = wake_at <= now ? 0 : static_cast<int>(std::ceil((wake_at - now) * 1000));
    poll(fds.data(), fds.size(), timeout);
    if (fds[0].revents != 0) return;
    now = platform::monotonic_seconds();
    // Only ports with input or bytes due: an idle board does next to nothing when it wakes.
    for (std::size_t i = 0; i < uarts_.size(); ++i) {
      bool input = false;
      for (std::size_t f = first_fd[i]; f < first_fd[i + 1]; ++f) input = input || fds[f].revents != 0;
      if (input || now >= due[i]) uarts_[i]->pump(now);
    }
    if (now >= next_control) {
      next_control = now + kControlPeriod;
      take_control(now);
    }
    state_.update(now, false);
  }
}

void Board::take_control(double now) {
  const std::size_t taken = control_.take([this](std::string_view line, std::uint64_t offset) {
    line = trimmed(line);
    if (line.empty() || line.front() == '#') return;
    const std::string error = commands_.run(line);
    if (error.empty()) {
      ++applied_;
      return;
    }
    ++failed_;
    say("control: " + error);
    errors_.push_back("error at=" + std::to_string(offset) + " " + error);
    if (errors_.size() > kKeptErrors) errors_.pop_front();
  });
  if (taken == 0) return;
  // The state shows the lines' effect before they count as done.
  state_.update(now, true);
  control_.acknowledge();
}

std::string Board::set_uart_mode(std::span<const std::string_view> args) {
  if (args.size() != 2) return "needs a port and a mode";
  int number = 0;
  const auto [end, ec] = std::from_chars(args[0].data(), args[0].data() + args[0].size(), number);
  if (ec != std::errc() || end != args[0].data() + args[0].size() || number < 1 ||
      number > static_cast<int>(uarts_.size())) {
    return "no port " + quoted_line(args[0]) + " (ports are 1 to " + std::to_string(uarts_.size()) + ")";
  }
  Uart& uart = *uarts_[number - 1];
  const std::string_view mode = args[1];
  if (uart.device().mode() == mode) return "";
  std::unique_ptr<LineDevice> device;
  if (mode == "loopback") {
    device = std::make_unique<LoopbackPlug>();
  } else if (mode == "silent") {
    device = std::make_unique<SilentEnd>();
  } else if (mode == "terminal") {
    std::string error;
    auto terminal = PersonTerminal::open(&error);
    if (!terminal) return error;
    say(uart.use() + " terminal: " + terminal->path());
    device = std::move(terminal);
  } else {
    return "no mode " + quoted_line(mode);
  }
  uart.attach(std::move(device));
  return "";
}

void Board::say(const std::string& message) const {
  if (options_.report) {
    options_.report(message);
  } else {
    std::fprintf(stderr, "fsusim: %s\n", message.c_str());
  }
}

void Board::describe_board(std::string& out) const {
  out += "board up pid=" + std::to_string(getpid()) + " root=" + root_ + "\n";
}

void Board::describe_gpio(std::string& out) const {
  for (const GpioShown& gpio : kGpioShown) {
    const char value = first_char(root_ + "/sys/class/gpio/gpio" + std::to_string(gpio.line) + "/value");
    const char* state = value == '1' ? gpio.at_high : value == '0' ? gpio.at_low : "?";
    out += std::string(gpio.what) + " gpio=" + std::to_string(gpio.line) + " value=" +
           (value == '0' || value == '1' ? std::string(1, value) : "?") + " state=" + state + "\n";
  }
}

void Board::describe_control(std::string& out) const {
  out += "control applied=" + std::to_string(applied_) + " failed=" + std::to_string(failed_) + "\n";
  for (const std::string& error : errors_) out += error + "\n";
}

}  // namespace fsu::sim
