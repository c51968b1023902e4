#include "sdk/uart_api.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "fsusdk.h"
#include "platform/clock.h"
#include "platform/console_output.h"
#include "sdk/resource_catalogue.h"
#include "serial/extension_link.h"
#include "serial/serial_ports.h"
#include "support/bounded_text.h"
#include "support/file_helpers.h"
#include "support/sdk_log.h"

namespace fsu::sdk {
namespace {

using support::SDK_LOG_SO;
using support::SDK_LOG_SYS;
using support::SDK_LOG_WRITE;

constexpr const char* kAttrFile = "/etc/sdk_com_attr";

// The hex-log switch: which port is logged, how many writes so far and at most.
struct UartLogPar {
  std::mutex lock;  // guards name
  char name[100];
  std::atomic<int> counter;
  std::atomic<int> limit;
  std::atomic<int> port;
};
UartLogPar STR_UART_LOG_PAR;

COM_ATTR* attr_of(int id) { return id >= 1 && id <= 20 ? &SDK_COM_Attr[id - 1] : nullptr; }

// True when the hex-log switch names the port called `name`.
bool logging(const char* name) {
  if (name == nullptr || STR_UART_LOG_PAR.port.load() == 0) return false;
  std::lock_guard<std::mutex> lock(STR_UART_LOG_PAR.lock);
  return std::strcmp(STR_UART_LOG_PAR.name, name) == 0;
}

void log_traffic(const char* name, const std::uint8_t* buf, int len, int direction, bool virtual_port) {
  auto* save = virtual_port ? support::BSP_SAVE_HEX_LOG_Virtual : support::BSP_SAVE_HEX_LOG;
  save(name, buf, len, direction, STR_UART_LOG_PAR.limit.load(), STR_UART_LOG_PAR.counter.load());
}

int decimal(const char* text) { return text == nullptr ? 0 : std::atoi(text); }

}  // namespace

COM_ATTR SDK_COM_Attr[20];

int ReadUart_FromResourceName_Virtual(int id, std::uint8_t* buf, int len, int /*wait_ms*/) {
  COM_ATTR* a = attr_of(id);
  if (a == nullptr || a->attr.load() != 1 || a->pending.load() != 1 || buf == nullptr || len <= 0) return 0;
  a->pending.store(0);
  const int n = len < kVirtualAnswerLength ? len : kVirtualAnswerLength;
  std::memcpy(buf, kVirtualAnswer, static_cast<std::size_t>(n));
  return kVirtualAnswerLength;
}

int WriteUart_FromResourceName_Virtual(int id, const std::uint8_t* /*buf*/, int /*len*/) {
  COM_ATTR* a = attr_of(id);
  if (a == nullptr || a->attr.load() != 1) return -1;
  a->pending.store(1);
  return 0;
}

void COM_Attr_init_FromFile() {
  if (!support::IsFileExist(kAttrFile)) {
    for (COM_ATTR& a : SDK_COM_Attr) {
      a.unused.store(0);
      a.pending.store(0);
      a.attr.store(0);
    }
    fsu::platform::sdk_puts("no com attr file\r");
    return;
  }
  const char* count = support::BSP_ReadPar(kAttrFile, "com_num");
  if (count == nullptr) return;
  const int n = decimal(count);
  for (int i = 1; i <= n && i <= 20; ++i) {
    char key[32];
    std::snprintf(key, sizeof key, "com%d_attr", i);
    const char* value = support::BSP_ReadPar(kAttrFile, key);
    if (value == nullptr) continue;
    const std::uint8_t attr = static_cast<std::uint8_t>(decimal(value));
    SDK_COM_Attr[i - 1].attr.store(attr);
    fsu::platform::sdk_printf("com %d attr=%d\r\n", i, attr);
  }
}

void COM_Attr_Update() {
  char text[1024];
  support::BoundedText out(text, sizeof text);
  const int com = sdk_read_com_num();
  out.append("com_num=%d\r\n", com);
  for (int i = 1; i <= com && i <= 20; ++i) out.append("com%d_attr=%d\r\n", i, SDK_COM_Attr[i - 1].attr.load());
  support::remove_file(kAttrFile);
  support::Update_InfoToFile(kAttrFile, text);
}

void SDK_ComAttr(const char* path) {
  if (path == nullptr) return;
  const char* port_text = support::BSP_ReadPar(path, "set_com");
  if (port_text == nullptr) return;
  const int port = decimal(port_text);
  const char* value_text = support::BSP_ReadPar(path, "set_vlaue");
  if (value_text == nullptr) value_text = support::BSP_ReadPar(path, "set_value");
  if (value_text == nullptr) return;
  const int value = decimal(value_text);
  if (port >= 1 && port <= 19) SDK_COM_Attr[port - 1].attr.store(static_cast<std::uint8_t>(value));
  fsu::platform::sdk_printf("set com%d attr=%d ", port, value);
  SDK_LOG_WRITE(SDK_LOG_SYS, "set com%d attr=%d ", port, value);
}

int BSP_SET_UART_LOG(int port, int limit) {
  {
    std::lock_guard<std::mutex> lock(STR_UART_LOG_PAR.lock);
    std::memset(STR_UART_LOG_PAR.name, 0, sizeof STR_UART_LOG_PAR.name);
    std::snprintf(STR_UART_LOG_PAR.name, sizeof STR_UART_LOG_PAR.name, "Local/Uart/%d", port);
  }
  STR_UART_LOG_PAR.counter.store(0);
  STR_UART_LOG_PAR.limit.store(limit);
  STR_UART_LOG_PAR.port.store(port);
  return 0;
}

void reset_uart_api_for_tests() {
  for (COM_ATTR& a : SDK_COM_Attr) {
    a.pending.store(0);
    a.attr.store(0);
  }
  BSP_SET_UART_LOG(0, 0);
}

}  // namespace fsu::sdk

using namespace fsu::sdk;
using fsu::support::SDK_LOG_SO;
using fsu::support::LogText;
using fsu::support::SDK_LOG_WRITE;

extern "C" int SetUartParam(const char* name, int iBaudRate, int iDataSize, int iStopBit, int iParity) {
  const int result =
      fsu::serial::SetUartParam_FromResourceName(READ_resourceName(name), iBaudRate, iDataSize, iStopBit, iParity);
  SDK_LOG_WRITE(SDK_LOG_SO, "SetUartParam:%s iBaudRate:%d,iDataSize:%d,iStopBit:%d,iParity:%d,result:%d",
                LogText(name).c_str(), iBaudRate, iDataSize, iStopBit, iParity, result);
  return result;
}

extern "C" int GetUartParam(const char* name, int* iBaudRate, int* iDataSize, int* iStopBit, int* iParity) {
  const int result =
      fsu::serial::GetUartParam_FromResourceName(READ_resourceName(name), iBaudRate, iDataSize, iStopBit, iParity);
  SDK_LOG_WRITE(SDK_LOG_SO, "GetUartParam:%s iBaudRate:%d,iDataSize:%d,iStopBit:%d,iParity:%d,result:%d",
                LogText(name).c_str(), iBaudRate ? *iBaudRate : 0, iDataSize ? *iDataSize : 0,
                iStopBit ? *iStopBit : 0, iParity ? *iParity : 0, result);
  return result;
}

extern "C" int WriteUart(const char* name, const char* buf, int len) {
  const int id = READ_resourceName(name);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(buf);
  if (bytes == nullptr || len < 0) return -1;
  if (WriteUart_FromResourceName_Virtual(id, bytes, len) == 0) {
    if (logging(name)) {
      STR_UART_LOG_PAR.counter.fetch_add(1);
      log_traffic(name, bytes, len, 0, true);
    }
    return 0;
  }
  // A link frame carries at most kMaxLinkData bytes to an extension channel.
  if (id >= 5 && id <= 12 && len > fsu::serial::kMaxLinkData) return -1;
  const int result = fsu::serial::WriteUart_FromResourceName(id, bytes, len);
  SDK_LOG_WRITE(SDK_LOG_SO, "WriteUart resourceName:%s TXLENTH:%d,result=%d", LogText(name).c_str(), len, result);
  if (logging(name)) {
    STR_UART_LOG_PAR.counter.fetch_add(1);
    log_traffic(name, bytes, len, 0, false);
  }
  return result;
}

extern "C" int ReadUart(const char* name, char* buf, int len, int timeout) {
  auto* bytes = reinterpret_cast<std::uint8_t*>(buf);
  // A name that is no UART, or nowhere to put bytes, fails as an idle port does: after the
  // wait, so that a caller polling with it does not spin.
  const bool usable = bytes != nullptr && len > 0;
  int id = READ_resourceName(name);
  if (usable && ReadUart_FromResourceName_Virtual(id, bytes, len, timeout) == kVirtualAnswerLength) {
    if (logging(name)) log_traffic(name, bytes, len < kVirtualAnswerLength ? len : kVirtualAnswerLength, 1, true);
    return len < kVirtualAnswerLength ? len : kVirtualAnswerLength;
  }
  int n = usable ? fsu::serial::ReadUart_FromResourceName(id, bytes, len, timeout) : -1;
  if (n < 1) {
    fsu::platform::sleep_ms(timeout <= 1 ? 1 : timeout - 1);
    id = READ_resourceName(name);
    n = usable ? fsu::serial::ReadUart_FromResourceName(id, bytes, len, timeout) : -1;
  }
  if (logging(name)) log_traffic(name, bytes, n, 1, false);
  return n;
}
