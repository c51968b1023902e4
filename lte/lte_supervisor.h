// The LTE supervisor: the one thread that owns the modem. Every second pass it finds the modem,
// reads the PPP addresses and runs the query cycle; every pass it serves the requests other
// threads post in NTU (dial, hang up, soft and hard restart). It keeps the IMSI and IMEI in
// /tmp/Globalp.ini across restarts of the process, and asks for them again when the modem
// changes or comes back on USB.
#pragma once

#include <atomic>
#include <cstddef>

namespace fsu::lte {

constexpr const char* kGlobalpFile = "/tmp/Globalp.ini";

// Consecutive failed echo-off probes.
extern std::atomic<int> atecount;

// Starts lte_main once; the creation result, later calls return 0 at once.
int FSU_Lte_THREAD_START();
void* lte_main(void* arg);
// Resets NTU and takes the saved IMSI and IMEI back, those that are well formed.
void data_init();
// One pass of the supervisor, without its 1 s sleep.
void lte_pass(int pass);
// The query cycle: probe, signal, registration, identities, /tmp/Globalp.ini.
int readatdata();
// Modem power off and on again through GPIO 12.
void lte_power_cycle();

// The text of /tmp/Globalp.ini, cut to `size`.
void globalp_text(const char* cimi, const char* imei, const char* csq, char* out, std::size_t size);

// The supervisor's two fixed waits: before the dial script restarts, and with the power off.
struct LteWaits {
  long dial_settle_ms = 5000;
  long power_off_ms = 5000;
};
void set_lte_waits(const LteWaits& waits);

}  // namespace fsu::lte
