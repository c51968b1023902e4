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

#include "sim/control.h"

namespace fsu::sim {
namespace {

// The modems a unit may carry, by the row the SDK knows them by: model, USB id, AT device.
struct Model {
  const char* name;
  const char* usb_id;
  const char* at_device;
};
constexpr Model kModels[] = {
    {"ZTE3630", "19d2:1509", "/dev/ttyUSB1"},    {"N720CA04", "2949:8243", "/dev/ttyUSB3"},
    {"gprs", "0001:0001", "/dev/ttyS6"},         {"ZTE3630c3b", "19d2:1476", "/dev/ttyUSB1"},
    {"N720CA05", "05c6:8241", "/dev/ttyUSB0"},   {"N720CA61s2", "2949:8247", "/dev/ttyUSB2"},
    {"ZTE3630", "19d2:1432", "/dev/ttyUSB1"},    {"ZTE3630tty_GW", "0001:0001", "/dev/ttyS6"},
    {"DTM8909", "1d9f:9c05", "/dev/ttyUSB3"},    {"EC20", "2c7c:0125", "/dev/ttyUSB3"},
    {"M820", "2c7c:6026", "/dev/ttyUSB3"},       {"M820", "2c7c:6002", "/dev/ttyUSB3"},
    {"M820", "2c7c:6005", "/dev/ttyUSB3"},       {"M620", "1286:4e3c", "/dev/ttyUSB3"},
    {"M820", "05c6:9025", "/dev/ttyUSB3"},       {"M820", "2949:8700", "/dev/ttyUSB5"},
    {"N58", "2949:7402", "/dev/ttyUSB2"},        {"EC20", "2c7c:0904", "/dev/ttyUSB2"},
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
// Quectel models (EC20, M820) answer in the longer shapes seen in the field.
bool long_replies(int row) { return row >= 10 && row != 14 && row != 17; }

}  // namespace

Modem::Modem(std::string root, Report report) : root_(std::move(root)), report_(std::move(report)) {
  unlink((root_ + "/sim/ppp0").c_str());
  refresh(0);
}

Modem::~Modem() {
  close_port();
  set_link(false);
}

bool Modem::available(double now) const { return plugged_ && powered_ && now >= ready_at_; }

void Modem::refresh(double now) {
  const bool up = available(now);
  if (up == port_up_) return;
  port_up_ = up;
  if (up) {
    open_port();
  } else {
    close_port();
    set_link(false);
    dial_at_ = std::numeric_limits<double>::infinity();
    echo_ = true;  // a modem comes back with its factory echo
  }
  write_usb();
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

void Modem::restart(double now) {
  ++restarts_;
  // The port stays but is silent while the modem boots; the data link is gone.
  quiet_until_ = now + boot_delay_;
  set_link(false);
  dial_at_ = std::numeric_limits<double>::infinity();
  echo_ = true;
}

std::string Modem::command(std::span<const std::string_view> args, double now) {
  if (args.empty()) return "needs a setting";
  const std::string_view what = args[0];
  const std::string_view value = args.size() > 1 ? args[1] : std::string_view();
  int number = 0;
  const auto one = [&](bool ok, const char* why) { return args.size() == 2 && ok ? std::string() : std::string(why); };
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
    error = args.size() == 1 ? "" : "takes no value";
    if (error.empty()) plugged_ = what == "plug";
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
    constexpr std::string_view kShapes[] = {"bare", "colon", "colon-space", "quoted", "quoted-space", "hex"};
    error = one(std::find(std::begin(kShapes), std::end(kShapes), value) != std::end(kShapes),
                "imei-reply bare|colon|colon-space|quoted|quoted-space|hex");
    if (error.empty()) imei_reply_ = std::string(value);
  } else if (what == "silent") {
    bool silent = false;
    error = one(switch_word(value, "on", "off", &silent), "silent on|off");
    if (error.empty()) silent_ = silent;
  } else if (what == "stream") {
    error = one(switch_word(value, "on", "off", &stream_), "stream on|off");
    next_stream_ = now;
  } else if (what == "unsolicited") {
    error = args.size() > 1 ? "" : "needs the line to send";
    if (error.empty() && port_up_) {
      std::string text;
      for (std::size_t i = 1; i < args.size(); ++i) text += (i > 1 ? " " : "") + std::string(args[i]);
      reply("\r\n" + text + "\r\n");
      service(now);  // on the port before the control line counts as applied
    }
  } else if (what == "cut" || what == "flood" || what == "garbage") {
    error = args.size() == 1 ? "" : "takes no value";
    if (error.empty()) next_fault_ = std::string(what);
  } else if (what == "link-drop" || what == "hangup") {
    error = args.size() == 1 ? "" : "takes no value";
    if (error.empty()) {
      set_link(false);
      dial_at_ = std::numeric_limits<double>::infinity();
    }
  } else if (what == "dial") {
    error = args.size() == 1 ? "" : "takes no value";
    if (error.empty() && available(now)) {
      ++dials_;
      dial_at_ = now + dial_delay_;
    }
  } else if (what == "boot-delay" || what == "dial-delay") {
    double seconds = 0;
    error = one(seconds_in(value, &seconds), "seconds are 0 to 600");
    if (error.empty()) (what == "boot-delay" ? boot_delay_ : dial_delay_) = seconds;
  } else {
    error = "no setting " + quoted_line(what);
  }
  refresh(now);
  if (!(registered_ && sim_)) set_link(false);
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
  } else if (value == '1' && !powered_) {
    powered_ = true;
    ++power_cycles_;
    ready_at_ = now + boot_delay_;
  }
  refresh(now);
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
    dial_at_ = std::numeric_limits<double>::infinity();
    if (available(now) && now >= quiet_until_ && registered_ && sim_) set_link(true);
  }
}

double Modem::due() const {
  const bool booting = plugged_ && powered_ && !port_up_;
  const double next = stream_ ? std::min(dial_at_, next_stream_) : dial_at_;
  return booting ? std::min(next, ready_at_) : next;
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
    // A modem that boots or has fallen silent takes what it is sent and answers nothing.
    if (!available(now) || silent_ || now < quiet_until_) continue;
    for (ssize_t i = 0; i < n; ++i) {
      const char c = buf[i];
      if (c == '\r' || c == '\n') {
        if (echo_ && c == '\r') reply(line_ + "\r");
        if (!line_.empty()) answer(line_, now);
        line_.clear();
      } else if (line_.size() < kMaxCommand) {
        line_ += c;
      }
    }
  }
  while (!out_.empty()) {
    const std::span<const std::uint8_t> run = out_.front();
    const ssize_t n = write(pty_.master(), run.data(), run.size());
    if (n <= 0) break;
    out_.pop(static_cast<std::size_t>(n));
  }
}

void Modem::reply(const std::string& text) {
  out_.push({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

void Modem::answer(std::string_view typed, double now) {
  ++commands_;
  std::string command(typed);
  for (char& c : command) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const bool on_net = registered_ && sim_;
  std::string lines;
  const auto line = [&lines](const std::string& text) { lines += "\r\n" + text + "\r\n"; };
  bool ok = true;
  if (command == "AT" || command == "ATH") {
  } else if (command == "ATE0" || command == "ATE1") {
    echo_ = command == "ATE1";
  } else if (command == "AT+CSQ") {
    line("+CSQ: " + std::to_string(rssi_) + ",99");
  } else if (command == "AT^SYSINFO") {
    line("^SYSINFO:" + std::string(long_replies(row_) ? " " : "") + (on_net ? "2,3,0," : "0,0,0,") +
         std::to_string(on_net ? system_mode(generation_) : 0) + "," + (sim_ ? "1" : "255") +
         (long_replies(row_) ? ",0," + std::to_string(on_net ? system_mode(generation_) : 0) : ""));
  } else if (command == "AT+CIMI") {
    if (sim_) {
      line(row_ == 17 ? "+CIMI: " + imsi_ : imsi_);
    } else {
      lines += "\r\n+CME ERROR: 10\r\n";
      ok = false;
    }
  } else if (command == "AT+CGSN") {
    if (imei_reply_ == "hex") {
      char hex[32];
      std::snprintf(hex, sizeof hex, "0x%llX", std::strtoull(imei_.c_str(), nullptr, 10));
      line(hex);
    } else {
      const std::string quote = imei_reply_.starts_with("quoted") ? "\"" : "";
      const std::string prefix = imei_reply_ == "bare" ? "" : imei_reply_.ends_with("space") ? "+CGSN: " : "+CGSN:";
      line(prefix + quote + imei_ + quote);
    }
  } else if (command == "AT+CREG?") {
    const std::string status = std::to_string(on_net ? 1 : sim_ ? 2 : 0);
    line(long_replies(row_) ? "+CREG: 2," + status + ",\"2A3B\",\"0C1D2E3F\"," + std::to_string(access_technology(generation_))
                            : "+CREG: 0," + status);
  } else if (command == "AT+COPS?") {
    const std::string name = long_replies(row_) ? "0,2,\"46000\"," : "0,0,\"CHINA MOBILE\",";
    line(on_net ? "+COPS: " + name + std::to_string(access_technology(generation_)) : "+COPS: 0");
  } else if (command == "AT+CFUN=1,1") {
    reply("\r\nOK\r\n");
    restart(now);
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
  }
  next_fault_.clear();
  reply(lines);
}

void Modem::describe(std::string& out) const {
  const Model& model = kModels[row_ - 1];
  const char* state = !plugged_ ? "unplugged" : !powered_ ? "off" : !port_up_ ? "booting" : silent_ ? "silent" : "ready";
  out += "modem row=" + std::to_string(row_) + " model=" + model.name + " usb=" + model.usb_id +
         " at=" + model.at_device + " state=" + state + " sim=" + (sim_ ? "present" : "absent") +
         " registered=" + (registered_ ? "yes" : "no") + " signal=" + std::to_string(rssi_) +
         " net=" + std::to_string(generation_) + "G imsi=" + imsi_ + " imei=" + imei_ +
         " imei_reply=" + imei_reply_ + " echo=" + (echo_ ? "on" : "off") +
         " silent=" + (silent_ ? "on" : "off") + " stream=" + (stream_ ? "on" : "off") + " next_fault=" + (next_fault_.empty() ? "none" : next_fault_) +
         " commands=" + std::to_string(commands_) + " restarts=" + std::to_string(restarts_) +
         " power_cycles=" + std::to_string(power_cycles_) + "\n";
  out += std::string("link ppp0 state=") + (link_up_ ? "up address=" + address_ : "down") +
         " dials=" + std::to_string(dials_) + "\n";
}

}  // namespace fsu::sim
