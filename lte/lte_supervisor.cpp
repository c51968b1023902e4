#include "lte/lte_supervisor.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

#include "lte/at_channel.h"
#include "lte/modem_discovery.h"
#include "lte/modem_queries.h"
#include "lte/ntu.h"
#include "platform/clock.h"
#include "platform/command_runner.h"
#include "platform/console_output.h"
#include "platform/sandbox_root.h"
#include "support/sdk_log.h"

namespace fsu::lte {

using support::SDK_LOG_NET;
using support::SDK_LOG_WRITE;

std::atomic<int> atecount{0};

namespace {

pthread_t lte_thread;
int lte_th_index = 0;
std::atomic<long> dial_settle_ms{5000};
std::atomic<long> power_off_ms{5000};

bool row_is(int row, std::initializer_list<int> rows) {
  for (const int r : rows) {
    if (r == row) return true;
  }
  return false;
}

// A modem was listed on USB, and a later listing lacked it.
bool modem_left = false;
// The identities have been answered by the modem since the start. Until then those reloaded
// from /tmp/Globalp.ini are shown, but the modem is asked: its SIM may have been swapped while
// the application was stopped.
bool cimi_answered = false;
bool imei_answered = false;
// Until this monotonic time a dial request waits for the modem to answer again after a power cycle.
double dial_waits_until = 0;
constexpr double kRestartSeconds = 60;
// On a row whose AT port is its data port, the dial script's chat and then PPP hold the port
// from the dial until the link is up, or until this long has passed without it.
constexpr double kDialHoldsPortSeconds = 30;
double dial_holds_port_until = 0;

// A device named with or without its folder ("ttyS6", "/dev/ttyS6"): the table has both.
const char* device_name(const char* device) {
  return std::strncmp(device, "/dev/", 5) == 0 ? device + 5 : device;
}

// Rows whose AT port is also the port PPP uses: no AT command while the link holds it.
bool shares_port(int row) {
  return row >= 1 && row <= ltemnum &&
         std::strcmp(device_name(ltemm[row - 1].data_device), device_name(ltemm[row - 1].at_device)) == 0;
}

using IdentityCheck = bool (*)(const char*);

// A saved identity replaces the field only when it is one (a file anyone may write under /tmp
// holds no identity until checked), the field is short and the saved text is not already what
// it holds.
void take_saved(NtuText field, const char* saved, IdentityCheck valid) {
  char current[kNtuTextSize];
  ntu_text(field, current);
  if (valid(saved) && std::strstr(saved, current) == nullptr && std::strlen(current) < 9 && std::strlen(saved) > 8) {
    ntu_set_text(field, saved);
  }
}

void load_saved(NtuText field, const char* key, IdentityCheck valid) {
  const char* saved = ReadPar(kGlobalpFile, key);
  ntu_set_text(field, valid(saved) ? saved : "");
}

// No modem, no link: what was read from it no longer holds.
void modem_gone() {
  ntu_set_text(NtuText::lteip, "");
  ntu_set_text(NtuText::lteip1, "");
  ntu_set_text(NtuText::nettype, "0");
}

// Between two USB listings, a modem whose AT port has vanished (pulled, or restarting) has no link.
void check_port_still_there() {
  char atdev[kNtuTextSize];
  ntu_text(NtuText::atdev, atdev);
  const platform::DevicePath port(atdev);
  if (atdev[0] != '\0' && port.ok() && access(port.c_str(), F_OK) != 0) modem_gone();
}

// Another modem, or the same one back on USB, may carry another SIM: its identities are asked
// again rather than kept.
void follow_the_modem(int row_before, int found) {
  if (found == 0) {
    modem_left = modem_left || row_before != 0;
    modem_gone();
    return;
  }
  if (modem_left || (row_before != 0 && NTU.mode_id.load() != row_before)) {
    SDK_LOG_WRITE(SDK_LOG_NET, "LTE modem changed or back on USB: IMSI and IMEI asked again");
    ntu_set_text(NtuText::cimi, "");
    ntu_set_text(NtuText::imei, "");
  }
  modem_left = false;
}

void set_gpio12(int value) {
  platform::run_commandf("echo %d > %s", value, platform::DevicePath("/sys/class/gpio/gpio12/value").c_str());
}

void start_dial(const char* atdev) {
  send_ath(atdev);
  at_port_close();
  static constexpr char kRestart[] = "start up killall lte.sh-start lte.sh";
  SDK_LOG_WRITE(SDK_LOG_NET, "%s", kRestart);
  for (int i = 0; i < 4; ++i) SDK_LOG_WRITE(SDK_LOG_NET, "@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@@");
  SDK_LOG_WRITE(SDK_LOG_NET, "%s", kRestart);
  platform::sleep_ms(dial_settle_ms.load());
  uciread("killall lte.sh", nullptr);
  platform::run_command("nohup  lte.sh &");
  NTU.ltestart.store(1);
}

}  // namespace

void set_lte_waits(const LteWaits& waits) {
  dial_settle_ms.store(waits.dial_settle_ms);
  power_off_ms.store(waits.power_off_ms);
}

void lte_power_cycle() {
  set_gpio12(0);
  platform::sleep_ms(power_off_ms.load());
  set_gpio12(1);
}

void globalp_text(const char* cimi, const char* imei, const char* csq, char* out, std::size_t size) {
  std::snprintf(out, size, "cimi=%s\nimei=%s\ncsq=%s\n", cimi, imei, csq);
}

void data_init() {
  ntu_clear();
  fsu::platform::sdk_printf("################NTU.mode_id=%d\n", NTU.mode_id.load());
  modem_left = false;
  cimi_answered = imei_answered = false;
  load_saved(NtuText::cimi, "cimi", is_imsi);
  load_saved(NtuText::imei, "imei", is_imei);
  ntu_set_text(NtuText::csq, "-70");
  ntu_set_text(NtuText::nettype, "0");  // unknown until the modem says
  dial_waits_until = 0;
  dial_holds_port_until = 0;
}

int readatdata() {
  char atdev[kNtuTextSize];
  ntu_text(NtuText::atdev, atdev);
  SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED sleepcount=%d,Line=%d;NTU.atdev=%s,;NTU.atecount=%d", 1, __LINE__, atdev,
                atecount.load());
  const int row = NTU.mode_id.load();
  if (send_ate(atdev) < 0) {
    const int failed = atecount.fetch_add(1) + 1;
    if (failed > 15 && (row == 16 || row == 17)) {
      SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED atecount=%d,repower,Line=%d;", failed, __LINE__);
      lte_power_cycle();
    }
    return -1;
  }
  atecount.store(0);
  readcsq(atdev);
  if (row != 18) read_sysinfo(atdev);
  // An identity is asked for until the modem has given a well-formed one. A reloaded one is
  // cleared while the modem is asked, and put back below when the answer is no identity.
  char field[kNtuTextSize];
  ntu_text(NtuText::cimi, field);
  if (!is_imsi(field) || !cimi_answered) {
    SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED sleepcount=%d,Line=%d;NTU.atdev=%s", 1, __LINE__, atdev);
    ntu_set_text(NtuText::cimi, "");
    if (row == 17) {
      read_MINI(atdev);
    } else {
      read_MINI1(atdev);
    }
    ntu_text(NtuText::cimi, field);
    cimi_answered = is_imsi(field);
  }
  ntu_text(NtuText::imei, field);
  if (!is_imei(field) || !imei_answered) {
    SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED sleepcount=%d,Line=%d", __LINE__, static_cast<int>(std::strlen(field)));
    ntu_set_text(NtuText::imei, "");
    readIMEI(atdev);
    ntu_text(NtuText::imei, field);
    imei_answered = is_imei(field);
  }
  NtuTexts texts = ntu_texts();
  SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED NTU数据打印=%s,%s,%s,%s,%d!", texts.imei, texts.cimi, texts.nettype, texts.csq,
                NTU.mode_id.load());
  char saved_cimi[100];
  std::snprintf(saved_cimi, sizeof saved_cimi, "%s", ReadPar(kGlobalpFile, "cimi"));
  take_saved(NtuText::imei, ReadPar(kGlobalpFile, "imei"), is_imei);
  take_saved(NtuText::cimi, saved_cimi, is_imsi);
  texts = ntu_texts();
  char file[3 * kNtuTextSize + 32];
  globalp_text(texts.cimi, texts.imei, texts.csq, file, sizeof file);
  return WritetmpDATA(kGlobalpFile, file);
}

void lte_pass(int pass) {
  SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED sleepcount=%d,Line=%d", pass, __LINE__);
  const int row_before = NTU.mode_id.load();
  const int found = pass % 2 == 0 ? readusb() : -1;
  if (found >= 0) follow_the_modem(row_before, found);
  if (found < 0 && row_before != 0) check_port_still_there();
  if (found == 1) {
    char address[kNtuTextSize];
    read_ethip("ppp0", address);
    ntu_set_text(NtuText::lteip, address);
    if (address[0] != '\0') NTU.CardStat.store(1);
    const bool link_down = std::strlen(address) < 6;
    read_ethip("ppp1", address);
    ntu_set_text(NtuText::lteip1, address);
    char lteip[kNtuTextSize];
    ntu_text(NtuText::lteip, lteip);
    SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED sleepcount1=%d,Line=%d;NTU.lteip=%s,NTU.mode_id=%d,NTU.CardStat=%d", pass,
                  __LINE__, lteip, NTU.mode_id.load(), NTU.CardStat.load());
    // These modems carry AT commands and data on one port: no queries while the link, or the
    // dial bringing it up, holds it.
    if (!link_down) dial_holds_port_until = 0;
    const bool dialling = platform::monotonic_seconds() < dial_holds_port_until;
    if (!shares_port(NTU.mode_id.load()) || (link_down && !dialling)) readatdata();
  }
  const int row = NTU.mode_id.load();
  char atdev[kNtuTextSize];
  // A hard restart posted with a dial is served first; the dial then waits for the modem.
  if (NTU.hardreboot.exchange(0) == 1) {
    lte_power_cycle();
    NTU.softreboot.store(0);
    dial_waits_until = platform::monotonic_seconds() + kRestartSeconds;
  }
  SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED NTU.pppdstart=%d", NTU.pppdstart.load());
  if (NTU.pppdstart.exchange(0) == 1) {
    if (readatdata() < 0 && platform::monotonic_seconds() < dial_waits_until) {
      NTU.pppdstart.store(1);  // the modem is still restarting: asked again next pass
    } else {
      dial_waits_until = 0;
      ntu_text(NtuText::atdev, atdev);
      const int registered = row == 18 ? readEC800_info(atdev) : read_sysinfo(atdev);
      if (registered > 0) {
        start_dial(atdev);
        if (shares_port(row)) dial_holds_port_until = platform::monotonic_seconds() + kDialHoldsPortSeconds;
      } else if (row != 18) {
        SDK_LOG_WRITE(SDK_LOG_NET, "LTE SYS NO CSQ!");
      }
    }
  }
  SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED NTU.pppdend=%d", NTU.pppdend.load());
  if (NTU.pppdend.exchange(0) == 1) {
    ntu_text(NtuText::atdev, atdev);
    send_ath(atdev);
    SDK_LOG_WRITE(SDK_LOG_NET, "killall pppd");
    uciread("killall pppd", nullptr);
  }
  if (NTU.softreboot.load() == 1) {
    SDK_LOG_WRITE(SDK_LOG_NET, "无线模块软重启!!!!!!!!");
    if (row_is(row, {11, 12, 13, 18})) {
      lte_power_cycle();
    } else {
      ntu_text(NtuText::atdev, atdev);
      send_DialSoftReboot(atdev);
    }
    NTU.softreboot.store(0);
  }
}

void* lte_main(void*) {
  SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED START!");
  data_init();
  for (int pass = 0;; pass = pass == INT_MAX ? 0 : pass + 1) {
    lte_pass(pass);
    platform::sleep_s(1);
  }
}

int FSU_Lte_THREAD_START() {
  static std::atomic<int> first{0};
  if (first.exchange(1) == 1) return 0;
  return pthread_create(&lte_thread, nullptr, lte_main, &lte_th_index);
}

}  // namespace fsu::lte
