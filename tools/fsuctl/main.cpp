// fsuctl: one action on the unit, then exit, for a person at a shell or a script: read an input,
// switch a relay, show the resources, dial, show the modem or the position, set the clock, show
// the version. Exit status 0 when the action succeeded, 1 when the unit or the action failed,
// 2 for a wrong command line or point name; every failure is one line on standard error.
//
// Only one program may own the unit's ports. When an SDK program already runs on the unit,
// fsuctl asks it through the web request files, as the device's web pages do; otherwise it
// starts the SDK in its own process. Either way it says which (on standard error, or in the
// JSON object with --json).
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fsusdk.h"
#include "tools/fsuctl/answers.h"
#include "tools/fsuctl/unit.h"

#ifdef FSU_COVERAGE_BUILD
extern "C" void __gcov_dump(void);
#endif

namespace {

using fsuctl::Unit;

constexpr int kUsageError = 2;
constexpr int kFailure = 1;
// How long a running SDK program gets to answer a web request (its thread looks once a second).
constexpr double kAnswerSeconds = 5;
// How long the boards get to answer after the SDK started in this process.
constexpr double kBoardSeconds = 6;

constexpr char kUsage[] =
    "usage: fsuctl [--json] COMMAND [ARG...]\n"
    "  ai N                     analogue input N (1-16, or Local/AI/N): volts and milliamperes\n"
    "  di N                     digital input N (1-24): 1 contact closed, 0 open\n"
    "  do N on|off              switch relay output N (1-8) and wait for the board to take it\n"
    "  resources                the resources this unit has\n"
    "  dial [--timeout S]       bring the data link up and wait for its address (60 s)\n"
    "  modem [--timeout S]      the modem's state, identities, signal and address (waits 15 s\n"
    "                           for the modem to be read)\n"
    "  position [--timeout S]   position and satellites (waits 15 s for a fix)\n"
    "  clock set 'YYYY-MM-DD HH:MM:SS'   set the system and hardware clock\n"
    "  version                  the SDK's version\n"
    "The unit is the device, or the simulated unit in FSU_ROOT.\n";

// Standard output and error as fsuctl found them. The SDK started in this process prints on
// the process's own standard output and its tools on standard error; those go to /dev/null,
// so that what fsuctl prints (a JSON object for a script) stays whole.
FILE* out = stdout;
FILE* err = stderr;

void keep_own_output() {
  const int own_out = ::fcntl(1, F_DUPFD_CLOEXEC, 3);
  const int own_err = ::fcntl(2, F_DUPFD_CLOEXEC, 3);
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (own_out < 0 || own_err < 0 || null < 0) return;
  out = ::fdopen(own_out, "w");
  err = ::fdopen(own_err, "w");
  ::dup2(null, 1);
  ::dup2(null, 2);
  ::close(null);
  std::setvbuf(err, nullptr, _IOLBF, 0);
}

[[noreturn]] void finish(int code) {
  std::fflush(out);
  std::fflush(err);
#ifdef FSU_COVERAGE_BUILD
  __gcov_dump();  // a coverage build's counters, which _Exit would not write
#endif
  // The SDK's threads run until the process ends: no destructors behind their backs.
  std::_Exit(code);
}

[[noreturn]] void fail(int code, const char* format, ...) __attribute__((format(printf, 2, 3)));
void fail(int code, const char* format, ...) {
  std::fputs("fsuctl: ", err);
  va_list args;
  va_start(args, format);
  std::vfprintf(err, format, args);
  va_end(args);
  std::fputc('\n', err);
  finish(code);
}

double now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

// Polls `done` every 100 ms until it holds or `seconds` pass.
bool wait_for(double seconds, const std::function<bool()>& done) {
  const double deadline = now() + seconds;
  for (;;) {
    if (done()) return true;
    if (now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}

// The length of the well-formed UTF-8 sequence at text[i] (1 to 4), or 0.
std::size_t utf8_length(const std::string& text, std::size_t i) {
  const auto byte = [&](std::size_t k) { return k < text.size() ? static_cast<unsigned char>(text[k]) : 0u; };
  const unsigned lead = byte(i);
  if (lead < 0x80) return 1;
  std::size_t n = 0;
  unsigned low = 0x80, high = 0xBF;  // the range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    n = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    n = 3;
    low = lead == 0xE0 ? 0xA0 : low;
    high = lead == 0xED ? 0x9F : high;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    n = 4;
    low = lead == 0xF0 ? 0x90 : low;
    high = lead == 0xF4 ? 0x8F : high;
  } else {
    return 0;
  }
  if (byte(i + 1) < low || byte(i + 1) > high) return 0;
  for (std::size_t k = 2; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) return 0;
  }
  return n;
}

// Text that came from the unit (a web answer in /tmp is anyone's) as a JSON string, or, for a
// person's terminal, as a line: control characters escaped or replaced, every byte that is
// not well-formed UTF-8 replaced by U+FFFD, so that neither the JSON nor the terminal breaks.
std::string clean_text(const std::string& text, bool json) {
  std::string s;
  for (std::size_t i = 0; i < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    const std::size_t n = utf8_length(text, i);
    if (n == 0) {
      s += "\xEF\xBF\xBD";
      ++i;
      continue;
    }
    if (json && (c == '"' || c == '\\')) {
      s += '\\';
      s += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      s += json ? escaped : " ";
    } else {
      s.append(text, i, n);
    }
    i += n;
  }
  return s;
}

std::string json_text(const std::string& text) { return "\"" + clean_text(text, true) + "\""; }

std::string json_number(double value) {
  if (!std::isfinite(value)) return "null";
  char text[64];
  std::snprintf(text, sizeof text, "%.6f", value);
  return text;
}

// What fsuctl prints: a line for a person, or one JSON object whose members say the unit and
// the way as well.
struct Report {
  bool json = false;
  Unit unit;
  std::string way;  // "sdk", "web requests" or "tools"
  long pid = 0;     // the SDK program asked, when known
  std::vector<std::pair<std::string, std::string>> members;  // name, JSON value

  void add(const std::string& name, const std::string& json_value) { members.emplace_back(name, json_value); }

  void say_way() const {
    if (json) return;
    std::string how = way == "sdk"   ? "started the SDK in this process"
                      : way == "tools" ? "used the unit's tools (no SDK start needed)"
                                       : "asked the SDK program running there";
    if (way == "web requests") how += (pid > 0 ? " (pid " + std::to_string(pid) + ")" : "") + " through the web request files";
    std::fprintf(err, "fsuctl: %s; %s\n", unit.name().c_str(), how.c_str());
  }

  [[noreturn]] void done(const std::string& line) const {
    if (!json) {
      std::fprintf(out, "%s\n", line.c_str());
      finish(0);
    }
    std::string text = "{\"unit\":" + json_text(unit.simulated() ? "simulated" : "device") +
                       ",\"root\":" + json_text(unit.root) + ",\"via\":" + json_text(way);
    if (pid > 0) text += ",\"pid\":" + std::to_string(pid);
    for (const auto& [name, value] : members) text += "," + json_text(name) + ":" + value;
    std::fprintf(out, "%s}\n", text.c_str());
    finish(0);
  }
};

// A point number from "3" or "Local/AI/3" within 1 to `last`; nothing for anything else.
std::optional<int> point_number(const std::string& text, const char* kind, int last) {
  const std::string prefix = std::string("Local/") + kind + "/";
  std::string digits = text.compare(0, prefix.size(), prefix) == 0 ? text.substr(prefix.size()) : text;
  if (digits.empty() || digits.size() > 2 || digits[0] == '0') return std::nullopt;
  int n = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    n = n * 10 + (c - '0');
  }
  if (n < 1 || n > last) return std::nullopt;
  return n;
}

int point_or_exit(const std::vector<std::string>& args, const char* kind, int last) {
  if (args.size() < 2) fail(kUsageError, "%s: give a point, 1 to %d or Local/%s/1 to Local/%s/%d", args[0].c_str(), last, kind, kind, last);
  const auto n = point_number(args[1], kind, last);
  if (!n) {
    fail(kUsageError, "%s: no point \"%.40s\" (give 1 to %d or Local/%s/1 to Local/%s/%d)", args[0].c_str(),
         args[1].c_str(), last, kind, kind, last);
  }
  return *n;
}

double timeout_or_exit(const std::vector<std::string>& args, std::size_t at, double fallback) {
  if (args.size() == at) return fallback;
  if (args.size() != at + 2 || args[at] != "--timeout") fail(kUsageError, "%s: unexpected argument %.40s", args[0].c_str(), args[at].c_str());
  char* end = nullptr;
  const double s = std::strtod(args[at + 1].c_str(), &end);
  if (end == args[at + 1].c_str() || *end != '\0' || !(s > 0 && s <= 3600)) {
    fail(kUsageError, "%s: --timeout takes seconds, more than 0 and at most 3600", args[0].c_str());
  }
  return s;
}

void no_more(const std::vector<std::string>& args, std::size_t count) {
  if (args.size() > count) fail(kUsageError, "%s: unexpected argument %.40s", args[0].c_str(), args[count].c_str());
}

std::string point_name(const char* kind, int n) { return std::string("Local/") + kind + "/" + std::to_string(n); }

// ---- Through a running SDK program ----

std::string ask_or_exit(const Report& r, const char* request, const char* answer) {
  const auto text = fsuctl::ask(r.unit, request, answer, "", kAnswerSeconds);
  if (!text) {
    fail(kFailure, "the SDK program%s owning the ports of %s did not answer the web request files within %.0f s",
         r.pid > 0 ? (" (pid " + std::to_string(r.pid) + ")").c_str() : "", r.unit.name().c_str(), kAnswerSeconds);
  }
  return *text;
}

std::string input_report(Report& r) {
  std::string report = ask_or_exit(r, "/tmp/web_read_aidi", "/tmp/AIDIIFO");
  if (fsuctl::report_without_inputs(report)) fail(kFailure, "the environment board of %s does not answer: no inputs", r.unit.name().c_str());
  return report;
}

[[noreturn]] void cannot_ask(const Report& r, const char* command, const char* what) {
  fail(kFailure, "%s: the SDK program%s on %s owns the ports, and the web request files carry no %s; do it from that program",
       command, r.pid > 0 ? (" (pid " + std::to_string(r.pid) + ")").c_str() : "", r.unit.name().c_str(), what);
}

// ---- In this process ----

void start_sdk(Report& r) {
  r.way = "sdk";
  if (InitializeSDK() != 0) fail(kFailure, "the SDK did not start on %s", r.unit.name().c_str());
}

// Waits for the board's first answer since the start; exit 1 when it stays silent.
void wait_board(const Report& r, int board, const char* what) {
  double age = -1;
  if (!wait_for(kBoardSeconds, [&] { return FsuBoardAnswerAge(board, &age) == FSU_OK; })) {
    fail(kFailure, "%s of %s did not answer within %.0f s", what, r.unit.name().c_str(), kBoardSeconds);
  }
}

const char* modem_state_text(int state) {
  switch (state) {
    case FSU_MODEM_ON_USB: return "on USB";
    case FSU_MODEM_REGISTERED: return "registered";
    case FSU_MODEM_ONLINE: return "online";
    default: return "absent";
  }
}

// ---- The commands ----

void analogue(Report& r, int n, bool through_web) {
  double volts = 0, amps = 0;
  if (through_web) {
    const auto value = fsuctl::report_analogue(input_report(r), n);
    if (!value) fail(kFailure, "the SDK program's input report has no reading of %s", point_name("AI", n).c_str());
    volts = value->volts;
    amps = value->milliamps;
  } else {
    start_sdk(r);
    wait_board(r, FSU_BOARD_ENVIRONMENT, "the environment board");
    float v = 0, a = 0;
    const std::string name = point_name("AI", n);
    if (GetAIValue(name.c_str(), 0, &v) != 0 || GetAIValue(name.c_str(), 1, &a) != 0) {
      fail(kFailure, "%s: %s", name.c_str(), FsuErrorText(FSU_ERR_FAILED));
    }
    volts = v;
    amps = a;
  }
  r.add("point", json_text(point_name("AI", n)));
  r.add("volts", json_number(volts));
  r.add("milliamps", json_number(amps));
  r.say_way();
  char line[128];
  std::snprintf(line, sizeof line, "%s: %.3f V, %.3f mA", point_name("AI", n).c_str(), volts, amps);
  r.done(line);
}

void digital(Report& r, int n, bool through_web) {
  int value = 0;
  if (through_web) {
    const auto v = fsuctl::report_digital(input_report(r), n);
    if (!v) fail(kFailure, "the SDK program's input report has no reading of %s", point_name("DI", n).c_str());
    value = *v;
  } else {
    start_sdk(r);
    wait_board(r, FSU_BOARD_ENVIRONMENT, "the environment board");
    if (GetDIValue(point_name("DI", n).c_str(), &value) != 0) {
      fail(kFailure, "%s: %s", point_name("DI", n).c_str(), FsuErrorText(FSU_ERR_FAILED));
    }
  }
  r.add("point", json_text(point_name("DI", n)));
  r.add("value", std::to_string(value));
  r.say_way();
  r.done(point_name("DI", n) + ": " + std::to_string(value) + (value == 1 ? " (closed)" : " (open)"));
}

void relay(Report& r, int n, int value) {
  start_sdk(r);
  // Outputs 1 to 4 are the environment board's, 5 to 8 extension board 2's.
  const int board = n <= 4 ? FSU_BOARD_ENVIRONMENT : FSU_BOARD_EXTENSION_2;
  wait_board(r, board, n <= 4 ? "the environment board" : "extension board 2");
  const double set_at = now();
  const int result = SetDOValue(point_name("DO", n).c_str(), value);
  if (result != 0) fail(kFailure, "%s: %s", point_name("DO", n).c_str(), FsuErrorText(result));
  // The environment board's sender takes the request on its next pass (once a second) in place
  // of a poll; an answer that came more than 1.2 s after the call followed the command.
  if (board == FSU_BOARD_ENVIRONMENT) {
    double age = -1;
    const bool taken = wait_for(kBoardSeconds, [&] {
      return FsuBoardAnswerAge(board, &age) == FSU_OK && now() - age > set_at + 1.2;
    });
    if (!taken) fail(kFailure, "%s: the environment board did not answer after the command", point_name("DO", n).c_str());
  }
  r.add("point", json_text(point_name("DO", n)));
  r.add("value", std::to_string(value));
  r.say_way();
  r.done(point_name("DO", n) + ": " + (value == 1 ? "on" : "off"));
}

void resources(Report& r) {
  start_sdk(r);
  char text[4096] = {};
  const int result = ReadFSUResource(text, sizeof text);
  if (result != 0) fail(kFailure, "resources: %s", FsuErrorText(result));
  r.add("resources", text);
  r.say_way();
  r.done(text);
}

void dial(Report& r, double seconds) {
  start_sdk(r);
  DialInit(nullptr);
  DialDial(nullptr, nullptr);
  if (!wait_for(seconds, [] { return DialIsOnline() == 0; })) {
    fail(kFailure, "dial: no data link within %.0f s (modem %s)", seconds, modem_state_text(FsuModemState()));
  }
  char info[1024] = {};
  DialGetDynamicInfo(info, sizeof info);
  r.add("online", "true");
  r.add("dynamic", info);
  r.say_way();
  r.done(std::string("link up: ") + info);
}

void modem(Report& r, bool through_web, double seconds) {
  if (through_web) {
    // The SIM report follows the signal report in the answer, after ";;".
    const std::string answer = ask_or_exit(r, "/tmp/web_read_gps_db", "/tmp/gps_db_info");
    const std::size_t at = answer.rfind(";;");
    const std::string sim = at == std::string::npos ? answer : answer.substr(at + 2);
    r.add("sim", json_text(sim));
    r.say_way();
    r.done("SIM: " + clean_text(sim, false));
  }
  start_sdk(r);
  char identities[512] = {};
  wait_for(seconds, [&] {
    DialGetStaticInfo(identities, sizeof identities);
    return FsuModemState() != FSU_MODEM_ABSENT && std::strstr(identities, "\"IMEI\":\"\"") == nullptr;
  });
  char dynamic[1024] = {};
  if (DialGetStaticInfo(identities, sizeof identities) != 0 || DialGetDynamicInfo(dynamic, sizeof dynamic) != 0) {
    fail(kFailure, "modem: %s", FsuErrorText(FSU_ERR_FAILED));
  }
  const char* state = modem_state_text(FsuModemState());
  r.add("state", json_text(state));
  r.add("static", identities);
  r.add("dynamic", dynamic);
  r.say_way();
  r.done(std::string("modem ") + state + "\nstatic: " + identities + "\ndynamic: " + dynamic);
}

void position(Report& r, bool through_web, double seconds) {
  static const char* const kNames[7] = {"longitude", "latitude", "altitude", "gps_used", "gps_in_view", "beidou_used",
                                        "beidou_in_view"};
  std::vector<double> values;
  std::string signals;
  if (through_web) {
    const auto report = fsuctl::report_position(ask_or_exit(r, "/tmp/web_read_gps_info", "/tmp/gps_rt_info"));
    if (!report) fail(kFailure, "position: the SDK program's position report cannot be read");
    if ((*report)[0] == 0 && (*report)[1] == 0) fail(kFailure, "position: the SDK program has no fix");
    values = *report;
    // The report gives degrees without their hemispheres.
    r.add("hemispheres", "null");
  } else {
    start_sdk(r);
    double latitude = 0, longitude = 0;
    if (!wait_for(seconds, [&] { return FsuGetPosition(&latitude, &longitude) == FSU_OK; })) {
      fail(kFailure, "position: no fix within %.0f s", seconds);
    }
    char report[256] = {};
    BSP_GET_GPS_INFO(report);
    const auto counts = fsuctl::report_position(report);
    if (!counts) fail(kFailure, "position: %s", FsuErrorText(FSU_ERR_FAILED));
    values = *counts;
    values[0] = longitude;  // signed: west and south negative
    values[1] = latitude;
    char text[1024] = {};
    if (BSP_GET_GPS_dB_INFO(text) == 0) signals = text;
  }
  std::string line;
  for (int i = 0; i < 7; ++i) {
    r.add(kNames[i], json_number(values[static_cast<std::size_t>(i)]));
    char item[64];
    std::snprintf(item, sizeof item, "%s%s %.*f", i == 0 ? "" : ", ", kNames[i], i < 2 ? 6 : i == 2 ? 1 : 0,
                  values[static_cast<std::size_t>(i)]);
    line += item;
  }
  if (!through_web) r.add("signals", json_text(signals));
  r.say_way();
  r.done(line + (signals.empty() ? "" : "\n" + signals));
}

// "YYYY-MM-DD HH:MM:SS", digits where the form has them.
bool clock_text(const std::string& text) {
  static constexpr char kForm[] = "dddd-dd-dd dd:dd:dd";
  if (text.size() != sizeof kForm - 1) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (kForm[i] == 'd' ? (text[i] < '0' || text[i] > '9') : text[i] != kForm[i]) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  keep_own_output();
  std::vector<std::string> args(argv + 1, argv + argc);
  Report r;
  // --json may stand anywhere on the line.
  for (auto it = args.begin(); it != args.end();) {
    if (*it == "--json") {
      r.json = true;
      it = args.erase(it);
    } else {
      ++it;
    }
  }
  if (args.empty()) {
    std::fputs(kUsage, err);
    finish(kUsageError);
  }
  const std::string& command = args[0];
  if (command == "--help" || command == "-h") {
    std::fputs(kUsage, out);
    finish(0);
  }
  // The command line is checked whole before the unit is looked at.
  int point = 0, value = 0;
  double seconds = 0;
  if (command == "ai" || command == "di" || command == "do") {
    point = command == "ai" ? point_or_exit(args, "AI", 16) : command == "di" ? point_or_exit(args, "DI", 24)
                                                                               : point_or_exit(args, "DO", 8);
    if (command == "do") {
      if (args.size() < 3 || (args[2] != "on" && args[2] != "off" && args[2] != "1" && args[2] != "0")) {
        fail(kUsageError, "do: give on or off after the output");
      }
      value = args[2] == "on" || args[2] == "1" ? 1 : 0;
    }
    no_more(args, command == "do" ? 3 : 2);
  } else if (command == "dial" || command == "modem" || command == "position") {
    seconds = timeout_or_exit(args, 1, command == "dial" ? 60 : 15);
  } else if (command == "clock") {
    if (args.size() != 3 || args[1] != "set" || !clock_text(args[2])) {
      fail(kUsageError, "clock: give clock set 'YYYY-MM-DD HH:MM:SS'");
    }
  } else if (command == "resources" || command == "version") {
    no_more(args, 1);
  } else {
    fail(kUsageError, "unknown command %.40s (fsuctl --help shows the commands)", command.c_str());
  }

  if (command == "version") {
    char version[32] = {};
    ReadSDKVersion(version, sizeof version);
    r.unit = fsuctl::unit_from_environment();
    r.way = "library";
    r.add("version", json_text(version));
    r.done(version);
  }

  r.unit = fsuctl::unit_from_environment();
  if (const std::string down = fsuctl::unit_down(r.unit); !down.empty()) fail(kFailure, "%s", down.c_str());
  if (command == "clock") {
    r.way = "tools";
    if (SetRtc(args[2].c_str()) != 0) fail(kFailure, "clock set: %s", FsuErrorText(FSU_ERR_FAILED));
    r.add("clock", json_text(args[2]));
    r.say_way();
    r.done("clock set to " + args[2]);
  }
  const pid_t owner = fsuctl::port_owner(r.unit);
  const bool through_web = owner != 0;
  if (through_web) {
    r.way = "web requests";
    r.pid = owner;
  }
  if (command == "ai") analogue(r, point, through_web);
  if (command == "di") digital(r, point, through_web);
  if (through_web && command == "do") cannot_ask(r, "do", "relay request");
  if (through_web && command == "resources") cannot_ask(r, "resources", "resource request");
  if (through_web && command == "dial") cannot_ask(r, "dial", "dial request");
  if (command == "do") relay(r, point, value);
  if (command == "resources") resources(r);
  if (command == "dial") dial(r, seconds);
  if (command == "modem") modem(r, through_web, seconds);
  position(r, through_web, seconds);
}
