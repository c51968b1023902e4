// The UART API behind the public SetUartParam, GetUartParam, WriteUart and ReadUart: the
// virtual-port switch used by the web pages' tests and the hex log of one chosen port.
#pragma once

#include <atomic>
#include <cstdint>

namespace fsu::sdk {

// Per port number 1 to 20 (index 0 to 19): byte 1 "answer pending", byte 2 "virtual".
struct COM_ATTR {
  std::atomic<std::uint8_t> unused;
  std::atomic<std::uint8_t> pending;
  std::atomic<std::uint8_t> attr;
};
extern COM_ATTR SDK_COM_Attr[20];

// The canned answer of a virtual port.
constexpr char kVirtualAnswer[] = "0123456789ABCDEFGHIJ";
constexpr int kVirtualAnswerLength = 20;

int ReadUart_FromResourceName_Virtual(int id, std::uint8_t* buf, int len, int wait_ms);
int WriteUart_FromResourceName_Virtual(int id, const std::uint8_t* buf, int len);

// Loads the attributes from /etc/sdk_com_attr; rewrites the file from them; applies one request.
void COM_Attr_init_FromFile();
void COM_Attr_Update();
void SDK_ComAttr(const char* path);

// Hex log of one port: port 0 switches it off.
int BSP_SET_UART_LOG(int port, int limit);

// For tests: the state of a fresh process.
void reset_uart_api_for_tests();

}  // namespace fsu::sdk
