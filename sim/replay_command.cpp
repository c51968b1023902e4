#include "sim/replay_command.h"

#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/sandbox_root.h"
#include "sim/cli_commands.h"
#include "sim/board.h"
#include "sim/capture_file.h"
#include "sim/control_client.h"

namespace fsu::sim {

const char kReplayUsage[] =
    "  fsusim record --root DIR [--out FILE] [--port N...] [--seconds S]\n"
    "      write what crosses the serial ports of the board up in DIR (Local/Uart/1 to 4, and\n"
    "      Local/Port/5 to 7: the extension boards' links and the receiver's) as the SDK's hex\n"
    "      traffic log, to FILE or standard output, until interrupted or for S seconds\n"
    "  fsusim replay FILE --root DIR [--speed X] [--port N]\n"
    "      play what the far ends sent in FILE (a hex traffic log, or the receiver's NMEA) into\n"
    "      the board up in DIR, at the capture's pace or X times faster; the far end normally\n"
    "      on each port is silent meanwhile and comes back afterwards\n";

namespace {

constexpr int kUsageError = 2;
constexpr double kControlTimeout = 5.0;
constexpr std::size_t kBytesPerLine = 1024;  // what one `send` control line carries

std::atomic<bool> g_stop{false};
void ask_stop(int) { g_stop.store(true); }

void catch_stop_signals() {
  struct sigaction stop{};
  stop.sa_handler = ask_stop;
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &stop, nullptr);
}

double monotonic() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<double>(now.tv_sec) + now.tv_nsec / 1e9;
}

// Sleeps until monotonic time `until`, or less when a stop signal comes.
void sleep_until(double until) {
  while (!g_stop.load()) {
    const double left = until - monotonic();
    if (left <= 0) return;
    const double step = std::min(left, 0.1);
    timespec wait{static_cast<time_t>(step), static_cast<long>((step - std::floor(step)) * 1e9)};
    nanosleep(&wait, nullptr);
  }
}

// "N" (Local/Uart/N) or a port's full name, as a capture names it; "" when it is none.
std::string port_argument(std::string_view value) {
  const std::string name = value.find('/') == std::string_view::npos ? "Local/Uart/" + std::string(value) : std::string(value);
  return known_capture_port(name) ? name : std::string();
}

// The value of option `name` at argv[*i] ("--name VALUE" or "--name=VALUE"), or null.
const char* option_value(int argc, char** argv, int* i, std::string_view name, std::string* error) {
  const std::string_view arg = argv[*i];
  if (arg == name) {
    if (*i + 1 < argc) return argv[++*i];
    *error = std::string(name) + " needs a value";
    return "";
  }
  if (arg.size() > name.size() && arg.starts_with(name) && arg[name.size()] == '=') return argv[*i] + name.size() + 1;
  return nullptr;
}

bool usable_root(const char* dir, std::string* root) {
  if (!platform::set_root(dir) || !platform::in_sandbox()) {
    std::fprintf(stderr, "fsusim: unusable root '%s'\n", dir);
    return false;
  }
  *root = platform::root();
  return true;
}

bool control(const std::string& root, const std::vector<std::string>& lines) {
  if (lines.empty()) return true;
  std::vector<std::string> errors;
  if (send_control(root, lines, kControlTimeout, &errors)) return true;
  for (const std::string& message : errors) failure(message);
  return false;
}

// A field of the sim/state line that opens with `opening`, or "".
std::string state_field(const std::string& root, const std::string& opening, const std::string& key) {
  std::ifstream in(root + "/sim/state");
  for (std::string line; std::getline(in, line);) {
    if (!line.starts_with(opening + " ")) continue;
    const std::size_t at = line.find(" " + key + "=");
    if (at == std::string::npos) return "";
    const std::size_t start = at + key.size() + 2;
    return line.substr(start, line.find(' ', start) - start);
  }
  return "";
}

// How one port is played: the control line that sends from its far end, the lines that
// silence what normally sits there, and those that bring it back afterwards.
struct PortPlan {
  std::string send;
  std::vector<std::string> silence;
  std::vector<std::string> restore;
};

PortPlan plan_port(const std::string& root, const std::string& port) {
  const std::string number = port.substr(port.rfind('/') + 1);
  PortPlan plan;
  if (port.starts_with("Local/Uart/")) {
    plan.send = "uart " + number + " send ";
    const std::string mode = state_field(root, "uart " + number, "mode");
    plan.silence.push_back("uart " + number + " silent");
    if (!mode.empty() && mode != "silent") plan.restore.push_back("uart " + number + " " + mode);
  } else if (number == "7") {
    plan.send = "port 7 send ";
    const std::string mode = state_field(root, "port 7", "mode");
    plan.silence.push_back("port 7 silent");
    if (!mode.empty() && mode != "silent") plan.restore.push_back("port 7 " + mode);
  } else {  // a link to an extension board: the board falls silent, its link carries the capture
    const std::string board = number == "5" ? "1" : "2";
    plan.send = "port " + number + " send ";
    plan.silence.push_back("board " + board + " silent");
    if (state_field(root, "board " + board, "state") == "on") plan.restore.push_back("board " + board + " on");
  }
  return plan;
}

bool read_file(const char* path, std::string* text, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = std::string("cannot read ") + path + ": " + std::strerror(errno);
    return false;
  }
  in.seekg(0, std::ios::end);
  const auto size = static_cast<std::size_t>(std::max<std::streamoff>(0, in.tellg()));
  if (size > kMaxCaptureBytes) {
    *error = std::string(path) + ": line 1: file larger than " + std::to_string(kMaxCaptureBytes >> 20) + " MiB";
    return false;
  }
  in.seekg(0);
  text->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

}  // namespace

int command_record(int argc, char** argv) {
  const char* root_arg = nullptr;
  const char* out_path = nullptr;
  double seconds = -1;
  std::vector<std::string> ports;
  for (int i = 0; i < argc; ++i) {
    std::string error;
    if (const char* dir = option_value(argc, argv, &i, "--root", &error)) {
      root_arg = dir;
    } else if (const char* path = option_value(argc, argv, &i, "--out", &error)) {
      out_path = path;
    } else if (const char* port = option_value(argc, argv, &i, "--port", &error)) {
      const std::string name = port_argument(port);
      if (error.empty() && (name.empty() || name.starts_with("Local/Uart/") != (name.size() == 12 && name[11] <= '4'))) {
        return bad_use(std::string("record: no port ") + port + " to record (1 to 4, Local/Port/5 to Local/Port/7)");
      }
      ports.push_back(name);
    } else if (const char* secs = option_value(argc, argv, &i, "--seconds", &error)) {
      char* end = nullptr;
      seconds = std::strtod(secs, &end);
      if (error.empty() && (end == secs || *end != '\0' || !(seconds > 0 && seconds <= 86400))) {
        return bad_use(std::string("record: --seconds ") + secs + " is not a time of 0 to 86400 s");
      }
    } else {
      return bad_use("record: unknown argument " + std::string(argv[i]));
    }
    if (!error.empty()) return bad_use("record: " + error);
  }
  if (root_arg == nullptr) return bad_use("record: needs --root DIR");
  std::string root;
  if (!usable_root(root_arg, &root)) return 1;
  if (board_process(root) == 0) return failure("the simulated unit in " + root + " is not running");

  catch_stop_signals();
  if (!control(root, {"record on"})) return 1;
  if (seconds > 0) {
    std::fprintf(stderr, "fsusim: recording the serial ports of %s for %g s\n", root.c_str(), seconds);
  } else {
    std::fprintf(stderr, "fsusim: recording the serial ports of %s (CTRL+C ends it)\n", root.c_str());
  }
  sleep_until(seconds > 0 ? monotonic() + seconds : INFINITY);
  const bool stopped = control(root, {"record off"});
  std::string text, error;
  if (!read_file((root + "/sim/record.log").c_str(), &text, &error)) return failure(error);
  if (!stopped) return 1;

  // Each record opens with "\r\n[": the board writes hex digits and blanks only in between.
  std::string kept;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t next = text.find("\r\n[", at + 1);
    if (next == std::string::npos) next = text.size();
    const std::string_view record(text.data() + at, next - at);
    bool wanted = ports.empty();
    for (const std::string& port : ports) wanted = wanted || record.find("]:[" + port + "]") != std::string_view::npos;
    if (wanted) kept += record;
    at = next;
  }
  FILE* out = out_path != nullptr ? std::fopen(out_path, "wb") : stdout;
  if (out == nullptr) return failure(std::string("cannot write ") + out_path + ": " + std::strerror(errno));
  const bool written = std::fwrite(kept.data(), 1, kept.size(), out) == kept.size();
  if ((out_path != nullptr ? std::fclose(out) : std::fflush(out)) != 0 || !written) {
    return failure("cannot write the recording");
  }
  return 0;
}

int command_replay(int argc, char** argv) {
  const char* root_arg = nullptr;
  const char* file = nullptr;
  double speed = 1;
  std::string port_override;
  for (int i = 0; i < argc; ++i) {
    std::string error;
    if (const char* dir = option_value(argc, argv, &i, "--root", &error)) {
      root_arg = dir;
    } else if (const char* port = option_value(argc, argv, &i, "--port", &error)) {
      port_override = port_argument(port);
      if (error.empty() && port_override.empty()) {
        return bad_use(std::string("replay: no port ") + port + " (1 to 12, Local/Port/5 to Local/Port/7)");
      }
    } else if (const char* factor = option_value(argc, argv, &i, "--speed", &error)) {
      char* end = nullptr;
      speed = std::strtod(factor, &end);
      if (error.empty() && (end == factor || *end != '\0' || !(speed >= 0.01 && speed <= 10000))) {
        return bad_use(std::string("replay: --speed ") + factor + " is not a factor of 0.01 to 10000");
      }
    } else if (std::string_view(argv[i]).starts_with("-") || file != nullptr) {
      return bad_use("replay: unknown argument " + std::string(argv[i]));
    } else {
      file = argv[i];
    }
    if (!error.empty()) return bad_use("replay: " + error);
  }
  if (file == nullptr) return bad_use("replay: needs a capture FILE");
  if (root_arg == nullptr) return bad_use("replay: needs --root DIR");

  // The whole file is read and checked before the unit hears a byte of it.
  std::string text, error;
  if (!read_file(file, &text, &error)) {
    std::fprintf(stderr, "fsusim: %s\n", error.c_str());
    return kUsageError;
  }
  auto capture = parse_capture(text, &error);
  if (!capture) {
    std::fprintf(stderr, "fsusim: %s: %s\n", file, error.c_str());
    return kUsageError;
  }
  text.clear();
  std::string root;
  if (!usable_root(root_arg, &root)) return 1;
  if (board_process(root) == 0) return failure("the simulated unit in " + root + " is not running");

  std::map<std::string, PortPlan> plans;
  for (CapturePlay& play : capture->plays) {
    if (!port_override.empty()) play.port = port_override;
    if (!plans.contains(play.port)) plans[play.port] = plan_port(root, play.port);
  }
  std::vector<std::string> silence, restore;
  for (const auto& [port, plan] : plans) {
    silence.insert(silence.end(), plan.silence.begin(), plan.silence.end());
    restore.insert(restore.end(), plan.restore.begin(), plan.restore.end());
  }
  catch_stop_signals();
  if (!control(root, silence)) return 1;
  int code = 0;
  const double start = monotonic();
  for (std::size_t i = 0; i < capture->plays.size() && !g_stop.load() && code == 0;) {
    sleep_until(start + capture->plays[i].at / speed);
    // Every play that is due goes to the board in one piece.
    std::vector<std::string> lines;
    const double now = monotonic();
    for (; i < capture->plays.size() && start + capture->plays[i].at / speed <= now; ++i) {
      const CapturePlay& play = capture->plays[i];
      for (std::size_t at = 0; at < play.bytes.size(); at += kBytesPerLine) {
        std::string line = plans[play.port].send;
        for (std::size_t k = at; k < std::min(play.bytes.size(), at + kBytesPerLine); ++k) {
          line += "0123456789ABCDEF"[play.bytes[k] >> 4];
          line += "0123456789ABCDEF"[play.bytes[k] & 15];
        }
        lines.push_back(std::move(line));
      }
    }
    if (g_stop.load()) break;
    if (!lines.empty() && !control(root, lines)) code = 1;
  }
  // What the unit was sent still crosses the line at its rate, and a far end put back drops what
  // is queued: wait until the ports' counts of bytes given to the unit stand still (at most 10 s).
  std::string counts;
  for (const double until = monotonic() + 10; code == 0 && !g_stop.load() && monotonic() < until;) {
    sleep_until(monotonic() + 0.3);
    std::string now;
    for (const auto& [port, plan] : plans) {
      const std::string number = port.substr(port.rfind('/') + 1);
      now += state_field(root, (port.starts_with("Local/Uart/") ? "uart " : "port ") + number, "to_sdk") + " ";
    }
    if (now == counts) break;
    counts = now;
  }
  if (!control(root, restore)) code = 1;
  return code;
}

}  // namespace fsu::sim
