// Factory test routines behind the console's menu items.
#pragma once

namespace fsu::console {

// Runs a command and prints "指令执行结果:%s" with up to 1024 bytes of its output.
void system_cmd(const char* command);
// Item 1: writes the system time to the hardware clock, then reads it five times a second apart.
void Read_Hardware_RTC();
// Item 2: the resource counts.
void Printf_Resource();
// Item 16: the modem's SIM, IMSI, IMEI, signal and address, and the position; the first call
// in the process also asks for the data link.
void NET_MODE_INFO();

}  // namespace fsu::console
