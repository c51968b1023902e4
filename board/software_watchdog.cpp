#include "board/software_watchdog.h"

#include <pthread.h>

#include <algorithm>
#include <string>

#include "fsusdk.h"
#include "platform/clock.h"
#include "platform/command_runner.h"
#include "platform/safe_file.h"
#include "platform/sandbox_root.h"
#include "serial/extension_link.h"
#include "support/sdk_log.h"

namespace fsu::board {
namespace {

std::atomic<int> thread_started{0};
pthread_t thread_dog;
pthread_t thread_com_dog;

// The extension links' keep-alive, once a second. It writes to the board links, and a write
// may wait for its port, so it runs apart from the watchdog's decision.
void* com_dog_thread(void*) {
  for (;;) {
    serial::RunComDog();
    platform::sleep_s(1);
  }
}

// On a simulated unit the watchdog shows its state to the simulator, as the board's own
// indicator would: armed or not, its interval and the seconds left before it reboots the unit,
// in /tmp/softdog, rewritten when it changes (once a second while armed). The device has no
// such file.
void show_state(std::uint32_t now) {
  if (!platform::in_sandbox()) return;
  static std::string& shown = *new std::string;  // never destroyed: this thread outlives exit
  const bool armed = app___SOFTDOG.enable.load() == 1;
  const std::uint32_t interval = app___SOFTDOG.interval.load();
  const long long due = static_cast<long long>(app___SOFTDOG.last_feed.load()) + interval + 60;
  std::string text = std::string("armed=") + (armed ? "yes" : "no") + " interval=" + std::to_string(interval);
  if (armed) text += " left=" + std::to_string(std::max(0LL, due - static_cast<long long>(now)));
  text += "\n";
  if (text == shown) return;
  if (platform::replace_file("/tmp/softdog", text.data(), text.size(), 0644) == 0) shown = text;
}

}  // namespace

SOFTDOG app___SOFTDOG;

std::uint32_t ReadSysTime_Value() { return static_cast<std::uint32_t>(platform::wall_now().seconds); }

std::uint32_t bsp_SoftDog_Init() {
  const std::uint32_t now = ReadSysTime_Value();
  app___SOFTDOG.enable.store(0);
  app___SOFTDOG.interval.store(600);
  app___SOFTDOG.last_feed.store(now);
  return now;
}

int bsp_SoftDogEnable(int flag, std::uint32_t ms) {
  app___SOFTDOG.enable.store(static_cast<std::uint8_t>(flag & 0xFF));
  app___SOFTDOG.interval.store(ms / 1000);
  app___SOFTDOG.last_feed.store(ReadSysTime_Value());
  return 0;
}

int bsp_SoftDogFeedInterval(std::uint32_t ms) {
  app___SOFTDOG.interval.store(ms / 1000);
  app___SOFTDOG.last_feed.store(ReadSysTime_Value());
  return 0;
}

int bsp_SoftDogFeed() {
  app___SOFTDOG.last_feed.store(ReadSysTime_Value());
  return 0;
}

bool soft_dog_expired(std::uint32_t now) {
  if (app___SOFTDOG.enable.load() != 1) return false;
  return now > app___SOFTDOG.last_feed.load() + app___SOFTDOG.interval.load() + 60u;
}

void soft_dog_pass(std::uint32_t now) {
  if (!soft_dog_expired(now)) return;
  support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "soft dog start,ready reboot=%d",
                         static_cast<int>(app___SOFTDOG.interval.load()));
  platform::sleep_s(1);
  platform::run_command("reboot");
}

void* App_SoftDogFeed(void*) {
  for (;;) {
    platform::sleep_s(1);
    const std::uint32_t now = ReadSysTime_Value();
    show_state(now);
    soft_dog_pass(now);
  }
}

long soft_dog_run(long arg) {
  if (thread_started.exchange(1) == 1) return arg;
  const int keep_alive = pthread_create(&thread_com_dog, nullptr, com_dog_thread, nullptr);
  const int watchdog = pthread_create(&thread_dog, nullptr, App_SoftDogFeed, nullptr);
  return watchdog != 0 ? watchdog : keep_alive;
}

}  // namespace fsu::board

using fsu::support::SDK_LOG_DEBUG;
using fsu::support::SDK_LOG_WRITE;

extern "C" int SoftDogEnable(int enable, unsigned int interval_ms) {
  fsu::board::bsp_SoftDogEnable(enable, interval_ms);
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "fun=%s,line =%d", __func__, __LINE__);
  return 0;
}

extern "C" int SoftDogFeedInterval(unsigned int interval_ms) {
  fsu::board::bsp_SoftDogFeedInterval(interval_ms);
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "fun=%s,line =%d", __func__, __LINE__);
  return 0;
}

extern "C" int SoftDogFeed(void) {
  fsu::board::bsp_SoftDogFeed();
  SDK_LOG_WRITE(SDK_LOG_DEBUG, "fun=%s,line =%d", __func__, __LINE__);
  return 0;
}
