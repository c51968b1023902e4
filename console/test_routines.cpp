#include "console/test_routines.h"

#include <atomic>
#include <cstdio>

#include "fsusdk.h"
#include "gps/gps_record.h"
#include "lte/ntu.h"
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

namespace {

// The altitude as a whole number; what no int holds (or no number at all) shows as 0.
int whole_metres(float altitude) { return altitude > -2e9F && altitude < 2e9F ? static_cast<int>(altitude) : 0; }

}  // namespace

void NET_MODE_INFO() {
  static std::atomic<int> dialled{0};
  if (dialled.exchange(1) == 0) DialDial(nullptr, nullptr);
  const lte::NtuTexts texts = lte::ntu_texts();
  lte::NTU.CardStat.store(texts.cimi[0] != '\0' ? 1 : 0);
  std::printf("SIM 卡状态: %s\r\n", lte::NTU.CardStat.load() == 1 ? "正常" : "还未检测到");
  std::printf("SIM 卡ISMI号: %s\r\n", texts.cimi);
  std::printf("模块IMEI: %s\r\n", texts.imei);
  std::printf("模块信号强度:%s\r\n", texts.csq);
  std::printf("模块网络IP:%s\r\n", texts.lteip);
  const gps::GpsFix fix = gps::gps_fix();
  std::printf("\r\n经度=%.8lf,纬度=%.8lf,高度=%d\r\n", fix.longitude, fix.latitude, whole_metres(fix.altitude));
}

}  // namespace fsu::console
