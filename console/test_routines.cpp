#include "console/test_routines.h"

#include <cstdio>

#include "platform/clock.h"
#include "platform/command_runner.h"
#include "sdk/resource_catalogue.h"

namespace fsu::console {

void system_cmd(const char* command) {
  char output[1025];
  const long n = platform::capture_command(command, output, 1024);
  if (n < 0) return;
  output[n] = '\0';
  std::printf("指令执行结果:%s", output);
}

void Read_Hardware_RTC() {
  system_cmd("hwclock -w");
  for (int i = 0; i < 5; ++i) {
    system_cmd("hwclock -r");
    std::fflush(stdout);
    platform::sleep_s(1);
  }
  std::puts("如打印的时间不是连续的，可认为RTC时钟异常\r");
}

void Printf_Resource() {
  sdk::BSP_Resource_CHECK();
  std::printf("串口数量:%d\r\n", sdk::sdk_read_com_num());
  std::printf("AI数量:%d\r\n", sdk::sdk_read_ai_num());
  std::printf("DI数量:%d\r\n", sdk::sdk_read_di_num());
  std::printf("DO数量:%d\r\n", sdk::sdk_read_do_num());
}

}  // namespace fsu::console
