#include "console/test_routines.h"

#include <atomic>
#include <cstdio>
#include <cstring>

#include "console/console_texts.h"
#include "console/web_mode.h"
#include "fsusdk.h"
#include "gps/gps_record.h"
#include "lte/ntu.h"
#include "platform/clock.h"
#include "platform/command_runner.h"
#include "sdk/resource_catalogue.h"

namespace fsu::console {
namespace {

constexpr int kReadSize = 1024;
constexpr int kLoopTextLength = 10;

// "Local/Uart/N" and the like.
struct PointName {
  PointName(const char* kind, int n) { std::snprintf(text, sizeof text, "Local/%s/%d", kind, n); }
  char text[32];
};

// The loopback test text of port N: "IS COM 03" and a line feed.
struct LoopText {
  explicit LoopText(int n) { std::snprintf(text, sizeof text, "IS COM %02d\n", n); }
  char text[24];  // room for any int
};

void loopback_report(const char* format) {
  for (int n = 1; n <= sdk::sdk_read_com_num(); ++n) std::printf(format, n, dtu_sent(n), dtu_received(n));
}

// The test text out of every second port from `first` on.
void loopback_send(int first) {
  for (int n = first; n <= sdk::sdk_read_com_num(); n += 2) {
    WriteUart(PointName("Uart", n).text, LoopText(n).text, kLoopTextLength);
    dtu_add(n, kLoopTextLength, 0);
  }
}

// Every port read: a port passes with exactly its own text; anything else prints `failure`.
void loopback_read(const char* failure) {
  for (int n = 1; n <= sdk::sdk_read_com_num(); ++n) {
    const PointName name("Uart", n);
    char buf[kReadSize + 1] = {};
    const int got = ReadUart(name.text, buf, kReadSize, 0);
    if (got <= 0) continue;
    dtu_add(n, 0, got);
    if (got == kLoopTextLength && std::memcmp(buf, LoopText(n).text, kLoopTextLength) == 0) continue;
    std::printf(failure, name.text, got, buf);
  }
}

}  // namespace

void system_cmd(const char* command) {
  char output[kReadSize + 1];
  const long n = platform::capture_command(command, output, kReadSize);
  if (n < 0) return;
  output[n] = '\0';
  std::printf(tr("指令执行结果:%s"), output);
}

void Read_Hardware_RTC() {
  system_cmd("hwclock -w");
  for (int i = 0; i < 5; ++i) {
    system_cmd("hwclock -r");
    std::fflush(stdout);
    platform::sleep_s(1);
  }
  std::puts(tr("如打印的时间不是连续的，可认为RTC时钟异常\r"));
}

void Printf_Resource() {
  sdk::BSP_Resource_CHECK();
  std::printf(tr("串口数量:%d\r\n"), sdk::sdk_read_com_num());
  std::printf(tr("AI数量:%d\r\n"), sdk::sdk_read_ai_num());
  std::printf(tr("DI数量:%d\r\n"), sdk::sdk_read_di_num());
  std::printf(tr("DO数量:%d\r\n"), sdk::sdk_read_do_num());
}

void com_loop_pass() {
  for (int n = 1; n <= sdk::sdk_read_com_num(); ++n) {
    const PointName name("Uart", n);
    char buf[kReadSize + 1] = {};  // printed as text: terminated behind what came
    const int got = ReadUart(name.text, buf, kReadSize, 0);
    if (got <= 0) continue;
    std::printf(tr("收到串口%d的数据,数据长度：%d,数据内容(ASCII):%s\r\n"), n, got, buf);
    std::fflush(stdout);
    WriteUart(name.text, buf, got);
  }
}

void COM_Loop() {
  std::puts(tr("按CTRL+C退出\r"));
  std::printf(tr("收到串口数据原样送出;COM——MAX=%d\r\n"), sdk::sdk_read_com_num());
  std::fflush(stdout);
  for (;;) com_loop_pass();
}

void START_PPP0() {
  DialDial(nullptr, nullptr);
  for (int pass = 0; pass < 1000; ++pass) {
    platform::sleep_s(1);
    std::fflush(stdout);  // ifconfig writes to the console itself, behind what we printed
    platform::run_command("ifconfig ppp0");
    if (DialIsOnline() == 0) {
      std::puts(tr("PPP0拨号成功\r"));
      char info[1024] = {};
      DialGetStaticInfo(info, sizeof info - 1);
      std::printf(tr("模块静态信息:%s\r\n"), info);
      std::memset(info, 0, sizeof info);
      DialGetDynamicInfo(info, sizeof info - 1);
      std::printf(tr("模块动态信息:%s\r\n"), info);
    } else {
      std::puts(tr("PPP0未拨号成功\r"));
    }
    std::fflush(stdout);
  }
}

void DO_CONTROL() {
  const int outputs = sdk::sdk_read_do_num();
  if (outputs == 0) std::puts(tr("无DO控制板\r"));
  for (int n = 1; n <= outputs; ++n) {
    const PointName name("DO", n);
    SetDOValue(name.text, 1);
    std::printf("set DO %d(%s) 1\r\n", n, name.text);
    std::fflush(stdout);
    platform::sleep_s(1);
  }
  for (int n = 1; n <= outputs; ++n) {
    SetDOValue(PointName("DO", n).text, 0);
    std::printf("set DO %d 0\r\n", n);
    std::fflush(stdout);
    platform::sleep_s(1);
  }
}

void aidi_read_pass() {
  for (int n = 1; n <= sdk::sdk_read_ai_num(); ++n) {
    const PointName name("AI", n);
    float value = 0;
    if (GetAIValue(name.text, 0, &value) == 0) {
      std::printf(tr("AI %02d 电压型 采样值：%f V"), n, static_cast<double>(value));
    } else {
      std::printf(tr("AI %02d 电压型 采样值失败==%s"), n, name.text);
    }
    if (GetAIValue(name.text, 1, &value) == 0) {
      std::printf(tr(" | 电流型 采样值：%f ma\r\n"), static_cast<double>(value));
    } else {
      std::printf(tr(" | 电流型 采样值失败==%s\r\n"), name.text);
    }
  }
  std::printf("DI(0-8) :");
  for (int n = 1; n <= sdk::sdk_read_di_num(); ++n) {
    if (n == 9) std::printf("\r\nDI(9-16):");
    if (n == 17) std::printf("\r\nDI(17-24):");
    const PointName name("DI", n);
    int state = 0;
    if (GetDIValue(name.text, &state) == 0) {
      std::printf("%d;", state);
    } else {
      std::printf(tr("DI%d 采样失败==%s\r\n"), n, name.text);
    }
  }
  std::puts("\r");
  std::fflush(stdout);
}

void AIDI_READ() {
  if (sdk::sdk_read_ai_num() == 0) std::puts(tr("AIDI板未检测到\r"));
  for (int pass = 0; pass < 3000; ++pass) {
    platform::sleep_s(1);
    aidi_read_pass();
  }
}

void com_test_pass() {
  loopback_send(1);
  platform::sleep_s(1);
  loopback_read(tr("串口资源 %s 收到数据异常:收到长度%d 的数据: %s"));
  loopback_report(tr("\r\n串口%02d 发送/接收计数 :  %d/%d"));
  loopback_send(2);
  platform::sleep_s(1);
  loopback_read(tr("\r\n串口资源 %s 收到数据异常:收到长度%d 的数据: %s"));
  std::puts("\r");
  loopback_report(tr("串口%02d 发送/接收计数 :  %d/%d\r\n"));
  std::fflush(stdout);
}

void* COM_TEST_FUN(void*) {
  std::puts(tr("按CTRL+C退出软件,退出后如需测试输入 benchkit 继续测试\r"));
  DTUSHARE_init();
  for (;;) com_test_pass();
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
  std::printf(tr("SIM 卡状态: %s\r\n"), lte::NTU.CardStat.load() == 1 ? tr("正常") : tr("还未检测到"));
  std::printf(tr("SIM 卡ISMI号: %s\r\n"), texts.cimi);
  std::printf(tr("模块IMEI: %s\r\n"), texts.imei);
  std::printf(tr("模块信号强度:%s\r\n"), texts.csq);
  std::printf(tr("模块网络IP:%s\r\n"), texts.lteip);
  const gps::GpsFix fix = gps::gps_fix();
  std::printf(tr("\r\n经度=%.8lf,纬度=%.8lf,高度=%d\r\n"), fix.longitude, fix.latitude, whole_metres(fix.altitude));
}

}  // namespace fsu::console
