#include "console/web_mode.h"

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "fsusdk.h"
#include "lte/ntu.h"
#include "platform/clock.h"
#include "platform/command_runner.h"
#include "platform/safe_file.h"
#include "platform/sandbox_root.h"
#include "platform/shared_memory.h"
#include "sdk/resource_catalogue.h"
#include "support/bounded_text.h"
#include "support/file_helpers.h"

namespace fsu::console {
namespace {

constexpr std::size_t kReceivedOffset = kDtuPorts * sizeof(std::int32_t);
// The mutexes take the segment's last bytes: 1680 and 1704 with the device's 24-byte mutex.
constexpr std::size_t kFirstMutexOffset = kDtuShareSize - 2 * sizeof(pthread_mutex_t);
static_assert(kFirstMutexOffset >= 2 * kReceivedOffset && kFirstMutexOffset % alignof(pthread_mutex_t) == 0);

// The attached segment; written once by the loopback thread, read by it and by tests.
std::atomic<unsigned char*> CPLD_DTU{nullptr};

constexpr int kChaseLines[4] = {1, 18, 0, 4};  // run, alarm, net, LED 1: lit by a low level

constexpr const char* kOpenRequest = "/tmp/set_all_doao_open";
constexpr const char* kCloseRequest = "/tmp/set_all_doao_close";
constexpr const char* kNetModuleInfo = "/tmp/NetModuleInfo";
constexpr int kRedialSeconds = 60;  // a request again once the count passes this

// The counter of port N in the block at `offset`, or null without the segment or for another port.
std::int32_t* counter(std::size_t offset, int port) {
  unsigned char* base = CPLD_DTU.load(std::memory_order_acquire);
  if (base == nullptr || port < 1 || port > kDtuPorts) return nullptr;
  return reinterpret_cast<std::int32_t*>(base + offset) + (port - 1);
}

// Counters are single aligned words; the web page reads them from another process.
void add_to(std::int32_t* word, int amount) {
  if (word != nullptr && amount != 0) std::atomic_ref<std::int32_t>(*word).fetch_add(amount, std::memory_order_relaxed);
}

int value_of(std::int32_t* word) {
  return word == nullptr ? 0 : std::atomic_ref<std::int32_t>(*word).load(std::memory_order_relaxed);
}

// Every output on (1) or off (0), as a page's request file asks.
void switch_all(const char* request, int value) {
  support::remove_file(request);
  echo_gpio(8, value);
  echo_gpio(5, value);
  char name[32];
  for (int n = 1; n <= sdk::sdk_read_do_num(); ++n) {
    std::snprintf(name, sizeof name, "Local/DO/%d", n);
    SetDOValue(name, value);
    std::printf("set DO %d %d\r\n", n, value);
  }
  std::fflush(stdout);
}

// Why a segment is not one this console may use, or null: it must have the layout's
// size, be this user's own, and be readable and writable by its owner alone.
const char* unusable_segment(const struct shmid_ds& st) {
  if (st.shm_segsz != kDtuShareSize) return "size";
  if (st.shm_perm.uid != geteuid() || st.shm_perm.cuid != geteuid()) return "owner";
  if ((st.shm_perm.mode & 0777) != 0600) return "mode";
  return nullptr;
}

}  // namespace

bool DTUSHARE_init() {
  CPLD_DTU.store(nullptr, std::memory_order_release);
  const key_t key = platform::shared_memory_key(kDtuShareKey);
  int shmid = shmget(key, kDtuShareSize, IPC_CREAT | IPC_EXCL | 0600);
  if (shmid < 0) {
    if (errno != EEXIST) {
      std::perror("errno != EEXIST:\n");
      return false;
    }
    // Any segment of the key, whatever its size, to look at it before it is used.
    shmid = shmget(key, 0, 0);
    struct shmid_ds st {};
    if (shmid < 0 || shmctl(shmid, IPC_STAT, &st) != 0) {
      std::perror("shmid < 0:\n");
      return false;
    }
    if (const char* wrong = unusable_segment(st)) {
      // Nobody holds it: nothing in it is worth keeping (every start clears the counters), so
      // it is made again as it should be. Held by a process, it is left to that process.
      const bool replace = st.shm_nattch == 0 && shmctl(shmid, IPC_RMID, nullptr) == 0;
      if (replace) shmid = shmget(key, kDtuShareSize, IPC_CREAT | IPC_EXCL | 0600);
      std::fprintf(stderr,
                   "counter segment of key %d: wrong %s (%zu bytes, mode %04o, owner %u, %lu attached): %s\n",
                   static_cast<int>(key), wrong, static_cast<std::size_t>(st.shm_segsz),
                   static_cast<unsigned>(st.shm_perm.mode & 0777), static_cast<unsigned>(st.shm_perm.uid),
                   static_cast<unsigned long>(st.shm_nattch),
                   !replace ? "not used, the loopback test runs without counters"
                   : shmid < 0 ? "removed, but a new one could not be made" : "removed and made again");
      if (shmid < 0 || !replace) return false;
    }
  }
  void* at = shmat(shmid, nullptr, 0);
  if (at == reinterpret_cast<void*>(-1)) {
    std::perror("CPLD_DTU == (void*)-1:\n");
    return false;
  }
  // A new console clears what an earlier one left, mutexes included.
  auto* base = static_cast<unsigned char*>(at);
  std::memset(base, 0, kDtuShareSize);
  pthread_mutexattr_t shared;
  pthread_mutexattr_init(&shared);
  pthread_mutexattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
  auto* mutexes = reinterpret_cast<pthread_mutex_t*>(base + kFirstMutexOffset);
  pthread_mutex_init(&mutexes[0], &shared);
  pthread_mutex_init(&mutexes[1], &shared);
  pthread_mutexattr_destroy(&shared);
  CPLD_DTU.store(base, std::memory_order_release);
  return true;
}

bool dtu_attached() { return CPLD_DTU.load(std::memory_order_acquire) != nullptr; }

void dtu_add(int port, int sent, int received) {
  add_to(counter(0, port), sent);
  add_to(counter(kReceivedOffset, port), received);
}

int dtu_sent(int port) { return value_of(counter(0, port)); }
int dtu_received(int port) { return value_of(counter(kReceivedOffset, port)); }

void echo_gpio(int gpio, int value) {
  char path[64];
  std::snprintf(path, sizeof path, "/sys/class/gpio/gpio%d/value", gpio);
  platform::run_commandf("echo %d > %s", value, platform::DevicePath(path).c_str());
}

void led_chase_step(int step) {
  step %= 8;
  if (step < 4) {
    echo_gpio(kChaseLines[step], 0);
  } else {
    echo_gpio(kChaseLines[7 - step], 1);
  }
}

void* LED_FUN(void*) {
  for (int gpio : kChaseLines) echo_gpio(gpio, 1);
  for (int step = 0;; step = (step + 1) % 8) {
    platform::sleep_ms(500);
    led_chase_step(step);
  }
}

void aodo_listen_pass() {
  const bool open = support::IsFileExist(kOpenRequest) == 1;
  if (open == (support::IsFileExist(kCloseRequest) == 1)) return;  // none, or two that contradict
  if (open) switch_all(kOpenRequest, 1);
  if (support::IsFileExist(kCloseRequest) == 1) switch_all(kCloseRequest, 0);
}

void* AODO_LISTEN_CONTROL(void*) {
  for (;;) {
    platform::sleep_s(1);
    aodo_listen_pass();
  }
}

void ppp0_listen_pass(PppWatch& watch) {
  const lte::NtuTexts t = lte::ntu_texts();
  watch.offline = lte::ntu_online() ? 0 : watch.offline + 1;  // a minute offline in a row
  if (watch.offline > kRedialSeconds) {
    watch.offline = 0;
    DialDial(nullptr, nullptr);
  }
  const int card = t.cimi[0] != '\0' ? 1 : 0;
  lte::NTU.CardStat.store(card);
  char text[512] = {};
  support::BoundedText(text, sizeof text)
      .append("SIM 卡状态: %s;", card == 1 ? "正常" : "识别中")
      .append("SIM 卡ISMI号: %s;", t.cimi)
      .append("模块IMEI: %s;", t.imei)
      .append("模块信号强度:%s;", t.csq)
      .append("模块网络IP:%s;", t.lteip);
  // Written whole and renamed in place: a link planted at the name is replaced, not followed.
  platform::replace_file(kNetModuleInfo, text, std::strlen(text), 0700);
}

void* PPP0_LISTEN_FUN(void*) {
  DialDial(nullptr, nullptr);
  PppWatch watch;
  for (;;) {
    platform::sleep_s(1);
    ppp0_listen_pass(watch);
  }
}

}  // namespace fsu::console
