#include "sim/web_pages.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string_view>

#include "platform/clock.h"
#include "platform/shared_memory.h"

namespace fsu::sim {
namespace {

// How the answer of a request shows.
enum class Answer {
  kNew,        // the console writes a new answer file once it took the request
  kRewritten,  // the console rewrites a file of its own once it took the request
  kWhenTaken,  // the answer file is complete when the request file is gone (may be absent)
  kNone,       // only the request's effect
};

struct Action {
  std::string_view name;
  const char* request;              // device path of the request file
  std::string_view keys[6];         // one key an argument, in order; empty keys end the list
  const char* answer;               // device path of the answer file
  Answer kind;
  std::string_view optional_key = {};  // a last argument that may be left out
  const char* optional_value = nullptr;
};

constexpr Action kActions[] = {
    {"read-aidi", "/tmp/web_read_aidi", {}, "/tmp/AIDIIFO", Answer::kNew},
    {"read-gps", "/tmp/web_read_gps_info", {}, "/tmp/gps_rt_info", Answer::kNew},
    {"read-gps-db", "/tmp/web_read_gps_db", {}, "/tmp/gps_db_info", Answer::kNew},
    {"log", "/tmp/web_set_log_save", {"com", "LineMAX"}, nullptr, Answer::kNone},
    // The reply has a second to come back unless the wait is given.
    {"uart", "/tmp/web_dtu_com", {"com", "iBaudRate", "iDataSize", "iStopBit", "iParity", "info"},
     "/tmp/web_dtu_com_log.log", Answer::kWhenTaken, "WaitSec", "1"},
    {"com-attr", "/tmp/set_com_attr", {"set_com", "set_value"}, "/etc/sdk_com_attr", Answer::kRewritten},
    {"all-outputs on", "/tmp/set_all_doao_open", {}, nullptr, Answer::kNone},
    {"all-outputs off", "/tmp/set_all_doao_close", {}, nullptr, Answer::kNone},
};

// The console looks at its request files once a second; a port command may then wait 10 s.
constexpr double kTakeTimeout = 5.0;
constexpr double kPortCommandTimeout = 16.0;
constexpr double kAnswerTimeout = 5.0;
// An answer counts as complete once it has stayed the same this long.
constexpr long kSettleMs = 100;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// When the file at `path` was last created or changed; zero when it is not there.
timespec changed_at(const std::string& path) {
  struct stat st{};
  return stat(path.c_str(), &st) == 0 ? st.st_ctim : timespec{};
}

std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Writes the request beside its place and renames it there, so that the console never reads
// half a request.
bool drop(const std::string& path, const std::string& text, std::string* error) {
  const std::size_t slash = path.rfind('/');
  std::string temporary = path.substr(0, slash + 1) + "." + path.substr(slash + 1) + ".XXXXXX";
  const int fd = mkostemp(temporary.data(), O_CLOEXEC);
  bool ok = fd >= 0;
  if (ok) {
    ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ok = close(fd) == 0 && ok;
    ok = ok && rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok) unlink(temporary.c_str());
  }
  if (!ok) *error = "cannot write " + path + ": " + std::strerror(errno);
  return ok;
}

bool wait_until(double seconds, const auto& done) {
  const double deadline = platform::monotonic_seconds() + seconds;
  while (!done()) {
    if (platform::monotonic_seconds() > deadline) return false;
    platform::sleep_ms(20);
  }
  return true;
}

// The answer once it has been written after `before` (its change time then) and has stopped
// changing.
bool settled_answer(const std::string& path, timespec before, std::string* text) {
  std::string last;
  return wait_until(kAnswerTimeout, [&] {
    const timespec at = changed_at(path);
    if (at.tv_sec == 0 || (at.tv_sec == before.tv_sec && at.tv_nsec == before.tv_nsec)) return false;
    const std::string now = contents(path);
    platform::sleep_ms(kSettleMs);
    last = contents(path);
    return !now.empty() && now == last;
  }) && (*text = last, true);
}

const Action* find_action(std::span<char* const> args, std::size_t* used) {
  if (args.empty()) return nullptr;
  const std::string name = args[0];
  for (const Action& a : kActions) {
    const bool two_words = a.name.find(' ') != std::string_view::npos;
    if (two_words && args.size() >= 2 && name + " " + args[1] == a.name) *used = 2;
    else if (!two_words && name == a.name) *used = 1;
    else continue;
    return &a;
  }
  return nullptr;
}

}  // namespace

const char kWebUsage[] =
    "  fsusim web --root DIR ACTION...\n"
    "      play the device's web pages against the console running on the board in DIR:\n"
    "        read-aidi | read-gps | read-gps-db      ask for a report and print it\n"
    "        uart COM BAUD DATABITS STOPBITS PARITY HEX [WAIT]\n"
    "                                                send HEX on a port, wait WAIT seconds (1),\n"
    "                                                print the reply in hex\n"
    "        log COM LINES                           log a port's traffic to /tmp/comlog.log\n"
    "        com-attr COM VALUE                      make a port virtual (1) or real (0)\n"
    "        all-outputs on | all-outputs off        switch every relay and 12 V output\n"
    "        counters                                the loopback test's counters of ports 1-16\n";

bool read_counters(const std::string& root, PortCounters* counters, std::string* error) {
  const int id = shmget(platform::shared_memory_key_in(root.c_str(), kCounterSegmentKey), 0, 0);
  if (id < 0) {
    *error = "no counter segment in " + root + " (no console has attached one there): " + std::strerror(errno);
    return false;
  }
  // Only the console's own segment holds counters: one of another size or open to other
  // users is somebody else's, and its bytes mean nothing.
  struct shmid_ds st {};
  if (shmctl(id, IPC_STAT, &st) != 0) {
    *error = "the counter segment in " + root + " cannot be looked at: " + std::strerror(errno);
    return false;
  }
  if (st.shm_segsz != kCounterSegmentSize || (st.shm_perm.mode & 0777) != 0600) {
    char found[96];
    std::snprintf(found, sizeof found, "%zu bytes, mode %04o", static_cast<std::size_t>(st.shm_segsz),
                  static_cast<unsigned>(st.shm_perm.mode & 0777));
    *error = "no usable counter segment in " + root + ": the one there has " + found + ", the console's has " +
             std::to_string(kCounterSegmentSize) + " bytes, mode 0600";
    return false;
  }
  void* at = shmat(id, nullptr, SHM_RDONLY);
  if (at == reinterpret_cast<void*>(-1)) {
    *error = "the counter segment in " + root + " cannot be attached: " + std::strerror(errno);
    return false;
  }
  // Single words that the console updates while we read: each is read whole.
  const auto* words = static_cast<const std::int32_t*>(at);
  for (int i = 0; i < kCounterPorts; ++i) {
    counters->sent[i] = __atomic_load_n(words + i, __ATOMIC_RELAXED);
    counters->received[i] = __atomic_load_n(words + kCounterPorts + i, __ATOMIC_RELAXED);
  }
  shmdt(at);
  return true;
}

void remove_counter_segment(const std::string& root) {
  const int id = shmget(platform::shared_memory_key_in(root.c_str(), kCounterSegmentKey), 0, 0);
  if (id >= 0) shmctl(id, IPC_RMID, nullptr);
}

int web_command(const std::string& root, std::span<char* const> args, std::FILE* out, std::FILE* err) {
  if (!args.empty() && std::string_view(args[0]) == "counters" && args.size() == 1) {
    PortCounters c;
    std::string error;
    if (!read_counters(root, &c, &error)) {
      std::fprintf(err, "fsusim: %s\n", error.c_str());
      return 1;
    }
    for (int i = 0; i < kCounterPorts; ++i) std::fprintf(out, "port %d sent=%d received=%d\n", i + 1, c.sent[i], c.received[i]);
    return 0;
  }
  std::size_t used = 0;
  const Action* action = find_action(args, &used);
  std::size_t keys = 0;
  while (action != nullptr && keys < std::size(action->keys) && !action->keys[keys].empty()) ++keys;
  const bool optional = action != nullptr && !action->optional_key.empty();
  if (action == nullptr || args.size() < used + keys || args.size() > used + keys + (optional ? 1 : 0)) {
    std::fputs(kWebUsage, err);
    return 2;
  }
  std::string text;
  const auto line = [&text](std::string_view key, std::string_view value) {
    text += std::string(key) + "=" + std::string(value) + "\r\n";
    return value.find_first_of("\r\n;") == std::string_view::npos;
  };
  bool plain = true;
  for (std::size_t i = 0; i < keys; ++i) plain = line(action->keys[i], args[used + i]) && plain;
  if (optional) plain = line(action->optional_key, args.size() > used + keys ? args.back() : action->optional_value) && plain;
  if (!plain) {
    std::fprintf(err, "fsusim: a value of a request holds a line break or ';'\n");
    return 2;
  }

  const std::string request = root + action->request;
  const std::string answer = action->answer != nullptr ? root + action->answer : "";
  if (action->kind == Answer::kNew) unlink(answer.c_str());  // what appears next is the new answer
  const timespec before = changed_at(answer);  // a file the console rewrites: its old state
  std::string error;
  if (!drop(request, text, &error)) {
    std::fprintf(err, "fsusim: %s\n", error.c_str());
    return 1;
  }
  const double take = action->name == "uart" ? kPortCommandTimeout : kTakeTimeout;
  if (!wait_until(take, [&] { return !exists(request); })) {
    std::fprintf(err, "fsusim: %s was not taken within %.0f s: is a console running in %s?\n", action->request, take,
                 root.c_str());
    return 1;
  }
  std::string shown;
  if (action->kind == Answer::kWhenTaken) shown = contents(answer);
  const bool settles = action->kind == Answer::kNew || action->kind == Answer::kRewritten;
  if (settles && !settled_answer(answer, before, &shown)) {
    std::fprintf(err, "fsusim: no answer in %s\n", action->answer);
    return 1;
  }
  std::fwrite(shown.data(), 1, shown.size(), out);
  if (isatty(fileno(out)) && !shown.empty() && shown.back() != '\n') std::fputc('\n', out);  // for the prompt
  return 0;
}

int web_command_texts(const std::string& root, std::vector<std::string> words, std::string* out, std::string* err) {
  std::vector<char*> args;
  for (std::string& word : words) args.push_back(word.data());
  char* out_text = nullptr;
  char* err_text = nullptr;
  std::size_t out_size = 0;
  std::size_t err_size = 0;
  FILE* out_file = open_memstream(&out_text, &out_size);
  FILE* err_file = open_memstream(&err_text, &err_size);
  const int status = out_file != nullptr && err_file != nullptr ? web_command(root, args, out_file, err_file) : 1;
  if (out_file != nullptr) std::fclose(out_file);
  if (err_file != nullptr) std::fclose(err_file);
  out->assign(out_text != nullptr ? out_text : "", out_text != nullptr ? out_size : 0);
  err->assign(err_text != nullptr ? err_text : "", err_text != nullptr ? err_size : 0);
  std::free(out_text);
  std::free(err_text);
  return status;
}

}  // namespace fsu::sim
