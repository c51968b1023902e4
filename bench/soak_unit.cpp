// The application of the soak campaign (scripts/soak.sh): on a simulated unit it keeps every
// serial resource busy both ways, reads every input once a second, switches the relays and asks
// the web request files for the input report, for a given time, while the campaign's fault
// schedule runs against the unit. It tells what it saw in two files of OUT:
//   counters    rewritten every second: cumulative bytes per port, freshness of the readings,
//               relay and web results (the campaign's 10 s sampler reads it)
//   events.log  one line per event, "<wall ms> <kind> key=value...": the start-up time, each
//               incident on a serial stream (bytes lost or out of pattern, with the window in
//               which the missing bytes were sent), each service lost ("down") and back ("up")
// Run it on fsusim:  fsusim run --root R -- soak_unit OUT SECONDS [web]
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "fsusdk.h"

namespace {

std::int64_t wall_ms() {
  timespec t{};
  clock_gettime(CLOCK_REALTIME, &t);
  return static_cast<std::int64_t>(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

std::string out_dir;
std::string root_dir;
// Paths inside the unit, made once so that the passes allocate nothing.
std::string state_path, control_path, log_path, counters_path, counters_temp;
std::FILE* events = nullptr;

void event(const char* format, ...) __attribute__((format(printf, 1, 2)));
void event(const char* format, ...) {
  std::fprintf(events, "%lld ", static_cast<long long>(wall_ms()));
  va_list args;
  va_start(args, format);
  std::vfprintf(events, format, args);
  va_end(args);
  std::fputc('\n', events);
  std::fflush(events);
}

// A service the unit offers (a serial stream, the inputs, the web answers): lost once nothing
// good has come for `limit_ms`, back at the next good observation. Both changes are events.
struct Service {
  char name[16];
  std::int64_t limit_ms;
  std::int64_t last_ok_ms;
  bool down;

  void ok(std::int64_t now) {
    if (down) event("up service=%s down_for_ms=%lld", name, static_cast<long long>(now - last_ok_ms));
    down = false;
    last_ok_ms = now;
  }
  void lost() {
    if (down) return;
    down = true;
    event("down service=%s last_ok=%lld", name, static_cast<long long>(last_ok_ms));
  }
  void check(std::int64_t now) {
    if (now - last_ok_ms > limit_ms) lost();
  }
};

// The byte stream of one port is made of 16-byte blocks: a sync byte, the port, a sequence
// number, the sending time (ms since the run began), five pattern bytes and a check byte. A
// receiver that loses bytes finds its way back at the next whole block and knows from the
// sequence numbers how many bytes went missing, and from the times when they had been sent.
constexpr std::size_t kBlock = 16;
constexpr std::uint8_t kSync = 0xA5;

std::uint8_t pattern_byte(std::uint32_t seq, int port, int k) {
  return static_cast<std::uint8_t>(seq * 7 + static_cast<std::uint32_t>(k) * 13 + static_cast<std::uint32_t>(port));
}

void put32(std::uint8_t* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}
std::uint32_t get32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
         static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::uint8_t check_byte(const std::uint8_t* block) {
  std::uint8_t sum = 0x5A;
  for (std::size_t i = 0; i + 1 < kBlock; ++i) sum = static_cast<std::uint8_t>(sum * 31 + block[i]);
  return sum;
}

void make_block(std::uint8_t* b, int port, std::uint32_t seq, std::uint32_t t_ms) {
  b[0] = kSync;
  b[1] = static_cast<std::uint8_t>(port);
  put32(b + 2, seq);
  put32(b + 6, t_ms);
  for (int k = 0; k < 5; ++k) b[10 + k] = pattern_byte(seq, port, k);
  b[15] = check_byte(b);
}

bool whole_block(const std::uint8_t* b, int port) {
  if (b[0] != kSync || b[1] != port || b[15] != check_byte(b)) return false;
  for (int k = 0; k < 5; ++k) {
    if (b[10 + k] != pattern_byte(get32(b + 2), port, k)) return false;
  }
  return true;
}

std::int64_t run_start_ms = 0;

struct Stream {
  int port = 0;
  char name[16] = {};
  int baud = 9600;
  double bytes_per_second = 0;
  // sender
  std::uint32_t next_seq = 0;
  std::uint64_t sent = 0;
  // receiver
  std::uint8_t pending[4096 + kBlock] = {};
  std::size_t pending_len = 0;
  std::uint32_t expect_seq = 0;
  std::uint32_t last_good_sent = 0;  // ms since the run began
  std::uint64_t received = 0, bad = 0, lost = 0;
  std::uint64_t bad_since_good = 0;
  Service service{};

  void send(double elapsed_s) {
    const auto due = static_cast<std::uint64_t>(elapsed_s * bytes_per_second) / kBlock;
    if (due <= next_seq) return;
    std::uint8_t out[2048];
    std::size_t n = 0;
    const auto now = static_cast<std::uint32_t>(wall_ms() - run_start_ms);
    while (next_seq < due && n + kBlock <= sizeof out) {
      make_block(out + n, port, next_seq++, now);
      n += kBlock;
    }
    WriteUart(name, reinterpret_cast<const char*>(out), static_cast<int>(n));
    sent += n;
  }

  void incident(std::uint64_t lost_bytes, std::uint32_t sent_to) {
    event("incident service=%s lost=%llu bad=%llu sent_from=%lld sent_to=%lld", service.name,
          static_cast<unsigned long long>(lost_bytes), static_cast<unsigned long long>(bad_since_good),
          static_cast<long long>(run_start_ms + last_good_sent), static_cast<long long>(run_start_ms + sent_to));
    bad_since_good = 0;
  }

  void take(const std::uint8_t* data, std::size_t n) {
    received += n;
    std::memcpy(pending + pending_len, data, n);
    pending_len += n;
    std::size_t pos = 0;
    while (pending_len - pos >= kBlock) {
      const std::uint8_t* b = pending + pos;
      if (!whole_block(b, port)) {  // not a block here: one byte out of pattern, look further
        ++bad;
        ++bad_since_good;
        ++pos;
        continue;
      }
      const std::uint32_t seq = get32(b + 2);
      pos += kBlock;
      if (seq < expect_seq) {  // a block again: out of pattern as a whole
        bad += kBlock;
        bad_since_good += kBlock;
        continue;
      }
      const std::uint64_t missing = static_cast<std::uint64_t>(seq - expect_seq) * kBlock;
      if (missing > 0 || bad_since_good > 0) {
        lost += missing;
        incident(missing, get32(b + 6));
      }
      expect_seq = seq + 1;
      last_good_sent = get32(b + 6);
      service.ok(wall_ms());
    }
    std::memmove(pending, pending + pos, pending_len - pos);
    pending_len -= pos;
  }

  void receive() {
    std::uint8_t in[4096];
    const int n = ReadUart(name, reinterpret_cast<char*>(in), static_cast<int>(sizeof in), 0);
    if (n > 0) take(in, static_cast<std::size_t>(n));
  }

  // At the end: whatever was sent and never came back is lost.
  void close() {
    bad += pending_len;
    bad_since_good += pending_len;
    const std::uint64_t missing = static_cast<std::uint64_t>(next_seq - expect_seq) * kBlock;
    lost += missing;
    if (missing > 0 || bad_since_good > 0) incident(missing, static_cast<std::uint32_t>(wall_ms() - run_start_ms));
  }
};

std::array<Stream, 12> streams;

// A line of sim/state that opens with `head` (such as "relay 3 "), copied into `line`.
bool state_line(const char* head, char* line, std::size_t size) {
  std::FILE* f = std::fopen(state_path.c_str(), "r");
  if (f == nullptr) return false;
  bool found = false;
  while (std::fgets(line, static_cast<int>(size), f) != nullptr) {
    if (std::strncmp(line, head, std::strlen(head)) == 0) {
      found = true;
      break;
    }
  }
  std::fclose(f);
  return found;
}

void control(const char* line) {
  const int fd = open(control_path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (fd < 0) return;
  char text[64];
  const int n = std::snprintf(text, sizeof text, "%s\n", line);
  (void)!write(fd, text, static_cast<std::size_t>(std::min<int>(n, sizeof text - 1)));
  ::close(fd);
}

// What the unit passes on from its far end, and how fresh it is: the application tells the far
// end (through sim/control) to show a new value now and then, and the age of what the unit
// shows is how long ago the value it shows was set. It keeps growing while the unit stands
// still; the service is lost once it passes `limit_ms`.
struct Mirror {
  struct Set {
    double value;
    std::int64_t at;
  };
  std::array<Set, 8> sets{};
  std::size_t count = 0;
  std::int64_t shown_since = 0;  // when the value shown was set
  std::array<std::int64_t, 10> worst{};  // the worst age seen in each of the last ten sets
  Service service{};

  void set(double value, std::int64_t now) {
    sets[count % sets.size()] = {value, now};
    ++count;
    worst[count % worst.size()] = 0;
  }

  // `shown` is what the unit passes on now, `tolerance` how near a set value it must be.
  void seen(double shown, double tolerance, std::int64_t now) {
    for (const Set& s : sets) {
      if (s.at > shown_since && std::fabs(s.value - shown) <= tolerance) shown_since = s.at;
    }
    if (shown_since == 0) return;
    std::int64_t& w = worst[count % worst.size()];
    w = std::max(w, now - shown_since);
    if (now - shown_since <= service.limit_ms) service.ok(now);
    service.check(now);
  }

  std::int64_t worst_age() const { return *std::max_element(worst.begin(), worst.end()); }
};

// The readings: every second AI 1 of the environment board is set to the next value of a cycle
// from 0.1 V to 4.0 V, and read back every 100 ms.
struct Readings {
  int step = 0;
  Mirror mirror{};

  void set_next(std::int64_t now) {
    step = step % 40 + 1;
    char line[48];
    std::snprintf(line, sizeof line, "ai 1 %.1f", step / 10.0);
    control(line);
    mirror.set(step / 10.0, now);
  }

  void read(std::int64_t now) {
    float volts = 0;
    if (GetAIValue("Local/AI/1", 0, &volts) == 0) mirror.seen(volts, 0.02, now);
  }
};

Readings freshness;

// Relays: every 2 s one output is switched (DO 1 to 8 in turn); 3 s later the far end's state
// (sim/state) must show it.
struct Relays {
  int turn = 0;
  std::array<int, 8> wanted{};
  std::array<std::int64_t, 8> due{};  // when to check; 0 when nothing to check
  std::uint64_t ok = 0, wrong = 0;

  void switch_next(std::int64_t now) {
    const int i = turn++ % 8;
    wanted[i] = !wanted[i];
    char name[24];
    std::snprintf(name, sizeof name, "Local/DO/%d", i + 1);
    SetDOValue(name, wanted[i]);
    due[i] = now + 3000;
  }

  void check(std::int64_t now) {
    for (int i = 0; i < 8; ++i) {
      if (due[i] == 0 || now < due[i]) continue;
      due[i] = 0;
      char head[16], line[256];
      std::snprintf(head, sizeof head, "relay %d ", i + 1);
      const bool on = state_line(head, line, sizeof line) && std::strstr(line, "state=on") != nullptr;
      if (on == (wanted[i] != 0)) {
        ++ok;
      } else {
        ++wrong;
        event("relay_mismatch service=relays output=%d wanted=%d", i + 1, wanted[i]);
      }
    }
  }
};

Relays relays;

// The web pages' side: every 3 s (every second after a failure) a request for the input report
// is written under another name and renamed into place; the answer must stand within 3 s.
struct WebPage {
  bool enabled = false;
  std::int64_t asked_at = 0;  // 0: no request outstanding
  std::int64_t next_at = 0;
  std::uint64_t ok_count = 0, failed = 0;
  Service service{};

  std::string request, temp, answer;

  void start() {
    request = root_dir + "/tmp/web_read_aidi";
    temp = root_dir + "/tmp/.web_read_aidi.soak";
    answer = root_dir + "/tmp/AIDIIFO";
  }

  void fail(std::int64_t now, const char* why) {
    ++failed;
    event("web_fail service=web why=%s", why);
    service.lost();
    asked_at = 0;
    next_at = now + 1000;
  }

  void pass(std::int64_t now) {
    if (!enabled) return;
    if (asked_at == 0 && now >= next_at) {
      unlink(answer.c_str());
      const int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0 || ::close(fd) != 0 || rename(temp.c_str(), request.c_str()) != 0) {
        unlink(temp.c_str());
        fail(now, "request_not_written");
        return;
      }
      asked_at = now;
      return;
    }
    if (asked_at == 0) return;
    struct stat st{};
    if (stat(answer.c_str(), &st) == 0 && st.st_size > 0 && access(request.c_str(), F_OK) != 0) {
      ++ok_count;
      event("web_ok service=web answer_ms=%lld", static_cast<long long>(now - asked_at));
      service.ok(now);
      asked_at = 0;
      next_at = now + 3000;
    } else if (now - asked_at > 3000) {
      unlink(request.c_str());
      fail(now, "no_answer");
    }
  }
};

WebPage web;

// The SDK's log: it is written many times a second, so a log file whose size stands still for
// a second and a half means the SDK cannot write its files. (The size, not the time of change:
// a write that fails for want of space still changes that.)
struct LogWatch {
  long long size = -1;
  Service service{};

  void pass(std::int64_t now) {
    struct stat st{};
    if (stat(log_path.c_str(), &st) == 0) {
      if (st.st_size != size) service.ok(now);
      size = st.st_size;
    }
    service.check(now);
  }
};

LogWatch log_watch;

// A quoted number of the dynamic information text, such as "SignalStrength":"-61".
double json_number(const char* text, const char* key, bool* found) {
  char pattern[48];
  std::snprintf(pattern, sizeof pattern, "\"%s\":\"", key);
  const char* at = std::strstr(text, pattern);
  *found = at != nullptr && std::strncmp(at + std::strlen(pattern), "NULL", 4) != 0;
  return *found ? std::atof(at + std::strlen(pattern)) : 0.0;
}

// The modem and the data link as an application sees them through the dial calls. The link is
// asked for at start, and again once it has been down for 3 s, at most every 20 s (a dial takes
// about 10 s; asking again meanwhile would restart it). The modem's queries must follow the
// signal the far end is set to (rssi 22 to 31, -63 to -54 dBm), the positioning record the
// position (31.01 to 31.50 N, 121.01 to 121.50 E).
struct Modem {
  bool enabled = false, positioning = false;
  Service link{};
  Mirror signal{}, position{};
  int step = 0;
  std::int64_t next_set = 0, offline_since = 0, last_dial = 0;

  void dial(std::int64_t now) {
    DialDial(nullptr, nullptr);
    last_dial = now;
    event("dial service=link");
  }

  void pass(std::int64_t now) {
    if (!enabled) return;
    if (now >= next_set) {
      next_set = now + 2000;
      step = step % 10 + 1;
      char line[48];
      std::snprintf(line, sizeof line, "modem signal %d", 21 + step);
      control(line);
      signal.set(21 + step - 85, now);
      if (positioning) {
        const double lat = 31.0 + 0.01 * (step + 40 * (step % 2)), lon = 121.0 + 0.01 * (step + 40 * (step % 2));
        std::snprintf(line, sizeof line, "gps position %.2f %.2f", lat, lon);
        control(line);
        position.set(lat + lon, now);
      }
    }
    char info[512] = {};
    DialGetDynamicInfo(info, sizeof info);
    bool found = false;
    const double dbm = json_number(info, "SignalStrength", &found);
    if (found) signal.seen(dbm, 0.5, now);
    bool lat_found = false, lon_found = false;
    const double sum = json_number(info, "Latitude", &lat_found) + json_number(info, "Longitude", &lon_found);
    if (positioning && lat_found && lon_found) position.seen(sum, 0.002, now);
    if (DialIsOnline() == 0) {
      link.ok(now);
      offline_since = 0;
      return;
    }
    if (offline_since == 0) offline_since = now;
    link.check(now);
    if (now - offline_since >= 3000 && now - last_dial >= 20000) dial(now);
  }
};

Modem modem;

void read_inputs() {
  for (int i = 1; i <= 16; ++i) {
    char name[24];
    float value = 0;
    int state = 0;
    std::snprintf(name, sizeof name, "Local/AI/%d", i);
    GetAIValue(name, 0, &value);
    GetAIValue(name, 1, &value);
    std::snprintf(name, sizeof name, "Local/DI/%d", i);
    GetDIValue(name, &state);
  }
}

void write_counters() {
  std::FILE* f = std::fopen(counters_temp.c_str(), "w");
  if (f == nullptr) return;
  std::fprintf(f, "at=%lld\n", static_cast<long long>(wall_ms()));
  for (const Stream& s : streams) {
    std::fprintf(f, "port%d sent=%llu received=%llu bad=%llu lost=%llu\n", s.port,
                 static_cast<unsigned long long>(s.sent), static_cast<unsigned long long>(s.received),
                 static_cast<unsigned long long>(s.bad), static_cast<unsigned long long>(s.lost));
  }
  std::fprintf(f, "reading_age_ms=%lld\n", static_cast<long long>(freshness.mirror.worst_age()));
  std::fprintf(f, "relays_ok=%llu relays_wrong=%llu\n", static_cast<unsigned long long>(relays.ok),
               static_cast<unsigned long long>(relays.wrong));
  std::fprintf(f, "link_up=%d\n", modem.enabled && !modem.link.down ? 1 : 0);
  std::fprintf(f, "modem_age_ms=%lld position_age_ms=%lld\n", static_cast<long long>(modem.signal.worst_age()),
               static_cast<long long>(modem.position.worst_age()));
  std::fprintf(f, "web_ok=%llu web_failed=%llu\n", static_cast<unsigned long long>(web.ok_count),
               static_cast<unsigned long long>(web.failed));
  std::fclose(f);
  rename(counters_temp.c_str(), counters_path.c_str());
}

void start_service(Service& s, const char* name, std::int64_t limit_ms, std::int64_t now) {
  std::snprintf(s.name, sizeof s.name, "%s", name);
  s.limit_ms = limit_ms;
  s.last_ok_ms = now;
  s.down = false;
}

}  // namespace

int main(int argc, char** argv) {
  const char* root = std::getenv("FSU_ROOT");
  if (root == nullptr || argc < 3 || std::atof(argv[2]) <= 0) {
    std::fprintf(stderr, "run me on fsusim: fsusim run --root R -- %s OUT SECONDS [web] [modem] [gps]\n", argv[0]);
    return 2;
  }
  root_dir = root;
  state_path = root_dir + "/sim/state";
  control_path = root_dir + "/sim/control";
  log_path = root_dir + "/tmp/sdklog.log";
  out_dir = argv[1];
  counters_path = out_dir + "/counters";
  counters_temp = counters_path + ".tmp";
  const double duration = std::atof(argv[2]);
  for (int i = 3; i < argc; ++i) {
    web.enabled |= std::strcmp(argv[i], "web") == 0;
    modem.enabled |= std::strcmp(argv[i], "modem") == 0;
    modem.positioning |= std::strcmp(argv[i], "gps") == 0;
  }
  web.start();
  events = std::fopen((out_dir + "/events.log").c_str(), "a");
  if (events == nullptr) return 2;
  event("pid pid=%d", static_cast<int>(getpid()));

  const auto t0 = std::chrono::steady_clock::now();
  InitializeSDK();
  const double init_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  event("startup init_ms=%.1f", init_ms);

  for (int i = 0; i < 12; ++i) {
    Stream& s = streams[static_cast<std::size_t>(i)];
    s.port = i + 1;
    std::snprintf(s.name, sizeof s.name, "Local/Uart/%d", s.port);
    // Main-board ports run fast and carry a fifth of their line; the extension channels run at
    // 9600 baud and carry half of theirs.
    s.baud = s.port <= 4 ? 115200 : 9600;
    s.bytes_per_second = s.port <= 4 ? 2400 : 480;
    SetUartParam(s.name, s.baud, 8, 1, 0);
  }
  run_start_ms = wall_ms();
  for (Stream& s : streams) {
    char name[16];
    std::snprintf(name, sizeof name, "uart%d", s.port);
    start_service(s.service, name, 2000, run_start_ms);
  }
  start_service(freshness.mirror.service, "inputs", 3500, run_start_ms);
  start_service(web.service, "web", 0, run_start_ms);
  start_service(log_watch.service, "log", 1500, run_start_ms);
  // The link and the modem's and receiver's figures start as not yet there: their first "up"
  // says when they came.
  start_service(modem.link, "link", 1500, run_start_ms);
  start_service(modem.signal.service, "modem", 7000, run_start_ms);
  start_service(modem.position.service, "position", 7000, run_start_ms);
  modem.link.down = modem.signal.service.down = modem.position.service.down = true;
  if (modem.enabled) modem.dial(run_start_ms);
  event("load_started ports=12");

  std::int64_t next_second = run_start_ms;
  std::int64_t next_relay = run_start_ms + 2000;
  const auto seconds_since_start = [] { return static_cast<double>(wall_ms() - run_start_ms) / 1000.0; };
  while (seconds_since_start() < duration) {
    const double elapsed = seconds_since_start();
    for (Stream& s : streams) s.send(elapsed);
    for (Stream& s : streams) {
      s.receive();
      s.service.check(wall_ms());
    }
    freshness.read(wall_ms());
    std::int64_t now = wall_ms();
    web.pass(now);
    log_watch.pass(now);
    relays.check(now);
    if (now >= next_relay) {
      relays.switch_next(now);
      next_relay += 2000;
    }
    if (now >= next_second) {
      modem.pass(now);
      freshness.set_next(now);
      read_inputs();
      write_counters();
      next_second += 1000;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  // Nothing more is sent; what is still on its way has 3 s to come back.
  const std::int64_t drain_until = wall_ms() + 3000;
  while (wall_ms() < drain_until) {
    for (Stream& s : streams) s.receive();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  for (Stream& s : streams) s.close();
  // How each service stands at the end: every one must be there.
  for (const Service* s : {&freshness.mirror.service, &log_watch.service, &web.service, &modem.link, &modem.signal.service,
                           &modem.position.service}) {
    event("end service=%s state=%s", s->name, s->down ? "down" : "up");
  }
  write_counters();
  event("done");
  std::fclose(events);
  // The SDK's threads never end: leave without running static destructors under them.
  _exit(0);
}
