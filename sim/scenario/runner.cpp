#include "sim/scenario/runner.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "platform/clock.h"
#include "sim/board.h"
#include "sim/control_client.h"
#include "sim/pty_pair.h"
#include "sim/sandbox.h"
#include "sim/unit_status.h"
#include "sim/web_pages.h"

extern char** environ;

namespace fsu::sim::scenario {
namespace {

// Output kept for waits: once a stream has sent this much since the last match, the oldest half
// goes (a wait text is at most a few kilobytes).
constexpr std::size_t kTrimAt = 2 * 1024 * 1024;
constexpr std::size_t kReported = 64 * 1024;
constexpr double kTick = 0.05;
// How long the application has to end after SIGTERM before it is killed.
constexpr double kStopGrace = 3.0;

double now() { return platform::monotonic_seconds(); }

std::string quoted(std::string_view text, std::size_t longest = 60) {
  std::string out = "\"";
  for (const char c : text.substr(0, longest)) {
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else {
      out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
    }
  }
  return out + (text.size() > longest ? "...\"" : "\"");
}

std::string seconds_text(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, seconds < 10 ? "%.1f s" : "%.0f s", seconds);
  return text;
}

// What one stream (the application's output, or what a port's far end received) has sent, with
// the point up to which waits have matched it.
class Stream {
 public:
  void add(const char* data, std::size_t n) {
    text_.append(data, n);
    if (text_.size() > kTrimAt) {
      const std::size_t drop = text_.size() - kTrimAt / 2;
      text_.erase(0, drop);
      base_ += drop;
    }
  }
  // Finds `needle` after the last match and moves the match point past it.
  bool take(std::string_view needle) {
    const std::size_t from = cursor_ > base_ ? cursor_ - base_ : 0;
    const std::size_t at = text_.find(needle, from);
    if (at == std::string::npos) return false;
    cursor_ = base_ + at + needle.size();
    return true;
  }
  // Finds `needle` in what came from `*scanned` on (a match may start a little before it) and
  // moves `*scanned` to the end.
  bool contains_since(std::string_view needle, std::uint64_t* scanned) const {
    const std::uint64_t back = *scanned > needle.size() ? *scanned - needle.size() + 1 : 0;
    const std::size_t from = back > base_ ? back - base_ : 0;
    *scanned = base_ + text_.size();
    return text_.find(needle, from) != std::string::npos;
  }
  // What came after the last match, its end at most `longest` bytes.
  std::string unmatched(std::size_t longest) const {
    const std::size_t from = cursor_ > base_ ? cursor_ - base_ : 0;
    const std::size_t start = std::max(from, text_.size() > longest ? text_.size() - longest : 0);
    return text_.substr(start);
  }
  std::string tail(std::size_t longest) const { return text_.substr(text_.size() > longest ? text_.size() - longest : 0); }
  // The last line holding `needle`, for a message.
  std::string line_with(std::string_view needle) const {
    const std::size_t at = text_.rfind(needle);
    if (at == std::string::npos) return std::string(needle);
    const std::size_t start = text_.rfind('\n', at);
    const std::size_t end = text_.find('\n', at);
    return text_.substr(start == std::string::npos ? 0 : start + 1,
                        (end == std::string::npos ? text_.size() : end) - (start == std::string::npos ? 0 : start + 1));
  }

 private:
  std::string text_;
  std::uint64_t base_ = 0;    // offset of text_[0] in all that came
  std::uint64_t cursor_ = 0;  // offset after the last match
};

// The scenario's own terminal at the far end of a port.
struct PortEnd {
  int fd = -1;
  Stream received;
};

// A text that must not appear, from the step that named it on.
struct Forbidden {
  const Step* step;
  std::uint64_t scanned = 0;
};

bool read_all(int fd, Stream* into) {
  char buffer[4096];
  bool got = false;
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
      into->add(buffer, static_cast<std::size_t>(n));
      got = true;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return got;
  }
}

}  // namespace

std::string program_path(const std::string& name, const std::string& path) {
  if (name.find('/') != std::string::npos) return name;
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = path.find(':', start);
    const std::string dir = path.substr(start, end == std::string::npos ? std::string::npos : end - start);
    const std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    if (end == std::string::npos) return "";
    start = end + 1;
  }
}

namespace {

class Run {
 public:
  Run(const Scenario& scenario, const RunSettings& settings) : scenario_(scenario), settings_(settings) {}
  ~Run() { tear_down(); }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  Outcome play();

 private:
  bool set_up();
  bool start_application();
  void tear_down();
  // Waits up to `until` (at most a tick) for bytes and takes them; notes the application's end.
  // While the scenario is judged, also fails it for a forbidden text, a signal or its timeout.
  void pump(double until);
  bool wait(double timeout, const std::function<bool()>& done);
  bool play_step(const Step& step);
  bool fail(const Step* step, const std::string& what, std::string expected, std::string seen);
  bool write_out(int fd, const std::string& bytes, double timeout, std::size_t* sent);
  bool ask_web(std::string* why);
  bool state_is(const Step& step, std::string* seen) const;
  bool take_call(std::string_view text);
  bool app_gone() const { return exited_; }
  std::string exit_text() const;

  const Scenario& scenario_;
  const RunSettings& settings_;
  Outcome outcome_;
  bool failed_ = false;
  bool ending_ = false;  // the steps are over: nothing more is judged
  double deadline_ = 0;  // of the whole scenario, or 0
  std::string root_;
  std::unique_ptr<Board> board_;
  PtyPair terminal_;
  pid_t pid_ = -1;
  bool exited_ = false;
  int status_ = 0;
  Stream output_;
  std::map<int, PortEnd> ports_;
  std::vector<Forbidden> forbidden_;
  std::vector<std::string> web_words_;
  std::string web_answer_;
  std::uint64_t calls_taken_ = 0;  // offset in sim/calls.log after the last wait-call match
};

std::string Run::exit_text() const {
  return status_ >= 128 ? "killed by signal " + std::to_string(status_ - 128) : "exit status " + std::to_string(status_);
}

bool Run::fail(const Step* step, const std::string& what, std::string expected, std::string seen) {
  if (failed_) return false;
  failed_ = true;
  // Steps of the command line (--expect-text, --fail-text) have no line.
  const std::string where = step == nullptr || step->line == 0 ? scenario_.file : scenario_.file + ":" + std::to_string(step->line);
  outcome_.message = step == nullptr ? what : where + ": " + std::string(kind_name(step->kind)) + " " + what;
  outcome_.expected = std::move(expected);
  outcome_.seen = std::move(seen);
  return false;
}

bool Run::set_up() {
  std::string pattern = settings_.folder + "/fsusim-test.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    return fail(nullptr, "cannot make a folder in " + settings_.folder + ": " + std::strerror(errno), "", "");
  }
  root_ = pattern;
  std::string error;
  BoardOptions options;
  options.commands = scenario_.board;
  for (const Step& step : scenario_.steps) {
    if (step.kind == Kind::kWriteUart || step.kind == Kind::kWaitUart) ports_[step.port];
  }
  // A port the scenario plays the far end of has the scenario's terminal there from the start.
  for (const auto& [port, end] : ports_) options.commands.push_back("uart " + std::to_string(port) + " terminal");
  options.report = [](const std::string&) {};  // a rejected line fails its step, which says why
  board_ = std::make_unique<Board>(root_, std::move(options));
  if (!make_sandbox(root_, settings_.fsusim, &error) || !board_->start(&error)) {
    return fail(nullptr, "the unit did not come up: " + error, "", "");
  }
  const auto status = read_unit_status(root_);
  for (auto& [port, end] : ports_) {
    const auto path = status ? unit_status_value(*status, "uart " + std::to_string(port) + ".terminal") : std::nullopt;
    end.fd = path ? open(path->c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC) : -1;
    termios tio{};
    if (end.fd < 0 || tcgetattr(end.fd, &tio) != 0) {
      return fail(nullptr, "no terminal at the far end of port " + std::to_string(port), "", "");
    }
    cfmakeraw(&tio);
    tcsetattr(end.fd, TCSANOW, &tio);
  }
  return start_application();
}

bool Run::start_application() {
  std::string error;
  if (!terminal_.open(&error)) return fail(nullptr, error, "", "");
  // A person's terminal that does not echo: lines as typed (CTRL+C, CTRL+D and a carriage return
  // as a line end work), output exactly as written.
  termios tio{};
  tcgetattr(terminal_.slave(), &tio);
  tio.c_iflag = ICRNL;
  tio.c_oflag = 0;
  tio.c_lflag = ICANON | ISIG | IEXTEN;
  tio.c_cc[VMIN] = 1;
  tio.c_cc[VTIME] = 0;
  tcsetattr(terminal_.slave(), TCSANOW, &tio);
  const winsize size{24, 80, 0, 0};
  ioctl(terminal_.slave(), TIOCSWINSZ, &size);

  const char* host_path = std::getenv("PATH");
  const std::string path = root_ + "/bin:" + (host_path != nullptr && *host_path ? host_path : "/usr/local/bin:/usr/bin:/bin");
  std::vector<std::string> env_text;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text = *entry;
    if (!text.starts_with("FSU_ROOT=") && !text.starts_with("PATH=") &&
        !(scenario_.clock_rate > 0 && text.starts_with("FSU_CLOCK_RATE="))) {
      env_text.emplace_back(text);
    }
  }
  env_text.push_back("FSU_ROOT=" + root_);
  env_text.push_back("PATH=" + path);
  if (scenario_.clock_rate > 0) env_text.push_back("FSU_CLOCK_RATE=" + std::to_string(scenario_.clock_rate));
  std::vector<char*> env;
  for (std::string& text : env_text) env.push_back(text.data());
  env.push_back(nullptr);
  std::vector<std::string> args = settings_.command;
  const std::string program = program_path(args[0], path);
  if (program.empty()) return fail(nullptr, "cannot run " + args[0] + ": not found", "", "");
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return fail(nullptr, std::string("cannot start: ") + std::strerror(errno), "", "");
  pid_ = fork();
  if (pid_ == 0) {
    // Only async-signal-safe calls from here: the board's thread runs in the parent.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int slave = terminal_.slave();
    if (setsid() >= 0 && ioctl(slave, TIOCSCTTY, 0) == 0 && dup2(slave, 0) == 0 && dup2(slave, 1) == 1 &&
        dup2(slave, 2) == 2) {
      execve(program.c_str(), argv.data(), env.data());
    }
    const int code = errno;
    (void)!write(report[1], &code, sizeof code);
    _exit(127);
  }
  close(report[1]);
  int code = 0;
  const bool started = pid_ > 0 && read(report[0], &code, sizeof code) == 0;
  close(report[0]);
  if (!started) {
    const int why = pid_ < 0 ? errno : code;
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
    pid_ = -1;
    return fail(nullptr, "cannot run " + program + ": " + std::strerror(why), "", "");
  }
  return true;
}

void Run::pump(double until) {
  std::vector<pollfd> fds{{terminal_.master(), POLLIN, 0}};
  for (const auto& [port, end] : ports_) fds.push_back({end.fd, POLLIN, 0});
  const double wait = std::clamp(until - now(), 0.0, kTick);
  if (poll(fds.data(), fds.size(), static_cast<int>(wait * 1000)) > 0) {
    read_all(terminal_.master(), &output_);
    for (auto& [port, end] : ports_) read_all(end.fd, &end.received);
  }
  if (!exited_ && pid_ > 0) {
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      exited_ = true;
      status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
      read_all(terminal_.master(), &output_);  // all it wrote is in the terminal by now
    }
  }
  if (ending_) return;
  for (Forbidden& forbidden : forbidden_) {
    if (output_.contains_since(forbidden.step->text, &forbidden.scanned)) {
      fail(forbidden.step, quoted(forbidden.step->text) + ": it appeared on the output",
           "no " + quoted(forbidden.step->text) + " on the output", quoted(output_.line_with(forbidden.step->text), 200));
    }
  }
  if (settings_.stop != nullptr && settings_.stop->load() != 0) {
    fail(nullptr, "interrupted by signal " + std::to_string(settings_.stop->load()), "", "");
  } else if (deadline_ > 0 && now() > deadline_) {
    fail(nullptr, scenario_.file + ": the scenario did not end within its timeout", "", "");
  }
}

// Pumps until `done` holds (true), or the step's time is up, or the scenario has failed (false).
bool Run::wait(double timeout, const std::function<bool()>& done) {
  const double end = now() + timeout;
  for (;;) {
    if (failed_) return false;
    if (done()) return true;
    if (now() >= end) return false;
    pump(end);
  }
}

bool Run::write_out(int fd, const std::string& bytes, double timeout, std::size_t* sent) {
  *sent = 0;
  return wait(timeout, [&] {
    while (*sent < bytes.size()) {
      const ssize_t n = write(fd, bytes.data() + *sent, bytes.size() - *sent);
      if (n <= 0) return false;
      *sent += static_cast<std::size_t>(n);
    }
    return true;
  });
}

// Asks the console the last web request; false with the reason when it gives no answer.
bool Run::ask_web(std::string* why) {
  std::string out;
  std::string err;
  const int code = web_command_texts(root_, web_words_, &out, &err);
  web_answer_ = code == 0 ? out : "";
  *why = err.empty() ? "nothing" : err;
  *why = quoted(why->substr(0, why->find('\n')), 200);
  return code == 0;
}

bool Run::state_is(const Step& step, std::string* seen) const {
  const auto status = read_unit_status(root_);
  const auto value = status ? unit_status_value(*status, step.name) : std::nullopt;
  *seen = !status ? "no status of the unit" : value ? quoted(*value) : "no " + quoted(step.name) + " in the unit's status";
  return value && *value == step.text;
}

// Finds `text` in a line of sim/calls.log after the last match and moves past that line. The
// tools write the file on the application's behalf, so it is read bounded, as any text.
bool Run::take_call(std::string_view text) {
  std::ifstream in(root_ + "/sim/calls.log", std::ios::binary | std::ios::ate);
  const std::streamoff size = in ? static_cast<std::streamoff>(in.tellg()) : 0;
  if (size <= static_cast<std::streamoff>(calls_taken_)) return false;
  std::string calls(std::min<std::size_t>(static_cast<std::size_t>(size) - calls_taken_, kTrimAt), '\0');
  in.seekg(static_cast<std::streamoff>(calls_taken_));
  in.read(calls.data(), static_cast<std::streamsize>(calls.size()));
  calls.resize(static_cast<std::size_t>(std::max<std::streamsize>(in.gcount(), 0)));
  const std::size_t at = calls.find(text);
  const std::size_t end = at == std::string::npos ? at : calls.find('\n', at);
  if (end == std::string::npos) return false;  // a line counts once it is complete
  calls_taken_ += end + 1;
  return true;
}

bool Run::play_step(const Step& step) {
  const std::string limit = " within " + seconds_text(step.timeout);
  switch (step.kind) {
    case Kind::kDelay:
      wait(step.seconds, [] { return false; });
      return !failed_;
    case Kind::kSet: {
      std::vector<std::string> errors;
      if (send_control(root_, std::vector<std::string>{step.text}, step.timeout, &errors)) return true;
      std::string why;
      for (const std::string& error : errors) why += (why.empty() ? "" : "; ") + error;
      return fail(&step, quoted(step.text) + ": not applied", "the unit takes " + quoted(step.text), why);
    }
    case Kind::kInput: {
      std::size_t sent = 0;
      if (!app_gone() && write_out(terminal_.master(), step.text, step.timeout, &sent)) return true;
      return fail(&step, quoted(step.text) + ": not taken", "the application takes " + quoted(step.text) + limit,
                  app_gone() ? "it has ended (" + exit_text() + ")" : std::to_string(sent) + " bytes taken");
    }
    case Kind::kWaitOutput: {
      const double start = now();
      bool found = false;
      // Once the application has ended, what it wrote is all there: no need to wait on.
      wait(step.timeout, [&] { return (found = found || output_.take(step.text)) || app_gone(); });
      if (found || output_.take(step.text)) return true;
      return fail(&step, quoted(step.text) + ": not on the output", quoted(step.text) + " on the output" + limit,
                  app_gone() ? "the application ended (" + exit_text() + ") without it"
                             : "not there after " + seconds_text(now() - start));
    }
    case Kind::kFailOutput:
      forbidden_.push_back({&step, 0});
      pump(now());
      return !failed_;
    case Kind::kWriteUart: {
      std::size_t sent = 0;
      if (write_out(ports_[step.port].fd, step.text, step.timeout, &sent)) return true;
      return fail(&step, "port " + std::to_string(step.port) + ": not sent",
                  std::to_string(step.text.size()) + " bytes sent into port " + std::to_string(step.port) + limit,
                  std::to_string(sent) + " sent");
    }
    case Kind::kWaitUart: {
      PortEnd& end = ports_[step.port];
      if (wait(step.timeout, [&] { return end.received.take(step.text); })) return true;
      return fail(&step, "port " + std::to_string(step.port) + " " + quoted(step.text) + ": not received",
                  quoted(step.text) + " at the far end of port " + std::to_string(step.port) + limit,
                  "since the last match: " + quoted(end.received.unmatched(200), 200));
    }
    case Kind::kWaitState:
    case Kind::kExpectState: {
      std::string seen;
      if (step.kind == Kind::kExpectState ? state_is(step, &seen) : wait(step.timeout, [&] { return state_is(step, &seen); })) {
        return true;
      }
      return fail(&step, step.name + " is not " + quoted(step.text), step.name + " = " + quoted(step.text) +
                  (step.kind == Kind::kWaitState ? limit : " now"), seen);
    }
    case Kind::kWeb: {
      web_words_.clear();
      const std::string& text = step.text;
      for (std::size_t at = text.find_first_not_of(" \t"); at != std::string::npos; at = text.find_first_not_of(" \t", at)) {
        const std::size_t end = text.find_first_of(" \t", at);
        web_words_.push_back(text.substr(at, end - at));
        at = end;
      }
      std::string why;
      if (ask_web(&why)) return true;
      return fail(&step, quoted(step.text) + ": no answer", "an answer to " + quoted(step.text), why);
    }
    case Kind::kWaitWeb: {
      // Asked again until the answer holds the text: the console answers with what it has.
      const double end = now() + step.timeout;
      std::string why;
      while (web_answer_.find(step.text) == std::string::npos) {
        if (failed_ || now() >= end) {
          return fail(&step, quoted(step.text) + ": not in the answer", quoted(step.text) + " in the answer" + limit,
                      web_answer_.empty() ? "no answer: " + why : quoted(web_answer_, 200));
        }
        wait(std::min(0.5, end - now()), [] { return false; });
        if (!failed_) ask_web(&why);
      }
      return true;
    }
    case Kind::kWaitCall:
      if (wait(step.timeout, [&] { return take_call(step.text); })) return true;
      return fail(&step, quoted(step.text) + ": no such call", "a device tool called with " + quoted(step.text) + limit,
                  "no such line in sim/calls.log since the last match");
    case Kind::kWaitExit:
      if (wait(step.timeout, [this] { return app_gone(); }) && status_ == step.code) return true;
      return fail(&step, std::to_string(step.code) + ": " + (app_gone() ? exit_text() : "still running"),
                  "the application ends with exit status " + std::to_string(step.code) + limit,
                  app_gone() ? exit_text() : "still running");
  }
  return false;
}

Outcome Run::play() {
  const double start = now();
  const double limits[] = {scenario_.timeout, settings_.timeout};
  for (const double limit : limits) {
    if (limit > 0) deadline_ = deadline_ > 0 ? std::min(deadline_, start + limit) : start + limit;
  }
  if (set_up()) {
    for (const Step& step : scenario_.steps) {
      if (!play_step(step)) break;
    }
    pump(now());  // what came meanwhile counts too
  }
  tear_down();
  outcome_.passed = !failed_;
  outcome_.seconds = now() - start;
  outcome_.output = output_.tail(kReported);
  return outcome_;
}

void Run::tear_down() {
  ending_ = true;
  // The application's whole process group goes, also what it left running after it ended (the
  // group's number is not handed out again while the group has members).
  if (pid_ > 0) {
    kill(-pid_, SIGTERM);
    const double end = now() + kStopGrace;
    while (!(exited_ && kill(-pid_, 0) != 0) && now() < end) pump(end);
    kill(-pid_, SIGKILL);
    if (!exited_) waitpid(pid_, nullptr, 0);
  }
  pid_ = -1;
  for (auto& [port, end] : ports_) {
    if (end.fd >= 0) close(end.fd);
    end.fd = -1;
  }
  terminal_.close();
  if (board_) {
    board_->stop();
    board_.reset();
  }
  if (!root_.empty()) {
    remove_counter_segment(root_);
    remove_sandbox(root_);
    root_.clear();
  }
}

}  // namespace

std::string last_lines(const std::string& output, int count) {
  std::size_t start = output.size();
  if (start > 0 && output[start - 1] == '\n') --start;
  for (int lines = 0; start > 0 && lines < count; --start) {
    if (output[start - 1] == '\n' && ++lines == count) break;
  }
  std::string out;
  std::size_t at = start;
  while (at < output.size()) {
    std::size_t end = output.find('\n', at);
    if (end == std::string::npos) end = output.size();
    std::string line = output.substr(at, end - at);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::string shown = quoted(line, 200);
    out += "  | " + shown.substr(1, shown.size() - 2) + "\n";
    at = end + 1;
  }
  return out;
}

Outcome run_scenario(const Scenario& scenario, const RunSettings& settings) {
  Run run(scenario, settings);
  return run.play();
}

}  // namespace fsu::sim::scenario
