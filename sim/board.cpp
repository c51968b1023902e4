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
#include <sys/inotify.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/clock.h"
#include "sim/line_ends.h"
#include "sim/sandbox.h"
#include "sim/unit_registry.h"

namespace fsu::sim {
namespace {

// What each of /dev/ttymxc1 to /dev/ttymxc7 serves, as the state file names it.
constexpr const char* kPortUse[] = {"Local/Uart/1",      "Local/Uart/2",      "Local/Uart/3",
                                    "Local/Uart/4",      "extension-board-1", "extension-board-2",
                                    "positioning-receiver"};
// Ports that end in the factory test's loopback plug when the board comes up; ports 5 and 6
// lead to the extension boards, port 7 leads to the positioning receiver.
constexpr int kLoopbackPorts = 4;
constexpr int kExtensionPorts[] = {5, 6};
constexpr int kReceiverPort = 7;
constexpr int kMainPorts = 7;
constexpr int kModemPowerLine = 12;

// Where "Local/Uart/5" to "Local/Uart/12" are served: board 2's channels 1 and 2 are crossed.
struct ChannelOf {
  int board;
  int channel;
};
constexpr ChannelOf kChannels[] = {{1, 0}, {1, 1}, {1, 2}, {1, 3}, {2, 0}, {2, 2}, {2, 1}, {2, 3}};
constexpr int kFirstChannelPort = 5;
constexpr int kSerialPorts = kFirstChannelPort + static_cast<int>(std::size(kChannels)) - 1;

// How often the service thread looks for new control lines and the modem's power line when
// nothing told it of a change (it is woken at once by a write to either): an idle board sleeps.
constexpr double kControlPeriod = 0.5;
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

// A whole number from lo to hi, or false.
bool number_in(std::string_view word, int lo, int hi, int* out) {
  const auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), *out);
  return ec == std::errc() && end == word.data() + word.size() && *out >= lo && *out <= hi;
}

// Bytes written as hex digits, two a byte, 1 to kMaxTyped of them.
constexpr std::size_t kMaxTyped = 1024;
bool hex_bytes(std::string_view hex, std::vector<std::uint8_t>* bytes) {
  if (hex.empty() || hex.size() % 2 != 0 || hex.size() > 2 * kMaxTyped) return false;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    std::uint8_t byte = 0;
    const auto [end, ec] = std::from_chars(hex.data() + i, hex.data() + i + 2, byte, 16);
    if (ec != std::errc() || end != hex.data() + i + 2) return false;
    bytes->push_back(byte);
  }
  return true;
}

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
  const auto command = [this](const char* word, const char* usage, auto handler) {
    commands_.add(word, usage, [this, handler](std::span<const std::string_view> args) { return (this->*handler)(args); });
  };
  command("uart", "uart N loopback|terminal|silent, uart N send HEX (N 1 to 12)", &Board::set_uart);
  command("port", "port N loopback|terminal|silent (N 1 to 4 or 7), port 7 receiver, port N send HEX (N 1 to 7)",
          &Board::set_port);
  command("board", "board N silent|on (N 1 or 2)", &Board::set_board);
  command("env", "env silent|noise|on", &Board::set_environment);
  command("ai", "ai N [voltage] VOLTS | ai N current MILLIAMPS (N 1 to 16)", &Board::set_analogue);
  command("di", "di N open|closed (N 1 to 16)", &Board::set_contact);
  command("modem", "modem SETTING [VALUE] (see docs/fsusim.md)", &Board::set_modem);
  command("gps",
          "gps fix|nofix|cold|silent|noise | gps position LAT LON [ALT [SEP]] | gps time now|YYYY-MM-DDTHH:MM:SS | "
          "gps sky gps|bd [ID:CN0...] | gps talker gn|split | gps leap SECONDS | gps drop N",
          &Board::set_receiver);
  commands_.add("reboot", "reboot (what the reboot stand-in sends)", [this](std::span<const std::string_view> args) {
    if (!args.empty()) return std::string("takes no arguments");
    ++reboots_;
    return std::string();
  });
  command("record", "record on|off", &Board::set_recording);
  state_.add_section([this](std::string& out) { describe_board(out); });
  state_.add_section([this](std::string& out) { describe_serial(out); });
  state_.add_section([this](std::string& out) { describe_extensions(out); });
  state_.add_section([this](std::string& out) {
    if (modem_) modem_->describe(out);
  });
  state_.add_section([this](std::string& out) {
    if (receiver_ != nullptr) receiver_->describe_state(out);
  });
  state_.add_section([this](std::string& out) { describe_gpio(out); });
  state_.add_section([this](std::string& out) { describe_watchdog(out); });
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
    // The start scripts power the modem up; every other line starts low.
    if (!write_file(value, line == kModemPowerLine ? "1\n" : "0\n")) return fail("cannot reset " + value + ": " + std::strerror(errno));
  }
  if (!control_.reset(&why)) return fail(why);
  unlink((root_ + "/tmp/softdog").c_str());  // an earlier application's watchdog is not this one's
  applied_ = failed_ = reboots_ = 0;
  errors_.clear();
  environment_ = std::make_unique<EnvironmentBoard>();
  for (int i = 0; i < kMainPorts; ++i) {
    const std::string number = std::to_string(i + 1);
    auto uart = std::make_unique<Uart>(i + 1, kPortUse[i], root_ + "/dev/ttymxc" + number);
    if (!uart->open(&why)) return fail(why);
    if (i < kLoopbackPorts) {
      uart->attach(std::make_unique<LoopbackPlug>());
    } else if (i + 1 == kExtensionPorts[0] || i + 1 == kExtensionPorts[1]) {
      const int board = i + 1 == kExtensionPorts[0] ? 1 : 2;
      auto extension = std::make_unique<ExtensionBoard>(board, board == 1 ? environment_.get() : nullptr);
      extensions_[board - 1] = extension.get();
      uart->attach(std::move(extension));
    } else {
      auto receiver = std::make_unique<PositioningReceiver>();
      receiver_ = receiver.get();
      uart->attach(std::move(receiver));
    }
    uart->set_tap(&tap_);
    uarts_.push_back(std::move(uart));
  }
  modem_ = std::make_unique<Modem>(root_, [this](const std::string& message) { say(message); });
  for (const std::string& command : options_.commands) {
    why = commands_.run(command);
    if (!why.empty()) return fail(why);
  }
  if (pipe2(wake_, O_CLOEXEC) != 0) return fail(std::string("cannot make a pipe: ") + std::strerror(errno));
  // The state shows an LED or 12 V line as soon as the SDK writes it, not at the next look.
  gpio_watch_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  for (const GpioShown& gpio : kGpioShown) {
    const std::string value = root_ + "/sys/class/gpio/gpio" + std::to_string(gpio.line) + "/value";
    if (gpio_watch_ >= 0) inotify_add_watch(gpio_watch_, value.c_str(), IN_MODIFY | IN_CLOSE_WRITE);
  }
  if (gpio_watch_ >= 0) {
    modem_power_watch_ =
        inotify_add_watch(gpio_watch_, (root_ + "/sys/class/gpio/gpio12/value").c_str(), IN_MODIFY | IN_CLOSE_WRITE);
  }
  control_watch_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (control_watch_ >= 0) {
    inotify_add_watch(control_watch_, (root_ + "/sim").c_str(), IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE);
  }
  if (!replace_file(pid_file, std::to_string(getpid()) + "\n")) {
    return fail("cannot write " + pid_file + ": " + std::strerror(errno));
  }
  up_ = true;
  register_unit(getpid(), root_, options_.number);  // for `fsusim ls`; a unit that cannot be listed still runs
  state_.update(platform::monotonic_seconds(), true);
  start_guard();
  thread_ = std::thread(&Board::serve, this);
  return true;
}

// A process that outlives a board whose process ends without stop() (killed, crashed): it then
// writes "board down" into sim/state and removes the port links and sim/board.pid, so that
// nothing claims the board is up or leads to a pseudo-terminal that may be given to another.
void Board::start_guard() {
  // Everything is prepared before the fork: the guard itself makes system calls only.
  const std::string state = root_ + "/sim/state";
  const std::string state_new = state + ".guard";
  const std::string pid_file = root_ + "/sim/board.pid";
  std::vector<std::string> links;
  for (int i = 1; i <= kMainPorts; ++i) links.push_back(root_ + "/dev/ttymxc" + std::to_string(i));
  constexpr char kDown[] = "board down\n";
  const pid_t board = getpid();
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return;
  const pid_t pid = fork();
  if (pid != 0) {
    close(fds[0]);
    if (pid < 0) {
      close(fds[1]);
      return;
    }
    guard_ = pid;
    guard_pipe_ = fds[1];
    return;
  }
  // The guard: no descriptor of the board (its terminals must close with it), no signals of
  // the terminal; it waits for the end of the pipe, which comes when the board's process ends.
  const int null = open("/dev/null", O_RDWR);
  for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
  const int wait_fd = fcntl(fds[0], F_DUPFD, 3);
  close_range(3, wait_fd - 1, 0);
  close_range(static_cast<unsigned>(wait_fd) + 1, ~0U, 0);
  for (const int sig : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE}) signal(sig, SIG_IGN);
  char byte = 0;
  while (read(wait_fd, &byte, 1) != 0 && errno == EINTR) {
  }
  if (pid_in(pid_file) == board) {  // stop() removes the file before it lets the guard go
    for (const std::string& link : links) unlink(link.c_str());
    unlink(pid_file.c_str());
    const int fd = open(state_new.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0644);
    if (fd >= 0 && write(fd, kDown, sizeof kDown - 1) == sizeof kDown - 1 && close(fd) == 0) {
      rename(state_new.c_str(), state.c_str());
    }
  }
  _exit(0);
}

void Board::stop() {
  if (!up_) return;
  up_ = false;
  const char stop = 0;
  while (write(wake_[1], &stop, 1) < 0 && errno == EINTR) {
  }
  thread_.join();
  tap_.stop();
  close_ports();
  state_.write("board down\n");
  unlink((root_ + "/sim/board.pid").c_str());
  unregister_unit(getpid());
  if (guard_ > 0) {
    close(guard_pipe_);
    waitpid(guard_, nullptr, 0);
    guard_ = guard_pipe_ = -1;
  }
}

void Board::close_ports() {
  extensions_[0] = extensions_[1] = nullptr;
  modem_.reset();
  receiver_ = nullptr;
  for (const auto& uart : uarts_) uart->close();
  uarts_.clear();
  for (int* fd : {&wake_[0], &wake_[1], &gpio_watch_, &control_watch_}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

namespace {

// Drains an inotify descriptor; true when one of its events came from watch `wd` or was about
// the file `name` of a watched folder.
bool drained_events_of(int fd, int wd, std::string_view name) {
  alignas(inotify_event) char events[4096];
  bool hit = false;
  for (ssize_t n; (n = read(fd, events, sizeof events)) > 0;) {
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(events + at);
      hit = hit || event->wd == wd || (!name.empty() && event->len > 0 && std::string_view(event->name) == name);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
  return hit;
}

}  // namespace

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
    fds.assign({pollfd{wake_[0], POLLIN, 0}, pollfd{gpio_watch_, POLLIN, 0}, pollfd{control_watch_, POLLIN, 0}});
    double wake_at = next_control;
    for (std::size_t i = 0; i < uarts_.size(); ++i) {
      first_fd[i] = fds.size();
      uarts_[i]->add_poll_fds(fds);
      due[i] = uarts_[i]->next_due(now);
      wake_at = std::min(wake_at, due[i]);
    }
    first_fd[uarts_.size()] = fds.size();
    modem_->add_poll_fds(fds);
    wake_at = std::min(wake_at, modem_->due());
    const int timeout = wake_at <= now ? 0 : static_cast<int>(std::ceil((wake_at - now) * 1000));
    poll(fds.data(), fds.size(), timeout);
    if (fds[0].revents != 0) return;
    const bool gpio_written = fds[1].revents != 0;
    const bool modem_powered = gpio_written && drained_events_of(gpio_watch_, modem_power_watch_, {});
    const bool control_written = fds[2].revents != 0 && drained_events_of(control_watch_, -1, "control");
    now = platform::monotonic_seconds();
    // Only ports with input or bytes due: an idle board does next to nothing when it wakes.
    for (std::size_t i = 0; i < uarts_.size(); ++i) {
      bool input = false;
      for (std::size_t f = first_fd[i]; f < first_fd[i + 1]; ++f) input = input || fds[f].revents != 0;
      if (input || now >= due[i]) uarts_[i]->pump(now);
    }
    modem_->service(now);
    if (now >= next_control || modem_powered || now >= modem_->due()) modem_->tick(now);
    if (now >= next_control || control_written) {
      next_control = now + kControlPeriod;
      take_control(now);
      tap_.close_due(now);
    }
    state_.update(now, gpio_written);
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

std::string Board::set_uart(std::span<const std::string_view> args) {
  int number = 0;
  const bool typed = args.size() == 3 && args[1] == "send";
  if (args.size() != 2 && !typed) return "needs a port and a mode";
  if (!number_in(args[0], 1, kSerialPorts, &number)) {
    return "no port " + quoted_line(args[0]) + " (ports are 1 to " + std::to_string(kSerialPorts) + ")";
  }
  std::vector<std::uint8_t> bytes;
  if (typed && !hex_bytes(args[2], &bytes)) {
    return "send needs 1 to " + std::to_string(kMaxTyped) + " bytes in hex digits, two a byte";
  }
  if (number < kFirstChannelPort) {
    if (!typed) return set_port_end(*uarts_[number - 1], args[1]);
    uarts_[number - 1]->send(bytes);  // as if the far end sent them, whatever it is
    return "";
  }
  const ChannelOf where = kChannels[number - kFirstChannelPort];
  if (typed) return extensions_[where.board - 1]->send_from_end(where.channel, bytes);
  std::string terminal;
  const std::string error = extensions_[where.board - 1]->set_channel_end(where.channel, args[1], &terminal);
  if (error.empty() && !terminal.empty()) say("Local/Uart/" + std::to_string(number) + " terminal: " + terminal);
  return error;
}

std::string Board::set_port(std::span<const std::string_view> args) {
  int number = 0;
  const bool typed = args.size() == 3 && args[1] == "send";
  if (args.size() != 2 && !typed) return "needs a port and a mode";
  if (!number_in(args[0], 1, kMainPorts, &number)) {
    return "no port " + quoted_line(args[0]) + " (ports are 1 to " + std::to_string(kMainPorts) + ")";
  }
  if (typed) {  // as if the far end sent them: a replayed capture on a link port or the receiver's
    std::vector<std::uint8_t> bytes;
    if (!hex_bytes(args[2], &bytes)) return "send needs 1 to " + std::to_string(kMaxTyped) + " bytes in hex digits, two a byte";
    uarts_[number - 1]->send(bytes);
    return "";
  }
  for (const int port : kExtensionPorts) {
    if (number == port) return "port " + std::to_string(port) + " leads to extension board " + std::to_string(port - 4);
  }
  if (number == kReceiverPort) return set_receiver_port(args[1]);
  return set_port_end(*uarts_[number - 1], args[1]);
}

std::string Board::set_receiver_port(std::string_view mode) {
  Uart& uart = *uarts_[kReceiverPort - 1];
  if (mode == "receiver") {
    if (receiver_ == nullptr) {
      auto receiver = std::make_unique<PositioningReceiver>();
      receiver_ = receiver.get();
      uart.attach(std::move(receiver));
    }
    return "";
  }
  const std::string error = set_port_end(uart, mode);
  if (error.empty()) receiver_ = nullptr;
  return error;
}

std::string Board::set_recording(std::span<const std::string_view> args) {
  if (args.size() != 1 || (args[0] != "on" && args[0] != "off")) return "needs on or off";
  if (args[0] == "off") {
    tap_.stop();
    return "";
  }
  std::string error;
  tap_.start(root_ + "/sim/record.log", &error);
  return error;
}

std::string Board::set_receiver(std::span<const std::string_view> args) {
  if (receiver_ == nullptr) return "port 7 has no receiver ('port 7 receiver' puts it back)";
  return receiver_->control(args);
}

std::string Board::set_port_end(Uart& uart, std::string_view mode) {
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

std::string Board::set_board(std::span<const std::string_view> args) {
  int number = 0;
  if (args.size() != 2) return "needs a board and a state";
  if (!number_in(args[0], 1, 2, &number)) return "no board " + quoted_line(args[0]) + " (boards are 1 and 2)";
  if (args[1] != "silent" && args[1] != "on") return "no state " + quoted_line(args[1]);
  extensions_[number - 1]->set_silent(args[1] == "silent");
  return "";
}

std::string Board::set_environment(std::span<const std::string_view> args) {
  if (args.size() != 1) return "needs a state";
  if (args[0] != "silent" && args[0] != "noise" && args[0] != "on") return "no state " + quoted_line(args[0]);
  environment_->set_silent(args[0] == "silent");
  environment_->set_noisy(args[0] == "noise");
  return "";
}

std::string Board::set_analogue(std::span<const std::string_view> args) {
  int channel = 0;
  if (args.size() != 2 && args.size() != 3) return "needs a channel and a value";
  if (!number_in(args[0], 1, EnvironmentBoard::kAnalogue, &channel)) {
    return "no channel " + quoted_line(args[0]) + " (channels are 1 to 16)";
  }
  const bool current = args.size() == 3 && args[1] == "current";
  if (args.size() == 3 && !current && args[1] != "voltage") return "no reading " + quoted_line(args[1]);
  const std::string_view text = args.back();
  double value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return "not a number: " + quoted_line(text);
  if (current ? !environment_->set_milliamps(channel, value) : !environment_->set_volts(channel, value)) {
    return current ? "milliamperes are 0 to 20.478" : "volts are 0 to 5.1197";
  }
  return "";
}

std::string Board::set_contact(std::span<const std::string_view> args) {
  int input = 0;
  if (args.size() != 2) return "needs an input and a state";
  if (!number_in(args[0], 1, EnvironmentBoard::kContacts, &input)) {
    return "no input " + quoted_line(args[0]) + " (inputs are 1 to 16)";
  }
  if (args[1] != "open" && args[1] != "closed") return "no state " + quoted_line(args[1]);
  environment_->set_contact(input, args[1] == "closed");
  return "";
}

std::string Board::set_modem(std::span<const std::string_view> args) {
  return modem_->command(args, platform::monotonic_seconds());
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

void Board::describe_serial(std::string& out) const {
  if (uarts_.empty()) return;
  for (int i = 0; i < kLoopbackPorts; ++i) uarts_[i]->describe("uart " + std::to_string(i + 1), out);
  for (int number = kFirstChannelPort; number <= kSerialPorts; ++number) {
    const ChannelOf where = kChannels[number - kFirstChannelPort];
    out += "uart " + std::to_string(number) + " for=Local/Uart/" + std::to_string(number) +
           " board=" + std::to_string(where.board) + " channel=" + std::to_string(where.channel);
    extensions_[where.board - 1]->describe_channel(where.channel, out);
    out += "\n";
  }
  for (int i = kLoopbackPorts; i < kMainPorts; ++i) uarts_[i]->describe("port " + std::to_string(i + 1), out);
}

void Board::describe_extensions(std::string& out) const {
  if (uarts_.empty()) return;
  for (int board = 1; board <= 2; ++board) {
    out += "board " + std::to_string(board) + " port=" + std::to_string(kExtensionPorts[board - 1]);
    extensions_[board - 1]->describe_board(out);
    out += "\n";
  }
  out += "env on=board-1 channel=" + std::to_string(ExtensionBoard::kEnvironmentChannel);
  extensions_[0]->describe_channel(ExtensionBoard::kEnvironmentChannel, out);
  environment_->describe(out);
  out += "\n";
  // Outputs 1 to 4 are the environment board's relays, 5 to 8 board 2's.
  for (int output = 1; output <= 2 * EnvironmentBoard::kRelays; ++output) {
    const bool environment = output <= EnvironmentBoard::kRelays;
    const int relay = environment ? output : output - EnvironmentBoard::kRelays;
    const bool on = environment ? environment_->relay(relay) : extensions_[1]->relay(relay);
    out += "relay " + std::to_string(output) + " for=Local/DO/" + std::to_string(output) +
           " on=" + (environment ? "environment-board" : "board-2") + " output=" + std::to_string(relay) +
           " state=" + (on ? "on" : "off") + "\n";
  }
  environment_->describe_inputs(out);
}

void Board::describe_gpio(std::string& out) const {
  for (const GpioShown& gpio : kGpioShown) {
    const char value = first_char(root_ + "/sys/class/gpio/gpio" + std::to_string(gpio.line) + "/value");
    const char* state = value == '1' ? gpio.at_high : value == '0' ? gpio.at_low : "?";
    out += std::string(gpio.what) + " gpio=" + std::to_string(gpio.line) + " value=" +
           (value == '0' || value == '1' ? std::string(1, value) : "?") + " state=" + state + "\n";
  }
}

// The SDK's software watchdog as the application's SDK shows it in tmp/softdog (anyone may
// write that file: only the expected words and numbers are taken), and the reboots asked for.
void Board::describe_watchdog(std::string& out) const {
  char text[128] = {};
  const int fd = open((root_ + "/tmp/softdog").c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  const ssize_t n = fd >= 0 ? read(fd, text, sizeof text - 1) : 0;
  if (fd >= 0) close(fd);
  char armed[4] = {};
  unsigned long interval = 0;
  unsigned long left = 0;
  const int got = n > 0 ? std::sscanf(text, "armed=%3[a-z] interval=%lu left=%lu", armed, &interval, &left) : 0;
  out += "watchdog";
  if (got >= 2 && (std::string_view(armed) == "yes" || std::string_view(armed) == "no")) {
    out += std::string(" armed=") + armed + " interval=" + std::to_string(interval);
    out += got == 3 && std::string_view(armed) == "yes" ? " left=" + std::to_string(left) : std::string(" left=-");
  } else {
    out += " armed=unknown interval=- left=-";  // no application has started the SDK here
  }
  out += " reboots=" + std::to_string(reboots_) + "\n";
}

void Board::describe_control(std::string& out) const {
  out += "control applied=" + std::to_string(applied_) + " failed=" + std::to_string(failed_) + "\n";
  for (const std::string& error : errors_) out += error + "\n";
}

}  // namespace fsu::sim
