// The software watchdog: once armed, the device reboots when the application has not fed it
// for its interval plus one minute. Starting it also starts the extension links' keep-alive,
// on a thread of its own so that no port write can hold up the watchdog's decision.
#pragma once

#include <atomic>
#include <cstdint>

namespace fsu::board {

struct SOFTDOG {
  std::atomic<std::uint8_t> enable;       // 1 = armed
  std::atomic<std::uint32_t> interval;    // seconds
  std::atomic<std::uint32_t> last_feed;   // wall-clock seconds of the last feed
};
extern SOFTDOG app___SOFTDOG;

// Seconds part of the time of day (the wall clock: setting the clock moves it).
std::uint32_t ReadSysTime_Value();

std::uint32_t bsp_SoftDog_Init();
int bsp_SoftDogEnable(int flag, std::uint32_t ms);
int bsp_SoftDogFeedInterval(std::uint32_t ms);
int bsp_SoftDogFeed();

// True when the armed watchdog's last feed is older than its interval plus 60 s at `now`.
bool soft_dog_expired(std::uint32_t now);
// One check of the watchdog thread at `now`: logs and reboots through the shell when expired.
void soft_dog_pass(std::uint32_t now);
// Starts the watchdog and keep-alive threads on the first call (the creation result); later
// calls return arg.
long soft_dog_run(long arg);
void* App_SoftDogFeed(void* arg);

}  // namespace fsu::board
