// The sixteen serial resources end to end against pseudo-terminals: routing by name (main-board
// ports, extension channels with board 2's crossed channels, the ports that refuse), stored line
// parameters, receive buffers, ReadUart's one wait, virtual ports, the attribute file, hex logs.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "fsusdk.h"
#include "platform/clock.h"
#include "sdk/resource_catalogue.h"
#include "sdk/uart_api.h"
#include "serial/extension_link.h"
#include "serial/receive_buffers.h"
#include "serial/serial_ports.h"
#include "serial/uart_driver.h"
#include "support/sdk_log.h"
#include "tests/common/pty_pair.h"
#include "tests/common/test_sandbox.h"

namespace fsu::serial {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<int> stored(const char* name) {
  int b = 0, d = 0, s = 0, p = 0;
  EXPECT_EQ(GetUartParam(name, &b, &d, &s, &p), 0) << name;
  return {b, d, s, p};
}

class SerialPortsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (int n = 1; n <= 7; ++n) {
      ports_.push_back(std::make_unique<test::PtyPair>(box_.path("/dev/ttymxc" + std::to_string(n))));
    }
    support::SDK_LOG_PAR_INIT();
    testing::internal::CaptureStdout();
    M_COM_INIT();
    BSP_BAU_INIT();
    testing::internal::GetCapturedStdout();
    for (auto& p : ports_) p->drain();
  }
  void TearDown() override {
    for (std::uint32_t slot = 0; slot < 7; ++slot) BSP_ComDestroy(slot);
  }
  test::PtyPair& uart(int n) { return *ports_[static_cast<std::size_t>(n - 1)]; }
  speed_t speed(int n) {
    const termios t = uart(n).settings();
    return cfgetospeed(&t);
  }
  // Lets main-board reader k take what its UART holds, as its thread would each 100 ms.
  void reader_pass(int k) {
    for (int i = 0; i < 5; ++i, platform::sleep_ms(10)) m_com_read_pass(k);
  }

  test::TestSandbox box_;
  std::vector<std::unique_ptr<test::PtyPair>> ports_;
};

TEST_F(SerialPortsTest, LineParametersAreSetAtStartUpStoredAndAppliedWhereTheyCan) {
  for (int n = 1; n <= 16; ++n) {
    EXPECT_EQ(stored(("Local/Uart/" + std::to_string(n)).c_str()), (std::vector<int>{9600, 8, 1, 0}));
  }
  EXPECT_EQ(speed(1), B9600);
  EXPECT_EQ(speed(5), B115200);  // the board links stay at 115200
  BSP_BAU_INIT();  // again, to watch the line-parameter frames of the boards' channels 0 to 3
  const Bytes board1 = uart(5).receive(4 * 13, 2.0), board2 = uart(6).receive(4 * 13, 2.0);
  ASSERT_EQ(board1.size() + board2.size(), 104u);
  EXPECT_EQ(Bytes(board1.begin(), board1.begin() + 13),
            (Bytes{0x7E, 0x00, 0x07, 0x60, 0x00, 0x00, 0x25, 0x80, 0x08, 0x01, 0x00, 0x15, 0x0D}));
  EXPECT_EQ(board2[13 + 3] * 256 + board2[26 + 3], 0x6261);  // records 9 and 10: board 2's channels 2 and 1

  EXPECT_EQ(SetUartParam("Local/Uart/2", 38400, 8, 0, 5), 0);  // parity 5 is even, stop 0 is one
  const termios t = uart(2).settings();
  EXPECT_EQ(cfgetospeed(&t), B38400);
  EXPECT_EQ(t.c_cflag & (PARODD | CSTOPB), 0u);
  EXPECT_TRUE(t.c_iflag & INPCK);
  EXPECT_EQ(SetUartParam("Local/Uart/13", 1234, 5, 2, 1), 0);  // no line behind it: stored only
  EXPECT_EQ(stored("Local/Uart/13"), (std::vector<int>{1234, 5, 2, 1}));
  testing::internal::CaptureStdout();
  EXPECT_EQ(SetUartParam("Local/Uart/3", 14400, 8, 1, 0), 0);  // refused by the driver, kept stored
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Unsupported nBaudrate 14400"), std::string::npos);
  EXPECT_EQ(stored("Local/Uart/3")[0], 14400);
  EXPECT_EQ(speed(3), B9600);
  EXPECT_EQ(SetUartParam("Local/Uart/10", 115200, 7, 2, 1), 0);  // board 2's channel 2
  EXPECT_EQ(uart(6).receive(13, 2.0),
            (Bytes{0x7E, 0x00, 0x07, 0x62, 0x00, 0x01, 0xC2, 0x00, 0x07, 0x02, 0x01, 0x36, 0x0D}));

  int v = 0;
  EXPECT_EQ(SetUartParam("Local/Uart/17", 9600, 8, 1, 0), -1);
  EXPECT_EQ(SetUartParam(nullptr, 9600, 8, 1, 0), -1);
  EXPECT_EQ(GetUartParam("Local/Uart/1", nullptr, &v, &v, &v), -1);
}

TEST_F(SerialPortsTest, WritesGoWhereTheResourceLives) {
  const struct {
    const char* name;
    int port;
    Bytes wire;
  } routes[] = {{"Local/Uart/1", 1, {'A', 'B'}},
                {"Local/Uart/5", 5, {0x7E, 0x00, 0x02, 0x80, 0x41, 0x42, 0x05, 0x0D}},
                {"Local/Uart/10", 6, {0x7E, 0x00, 0x02, 0x82, 0x41, 0x42, 0x07, 0x0D}},  // crossed
                {"Local/Uart/14", 7, {'A', 'B'}}};
  for (const auto& r : routes) {
    EXPECT_EQ(WriteUart(r.name, "AB", 2), 0);
    EXPECT_EQ(uart(r.port).receive(r.wire.size(), 2.0), r.wire) << r.name;
  }
  const std::string too_long(kMaxLinkData + 1, 'x');
  EXPECT_EQ(WriteUart("Local/Uart/6", too_long.data(), static_cast<int>(too_long.size())), -1);
  for (const char* refused : {"Local/Uart/13", "Local/Uart/15", "Local/Uart/16", "Local/Uart/17", "Local/AI/1"}) {
    EXPECT_EQ(WriteUart(refused, "x", 1), -1) << refused;
  }
  EXPECT_EQ(WriteUart("Local/Uart/1", nullptr, 1) + WriteUart("Local/Uart/1", "x", -1), -2);
  for (int n = 1; n <= 7; ++n) EXPECT_TRUE(uart(n).drain().empty()) << n;
}

TEST_F(SerialPortsTest, ReceiveBuffersKeepTheOldestBytesAndHandThemOutInOrder) {
  Bytes sent(5000);
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<std::uint8_t>(i * 7);
  uart(1).send(sent);
  reader_pass(0);
  ASSERT_EQ(LIST_MCOM_RECV_INFO[0].nLen.load(), 4096);
  char buf[5000];
  EXPECT_EQ(ReadUart("Local/Uart/1", buf, 10, 0), 10);
  EXPECT_EQ(ReadUart("Local/Uart/1", buf + 10, sizeof buf - 10, 0), 4086);
  EXPECT_EQ(Bytes(buf, buf + 4096), Bytes(sent.begin(), sent.begin() + 4096));

  for (const char* silent : {"Local/Uart/13", "Local/Uart/14"}) EXPECT_EQ(ReadUart(silent, buf, 10, 0), 0);
  EXPECT_EQ(ReadUart("Local/Uart/17", buf, 10, 0), -1);
  EXPECT_EQ(ReadUart("Local/Uart/1", nullptr, 10, 0), -1);
  EXPECT_EQ(ReadUart("Local/Uart/1", buf, 0, 0), -1);
}

TEST_F(SerialPortsTest, ReadWaitsOnceForTheTimeOutLessAMillisecond) {
  const auto waited = [](int timeout) {
    char buf[16];
    const double start = platform::monotonic_seconds();
    EXPECT_EQ(ReadUart("Local/Uart/2", buf, sizeof buf, timeout), 0);
    return platform::monotonic_seconds() - start;
  };
  EXPECT_LT(waited(0), 0.2);
  const double long_wait = waited(500);
  EXPECT_GE(long_wait, 0.498);
  EXPECT_LT(long_wait, 1.5);
}

TEST_F(SerialPortsTest, VirtualPortAnswersEachWriteOnce) {
  box_.write("/tmp/set_com_attr", "set_com=3\r\nset_vlaue=1\r\nset_value=0\r\n");
  testing::internal::CaptureStdout();
  sdk::SDK_ComAttr("/tmp/set_com_attr");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "set com3 attr=1 ");
  EXPECT_EQ(WriteUart("Local/Uart/3", "ping", 4), 0);
  EXPECT_TRUE(uart(3).drain().empty());
  uart(3).send("real");
  reader_pass(2);
  char buf[64];
  ASSERT_EQ(ReadUart("Local/Uart/3", buf, sizeof buf, 0), 20);
  EXPECT_EQ(std::string(buf, 20), "0123456789ABCDEFGHIJ");
  ASSERT_EQ(ReadUart("Local/Uart/3", buf, sizeof buf, 0), 4);  // the answer came once
  EXPECT_EQ(std::string(buf, 4), "real");
}

TEST_F(SerialPortsTest, AttributeFileSurvivesARestart) {
  sdk::BSP_Resource_CHECK();  // COM = 4 on a board without extension boards
  sdk::SDK_COM_Attr[1].attr.store(1);
  sdk::COM_Attr_Update();
  EXPECT_EQ(box_.read("/etc/sdk_com_attr"), "com_num=4\r\ncom1_attr=0\r\ncom2_attr=1\r\ncom3_attr=0\r\ncom4_attr=0\r\n");
  sdk::reset_uart_api_for_tests();
  for (const char* printed : {"com 2 attr=1\r\n", "no com attr file\r\n"}) {  // a restart, then one without the file
    testing::internal::CaptureStdout();
    sdk::COM_Attr_init_FromFile();
    EXPECT_NE(testing::internal::GetCapturedStdout().find(printed), std::string::npos);
    EXPECT_EQ(sdk::SDK_COM_Attr[1].attr.load(), printed[0] == 'c');
    std::remove(box_.path("/etc/sdk_com_attr").c_str());
  }
}

TEST_F(SerialPortsTest, HexLogOfTheChosenPortIsByteExact) {
  sdk::BSP_SET_UART_LOG(3, 2);
  for (int i = 0; i < 2; ++i) WriteUart("Local/Uart/3", "\x01\x03", 2);
  WriteUart("Local/Uart/4", "\x55", 1);
  uart(3).send(Bytes{0xAB, 0xCD, 0xEF});
  reader_pass(2);
  char buf[16];
  ASSERT_EQ(ReadUart("Local/Uart/3", buf, sizeof buf, 0), 3);
  WriteUart("Local/Uart/3", "\x01\x03", 2);  // the third write is past the limit
  const std::string log = box_.read("/tmp/comlog.log");
  // Two stamped write records; the read lands behind the last receive mark.
  EXPECT_EQ(log.rfind("\r\n[", 0), 0u);
  EXPECT_NE(log.find("]:[Local/Uart/3][00001]\r\nTX:01 03 \r\nRX:\r\n["), std::string::npos) << log;
  EXPECT_TRUE(log.ends_with("]:[Local/Uart/3][00002]\r\nTX:01 03 \r\nRX:AB CD EF ")) << log;
}

}  // namespace
}  // namespace fsu::serial
