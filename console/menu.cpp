#include "console/menu.h"

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>

#include "console/console_texts.h"
#include "console/test_routines.h"
#include "console/web_mode.h"
#include "fsusdk.h"
#include "support/sdk_log.h"

namespace fsu::console {
namespace {

constexpr const char* kRule = "-----------------------------------------";

constexpr const char* kMenuLines[] = {
    "\t1.RTC硬件时钟获取",
    "\t2.资源获取",
    "\t3.串口回环(9600,n,8,1)",
    "\t4.设备PPP0拨号",
    "\t5.DO控制测试",
    "\t6.AIDI采集信息",
    "\t7.第一路12V断电",
    "\t8.第一路12V上电",
    "\t9.第二路12V断电",
    "\t10.第二路12V上电",
    "\t11.获取一次AIDI数据",
    "\t12.获取GPS信息",
    "\t13.固定发送串口1测试指令",
    "\t14.监听串口信息到/tmp/comlog.log",
    "\t15.串口出厂回环检测(9600,8,1,0)奇/偶数串口循环发送10字节数据,收到回环数据异常会打印，同步网页串口统计",
    "\t16.获取无线模组信息(PPP0 IP, CIMI IMEI 信号强度等)",
    "\t17.打开SDK日志",
    "\t18.关闭SDK日志",
    "\t21.GPS+北斗定位",
    "\t22.GPS 定位",
    "\t23.北斗 定位",
    "\t98.获取模块静态动态信息",
    "\t99.设置GPS类型",
};
static_assert(sizeof kMenuLines / sizeof kMenuLines[0] == 23);

// Items 7 to 10: a 12 V output of the main board switched through its GPIO value file.
void set_12v(const char* message, int gpio, int value) {
  std::printf("%s", message);
  echo_gpio(gpio, value);
}

// The serial test command of item 13.
constexpr char kTestCommand[] = "~10012D92E002FFFCFA\r";

// A follow-up number of items 13, 14 and 99, read like the item number; false at end of input.
bool read_number(std::FILE* in, const char* prompt, int* number) {
  std::printf("%s", prompt);
  char line[kLineSize];
  if (read_console_line(in, line, sizeof line) < 0) return false;
  *number = console_number(line);
  return true;
}

// Item 12: the position report and the signal report, in one reply buffer.
void show_positioning() {
  char reply[2048];
  BSP_GET_GPS_INFO(reply);
  std::printf("\r\n\r\nGPSINFO:\r\n%s", reply);
  BSP_GET_GPS_dB_INFO(reply);
  std::printf("GPS DB:\r\n%s\r\n\r\n", reply);
}

// Item 99: the positioning mode typed by the operator. Nothing is set when the input ends.
bool set_position_mode(std::FILE* in) {
  int mode = 0;
  if (!read_number(in, tr("\r\n请输入GPS类型:1-GPS,2-北斗 3-GPS+北斗"), &mode)) return false;
  std::printf(tr("设置类型：%d\r\n"), mode);
  SetPositionMode(mode);
  return true;
}

// Runs one item; false when the input ended inside it.
bool run_item(int item, std::FILE* in) {
  int port = 0;
  switch (item) {
    case 1:
      std::puts(tr("间隔一秒获取获取硬件时钟\r"));
      Read_Hardware_RTC();
      break;
    case 2:
      Printf_Resource();
      break;
    case 3:
      COM_Loop();
    case 4:
      START_PPP0();
      break;
    case 5:
      DO_CONTROL();
      break;
    case 6:
      AIDI_READ();
      break;
    case 7:
      set_12v(tr("主板第一路12V断电"), 8, 0);
      break;
    case 8:
      set_12v(tr("主板第一路12V上电"), 8, 1);
      break;
    case 9:
      set_12v(tr("主板第2路12V断电"), 5, 0);
      break;
    case 10:
      set_12v(tr("主板第2路12V上电"), 5, 1);
      break;
    case 11: {
      char reply[2048] = {};
      BSP_GET_AIDI_RT_INFO(reply);
      std::printf(tr("AIDI 数据信息:%s"), reply);
      break;
    }
    case 13: {
      if (!read_number(in, tr("\r\n请输入要测试的串口号:"), &port)) return false;
      std::printf(tr("串口%d 发送测试指令:~10012D92E002FFFCFA\r"), port);
      std::fflush(stdout);
      char reply[2048] = {};  // one byte kept for the terminator: the reply is printed as text
      const int n = BSP_UART_SEND_CMD(port, 2, 9600, 8, 1, 0, kTestCommand, sizeof kTestCommand - 1, reply,
                                      sizeof reply - 1);
      std::printf(tr("串口%d 返回数据(%d):%s\r\n"), port, n, reply);
      break;
    }
    case 14:
      if (!read_number(in, tr("\r\n请输入要记录日志的串口号:"), &port)) return false;
      std::printf(tr("开始记录串口%d 的日志,本地最多记录1000条\r\n"), port);
      BSP_SET_UART_LOG(port, 1000);
      break;
    case 15:
      COM_TEST_FUN(nullptr);
    case 12:
      show_positioning();
      break;
    case 16:
      NET_MODE_INFO();
      break;
    case 17:
      support::SDK_LOG_PAR_INIT();
      break;
    case 18:
      support::SDK_LOG_PAR_INIT_NOPRINTF();
      break;
    case 21:
      std::puts(tr("设置为 GPS+北斗模式\r"));
      BSP_SET_GPS_PCAS(0);
      break;
    case 22:
      std::puts(tr("设置为 GPS模式\r"));
      BSP_SET_GPS_PCAS(1);
      break;
    case 23:
      std::puts(tr("设置为 北斗模式\r"));
      BSP_SET_GPS_PCAS(2);
      break;
    case 98: {
      char text[1024] = {};
      DialGetStaticInfo(text, 1023);
      std::printf(tr("模块静态信息:%s\r\n"), text);
      std::memset(text, 0, sizeof text);
      DialGetDynamicInfo(text, 1023);
      std::printf(tr("模块动态信息:%s\r\n"), text);
      break;
    }
    case 99:
      if (!set_position_mode(in)) return false;
      break;
    case 8893:
      UpdateSDK("/tmp/dt_sdk_upgrade.gz");
      break;
    default:
      // Hidden items 110 to 181: 100 + 10 x output + value switches relay output 1 to 8.
      if (item >= 110 && item <= 181 && item % 10 <= 1) {
        char name[32];
        std::snprintf(name, sizeof name, "Local/DO/%d", (item - 100) / 10);
        SetDOValue(name, item % 10);
      }
      break;  // anything else is not an item: the menu is drawn again
  }
  return true;
}

}  // namespace

void help_printf() {
  std::puts(kRule);
  for (const char* line : kMenuLines) std::puts(tr(line));
  std::puts(kRule);
  std::fputs(tr("输入测试项: "), stdout);
}

int read_console_line(std::FILE* in, char* line, std::size_t size) {
  if (line == nullptr || size == 0) return -1;
  std::memset(line, 0, size);
  std::fflush(stdout);  // the prompt must be visible before we wait for the answer
  std::size_t kept = 0;
  bool any = false;
  for (;;) {
    const int c = std::fgetc(in);
    if (c == EOF) return any ? static_cast<int>(kept) : -1;
    any = true;
    if (c == '\n' || c == '\r') break;
    if (kept + 1 < size) line[kept++] = static_cast<char>(c);
  }
  return static_cast<int>(kept);
}

int console_number(const char* line) {
  if (line == nullptr) return 0;
  const char* p = line;
  while (std::isspace(static_cast<unsigned char>(*p))) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  long long value = 0;
  for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
    value = value * 10 + (*p - '0');
    if (value > static_cast<long long>(INT_MAX) + 1) value = static_cast<long long>(INT_MAX) + 1;
  }
  if (negative) value = -value;
  if (value > INT_MAX) value = INT_MAX;
  return static_cast<int>(value);
}

void menu_loop(std::FILE* in) {
  char line[kLineSize];
  for (;;) {
    help_printf();
    if (read_console_line(in, line, sizeof line) < 0 || !run_item(console_number(line), in)) return;
  }
}

}  // namespace fsu::console
