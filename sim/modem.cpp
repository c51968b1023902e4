#include "sim/modem.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "platform/clock.h"
#include "sim/control.h"

namespace fsu::sim {
namespace {

// What a modem says by itself as it comes up, and how long after its port appeared.
struct BootLine {
  double after;
  const char* text;
};
constexpr BootLine kZteBoot[] = {{0, "+ZSTART"}, {0.5, "+CPIN: READY"}, {1.5, "+ZPBIC: 1"}};
constexpr BootLine kNeowayBoot[] = {{0, "+CPIN: READY"}, {1, "+PBREADY"}};
constexpr BootLine kSerialBoot[] = {{0, "RDY"}, {0.3, "+CPIN: READY"}, {1.5, "Call Ready"}, {2, "SMS Ready"}};
constexpr BootLine kOtherBoot[] = {{0, "^SIMST: 1"}, {0.5, "+CPIN: READY"}};
constexpr BootLine kQuectelBoot[] = {{0, "RDY"},        {0.1, "+CFUN: 1"},        {0.3, "+CPIN: READY"},
                                     {0.3, "+QUSIM: 1"}, {1.5, "+QIND: SMS DONE"}, {2.5, "+QIND: PB DONE"}};

// A maker's modems: their boot lines, whether they echo after a boot (some keep a saved ATE0),
// whether they answer AT+CGSN in hexadecimal, and whether they answer in the longer shapes seen
// in the field (^SYSINFO with a blank and seven fields, +CREG with LAC, CI and technology,
// +COPS with the numeric operator).
struct Family {
  std::span<const BootLine> boot;
  bool echo;
  bool hex_imei;
  bool long_replies;
};
constexpr Family kZte{kZteBoot, true, true, false};
constexpr Family kNeoway{kNeowayBoot, false, false, false};
constexpr Family kSerial{kSerialBoot, true, false, false};
constexpr Family kOther{kOtherBoot, true, false, false};
constexpr Family kQuectel{kQuectelBoot, true, false, true};

// The modems a unit may carry, by the row the SDK knows them by: model, USB id, AT device, data
// device (the port PPP runs on), family, and the row's own ways: ^SYSINFO known, +CIMI prefixed.
struct Model {
  const char* name;
  const char* usb_id;
  const char* at_device;
  const char* data_device;
  const Family& family;
  bool sysinfo = true;
  bool cimi_prefix = false;
};
const Model kModels[] = {
    {"ZTE3630", "19d2:1509", "/dev/ttyUSB1", "/dev/ttyUSB2", kZte},
    {"N720CA04", "2949:8243", "/dev/ttyUSB3", "/dev/ttyUSB1", kNeoway},
    {"gprs", "0001:0001", "/dev/ttyS6", "/dev/ttyS6", kSerial},
    {"ZTE3630c3b", "19d2:1476", "/dev/ttyUSB1", "/dev/ttyUSB2", kZte},
    {"N720CA05", "05c6:8241", "/dev/ttyUSB0", "/dev/ttyUSB2", kNeoway},
    {"N720CA61s2", "2949:8247", "/dev/ttyUSB2", "/dev/ttyUSB0", kNeoway},
    {"ZTE3630", "19d2:1432", "/dev/ttyUSB1", "/dev/ttyUSB2", kZte},
    {"ZTE3630tty_GW", "0001:0001", "/dev/ttyS6", "/dev/ttyS6", kSerial},
    {"DTM8909", "1d9f:9c05", "/dev/ttyUSB3", "/dev/ttyUSB1", kOther},
    {"EC20", "2c7c:0125", "/dev/ttyUSB3", "/dev/ttyUSB2", kQuectel},
    {"M820", "2c7c:6026", "/dev/ttyUSB3", "/dev/ttyUSB3", kQuectel},
    {"M820", "2c7c:6002", "/dev/ttyUSB3", "/dev/ttyUSB3", kQuectel},
    {"M820", "2c7c:6005", "/dev/ttyUSB3", "/dev/ttyUSB3", kQuectel},
    {"M620", "1286:4e3c", "/dev/ttyUSB3", "/dev/ttyUSB4", kOther},
    {"M820", "05c6:9025", "/dev/ttyUSB3", "/dev/ttyUSB2", kQuectel},
    {"M820", "2949:8700", "/dev/ttyUSB5", "/dev/ttyUSB7", kQuectel},
    {"N58", "2949:7402", "/dev/ttyUSB2", "/dev/ttyUSB4", kNeoway, true, true},
    {"EC20", "2c7c:0904", "/dev/ttyUSB2", "/dev/ttyUSB2", kQuectel, false},
};
constexpr int kRows = static_cast<int>(std::size(kModels));

constexpr char kHubs[] =
    "Bus 002 Device 001: ID 1d6b:0002 Linux Foundation 2.0 root hub\n"
    "Bus 001 Device 001: ID 1d6b:0002 Linux Foundation 2.0 root hub\n";
// A command line longer than this is dropped, as a modem's input buffer would.
constexpr std::size_t kMaxCommand = 512;
constexpr std::size_t kFloodBytes = 8192 + 256;
// A streaming port: a never-ending line of binary noise (XOFF among it, no line end) at about
// the 11.5 kB/s of 115200 baud, in runs every 10 ms; while nobody reads, at most a few runs wait.
constexpr double kStreamPeriod = 0.01;
constexpr std::size_t kStreamRun = 115;
constexpr std::size_t kStreamBacklog = 4 * kStreamRun;
constexpr std::string_view kNoise{"\x13\xff\x7e\x00\x1b[2J\x80\xfe\xc3\x28\x9f\x13" "AT^\x01\x7f\xf0\x9f\x98", 22};

bool number_in(std::string_view word, int lo, int hi, int* out) {
  const auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), *out);
  return ec == std::errc() && end == word.data() + word.size() && *out >= lo && *out <= hi;
}

bool seconds_in(std::string_view word, double* out) {
  const auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), *out);
  return ec == std::errc() && end == word.data() + word.size() && *out >= 0 && *out <= 600;
}

bool switch_word(std::string_view word, std::string_view on, std::string_view off, bool* out) {
  if (word != on && word != off) return false;
  *out = word == on;
  return true;
}

// ^SYSINFO system mode and +COPS access technology of a network generation.
int system_mode(int generation) { return generation == 2 ? 3 : generation == 3 ? 5 : 17; }
int access_technology(int generation) { return generation == 2 ? 0 : generation == 3 ? 6 : 7; }
// A restart by command is acknowledged before the modem leaves USB.
constexpr double kRestartAfter = 0.2;
constexpr double kNever = std::numeric_limits<double>::infinity();
constexpr int kMaxInterleave = 8;
constexpr double kDefaultBoot = 4;

}  // namespace

Modem::Modem(std::string root, Report report) : root_(std::move(root)), report_(std::move(report)) {
  unlink((root_ + "/sim/ppp0").c_str());
  refresh(platform::monotonic_seconds());  // powered with the board
}

Modem::~Modem() {
  close_port();
  set_link(false);
}

bool Modem::available(double now) const { return plugged_ && powered_ && now >= ready_at_; }

bool Modem::on_net(double now) const { return registered_ && sim_ && now >= up_since_ + register_delay_; }

bool Modem::link_holds_port() const {
  const Model& model = kModels[row_ - 1];
  return link_up_ && std::strcmp(model.at_device, model.data_device) == 0;
}

void Modem::refresh(double now) {
  const bool up = available(now);
  if (up == port_up_) return;
  port_up_ = up;
  if (up) {
    open_port();
    come_up(now);
  } else {
    close_port();
    set_link(false);
    dial_at_ = kNever;
  }
  write_usb();
}

// Back on USB after a boot: the factory echo of its model, registration starting over, and its
// boot lines from now on.
void Modem::come_up(double now) {
  up_since_ = now;
  boot_sent_ = 0;
  echo_ = kModels[row_ - 1].family.echo;
  send_boot_lines(now);
}

// When the next boot line is due. The lines follow each other over the model's times for the
// default boot (4 s), closer together for a quicker one, and all at once for a boot of 0 s.
double Modem::boot_line_due() const {
  const std::span<const BootLine> boot = kModels[row_ - 1].family.boot;
  if (!port_up_ || boot_sent_ >= boot.size()) return kNever;
  return up_since_ + boot[boot_sent_].after * std::min(1.0, boot_delay_ / kDefaultBoot);
}

void Modem::send_boot_lines(double now) {
  const std::span<const BootLine> boot = kModels[row_ - 1].family.boot;
  for (; now >= boot_line_due(); ++boot_sent_) {
    reply("\r\n" + std::string(boot[boot_sent_].text) + "\r\n");
    ++urcs_;
  }
}

void Modem::open_port() {
  std::string error;
  if (!pty_.open(&error)) {
    report_("modem: " + error);
    return;
  }
  // A USB serial port comes up with the tty's default input flags, XON/XOFF among them;
  // whoever opens it decides whether to keep them.
  termios tio{};
  if (tcgetattr(pty_.master(), &tio) == 0) {
    tio.c_iflag = ICRNL | IXON;
    tcsetattr(pty_.master(), TCSANOW, &tio);
  }
  at_link_ = root_ + kModels[row_ - 1].at_device;
  const std::string tmp = at_link_ + ".new";
  unlink(tmp.c_str());
  if (symlink(pty_.slave_path().c_str(), tmp.c_str()) != 0 || rename(tmp.c_str(), at_link_.c_str()) != 0) {
    report_("modem: cannot link " + at_link_ + ": " + std::strerror(errno));
    unlink(tmp.c_str());
    pty_.close();
    at_link_.clear();
  }
}

void Modem::close_port() {
  if (!at_link_.empty()) unlink(at_link_.c_str());
  at_link_.clear();
  pty_.close();
  out_.clear();
  line_.clear();
  swallowing_ = false;
}

void Modem::write_usb() const {
  std::string text = kHubs;
  if (port_up_) {
    text.insert(text.find('\n') + 1, std::string("Bus 001 Device 002: ID ") + kModels[row_ - 1].usb_id + " " +
                                         kModels[row_ - 1].name + " LTE modem\n");
  }
  replace_file(root_ + "/sim/usb", text);
}

void Modem::set_link(bool up) {
  if (up == link_up_) return;
  link_up_ = up;
  if (up) {
    replace_file(root_ + "/sim/ppp0", address_ + "\n");
  } else {
    unlink((root_ + "/sim/ppp0").c_str());
  }
}

// AT+CFUN=1,1: the modem leaves USB (listing, port and link gone) for its boot time, as a
// power-up does.
void Modem::restart(double now) {
  ++restarts_;
  restart_at_ = kNever;
  ready_at_ = now + boot_delay_;
  refresh(now);
}

std::string Modem::command(std::span<const std::string_view> args, double now) {
  if (args.empty()) return "needs a setting";
  const std::string_view what = args[0];
  const std::string_view value = args.size() > 1 ? args[1] : std::string_view();
  int number = 0;
  const auto one = [&](bool ok, const char* why) { return args.size() == 2 && ok ? std::string() : std::string(why); };
  const auto none = [&] { return args.size() == 1 ? std::string() : std::string("takes no value"); };
  std::string error;
  if (what == "row") {
    error = one(number_in(value, 1, kRows, &number), "row is 1 to 18");
    if (error.empty() && number != row_) {
      plugged_ = false;  // a different modem: out with the old one, in with the new
      refresh(now);
      row_ = number;
      plugged_ = true;
    }
  } else if (what == "plug" || what == "unplug") {
    if ((error = none()).empty()) plugged_ = what == "plug";
  } else if (what == "sim") {
    error = one(switch_word(value, "present", "absent", &sim_), "sim present|absent");
  } else if (what == "registered") {
    error = one(switch_word(value, "yes", "no", &registered_), "registered yes|no");
  } else if (what == "signal") {
    error = one(number_in(value, 0, 99, &number) && (number <= 31 || number == 99), "signal is 0 to 31, or 99");
    if (error.empty()) rssi_ = number;
  } else if (what == "net") {
    error = one(number_in(value, 2, 4, &number), "net is 2, 3 or 4");
    if (error.empty()) generation_ = number;
  } else if (what == "imsi" || what == "imei" || what == "address") {
    error = one(!value.empty() && value.size() <= 64, "needs a text of at most 64 characters");
    if (error.empty()) (what == "imsi" ? imsi_ : what == "imei" ? imei_ : address_) = std::string(value);
  } else if (what == "imei-reply") {
    constexpr std::string_view kShapes[] = {"model", "bare", "colon", "colon-space", "quoted", "quoted-space", "hex"};
    error = one(std::find(std::begin(kShapes), std::end(kShapes), value) != std::end(kShapes),
                "imei-reply model|bare|colon|colon-space|quoted|quoted-space|hex");
    if (error.empty()) imei_reply_ = value == "model" ? "" : std::string(value);
  } else if (what == "silent") {
    bool silent = false;
    error = one(switch_word(value, "on", "off", &silent), "silent on|off");
    if (error.empty()) silent_ = silent;
  } else if (what == "stream") {
    error = one(switch_word(value, "on", "off", &stream_), "stream on|off");
    next_stream_ = now;
  } else if (what == "urc") {
    error = args.size() > 1 ? "" : "needs the line to send";
    if (error.empty() && port_up_) {
      std::string text;
      for (std::size_t i = 1; i < args.size(); ++i) text += (i > 1 ? " " : "") + std::string(args[i]);
      reply("\r\n" + text + "\r\n");
      ++urcs_;
    }
  } else if (what == "cut" || what == "flood" || what == "garbage") {
    if ((error = none()).empty()) next_fault_ = std::string(what);
  } else if (what == "interleave") {
    error = one(number_in(value, 1, kMaxInterleave, &number), "interleave is 1 to 8 lines");
    if (error.empty()) {
      next_fault_ = "interleave";
      interleave_ = number;
    }
  } else if (what == "link-drop" || what == "hangup") {
    if ((error = none()).empty()) {
      set_link(false);
      dial_at_ = kNever;
    }
  } else if (what == "dial") {
    if ((error = none()).empty() && available(now)) {
      ++dials_;
      dial_at_ = now + dial_delay_;
    }
  } else if (what == "boot-delay" || what == "dial-delay" || what == "register-delay") {
    double seconds = 0;
    error = one(seconds_in(value, &seconds), "seconds are 0 to 600");
    if (error.empty()) (what == "boot-delay" ? boot_delay_ : what == "dial-delay" ? dial_delay_ : register_delay_) = seconds;
  } else {
    error = "no setting " + quoted_line(what);
  }
  refresh(now);
  if (!(registered_ && sim_)) set_link(false);
  flush();  // what the line made the modem say is on the port before the line counts as applied
  return error;
}

void Modem::tick(double now) {
  char value = '?';
  const int fd = open((root_ + "/sys/class/gpio/gpio12/value").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd >= 0) {
    if (read(fd, &value, 1) != 1) value = '?';
    close(fd);
  }
  if (value == '0' && powered_) {
    powered_ = false;
    restart_at_ = kNever;
  } else if (value == '1' && !powered_) {
    powered_ = true;
    ++power_cycles_;
    ready_at_ = now + boot_delay_;
  }
  if (now >= restart_at_) restart(now);
  refresh(now);
  send_boot_lines(now);
  if (stream_ && now >= next_stream_) {
    next_stream_ = now + kStreamPeriod;
    if (port_up_ && out_.size() < kStreamBacklog) {
      std::string run;
      while (run.size() < kStreamRun) run += kNoise;
      run.resize(kStreamRun);
      reply(run);
    }
  }
  if (now >= dial_at_) {
    // The dial script's one attempt: the link comes up only on a registered modem.
    dial_at_ = kNever;
    if (available(now) && on_net(now)) set_link(true);
  }
  flush();  // before sim/state shows the modem back
}

double Modem::due() const {
  double next = std::min(dial_at_, restart_at_);
  if (stream_) next = std::min(next, next_stream_);
  if (plugged_ && powered_ && !port_up_) next = std::min(next, ready_at_);
  return std::min(next, boot_line_due());
}

void Modem::add_poll_fds(std::vector<pollfd>& fds) const {
  if (pty_.master() < 0) return;
  fds.push_back({pty_.master(), static_cast<short>(POLLIN | (out_.empty() ? 0 : POLLOUT)), 0});
}

void Modem::service(double now) {
  if (pty_.master() < 0) return;
  char buf[1024];
  for (;;) {
    const ssize_t n = read(pty_.master(), buf, sizeof buf);
    if (n <= 0) break;
    // A modem that has fallen silent takes what it is sent and answers nothing.
    if (!available(now) || silent_) continue;
    for (ssize_t i = 0; i < n; ++i) hear(buf[i], now);
  }
  flush();
}

void Modem::flush() {
  if (pty_.master() < 0) return;
  while (!out_.empty()) {
    const std::span<const std::uint8_t> run = out_.front();
    const ssize_t n = write(pty_.master(), run.data(), run.size());
    if (n <= 0) break;
    out_.pop(static_cast<std::size_t>(n));
  }
}

void Modem::hear(char c, double now) {
  const bool line_end = c == '\r' || c == '\n';
  if (line_.empty() && !line_end && link_holds_port()) {
    // The port belongs to PPP while the link is up: a command written there lands in the data
    // stream, the peer sees broken frames and the call ends. The rest of the line is data too.
    ++at_on_link_;
    set_link(false);
    dial_at_ = kNever;
    swallowing_ = true;
    reply("\r\nNO CARRIER\r\n");
    return;
  }
  if (swallowing_) {
    swallowing_ = !line_end;
    return;
  }
  if (line_end) {
    if (echo_ && c == '\r') reply(line_ + "\r");
    if (!line_.empty()) answer(line_, now);
    line_.clear();
  } else if (line_.size() < kMaxCommand) {
    line_ += c;
  }
}

void Modem::reply(const std::string& text) {
  out_.push({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

std::string Modem::imei_shape() const {
  if (!imei_reply_.empty()) return imei_reply_;
  return kModels[row_ - 1].family.hex_imei ? "hex" : "bare";
}

void Modem::answer(std::string_view typed, double now) {
  ++commands_;
  std::string command(typed);
  for (char& c : command) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const Model& model = kModels[row_ - 1];
  const bool long_replies = model.family.long_replies;
  const bool net = on_net(now);
  std::string lines;
  const auto line = [&lines](const std::string& text) { lines += "\r\n" + text + "\r\n"; };
  bool ok = true;
  if (command == "AT" || command == "ATH") {
  } else if (command == "ATE0" || command == "ATE1") {
    echo_ = command == "ATE1";
  } else if (command == "AT+CSQ") {
    line("+CSQ: " + std::to_string(rssi_) + ",99");
  } else if (command == "AT^SYSINFO" && model.sysinfo) {
    const std::string mode = std::to_string(net ? system_mode(generation_) : 0);
    line("^SYSINFO:" + std::string(long_replies ? " " : "") + (net ? "2,3,0," : "0,0,0,") + mode + "," +
         (sim_ ? "1" : "255") + (long_replies ? ",0," + mode : ""));
  } else if (command == "AT+CIMI") {
    if (sim_) {
      line(model.cimi_prefix ? "+CIMI: " + imsi_ : imsi_);
    } else {
      lines += "\r\n+CME ERROR: 10\r\n";
      ok = false;
    }
  } else if (command == "AT+CGSN") {
    const std::string shape = imei_shape();
    if (shape == "hex") {
      char hex[32];
      std::snprintf(hex, sizeof hex, "0x%llX", std::strtoull(imei_.c_str(), nullptr, 10));
      line(hex);
    } else {
      const std::string quote = shape.starts_with("quoted") ? "\"" : "";
      const std::string prefix = shape == "bare" ? "" : shape.ends_with("space") ? "+CGSN: " : "+CGSN:";
      line(prefix + quote + imei_ + quote);
    }
  } else if (command == "AT+CREG?") {
    const std::string status = std::to_string(net ? 1 : sim_ ? 2 : 0);
    line(long_replies ? "+CREG: 2," + status + ",\"2A3B\",\"0C1D2E3F\"," + std::to_string(access_technology(generation_))
                      : "+CREG: 0," + status);
  } else if (command == "AT+COPS?") {
    const std::string name = long_replies ? "0,2,\"46000\"," : "0,0,\"CHINA MOBILE\",";
    line(net ? "+COPS: " + name + std::to_string(access_technology(generation_)) : "+COPS: 0");
  } else if (command == "AT+CFUN=1,1") {
    reply("\r\nOK\r\n");
    restart_at_ = now + kRestartAfter;
    return;
  } else {
    lines += "\r\nERROR\r\n";
    ok = false;
  }
  if (ok) lines += "\r\nOK\r\n";
  if (next_fault_ == "cut") {
    lines.resize(lines.size() / 2);
  } else if (next_fault_ == "flood") {
    lines.insert(0, std::string(kFloodBytes, 'X'));
  } else if (next_fault_ == "garbage") {
    static constexpr char kGarbage[] = "\x00\xff\x7e\x00\x01\x1b[2J\x80\x13\xfe\x00\r\xc3\x28\x00\x9f\x00";
    lines.insert(0, std::string(kGarbage, sizeof kGarbage - 1));
  } else if (next_fault_ == "interleave") {
    // Reports the modem sends on its own, arriving between the command and its reply.
    for (int i = 0; i < interleave_; ++i, ++urcs_) lines.insert(0, "\r\n+QIND: \"csq\"," + std::to_string(rssi_) + ",99\r\n");
  }
  next_fault_.clear();
  reply(lines);
}

void Modem::describe(std::string& out) const {
  const Model& model = kModels[row_ - 1];
  const double now = platform::monotonic_seconds();
  const char* state = !plugged_ ? "unplugged" : !powered_ ? "off" : !port_up_ ? "booting" : silent_ ? "silent" : "ready";
  const char* registered = !registered_ ? "no" : on_net(now) || !port_up_ ? "yes" : "searching";
  out += "modem row=" + std::to_string(row_) + " model=" + model.name + " usb=" + model.usb_id +
         " at=" + model.at_device + " data=" + model.data_device + " state=" + state +
         " sim=" + (sim_ ? "present" : "absent") + " registered=" + registered +
         " signal=" + std::to_string(rssi_) + " net=" + std::to_string(generation_) + "G imsi=" + imsi_ +
         " imei=" + imei_ + " imei_reply=" + imei_shape() + " echo=" + (echo_ ? "on" : "off") +
         " silent=" + (silent_ ? "on" : "off") + " stream=" + (stream_ ? "on" : "off") +
         " next_fault=" + (next_fault_.empty() ? "none" : next_fault_) + " commands=" + std::to_string(commands_) +
         " urcs=" + std::to_string(urcs_) + " restarts=" + std::to_string(restarts_) +
         " power_cycles=" + std::to_string(power_cycles_) + "\n";
  out += std::string("link ppp0 state=") + (link_up_ ? "up address=" + address_ : "down") +
         " dials=" + std::to_string(dials_) + " at_on_link=" + std::to_string(at_on_link_) + "\n";
}

}  // namespace fsu::sim
