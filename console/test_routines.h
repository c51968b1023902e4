// Factory test routines behind the console's menu items.
#pragma once

namespace fsu::console {

// Runs a command and prints "指令执行结果:%s" with up to 1024 bytes of its output.
void system_cmd(const char* command);
// Item 1: writes the system time to the hardware clock, then reads it five times a second apart.
void Read_Hardware_RTC();
// Item 2: the resource counts.
void Printf_Resource();
// Item 3: echoes what every serial port receives back out of it, for ever.
[[noreturn]] void COM_Loop();
// One round of the echo over every port.
void com_loop_pass();
// Item 4: a dial request, then the link's state each second for 1000 s.
void START_PPP0();
// Item 5: every relay output on, one a second, then off again.
void DO_CONTROL();
// Item 6: the analogue and digital inputs each second for 3000 s; one pass of it.
void AIDI_READ();
void aidi_read_pass();
// Item 15 and web mode: the factory loopback test of every serial port with byte counters in
// the shared segment, for ever (a thread body: the argument is not used). A port passes when
// it receives exactly its own test text, as through a loopback plug.
[[noreturn]] void* COM_TEST_FUN(void* arg);
// One round of it: the odd ports send, their report a second later, then the even ports.
void com_test_pass();
// Item 16: the modem's SIM, IMSI, IMEI, signal and address, and the position; the first call
// in the process also asks for the data link.
void NET_MODE_INFO();

}  // namespace fsu::console
