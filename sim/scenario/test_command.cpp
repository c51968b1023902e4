#include "sim/scenario/test_command.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "sim/scenario/junit.h"
#include "sim/scenario/runner.h"
#include "sim/scenario/scenario.h"

namespace fsu::sim::scenario {
namespace {

constexpr int kBadUse = 2;

std::atomic<int> g_stop{0};
static_assert(std::atomic<int>::is_always_lock_free);

void note_stop(int sig) { g_stop.store(sig); }

int bad_use(const std::string& what) {
  std::fprintf(stderr, "fsusim: test: %s; fsusim --help shows the usage\n", what.c_str());
  return kBadUse;
}

struct Arguments {
  std::vector<std::string> files;
  std::string junit;
  double timeout = 0;
  std::vector<std::string> expect;
  std::vector<std::string> forbid;
  std::vector<std::string> command;
};

// Gives "" when the arguments are good, else what is wrong with them.
std::string parse(int argc, char** argv, Arguments* args) {
  int i = 0;
  for (; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--") break;
    std::string_view name = arg;
    const char* value = nullptr;
    if (arg.starts_with("--") && arg.find('=') != std::string_view::npos) {
      name = arg.substr(0, arg.find('='));
      value = argv[i] + name.size() + 1;
    }
    if (name == "--junit" || name == "--timeout" || name == "--expect-text" || name == "--fail-text") {
      if (value == nullptr) {
        if (i + 1 >= argc) return std::string(name) + " needs a value";
        value = argv[++i];
      }
      if (name == "--junit") {
        args->junit = value;
      } else if (name == "--timeout") {
        if (!parse_duration(value, &args->timeout) || args->timeout <= 0) {
          return "--timeout " + std::string(value) + ": a duration with its unit, such as 30s or 500ms";
        }
      } else if (*value == '\0') {
        return std::string(name) + " needs a text";
      } else {
        (name == "--expect-text" ? args->expect : args->forbid).emplace_back(value);
      }
    } else if (arg.starts_with("-")) {
      return "unknown option " + std::string(arg);
    } else {
      args->files.emplace_back(arg);
    }
  }
  if (i + 1 >= argc) return "no application to test (fsusim test [SCENARIO.yaml...] -- APP [ARG...])";
  args->command.assign(argv + i + 1, argv + argc);
  return "";
}

// The checks of the command line: its fail texts from the start; its expected texts at the end,
// and, for a run without scenario files, the application's end with status 0 when it names none.
void add_command_line_steps(const Arguments& args, Scenario* scenario) {
  const auto step = [](Kind kind, const std::string& text, double timeout) {
    Step made;
    made.kind = kind;
    made.text = text;
    made.timeout = timeout;
    return made;
  };
  std::vector<Step> first;
  for (const std::string& text : args.forbid) first.push_back(step(Kind::kFailOutput, text, 0));
  scenario->steps.insert(scenario->steps.begin(), first.begin(), first.end());
  const double wait = args.files.empty() && args.timeout > 0 ? args.timeout : kDefaultWait;
  for (const std::string& text : args.expect) scenario->steps.push_back(step(Kind::kWaitOutput, text, wait));
  if (scenario->steps.size() == first.size()) scenario->steps.push_back(step(Kind::kWaitExit, "", wait));
}

std::string own_path() {
  char path[4096];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string("fsusim");
}

std::string shown_seconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", seconds);
  return text;
}

}  // namespace

const char kTestUsage[] =
    "  fsusim test [OPTION...] [SCENARIO.yaml...] -- APP [ARG...]\n"
    "      play each scenario file against APP on a fresh simulated board; exits 0 when all\n"
    "      passed, 1 when one failed, 2 when a file does not load. Options:\n"
    "        --junit FILE        write a JUnit XML report (one test case per scenario)\n"
    "        --timeout T         limit for each scenario (500ms, 30s, 2m); without scenario\n"
    "                            files, how long APP has to end with status 0 or show the text\n"
    "        --expect-text TEXT  TEXT must appear on APP's output (at the end of each scenario)\n"
    "        --fail-text TEXT    TEXT must never appear on APP's output\n";

int test_command(int argc, char** argv) {
  Arguments args;
  if (const std::string error = parse(argc, argv, &args); !error.empty()) return bad_use(error);

  const char* path = std::getenv("PATH");
  const std::string program = program_path(args.command[0], path != nullptr ? path : "");
  if (program.empty() || access(program.c_str(), X_OK) != 0) return bad_use("cannot run " + args.command[0] + ": no such program");
  // Every file loads before anything runs.
  std::vector<Scenario> scenarios;
  bool loaded = true;
  for (const std::string& file : args.files) {
    Scenario scenario;
    std::string error;
    if (read_scenario(file, &scenario, &error)) {
      scenarios.push_back(std::move(scenario));
    } else {
      std::fprintf(stderr, "fsusim: test: %s\n", error.c_str());
      loaded = false;
    }
  }
  if (!loaded) return kBadUse;
  if (scenarios.empty()) {
    Scenario scenario;
    scenario.file = "command line";
    scenario.name = args.command[0].substr(args.command[0].find_last_of('/') + 1);
    scenarios.push_back(std::move(scenario));
  }
  for (Scenario& scenario : scenarios) add_command_line_steps(args, &scenario);

  const char* tmp = std::getenv("TMPDIR");
  RunSettings settings;
  settings.command = args.command;
  settings.fsusim = own_path();
  settings.folder = tmp != nullptr && *tmp ? tmp : "/tmp";
  settings.timeout = args.files.empty() ? 0 : args.timeout;
  settings.stop = &g_stop;
  struct sigaction stop {};
  stop.sa_handler = note_stop;
  for (const int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &stop, nullptr);

  std::vector<CaseReport> reports;
  int failed = 0;
  for (const Scenario& scenario : scenarios) {
    if (g_stop.load() != 0) break;
    const Outcome outcome = run_scenario(scenario, settings);
    std::string details;
    if (!outcome.expected.empty()) details += "expected: " + outcome.expected + "\n";
    if (!outcome.seen.empty()) details += "seen:     " + outcome.seen + "\n";
    const std::string lines = last_lines(outcome.output, 10);
    details += lines.empty() ? "the application printed nothing\n" : "last lines of the application's output:\n" + lines;
    std::printf("fsusim: test: %s %s (%s) in %s\n", outcome.passed ? "PASS" : "FAIL", scenario.name.c_str(),
                scenario.file.c_str(), shown_seconds(outcome.seconds).c_str());
    if (!outcome.passed) {
      ++failed;
      std::printf("  %s\n", outcome.message.c_str());
      for (std::size_t at = 0; at < details.size();) {
        const std::size_t end = details.find('\n', at);
        std::printf("  %s\n", details.substr(at, end - at).c_str());
        at = end + 1;
      }
    }
    std::fflush(stdout);
    reports.push_back({scenario.name, scenario.file, outcome.seconds, outcome.passed, outcome.message,
                       outcome.passed ? "" : details, outcome.output});
  }
  std::printf("fsusim: test: %zu passed, %d failed\n", reports.size() - static_cast<std::size_t>(failed), failed);
  if (!args.junit.empty()) {
    std::ofstream out(args.junit, std::ios::binary | std::ios::trunc);
    out << junit_report("fsusim test", reports);
    if (!out.flush()) {
      std::fprintf(stderr, "fsusim: test: cannot write %s\n", args.junit.c_str());
      failed = failed > 0 ? failed : 1;
    }
  }
  if (g_stop.load() != 0) return 128 + g_stop.load();
  return failed > 0 ? 1 : 0;
}

}  // namespace fsu::sim::scenario
