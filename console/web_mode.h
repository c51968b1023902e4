// The console's service threads: the LED chase (both modes) and, in web mode, the output
// request listener, the PPP watchdog and the shared counter segment that the device's web page
// reads the serial loopback test's byte counts from.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fsu::console {

// The counter segment: System V key 1236 (a key of the sandbox's own in a sandbox), 1728 bytes.
// Bytes 0-63 hold the sent-byte counters of ports 1 to 16, bytes 64-127 the received-byte
// counters (32-bit ints); the two process-shared mutexes fill its last bytes.
constexpr int kDtuShareKey = 1236;
constexpr std::size_t kDtuShareSize = 1728;
constexpr int kDtuPorts = 16;

// Creates or opens the segment, attaches it, clears it and prepares its mutexes; true once
// attached. An existing segment is used only when it has this size, is this user's own and has
// mode 0600; another is removed and made again when no process holds it, else left alone. Every
// failure prints one line on standard error and leaves the counters unattached.
bool DTUSHARE_init();
// True once the segment is attached.
bool dtu_attached();
// Adds to port N's counters (1 to 16); nothing without the segment.
void dtu_add(int port, int sent, int received);
// Port N's counters; 0 without the segment.
int dtu_sent(int port);
int dtu_received(int port);

// Writes "0" or "1" into a GPIO line's value file through the shell, as the device's scripts do.
void echo_gpio(int gpio, int value);

// The LED chase: run, alarm, net and LED 1 lit one after the other and put out in reverse,
// one step each 500 ms. led_chase_step does step 0 to 7 of a cycle.
void* LED_FUN(void* arg);
void led_chase_step(int step);

// Output requests: /tmp/set_all_doao_open (or _close) switches both 12 V lines and every relay
// output on (off). One pass a second; both files present means no request.
void* AODO_LISTEN_CONTROL(void* arg);
void aodo_listen_pass();

// The PPP watchdog: a dial request at start and again after every 61 s without an address, and
// the modem's state in /tmp/NetModuleInfo each second.
struct PppWatch {
  int offline = 0;  // seconds without an address since the last dial request
};
void* PPP0_LISTEN_FUN(void* arg);
void ppp0_listen_pass(PppWatch& watch);

}  // namespace fsu::console
