#include "sdk/web_requests.h"

#include <pthread.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fsusdk.h"
#include "lte/ntu.h"
#include "platform/console_output.h"
#include "platform/safe_file.h"
#include "sdk/resource_catalogue.h"
#include "sdk/uart_api.h"
#include "serial/frame_codec.h"
#include "support/bounded_text.h"
#include "support/file_helpers.h"
#include "support/sdk_log.h"

namespace fsu::sdk {
namespace {

using support::BoundedText;
using support::remove_file;
using support::SDK_LOG_SYS;
using support::SDK_LOG_WRITE;

pthread_t webtest_thread;

// A decimal value as the device reads it (leading digits), held within int.
int decimal(const char* text) {
  const long value = std::strtol(text, nullptr, 10);
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

// The value of `key` in the request file, or `value` unchanged when the key is not there.
void keep_decimal(const char* path, const char* key, int& value) {
  if (const char* text = support::BSP_ReadPar(path, key)) value = decimal(text);
}

const char* sim_status() {
  const lte::Ntu& n = lte::NTU;
  if (n.siminfo.load() != 1) return "SIM网络检测中...";
  const int simstat = n.simstat.load();
  if (simstat == 0) return "卡状态无效,请重新插拔SIM卡";
  if (simstat == 255) return "卡不存在或需要PIN码,请重新插拔SIM卡";
  const int srvstat = n.srvstat.load();
  switch (srvstat) {
    case 0: return "SIM卡无服务";
    case 1: return "有限制服务,卡可能停机";
    case 100: return "网络未注册,ME 当前未搜索要注册的运营商";
    case 101: return "已注册1,归属地网络,SIM卡网络正常";
    case 102: return "未注册,ME 正在搜索要注册的运营商";
    case 103:
    case 104: return "注册被拒绝,卡可能停机,请检查SIM卡是否正常";
    case 105: return "已注册，漫游网络,SIM卡网络正常";
    default: break;
  }
  if (srvstat >= 106 && srvstat <= 199) return "CREG其他状态";
  return n.srvdomain.load() != 0 ? "SIM卡正常" : "卡无服务";
}

void handle_com_attr() {
  SDK_ComAttr(kSetComAttrRequest);
  remove_file(kSetComAttrRequest);
  COM_Attr_Update();
  SDK_LOG_WRITE(SDK_LOG_SYS, "设置串口属性配置");
}

// Answer files are written whole, as a new file renamed over the old answer: a page never reads
// half an answer, and a link planted at the name is replaced, not written through.
void write_answer(const char* answer_file, const char* text) {
  platform::replace_file(answer_file, text, std::strlen(text), 0700);
}

// A report request: the request goes, the new answer replaces the old one.
void answer(const char* request, const char* answer_file, int (*report)(char*)) {
  remove_file(request);
  char text[4096] = {};
  report(text);
  write_answer(answer_file, text);
}

void handle_gps_db() {
  remove_file(kReadGpsDbRequest);
  char text[2048];
  BSP_GET_GPS_dB_INFO(text);  // empty when there is no signal report
  BSP_GET_SIM_INFO(text + std::strlen(text));  // each report fits 1024 bytes
  write_answer(kGpsDbAnswer, text);
}

void handle_log_save(WebRequestState& s) {
  keep_decimal(kLogSaveRequest, "com", s.log_com);
  keep_decimal(kLogSaveRequest, "LineMAX", s.line_max);
  if (s.line_max > kLogLineMax) s.line_max = kLogLineMax;
  SDK_LOG_WRITE(SDK_LOG_SYS, "监听串口%d日志%d", s.log_com, s.line_max);
  BSP_SET_UART_LOG(s.log_com, s.line_max);
  remove_file(kDtuComLog);
  remove_file(kLogSaveRequest);
  remove_file(kComLog);
}

void handle_port_command(WebRequestState& s) {
  remove_file(kDtuComLog);
  keep_decimal(kDtuComRequest, "com", s.com);
  keep_decimal(kDtuComRequest, "WaitSec", s.wait_sec);
  keep_decimal(kDtuComRequest, "iBaudRate", s.baud);
  keep_decimal(kDtuComRequest, "iDataSize", s.data_bits);
  keep_decimal(kDtuComRequest, "iStopBit", s.stop_bits);
  keep_decimal(kDtuComRequest, "iParity", s.parity);
  if (const char* info = support::BSP_ReadPar(kDtuComRequest, "info")) {
    // Both buffers keep a terminator behind their bytes: the log shows them as text.
    std::uint8_t command[kPortCommandSize + 1] = {};
    char reply[kPortCommandSize + 1] = {};
    const int count = serial::AsciiStringToHexString(info, command, kPortCommandSize);
    const int n = uart_send_cmd(s.com, s.wait_sec, s.baud, s.data_bits, s.stop_bits, s.parity,
                                reinterpret_cast<const char*>(command), count, reply, kPortCommandSize, s.sleep);
    // Both texts come from outside (a page, a device): escaped, so they cannot forge log records.
    SDK_LOG_WRITE(SDK_LOG_SYS, "串口%d测试%d,(%d,%d,%d,%d,%d,%s,%d,%s)", s.com, n, s.wait_sec, s.baud, s.data_bits,
                  s.stop_bits, s.parity, support::LogText(reinterpret_cast<const char*>(command)).c_str(), count,
                  support::LogText(reply).c_str());
    if (n > 0) support::BSP_SAVE_DTU_HEX_LOG(reinterpret_cast<const unsigned char*>(reply), n);
  }
  remove_file(kDtuComRequest);
}

}  // namespace

int web_wait_seconds(int wait_sec) { return wait_sec > 9 ? 10 : wait_sec; }

int uart_send_cmd(int port, int wait_sec, int baud, int data_bits, int stop_bits, int parity, const char* cmd,
                  int cmd_len, char* reply, int reply_size, SleepSeconds sleep) {
  if (reply == nullptr || reply_size <= 0 || cmd_len < 0 || (cmd == nullptr && cmd_len > 0)) return -1;
  char name[32];
  std::snprintf(name, sizeof name, "Local/Uart/%d", port);
  SetUartParam(name, baud, data_bits, stop_bits, parity);
  if (cmd_len > 0) WriteUart(name, cmd, cmd_len);
  sleep(web_wait_seconds(wait_sec));
  return ReadUart(name, reply, reply_size, 0);
}

void web_request_setup() {
  BSP_Resource_CHECK();
  COM_Attr_init_FromFile();
  COM_Attr_Update();
}

void web_request_pass(WebRequestState& state) {
  using support::IsFileExist;
  if (IsFileExist(kSetComAttrRequest)) handle_com_attr();
  if (IsFileExist(kReadAidiRequest)) answer(kReadAidiRequest, kAidiAnswer, BSP_GET_AIDI_RT_INFO);
  if (IsFileExist(kReadGpsInfoRequest)) answer(kReadGpsInfoRequest, kGpsInfoAnswer, BSP_GET_GPS_INFO);
  if (IsFileExist(kReadGpsDbRequest)) handle_gps_db();
  if (IsFileExist(kLogSaveRequest)) handle_log_save(state);
  if (IsFileExist(kDtuComRequest)) handle_port_command(state);
}

void* API_TEST_FOR_WEB(void*) {
  fsu::platform::sdk_puts("run api test fun\r");
  platform::sleep_s(1);
  web_request_setup();
  WebRequestState state;
  for (;;) {
    platform::sleep_s(1);
    web_request_pass(state);
  }
}

int API_WEB_TEST_FUN() { return pthread_create(&webtest_thread, nullptr, API_TEST_FOR_WEB, nullptr); }

}  // namespace fsu::sdk

using namespace fsu::sdk;
using fsu::support::BoundedText;

extern "C" int BSP_GET_AIDI_RT_INFO(char* buf) {
  if (buf == nullptr) return -1;
  std::memset(buf, 0, kAidiReportSize);
  BoundedText out(buf, kAidiReportSize);
  const int ai = sdk_read_ai_num();
  if (ai == 0) {
    out.append("环境板通信异常,请打开设备查看主板与环境板之间排线是否连接正常;\r\n");
    out.append("如有连接线,可重新插拔下或按压下;\r\n");
  }
  char name[32];
  char value[32];
  for (int n = 1; n <= ai; ++n) {
    std::snprintf(name, sizeof name, "Local/AI/%d", n);
    if (GetAIValue_String(name, 0, value) == 0) {
      out.append("AI %02d 电压型(0-5V)In:%s V", n, value);
    } else {
      out.append("AI %02d  电压型(0-5V)In: NULL", n);
    }
    if (GetAIValue_String(name, 1, value) == 0) {
      out.append(" ----- 电流型(4-20ma)In:%s ma ;", value);
    } else {
      out.append(" ----- 电流型(4-20ma)In: NULL ;");
    }
  }
  out.append(";0:开路/断开 信号---- 1:短路/闭合 信号;");
  const int di = sdk_read_di_num();
  for (int n = 1; n <= di; ++n) {
    if (n == 1) out.append("\r\nDI1-08:");
    if (n == 9) out.append(";DI9-%d:", 16);
    if (n == 17) out.append(";DI17-%d:", di);
    std::snprintf(name, sizeof name, "Local/DI/%d", n);
    int state = 0;
    if (GetDIValue(name, &state) == 0) {
      out.append(" %d ,", state);
    } else {
      out.append(":NULL ;");
    }
  }
  return out.fits() ? 0 : -1;
}

extern "C" int BSP_GET_SIM_INFO(char* buf) {
  if (buf == nullptr) return -1;
  std::memset(buf, 0, kSimReportSize);
  BoundedText(buf, kSimReportSize).append(";;%s", sim_status());
  return 0;
}

extern "C" int BSP_SET_UART_LOG(int port, int limit) { return fsu::sdk::BSP_SET_UART_LOG(port, limit); }

extern "C" int BSP_UART_SEND_CMD(int port, int wait_sec, int baud, int data_bits, int stop_bits, int parity,
                                 const char* cmd, int cmd_len, char* reply, int reply_size) {
  return uart_send_cmd(port, wait_sec, baud, data_bits, stop_bits, parity, cmd, cmd_len, reply, reply_size,
                       fsu::platform::sleep_s);
}
