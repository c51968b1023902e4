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
  // Lets main-board reader k take what its UART holds, as its thread would each 100 ms.
  void reader_pass(int k) {
    for (int i = 0; i < 5; ++i) {
      m_com_read_pass(k);
      platform::sleep_ms(10);
    }
  }

  test::TestSandbox box_;
  std::vector<std::unique_ptr<test::PtyPair>> ports_;
};

TEST_F(SerialPortsTest, StartUpSetsEveryResourceTo9600AndTellsTheBoards) {
  for (int n = 1; n <= 16; ++n) {
    int baud = 0, data = 0, stop = 0, parity = -1;
    const std::string name = "Local/Uart/" + std::to_string(n);
    ASSERT_EQ(GetUartParam(name.c_str(), &baud, &data, &stop, &parity), 0);
    EXPECT_EQ(std::vector<int>({baud, data, stop, parity}), std::vector<int>({9600, 8, 1, 0})) << name;
  }
  termios t = uart(1).settings();
  EXPECT_EQ(cfgetospeed(&t), B9600);
  t = uart(5).settings();
  EXPECT_EQ(cfgetospeed(&t), B115200);  // the board links stay at 115200
  // Re-run the start-up settings and watch the line-parameter frames for channels 0 to 3.
  BSP_BAU_INIT();
  const Bytes frame0 = {0x7E, 0x00, 0x07, 0x60, 0x00, 0x00, 0x25, 0x80, 0x08, 0x01, 0x00, 0x15, 0x0D};
  const Bytes board1 = uart(5).receive(4 * 13, 2.0);
  ASSERT_EQ(board1.size(), 52u);
  EXPECT_EQ(Bytes(board1.begin(), board1.begin() + 13), frame0);
  const Bytes board2 = uart(6).receive(4 * 13, 2.0);
  ASSERT_EQ(board2.size(), 52u);
  EXPECT_EQ(board2[13 + 3], 0x62);  // record 9 is board 2's channel 2
  EXPECT_EQ(board2[26 + 3], 0x61);  // record 10 is its channel 1
}

TEST_F(SerialPortsTest, LineParametersAreStoredAndAppliedWhereTheyCan) {
  EXPECT_EQ(SetUartParam("Local/Uart/2", 38400, 8, 0, 5), 0);  // parity 5 is even, stop 0 is one
  termios t = uart(2).settings();
  EXPECT_EQ(cfgetospeed(&t), B38400);
  EXPECT_FALSE(t.c_cflag & PARODD);
  EXPECT_TRUE(t.c_iflag & INPCK);
  EXPECT_FALSE(t.c_cflag & CSTOPB);

  EXPECT_EQ(SetUartParam("Local/Uart/13", 1234, 5, 2, 1), 0);  // stored only
  int b, d, s, p;
  ASSERT_EQ(GetUartParam("Local/Uart/13", &b, &d, &s, &p), 0);
  EXPECT_EQ(std::vector<int>({b, d, s, p}), std::vector<int>({1234, 5, 2, 1}));
  testing::internal::CaptureStdout();
  EXPECT_EQ(SetUartParam("Local/Uart/3", 14400, 8, 1, 0), 0);  // refused by the driver, kept stored
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Unsupported nBaudrate 14400"), std::string::npos);
  ASSERT_EQ(GetUartParam("Local/Uart/3", &b, &d, &s, &p), 0);
  EXPECT_EQ(b, 14400);
  t = uart(3).settings();
  EXPECT_EQ(cfgetospeed(&t), B9600);

  EXPECT_EQ(SetUartParam("Local/Uart/10", 115200, 7, 2, 1), 0);
  EXPECT_EQ(uart(6).receive(13, 2.0),
            (Bytes{0x7E, 0x00, 0x07, 0x62, 0x00, 0x01, 0xC2, 0x00, 0x07, 0x02, 0x01, 0x36, 0x0D}));
  EXPECT_EQ(SetUartParam("Local/Uart/11", 9600, 8, 1, 0), 0);
  EXPECT_EQ(uart(6).receive(13, 2.0)[3], 0x61);

  EXPECT_EQ(SetUartParam("Local/Uart/17", 9600, 8, 1, 0), -1);
  EXPECT_EQ(SetUartParam(nullptr, 9600, 8, 1, 0), -1);
  EXPECT_EQ(GetUartParam("Local/Uart/1", nullptr, &d, &s, &p), -1);
}

TEST_F(SerialPortsTest, WritesGoWhereTheResourceLives) {
  EXPECT_EQ(WriteUart("Local/Uart/1", "AB", 2), 0);
  EXPECT_EQ(uart(1).receive(2, 2.0), (Bytes{'A', 'B'}));
  EXPECT_EQ(WriteUart("Local/Uart/5", "AB", 2), 0);
  EXPECT_EQ(uart(5).receive(8, 2.0), (Bytes{0x7E, 0x00, 0x02, 0x80, 0x41, 0x42, 0x05, 0x0D}));
  EXPECT_EQ(WriteUart("Local/Uart/10", "AB", 2), 0);
  EXPECT_EQ(uart(6).receive(8, 2.0), (Bytes{0x7E, 0x00, 0x02, 0x82, 0x41, 0x42, 0x07, 0x0D}));
  EXPECT_EQ(WriteUart("Local/Uart/14", "$", 1), 0);
  EXPECT_EQ(uart(7).receive(1, 2.0), (Bytes{'$'}));

  const std::string too_long(kMaxLinkData + 1, 'x');
  EXPECT_EQ(WriteUart("Local/Uart/6", too_long.data(), static_cast<int>(too_long.size())), -1);
  for (const char* refused : {"Local/Uart/13", "Local/Uart/15", "Local/Uart/16", "Local/Uart/17", "Local/AI/1"}) {
    EXPECT_EQ(WriteUart(refused, "x", 1), -1) << refused;
  }
  EXPECT_EQ(WriteUart("Local/Uart/1", nullptr, 1), -1);
  EXPECT_EQ(WriteUart("Local/Uart/1", "x", -1), -1);
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
  EXPECT_EQ(Bytes(buf, buf + 10), Bytes(sent.begin(), sent.begin() + 10));
  EXPECT_EQ(ReadUart("Local/Uart/1", buf, sizeof buf, 0), 4086);
  EXPECT_EQ(Bytes(buf, buf + 4086), Bytes(sent.begin() + 10, sent.begin() + 4096));

  for (const char* silent : {"Local/Uart/13", "Local/Uart/14"}) EXPECT_EQ(ReadUart(silent, buf, 10, 0), 0);
  EXPECT_EQ(ReadUart("Local/Uart/17", buf, 10, 0), -1);
  EXPECT_EQ(ReadUart("Local/Uart/1", nullptr, 10, 0), -1);
  EXPECT_EQ(ReadUart("Local/Uart/1", buf, 0, 0), -1);
}

TEST_F(SerialPortsTest, ReadWaitsOnceForTheTimeOutLessAMillisecond) {
  char buf[16];
  double start = platform::monotonic_seconds();
  EXPECT_EQ(ReadUart("Local/Uart/2", buf, sizeof buf, 0), 0);
  EXPECT_LT(platform::monotonic_seconds() - start, 0.2);
  start = platform::monotonic_seconds();
  EXPECT_EQ(ReadUart("Local/Uart/2", buf, sizeof buf, 500), 0);
  const double waited = platform::monotonic_seconds() - start;
  EXPECT_GE(waited, 0.498);
  EXPECT_LT(waited, 1.5);
}

TEST_F(SerialPortsTest, VirtualPortAnswersEachWriteOnce) {
  box_.write("/tmp/set_com_attr", "set_com=3\r\nset_vlaue=1\r\nset_value=0\r\n");
  testing::internal::CaptureStdout();
  sdk::SDK_ComAttr(box_.path("/tmp/set_com_attr").substr(box_.root().size()).c_str());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "set com3 attr=1 ");
  EXPECT_EQ(WriteUart("Local/Uart/3", "ping", 4), 0);
  EXPECT_TRUE(uart(3).drain().empty());
  uart(3).send("real");
  reader_pass(2);
  char buf[64];
  ASSERT_EQ(ReadUart("Local/Uart/3", buf, sizeof buf, 0), 20);
  EXPECT_EQ(std::string(buf, 20), "0123456789ABCDEFGHIJ");
  ASSERT_EQ(ReadUart("Local/Uart/3", buf, sizeof buf, 0), 4);
  EXPECT_EQ(std::string(buf, 4), "real");

  box_.write("/tmp/set_com_attr", "set_com=20\r\nset_value=1\r\n");  // printed, not stored
  testing::internal::CaptureStdout();
  sdk::SDK_ComAttr("/tmp/set_com_attr");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "set com20 attr=1 ");
  EXPECT_EQ(sdk::SDK_COM_Attr[19].attr.load(), 0);
}

TEST_F(SerialPortsTest, AttributeFileSurvivesARestart) {
  sdk::BSP_Resource_CHECK();  // COM = 4 on a board without extension boards
  sdk::SDK_COM_Attr[1].attr.store(1);
  sdk::COM_Attr_Update();
  EXPECT_EQ(box_.read("/etc/sdk_com_attr"), "com_num=4\r\ncom1_attr=0\r\ncom2_attr=1\r\ncom3_attr=0\r\ncom4_attr=0\r\n");
  sdk::reset_uart_api_for_tests();
  testing::internal::CaptureStdout();
  sdk::COM_Attr_init_FromFile();
  EXPECT_NE(testing::internal::GetCapturedStdout().find("com 2 attr=1\r\n"), std::string::npos);
  EXPECT_EQ(sdk::SDK_COM_Attr[1].attr.load(), 1);

  std::remove(box_.path("/etc/sdk_com_attr").c_str());
  testing::internal::CaptureStdout();
  sdk::COM_Attr_init_FromFile();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "no com attr file\r\n");
  EXPECT_EQ(sdk::SDK_COM_Attr[1].attr.load(), 0);
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
  std::size_t first = log.find("]:[Local/Uart/3][00001]\r\nTX:01 03 \r\nRX:");
  std::size_t second = log.find("]:[Local/Uart/3][00002]\r\nTX:01 03 \r\nRX:AB CD EF ");
  EXPECT_NE(first, std::string::npos) << log;
  EXPECT_NE(second, std::string::npos) << log;
  EXPECT_EQ(log.find("[00003]"), std::string::npos);
  EXPECT_EQ(log.find("Local/Uart/4"), std::string::npos);
  EXPECT_EQ(log.rfind("\r\n[", 0), 0u);
}

}  // namespace
}  // namespace fsu::serial
