#include "lte/modem_queries.h"

#include <cstdio>
#include <cstring>
#include <iterator>

#include "lte/at_channel.h"
#include "platform/console_output.h"
#include "support/sdk_log.h"

namespace fsu::lte {

using support::SDK_LOG_NET;
using support::SDK_LOG_WRITE;

namespace {

// Leading decimal digits of `text`, saturated well inside int; 0 when there are none.
int leading_number(const char* text) {
  int value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) value = value > 100000000 ? value : value * 10 + (*text - '0');
  return value;
}

// The frame of every query: the port open for the exchange, closed on every way out.
class Port {
 public:
  explicit Port(const char* atdev) : open_(at_port_open(atdev) == 0) {}
  ~Port() { at_port_close(); }
  bool open() const { return open_; }

 private:
  bool open_;
};

int simple_exchange(const char* atdev, const char* command, int lines) {
  Port port(atdev);
  if (!port.open()) return -1;
  return write_wait_read(command, "OK", out_put, sizeof out_put, lines, 1) == kAtOk ? 1 : -1;
}

// The modem said it has no service: on the second time in a row the link counts as down and
// the generation as unknown, until it has service again.
void no_service() {
  if (NTU.noservice.fetch_add(1) + 1 >= 2) ntu_set_text(NtuText::nettype, "0");
}

// Identities are runs of at least this many digits; shorter runs (a signal, a status) are not.
constexpr std::size_t kIdentityRun = 6;

// Ends `text` at the first `cut` within it.
void cut_at(char* text, const char* cut) {
  if (char* at = std::strstr(text, cut)) *at = '\0';
}

}  // namespace

int send_ate(const char* atdev) { return simple_exchange(atdev, "ATE0", 2); }
int send_ath(const char* atdev) { return simple_exchange(atdev, "ATH", 1); }
int send_DialSoftReboot(const char* atdev) { return simple_exchange(atdev, "AT+CFUN=1,1", 2); }

int readCSQState(char* reply) {
  char* cursor = reply;
  int rssi = 0;
  int ber = 0;
  if (at_tok_start(&cursor) < 0 || at_tok_nextint(&cursor, &rssi) < 0 || at_tok_nextint(&cursor, &ber) < 0) {
    return -999;
  }
  return rssi;
}

void csq_text(int rssi, char (&out)[kNtuTextSize]) {
  int dbm = 0;
  if (rssi == 99 || rssi <= 3) {
    std::snprintf(out, sizeof out, "-107");
    return;
  }
  if (rssi <= 9) {
    dbm = rssi - 103;
  } else if (rssi <= 15) {
    dbm = rssi - 87;
  } else if (rssi <= 21) {
    dbm = rssi - 89;
  } else {
    dbm = rssi - 85;
  }
  std::snprintf(out, sizeof out, "%d", dbm);
}

int readcsq(const char* atdev) {
  Port port(atdev);
  if (!port.open()) return 0;
  const int result = write_wait_read("AT+CSQ", "+CSQ", out_put, sizeof out_put, 2, 1);
  SDK_LOG_WRITE(SDK_LOG_NET, "AT LTE_TEHED ret=%d,Line=%d;out_put=%s", result, __LINE__, out_put);
  if (result < 0) return -1;
  const int rssi = readCSQState(out_put);
  SDK_LOG_WRITE(SDK_LOG_NET, "AT LTE_TEHED ret=%d,Line=%d;out_put=%s", rssi, __LINE__, out_put);
  char csq[kNtuTextSize] = {};
  csq_text(rssi, csq);
  ntu_set_text(NtuText::csq, csq);
  return rssi == -999 ? 0 : 1;
}

const char* sysinfo_nettype(int system_mode) {
  switch (system_mode) {
    case 0: return "0";
    case 4: case 5: case 7: case 15: return "3";
    case 9: case 10: case 17: return "4";
    default: return "2";
  }
}

const char* cops_nettype(int access_technology) {
  switch (access_technology) {
    case 0: case 1: case 3: case 8: return "2";
    case 2: case 4: case 5: case 6: return "3";
    default: return access_technology >= 7 ? "4" : "0";
  }
}

int ParseRegistrationState_GT9615(char* reply) {
  char* cursor = reply;
  int status = 0, domain = 0, roaming = 0, mode = 0, sim = 0;
  if (at_tok_start(&cursor) < 0 || at_tok_nextint(&cursor, &status) < 0 || at_tok_nextint(&cursor, &domain) < 0 ||
      at_tok_nextint(&cursor, &roaming) < 0 || at_tok_nextint(&cursor, &mode) < 0 ||
      at_tok_nextint(&cursor, &sim) < 0) {
    return -1;
  }
  NTU.simstat.store(sim);
  NTU.srvstat.store(status);
  NTU.srvdomain.store(domain);
  NTU.siminfo.store(1);
  ntu_set_text(NtuText::nettype, sim == 1 ? "SIM_OK" : (sim == 0 || sim == 255) ? "SIMOVER" : "");
  if (status <= 0 || domain <= 0) {
    no_service();
    return -1;
  }
  NTU.noservice.store(0);
  ntu_set_text(NtuText::nettype, sysinfo_nettype(mode));
  return mode;
}

int read_sysinfo(const char* atdev) {
  Port port(atdev);
  if (!port.open()) return -1;
  if (write_wait_read("AT^SYSINFO", "^SYSINFO", out_put, sizeof out_put, 2, 2) < 0) return -1;
  const int mode = ParseRegistrationState_GT9615(out_put);
  if (mode > 0) return mode;
  mysleep(2);
  return -1;
}

int creg_status(const char* reply) {
  const char* comma = std::strchr(reply, ',');
  return comma == nullptr ? -1 : leading_number(comma + 1);
}

int read_creg(const char* atdev) {
  Port port(atdev);
  if (!port.open()) return -1;
  std::memset(out_put, 0, sizeof out_put);
  if (write_wait_read1("AT+CREG?", "OK", out_put, sizeof out_put, 2, 2) < 0) {
    fsu::platform::sdk_printf("AT+CREG=>%s\n", out_put);
    return -1;
  }
  fsu::platform::sdk_printf("AT+CREG?=%s\n", out_put);
  const int status = creg_status(out_put);
  if (status < 0) return -1;
  SDK_LOG_WRITE(SDK_LOG_NET, "CREG stat=%d", status);
  NTU.srvstat.store(status + 100);
  if (status != 1 && status != 5) {
    no_service();
    return -1;
  }
  NTU.noservice.store(0);
  return 1;
}

int cops_act(const char* reply) {
  const char* at = reply;
  for (int commas = 0; commas < 3; ++commas) {
    at = std::strchr(at, ',');
    if (at == nullptr) return -1;
    ++at;
  }
  return leading_number(at);
}

int read_cops(const char* atdev) {
  Port port(atdev);
  if (!port.open()) return -1;
  std::memset(out_put, 0, sizeof out_put);
  if (write_wait_read1("AT+COPS?", "OK", out_put, sizeof out_put, 2, 2) < 0) {
    fsu::platform::sdk_printf("AT+COPS=>%s\n", out_put);
    return -1;
  }
  fsu::platform::sdk_printf("AT+COPS? =>%s\n", out_put);
  const int act = cops_act(out_put);
  if (act < 0) return -1;
  ntu_set_text(NtuText::nettype, cops_nettype(act));
  SDK_LOG_WRITE(SDK_LOG_NET, "COPS ACT=%sG(act=%d)", cops_nettype(act), act);
  return 1;
}

bool identity_digits(const char* text, std::size_t min_digits, std::size_t max_digits, char (&out)[kNtuTextSize]) {
  std::memset(out, 0, sizeof out);
  const char* found = nullptr;
  std::size_t found_length = 0;
  for (const char* p = text; *p != '\0';) {
    const char* run = p;
    while (*p >= '0' && *p <= '9') ++p;
    const auto length = static_cast<std::size_t>(p - run);
    if (length >= kIdentityRun) {
      if (found != nullptr) return false;  // two candidates: which one is ours cannot be told
      found = run;
      found_length = length;
    }
    if (length == 0) ++p;
  }
  if (found == nullptr || found_length < min_digits || found_length > max_digits || found_length >= sizeof out) {
    return false;
  }
  std::memcpy(out, found, found_length);
  return true;
}

bool is_imsi(const char* text) {
  char digits[kNtuTextSize];
  return text != nullptr && identity_digits(text, 6, 15, digits) && std::strcmp(digits, text) == 0;
}

bool is_imei(const char* text) {
  char digits[kNtuTextSize];
  return text != nullptr && identity_digits(text, 15, 15, digits) && std::strcmp(digits, text) == 0;
}

int parse_cimi(char* reply, char (&cimi)[kNtuTextSize]) {
  if (char* echo = std::strstr(reply, "AT+CIMI")) {
    const char* rest = echo + std::strlen("AT+CIMI");
    std::memmove(reply, rest, std::strlen(rest) + 1);
  }
  cut_at(reply, "OK");
  return identity_digits(reply, 6, 15, cimi) ? 1 : -1;
}

int read_MINI1(const char* atdev) {
  Port port(atdev);
  if (!port.open()) return -1;
  std::memset(out_put, 0, sizeof out_put);
  if (write_wait_read1("AT+CIMI", "OK", out_put, sizeof out_put, 2, 2) < 0) {
    fsu::platform::sdk_printf("AT+CIMI=>%s\n", out_put);
    return -1;
  }
  fsu::platform::sdk_printf("AT+CIMI=%s\n", out_put);
  ntu_set_text(NtuText::cimi, "");
  char cimi[kNtuTextSize];
  if (parse_cimi(out_put, cimi) < 0) return -1;
  ntu_set_text(NtuText::cimi, cimi);
  return 1;
}

void read_MINI(const char* atdev) {
  Port port(atdev);
  if (!port.open()) return;
  const int result = write_wait_read("AT+CIMI", "+CIMI: ", out_put, sizeof out_put, 2, 2);
  fsu::platform::sdk_printf("AT+CIMI=%s\n", out_put);
  if (result == kAtOk) {
    ntu_set_text(NtuText::cimi, "");
    char cimi[kNtuTextSize];
    char reply[kOutPutSize];
    std::memcpy(reply, out_put, sizeof reply);
    if (parse_cimi(reply, cimi) == 1) ntu_set_text(NtuText::cimi, cimi);
  }
  // After a failed exchange out_put still holds the previous reply, and that decides.
  NTU.CardStat.store(std::strstr(out_put, "4600") != nullptr ? 1 : 0);
}

int c2i(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::int64_t hex2dec(const char* text) {
  const std::size_t n = std::strlen(text);
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const std::size_t shift = 4 * (n - 1 - i);
    // Digits shifted past 64 bits leave nothing; -1 (not a digit) sets every bit from its place up.
    if (shift < 64) value |= static_cast<std::uint64_t>(static_cast<std::int64_t>(c2i(text[i]))) << shift;
  }
  return static_cast<std::int64_t>(value);
}

namespace {

// The IMEI written in hexadecimal after "0X" (up to the end of the text), in 15 decimal digits.
bool hexadecimal_imei(const char* hex, char (&imei)[kNtuTextSize]) {
  std::memset(imei, 0, sizeof imei);
  const std::size_t n = std::strlen(hex);
  // 999999999999999, the largest IMEI, has 13 hexadecimal digits.
  if (n == 0 || n > 13 || std::strspn(hex, "0123456789ABCDEFabcdef") != n) return false;
  char decimal[24];
  std::snprintf(decimal, sizeof decimal, "%015lld", static_cast<long long>(hex2dec(hex)));
  return identity_digits(decimal, 15, 15, imei);
}

}  // namespace

int parse_imei(char* reply, char (&imei)[kNtuTextSize]) {
  struct Shape {
    const char* prefix;
    const char* cut;
  };
  // In the order they are tried: a shorter prefix also occurs in the longer replies.
  static constexpr Shape kPrefixed[] = {{"+CGSN:\"", "\"OK"}, {"+CGSN: \"", "\"OK"}, {"+CGSN: ", "OK"}, {"+CGSN:", "OK"}};
  if (std::strstr(reply, "AT") == nullptr && std::strstr(reply, "at") == nullptr &&
      std::strstr(reply, "+CGSN") == nullptr && std::strstr(reply, "OK") == nullptr) {
    return -1;
  }
  // The candidate's one run of 15 digits, or its hexadecimal number; anything else clears imei.
  const auto store = [&imei](const char* candidate, bool print) {
    const char* hex = std::strstr(candidate, "0X");
    if (!(hex != nullptr ? hexadecimal_imei(hex + 2, imei) : identity_digits(candidate, 15, 15, imei))) return 0;
    if (print) fsu::platform::sdk_printf("NTU.imei=%s\n", imei);
    return 1;
  };
  for (std::size_t i = 0; i < std::size(kPrefixed); ++i) {
    char* at = std::strstr(reply, kPrefixed[i].prefix);
    if (at == nullptr) continue;
    char* candidate = at + std::strlen(kPrefixed[i].prefix);
    cut_at(candidate, kPrefixed[i].cut);
    if (i == 0) fsu::platform::sdk_printf("###############%s,strlen(&ptr1[7])=%zu\n", at, std::strlen(candidate));
    if (i == 1) fsu::platform::sdk_printf("###############%s\n", at);
    return store(candidate, true);
  }
  if (std::strstr(reply, "AT+CGSN") != nullptr) {
    char* after_echo = reply + 7;
    cut_at(after_echo, "OK");
    return store(after_echo, false);
  }
  if (std::strstr(reply, "OK") != nullptr || std::strstr(reply, "ok") != nullptr) {
    cut_at(reply, "OK");
    return store(reply, true);
  }
  return -1;
}

int readIMEI(const char* atdev) {
  Port port(atdev);
  if (!port.open()) return 0;
  std::memset(out_put, 0, sizeof out_put);
  if (write_wait_readcimi("AT+CGSN", "OK", out_put, sizeof out_put, 4, 1) < 0) return 0;
  char imei[kNtuTextSize];
  const int result = parse_imei(out_put, imei);
  if (result >= 0) ntu_set_text(NtuText::imei, imei);
  return result > 0 ? 1 : 0;
}

int readEC800_info(const char* atdev) {
  NTU.siminfo.store(1);
  if (read_MINI1(atdev) < 0) {
    NTU.simstat.store(0);
    return -1;
  }
  NTU.simstat.store(1);
  fsu::platform::sdk_printf("EC800 SIM OK\r\n");
  if (read_creg(atdev) < 0) return -1;
  fsu::platform::sdk_printf("EC800 CREG OK\r\n");
  read_cops(atdev);
  return 1;
}

}  // namespace fsu::lte
