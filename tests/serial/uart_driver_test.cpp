// The UART driver against a pseudo-terminal: settings as the other side sees them, refusals
// with their printed lines, reads that never block. Data bits and parity enable are checked on
// the termios record the driver builds, since a pseudo-terminal always reports CS8 and no PARENB.
#include <gtest/gtest.h>

#include <string>

#include "serial/uart_driver.h"
#include "tests/common/pty_pair.h"
#include "tests/common/test_sandbox.h"

namespace fsu::serial {
namespace {

BSP_COM_PARAMS params(std::uint32_t baud, std::uint32_t data, std::uint32_t stop, std::uint32_t parity) {
  return BSP_COM_PARAMS{24, 0, baud, data, stop, parity};
}

class UartDriverTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(BSP_ComCreate(0), 0u); }
  void TearDown() override { BSP_ComDestroy(0); }

  std::uint32_t set(const BSP_COM_PARAMS& p, std::string* printed) {
    testing::internal::CaptureStdout();
    const std::uint32_t rc = BSP_ComSetParams(0, &p);
    *printed = testing::internal::GetCapturedStdout();
    return rc;
  }

  test::TestSandbox box_;
  test::PtyPair port_{box_.path("/dev/ttymxc1")};
};

TEST_F(UartDriverTest, AppliesSpeedStopBitsAndParityAndReadsWithoutWaiting) {
  std::string printed;
  ASSERT_EQ(set(params(9600, 8, 2, 1), &printed), 0u);
  termios t = port_.settings();
  EXPECT_EQ(cfgetospeed(&t), B9600);
  EXPECT_EQ(cfgetispeed(&t), B9600);
  EXPECT_TRUE(t.c_cflag & CSTOPB);
  EXPECT_TRUE(t.c_cflag & PARODD);
  EXPECT_TRUE(t.c_iflag & INPCK);
  EXPECT_EQ(t.c_cc[VMIN], 0);
  EXPECT_EQ(t.c_cc[VTIME], 0);
  EXPECT_FALSE(t.c_lflag & ICANON);

  ASSERT_EQ(set(params(300, 8, 1, 2), &printed), 0u);  // 300 is accepted; code 1 is one stop bit
  t = port_.settings();
  EXPECT_EQ(cfgetospeed(&t), B300);
  EXPECT_FALSE(t.c_cflag & CSTOPB);
  EXPECT_FALSE(t.c_cflag & PARODD);  // even
  EXPECT_TRUE(t.c_iflag & INPCK);

  std::uint8_t buf[64];
  std::uint32_t n = 99;
  EXPECT_EQ(BSP_ComRead(0, buf, sizeof buf, &n), 0u);  // nothing pending: at once, 0 bytes
  EXPECT_EQ(n, 0u);
  port_.send("hello");
  for (int i = 0; i < 200 && n == 0; ++i) {
    BSP_ComRead(0, buf, sizeof buf, &n);
    if (n == 0) usleep(5000);
  }
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), n), "hello");

  std::uint32_t written = 99;
  EXPECT_EQ(BSP_ComWrite(0, "abc", 3, &written), 0u);
  EXPECT_EQ(written, 3u);
  EXPECT_EQ(port_.receive(3, 2.0), (std::vector<std::uint8_t>{'a', 'b', 'c'}));
  EXPECT_EQ(BSP_ComWrite(0, buf, 0, &written), 0u);
  EXPECT_EQ(written, 0u);
  EXPECT_EQ(BSP_ComFlush(0), 0u);
}

TEST_F(UartDriverTest, RefusesUnsupportedParametersAndKeepsTheSettings) {
  std::string printed;
  ASSERT_EQ(set(params(19200, 8, 1, 0), &printed), 0u);
  const struct {
    BSP_COM_PARAMS p;
    const char* message;
  } refused[] = {{params(14400, 8, 1, 0), "Unsupported nBaudrate 14400\n"},
                 {params(0, 8, 1, 0), "Unsupported nBaudrate 0\n"},
                 {params(9600, 8, 1, 3), "Unsupported parity 3\n"},
                 {params(9600, 9, 1, 0), "Unsupported data bits 9\n"},
                 {params(9600, 8, 3, 0), "Unsupported stop bits 3\n"}};
  for (const auto& r : refused) {
    EXPECT_EQ(set(r.p, &printed), BSP_COM_ERR_PARAM);
    EXPECT_EQ(printed.rfind(r.message, 0), 0u) << printed;
    EXPECT_NE(printed.find("ErrNo:0x01020001.\n"), std::string::npos) << printed;
  }
  BSP_COM_PARAMS wrong_size = params(9600, 8, 1, 0);
  for (std::uint32_t size : {20u, 28u}) {
    wrong_size.nSize = size;
    EXPECT_EQ(set(wrong_size, &printed), BSP_COM_ERR_PARAM);
  }
  testing::internal::CaptureStdout();
  EXPECT_EQ(BSP_ComSetParams(0, nullptr), BSP_COM_ERR_PARAM);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("x=NULL!\n"), std::string::npos);
  termios t = port_.settings();
  EXPECT_EQ(cfgetospeed(&t), B19200);
}

TEST(UartDriver, SlotsMissingDevicesAndCapabilities) {
  test::TestSandbox box;
  EXPECT_EQ(BSP_ComGetSlots(), 7u);
  std::uint8_t buf[8];
  std::uint32_t n = 0;
  const BSP_COM_PARAMS p = params(9600, 8, 1, 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(BSP_ComCreate(7), BSP_COM_ERR_PARAM);
  EXPECT_EQ(BSP_ComSetParams(7, &p), BSP_COM_ERR_PARAM);
  EXPECT_EQ(BSP_ComWrite(7, buf, 1, &n), BSP_COM_ERR_PARAM);
  EXPECT_EQ(BSP_ComRead(7, buf, 1, &n), BSP_COM_ERR_PARAM);
  EXPECT_EQ(BSP_ComFlush(7), BSP_COM_ERR_PARAM);
  EXPECT_EQ(BSP_ComCreate(2), BSP_COM_ERR_DEVICE);  // no /dev/ttymxc3 in this sandbox
  EXPECT_EQ(BSP_ComRead(2, buf, 1, &n), BSP_COM_ERR_DEVICE);
  EXPECT_EQ(BSP_ComWrite(2, buf, 1, &n), BSP_COM_ERR_DEVICE);
  EXPECT_EQ(BSP_ComSetParams(2, &p), BSP_COM_ERR_DEVICE);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("BSP_ComCreate(2, /dev/ttymxc3) Failed !\n"), std::string::npos) << printed;
  EXPECT_NE(printed.find("ErrNo:0x01020004.\n"), std::string::npos);

  BSP_COM_CAPS caps{};
  caps.nSize = 28;
  EXPECT_EQ(BSP_ComGetCapbility(5, &caps), 0u);
  EXPECT_EQ(caps.nMinBaudrate, 600u);
  EXPECT_EQ(caps.nMaxBaudrate, 115200u);
  caps.nSize = 24;
  EXPECT_EQ(BSP_ComGetCapbility(5, &caps), BSP_COM_ERR_PARAM);
}

TEST(UartTermios, DataBitsAndParityEnable) {
  const struct {
    std::uint32_t data;
    tcflag_t size;
  } sizes[] = {{5, CS5}, {6, CS6}, {7, CS7}, {8, CS8}};
  for (const auto& s : sizes) {
    termios t{};
    ASSERT_EQ(build_termios(params(9600, s.data, 1, 0), &t), 0u);
    EXPECT_EQ(t.c_cflag & CSIZE, s.size);
    EXPECT_FALSE(t.c_cflag & PARENB);
  }
  termios odd{}, even{};
  ASSERT_EQ(build_termios(params(9600, 7, 2, 1), &odd), 0u);
  ASSERT_EQ(build_termios(params(9600, 7, 0, 2), &even), 0u);
  EXPECT_EQ(odd.c_cflag & (PARENB | PARODD | CSTOPB), static_cast<tcflag_t>(PARENB | PARODD | CSTOPB));
  EXPECT_EQ(even.c_cflag & (PARENB | PARODD | CSTOPB), static_cast<tcflag_t>(PARENB));
}

}  // namespace
}  // namespace fsu::serial
